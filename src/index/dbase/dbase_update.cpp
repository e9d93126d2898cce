// Key insertion and deletion: insertion at the search position with page
// splits up to a new root, deletion with separator repair, borrowing from a
// sibling, merging and root collapse.
//
// The invariant every change keeps: each interior key equals the greatest
// key of the subtree on its left (a reader that descends by separators alone
// finds every key), every leaf is at the same depth, and no page below the
// root is left without keys.
//
// A page pointer from the cache is used only until the next load or change
// mark: a load may evict, and a written-through page may be dropped.
#include <cstring>

#include "index/dbase/dbase_index.h"

namespace kestrel::dbase {
namespace {

constexpr ModulePath kAdd = KS_ENGINE_MODULE("MKADD");
constexpr ModulePath kDelete = KS_ENGINE_MODULE("MKDEL");

// ---- page editing -----------------------------------------------------------

void InsertItem(const PageLayout& l, uint8_t* page, int at, const uint8_t* item) {
  int n = PageLayout::Count(page);
  uint32_t trailing = l.Child(l.Item(page, n));
  std::memmove(l.Item(page, at + 1), l.Item(page, at), static_cast<size_t>(n - at) * l.item_length);
  std::memcpy(l.Item(page, at), item, l.item_length);
  l.SetChild(l.Item(page, n + 1), trailing);
  PageLayout::SetCount(page, n + 1);
}

void RemoveItem(const PageLayout& l, uint8_t* page, int at) {
  int n = PageLayout::Count(page);
  uint32_t trailing = l.Child(l.Item(page, n));
  std::memmove(l.Item(page, at), l.Item(page, at + 1),
               static_cast<size_t>(n - 1 - at) * l.item_length);
  std::memset(l.Item(page, n), 0, 4);
  std::memset(l.Item(page, n - 1), 0, l.item_length);
  l.SetChild(l.Item(page, n - 1), trailing);
  PageLayout::SetCount(page, n - 1);
}

// Lays a page out afresh: n items from entries and the child of item n.
void WritePage(const PageLayout& l, uint8_t* page, const uint8_t* entries, int n,
               uint32_t trailing) {
  std::memset(page, 0, l.page_size);
  PageLayout::SetCount(page, n);
  std::memcpy(l.Item(page, 0), entries, static_cast<size_t>(n) * l.item_length);
  l.SetChild(l.Item(page, n), trailing);
}

// An interior item: the child and the greatest key of its subtree.
void MakeInteriorItem(const PageLayout& l, uint8_t* item, uint32_t child, const uint8_t* key) {
  std::memset(item, 0, l.item_length);
  l.SetRecord(item, 0);
  l.SetChild(item, child);
  std::memcpy(l.Key(item), key, l.key_length);
}

// Loads page `number` of the tag, runs edit on it and marks it changed.
template <class Edit>
int32_t EditPage(DbaseIndex* ix, Tag* t, uint32_t number, ModulePath module, Edit&& edit) {
  uint8_t* page = nullptr;
  int32_t rc = LoadPage(ix, t, number, &page, module);
  if (rc < 0) return rc;
  edit(page);
  rc = MarkChanged(ix, number);
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

// Copies the items and the trailing child of a page into `entries`.
int32_t ReadEntries(DbaseIndex* ix, Tag* t, uint32_t number, uint8_t* entries, int* count,
                    uint32_t* trailing, bool* leaf, ModulePath module) {
  uint8_t* page = nullptr;
  int32_t rc = LoadPage(ix, t, number, &page, module);
  if (rc < 0) return rc;
  const PageLayout& l = t->layout;
  *count = PageLayout::Count(page);
  *trailing = l.Child(l.Item(page, *count));
  *leaf = *trailing == 0;
  std::memcpy(entries, l.Item(page, 0), static_cast<size_t>(*count) * l.item_length);
  return 0;
}

// Sets the separator that holds the greatest key of the page at `level`:
// the first ancestor in which the path is not on the rightmost child.
int32_t FixSeparatorAbove(DbaseIndex* ix, Tag* t, int level, const uint8_t* key_in,
                          ModulePath module) {
  uint8_t key[index::kMaxKeyBytes];
  std::memcpy(key, key_in, t->layout.key_length);
  for (int lvl = level - 1; lvl >= 0; --lvl) {
    uint8_t* page = nullptr;
    int32_t rc = LoadPage(ix, t, t->path[lvl].page, &page, module);
    if (rc < 0) return rc;
    int q = t->path[lvl].pos;
    if (q < PageLayout::Count(page)) {
      std::memcpy(t->layout.Key(t->layout.Item(page, q)), key, t->layout.key_length);
      rc = MarkChanged(ix, t->path[lvl].page);
      if (rc < 0) return KS_PASS(module, rc);
      return 0;
    }
  }
  return 0;
}

// ---- insertion --------------------------------------------------------------

// Puts item into the page at path level `level`, at the path's position,
// splitting full pages up to the root.  *split tells whether any page split.
int32_t InsertAt(DbaseIndex* ix, Tag* t, int level, const uint8_t* item_in, bool* split) {
  const PageLayout& l = t->layout;
  uint8_t* scratch = ix->scratch;
  uint8_t item[2 * index::kMaxKeyBytes];
  std::memcpy(item, item_in, l.item_length);
  for (;;) {
    uint32_t number = t->path[level].page;
    int pos = t->path[level].pos;
    uint8_t* page = nullptr;
    int32_t rc = LoadPage(ix, t, number, &page, kAdd);
    if (rc < 0) return rc;
    int n = PageLayout::Count(page);
    if (pos < 0 || pos > n) return KS_FAIL(kAdd, DB_ERR_CORRUPTED);
    if (n < l.max_keys) {
      InsertItem(l, page, pos, item);
      rc = MarkChanged(ix, number);
      return rc < 0 ? KS_PASS(kAdd, rc) : 0;
    }
    // Split: the m + 1 items in order, the lower part to a new left page.
    *split = true;
    bool leaf = l.IsLeaf(page);
    uint32_t trailing = l.Child(l.Item(page, n));
    size_t il = l.item_length;
    std::memcpy(scratch, l.Item(page, 0), pos * il);
    std::memcpy(scratch + pos * il, item, il);
    std::memcpy(scratch + (pos + 1) * il, l.Item(page, pos), (n - pos) * il);
    int total = n + 1;
    int rest = t->rest;
    int left_count = leaf ? rest + 1 : rest;
    uint32_t left_trailing = leaf ? 0 : l.Child(scratch + rest * il);
    uint8_t separator[index::kMaxKeyBytes];
    std::memcpy(separator, l.Key(scratch + (leaf ? rest : rest) * il), l.key_length);
    int right_first = leaf ? rest + 1 : rest + 1;
    uint32_t left = 0;
    uint8_t* left_page = nullptr;
    rc = AllocatePage(ix, &left, &left_page);
    if (rc < 0) return KS_PASS(kAdd, rc);
    rc = EditPage(ix, t, left, kAdd, [&](uint8_t* p) {
      WritePage(l, p, scratch, left_count, left_trailing);
    });
    if (rc < 0) return rc;
    rc = EditPage(ix, t, number, kAdd, [&](uint8_t* p) {
      WritePage(l, p, scratch + right_first * il, total - right_first, leaf ? 0 : trailing);
    });
    if (rc < 0) return rc;
    MakeInteriorItem(l, item, left, separator);
    if (level == 0) {
      uint32_t root = 0;
      uint8_t* root_page = nullptr;
      rc = AllocatePage(ix, &root, &root_page);
      if (rc < 0) return KS_PASS(kAdd, rc);
      rc = EditPage(ix, t, root, kAdd, [&](uint8_t* p) { WritePage(l, p, item, 1, number); });
      if (rc < 0) return rc;
      t->root = root;
      rc = WriteRoot(ix, t);
      return rc < 0 ? KS_PASS(kAdd, rc) : 0;
    }
    --level;  // the parent's position names the old page: the new item goes before it
  }
}

// ---- deletion ---------------------------------------------------------------

// The key and record after the position, read without moving it.
int32_t PeekNext(DbaseIndex* ix, Tag* t, uint8_t* key, uint32_t* record, bool* found) {
  const PageLayout& l = t->layout;
  *found = false;
  int lvl = t->path.level;
  uint8_t* page = nullptr;
  int32_t rc = LoadPage(ix, t, t->path[lvl].page, &page, kDelete);
  if (rc < 0) return rc;
  int pos = t->path[lvl].pos;
  if (pos + 1 < PageLayout::Count(page)) {
    const uint8_t* item = l.Item(page, pos + 1);
    std::memcpy(key, l.Key(item), l.key_length);
    *record = l.Record(item);
    *found = true;
    return 0;
  }
  while (lvl > 0) {
    --lvl;
    rc = LoadPage(ix, t, t->path[lvl].page, &page, kDelete);
    if (rc < 0) return rc;
    int q = t->path[lvl].pos;
    if (q < PageLayout::Count(page)) {
      uint32_t child = l.Child(l.Item(page, q + 1));
      for (int depth = lvl + 1; depth < t->path.depth(); ++depth) {
        rc = LoadPage(ix, t, child, &page, kDelete);
        if (rc < 0) return rc;
        if (PageLayout::Count(page) == 0) return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
        if (l.IsLeaf(page)) {
          const uint8_t* item = l.Item(page, 0);
          std::memcpy(key, l.Key(item), l.key_length);
          *record = l.Record(item);
          *found = true;
          return 0;
        }
        child = l.Child(l.Item(page, 0));
      }
      return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
    }
  }
  return 0;
}

// Brings the page at `level` (below half) back to at least half by merging
// it with a sibling or borrowing from one, up the path as merges empty
// parents.
int32_t Rebalance(DbaseIndex* ix, Tag* t, int level) {
  const PageLayout& l = t->layout;
  size_t il = l.item_length;
  uint8_t* combined = ix->scratch;
  while (level > 0) {
    int up = level - 1;
    uint32_t parent = t->path[up].page;
    uint32_t self = t->path[level].page;
    uint8_t* page = nullptr;
    int32_t rc = LoadPage(ix, t, parent, &page, kDelete);
    if (rc < 0) return rc;
    int pn = PageLayout::Count(page);
    int q = t->path[up].pos;
    if (q < 0 || q > pn || l.Child(l.Item(page, q)) != self)
      return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
    int a = q < pn ? q : q - 1;  // the parent item of the left page of the pair
    if (a < 0) return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
    uint32_t left = l.Child(l.Item(page, a));
    uint32_t right = l.Child(l.Item(page, a + 1));
    uint8_t separator[index::kMaxKeyBytes];
    std::memcpy(separator, l.Key(l.Item(page, a)), l.key_length);
    bool self_is_right = right == self;

    int ca = 0, cb = 0;
    uint32_t ta = 0, tb = 0;
    bool leaf_a = false, leaf_b = false;
    rc = ReadEntries(ix, t, left, combined, &ca, &ta, &leaf_a, kDelete);
    if (rc < 0) return rc;
    size_t at = ca * il;
    if (!leaf_a) {
      MakeInteriorItem(l, combined + at, ta, separator);
      at += il;
    }
    rc = ReadEntries(ix, t, right, combined + at, &cb, &tb, &leaf_b, kDelete);
    if (rc < 0) return rc;
    if (leaf_a != leaf_b) return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
    bool leaf = leaf_a;
    int total = ca + cb + (leaf ? 0 : 1);
    // The greatest key of the right page changes only when it was the
    // emptied page itself; it is then the last key of the left page.
    bool right_max_changes = leaf && self_is_right && cb == 0;

    if (ca + cb < l.max_keys) {
      // Merge into the right page; the left page and its parent item go.
      rc = EditPage(ix, t, right, kDelete, [&](uint8_t* p) {
        WritePage(l, p, combined, total, leaf ? 0 : tb);
      });
      if (rc < 0) return rc;
      rc = ReleasePage(ix, left);
      if (rc < 0) return KS_PASS(kDelete, rc);
      rc = EditPage(ix, t, parent, kDelete, [&](uint8_t* p) { RemoveItem(l, p, a); });
      if (rc < 0) return rc;
      t->path[up].pos = a;
      t->path[level].page = right;
      if (right_max_changes && total > 0) {
        rc = FixSeparatorAbove(ix, t, up, l.Key(combined + (total - 1) * il), kDelete);
        if (rc < 0) return rc;
      }
      if (up == 0 || pn - 1 >= t->half) return 0;
      level = up;
      continue;
    }
    // Borrow: share the items out so that both pages hold at least half.
    int left_count = leaf ? total / 2 : (ca + cb) / 2;
    int right_first = leaf ? left_count : left_count + 1;
    uint32_t left_trailing = leaf ? 0 : l.Child(combined + left_count * il);
    uint8_t new_separator[index::kMaxKeyBytes];
    std::memcpy(new_separator, l.Key(combined + (leaf ? left_count - 1 : left_count) * il),
                l.key_length);
    rc = EditPage(ix, t, left, kDelete, [&](uint8_t* p) {
      WritePage(l, p, combined, left_count, left_trailing);
    });
    if (rc < 0) return rc;
    rc = EditPage(ix, t, right, kDelete, [&](uint8_t* p) {
      WritePage(l, p, combined + right_first * il, total - right_first, leaf ? 0 : tb);
    });
    if (rc < 0) return rc;
    rc = EditPage(ix, t, parent, kDelete, [&](uint8_t* p) {
      std::memcpy(l.Key(l.Item(p, a)), new_separator, l.key_length);
    });
    if (rc < 0) return rc;
    if (right_max_changes) {
      rc = FixSeparatorAbove(ix, t, up, l.Key(combined + (total - 1) * il), kDelete);
      if (rc < 0) return rc;
    }
    return 0;
  }
  return 0;
}

// An interior root left with one child hands the root to it.
int32_t CollapseRoot(DbaseIndex* ix, Tag* t, bool* empty) {
  const PageLayout& l = t->layout;
  uint8_t* page = nullptr;
  int32_t rc = LoadPage(ix, t, t->root, &page, kDelete);
  if (rc < 0) return rc;
  *empty = false;
  if (PageLayout::Count(page) != 0) return 0;
  if (l.IsLeaf(page)) {
    *empty = true;
    return 0;
  }
  uint32_t old_root = t->root;
  t->root = l.Child(l.Item(page, 0));
  rc = ReleasePage(ix, old_root);
  if (rc < 0) return KS_PASS(kDelete, rc);
  rc = WriteRoot(ix, t);
  if (rc < 0) return KS_PASS(kDelete, rc);
  return 0;
}

}  // namespace

int32_t AddKey(DbaseIndex* ix, Tag* t, const char* key, uint32_t record, bool insert) {
  if (!key) return KS_FAIL(kAdd, DB_ERR_NULL);
  bool locked_here = false;
  int32_t rc = BeginUpdate(ix, &locked_here, kAdd);
  if (rc < 0) return rc;
  const PageLayout& l = t->layout;
  SearchKey sk;
  PrepareKey(t, key, index::Match::kWhole, &sk);
  bool unique = IsUnique(t);
  if (unique) {
    rc = CoreSearch(ix, t, sk, false, nullptr, kAdd);
  } else if (insert) {
    rc = CoreSearch(ix, t, sk, false, &record, kAdd);
  } else {
    rc = CoreSearch(ix, t, sk, true, nullptr, kAdd);
  }
  if (rc == 0 && (unique || insert)) {
    const uint8_t* found = nullptr;
    uint32_t found_record = 0;
    rc = CurrentItem(ix, t, &found, &found_record, kAdd);
    if (rc == 0 && CompareKeys(t->order, sk.bytes(), found, l.key_length) == 0 &&
        (unique || found_record == record)) {
      EndUpdate(ix, locked_here);
      return DB_WARN_EXISTS;
    }
    if (rc == kPastEnd) rc = 0;
  }
  if (rc == DB_WARN_FILE_EMPTY) {
    t->path.StartAt(t->root);
    rc = 0;
  } else if (rc == kPastEnd) {
    // After the last key of the last leaf.
    ++t->path.Bottom().pos;
    rc = 0;
  }
  bool split = false;
  if (rc == 0) {
    uint8_t item[2 * index::kMaxKeyBytes] = {};
    l.SetRecord(item, record);
    std::memcpy(l.Key(item), sk.bytes(), l.key_length);
    rc = InsertAt(ix, t, t->path.level, item, &split);
  }
  if (rc == 0 && split) {
    // The path went stale with the split: find the new key again.
    SearchKey again;
    again.Use(sk.bytes(), l.key_length);
    int32_t s = SearchMode(ix, t, again, record, index::kSeekRecord);
    if (s < 0) rc = s;
  }
  if (rc < 0) t->path.Forget();
  t->remember = 0;
  EndUpdate(ix, locked_here);
  return rc;
}

int32_t DeleteKey(DbaseIndex* ix, Tag* t, const char* key, uint32_t record) {
  if (!key) return KS_FAIL(kDelete, DB_ERR_NULL);
  bool locked_here = false;
  int32_t rc = BeginUpdate(ix, &locked_here, kDelete);
  if (rc < 0) return rc;
  const PageLayout& l = t->layout;
  SearchKey sk;
  PrepareKey(t, key, index::Match::kWhole, &sk);
  bool unique = IsUnique(t);
  rc = CoreSearch(ix, t, sk, false, unique ? nullptr : &record, kDelete);
  if (rc == 0) {
    const uint8_t* found = nullptr;
    uint32_t found_record = 0;
    rc = CurrentItem(ix, t, &found, &found_record, kDelete);
    if (rc == 0 && (CompareKeys(t->order, sk.bytes(), found, l.key_length) != 0 ||
                    (!unique && found_record != record)))
      rc = DB_WARN_KEY_NOT_FOUND;
  }
  if (rc == kPastEnd) rc = DB_WARN_KEY_NOT_FOUND;
  if (rc != 0) {
    EndUpdate(ix, locked_here);
    return rc;
  }
  uint8_t next_key[index::kMaxKeyBytes];
  uint32_t next_record = 0;
  bool has_next = false;
  rc = PeekNext(ix, t, next_key, &next_record, &has_next);
  int level = t->path.level;
  int pos = t->path.Bottom().pos;
  int remaining = 0;
  uint8_t new_last[index::kMaxKeyBytes];
  if (rc == 0) {
    rc = EditPage(ix, t, t->path[level].page, kDelete, [&](uint8_t* p) {
      RemoveItem(l, p, pos);
      remaining = PageLayout::Count(p);
      if (remaining > 0) std::memcpy(new_last, l.Key(l.Item(p, remaining - 1)), l.key_length);
    });
  }
  if (rc == 0 && level > 0) {
    if (pos == remaining && remaining > 0) rc = FixSeparatorAbove(ix, t, level, new_last, kDelete);
    if (rc == 0 && remaining < t->half) rc = Rebalance(ix, t, level);
  }
  bool empty = false;
  if (rc == 0) rc = CollapseRoot(ix, t, &empty);
  if (rc == 0) {
    t->path.Forget();
    if (has_next) {
      SearchKey again;
      again.Use(next_key, l.key_length);
      int32_t s = SearchMode(ix, t, again, next_record, index::kSeekRecord);
      if (s < 0) rc = s;
    }
    if (rc == 0 && empty) rc = DB_WARN_FILE_EMPTY;
  }
  if (rc < 0) t->path.Forget();
  t->remember = 0;
  EndUpdate(ix, locked_here);
  return rc;
}

}  // namespace kestrel::dbase
