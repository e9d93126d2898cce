// The dBASE index file formats: the single-key .NDX file and the multiple-tag
// .MDX file.  Both are B+-trees of fixed-size pages of fixed-size items; every
// interior key is a copy of the greatest key of the subtree on its left.
//
// All integers are little-endian.  A block is 512 bytes; page and block
// numbers are byte offsets divided by 512.
//
// NDX header (page 0, 512 bytes):
//
//   offset  size  meaning
//   ------  ----  -------------------------------------------------------------
//        0     4  root page number (1 in a new file)
//        4     4  pages in the file, header included (the next page appended)
//        8     4  0
//       12     2  key length in bytes
//       14     2  maximum keys per page: 504 / item length
//       16     2  key class: 0 character, 1 number or date (8-byte double),
//                 2..6 the raw binary types
//       18     2  item length: key length rounded up to 4, plus 8 (files of
//                 other writers: key length + 8, or the even forms)
//       20     3  0
//       23     1  bit 0: unique keys
//       24   221  key expression, NUL-terminated, at most 220 characters
//
// NDX page (512 bytes):
//
//   offset  size             meaning
//   ------  ---------------  ----------------------------------------------------
//        0     4             key count n (only the low 16 bits are trusted)
//        4     item * (n+1)  items: child page (4), record (4), key; a leaf's
//                            children are 0, an interior page's records are 0,
//                            item n of an interior page holds only the child of
//                            the keys above its last key
//
// MDX header (block 0) and tag table (blocks 1..3, 48 entries of 32 bytes)
// and tag header pages are described with their constants below; an MDX page
// holds the count at 0, 4 bytes that are not used, and items of a 4-byte
// pointer (the record in a leaf, the child block in an interior page) and the
// key from offset 8.
#pragma once

#include <cstdint>
#include <cstring>

#include "util/coding.h"

namespace kestrel::dbase {

inline constexpr uint32_t kBlockSize = 512;
inline constexpr int kBlockShift = 9;
inline constexpr int kMaxKeyLength = 254;
inline constexpr int kMaxExpression = 220;  // characters, without the NUL
inline constexpr int kExpressionField = 221;

// ---- NDX header ----
inline constexpr uint32_t kNdxRoot = 0;
inline constexpr uint32_t kNdxPages = 4;
inline constexpr uint32_t kNdxKeyLength = 12;
inline constexpr uint32_t kNdxMaxKeys = 14;
inline constexpr uint32_t kNdxClass = 16;
inline constexpr uint32_t kNdxItemLength = 18;
inline constexpr uint32_t kNdxUnique = 23;
inline constexpr uint32_t kNdxExpression = 24;
inline constexpr uint32_t kNdxPageBytes = 504;  // room for items after the count
inline constexpr uint32_t kNdxItemsLimit = 508;

// ---- MDX header ----
inline constexpr uint32_t kMdxVersion = 0;
inline constexpr uint32_t kMdxCreated = 1;
inline constexpr uint32_t kMdxBaseName = 4;
inline constexpr uint32_t kMdxBlocksPerPage = 20;
inline constexpr uint32_t kMdxPageSize = 22;
inline constexpr uint32_t kMdxProduction = 24;
inline constexpr uint32_t kMdxTagEntries = 25;
inline constexpr uint32_t kMdxTagEntryLength = 26;
inline constexpr uint32_t kMdxTagsInUse = 28;
inline constexpr uint32_t kMdxBlocks = 32;
inline constexpr uint32_t kMdxFreeHead = 36;
inline constexpr uint32_t kMdxFreeCount = 40;
inline constexpr uint32_t kMdxUpdated = 44;

// Key classes (NDX header offset 16, MDX tag header offset 16).
inline constexpr int kClassCharacter = 0;  // and the MDX 12-byte number
inline constexpr int kClassDouble = 1;

// The 8-byte key of a blank date: 1.0E100.
inline constexpr uint8_t kBlankDateKey[8] = {0x7D, 0xC3, 0x94, 0x25, 0xAD, 0x49, 0xB2, 0x54};

// Where the parts of an item lie, and how a page of a file is laid out.
struct PageLayout {
  uint32_t page_size;   // bytes
  uint16_t first_item;  // offset of item 0 (4 NDX, 8 MDX)
  uint16_t item_length;
  uint16_t key_offset;     // within an item (8 NDX, 4 MDX)
  uint16_t child_offset;   // within an item (0 both)
  uint16_t record_offset;  // within an item (4 NDX, 0 MDX)
  uint16_t key_length;
  uint16_t max_keys;

  uint8_t* Item(uint8_t* page, int i) const { return page + first_item + i * item_length; }
  const uint8_t* Item(const uint8_t* page, int i) const {
    return page + first_item + i * item_length;
  }
  // The key count: the low 16 bits, as the dialect's programs keep it.
  static int Count(const uint8_t* page) { return LoadLE16(page); }
  static void SetCount(uint8_t* page, int n) { StoreLE32(page, static_cast<uint32_t>(n)); }
  uint32_t Child(const uint8_t* item) const { return LoadLE32(item + child_offset); }
  uint32_t Record(const uint8_t* item) const { return LoadLE32(item + record_offset); }
  const uint8_t* Key(const uint8_t* item) const { return item + key_offset; }
  uint8_t* Key(uint8_t* item) const { return item + key_offset; }
  void SetChild(uint8_t* item, uint32_t child) const { StoreLE32(item + child_offset, child); }
  void SetRecord(uint8_t* item, uint32_t record) const { StoreLE32(item + record_offset, record); }
  // A page is interior when item n (just past its last key) names a child.
  bool IsLeaf(const uint8_t* page) const { return Child(Item(page, Count(page))) == 0; }
  // A count a page of this layout can hold: n items and the child pointer
  // of item n fit.
  bool CountFits(int n) const {
    return n >= 0 && n <= max_keys &&
           first_item + static_cast<uint32_t>(n) * item_length + 4 <= page_size;
  }
};

// NDX item lengths an open accepts for a key length: key + 8, the key rounded
// up to even + 8, (key + 3) rounded down to even + 8, and the key rounded up
// to 4 + 8 that this library writes.
inline bool NdxItemLengthAccepted(int key_length, int item_length) {
  return item_length == key_length + 8 || item_length == ((key_length + 1) & ~1) + 8 ||
         item_length == ((key_length + 3) & ~1) + 8 || item_length == ((key_length + 3) & ~3) + 8;
}
inline int NdxItemLengthFor(int key_length) { return ((key_length + 3) & ~3) + 8; }

}  // namespace kestrel::dbase
