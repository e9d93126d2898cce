// The evaluator's working value: a typed byte buffer that keeps short values
// in place and moves longer ones to the library heap.
//
// Key expressions are short (index keys are at most a few hundred bytes), so
// an evaluation normally runs without touching the heap at all; only the
// result handed to the caller is allocated.  Texts ('C', 'D') are kept
// NUL-terminated with `length` the text length; every other type keeps
// `length` bytes and at least 8 readable bytes, so that the raw numeric
// arithmetic never reads past the buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "runtime/memory.h"

namespace kestrel::expr {

// The type code of an empty accumulator (a blank).
inline constexpr int16_t kTypeEmpty = 32;
// Lengths are 16-bit signed in DBEXPRVALUE: no value may grow beyond this.
inline constexpr int32_t kMaxValueLength = 32767;
// Length of a date stored in a table field (yyyymmdd).
inline constexpr int kStoredDateLength = 8;

class Value {
 public:
  Value() = default;
  ~Value() {
    if (data_ != inline_) MemFree(data_);
  }
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;

  // Makes room for `bytes` bytes, keeping the contents; false when memory
  // runs out (the contents are kept then).
  bool Reserve(size_t bytes) {
    if (bytes <= capacity_) return true;
    size_t want = capacity_ * 2 > bytes ? capacity_ * 2 : bytes;
    char* grown;
    if (data_ == inline_) {
      grown = static_cast<char*>(MemAlloc(want));
      if (!grown) return false;
      std::memcpy(grown, inline_, capacity_);
    } else {
      grown = static_cast<char*>(MemRealloc(data_, want));
      if (!grown) return false;
    }
    data_ = grown;
    capacity_ = want;
    return true;
  }

  // Forgets the contents (the buffer is kept for reuse).
  void Clear() {
    type = kTypeEmpty;
    length = 0;
    has_stored_date = false;
    text_pending = false;
  }

  char* data() { return data_; }
  const char* data() const { return data_; }
  size_t capacity() const { return capacity_; }

  int16_t type = kTypeEmpty;
  int32_t length = 0;
  // A date read from a table field also keeps the stored yyyymmdd bytes, so
  // that DTOC(...,1) gives the date itself whatever the default style.
  bool has_stored_date = false;
  // The default-style text of a stored date was not made because the only
  // use of the value is DTOC(...,1), which needs the stored bytes alone.
  bool text_pending = false;
  char stored_date[kStoredDateLength] = {};

 private:
  static constexpr size_t kInlineSize = 256;
  char* data_ = inline_;
  size_t capacity_ = kInlineSize;
  char inline_[kInlineSize];
};

}  // namespace kestrel::expr
