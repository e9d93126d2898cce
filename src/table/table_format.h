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
// Upper-cases an ASCII letter.
inline uint8_t UpperAscii(uint8_t c) {
  return (c >= 'a' && c <= 'z') ? static_cast<uint8_t>(c - 'a' + 'A') : c;
}

}  // namespace kestrel::table
