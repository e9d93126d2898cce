// The position in a B-tree: for each level from the root (level 0) down to
// the current level, the page offset and the item position in that page.
//
// The stack is bounded: its depth is fixed when the index is opened from the
// smallest fill a page below the root may have, so a file whose child links
// loop or run deeper than any real tree is caught as corrupt (Push refuses)
// instead of walking forever.
//
// It also keeps the key and record of the last position handed out.  An
// index whose cache is emptied between calls (shared and written through)
// finds its place again from them with a search for that key and record.
#pragma once

#include <cstdint>
#include <cstring>

#include "runtime/memory.h"

namespace kestrel::index {

struct PathEntry {
  uint32_t page;  // page offset
  int32_t pos;    // item position within the page
};

// The current level when there is no position.
inline constexpr uint16_t kNoLevel = 65535;

class PathStack {
 public:
  PathStack() = default;
  PathStack(const PathStack&) = delete;
  PathStack& operator=(const PathStack&) = delete;
  ~PathStack() {
    MemFree(entries_);
    MemFree(key_);
  }

  // Levels enough for 2^31 keys when every page below the root holds
  // min_keys keys (min_keys + 1 branches).
  static int DepthFor(int min_keys) {
    int64_t branches = static_cast<int64_t>(min_keys) + 1;
    int64_t limit = 2147483647 / branches;
    int64_t product = 1;
    int depth = 1;
    while (product < limit) {
      product *= branches;
      ++depth;
    }
    return depth;
  }

  // Allocates depth levels and a remembered-key buffer of key_length + 1
  // bytes; false when memory ran out.  Starts without a position.
  bool Allocate(int depth, int key_length) {
    entries_ = static_cast<PathEntry*>(MemAlloc(sizeof(PathEntry) * depth));
    key_ = static_cast<uint8_t*>(MemAlloc(key_length + 1));
    if (!entries_ || !key_) return false;
    depth_ = static_cast<uint16_t>(depth);
    key_length_ = key_length;
    level = kNoLevel;
    return true;
  }

  uint16_t depth() const { return depth_; }
  bool HasPosition() const { return level != kNoLevel; }
  void Forget() { level = kNoLevel; }
  PathEntry& operator[](int lvl) { return entries_[lvl]; }
  const PathEntry& operator[](int lvl) const { return entries_[lvl]; }
  PathEntry& Bottom() { return entries_[level]; }

  // Level 0 at the root's first item.
  void StartAt(uint32_t root) {
    level = 0;
    entries_[0] = PathEntry{root, 0};
  }
  // One level down; false when the stack is full (a tree deeper than any
  // real one: its links loop).
  bool Push(uint32_t page, int32_t pos) {
    int next = level + 1;
    if (next >= depth_) return false;
    level = static_cast<uint16_t>(next);
    entries_[next] = PathEntry{page, pos};
    return true;
  }
  bool CanPush() const { return level + 1 < depth_; }
  // A new root above the current top: every level moves one down.
  bool PushRoot(uint32_t root, int32_t pos) {
    if (!CanPush()) return false;
    for (int j = level + 1; j > 0; --j) entries_[j] = entries_[j - 1];
    entries_[0] = PathEntry{root, pos};
    ++level;
    return true;
  }

  // The key (key_length bytes) and record of the last position handed out.
  void Remember(const uint8_t* key, uint32_t record) {
    std::memcpy(key_, key, key_length_);
    key_[key_length_] = 0;
    record_ = record;
  }
  const uint8_t* remembered_key() const { return key_; }
  uint32_t remembered_record() const { return record_; }
  // Record 0 names no record: nothing to find again.
  bool HasRemembered() const { return record_ != 0; }

  uint16_t level = kNoLevel;  // current level; kNoLevel = no position

 private:
  PathEntry* entries_ = nullptr;  // depth_ levels, root first
  uint8_t* key_ = nullptr;        // remembered key, key_length_ + 1 bytes
  uint32_t record_ = 0;           // remembered record
  uint16_t depth_ = 0;
  int key_length_ = 0;
};

}  // namespace kestrel::index
