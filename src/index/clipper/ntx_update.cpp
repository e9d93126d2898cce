// Key insertion and deletion: adds with page splits that carry the middle key
// up the path, deletions with borrowing from and merging with a sibling, and
// the collapse of an emptied root.
#include <cstring>

#include "index/clipper/ntx_index.h"

namespace kestrel::ntx {

using namespace index;  // search modes

namespace {

constexpr ModulePath kAdd = KS_ENGINE_MODULE("CKADD");
constexpr ModulePath kDelete = KS_ENGINE_MODULE("CKDEL");

// The item that moves up the tree during a split.
struct Pending {
  uint8_t key[kMaxKeyLength];
  uint32_t record;
  uint32_t left;   // page with the keys before it
  uint32_t right;  // page with the keys after it
};

int32_t Load(NtxIndex* ix, uint32_t offset, uint8_t** page, ModulePath module) {
  int32_t rc = LoadPage(ix, offset, page);
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

int32_t Changed(NtxIndex* ix, uint32_t offset, ModulePath module) {
  int32_t rc = MarkChanged(ix, offset);
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

// Takes the lock of a shared index for the call when the index allows it.
int32_t BeginChange(NtxIndex* ix, bool* locked_here, ModulePath module) {
  *locked_here = false;
  if (ix->state & kStateReadOnly) return KS_FAIL(module, DB_ERR_READ_ONLY);
  if (IsShared(ix) && ix->lock_state != kLockHeld) {
    if (!(ix->state & kStateAutoLock)) return KS_FAIL(module, DB_ERR_MUST_LOCK);
    int32_t rc = LockIndex(ix);
    if (rc < 0) return KS_PASS(module, rc);
    *locked_here = true;
  }
  return 0;
}

int32_t EndChange(NtxIndex* ix, int32_t rc, bool changed, bool locked_here, ModulePath module) {
  if (rc >= 0 && changed && IsWriteThrough(ix)) {
    int32_t w = WriteHeaderFields(ix, static_cast<uint16_t>(ix->version + 1));
    if (w < 0) rc = KS_PASS(module, w);
  }
  if (locked_here) {
    int32_t u = UnlockIndex(ix);
    if (u < 0 && rc >= 0) rc = u;
  }
  EndCall(ix);
  if (rc < 0) ForgetPosition(ix);
  return rc;
}

void WriteItem(uint8_t* item, uint32_t child, uint32_t record, const uint8_t* key, int key_length) {
  SetItemChild(item, child);
  SetItemRecord(item, record);
  std::memcpy(ItemKey(item), key, key_length);
}

// Inserts an item at pos of a page that is not full, using the spare slot
// named by the table's last entry.
void InsertIntoPage(uint8_t* page, int pos, uint32_t child, uint32_t record, const uint8_t* key,
                    const KeyDescriptor& k) {
  int max = k.max_items;
  uint16_t spare = TableEntry(page, max);
  for (int j = max; j > pos; --j) SetTableEntry(page, j, TableEntry(page, j - 1));
  SetTableEntry(page, pos, spare);
  WriteItem(page + spare, child, record, key, k.key_length);
  SetPageCount(page, PageCount(page) + 1);
}

// Removes the item at pos: its table entry moves to the end.
void RemoveFromPage(uint8_t* page, int pos, const KeyDescriptor& k) {
  int max = k.max_items;
  uint16_t e = TableEntry(page, pos);
  for (int j = pos; j < max; ++j) SetTableEntry(page, j, TableEntry(page, j + 1));
  SetTableEntry(page, max, e);
  SetPageCount(page, PageCount(page) - 1);
}

// Splits the full page at offset while inserting the pending item at pos; on
// return the pending item is the middle key, left the new page and right the
// old one.
int32_t SplitPage(NtxIndex* ix, uint32_t offset, int pos, Pending* p) {
  const KeyDescriptor& k = *ix->key;
  const int max = k.max_items;
  const int half = k.half_page;
  const int size = k.item_size;
  uint8_t seq[2 * kPageSize];  // max + 1 items, in key order
  uint8_t* page = nullptr;
  int32_t rc = Load(ix, offset, &page, kAdd);
  if (rc < 0) return rc;
  for (int j = 0; j <= max; ++j) {
    uint8_t* dst = seq + j * size;
    if (j < pos)
      std::memcpy(dst, Item(page, j), size);
    else if (j == pos)
      WriteItem(dst, p->left, p->record, p->key, k.key_length);
    else
      std::memcpy(dst, Item(page, j - 1), size);
  }
  uint32_t final_child = ItemChild(Item(page, max));
  if (pos < max)
    SetItemChild(seq + (pos + 1) * size, p->right);
  else
    final_child = p->right;

  uint32_t new_offset = 0;
  uint8_t* fresh = nullptr;
  rc = AllocatePage(ix, &new_offset, &fresh);
  if (rc < 0) return KS_PASS(kAdd, rc);
  for (int j = 0; j < half; ++j) std::memcpy(Item(fresh, j), seq + j * size, size);
  SetItemChild(Item(fresh, half), ItemChild(seq + half * size));
  SetPageCount(fresh, half);
  rc = Changed(ix, new_offset, kAdd);
  if (rc < 0) return rc;

  rc = Load(ix, offset, &page, kAdd);
  if (rc < 0) return rc;
  InitPage(page, max, size);
  for (int j = 0; j < max - half; ++j)
    std::memcpy(Item(page, j), seq + (half + 1 + j) * size, size);
  SetItemChild(Item(page, max - half), final_child);
  SetPageCount(page, max - half);
  rc = Changed(ix, offset, kAdd);
  if (rc < 0) return rc;

  const uint8_t* middle = seq + half * size;
  std::memcpy(p->key, ItemKey(middle), k.key_length);
  p->record = ItemRecord(middle);
  p->left = new_offset;
  p->right = offset;
  return 0;
}

// A new root above the old top of the path, holding the pending item.
int32_t GrowRoot(NtxIndex* ix, const Pending& p) {
  KeyDescriptor& k = *ix->key;
  if (!k.path.CanPush()) return KS_FAIL(kAdd, DB_ERR_CORRUPTED);
  uint32_t root = 0;
  uint8_t* page = nullptr;
  int32_t rc = AllocatePage(ix, &root, &page);
  if (rc < 0) return KS_PASS(kAdd, rc);
  WriteItem(Item(page, 0), p.left, p.record, p.key, k.key_length);
  SetItemChild(Item(page, 1), p.right);
  SetPageCount(page, 1);
  rc = Changed(ix, root, kAdd);
  if (rc < 0) return rc;
  uint32_t old_top = k.path[0].page;
  k.path.PushRoot(root, p.left == old_top ? 0 : 1);
  k.root = root;
  ix->header_changed = 1;
  return 0;
}

int32_t InsertAtPath(NtxIndex* ix, Pending* p, int pos, bool* split) {
  KeyDescriptor& k = *ix->key;
  int lvl = k.path.level;
  for (;;) {
    uint32_t offset = k.path[lvl].page;
    uint8_t* page = nullptr;
    int32_t rc = Load(ix, offset, &page, kAdd);
    if (rc < 0) return rc;
    if (PageCount(page) < k.max_items) {
      InsertIntoPage(page, pos, p->left, p->record, p->key, k);
      SetItemChild(Item(page, pos + 1), p->right);
      k.path[lvl].pos = pos;
      return Changed(ix, offset, kAdd);
    }
    *split = true;
    rc = SplitPage(ix, offset, pos, p);
    if (rc < 0) return rc;
    if (lvl == 0) {
      k.path.level = 0;
      return GrowRoot(ix, *p);
    }
    --lvl;
    pos = k.path[lvl].pos;
  }
}

}  // namespace

int32_t AddKey(NtxIndex* ix, const char* key, uint32_t record, bool insert) {
  if (!key) return KS_FAIL(kAdd, DB_ERR_NULL);
  bool locked_here = false;
  int32_t rc = BeginChange(ix, &locked_here, kAdd);
  if (rc < 0) return EndChange(ix, rc, false, false, kAdd);
  KeyDescriptor& k = *ix->key;
  SearchKey sk;
  PrepareKey(ix, key, index::Match::kWhole, &sk);
  // Unique: the key must not be there.  InsertKey: the key with this record
  // must not be there.  AddKey: after every equal key.
  int mode = IsUnique(ix)       ? kSeekFirst
             : insert           ? kSeekRecord
             : IsDescending(ix) ? kSeekBelow
                                : kSeekAbove;
  rc = CoreSearch(ix, sk, record, mode, kAdd);
  if (rc < 0) return EndChange(ix, rc, false, locked_here, kAdd);
  if (rc == 0 && (mode == kSeekFirst || mode == kSeekRecord)) {
    return EndChange(ix, DB_WARN_EXISTS, false, locked_here, kAdd);
  }
  int pos = 0;
  if (rc == DB_WARN_FILE_EMPTY) {
    k.path.StartAt(k.root);
  } else {
    uint8_t* page = nullptr;
    int32_t l = Load(ix, k.path[k.path.level].page, &page, kAdd);
    if (l < 0) return EndChange(ix, l, false, locked_here, kAdd);
    pos = k.path[k.path.level].pos;
    if (rc == kPastEnd) {
      ++pos;
    } else if (ItemChild(Item(page, pos)) != 0) {
      l = PreviousKeyStep(ix, kAdd);
      if (l < 0) return EndChange(ix, l, false, locked_here, kAdd);
      pos = k.path[k.path.level].pos + 1;
    }
  }
  Pending p{};
  std::memcpy(p.key, sk.bytes(), k.key_length);
  p.record = record;
  bool split = false;
  rc = InsertAtPath(ix, &p, pos, &split);
  if (rc >= 0) {
    rc = 0;
    if (split) ForgetPosition(ix);
  }
  return EndChange(ix, rc, true, locked_here, kAdd);
}

namespace {

// Rebalances the page at level lvl after a removal left it below half a page.
// Returns 1 when a merge moved the removal up to the parent (at *pos).
int32_t Rebalance(NtxIndex* ix, int lvl, int* pos) {
  KeyDescriptor& k = *ix->key;
  const int max = k.max_items;
  const int size = k.item_size;
  uint32_t offset = k.path[lvl].page;
  uint32_t parent_offset = k.path[lvl - 1].page;
  int q = k.path[lvl - 1].pos;
  uint8_t* parent = nullptr;
  int32_t rc = Load(ix, parent_offset, &parent, kDelete);
  if (rc < 0) return rc;
  int pc = PageCount(parent);
  if (q < 0 || q > pc) return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
  bool sibling_left = q == pc;
  int sep = sibling_left ? q - 1 : q;
  if (sep < 0) return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
  uint32_t sibling_offset = ItemChild(Item(parent, sibling_left ? q - 1 : q + 1));
  if (sibling_offset == 0 || sibling_offset == offset) return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
  uint8_t* sibling = nullptr;
  rc = Load(ix, sibling_offset, &sibling, kDelete);
  if (rc < 0) return rc;
  uint8_t* page = nullptr;
  rc = Load(ix, offset, &page, kDelete);
  if (rc < 0) return rc;
  int n = PageCount(page);
  int sn = PageCount(sibling);
  uint8_t* sep_item = Item(parent, sep);

  if (n + sn >= max) {
    if (sn == 0) return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
    if (sibling_left) {
      InsertIntoPage(page, 0, ItemChild(Item(sibling, sn)), ItemRecord(sep_item), ItemKey(sep_item),
                     k);
      const uint8_t* last = Item(sibling, sn - 1);
      SetItemRecord(sep_item, ItemRecord(last));
      std::memcpy(ItemKey(sep_item), ItemKey(last), k.key_length);
      SetPageCount(sibling, sn - 1);
    } else {
      uint8_t* tail = Item(page, n);
      SetItemRecord(tail, ItemRecord(sep_item));
      std::memcpy(ItemKey(tail), ItemKey(sep_item), k.key_length);
      SetItemChild(Item(page, n + 1), ItemChild(Item(sibling, 0)));
      SetPageCount(page, n + 1);
      const uint8_t* first = Item(sibling, 0);
      SetItemRecord(sep_item, ItemRecord(first));
      std::memcpy(ItemKey(sep_item), ItemKey(first), k.key_length);
      RemoveFromPage(sibling, 0, k);
    }
    rc = Changed(ix, offset, kDelete);
    if (rc >= 0) rc = Changed(ix, sibling_offset, kDelete);
    if (rc >= 0) rc = Changed(ix, parent_offset, kDelete);
    return rc < 0 ? rc : 0;
  }

  // Merge the right page of the pair into the left one.
  uint32_t left_offset = sibling_left ? sibling_offset : offset;
  uint32_t right_offset = sibling_left ? offset : sibling_offset;
  uint8_t* left = sibling_left ? sibling : page;
  uint8_t* right = sibling_left ? page : sibling;
  int cl = PageCount(left);
  int cr = PageCount(right);
  if (cl + 1 + cr > max) return KS_FAIL(kDelete, DB_ERR_CORRUPTED);
  uint8_t* joint = Item(left, cl);
  SetItemRecord(joint, ItemRecord(sep_item));
  std::memcpy(ItemKey(joint), ItemKey(sep_item), k.key_length);
  for (int j = 0; j <= cr; ++j) std::memcpy(Item(left, cl + 1 + j), Item(right, j), size);
  SetPageCount(left, cl + 1 + cr);
  SetItemChild(sep_item, 0);
  SetItemChild(Item(parent, sep + 1), left_offset);
  rc = Changed(ix, left_offset, kDelete);
  if (rc >= 0) rc = Changed(ix, parent_offset, kDelete);
  if (rc >= 0) {
    rc = ReleasePage(ix, right_offset);
    if (rc < 0) rc = KS_PASS(kDelete, rc);
  }
  if (rc < 0) return rc;
  k.path[lvl - 1].pos = sep;
  *pos = sep;
  return 1;
}

}  // namespace

int32_t DeleteKey(NtxIndex* ix, const char* key, uint32_t record) {
  if (!key) return KS_FAIL(kDelete, DB_ERR_NULL);
  bool locked_here = false;
  int32_t rc = BeginChange(ix, &locked_here, kDelete);
  if (rc < 0) return EndChange(ix, rc, false, false, kDelete);
  KeyDescriptor& k = *ix->key;
  // A unique index finds the key alone, comparing the text given (so a
  // shorter text removes the first key that begins with it); otherwise the
  // whole key with this record.
  SearchKey sk;
  int mode = IsUnique(ix) ? kSeekFirst : kSeekRecord;
  PrepareKey(ix, key, IsUnique(ix) ? index::Match::kPrefix : index::Match::kWhole, &sk);
  rc = CoreSearch(ix, sk, record, mode, kDelete);
  if (rc == kPastEnd) rc = DB_WARN_KEY_NOT_FOUND;
  if (rc != 0) return EndChange(ix, rc, false, locked_here, kDelete);

  int lvl = k.path.level;
  int pos = k.path[lvl].pos;
  uint8_t* page = nullptr;
  rc = Load(ix, k.path[lvl].page, &page, kDelete);
  if (rc < 0) return EndChange(ix, rc, false, locked_here, kDelete);
  uint32_t child = ItemChild(Item(page, pos));
  bool restructured = false;
  if (child != 0) {
    // An inner key: its in-order predecessor (the last key of the rightmost
    // leaf below it) takes its place, and the removal moves to that leaf.
    uint32_t inner_offset = k.path[lvl].page;
    for (;;) {
      if (!k.path.CanPush())
        return EndChange(ix, KS_FAIL(kDelete, DB_ERR_CORRUPTED), true, locked_here, kDelete);
      rc = Load(ix, child, &page, kDelete);
      if (rc < 0) return EndChange(ix, rc, true, locked_here, kDelete);
      int n = PageCount(page);
      if (n == 0)
        return EndChange(ix, KS_FAIL(kDelete, DB_ERR_CORRUPTED), true, locked_here, kDelete);
      k.path.Push(child, n);
      child = ItemChild(Item(page, n));
      if (child == 0) {
        k.path[k.path.level].pos = n - 1;
        break;
      }
    }
    uint8_t predecessor[kMaxKeyLength];
    const uint8_t* last = Item(page, k.path[k.path.level].pos);
    uint32_t predecessor_record = ItemRecord(last);
    std::memcpy(predecessor, ItemKey(last), k.key_length);
    rc = Load(ix, inner_offset, &page, kDelete);
    if (rc >= 0) {
      uint8_t* inner = Item(page, pos);
      SetItemRecord(inner, predecessor_record);
      std::memcpy(ItemKey(inner), predecessor, k.key_length);
      rc = Changed(ix, inner_offset, kDelete);
    }
    if (rc < 0) return EndChange(ix, rc, true, locked_here, kDelete);
    lvl = k.path.level;
    pos = k.path[lvl].pos;
  }

  for (;;) {
    uint32_t offset = k.path[lvl].page;
    rc = Load(ix, offset, &page, kDelete);
    if (rc < 0) return EndChange(ix, rc, true, locked_here, kDelete);
    if (pos < 0 || pos >= PageCount(page)) {
      return EndChange(ix, KS_FAIL(kDelete, DB_ERR_CORRUPTED), true, locked_here, kDelete);
    }
    RemoveFromPage(page, pos, k);
    if (lvl == 0 || PageCount(page) >= k.half_page) {
      rc = Changed(ix, offset, kDelete);
      if (rc < 0) return EndChange(ix, rc, true, locked_here, kDelete);
      break;
    }
    restructured = true;
    rc = Rebalance(ix, lvl, &pos);
    if (rc < 0) return EndChange(ix, rc, true, locked_here, kDelete);
    if (rc == 0) break;
    --lvl;
    k.path.level = static_cast<uint16_t>(lvl);
  }

  rc = Load(ix, k.root, &page, kDelete);
  if (rc < 0) return EndChange(ix, rc, true, locked_here, kDelete);
  if (PageCount(page) == 0) {
    uint32_t only_child = ItemChild(Item(page, 0));
    if (only_child != 0) {
      uint32_t old_root = k.root;
      k.root = only_child;
      ix->header_changed = 1;
      rc = ReleasePage(ix, old_root);
      if (rc < 0) return EndChange(ix, KS_PASS(kDelete, rc), true, locked_here, kDelete);
      restructured = true;
    }
  }
  if (restructured) ForgetPosition(ix);
  return EndChange(ix, 0, true, locked_here, kDelete);
}

}  // namespace kestrel::ntx
