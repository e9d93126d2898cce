// Key forms of the dBASE indexes: the typed key order, the 12-byte decimal
// number of MDX tags, date keys (a day number as an 8-byte double), the key
// definitions a create or an open accepts, and keys made from records.
//
// 12-byte decimal key:
//
//   byte  meaning
//   ----  -------------------------------------------------------------------
//      0  52 + digits before the point; below 1: 52 - zeros after the point
//      1  0x01, or 0x81 for a negative value (other writers keep a digit
//         count in bits 2..6; only bit 0x80 is read)
//   2..11 up to 20 decimal digits, two per byte, high nibble first, without
//         leading zeros; the value is 0.d1d2... times 10^(byte 0 - 52)
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "datetime/calendar.h"
#include "datetime/dates.h"
#include "expr/evaluate.h"
#include "index/dbase/dbase_index.h"
#include "kestrel/kestrel_table.h"
#include "runtime/handles.h"
#include "table/table_control.h"
#include "util/coding.h"

namespace kestrel::dbase {
namespace {

constexpr ModulePath kMake = KS_ENGINE_MODULE("MKMAKE");
constexpr ModulePath kDate = KS_ENGINE_MODULE("MKDATE");
constexpr int kDateStyleStored = 15;  // yyyymmdd, as date fields hold dates
constexpr double kDayNumberBase = 1721410.0;
constexpr int kDecimalDigits = 20;
constexpr int kDecimalKeyLength = 12;

// Unsigned magnitude order of n little-endian bytes, most significant first,
// with the top bit of the most significant byte masked when mask_sign.
int CompareMagnitude(const uint8_t* a, const uint8_t* b, int n, bool mask_sign) {
  for (int i = n - 1; i >= 0; --i) {
    uint8_t x = a[i], y = b[i];
    if (mask_sign && i == n - 1) {
      x &= 0x7F;
      y &= 0x7F;
    }
    if (x != y) return x < y ? -1 : 1;
  }
  return 0;
}

bool DecimalIsZero(const uint8_t* k) {
  for (int i = 2; i < kDecimalKeyLength; ++i)
    if (k[i] != 0) return false;
  return true;
}

}  // namespace

int CompareKeys(KeyOrder order, const uint8_t* a, const uint8_t* b, int n) {
  switch (order) {
    case KeyOrder::kBytes:
      return index::CompareKeyBytes(a, b, n);
    case KeyOrder::kDouble:
    case KeyOrder::kFloat: {
      bool na = (a[n - 1] & 0x80) != 0, nb = (b[n - 1] & 0x80) != 0;
      if (na != nb) return na ? -1 : 1;
      int c = CompareMagnitude(a, b, n, true);
      return na ? -c : c;
    }
    case KeyOrder::kSigned: {
      bool na = (a[n - 1] & 0x80) != 0, nb = (b[n - 1] & 0x80) != 0;
      if (na != nb) return na ? -1 : 1;
      return CompareMagnitude(a, b, n, false);
    }
    case KeyOrder::kUnsigned:
      return CompareMagnitude(a, b, n, false);
    case KeyOrder::kDecimal: {
      // Sign classes: -1 negative, 0 zero (whatever byte 0 holds), 1 positive.
      int sa = DecimalIsZero(a) ? 0 : (a[1] & 0x80) ? -1 : 1;
      int sb = DecimalIsZero(b) ? 0 : (b[1] & 0x80) ? -1 : 1;
      if (sa != sb) return sa < sb ? -1 : 1;
      if (sa == 0) return 0;
      int c = 0;
      if (a[0] != b[0]) {
        c = a[0] < b[0] ? -1 : 1;
      } else {
        c = std::memcmp(a + 2, b + 2, kDecimalKeyLength - 2);
        c = c < 0 ? -1 : c > 0 ? 1 : 0;
      }
      return sa < 0 ? -c : c;
    }
    case KeyOrder::kFirstByte:
      return a[0] == b[0] ? 0 : a[0] < b[0] ? -1 : 1;
  }
  return 0;
}

// Sortable forms: integers and floating-point numbers big-endian, the sign
// bit flipped (and, for negative floating-point numbers, every bit, so that
// a greater magnitude sorts lower).
void ToSortable(KeyOrder order, const uint8_t* key, uint8_t* out, int n) {
  switch (order) {
    case KeyOrder::kDouble:
    case KeyOrder::kFloat:
    case KeyOrder::kSigned:
    case KeyOrder::kUnsigned: {
      for (int i = 0; i < n; ++i) out[i] = key[n - 1 - i];
      if (order == KeyOrder::kSigned) {
        out[0] ^= 0x80;
      } else if (order != KeyOrder::kUnsigned) {
        bool negative = (out[0] & 0x80) != 0;
        if (negative) {
          for (int i = 0; i < n; ++i) out[i] = static_cast<uint8_t>(~out[i]);
        } else {
          out[0] |= 0x80;
        }
      }
      return;
    }
    default:
      std::memcpy(out, key, n);
  }
}

void FromSortable(KeyOrder order, const uint8_t* in, uint8_t* key, int n) {
  switch (order) {
    case KeyOrder::kDouble:
    case KeyOrder::kFloat:
    case KeyOrder::kSigned:
    case KeyOrder::kUnsigned: {
      uint8_t b[8];
      std::memcpy(b, in, n);
      if (order == KeyOrder::kSigned) {
        b[0] ^= 0x80;
      } else if (order != KeyOrder::kUnsigned) {
        if (b[0] & 0x80) {
          b[0] &= 0x7F;
        } else {
          for (int i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(~b[i]);
        }
      }
      for (int i = 0; i < n; ++i) key[i] = b[n - 1 - i];
      return;
    }
    default:
      std::memcpy(key, in, n);
  }
}

// ---------------------------------------------------------------- numbers

void DecimalToKey(double value, uint8_t* key) {
  char text[512];
  std::snprintf(text, sizeof text, "%lf", value);
  std::memset(key, 0, kDecimalKeyLength);
  key[1] = 1;
  int exponent = 52;
  const char* p = text;
  while (*p == ' ') ++p;
  if (*p == '-') {
    key[1] = 0x81;
    ++p;
  } else if (*p == '+') {
    ++p;
  }
  while (*p == '0') ++p;
  int nibble = 0;
  auto pack = [&](char c) {
    if (nibble >= kDecimalDigits) return;
    uint8_t digit = static_cast<uint8_t>(c - '0');
    key[2 + nibble / 2] |= nibble % 2 == 0 ? static_cast<uint8_t>(digit << 4) : digit;
    ++nibble;
  };
  if (*p == '.') {
    ++p;
    int zeros = 0;
    while (*p == '0') {
      ++zeros;
      ++p;
    }
    for (; *p >= '0' && *p <= '9'; ++p) pack(*p);
    exponent -= zeros;
  } else {
    int before = 0;
    for (; *p >= '0' && *p <= '9'; ++p, ++before) pack(*p);
    if (*p == '.') {
      for (++p; *p >= '0' && *p <= '9'; ++p) pack(*p);
    }
    // A number of more integer digits than the key holds keeps its first 20
    // digits; its exponent is held at the byte's largest value.
    exponent += before;
  }
  key[0] = static_cast<uint8_t>(exponent < 0 ? 0 : exponent > 255 ? 255 : exponent);
}

double KeyToDecimal(const uint8_t* key) {
  char digits[kDecimalDigits + 1];
  for (int i = 0; i < kDecimalDigits; ++i) {
    uint8_t b = key[2 + i / 2];
    digits[i] = static_cast<char>('0' + ((i % 2 == 0 ? b >> 4 : b & 0x0F) % 10));
  }
  digits[kDecimalDigits] = '\0';
  char text[128];
  int n = 0;
  if (key[1] & 0x80) text[n++] = '-';
  int e = key[0] - 52;
  if (e >= 0) {
    int whole = e > kDecimalDigits ? kDecimalDigits : e;
    std::memcpy(text + n, digits, whole);
    n += whole;
    for (int i = whole; i < e && n < 100; ++i) text[n++] = '0';
    text[n++] = '.';
    int fraction = 12 - e;
    for (int i = 0; i < fraction && whole + i < kDecimalDigits; ++i) text[n++] = digits[whole + i];
  } else {
    // One place further left than the key says: existing files were read
    // back this way, and values below one compare the same either way.
    text[n++] = '0';
    text[n++] = '.';
    for (int i = 0; i < 51 - key[0] && n < 100; ++i) text[n++] = '0';
    std::memcpy(text + n, digits, kDecimalDigits);
    n += kDecimalDigits;
  }
  text[n] = '\0';
  return std::strtod(text, nullptr);
}

// ------------------------------------------------------------------ dates

double DateKeyValue(int32_t year, int32_t month, int32_t day) {
  double whole_years = std::trunc(365.25 * (year - 1));
  return whole_years + DayOfYear(year, month, day) + kDayNumberBase;
}

int32_t DateToKey(uint8_t* key, const char* date, int32_t style) {
  int32_t y = 0, m = 0, d = 0;
  int32_t rc = TextToDate(&y, &m, &d, date, style);
  if (rc == DB_WARN_FILE_EMPTY) {
    std::memcpy(key, kBlankDateKey, 8);
    return 0;
  }
  if (rc < 0) return KS_PASS(kDate, rc);
  StoreDouble(key, DateKeyValue(y, m, d));
  return 0;
}

int32_t KeyToDate(char* date, int32_t style, const uint8_t* key) {
  double v = LoadDouble(key);
  double whole = std::isfinite(v) ? std::trunc(v) : 0.0;
  bool blank = std::memcmp(key, kBlankDateKey, 8) == 0 || !(whole - kDayNumberBase > 0) ||
               whole - kDayNumberBase > 4000000.0;
  if (blank) {
    int32_t rc = DateToText(date, style, 1, 1, 1);
    if (rc < 0) return KS_PASS(kDate, rc);
    for (char* p = date; *p; ++p)
      if (*p >= '0' && *p <= '9') *p = ' ';
    return 0;
  }
  int64_t n = static_cast<int64_t>(whole - kDayNumberBase);
  int64_t q = (4 * n) / 1461;
  int32_t day_of_year = static_cast<int32_t>((4 * n - 1461 * q + 3) >> 2);
  int32_t year = static_cast<int32_t>(q + 1);
  int32_t month = 1, day = 1;
  if (day_of_year == 0) {
    // The inverse of the whole-year rule lands on "day 0" for 31 December
    // of the years before a year divisible by 4.
    --year;
    month = 12;
    day = 31;
  } else if (!DayOfYearToDate(year, day_of_year, &month, &day)) {
    month = 12;
    day = 31;
  }
  int32_t rc = DateToText(date, style, year, month, day);
  if (rc < 0) return KS_PASS(kDate, rc);
  return 0;
}

// ------------------------------------------------------ key definitions

int32_t DefineKey(int kind, int type, int key_length, uint32_t page_size, Tag* tag,
                  ModulePath module) {
  bool ndx = kind == kKindNdx;
  int klass = 0;
  KeyOrder order = KeyOrder::kBytes;
  switch (type) {
    case 'C':
      if (key_length < 1 || key_length > kMaxKeyLength) return KS_FAIL(module, DB_ERR_KEY_LENGTH);
      break;
    case 'F':
      if (ndx) return KS_FAIL(module, DB_ERR_KEY_TYPE);
      [[fallthrough]];
    case 'N':
      if (ndx) {
        key_length = 8;
        klass = kClassDouble;
        order = KeyOrder::kDouble;
      } else {
        key_length = kDecimalKeyLength;
        order = KeyOrder::kDecimal;
      }
      break;
    case 'D':
    case 1:
      key_length = 8;
      klass = kClassDouble;
      order = KeyOrder::kDouble;
      break;
    case 2:
    case 3:
    case 4:
      key_length = 4;
      klass = type;
      order = type == 2 ? KeyOrder::kFloat : type == 3 ? KeyOrder::kUnsigned : KeyOrder::kSigned;
      break;
    case 5:
    case 6:
      key_length = 2;
      klass = type;
      order = type == 5 ? KeyOrder::kUnsigned : KeyOrder::kSigned;
      break;
    case 'L':
      if (ndx) return KS_FAIL(module, DB_ERR_KEY_TYPE);
      key_length = 1;
      order = KeyOrder::kFirstByte;
      break;
    default:
      return KS_FAIL(module, DB_ERR_KEY_TYPE);
  }
  PageLayout& l = tag->layout;
  l.page_size = page_size;
  l.key_length = static_cast<uint16_t>(key_length);
  l.child_offset = 0;
  if (ndx) {
    l.first_item = 4;
    l.record_offset = 4;
    l.key_offset = 8;
    l.item_length = static_cast<uint16_t>(NdxItemLengthFor(key_length));
    l.max_keys = static_cast<uint16_t>(kNdxPageBytes / l.item_length);
  } else {
    l.first_item = 8;
    l.record_offset = 0;
    l.key_offset = 4;
    l.item_length = static_cast<uint16_t>((type == 'C' ? (key_length + 3) & ~3 : key_length) + 4);
    l.max_keys = static_cast<uint16_t>((page_size - 12) / l.item_length);
  }
  if (l.max_keys < 2) return KS_FAIL(module, DB_ERR_MIN_KEYS);
  tag->key_type = static_cast<uint8_t>(ndx && klass == kClassDouble ? 'N' : type);
  tag->key_class = static_cast<uint8_t>(klass);
  tag->order = order;
  tag->half = static_cast<uint16_t>(l.max_keys / 2);
  tag->rest = static_cast<uint16_t>(l.max_keys - tag->half);
  return 0;
}

// ------------------------------------------------------- keys of records

int32_t ValueToKey(const DbaseIndex* ix, const Tag* tag, const DBEXPRVALUE& v, bool stored_date,
                   uint8_t* key, ModulePath module) {
  int length = tag->layout.key_length;
  bool character = tag->order == KeyOrder::kBytes;
  switch (v.type) {
    case 'C': {
      if (!character) return KS_FAIL(module, DB_ERR_KEY_TYPE);
      int n = v.length < 0 ? 0 : v.length;
      n = static_cast<int>(strnlen(static_cast<const char*>(v.value), n));
      if (n > length) n = length;
      std::memcpy(key, v.value, n);
      std::memset(key + n, ' ', length - n);
      break;
    }
    case 'L':
      if (tag->order != KeyOrder::kFirstByte) return KS_FAIL(module, DB_ERR_KEY_TYPE);
      key[0] = *static_cast<const uint8_t*>(v.value);
      break;
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 6:
      if (tag->key_class != v.type && !(v.type == 1 && tag->key_class == kClassDouble)) {
        return KS_FAIL(module, DB_ERR_KEY_TYPE);
      }
      std::memcpy(key, v.value, length);
      break;
    case 'D': {
      if (tag->order != KeyOrder::kDouble) return KS_FAIL(module, DB_ERR_KEY_TYPE);
      int32_t style = stored_date ? kDateStyleStored : State().default_date_style;
      int32_t rc = DateToKey(key, static_cast<const char*>(v.value), style);
      if (rc < 0) return KS_PASS(module, rc);
      break;
    }
    case 'N':
    case 'F': {
      double value = LoadDouble(static_cast<const uint8_t*>(v.value));
      if (ix->kind == kKindNdx && tag->order == KeyOrder::kDouble) {
        StoreDouble(key, value);
      } else if (tag->order == KeyOrder::kDecimal) {
        DecimalToKey(value, key);
      } else {
        return KS_FAIL(module, DB_ERR_KEY_TYPE);
      }
      break;
    }
    default:
      return KS_FAIL(module, DB_ERR_BAD_EXPRESSION);
  }
  key[length] = 0;
  return 0;
}

namespace {

// The stored yyyymmdd of a date field when the expression is that field
// alone (its century is kept, whatever the default date style prints).
bool StoredDateOf(int32_t table, const char* expression, char* text) {
  text[8] = '\0';
  if (std::strpbrk(expression, "+-(),") != nullptr) return false;
  // A question, not an operation: whatever it meets leaves the library code
  // as it was.
  const int32_t saved = ErrorCode();
  table::TableControl* t = nullptr;
  bool ok = CheckHandle(table, DB_KIND_TABLE, &t) >= 0;
  const int32_t field = ok ? table::FieldNumberOf(t, expression) : -1;
  ok = field >= 0 && t->fields[field].type == 'D' && t->fields[field].length == 8 &&
       table::GetFieldBytes(t, t->fields[field], text) >= 0;
  Record(saved);
  text[8] = '\0';
  return ok;
}

}  // namespace

int32_t MakeKey(DbaseIndex* ix, Tag* tag, int32_t table, char** key) {
  *key = nullptr;
  char* buffer = static_cast<char*>(MemAlloc(tag->layout.key_length + 1u));
  if (!buffer) return KS_FAIL(kMake, DB_ERR_MEMORY);
  DBEXPRVALUE v{};
  int32_t rc = EvaluateKeyExpression(table, tag->expression, &v);
  if (rc < 0) {
    MemFree(buffer);
    return KS_PASS(kMake, rc);
  }
  bool stored = false;
  char stored_text[16];
  if (v.type == 'D' && StoredDateOf(table, tag->expression, stored_text)) {
    MemFree(v.value);
    v.value = nullptr;
    DBEXPRVALUE s{};
    s.type = 'D';
    s.value = stored_text;
    s.length = 8;
    stored = true;
    rc = ValueToKey(ix, tag, s, stored, reinterpret_cast<uint8_t*>(buffer), kMake);
  } else {
    rc = ValueToKey(ix, tag, v, stored, reinterpret_cast<uint8_t*>(buffer), kMake);
    MemFree(v.value);
  }
  if (rc < 0) {
    MemFree(buffer);
    return rc;
  }
  *key = buffer;
  return 0;
}

}  // namespace kestrel::dbase
