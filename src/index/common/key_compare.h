// Key order and the prepared search key, for index formats whose key
// encodings sort byte by byte (unsigned bytes, left to right).
//
// A caller hands a key either as key length bytes (binary keys) or as a
// NUL-terminated text that may be shorter than the key length (character,
// date and numeric keys).  The text is cut at the key length and padded with
// blanks, exactly as keys are stored.  How much of it takes part in a
// comparison is the caller's choice: the text's own length, so that a short
// text finds the keys that begin with it, or the whole key, so that only the
// key itself matches.
#pragma once

#include <cstdint>
#include <cstring>

namespace kestrel::index {

// The longest key any engine compares.
inline constexpr int kMaxKeyBytes = 256;

// The order of two keys over n bytes: < 0, 0 or > 0 as a sorts before, with
// or after b.
inline int CompareKeyBytes(const uint8_t* a, const uint8_t* b, int n) {
  return n > 0 ? std::memcmp(a, b, static_cast<size_t>(n)) : 0;
}

enum class KeyForm {
  kText,    // NUL-terminated, may be shorter than the key length
  kBinary,  // always key length bytes
};

enum class Match {
  kPrefix,  // compare the text's own length (binary keys: the whole key)
  kWhole,   // compare the whole key
};

class SearchKey {
 public:
  SearchKey() = default;
  SearchKey(const SearchKey&) = delete;
  SearchKey& operator=(const SearchKey&) = delete;

  // Copies a caller's key into the key's own buffer, padded to key_length.
  void Prepare(const char* key, int key_length, KeyForm form, Match match) {
    bytes_ = work_;
    key_length_ = key_length;
    if (form == KeyForm::kBinary) {
      std::memcpy(work_, key, static_cast<size_t>(key_length));
      compare_length_ = key_length;
      return;
    }
    size_t n = strnlen(key, static_cast<size_t>(key_length));
    std::memcpy(work_, key, n);
    std::memset(work_ + n, ' ', static_cast<size_t>(key_length) - n);
    compare_length_ = match == Match::kWhole ? key_length : static_cast<int>(n);
  }
  // A key that is already key_length bytes (one the engine handed out),
  // compared whole and not copied: it must outlive the search.
  void Use(const uint8_t* key, int key_length) {
    bytes_ = key;
    key_length_ = key_length;
    compare_length_ = key_length;
  }

  const uint8_t* bytes() const { return bytes_; }
  int key_length() const { return key_length_; }
  int compare_length() const { return compare_length_; }
  // < 0, 0 or > 0 as the sought key sorts before, with or after a stored key.
  int CompareTo(const uint8_t* stored) const {
    return CompareKeyBytes(bytes_, stored, compare_length_);
  }

 private:
  uint8_t work_[kMaxKeyBytes];
  const uint8_t* bytes_ = work_;
  int key_length_ = 0;
  int compare_length_ = 0;
};

}  // namespace kestrel::index
