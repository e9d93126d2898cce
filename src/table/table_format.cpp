// Format rules of the .DBF file that create and open share: dialect limits,
// accepted version bytes, field types and the default record cache size.
#include "table/table_format.h"

#include <cstdlib>

#include "kestrel/kestrel_frame.h"

namespace kestrel::table {

int MaxFieldCount(int d) {
  switch (d) {
    case 2:
    case 8:
      return 255;
    case 5:
    case 6:
      return 1023;
    case 7:
      return 512;
    default:
      return 128;
  }
}

uint32_t MaxRecordLength(int d) { return d == 6 ? 8192 : 4000; }

bool VersionAccepted(int d, uint8_t v) {
  if (v == kVersionPlain) return true;
  if (d == 2) return v == 0x83 || v == kVersionDbase4Memo;
  if (HasFoxMemoVersion(d)) return v == kVersionFoxMemo;
  return v == 0x83;
}

int32_t ParseMemoReference(const uint8_t* stored, uint32_t length, uint32_t* block) {
  auto padding = [](uint8_t c) { return c == ' ' || c == 0; };
  uint32_t i = 0;
  while (i < length && padding(stored[i])) ++i;
  uint64_t value = 0;
  for (; i < length && stored[i] >= '0' && stored[i] <= '9'; ++i) {
    value = value * 10 + static_cast<uint64_t>(stored[i] - '0');
    if (value > 0xFFFFFFFFu) return DB_ERR_CORRUPTED;
  }
  while (i < length && padding(stored[i])) ++i;
  if (i != length) return DB_ERR_CORRUPTED;
  *block = static_cast<uint32_t>(value);
  return 0;
}

bool KnownFieldType(uint8_t type) {
  switch (type) {
    case 'C':
    case 'N':
    case 'F':
    case 'D':
    case 'L':
    case 'M':
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 6:
    case 12:
    case 14:
      return true;
    default:
      return false;
  }
}

uint32_t ForcedLength(uint8_t type) {
  switch (type) {
    case 'D':
    case 14:
      return 8;
    case 'L':
      return 1;
    case 'M':
    case 'G':
      return 10;
    case 12:
      return 4;
    default:
      return BinaryTypeSize(type);
  }
}

double MaxMagnitude(uint32_t length, uint32_t decimals) {
  // Nines for every position, with the point before the last `decimals`
  // digits: the widest text that still fits the field.
  char text[300];
  uint32_t n = 0;
  if (length > 255) length = 255;
  for (uint32_t i = 0; i < length; ++i) {
    if (decimals > 0 && i == (decimals < length ? length - decimals : 0)) text[n++] = '.';
    text[n++] = '9';
  }
  text[n] = '\0';
  return n == 0 ? 0.0 : std::strtod(text, nullptr);
}

int32_t CacheCapacityFor(uint32_t record_length) {
  if (record_length == 0) return 1;
  uint64_t window = 8ull * record_length;
  int32_t capacity;
  if (window >= 512 && window <= 16384) {
    capacity = 8;
  } else if (window < 512) {
    capacity = static_cast<int32_t>(512 / record_length);
  } else {
    capacity = static_cast<int32_t>(16384 / record_length);
  }
  return capacity < 1 ? 1 : capacity;
}

}  // namespace kestrel::table
