// Key search and navigation over the path stack: the core descent, next and
// previous steps across leaves, first and last key, the exported search and
// move entries, the current key and the approximate-position functions.
//
// Keys live in the leaves; an interior key is the greatest key of the
// subtree on its left, so the first interior key not below the sought key
// names the subtree that holds the first such key of the whole tag.
#include <cstring>

#include "index/dbase/dbase_index.h"

namespace kestrel::dbase {

using namespace index;  // search modes and move codes

namespace {

constexpr ModulePath kSearch = KS_ENGINE_MODULE("MKSEARCH");
constexpr ModulePath kPercent = KS_ENGINE_MODULE("MKPERC");

constexpr int32_t kBeforeStart = 0x10001;

int32_t LoadLevel(DbaseIndex* ix, Tag* t, int lvl, uint8_t** page, ModulePath module) {
  return LoadPage(ix, t, t->path[lvl].page, page, module);
}

// One level down into child, at position pos.  A tree deeper than the path
// stack, or a page below the root without keys, is corrupt.
int32_t Descend(DbaseIndex* ix, Tag* t, uint32_t child, int pos, uint8_t** page,
                ModulePath module) {
  if (!t->path.CanPush()) return KS_FAIL(module, DB_ERR_CORRUPTED);
  int32_t rc = LoadPage(ix, t, child, page, module);
  if (rc < 0) return rc;
  if (PageLayout::Count(*page) == 0) return KS_FAIL(module, DB_ERR_CORRUPTED);
  t->path.Push(child, pos);
  return 0;
}

// Loads the root as level 0; 202 (and no position) when the tag is empty.
int32_t StartAtRoot(DbaseIndex* ix, Tag* t, uint8_t** page, ModulePath module) {
  int32_t rc = LoadPage(ix, t, t->root, page, module);
  if (rc < 0) {
    t->path.Forget();
    return rc;
  }
  if (PageLayout::Count(*page) == 0) {
    t->path.Forget();
    // An empty tag has an empty leaf for its root; a root without keys that
    // still names a child has lost its count.
    if (!t->layout.IsLeaf(*page)) return KS_FAIL(module, DB_ERR_CORRUPTED);
    return DB_WARN_FILE_EMPTY;
  }
  t->path.StartAt(t->root);
  return 0;
}

// Down the leftmost (or rightmost) branch from the page at the bottom of the
// path, whose position is already set.
int32_t DescendEdge(DbaseIndex* ix, Tag* t, uint8_t* page, bool rightmost, ModulePath module) {
  const PageLayout& l = t->layout;
  for (;;) {
    int n = PageLayout::Count(page);
    if (l.IsLeaf(page)) {
      t->path.Bottom().pos = rightmost ? n - 1 : 0;
      return 0;
    }
    int pos = t->path.Bottom().pos;
    int32_t rc = Descend(ix, t, l.Child(l.Item(page, pos)), 0, &page, module);
    if (rc < 0) return rc;
    if (rightmost) t->path.Bottom().pos = PageLayout::Count(page);
  }
}

void CopyOut(const Tag* t, const uint8_t* key, uint32_t record, char* key_out,
             int32_t* record_out) {
  std::memcpy(key_out, key, t->layout.key_length);
  key_out[t->layout.key_length] = '\0';
  *record_out = static_cast<int32_t>(record);
}

bool SharedUnbuffered(const DbaseIndex* ix) {
  return IsShared(ix) && (ix->state & kStateUnbuffered) != 0;
}

}  // namespace

void PrepareKey(const Tag* t, const char* key, index::Match match, SearchKey* out) {
  out->Prepare(key, t->layout.key_length,
               t->order == KeyOrder::kBytes ? index::KeyForm::kText : index::KeyForm::kBinary,
               match);
}

int32_t CurrentItem(DbaseIndex* ix, Tag* t, const uint8_t** key, uint32_t* record,
                    ModulePath module) {
  if (!t->path.HasPosition()) return DB_WARN_NO_MORE_KEYS;
  uint8_t* page = nullptr;
  int32_t rc = LoadLevel(ix, t, t->path.level, &page, module);
  if (rc < 0) return rc;
  int pos = t->path.Bottom().pos;
  if (pos < 0 || pos >= PageLayout::Count(page) || !t->layout.IsLeaf(page)) return kPastEnd;
  const uint8_t* item = t->layout.Item(page, pos);
  *key = t->layout.Key(item);
  *record = t->layout.Record(item);
  return 0;
}

int32_t GoFirst(DbaseIndex* ix, Tag* t, ModulePath module) {
  uint8_t* page = nullptr;
  int32_t rc = StartAtRoot(ix, t, &page, module);
  if (rc != 0) return rc;
  return DescendEdge(ix, t, page, false, module);
}

int32_t GoLast(DbaseIndex* ix, Tag* t, ModulePath module) {
  uint8_t* page = nullptr;
  int32_t rc = StartAtRoot(ix, t, &page, module);
  if (rc != 0) return rc;
  t->path.Bottom().pos = PageLayout::Count(page);
  return DescendEdge(ix, t, page, true, module);
}

int32_t NextKeyStep(DbaseIndex* ix, Tag* t, ModulePath module) {
  if (!t->path.HasPosition()) return GoFirst(ix, t, module);
  uint8_t* page = nullptr;
  int lvl = t->path.level;
  int32_t rc = LoadLevel(ix, t, lvl, &page, module);
  if (rc < 0) return rc;
  if (++t->path[lvl].pos < PageLayout::Count(page)) return 0;
  while (lvl > 0) {
    --lvl;
    rc = LoadLevel(ix, t, lvl, &page, module);
    if (rc < 0) return rc;
    int pos = t->path[lvl].pos;
    if (pos >= 0 && pos < PageLayout::Count(page)) {
      t->path[lvl].pos = pos + 1;
      t->path.level = static_cast<uint16_t>(lvl);
      return DescendEdge(ix, t, page, false, module);
    }
  }
  rc = GoLast(ix, t, module);
  return rc < 0 ? rc : kPastEnd;
}

int32_t PreviousKeyStep(DbaseIndex* ix, Tag* t, ModulePath module) {
  if (!t->path.HasPosition()) return GoLast(ix, t, module);
  uint8_t* page = nullptr;
  int lvl = t->path.level;
  int32_t rc = LoadLevel(ix, t, lvl, &page, module);
  if (rc < 0) return rc;
  int pos = t->path[lvl].pos;
  int n = PageLayout::Count(page);
  if (pos > 0) {
    t->path[lvl].pos = (pos > n ? n : pos) - 1;
    return 0;
  }
  while (lvl > 0) {
    --lvl;
    rc = LoadLevel(ix, t, lvl, &page, module);
    if (rc < 0) return rc;
    int p = t->path[lvl].pos;
    if (p > 0) {
      t->path[lvl].pos = (p > PageLayout::Count(page) ? PageLayout::Count(page) : p) - 1;
      t->path.level = static_cast<uint16_t>(lvl);
      uint8_t* child = nullptr;
      rc = Descend(ix, t, t->layout.Child(t->layout.Item(page, t->path[lvl].pos)), 0, &child,
                   module);
      if (rc < 0) return rc;
      t->path.Bottom().pos = PageLayout::Count(child);
      return DescendEdge(ix, t, child, true, module);
    }
  }
  rc = GoFirst(ix, t, module);
  return rc < 0 ? rc : kBeforeStart;
}

int32_t CoreSearch(DbaseIndex* ix, Tag* t, const SearchKey& key, bool after_equal,
                   const uint32_t* record, ModulePath module) {
  const PageLayout& l = t->layout;
  bool descending = IsDescending(t);
  uint8_t* page = nullptr;
  int32_t rc = StartAtRoot(ix, t, &page, module);
  if (rc != 0) return rc;
  auto compare = [&](const uint8_t* stored) {
    int c = CompareKeys(t->order, key.bytes(), stored, key.compare_length());
    return descending ? -c : c;
  };
  for (;;) {
    int n = PageLayout::Count(page);
    // The first item whose key is not below the sought key (above it when
    // after_equal); n when there is none in this page.
    int lo = 0, hi = n;
    while (lo < hi) {
      int mid = (lo + hi) / 2;
      int c = compare(l.Key(l.Item(page, mid)));
      if (c > 0 || (after_equal && c == 0))
        lo = mid + 1;
      else
        hi = mid;
    }
    t->path.Bottom().pos = lo;
    if (!l.IsLeaf(page)) {
      rc = Descend(ix, t, l.Child(l.Item(page, lo)), 0, &page, module);
      if (rc < 0) return rc;
      continue;
    }
    if (lo == n) {
      // Only the last leaf can end below the sought key; in any other the
      // walk goes on in the next leaf.
      t->path.Bottom().pos = n - 1;
      rc = NextKeyStep(ix, t, module);
      if (rc != 0) return rc;
    }
    if (!record) return 0;
    for (;;) {
      const uint8_t* found = nullptr;
      uint32_t found_record = 0;
      rc = CurrentItem(ix, t, &found, &found_record, module);
      if (rc != 0) return rc;
      if (compare(found) != 0 || found_record == *record) return 0;
      rc = NextKeyStep(ix, t, module);
      if (rc != 0) return rc;
    }
  }
}

namespace {

// True when the key at the position equals the sought key.
bool AtEqualKey(DbaseIndex* ix, Tag* t, const SearchKey& key) {
  const uint8_t* found = nullptr;
  uint32_t record = 0;
  if (CurrentItem(ix, t, &found, &record, kSearch) != 0) return false;
  return CompareKeys(t->order, key.bytes(), found, key.compare_length()) == 0;
}

// One step back from a stop: `none` when there is no key before (the
// position stays on the first key), else `some`.
int32_t StepBack(DbaseIndex* ix, Tag* t, int32_t some, int32_t none) {
  int32_t rc = PreviousKeyStep(ix, t, kSearch);
  if (rc < 0) return rc;
  return rc == kBeforeStart ? none : some;
}

}  // namespace

// The answer of a search mode (bit 64 taken out), positioned as it says.
int32_t SearchMode(DbaseIndex* ix, Tag* t, const SearchKey& sk, uint32_t record, int mode) {
  if (mode == kSeekRecord) {
    int32_t rc = CoreSearch(ix, t, sk, false, &record, kSearch);
    if (rc != 0) return rc == kPastEnd ? DB_WARN_NO_MORE_KEYS : rc;
    const uint8_t* found = nullptr;
    uint32_t found_record = 0;
    rc = CurrentItem(ix, t, &found, &found_record, kSearch);
    if (rc < 0) return rc;
    bool exact = found_record == record && AtEqualKey(ix, t, sk);
    return exact ? 0 : DB_WARN_KEY_NOT_FOUND;
  }
  if (mode != kSeekFirst && (mode < kSeekBelow || mode > kSeekAbove))
    return KS_FAIL(kSearch, DB_ERR_INVALID_COMMAND);
  int32_t rc = CoreSearch(ix, t, sk, mode == kSeekAbove, nullptr, kSearch);
  if (rc < 0 || rc == DB_WARN_FILE_EMPTY) return rc;
  bool past_end = rc == kPastEnd;
  bool equal = !past_end && AtEqualKey(ix, t, sk);
  switch (mode) {
    case kSeekFirst:
      if (equal) return 0;
      if (past_end) return DB_WARN_KEY_NOT_FOUND;
      return StepBack(ix, t, DB_WARN_KEY_NOT_FOUND, DB_WARN_NO_MORE_KEYS);
    case kSeekBelow:
      if (past_end) return 0;
      return StepBack(ix, t, 0, DB_WARN_KEY_NOT_FOUND);
    case kSeekEqualBelow:
      if (equal || past_end) return 0;
      return StepBack(ix, t, 0, DB_WARN_KEY_NOT_FOUND);
    case kSeekBefore:
      if (equal) return 0;
      if (past_end) return DB_WARN_KEY_NOT_FOUND;
      return StepBack(ix, t, DB_WARN_KEY_NOT_FOUND, DB_WARN_KEY_NOT_FOUND);
    default:  // first equal or above, first above
      return past_end ? DB_WARN_KEY_NOT_FOUND : 0;
  }
}

namespace {

// Copies the key at the position to the caller and remembers it when asked;
// a status of 0 or a warning stays as it was.
int32_t HandOut(DbaseIndex* ix, Tag* t, int32_t rc, char* key, int32_t* record, bool remember) {
  if (rc < 0 || rc == DB_WARN_FILE_EMPTY) return rc;
  const uint8_t* found = nullptr;
  uint32_t found_record = 0;
  int32_t c = CurrentItem(ix, t, &found, &found_record, kSearch);
  if (c < 0) return c;
  if (c == 0) {
    CopyOut(t, found, found_record, key, record);
    if (remember || SharedUnbuffered(ix)) t->path.Remember(found, found_record);
  }
  return rc;
}

// Finds the saved key and record again (a shared index without buffering:
// another process may have changed the tree since).
int32_t Refind(DbaseIndex* ix, Tag* t) {
  if (!t->path.HasRemembered()) return DB_WARN_KEY_NOT_FOUND;
  SearchKey sk;
  sk.Use(t->path.remembered_key(), t->layout.key_length);
  return SearchMode(ix, t, sk, t->path.remembered_record(), kSeekRecord);
}

}  // namespace

int32_t KeySearch(DbaseIndex* ix, Tag* t, char* key, int32_t* record, int32_t mode) {
  if (!key || !record) return KS_FAIL(kSearch, DB_ERR_NULL);
  t->remember = (mode & kSeekRemember) ? 1 : 0;
  mode &= ~kSeekRemember;
  SearchKey sk;
  PrepareKey(t, key, mode == kSeekRecord ? index::Match::kWhole : index::Match::kPrefix, &sk);
  int32_t rc = SearchMode(ix, t, sk, static_cast<uint32_t>(*record), mode);
  rc = HandOut(ix, t, rc, key, record, t->remember != 0);
  if (rc != 0) t->remember = 0;
  return rc;
}

int32_t Move(DbaseIndex* ix, Tag* t, int32_t code, char* key, int32_t* record) {
  if (!key || !record) return KS_FAIL(kSearch, DB_ERR_NULL);
  int what = code & ~index::kMoveCodeVariant;
  if (what != kMoveFirst && what != kMoveLast && what != kMoveNext && what != kMovePrevious)
    return KS_FAIL(kSearch, DB_ERR_INVALID_COMMAND);
  bool stepping = what == kMoveNext || what == kMovePrevious;
  if (!stepping) t->remember = 0;
  if (stepping && SharedUnbuffered(ix)) {
    int32_t s = Refind(ix, t);
    if (s != 0) {
      t->remember = 0;
      return s < 0 || s == DB_WARN_FILE_EMPTY ? s : DB_WARN_KEY_NOT_FOUND;
    }
  }
  int32_t rc;
  switch (what) {
    case kMoveFirst:
      rc = GoFirst(ix, t, kSearch);
      break;
    case kMoveLast:
      rc = GoLast(ix, t, kSearch);
      break;
    case kMoveNext:
      if (!t->path.HasPosition()) {
        // Nothing to step from: an empty tag says so, any other has no more.
        uint8_t* root = nullptr;
        rc = StartAtRoot(ix, t, &root, kSearch);
        if (rc == 0) {
          t->path.Forget();
          rc = DB_WARN_NO_MORE_KEYS;
        }
        break;
      }
      rc = NextKeyStep(ix, t, kSearch);
      if (rc == kPastEnd) rc = DB_WARN_NO_MORE_KEYS;
      break;
    default:
      if (!t->path.HasPosition()) {
        uint8_t* root = nullptr;
        rc = StartAtRoot(ix, t, &root, kSearch);
        if (rc == 0) {
          t->path.Forget();
          rc = DB_WARN_NO_MORE_KEYS;
        }
        break;
      }
      rc = PreviousKeyStep(ix, t, kSearch);
      if (rc == kBeforeStart) rc = DB_WARN_NO_MORE_KEYS;
      break;
  }
  if (rc == 0 && stepping && t->remember) {
    const uint8_t* found = nullptr;
    uint32_t found_record = 0;
    int32_t c = CurrentItem(ix, t, &found, &found_record, kSearch);
    if (c < 0) return c;
    if (c == 0 && std::memcmp(found, t->path.remembered_key(), t->layout.key_length) != 0)
      rc = DB_WARN_KEY_NOT_FOUND;
  }
  rc = HandOut(ix, t, rc, key, record, t->remember != 0);
  if (rc != 0) t->remember = 0;
  return rc;
}

int32_t GetCurrentKey(DbaseIndex* ix, Tag* t, char* key, int32_t* record) {
  if (!key || !record) return KS_FAIL(kSearch, DB_ERR_NULL);
  int32_t rc = 0;
  if (SharedUnbuffered(ix)) {
    rc = Refind(ix, t);
    if (rc == DB_WARN_NO_MORE_KEYS) rc = DB_WARN_KEY_NOT_FOUND;
  } else if (!t->path.HasPosition()) {
    uint8_t* root = nullptr;
    rc = StartAtRoot(ix, t, &root, kSearch);
    if (rc == 0) {
      t->path.Forget();
      return DB_WARN_NO_MORE_KEYS;
    }
    return rc;
  }
  if (rc < 0 || rc == DB_WARN_FILE_EMPTY) return rc;
  const uint8_t* found = nullptr;
  uint32_t found_record = 0;
  int32_t c = CurrentItem(ix, t, &found, &found_record, kSearch);
  if (c < 0) return c;
  if (c != 0) return DB_WARN_NO_MORE_KEYS;
  CopyOut(t, found, found_record, key, record);
  return rc;
}

int32_t KeyPercent(DbaseIndex* ix, Tag* t, int32_t* percent, const char* key, int32_t record) {
  if (!percent || !key) return KS_FAIL(kPercent, DB_ERR_NULL);
  *percent = 0;
  SearchKey sk;
  PrepareKey(t, key, record ? index::Match::kWhole : index::Match::kPrefix, &sk);
  int32_t rc = SearchMode(ix, t, sk, static_cast<uint32_t>(record), record ? kSeekRecord : kSeekFirst);
  if (rc < 0 || rc == DB_WARN_FILE_EMPTY) return rc;
  double span = 100.0;
  double position = 0.0;
  int32_t result = 0;
  for (int lvl = 0; t->path.HasPosition() && lvl <= t->path.level; ++lvl) {
    uint8_t* page = nullptr;
    int32_t l = LoadLevel(ix, t, lvl, &page, kPercent);
    if (l < 0) {
      result = l;
      break;
    }
    int n = PageLayout::Count(page);
    int branches = t->layout.IsLeaf(page) ? n : n + 1;
    if (branches <= 0) break;
    span /= branches;
    position += t->path[lvl].pos * span;
  }
  *percent = static_cast<int32_t>(position + 0.49);
  t->remember = 0;
  return result;
}

int32_t KeyAtPercent(DbaseIndex* ix, Tag* t, int32_t percent, char* key, int32_t* record) {
  if (!key || !record) return KS_FAIL(kPercent, DB_ERR_NULL);
  t->remember = 0;
  uint8_t* page = nullptr;
  int32_t rc = StartAtRoot(ix, t, &page, kPercent);
  int64_t p = percent;
  const PageLayout& l = t->layout;
  while (rc == 0) {
    int64_t c = PageLayout::Count(page);
    if (!l.IsLeaf(page)) {
      int64_t m = c + 1;
      int64_t i = m * p / 100;
      if (i >= m) i = m - 1;
      if (i < 0) i = 0;
      p = ((p * 100 - (i * 10000) / m) * m) / 100;
      t->path.Bottom().pos = static_cast<int32_t>(i);
      rc = Descend(ix, t, l.Child(l.Item(page, static_cast<int>(i))), 0, &page, kPercent);
      continue;
    }
    int64_t i = c * p / 100;
    if (i >= c) i = c - 1;
    if (i < 0) i = 0;
    t->path.Bottom().pos = static_cast<int32_t>(i);
    const uint8_t* item = l.Item(page, static_cast<int>(i));
    CopyOut(t, l.Key(item), l.Record(item), key, record);
    if (SharedUnbuffered(ix)) t->path.Remember(l.Key(item), l.Record(item));
    break;
  }
  return rc;
}

}  // namespace kestrel::dbase
