// Key search and navigation over FoxPro tags.
//
// Every tree is ordered by (key, record) ascending, descending tags too; a
// descending tag is the same tree read backwards.  The walking routines work
// in that physical order; KeySearch and Move turn the caller's question
// into physical terms, so that a descending tag answers in its own order.
#include <cstring>

#include "index/foxpro/fox_index.h"

namespace kestrel::foxpro {
namespace {

constexpr ModulePath kSearch = KS_ENGINE_MODULE("OKSEARCH");
constexpr ModulePath kPercent = KS_ENGINE_MODULE("OKPERC");

using index::SearchKey;

int32_t Prepare(FoxIndex* ix) {
  if (ix->state & kStateHeaderStale) return RereadHeader(ix);
  return 0;
}

// Loads the root at level 0; 202 for an empty tag (no position).
int32_t StartAtRoot(FoxIndex* ix, Tag* tag, const Node** node, ModulePath module) {
  int32_t rc = LoadNode(ix, tag, 0, tag->root, node, module);
  if (rc < 0) return rc;
  if ((*node)->count == 0) {
    tag->path.Forget();
    return DB_WARN_FILE_EMPTY;
  }
  tag->path.StartAt(tag->root);
  return 0;
}

// From the bottom of the path (an interior node) down to a leaf, through
// the first (rightmost false) or last entry of every node.
int32_t DescendEdge(FoxIndex* ix, Tag* tag, bool rightmost, ModulePath module) {
  index::PathStack& path = tag->path;
  const Node* node = nullptr;
  int32_t rc = LoadNode(ix, tag, path.level, path.Bottom().page, &node, module);
  while (rc >= 0 && !node->IsLeaf()) {
    uint32_t child = node->children[path.Bottom().pos];
    if (!path.Push(child, 0)) return KS_FAIL(module, DB_ERR_CORRUPTED);
    rc = LoadNode(ix, tag, path.level, child, &node, module);
    if (rc < 0) return rc;
    if (node->count == 0) return KS_FAIL(module, DB_ERR_CORRUPTED);
    path.Bottom().pos = rightmost ? node->count - 1 : 0;
  }
  return rc < 0 ? rc : 0;
}

int32_t EdgeKey(FoxIndex* ix, Tag* tag, bool last, ModulePath module) {
  const Node* root = nullptr;
  int32_t rc = StartAtRoot(ix, tag, &root, module);
  if (rc != 0) return rc;
  tag->path.Bottom().pos = last ? root->count - 1 : 0;
  return DescendEdge(ix, tag, last, module);
}

int32_t LastKey(FoxIndex* ix, Tag* tag, ModulePath module) { return EdgeKey(ix, tag, true, module); }

int32_t PreviousKeyStep(FoxIndex* ix, Tag* tag, ModulePath module) {
  index::PathStack& path = tag->path;
  if (!path.HasPosition()) return LastKey(ix, tag, module);
  if (path.Bottom().pos > 0) {
    --path.Bottom().pos;
    return 0;
  }
  int lvl = path.level - 1;
  while (lvl >= 0 && path[lvl].pos == 0) --lvl;
  if (lvl < 0) return kBeforeStart;
  path.level = static_cast<uint16_t>(lvl);
  --path.Bottom().pos;
  return DescendEdge(ix, tag, true, module);
}

// The number of keys a walk may visit before the tree is taken for a loop:
// more than every node of the file could hold.
uint64_t StepBudget(const FoxIndex* ix) {
  return (ix->pages.file_length() / kNodeSize + 1) * kMaxNodeEntries;
}

// Positions on the first physical key that the search key sorts before
// (strict) or before or with; kPastEnd leaves the position on the last key.
int32_t Descend(FoxIndex* ix, Tag* tag, const SearchKey& key, bool strict, ModulePath module) {
  const Node* node = nullptr;
  int32_t rc = StartAtRoot(ix, tag, &node, module);
  if (rc != 0) return rc;
  index::PathStack& path = tag->path;
  const int kl = tag->key_length();
  auto satisfied = [&](const uint8_t* stored) {
    int c = key.CompareTo(stored);
    return strict ? c < 0 : c <= 0;
  };
  for (;;) {
    int i = 0;
    while (i < node->count && !satisfied(node->Key(i, kl))) ++i;
    if (node->IsLeaf()) {
      if (i < node->count) {
        path.Bottom().pos = i;
        return 0;
      }
      path.Bottom().pos = node->count - 1;
      break;
    }
    if (i == node->count) i = node->count - 1;
    path.Bottom().pos = i;
    uint32_t child = node->children[i];
    if (!path.Push(child, 0)) return KS_FAIL(module, DB_ERR_CORRUPTED);
    rc = LoadNode(ix, tag, path.level, child, &node, module);
    if (rc < 0) return rc;
    if (node->count == 0) return KS_FAIL(module, DB_ERR_CORRUPTED);
  }
  // Interior entries that do not match their children: walk on.
  uint64_t budget = StepBudget(ix);
  for (;;) {
    rc = NextKeyStep(ix, tag, module);
    if (rc != 0) return rc;
    const uint8_t* stored = nullptr;
    uint32_t record = 0;
    rc = CurrentEntry(ix, tag, &stored, &record, module);
    if (rc < 0) return rc;
    if (satisfied(stored)) return 0;
    if (--budget == 0) return KS_FAIL(module, DB_ERR_CORRUPTED);
  }
}

// The position of (key, record): 0 on it, 204 on the first key above the
// key, kPastEnd on the last key.
int32_t FindPair(FoxIndex* ix, Tag* tag, const SearchKey& key, uint32_t record,
                 ModulePath module) {
  int32_t rc = Descend(ix, tag, key, false, module);
  uint64_t budget = StepBudget(ix);
  while (rc == 0) {
    const uint8_t* stored = nullptr;
    uint32_t found = 0;
    rc = CurrentEntry(ix, tag, &stored, &found, module);
    if (rc < 0) return rc;
    if (key.CompareTo(stored) != 0) return DB_WARN_KEY_NOT_FOUND;
    if (found == record) return 0;
    if (--budget == 0) return KS_FAIL(module, DB_ERR_CORRUPTED);
    rc = NextKeyStep(ix, tag, module);
  }
  return rc;
}

// Logical order: a descending tag is its tree read backwards.
struct Logical {
  FoxIndex* ix;
  Tag* tag;
  ModulePath module;

  bool descending() const { return tag->descending; }
  // One key back in the tag's order; false (position unchanged) at its first key.
  int32_t StepBack(bool* moved) {
    int32_t rc = descending() ? NextKeyStep(ix, tag, module) : PreviousKeyStep(ix, tag, module);
    *moved = rc == 0;
    return rc == kPastEnd || rc == kBeforeStart ? 0 : rc;
  }
  // The first key in the tag's order that is not before the search key
  // (strict: that is after it).  *exists false: every key comes before it,
  // the position is on the tag's last key.
  int32_t FirstNotBefore(const SearchKey& key, bool strict, bool* exists) {
    *exists = false;
    if (!descending()) {
      int32_t rc = Descend(ix, tag, key, strict, module);
      if (rc == kPastEnd) return 0;
      *exists = rc == 0;
      return rc;
    }
    // Backwards: the last physical key at or below the search key (strict:
    // below it).
    int32_t rc = Descend(ix, tag, key, !strict, module);
    if (rc == kPastEnd) {
      *exists = true;
      return 0;
    }
    if (rc != 0) return rc;
    rc = PreviousKeyStep(ix, tag, module);
    if (rc == kBeforeStart) return 0;
    *exists = rc == 0;
    return rc;
  }
};

int32_t CopyOut(FoxIndex* ix, Tag* tag, char* key, int32_t* record) {
  const uint8_t* stored = nullptr;
  uint32_t found = 0;
  int32_t rc = CurrentEntry(ix, tag, &stored, &found, kSearch);
  if (rc < 0) return rc;
  std::memcpy(key, stored, static_cast<size_t>(tag->key_length()));
  key[tag->key_length()] = '\0';
  *record = static_cast<int32_t>(found);
  return 0;
}

void PrepareKey(const Tag* tag, const char* key, index::Match match, SearchKey* out) {
  index::KeyForm form = tag->type == 'C' ? index::KeyForm::kText : index::KeyForm::kBinary;
  out->Prepare(key, tag->key_length(), form, match);
}

bool KeepsCurrent(const FoxIndex* ix, const Tag* tag) {
  return tag->remember || (IsShared(ix) && IsWriteThrough(ix));
}

void RememberPosition(FoxIndex* ix, Tag* tag, const char* key, int32_t record) {
  if (KeepsCurrent(ix, tag))
    tag->path.Remember(reinterpret_cast<const uint8_t*>(key), static_cast<uint32_t>(record));
}

// Finds the remembered position again (shared write-through indexes keep
// nothing between calls): the result of the pair search, or 203 when
// nothing was remembered.
int32_t Refind(FoxIndex* ix, Tag* tag) {
  if (!tag->path.HasRemembered()) return DB_WARN_NO_MORE_KEYS;
  SearchKey k;
  k.Use(tag->path.remembered_key(), tag->key_length());
  return FindPair(ix, tag, k, tag->path.remembered_record(), kSearch);
}

int32_t Finish(FoxIndex* ix, Tag* tag, int32_t rc) {
  if (rc != 0) tag->remember = 0;
  EndCall(ix);
  return rc;
}

}  // namespace

int32_t FirstKey(FoxIndex* ix, Tag* tag, ModulePath module) {
  return EdgeKey(ix, tag, false, module);
}

int32_t NextKeyStep(FoxIndex* ix, Tag* tag, ModulePath module) {
  index::PathStack& path = tag->path;
  if (!path.HasPosition()) return FirstKey(ix, tag, module);
  const Node* node = nullptr;
  int32_t rc = LoadNode(ix, tag, path.level, path.Bottom().page, &node, module);
  if (rc < 0) return rc;
  if (path.Bottom().pos + 1 < node->count) {
    ++path.Bottom().pos;
    return 0;
  }
  int lvl = path.level - 1;
  while (lvl >= 0) {
    rc = LoadNode(ix, tag, lvl, path[lvl].page, &node, module);
    if (rc < 0) return rc;
    if (path[lvl].pos + 1 < node->count) break;
    --lvl;
  }
  if (lvl < 0) return kPastEnd;
  path.level = static_cast<uint16_t>(lvl);
  ++path.Bottom().pos;
  return DescendEdge(ix, tag, false, module);
}

int32_t CurrentEntry(FoxIndex* ix, Tag* tag, const uint8_t** key, uint32_t* record,
                     ModulePath module) {
  if (!tag->path.HasPosition()) return DB_WARN_NO_MORE_KEYS;
  const Node* node = nullptr;
  int32_t rc = LoadNode(ix, tag, tag->path.level, tag->path.Bottom().page, &node, module);
  if (rc < 0) return rc;
  int pos = tag->path.Bottom().pos;
  if (!node->IsLeaf() || pos < 0 || pos >= node->count) return KS_FAIL(module, DB_ERR_CORRUPTED);
  *key = node->Key(pos, tag->key_length());
  *record = node->records[pos];
  return 0;
}

int32_t KeySearch(FoxIndex* ix, Tag* tag, char* key, int32_t* record, int32_t mode) {
  int32_t rc = Prepare(ix);
  if (rc < 0) return Finish(ix, tag, rc);
  tag->remember = (mode & index::kSeekRemember) ? 1 : 0;
  mode &= ~index::kSeekRemember;
  SearchKey k;
  Logical order{ix, tag, kSearch};
  bool exists = false;
  bool moved = false;
  if (mode == index::kSeekRecord) {
    PrepareKey(tag, key, index::Match::kPrefix, &k);
    rc = FindPair(ix, tag, k, static_cast<uint32_t>(*record), kSearch);
    if (rc == kPastEnd) rc = DB_WARN_NO_MORE_KEYS;
  } else {
    PrepareKey(tag, key, index::Match::kPrefix, &k);
    bool strict = mode == index::kSeekAbove;
    rc = order.FirstNotBefore(k, strict, &exists);
    if (rc == 0) {
      const uint8_t* stored = nullptr;
      uint32_t found = 0;
      bool equal = false;
      if (exists) {
        rc = CurrentEntry(ix, tag, &stored, &found, kSearch);
        equal = rc == 0 && k.CompareTo(stored) == 0;
      }
      if (rc >= 0) {
        switch (mode) {
          case index::kSeekFirst:
            if (exists && equal) break;
            if (!exists) {
              rc = DB_WARN_KEY_NOT_FOUND;
              break;
            }
            rc = order.StepBack(&moved);
            if (rc == 0) rc = moved ? DB_WARN_KEY_NOT_FOUND : DB_WARN_NO_MORE_KEYS;
            break;
          case index::kSeekEqualBelow:
            if (exists && equal) break;
            [[fallthrough]];
          case index::kSeekBelow:
            if (!exists) break;
            rc = order.StepBack(&moved);
            if (rc == 0 && !moved) rc = DB_WARN_KEY_NOT_FOUND;
            break;
          case index::kSeekBefore:
            if (exists && equal) break;
            if (exists) rc = order.StepBack(&moved);
            if (rc == 0) rc = DB_WARN_KEY_NOT_FOUND;
            break;
          case index::kSeekEqualAbove:
          case index::kSeekAbove:
            if (!exists) rc = DB_WARN_KEY_NOT_FOUND;
            break;
          default:
            if (!(exists && equal)) rc = DB_WARN_KEY_NOT_FOUND;
            break;
        }
      }
    }
  }
  if (rc >= 0 && tag->path.HasPosition()) {
    int32_t copied = CopyOut(ix, tag, key, record);
    if (copied < 0) rc = copied;
  }
  if (rc >= 0 && tag->path.HasPosition()) RememberPosition(ix, tag, key, *record);
  return Finish(ix, tag, rc);
}

int32_t Move(FoxIndex* ix, Tag* tag, int32_t code, char* key, int32_t* record) {
  int32_t rc = Prepare(ix);
  if (rc < 0) return Finish(ix, tag, rc);
  int32_t move = code & 0x70;
  bool backwards = tag->descending && (code & index::kMoveCodeVariant) == 0;
  bool relative = move == index::kMoveNext || move == index::kMovePrevious;
  bool forward = move == index::kMoveNext || move == index::kMoveFirst;
  if (move != index::kMoveFirst && move != index::kMoveLast && !relative)
    return Finish(ix, tag, KS_FAIL(kSearch, DB_ERR_INVALID_COMMAND));
  bool physical_forward = forward != backwards;
  if (relative && IsShared(ix) && IsWriteThrough(ix)) {
    rc = Refind(ix, tag);
    if (rc == DB_WARN_NO_MORE_KEYS || rc < 0) return Finish(ix, tag, rc);
    // A key that went away: the walk goes on from where it would have been.
    if (rc == DB_WARN_KEY_NOT_FOUND && physical_forward) return Finish(ix, tag, rc);
    if (rc == kPastEnd && !physical_forward) return Finish(ix, tag, DB_WARN_KEY_NOT_FOUND);
  }
  if (!relative) {
    tag->remember = 0;
    rc = EdgeKey(ix, tag, !physical_forward, kSearch);
  } else {
    rc = physical_forward ? NextKeyStep(ix, tag, kSearch) : PreviousKeyStep(ix, tag, kSearch);
    if (rc == kPastEnd || rc == kBeforeStart) rc = DB_WARN_NO_MORE_KEYS;
  }
  if (rc >= 0 && tag->path.HasPosition()) {
    int32_t copied = CopyOut(ix, tag, key, record);
    if (copied < 0) return Finish(ix, tag, copied);
    if (rc == 0 && relative && tag->remember &&
        std::memcmp(key, tag->path.remembered_key(), static_cast<size_t>(tag->key_length())) != 0)
      rc = DB_WARN_KEY_NOT_FOUND;
    if (rc == 0) RememberPosition(ix, tag, key, *record);
  }
  return Finish(ix, tag, rc);
}

int32_t GetCurrentKey(FoxIndex* ix, Tag* tag, char* key, int32_t* record) {
  int32_t rc = Prepare(ix);
  if (rc < 0) return Finish(ix, tag, rc);
  if (IsShared(ix) && IsWriteThrough(ix)) {
    rc = Refind(ix, tag);
    if (rc != 0) return Finish(ix, tag, rc < 0 ? rc : DB_WARN_KEY_NOT_FOUND);
  }
  if (!tag->path.HasPosition()) {
    const Node* root = nullptr;
    rc = LoadNode(ix, tag, 0, tag->root, &root, kSearch);
    if (rc >= 0) rc = root->count == 0 ? DB_WARN_FILE_EMPTY : DB_WARN_NO_MORE_KEYS;
    return Finish(ix, tag, rc);
  }
  rc = CopyOut(ix, tag, key, record);
  if (rc == 0) RememberPosition(ix, tag, key, *record);
  return Finish(ix, tag, rc);
}

int32_t KeyPercent(FoxIndex* ix, Tag* tag, int32_t* percent, const char* key, int32_t record) {
  *percent = 0;
  int32_t rc = Prepare(ix);
  if (rc < 0) return Finish(ix, tag, rc);
  SearchKey k;
  PrepareKey(tag, key, index::Match::kPrefix, &k);
  rc = record != 0 ? FindPair(ix, tag, k, static_cast<uint32_t>(record), kPercent)
                   : Descend(ix, tag, k, false, kPercent);
  if (rc < 0 || rc == DB_WARN_FILE_EMPTY) return Finish(ix, tag, rc);
  double span = 100.0;
  double position = 0.0;
  for (int lvl = 0; lvl <= tag->path.level; ++lvl) {
    const Node* node = nullptr;
    int32_t loaded = LoadNode(ix, tag, lvl, tag->path[lvl].page, &node, kPercent);
    if (loaded < 0) return Finish(ix, tag, loaded);
    span /= node->count;
    position += tag->path[lvl].pos * span;
  }
  *percent = static_cast<int32_t>(position + 0.49);
  return Finish(ix, tag, 0);
}

int32_t KeyAtPercent(FoxIndex* ix, Tag* tag, int32_t percent, char* key, int32_t* record) {
  int32_t rc = Prepare(ix);
  if (rc < 0) return Finish(ix, tag, rc);
  tag->remember = 0;
  const Node* node = nullptr;
  rc = StartAtRoot(ix, tag, &node, kPercent);
  if (rc != 0) return Finish(ix, tag, rc);
  int64_t p = percent;
  index::PathStack& path = tag->path;
  for (;;) {
    int64_t n = node->count;
    int64_t i = (n * p) / 100;
    if (i >= n) i = n - 1;
    if (i < 0) i = 0;
    path.Bottom().pos = static_cast<int32_t>(i);
    if (node->IsLeaf()) break;
    p = ((p * 100 - (i * 10000) / n) * n) / 100;
    uint32_t child = node->children[i];
    if (!path.Push(child, 0)) return Finish(ix, tag, KS_FAIL(kPercent, DB_ERR_CORRUPTED));
    rc = LoadNode(ix, tag, path.level, child, &node, kPercent);
    if (rc < 0) return Finish(ix, tag, rc);
    if (node->count == 0) return Finish(ix, tag, KS_FAIL(kPercent, DB_ERR_CORRUPTED));
  }
  rc = CopyOut(ix, tag, key, record);
  if (rc == 0) RememberPosition(ix, tag, key, *record);
  return Finish(ix, tag, rc);
}

}  // namespace kestrel::foxpro
