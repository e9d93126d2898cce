// Helpers shared by the memo tests: the library around each test, memo text,
// and one set of calls for both memo formats.
#pragma once

#include <ostream>
#include <random>

#include "support/library.h"

namespace kestrel::test {

using MemoTest = LibraryTestOf<60>;

// Text of the given length made of letters, blanks and CR LF pairs: bytes
// that every memo layout stores unchanged.
inline std::string MemoText(std::mt19937& rng, size_t length) {
  static const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz ABCDEFGHIJ0123456789.,;";
  std::string s;
  s.reserve(length);
  std::uniform_int_distribution<int> pick(0, sizeof kAlphabet - 2);
  std::uniform_int_distribution<int> line(0, 60);
  while (s.size() < length) {
    if (s.size() + 2 <= length && line(rng) == 0) {
      s += "\r\n";
    } else {
      s += kAlphabet[pick(rng)];
    }
  }
  return s;
}

// Reads a DBT memo as a string; the status goes to *rc.
inline std::string GetDbt(int32_t handle, uint32_t block, int32_t* rc, int32_t option = 0) {
  char* text = nullptr;
  *rc = DBxbGetMemoRecord(handle, block, &text, option);
  std::string s = text ? std::string(text) : std::string();
  if (text) DBFreeMemory(text);
  return s;
}

// Reads a whole FPT memo (its length from DBfpGetMemoType).
inline std::string GetFpt(int32_t handle, uint32_t block, int32_t* rc) {
  uint32_t length = 0;
  int32_t type = 0;
  *rc = DBfpGetMemoType(handle, block, &length, &type);
  if (*rc < 0) return {};
  char* data = nullptr;
  *rc = DBfpGetMemoRecord(handle, block, &data, length, 0);
  if (*rc < 0 || !data) return {};
  return std::string(data, length);
}

// Reads a memo whole through the read that gives its length
// (DBxbGetMemoBytes, DBfpGetMemoBytes); the status goes to *rc.
inline std::string GetBytes(bool fpt, int32_t handle, uint32_t block, int32_t* rc,
                            int32_t* type = nullptr) {
  char* data = nullptr;
  uint32_t length = 12345;
  *rc = fpt ? DBfpGetMemoBytes(handle, block, &data, &length, type)
            : DBxbGetMemoBytes(handle, block, &data, &length);
  if (*rc < 0) {
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(length, 0u);
    return {};
  }
  EXPECT_EQ(data[length], '\0');
  std::string s(data, length);
  DBFreeMemory(data);
  return s;
}

// A memo layout and the calls of its format.
struct Layout {
  const char* name;
  bool fpt;
  int32_t dialect;    // DBT: the memo dialect; FPT: the table dialect (8)
  int32_t arg;        // DBT: blocks of 512 (dBASE IV); FPT: the block size code
  int32_t table = 0;  // the table dialect when it is not the memo's own (0)

  int32_t TableDialect() const { return table ? table : dialect; }

  std::string Extension() const { return fpt ? ".fpt" : ".dbt"; }
  int32_t Create(const std::string& path) const {
    return fpt ? DBfpCreateMemo(path.c_str(), arg) : DBxbCreateMemo(path.c_str(), arg, dialect);
  }
  int32_t Open(int32_t* h, const std::string& path, int32_t mode = 0) const {
    return fpt ? DBfpOpenMemo(h, path.c_str(), mode)
               : DBxbOpenMemo(h, path.c_str(), dialect | mode);
  }
  int32_t Close(int32_t h) const { return fpt ? DBfpCloseMemo(h) : DBxbCloseMemo(h); }
  // Appends (or with DB_MEMO_REPLACE replaces the memo at *block).
  int32_t Put(int32_t h, uint32_t* block, const std::string& text, int32_t mode = 0) const {
    return fpt ? DBfpPutMemoRecord(h, block, text.data(), static_cast<uint32_t>(text.size()), 0,
                                   mode)
               : DBxbPutMemoRecord(h, block, text.c_str(), mode);
  }
  std::string Get(int32_t h, uint32_t block, int32_t* rc) const {
    return fpt ? GetFpt(h, block, rc) : GetDbt(h, block, rc);
  }
  int32_t Lock(int32_t h) const { return fpt ? DBfpLockMemo(h) : DBxbLockMemo(h); }
  int32_t Unlock(int32_t h) const { return fpt ? DBfpUnLockMemo(h) : DBxbUnLockMemo(h); }
  int32_t Zap(int32_t h) const { return fpt ? DBfpZapMemo(h) : DBxbZapMemo(h); }
  int32_t Pack(int32_t table, int32_t* h) const {
    return fpt ? DBfpPackMemo(table, h) : DBxbPackMemo(table, h);
  }
  // Where the next memo goes, the block size, whether this handle holds the
  // lock, and the DB_MEMO_ATTR_* bits.
  struct State {
    uint32_t next_free, block_size;
    int32_t locked, attributes;
  };
  State StateOf(int32_t h) const {
    DBFPMEMOINFO f{};
    DBXBMEMOINFO x{};
    EXPECT_EQ(fpt ? DBfpGetMemoInfo(h, &f) : DBxbGetMemoInfo(h, &x), 0);
    return fpt ? State{f.next_free, f.block_size, f.locked, f.attributes}
               : State{x.next_free, static_cast<uint32_t>(x.block_size), x.locked, x.attributes};
  }
};

inline void PrintTo(const Layout& l, std::ostream* out) { *out << l.name; }

}  // namespace kestrel::test
