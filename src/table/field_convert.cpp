// Field conversions between the stored text and native values (modules DFGET
// and DFPUT).
//
//   type   stored                              native
//   C      full length bytes, space-padded     zero-terminated text
//   D      yyyymmdd, or 8 spaces               date text in the default style (11 bytes)
//   N, F   right-aligned fixed-point text      double
//   L      'T', 'F' or a space                 one byte: 1 true, 0 false
//   M      block number, "%10lu"               uint32_t
//   G      as M (FoxPro dialects only)
//   1      8 raw bytes                         copied
//   2-4    4 raw bytes                         copied
//   5, 6   2 raw bytes                         copied
//   12, 14 raw bytes                           not converted
//
// Numbers are written as the C library's "%*.*f" would print them (width =
// field length, precision = decimals) and read with strtod's grammar.  The
// fast paths below (std::to_chars with a fixed precision, std::from_chars)
// give exactly the same text and values; strtod takes over whenever the text
// is outside what from_chars reads (a leading '+', hexadecimal, tabs).
#include "table/field_convert.h"

#include <charconv>
#include <cstdlib>
#include <cstring>

#include "datetime/dates.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDfget = KS_ENGINE_MODULE("DFGET");
constexpr ModulePath kDfput = KS_ENGINE_MODULE("DFPUT");

constexpr uint32_t kNumberText = 260;  // N and F fields are at most 255 bytes long

// The empty-date template of a date style; nullptr leaves the caller's
// buffer as it was.
const char* EmptyDate(int32_t style) {
  switch (style) {
    case 2:
    case 8:
    case 10:
      return "  /  /  ";
    case 3:
    case 9:
    case 11:
      return "  /  /    ";
    case 4:
    case 6:
      return "  .  .  ";
    case 5:
      return "    .  .  ";
    case 7:
      return "  .  .    ";
    case 12:
      return "  -  -  ";
    case 13:
      return "  -  -    ";
    case 15:
      return "        ";
    case 16:
      return "      ";
    case 19:
      return "    /   ";
    default:
      return nullptr;
  }
}

// strtod over text of n bytes (leading spaces allowed).
double ParseNumber(const uint8_t* text, uint32_t n) {
  char copy[kNumberText];
  if (n >= sizeof copy) n = sizeof copy - 1;
  std::memcpy(copy, text, n);
  copy[n] = '\0';
  const char* p = copy;
  const char* end = copy + n;
  while (p < end && *p == ' ') ++p;
  if (p < end && (*p == '-' || *p == '.' || (*p >= '0' && *p <= '9'))) {
    double value = 0;
    auto [stop, ec] = std::from_chars(p, end, value, std::chars_format::general);
    if (ec == std::errc() && (stop == end || (*stop != 'x' && *stop != 'X'))) return value;
  }
  return std::strtod(copy, nullptr);
}

// The style date fields are stored in (yyyymmdd).
constexpr int32_t kStoredDateStyle = 15;

// Year 0..9999, month 1..12 and a day that month has (Gregorian leap years):
// the dates the date formatter accepts.
bool PlainDateValid(int32_t year, int32_t month, int32_t day) {
  static constexpr int8_t kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (year < 0 || year > 9999 || month < 1 || month > 12 || day < 1) return false;
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return day <= kDays[month - 1] + (month == 2 && leap ? 1 : 0);
}

int32_t GetDate(const FieldInfo& f, const uint8_t* stored, char* out) {
  int32_t style = State().default_date_style;
  int32_t year = 0, month = 0, day = 0;
  Succeed();  // the date calls report the current code on success
  bool digits = f.length >= 8;
  for (uint32_t i = 0; digits && i < 8; ++i) digits = stored[i] >= '0' && stored[i] <= '9';
  if (digits) {
    year = (stored[0] - '0') * 1000 + (stored[1] - '0') * 100 + (stored[2] - '0') * 10 +
           (stored[3] - '0');
    month = (stored[4] - '0') * 10 + (stored[5] - '0');
    day = (stored[6] - '0') * 10 + (stored[7] - '0');
    if (style == kStoredDateStyle && PlainDateValid(year, month, day)) {
      // The stored form is the style asked for: nothing to convert.
      std::memcpy(out, stored, 8);
      out[8] = '\0';
      return 0;
    }
  } else {
    char text[9] = {};
    std::memcpy(text, stored, f.length < 8 ? f.length : 8);
    int32_t rc = TextToDate(&year, &month, &day, text, 15);
    if (rc < 0) return KS_PASS(kDfget, rc);
  }
  int32_t rc = DateToText(out, style, year, month, day);
  if (rc < 0) return KS_PASS(kDfget, rc);
  return 0;
}

int32_t PutDate(TableControl* t, const FieldInfo& f, const char* text) {
  int32_t year = 0, month = 0, day = 0;
  Succeed();  // the date calls report the current code on success
  int32_t rc = TextToDate(&year, &month, &day, text, State().default_date_style);
  uint8_t* stored = t->record + f.offset;
  uint32_t n = f.length < 8 ? f.length : 8;
  if (rc == DB_WARN_FILE_EMPTY) {
    std::memset(stored, ' ', n);
    Succeed();
    return 0;
  }
  if (rc < 0) return KS_PASS(kDfput, rc);
  if (year < 0 || year > 9999) return KS_FAIL(kDfput, DB_ERR_INVALID_DATE);
  char digits[8] = {
      static_cast<char>('0' + year / 1000),     static_cast<char>('0' + year / 100 % 10),
      static_cast<char>('0' + year / 10 % 10),  static_cast<char>('0' + year % 10),
      static_cast<char>('0' + month / 10 % 10), static_cast<char>('0' + month % 10),
      static_cast<char>('0' + day / 10 % 10),   static_cast<char>('0' + day % 10)};
  std::memcpy(stored, digits, n);
  return 0;
}

int32_t PutNumber(TableControl* t, const FieldInfo& f, double value) {
  // Enough for any double in fixed notation with up to 255 decimals.
  char digits[700];
  auto [end, ec] =
      std::to_chars(digits, digits + sizeof digits, value, std::chars_format::fixed, f.decimals);
  if (ec != std::errc()) return KS_FAIL(kDfput, DB_ERR_BAD_DATA);
  uint32_t printed = static_cast<uint32_t>(end - digits);
  double back = ParseNumber(reinterpret_cast<const uint8_t*>(digits), printed);
  // Only the upper bound is tested: a negative number too wide for the field
  // is cut to the field's length.
  if (back > f.max_magnitude) return KS_FAIL(kDfput, DB_ERR_BAD_DATA);
  int32_t result = back != value ? DB_WARN_ROUNDED : 0;
  uint8_t* stored = t->record + f.offset;
  if (printed < f.length) {
    uint32_t pad = f.length - printed;
    std::memset(stored, ' ', pad);
    std::memcpy(stored + pad, digits, printed);
  } else {
    std::memcpy(stored, digits, f.length);
  }
  return result;
}

int32_t PutMemoNumber(TableControl* t, const FieldInfo& f, uint32_t block) {
  char digits[16];
  auto [end, ec] = std::to_chars(digits, digits + sizeof digits, block);
  uint32_t printed = static_cast<uint32_t>(end - digits);
  if (ec != std::errc() || printed > f.length) return KS_FAIL(kDfput, DB_ERR_BAD_DATA);
  uint8_t* stored = t->record + f.offset;
  std::memset(stored, ' ', f.length - printed);
  std::memcpy(stored + f.length - printed, digits, printed);
  return 0;
}
}  // namespace

uint32_t UnpackedSize(const FieldInfo& f) {
  switch (f.type) {
    case 'C':
      return f.length + 1;
    case 'D':
      return 11;
    case 'N':
    case 'F':
      return 8;
    case 'M':
    case 'G':
      return 4;
    default:
      return f.length;
  }
}

bool FieldBlank(const TableControl* t, const FieldInfo& f) {
  if (f.length == 0) return false;
  const uint8_t* p = t->record + f.offset;
  for (uint32_t i = 0; i < f.length; ++i) {
    if (p[i] != ' ') return false;
  }
  return true;
}

int32_t GetText(const TableControl* t, const FieldInfo& f, char* out) {
  std::memcpy(out, t->record + f.offset, f.length);
  out[f.length] = '\0';
  return FieldBlank(t, f) ? DB_WARN_FIELD_EMPTY : 0;
}

int32_t GetValue(const TableControl* t, const FieldInfo& f, void* out) {
  const uint8_t* stored = t->record + f.offset;
  if (f.type == 'C') return GetText(t, f, static_cast<char*>(out));
  if (f.type == 12 || f.type == 14) return 0;
  bool blank = FieldBlank(t, f);
  switch (f.type) {
    case 'D': {
      if (blank) {
        if (const char* empty = EmptyDate(State().default_date_style)) {
          std::memcpy(out, empty, std::strlen(empty) + 1);
        }
        return DB_WARN_FIELD_EMPTY;
      }
      return GetDate(f, stored, static_cast<char*>(out));
    }
    case 'N':
    case 'F': {
      double value = blank ? 0.0 : ParseNumber(stored, f.length);
      std::memcpy(out, &value, sizeof value);
      return blank ? DB_WARN_FIELD_EMPTY : 0;
    }
    case 'L': {
      auto* byte = static_cast<uint8_t*>(out);
      if (f.length == 0) return 0;  // a damaged descriptor: nothing to read
      if (blank) {
        *byte = 0;
        return DB_WARN_FIELD_EMPTY;
      }
      switch (stored[0]) {
        case 'T':
        case 't':
        case 'Y':
        case 'y':
        case 1:
          *byte = 1;
          break;
        case 'F':
        case 'f':
        case 'N':
        case 'n':
        case 0:
          *byte = 0;
          break;
        default:  // '?' and anything else: the caller's byte stays
          break;
      }
      return 0;
    }
    case 'M':
    case 'G': {
      uint32_t block = 0;
      if (!blank && ParseMemoReference(stored, f.length, &block) < 0) {
        return KS_FAIL(kDfget, DB_ERR_CORRUPTED);
      }
      std::memcpy(out, &block, sizeof block);
      return blank ? DB_WARN_FIELD_EMPTY : 0;
    }
    default: {
      uint32_t n = BinaryTypeSize(f.type);
      if (blank) {
        std::memset(out, 0, n);
        return DB_WARN_FIELD_EMPTY;
      }
      std::memcpy(out, stored, n < f.length ? n : f.length);
      return 0;
    }
  }
}

int32_t PutText(TableControl* t, const FieldInfo& f, const char* in) {
  uint8_t* stored = t->record + f.offset;
  size_t n = strnlen(in, static_cast<size_t>(f.length) + 1);
  if (n > f.length) {
    std::memcpy(stored, in, f.length);
    return DB_WARN_TRUNCATED;
  }
  std::memcpy(stored, in, n);
  std::memset(stored + n, ' ', f.length - n);
  return 0;
}

int32_t PutValue(TableControl* t, const FieldInfo& f, const void* in) {
  uint8_t* stored = t->record + f.offset;
  switch (f.type) {
    case 'C':
      return PutText(t, f, static_cast<const char*>(in));
    case 'D':
      return PutDate(t, f, static_cast<const char*>(in));
    case 'N':
    case 'F': {
      double value;
      std::memcpy(&value, in, sizeof value);
      return PutNumber(t, f, value);
    }
    case 'L': {
      uint8_t c = *static_cast<const uint8_t*>(in);
      uint8_t mark;
      switch (c) {
        case 0:
        case 'F':
        case 'N':
        case 'f':
        case 'n':
          mark = 'F';
          break;
        case 1:
        case 'T':
        case 'Y':
        case 't':
        case 'y':
          mark = 'T';
          break;
        case ' ':
        case '?':
          mark = ' ';
          break;
        default:
          return KS_FAIL(kDfput, DB_ERR_BAD_DATA);
      }
      if (f.length > 0) stored[0] = mark;
      return 0;
    }
    case 'M':
    case 'G': {
      uint32_t block;
      std::memcpy(&block, in, sizeof block);
      return PutMemoNumber(t, f, block);
    }
    case 12:
    case 14:
      return 0;
    default: {
      uint32_t n = BinaryTypeSize(f.type);
      std::memcpy(stored, in, n < f.length ? n : f.length);
      return 0;
    }
  }
}

}  // namespace kestrel::table
