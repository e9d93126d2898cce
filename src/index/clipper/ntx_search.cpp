// Key search and navigation over the path stack: the core search, the
// next- and previous-key steps, first and last key, the exported search and
// move entries, the current key and the approximate-position functions.
#include <cstring>

#include "index/clipper/ntx_index.h"

namespace kestrel::ntx {

using namespace index;  // search modes and move codes

namespace {

constexpr ModulePath kSearch = KS_ENGINE_MODULE("CKSEARCH");
constexpr ModulePath kPercent = KS_ENGINE_MODULE("CKPERC");

inline KeyDescriptor& Key(NtxIndex* ix) { return *ix->key; }

// Loads the page of path level lvl.
int32_t LoadLevel(NtxIndex* ix, int lvl, uint8_t** page, ModulePath module) {
  int32_t rc = LoadPage(ix, ix->key->path[lvl].page, page);
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

// A page is a leaf (no item has a child) or an inner page (every item has
// one, the last child pointer included).  Comparing the first and the last
// item catches a count that was cut or lost without reading every item.
bool ChildrenAgree(const uint8_t* page) {
  return (ItemChild(Item(page, 0)) != 0) == (ItemChild(Item(page, PageCount(page))) != 0);
}

// Pushes a child page one level down at position pos and loads it.  A tree
// deeper than the path stack, or an empty page below the root, is corrupt.
int32_t Descend(NtxIndex* ix, uint32_t child, int pos, uint8_t** page, ModulePath module) {
  index::PathStack& path = Key(ix).path;
  if (!path.CanPush()) return KS_FAIL(module, DB_ERR_CORRUPTED);
  int32_t rc = LoadPage(ix, child, page);
  if (rc < 0) return KS_PASS(module, rc);
  if (PageCount(*page) == 0 || !ChildrenAgree(*page)) return KS_FAIL(module, DB_ERR_CORRUPTED);
  path.Push(child, pos);
  return 0;
}

// Loads the root as level 0; 202 when it holds no keys.
int32_t StartAtRoot(NtxIndex* ix, uint8_t** page, ModulePath module) {
  KeyDescriptor& k = Key(ix);
  int32_t rc = LoadPage(ix, k.root, page);
  if (rc < 0) {
    ForgetPosition(ix);
    return KS_PASS(module, rc);
  }
  // An empty index has an empty leaf for its root.  A root without keys that
  // still names a child has lost its count.
  bool empty = PageCount(*page) == 0;
  if (empty ? ItemChild(Item(*page, 0)) != 0 : !ChildrenAgree(*page)) {
    ForgetPosition(ix);
    return KS_FAIL(module, DB_ERR_CORRUPTED);
  }
  k.path.StartAt(k.root);
  return empty ? DB_WARN_FILE_EMPTY : 0;
}

void CopyOut(const NtxIndex* ix, const uint8_t* key, uint32_t record, char* key_out,
             int32_t* record_out) {
  std::memcpy(key_out, key, ix->key->key_length);
  key_out[ix->key->key_length] = '\0';
  *record_out = static_cast<int32_t>(record);
}

void Remember(NtxIndex* ix, const uint8_t* key, uint32_t record) {
  ix->key->path.Remember(key, record);
}

bool SharedWriteThrough(const NtxIndex* ix) { return IsShared(ix) && IsWriteThrough(ix); }

int32_t RefreshHeader(NtxIndex* ix, ModulePath module) {
  if (!(ix->state & kStateHeaderStale)) return 0;
  int32_t rc = RereadHeader(ix);
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

}  // namespace

void PrepareKey(const NtxIndex* ix, const char* key, index::Match match, SearchKey* out) {
  const KeyDescriptor& k = *ix->key;
  out->Prepare(key, k.key_length, k.binary_type ? index::KeyForm::kBinary : index::KeyForm::kText,
               match);
}

int32_t CurrentItem(NtxIndex* ix, const uint8_t** key, uint32_t* record, ModulePath module) {
  KeyDescriptor& k = Key(ix);
  if (k.path.level == kNoLevel) return DB_WARN_KEY_NOT_FOUND;
  uint8_t* page = nullptr;
  int32_t rc = LoadLevel(ix, k.path.level, &page, module);
  if (rc < 0) return rc;
  int pos = k.path[k.path.level].pos;
  if (pos < 0 || pos >= PageCount(page)) return kPastEnd;
  const uint8_t* item = Item(page, pos);
  *key = ItemKey(item);
  *record = ItemRecord(item);
  return 0;
}

int32_t GoFirst(NtxIndex* ix, ModulePath module) {
  uint8_t* page = nullptr;
  int32_t rc = StartAtRoot(ix, &page, module);
  if (rc != 0) return rc;
  for (;;) {
    uint32_t child = ItemChild(Item(page, 0));
    if (child == 0) return 0;
    rc = Descend(ix, child, 0, &page, module);
    if (rc < 0) return rc;
  }
}

int32_t GoLast(NtxIndex* ix, ModulePath module) {
  KeyDescriptor& k = Key(ix);
  uint8_t* page = nullptr;
  int32_t rc = StartAtRoot(ix, &page, module);
  if (rc != 0) return rc;
  for (;;) {
    int n = PageCount(page);
    uint32_t child = ItemChild(Item(page, n));
    if (child == 0) {
      k.path[k.path.level].pos = n - 1;
      return 0;
    }
    k.path[k.path.level].pos = n;
    rc = Descend(ix, child, 0, &page, module);
    if (rc < 0) return rc;
  }
}

int32_t NextKeyStep(NtxIndex* ix, ModulePath module) {
  KeyDescriptor& k = Key(ix);
  if (k.path.level == kNoLevel) return GoFirst(ix, module);
  uint8_t* page = nullptr;
  int lvl = k.path.level;
  int32_t rc = LoadLevel(ix, lvl, &page, module);
  if (rc < 0) return rc;
  int pos = ++k.path[lvl].pos;
  int n = PageCount(page);
  uint32_t child = (pos >= 0 && pos <= n) ? ItemChild(Item(page, pos)) : 0;
  if (child != 0) {
    for (;;) {
      rc = Descend(ix, child, 0, &page, module);
      if (rc < 0) return rc;
      child = ItemChild(Item(page, 0));
      if (child == 0) return 0;
    }
  }
  if (pos >= 0 && pos < n) return 0;
  while (lvl > 0) {
    --lvl;
    rc = LoadLevel(ix, lvl, &page, module);
    if (rc < 0) return rc;
    if (k.path[lvl].pos < PageCount(page)) {
      k.path.level = static_cast<uint16_t>(lvl);
      return 0;
    }
  }
  rc = GoLast(ix, module);
  return rc < 0 ? rc : kPastEnd;
}

int32_t PreviousKeyStep(NtxIndex* ix, ModulePath module) {
  KeyDescriptor& k = Key(ix);
  if (k.path.level == kNoLevel) return GoLast(ix, module);
  uint8_t* page = nullptr;
  int lvl = k.path.level;
  int32_t rc = LoadLevel(ix, lvl, &page, module);
  if (rc < 0) return rc;
  int pos = k.path[lvl].pos;
  int n = PageCount(page);
  uint32_t child = (pos >= 0 && pos <= n) ? ItemChild(Item(page, pos)) : 0;
  if (child != 0) {
    for (;;) {
      rc = Descend(ix, child, 0, &page, module);
      if (rc < 0) return rc;
      n = PageCount(page);
      child = ItemChild(Item(page, n));
      if (child == 0) {
        k.path[k.path.level].pos = n - 1;
        return 0;
      }
      k.path[k.path.level].pos = n;
    }
  }
  if (pos > 0) {
    k.path[lvl].pos = (pos > n ? n : pos) - 1;
    return 0;
  }
  while (lvl > 0) {
    --lvl;
    if (--k.path[lvl].pos >= 0) {
      k.path.level = static_cast<uint16_t>(lvl);
      return 0;
    }
  }
  rc = GoFirst(ix, module);
  return rc < 0 ? rc : kBeforeStart;
}

namespace {

// The search stopped on the first item that sorts after the sought key.
int32_t StopOnItem(NtxIndex* ix, int mode, ModulePath module) {
  switch (mode) {
    case kSeekFirst:
    case kSeekRecord:
    case kSeekBelow:
    case kSeekEqualBelow:
    case kSeekBefore:
      return DB_WARN_KEY_NOT_FOUND;
    case kSeekEqualAbove:
    case kSeekAbove: {
      if (!IsDescending(ix)) return 0;
      int32_t rc = PreviousKeyStep(ix, module);
      if (rc == kBeforeStart) return DB_WARN_KEY_NOT_FOUND;
      return rc < 0 ? rc : 0;
    }
    default:
      return 0;
  }
}

}  // namespace

int32_t CoreSearch(NtxIndex* ix, const SearchKey& key, uint32_t record, int mode,
                   ModulePath module) {
  KeyDescriptor& k = Key(ix);
  bool descending = IsDescending(ix);
  int equal_mode = mode;
  if (descending && mode == kSeekBelow)
    equal_mode = kSeekAbove;
  else if (descending && mode == kSeekAbove)
    equal_mode = kSeekBelow;
  uint8_t* page = nullptr;
  int32_t rc = StartAtRoot(ix, &page, module);
  if (rc != 0) return rc;
  enum Action { kAdvance, kDown, kFound };
  bool entered = true;  // the page was just entered at position 0
  for (;;) {
    int lvl = k.path.level;
    int n = PageCount(page);
    if (entered) {
      // Every item that sorts before the sought key is stepped over one by
      // one by the rules below; a binary search lands on the first item that
      // does not, or on the last item when all of them do.
      int lo = 0, hi = n - 1;
      while (lo < hi) {
        int mid = (lo + hi) / 2;
        int c = key.CompareTo(ItemKey(Item(page, mid)));
        if (descending) c = -c;
        if (c > 0)
          lo = mid + 1;
        else
          hi = mid;
      }
      k.path[lvl].pos = lo;
      entered = false;
    }
    int i = k.path[lvl].pos;
    const uint8_t* item = Item(page, i);
    int c = key.CompareTo(ItemKey(item));
    if (descending) c = -c;
    Action action;
    if (c > 0) {
      action = kAdvance;
    } else if (c < 0) {
      action = kDown;
    } else {
      switch (equal_mode) {
        case kSeekFirst:
        case kSeekEqualBelow:
        case kSeekBefore:
        case kSeekEqualAbove:
          action = ItemChild(item) ? kDown : kFound;
          break;
        case kSeekRecord:
          if (ItemRecord(item) == record)
            action = kFound;
          else
            action = ItemChild(item) ? kDown : kAdvance;
          break;
        case kSeekBelow:
          action = kDown;
          break;
        case kSeekAbove:
          action = kAdvance;
          break;
        default:
          action = kFound;
          break;
      }
    }
    if (action == kFound) return 0;
    if (action == kAdvance) {
      if (i + 1 < n) {
        k.path[lvl].pos = i + 1;
        continue;
      }
      uint32_t last_child = ItemChild(Item(page, n));
      if (last_child != 0) {
        k.path[lvl].pos = n;
        rc = Descend(ix, last_child, 0, &page, module);
        if (rc < 0) return rc;
        entered = true;
        continue;
      }
      for (;;) {
        rc = NextKeyStep(ix, module);
        if (rc != 0) return rc;  // an error or past the end
        const uint8_t* found_key = nullptr;
        uint32_t found_record = 0;
        rc = CurrentItem(ix, &found_key, &found_record, module);
        if (rc != 0) return rc;
        // The key reached is judged as the loop judges an item: one that
        // sorts after the sought key stops the search as a leaf item does.
        int cn = key.CompareTo(found_key);
        if (descending) cn = -cn;
        if (cn < 0) return StopOnItem(ix, mode, module);
        if (cn > 0) continue;
        if (equal_mode == kSeekRecord) {
          if (found_record == record) return 0;
          continue;
        }
        if (equal_mode == kSeekBelow) return StopOnItem(ix, mode, module);
        if (equal_mode == kSeekAbove) continue;
        return 0;
      }
    }
    // Go down.
    uint32_t child = ItemChild(item);
    if (child != 0) {
      rc = Descend(ix, child, 0, &page, module);
      if (rc < 0) return rc;
      entered = true;
      continue;
    }
    return StopOnItem(ix, mode, module);
  }
}

// --------------------------------------------------------- exported frame

int32_t KeySearch(NtxIndex* ix, char* key, int32_t* record, int32_t mode) {
  if (!key || !record) return KS_FAIL(kSearch, DB_ERR_NULL);
  KeyDescriptor& k = Key(ix);
  int32_t rc = RefreshHeader(ix, kSearch);
  if (rc < 0) {
    k.remember = 0;
    EndCall(ix);
    return rc;
  }
  if (mode & kSeekRemember) {
    k.remember = 1;
    mode &= ~kSeekRemember;
  }
  // Only the search for a key and its record takes the whole key: a shorter
  // text would otherwise find another key that begins with it.
  SearchKey sk;
  PrepareKey(ix, key, mode == kSeekRecord ? index::Match::kWhole : index::Match::kPrefix, &sk);
  rc = CoreSearch(ix, sk, static_cast<uint32_t>(*record), mode, kSearch);
  bool ascending = !IsDescending(ix);
  if (rc >= 0) {
    int32_t step;
    switch (mode) {
      case kSeekFirst:
        if (rc == DB_WARN_KEY_NOT_FOUND && ascending) {
          step = PreviousKeyStep(ix, kSearch);
          rc = step < 0               ? step
               : step == kBeforeStart ? DB_WARN_NO_MORE_KEYS
                                      : DB_WARN_KEY_NOT_FOUND;
        } else if (rc == kBeforeStart) {
          rc = DB_WARN_NO_MORE_KEYS;
        } else if (rc == kPastEnd) {
          rc = DB_WARN_KEY_NOT_FOUND;
        }
        break;
      case kSeekRecord:
        if (rc == kPastEnd) rc = DB_WARN_NO_MORE_KEYS;
        break;
      case kSeekBelow:
      case kSeekEqualBelow:
        if (rc == DB_WARN_KEY_NOT_FOUND) {
          if (!ascending) {
            rc = 0;
          } else {
            step = PreviousKeyStep(ix, kSearch);
            rc = step < 0 ? step : step == kBeforeStart ? DB_WARN_KEY_NOT_FOUND : 0;
          }
        } else if (rc == kBeforeStart) {
          rc = ascending ? DB_WARN_KEY_NOT_FOUND : 0;
        } else if (rc == kPastEnd) {
          rc = ascending ? 0 : DB_WARN_KEY_NOT_FOUND;
        }
        break;
      case kSeekBefore:
        if (rc == DB_WARN_KEY_NOT_FOUND && ascending) {
          step = PreviousKeyStep(ix, kSearch);
          rc = step < 0 ? step : DB_WARN_KEY_NOT_FOUND;
        } else if (rc == kBeforeStart || rc == kPastEnd) {
          rc = DB_WARN_KEY_NOT_FOUND;
        }
        break;
      case kSeekEqualAbove:
      case kSeekAbove:
        if (rc == kPastEnd) rc = ascending ? DB_WARN_KEY_NOT_FOUND : 0;
        break;
      default:
        break;
    }
    if (rc == kPastEnd || rc == kBeforeStart) rc = DB_WARN_KEY_NOT_FOUND;
  }
  if (rc >= 0 && rc != DB_WARN_FILE_EMPTY) {
    const uint8_t* found = nullptr;
    uint32_t found_record = 0;
    int32_t c = CurrentItem(ix, &found, &found_record, kSearch);
    if (c < 0) {
      rc = c;
    } else if (c == 0) {
      CopyOut(ix, found, found_record, key, record);
      if (k.remember || SharedWriteThrough(ix)) Remember(ix, found, found_record);
    }
  }
  if (rc != 0) k.remember = 0;
  EndCall(ix);
  return rc;
}

int32_t Move(NtxIndex* ix, int32_t code, char* key, int32_t* record) {
  if (!key || !record) return KS_FAIL(kSearch, DB_ERR_NULL);
  KeyDescriptor& k = Key(ix);
  int what = code & ~index::kMoveCodeVariant;
  if (what != kMoveFirst && what != kMoveLast && what != kMoveNext && what != kMovePrevious) {
    return KS_FAIL(kSearch, DB_ERR_INVALID_COMMAND);
  }
  int32_t rc = RefreshHeader(ix, kSearch);
  int32_t status = 0;
  bool stepping = what == kMoveNext || what == kMovePrevious;
  if (rc >= 0 && stepping && SharedWriteThrough(ix)) {
    if (!k.path.HasRemembered()) {
      status = DB_WARN_NO_MORE_KEYS;
      ForgetPosition(ix);
    } else {
      SearchKey sk;
      sk.Use(k.path.remembered_key(), k.key_length);
      int32_t s = CoreSearch(ix, sk, k.path.remembered_record(), kSeekRecord, kSearch);
      if (s < 0)
        rc = s;
      else if (what == kMoveNext && s == DB_WARN_KEY_NOT_FOUND)
        rc = DB_WARN_KEY_NOT_FOUND;
      else if (what == kMovePrevious && s == kPastEnd)
        rc = DB_WARN_KEY_NOT_FOUND;
      else if (s == DB_WARN_FILE_EMPTY)
        rc = DB_WARN_FILE_EMPTY;
    }
    if (rc != 0) {
      k.remember = 0;
      EndCall(ix);
      return rc;
    }
  }
  if (rc < 0) {
    k.remember = 0;
    EndCall(ix);
    return rc;
  }
  int32_t m;
  switch (what) {
    case kMoveFirst:
      m = GoFirst(ix, kSearch);
      break;
    case kMoveLast:
      m = GoLast(ix, kSearch);
      break;
    case kMoveNext:
      m = NextKeyStep(ix, kSearch);
      if (m == kPastEnd) m = DB_WARN_NO_MORE_KEYS;
      break;
    default:
      m = PreviousKeyStep(ix, kSearch);
      if (m == kBeforeStart) m = DB_WARN_NO_MORE_KEYS;
      break;
  }
  rc = m != 0 ? m : status;
  if (rc >= 0 && rc != DB_WARN_FILE_EMPTY) {
    const uint8_t* found = nullptr;
    uint32_t found_record = 0;
    int32_t c = CurrentItem(ix, &found, &found_record, kSearch);
    if (c < 0) {
      rc = c;
    } else if (c == 0) {
      CopyOut(ix, found, found_record, key, record);
      if (rc == 0 && stepping && k.remember) {
        bool differs = std::memcmp(found, k.path.remembered_key(), k.key_length) != 0;
        Remember(ix, found, found_record);
        if (differs) rc = DB_WARN_KEY_NOT_FOUND;
      } else if (SharedWriteThrough(ix)) {
        Remember(ix, found, found_record);
      }
    }
  }
  if (rc != 0) k.remember = 0;
  EndCall(ix);
  return rc;
}

int32_t GetCurrentKey(NtxIndex* ix, char* key, int32_t* record) {
  if (!key || !record) return KS_FAIL(kSearch, DB_ERR_NULL);
  KeyDescriptor& k = Key(ix);
  int32_t rc = RefreshHeader(ix, kSearch);
  if (rc >= 0 && SharedWriteThrough(ix)) {
    if (!k.path.HasRemembered()) {
      rc = DB_WARN_KEY_NOT_FOUND;
    } else {
      SearchKey sk;
      sk.Use(k.path.remembered_key(), k.key_length);
      int32_t s = CoreSearch(ix, sk, k.path.remembered_record(), kSeekRecord, kSearch);
      if (s < 0)
        rc = s;
      else if (s != 0)
        rc = DB_WARN_KEY_NOT_FOUND;
    }
  } else if (rc >= 0 && k.path.level == kNoLevel) {
    rc = DB_WARN_KEY_NOT_FOUND;
  }
  if (rc == 0) {
    const uint8_t* found = nullptr;
    uint32_t found_record = 0;
    rc = CurrentItem(ix, &found, &found_record, kSearch);
    if (rc == kPastEnd) rc = DB_WARN_KEY_NOT_FOUND;
    if (rc == 0) {
      CopyOut(ix, found, found_record, key, record);
      if (SharedWriteThrough(ix)) Remember(ix, found, found_record);
    }
  }
  if (rc != 0) k.remember = 0;
  EndCall(ix);
  return rc;
}

int32_t KeyPercent(NtxIndex* ix, int32_t* percent, const char* key, int32_t record) {
  if (!percent || !key) return KS_FAIL(kPercent, DB_ERR_NULL);
  KeyDescriptor& k = Key(ix);
  SearchKey sk;
  PrepareKey(ix, key, record ? index::Match::kWhole : index::Match::kPrefix, &sk);
  int32_t rc = CoreSearch(ix, sk, static_cast<uint32_t>(record), record ? kSeekRecord : kSeekFirst,
                          kPercent);
  double span = 100.0;
  double position = 0.0;
  int32_t result = rc < 0 ? rc : 0;
  if (rc >= 0 && k.path.level != kNoLevel) {
    for (int lvl = 0; lvl <= k.path.level; ++lvl) {
      uint8_t* page = nullptr;
      int32_t l = LoadLevel(ix, lvl, &page, kPercent);
      if (l < 0) {
        result = l;
        break;
      }
      int n = PageCount(page);
      int branches = ItemChild(Item(page, 0)) ? n + 1 : n;
      if (branches <= 0) break;
      span /= branches;
      position += k.path[lvl].pos * span;
    }
  }
  if (rc == DB_WARN_FILE_EMPTY) result = DB_WARN_FILE_EMPTY;
  *percent = static_cast<int32_t>(position + 0.49);
  if (result != 0) k.remember = 0;
  EndCall(ix);
  return result;
}

int32_t KeyAtPercent(NtxIndex* ix, int32_t percent, char* key, int32_t* record) {
  if (!key || !record) return KS_FAIL(kPercent, DB_ERR_NULL);
  KeyDescriptor& k = Key(ix);
  ForgetPosition(ix);
  uint8_t* page = nullptr;
  int32_t rc = StartAtRoot(ix, &page, kPercent);
  int64_t p = percent;
  while (rc == 0) {
    int c = PageCount(page);
    uint32_t first_child = ItemChild(Item(page, 0));
    if (first_child != 0) {
      int64_t n = c + 1;
      int64_t i = n * p / 100;
      if (i >= n) i = n - 1;
      if (i < 0) i = 0;
      p = ((p * 100 - (i * 10000) / n) * n) / 100;
      k.path[k.path.level].pos = static_cast<int32_t>(i);
      uint32_t child = ItemChild(Item(page, static_cast<int>(i)));
      if (child == 0) {
        rc = KS_FAIL(kPercent, DB_ERR_CORRUPTED);
        break;
      }
      rc = Descend(ix, child, 0, &page, kPercent);
      continue;
    }
    int64_t i = static_cast<int64_t>(c) * p / 100;
    if (i >= c) i = c - 1;
    if (i < 0) i = 0;
    k.path[k.path.level].pos = static_cast<int32_t>(i);
    const uint8_t* item = Item(page, static_cast<int>(i));
    CopyOut(ix, ItemKey(item), ItemRecord(item), key, record);
    if (SharedWriteThrough(ix)) Remember(ix, ItemKey(item), ItemRecord(item));
    break;
  }
  if (rc != 0) k.remember = 0;
  EndCall(ix);
  return rc;
}

}  // namespace kestrel::ntx
