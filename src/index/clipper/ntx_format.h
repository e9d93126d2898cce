// The .NTX file format: one key expression, one B-tree of 1024-byte pages.
//
// All integers are little-endian.  Page offsets are byte offsets into the file
// and multiples of 1024; page 0 is the header, every other page is a tree page
// or a free page.
//
// Header page (offset 0):
//
//   offset  size  meaning
//   ------  ----  -------------------------------------------------------------
//        0     2  signature: 6, or 7 for a descending index
//        2     2  version counter: 1 at creation, +1 each time a flush rewrites
//                 the header
//        4     4  offset of the root page (1024 at creation)
//        8     4  offset of the first free page; 0 when there is none
//       12     2  item size: key length + 8
//       14     2  key length, 1..254
//       16     2  decimal places of a numeric key, else 0
//       18     2  maximum items (keys) per page
//       20     2  half page: maximum items / 2
//       22   256  key expression, NUL-terminated, blanks removed, upper case
//      278     1  unique flag (1 = unique)
//      279     1  0
//      280     1  descending flag (1 = descending)
//      281     1  0
//      282     2  binary key type: 0 for C, D and N keys, 1..6 for binary keys
//      284   740  zero
//
// Tree page:
//
//   offset                 size                    meaning
//   ---------------------  ----------------------  ---------------------------
//   0                      2                       key count n
//   2                      2 * (max items + 1)     item offset table: entry i is
//                                                  the offset within the page of
//                                                  the item of the i-th key
//   2 * (max items + 2)    item size * (max + 1)   item slots (initially in
//                                                  table order)
//
// Item (item size bytes at the offset the table names):
//
//   offset  size        meaning
//   ------  ----------  ----------------------------------------------------
//        0           4  child page whose keys all sort before this key; 0 in
//                       a leaf
//        4           4  record number
//        8  key length  key bytes
//
// A page with n keys uses n + 1 items; item n carries only the child pointer
// to the keys after the last key.  A free page links to the next free page
// through the child pointer of the item its table entry 0 names.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>

#include "util/coding.h"

namespace kestrel::ntx {

inline constexpr uint32_t kPageSize = 1024;
inline constexpr uint32_t kHeaderReadSize = 284;
inline constexpr int kMaxKeyLength = 254;
inline constexpr int kExpressionSize = 256;

// Header fields.
inline constexpr uint32_t kHdrSignature = 0;
inline constexpr uint32_t kHdrVersion = 2;
inline constexpr uint32_t kHdrRoot = 4;
inline constexpr uint32_t kHdrFreeList = 8;
inline constexpr uint32_t kHdrItemSize = 12;
inline constexpr uint32_t kHdrKeyLength = 14;
inline constexpr uint32_t kHdrDecimals = 16;
inline constexpr uint32_t kHdrMaxItems = 18;
inline constexpr uint32_t kHdrHalfPage = 20;
inline constexpr uint32_t kHdrExpression = 22;
inline constexpr uint32_t kHdrUnique = 278;
inline constexpr uint32_t kHdrDescending = 280;
inline constexpr uint32_t kHdrBinaryType = 282;
// The part of the header a flush rewrites: version, root, free list.
inline constexpr uint32_t kHdrMutableOffset = 2;
inline constexpr uint32_t kHdrMutableSize = 10;

inline constexpr uint16_t kSignatureAscending = 6;
inline constexpr uint16_t kSignatureDescending = 7;

// Tree page and item fields.
inline constexpr uint32_t kPageCount = 0;
inline constexpr uint32_t kPageTable = 2;
inline constexpr uint32_t kItemChild = 0;
inline constexpr uint32_t kItemRecord = 4;
inline constexpr uint32_t kItemKey = 8;
inline constexpr int kItemOverhead = 8;

// The byte-range lock that guards a shared index.
inline constexpr uint32_t kLockOffset = 1000000000;
inline constexpr uint32_t kLockLength = 1;

// The header fields, decoded from and encoded to the file's first bytes.
struct Header {
  uint16_t signature = kSignatureAscending;
  uint16_t version = 1;
  uint32_t root = kPageSize;
  uint32_t free_head = 0;
  uint16_t item_size = 0;
  uint16_t key_length = 0;
  uint16_t decimals = 0;
  uint16_t max_items = 0;
  uint16_t half_page = 0;
  char expression[kExpressionSize] = {};  // NUL-terminated
  uint8_t unique = 0;                     // 1 = unique
  uint8_t descending = 0;                 // 1 = descending
  uint16_t binary_type = 0;               // 0, or 1..6
  bool expression_terminated = true;      // the stored expression ended in its field

  // Reads the fields without judging them (the checker reports every broken
  // rule; an open stops at the first).
  void Read(std::span<const uint8_t, kHeaderReadSize> bytes);
  // Reads the fields from the first kHeaderReadSize bytes and checks them in
  // the order an open reports them: key length -223, item size -224, root
  // (a page of a file of file_length bytes) -225, maximum items -226, half
  // page -244, expression terminated -207; a span too short is -202.
  int32_t DecodeFrom(std::span<const uint8_t> bytes, uint64_t file_length);
  // Writes the whole header page (kPageSize bytes; the rest zero).
  void EncodeTo(std::span<uint8_t, kPageSize> bytes) const;
};

// The fields a flush rewrites (kHdrMutableSize bytes at kHdrMutableOffset).
struct HeaderFields {
  uint16_t version;
  uint32_t root;
  uint32_t free_head;

  void DecodeFrom(std::span<const uint8_t, kHdrMutableSize> bytes) {
    version = LoadLE16(&bytes[kHdrVersion - kHdrMutableOffset]);
    root = LoadLE32(&bytes[kHdrRoot - kHdrMutableOffset]);
    free_head = LoadLE32(&bytes[kHdrFreeList - kHdrMutableOffset]);
  }
  void EncodeTo(std::span<uint8_t, kHdrMutableSize> bytes) const {
    StoreLE16(&bytes[kHdrVersion - kHdrMutableOffset], version);
    StoreLE32(&bytes[kHdrRoot - kHdrMutableOffset], root);
    StoreLE32(&bytes[kHdrFreeList - kHdrMutableOffset], free_head);
  }
};

// Maximum keys per page for a key length: (1020 / (key length + 10)) - 1,
// rounded down to an even number.
inline int MaxItemsFor(int key_length) {
  int m = 1020 / (key_length + 10) - 1;
  return m & ~1;
}

// Offset of the first item slot: the table has max + 1 entries.
inline uint32_t FirstSlotOffset(int max_items) { return 2u * (max_items + 2); }

inline bool ValidPageOffset(uint32_t offset, uint64_t file_length) {
  return offset >= kPageSize && offset < file_length && offset % kPageSize == 0;
}

// Lays out an empty page: count 0, the table naming the slots in order, the
// rest zero.
inline void InitPage(uint8_t* page, int max_items, int item_size) {
  std::memset(page, 0, kPageSize);
  uint32_t slot = FirstSlotOffset(max_items);
  for (int i = 0; i <= max_items; ++i) {
    StoreLE16(page + kPageTable + 2 * i, static_cast<uint16_t>(slot + i * item_size));
  }
}

// Accessors over a page buffer.  Callers have validated the page (counts and
// table entries in bounds) before using these.
inline uint16_t PageCount(const uint8_t* page) { return LoadLE16(page + kPageCount); }
inline void SetPageCount(uint8_t* page, int n) {
  StoreLE16(page + kPageCount, static_cast<uint16_t>(n));
}
inline uint16_t TableEntry(const uint8_t* page, int i) {
  return LoadLE16(page + kPageTable + 2 * i);
}
inline void SetTableEntry(uint8_t* page, int i, uint16_t v) {
  StoreLE16(page + kPageTable + 2 * i, v);
}
inline uint8_t* Item(uint8_t* page, int i) { return page + TableEntry(page, i); }
inline const uint8_t* Item(const uint8_t* page, int i) { return page + TableEntry(page, i); }
inline uint32_t ItemChild(const uint8_t* item) { return LoadLE32(item + kItemChild); }
inline uint32_t ItemRecord(const uint8_t* item) { return LoadLE32(item + kItemRecord); }
inline const uint8_t* ItemKey(const uint8_t* item) { return item + kItemKey; }
inline uint8_t* ItemKey(uint8_t* item) { return item + kItemKey; }
inline void SetItemChild(uint8_t* item, uint32_t v) { StoreLE32(item + kItemChild, v); }
inline void SetItemRecord(uint8_t* item, uint32_t v) { StoreLE32(item + kItemRecord, v); }

// True when every table entry names an item that lies inside the page and
// the count is at most max_items (free pages: only entry 0 is needed).
inline bool PageLayoutValid(const uint8_t* page, int max_items, int item_size, bool free_page) {
  uint32_t lowest = kPageTable + 2u * (max_items + 1);
  int entries = free_page ? 1 : max_items + 1;
  if (!free_page && PageCount(page) > max_items) return false;
  for (int i = 0; i < entries; ++i) {
    uint32_t off = TableEntry(page, i);
    if (off < lowest || off + item_size > kPageSize) return false;
  }
  return true;
}

}  // namespace kestrel::ntx
