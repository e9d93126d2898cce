// The .DBF table file format.
//
// Table file (all integers little-endian):
//
//   offset  size  content
//   0       1     version: 0x03 without memo; with memo 0x83 (dialects 1, 3, 5, 6, 7, 9),
//                 0x8B (dialect 2), 0xF5 (dialects 4, 8); dialect 0 writes 0x03 always
//   1       1     year of last update (create: year - 1900; later: year % 100)
//   2       1     month of last update, 1..12
//   3       1     day of last update, 1..31
//   4       4     number of records
//   8       2     header length
//   10      2     record length, deletion flag included
//   12      2     reserved
//   14      1     reserved (reported by DBGetFileInfo)
//   15      1     reserved (reported by DBGetFileInfo)
//   16      4     reserved; head of the deleted-record chain when deleted records are reused
//   20      8     reserved
//   28      1     production index flag (1: a .MDX/.CDX of the same base name exists)
//   29      3     reserved
//   32      32n   field descriptors
//   32+32n  1|32  terminator 0x0D (dialect 9: a 32-byte block 0x0D, 0 ...)
//   H       L*N   records: deletion flag (' ' or '*') and the fields
//   end     1     end-of-file marker 0x1A (dialect 7: a whole record of 0x1A bytes)
//
// Field descriptor (32 bytes):
//
//   offset  size  content
//   0       11    name, upper case, zero-padded
//   11      1     type letter or binary code
//   12      4     0
//   16      1     length (low byte)
//   17      1     decimals; for C the high byte of the length
//   18      13    0
//   31      1     indexed flag (dialect 2: the field has a production tag)
#pragma once

#include <cstdint>
#include <cstring>
#include <span>

#include "util/coding.h"

namespace kestrel::table {

inline constexpr uint32_t kHeaderSize = 32;
inline constexpr uint32_t kHdrVersion = 0;
inline constexpr uint32_t kHdrYear = 1;
inline constexpr uint32_t kHdrMonth = 2;
inline constexpr uint32_t kHdrDay = 3;
inline constexpr uint32_t kHdrRecordCount = 4;
inline constexpr uint32_t kHdrHeaderLength = 8;
inline constexpr uint32_t kHdrRecordLength = 10;
inline constexpr uint32_t kHdrReserved14 = 14;
inline constexpr uint32_t kHdrReserved15 = 15;
inline constexpr uint32_t kHdrChainHead = 16;
inline constexpr uint32_t kHdrProduction = 28;

inline constexpr uint32_t kDescriptorSize = 32;
inline constexpr uint32_t kDescName = 0;
inline constexpr uint32_t kDescNameSize = 11;
inline constexpr uint32_t kDescType = 11;
inline constexpr uint32_t kDescLength = 16;
inline constexpr uint32_t kDescDecimals = 17;
inline constexpr uint32_t kDescIndexed = 31;

inline constexpr uint8_t kTerminator = 0x0D;
inline constexpr uint8_t kEndOfFile = 0x1A;
inline constexpr uint8_t kActiveFlag = ' ';
inline constexpr uint8_t kDeletedFlag = '*';

inline constexpr uint8_t kVersionPlain = 0x03;
inline constexpr uint8_t kVersionMemoBit = 0x80;
inline constexpr uint8_t kVersionDbase4Memo = 0x8B;
inline constexpr uint8_t kVersionFoxMemo = 0xF5;

inline constexpr int kDialectCount = 10;  // codes 0..9
inline constexpr int32_t kProductionRequest = 0x200;

// Bytes of the native value of a binary type code (1 double, 2 float, 3 and
// 4 32-bit integers, 5 and 6 16-bit integers); 0 for any other code.  Binary
// fields and binary index keys have exactly this length.
inline constexpr uint32_t BinaryTypeSize(int type) {
  switch (type) {
    case 1:
      return 8;
    case 2:
    case 3:
    case 4:
      return 4;
    case 5:
    case 6:
      return 2;
    default:
      return 0;
  }
}

// The 32-byte file header.
struct TableHeader {
  uint8_t version = 0;
  uint8_t year = 0;  // as stored (create: year - 1900; later updates: year % 100)
  uint8_t month = 0;
  uint8_t day = 0;
  uint32_t record_count = 0;
  uint16_t header_length = 0;
  uint16_t record_length = 0;
  uint8_t reserved14 = 0;
  uint8_t reserved15 = 0;
  uint32_t chain_head = 0;
  uint8_t production = 0;

  // Reads kHeaderSize bytes; false when the update date is not a month
  // 1..12 and a day 1..31 (the one check every dialect makes).
  bool DecodeFrom(std::span<const uint8_t> bytes) {
    const uint8_t* b = bytes.data();
    version = b[kHdrVersion];
    year = b[kHdrYear];
    month = b[kHdrMonth];
    day = b[kHdrDay];
    record_count = LoadLE32(b + kHdrRecordCount);
    header_length = LoadLE16(b + kHdrHeaderLength);
    record_length = LoadLE16(b + kHdrRecordLength);
    reserved14 = b[kHdrReserved14];
    reserved15 = b[kHdrReserved15];
    chain_head = LoadLE32(b + kHdrChainHead);
    production = b[kHdrProduction];
    return month >= 1 && month <= 12 && day >= 1 && day <= 31;
  }
  // Writes kHeaderSize bytes (the reserved bytes not kept here are zero).
  void EncodeTo(std::span<uint8_t> bytes) const {
    uint8_t* b = bytes.data();
    std::memset(b, 0, kHeaderSize);
    b[kHdrVersion] = version;
    b[kHdrYear] = year;
    b[kHdrMonth] = month;
    b[kHdrDay] = day;
    StoreLE32(b + kHdrRecordCount, record_count);
    StoreLE16(b + kHdrHeaderLength, header_length);
    StoreLE16(b + kHdrRecordLength, record_length);
    b[kHdrReserved14] = reserved14;
    b[kHdrReserved15] = reserved15;
    StoreLE32(b + kHdrChainHead, chain_head);
    b[kHdrProduction] = production;
  }
};

// One 32-byte field descriptor, as stored.
struct FieldDescriptor {
  char name[kDescNameSize] = {};  // zero-padded; not upper-cased here
  uint8_t name_length = 0;        // characters before the first zero
  uint8_t type = 0;               // as stored
  uint8_t length = 0;             // low byte of the length
  uint8_t decimals = 0;           // decimals; for C the high byte of the length
  uint8_t indexed = 0;            // dialect 2: the field has a production tag

  // Reads kDescriptorSize bytes; false when the name has no terminating
  // zero within its 11 bytes (a name is at most 10 characters).
  bool DecodeFrom(std::span<const uint8_t> bytes) {
    const uint8_t* d = bytes.data();
    std::memcpy(name, d + kDescName, kDescNameSize);
    name_length = 0;
    while (name_length < kDescNameSize && name[name_length] != 0) ++name_length;
    type = d[kDescType];
    length = d[kDescLength];
    decimals = d[kDescDecimals];
    indexed = d[kDescIndexed];
    return name_length < kDescNameSize;
  }
  // Writes kDescriptorSize bytes (zeros where nothing is stored).
  void EncodeTo(std::span<uint8_t> bytes) const {
    uint8_t* d = bytes.data();
    std::memset(d, 0, kDescriptorSize);
    std::memcpy(d + kDescName, name, kDescNameSize);
    d[kDescType] = type;
    d[kDescLength] = length;
    d[kDescDecimals] = decimals;
    d[kDescIndexed] = indexed;
  }
};

// Dialect families.
inline bool IsDbase4(int d) { return d == 2; }
inline bool IsFoxFamily(int d) { return d == 3 || d == 4 || d == 8; }
inline bool IsClipperFamily(int d) { return d == 5 || d == 6; }
inline bool AllowsFloat(int d) { return d == 2 || d == 4 || d == 8; }
inline bool HasFoxMemoVersion(int d) { return d == 4 || d == 8; }

// Largest number of fields DBCreateFile accepts in dialect d.
int MaxFieldCount(int d);
// Largest record length DBCreateFile accepts in dialect d.
uint32_t MaxRecordLength(int d);
// Whether version byte v may be opened in dialect d (0..9).
bool VersionAccepted(int d, uint8_t v);
// Whether a type letter or code (already upper-cased) is a known field type.
bool KnownFieldType(uint8_t type);
// The forced length of a fixed-length type, or 0 for C, N and F.
uint32_t ForcedLength(uint8_t type);
// The largest magnitude of an N or F field of this length and decimals.
double MaxMagnitude(uint32_t length, uint32_t decimals);
// Capacity in records of a default cache for this record length.
int32_t CacheCapacityFor(uint32_t record_length);
// Whether a field type is a memo reference in dialect d: M everywhere, and
// G (general: OLE objects and other binary data) in the FoxPro dialects.
inline bool IsMemoType(uint8_t type, int d) {
  return type == 'M' || (type == 'G' && HasFoxMemoVersion(d));
}
// Reads the block number a memo field stores: decimal digits with blanks (or
// zero bytes) around them.  A field without digits is no memo (block 0).
// Anything else, or a number beyond 32 bits, is DB_ERR_CORRUPTED (not
// logged): such a reference must never be cut down to some other block.
// Every reader of memo references goes through here.
int32_t ParseMemoReference(const uint8_t* stored, uint32_t length, uint32_t* block);
// Upper-cases an ASCII letter.
inline uint8_t UpperAscii(uint8_t c) {
  return (c >= 'a' && c <= 'z') ? static_cast<uint8_t>(c - 'a' + 'A') : c;
}

}  // namespace kestrel::table
