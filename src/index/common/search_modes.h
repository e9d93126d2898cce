// The numbers callers use to choose a key search and a move, shared by every
// index engine: what each search mode answers is told by the engine that
// implements it; these names only keep the numbers out of the code.
#pragma once

#include <cstdint>

namespace kestrel::index {

enum SearchMode : int32_t {
  kSeekFirst = 1,        // first key equal, else stop on the key before
  kSeekRecord = 2,       // the key that belongs to a given record
  kSeekBelow = 11,       // the last key below
  kSeekEqualBelow = 12,  // first key equal, else the last key below
  kSeekBefore = 13,      // first key equal, else the key before
  kSeekEqualAbove = 14,  // first key equal or above
  kSeekAbove = 15,       // first key above
};
// Bit of a search mode: remember the key found, so that the next and
// previous moves report when they leave it.
inline constexpr int32_t kSeekRemember = 64;

enum MoveCode : int32_t {
  kMoveFirst = 0x20,
  kMoveLast = 0x30,
  kMoveNext = 0x40,
  kMovePrevious = 0x50,
};
// The codes one higher name the same moves.
inline constexpr int32_t kMoveCodeVariant = 1;

}  // namespace kestrel::index
