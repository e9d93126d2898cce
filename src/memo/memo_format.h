// The on-disk headers of the memo formats, each a small type that decodes
// itself from bytes (checking what it can) and encodes itself into bytes.
// The layouts are drawn in dbt_memo.h and fpt_memo.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "util/coding.h"

namespace kestrel::memo {

// The first bytes of a DBT file.  Plain files use only next_free; dBASE IV
// files carry a base name and their block size as well.
struct DbtHeader {
  static constexpr size_t kSize = 24;  // significant bytes of a dBASE IV header
  static constexpr size_t kWordSize = 4;
  static constexpr size_t kNextFree = 0;
  static constexpr size_t kName = 8;
  static constexpr size_t kNameSize = 8;
  static constexpr size_t kMark1 = 18;  // holds 2
  static constexpr size_t kMark2 = 19;  // holds 1
  static constexpr size_t kBlockSize = 20;
  static constexpr uint32_t kMinBlockSize = 512;
  static constexpr uint32_t kMaxBlockSize = 16384;

  uint32_t next_free = 0;   // next block to append, or head of the free chain
  uint32_t block_size = 0;  // dBASE IV only
  char name[kNameSize] = {};  // dBASE IV only: base name, upper case, zero-terminated

  // Reads a plain header (the first kWordSize bytes).
  void DecodeWordFrom(std::span<const uint8_t> bytes) { next_free = LoadLE32(bytes.data()); }
  // Reads a dBASE IV header (kSize bytes); false when its block size is
  // outside 512..16384.
  bool DecodeFrom(std::span<const uint8_t> bytes) {
    next_free = LoadLE32(bytes.data() + kNextFree);
    std::memcpy(name, bytes.data() + kName, kNameSize);
    block_size = LoadLE16(bytes.data() + kBlockSize);
    return block_size >= kMinBlockSize && block_size <= kMaxBlockSize;
  }
  // Writes a plain header word.
  void EncodeWordTo(std::span<uint8_t> bytes) const { StoreLE32(bytes.data(), next_free); }
  // Writes the kSize bytes of a dBASE IV header.
  void EncodeTo(std::span<uint8_t> bytes) const {
    std::memset(bytes.data(), 0, kSize);
    StoreLE32(bytes.data() + kNextFree, next_free);
    std::memcpy(bytes.data() + kName, name, kNameSize);
    bytes[kMark1] = 2;
    bytes[kMark2] = 1;
    StoreLE16(bytes.data() + kBlockSize, static_cast<uint16_t>(block_size));
  }
};

// The 8 bytes at the start of a block of a dBASE IV DBT file: either a memo
// (FF FF 08 00, then its length including these 8 bytes) or a free run (the
// next run, then the run's length in blocks).
struct DbtBlockHeader {
  static constexpr size_t kSize = 8;
  static constexpr uint8_t kMemoMark[4] = {0xFF, 0xFF, 0x08, 0x00};

  bool memo = false;  // the memo mark is present
  uint32_t first = 0;   // free run: the next run (a memo: the mark's bytes)
  uint32_t second = 0;  // memo: stored length; free run: blocks

  void DecodeFrom(std::span<const uint8_t> bytes) {
    memo = std::memcmp(bytes.data(), kMemoMark, sizeof kMemoMark) == 0;
    first = LoadLE32(bytes.data());
    second = LoadLE32(bytes.data() + 4);
  }
  // A memo header for a stored length (text + 8).
  static void EncodeMemo(std::span<uint8_t> bytes, uint32_t stored_length) {
    std::memcpy(bytes.data(), kMemoMark, sizeof kMemoMark);
    StoreLE32(bytes.data() + 4, stored_length);
  }
  // A free-run header.
  static void EncodeRun(std::span<uint8_t> bytes, uint32_t next, uint32_t blocks) {
    StoreLE32(bytes.data(), next);
    StoreLE32(bytes.data() + 4, blocks);
  }
};

// The first 8 bytes of an FPT file (big-endian).
struct FptHeader {
  static constexpr size_t kSize = 8;
  static constexpr size_t kNextFree = 0;
  static constexpr size_t kBlockSize = 6;  // 16-bit; bytes 4-5 are zero
  static constexpr uint32_t kMinBlockSize = 33;
  static constexpr uint32_t kMaxBlockSize = 16384;

  uint32_t next_free = 0;
  uint32_t block_size = 0;

  // False when the block size is outside 33..16384.
  bool DecodeFrom(std::span<const uint8_t> bytes) {
    next_free = LoadBE32(bytes.data() + kNextFree);
    block_size = LoadBE16(bytes.data() + kBlockSize);
    return block_size >= kMinBlockSize && block_size <= kMaxBlockSize;
  }
  void EncodeTo(std::span<uint8_t> bytes) const {
    std::memset(bytes.data(), 0, kSize);
    StoreBE32(bytes.data() + kNextFree, next_free);
    StoreBE16(bytes.data() + kBlockSize, static_cast<uint16_t>(block_size));
  }
};

// The 8 bytes before every FPT memo (big-endian): its type and length.
struct FptBlockHeader {
  static constexpr size_t kSize = 8;
  uint32_t type = 0;
  uint32_t length = 0;

  void DecodeFrom(std::span<const uint8_t> bytes) {
    type = LoadBE32(bytes.data());
    length = LoadBE32(bytes.data() + 4);
  }
  void EncodeTo(std::span<uint8_t> bytes) const {
    StoreBE32(bytes.data(), type);
    StoreBE32(bytes.data() + 4, length);
  }
};

}  // namespace kestrel::memo
