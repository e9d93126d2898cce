// Key conversions (order-preserving doubles, floats and integers, date day
// numbers), the key of a record, the record of a key, and the tag and index
// information records.
#include <cmath>
#include <cstring>

#include "datetime/calendar.h"
#include "datetime/date_styles.h"
#include "expr/evaluate.h"
#include "index/foxpro/fox_index.h"
#include "runtime/library_state.h"
#include "table/table_control.h"
#include "table/table_format.h"

namespace kestrel::foxpro {
namespace {

constexpr ModulePath kDate = KS_ENGINE_MODULE("OKDATE");
constexpr ModulePath kMake = KS_ENGINE_MODULE("OKMAKE");
constexpr ModulePath kRecord = KS_ENGINE_MODULE("OGETREC");
constexpr int32_t kStyleYearMonthDay = 15;  // yyyymmdd
constexpr int32_t kDayNumberBase = 1721410;
constexpr int kInfoCompact = 8;
constexpr int kInfoUncompressed = 3;

// Sign rule shared by doubles, floats and signed integers: the sign bit set
// for values that are not negative, every byte complemented otherwise.
void OrderBytes(uint8_t* bytes, int n) {
  if (bytes[0] & 0x80) {
    for (int i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(~bytes[i]);
  } else {
    bytes[0] |= 0x80;
  }
}

void UnorderBytes(uint8_t* bytes, int n) {
  if (bytes[0] & 0x80) {
    bytes[0] &= 0x7F;
  } else {
    for (int i = 0; i < n; ++i) bytes[i] = static_cast<uint8_t>(~bytes[i]);
  }
}

int MonthDays(int32_t year, int32_t month) {
  static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeap(year) ? 29 : kDays[month - 1];
}

void EmptyDateKey(uint8_t* key) {
  std::memset(key, 0, 8);
  key[0] = 0x80;
}

}  // namespace

void DoubleToKey(double value, uint8_t* key) {
  uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  for (int i = 0; i < 8; ++i) key[i] = static_cast<uint8_t>(bits >> (56 - 8 * i));
  OrderBytes(key, 8);
}

double KeyToDouble(const uint8_t* key) {
  uint8_t b[8];
  std::memcpy(b, key, 8);
  UnorderBytes(b, 8);
  uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) bits = bits << 8 | b[i];
  double value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

void FloatToKey(float value, uint8_t* key) {
  uint32_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  StoreBE32(key, bits);
  OrderBytes(key, 4);
}

float KeyToFloat(const uint8_t* key) {
  uint8_t b[4];
  std::memcpy(b, key, 4);
  UnorderBytes(b, 4);
  uint32_t bits = LoadBE32(b);
  float value = 0;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

void LongToKey(int32_t value, uint8_t* key) {
  StoreBE32(key, static_cast<uint32_t>(value));
  OrderBytes(key, 4);
}

int32_t KeyToLong(const uint8_t* key) {
  uint8_t b[4];
  std::memcpy(b, key, 4);
  UnorderBytes(b, 4);
  return static_cast<int32_t>(LoadBE32(b));
}

// A negative value complements four bytes, the two after the key included:
// callers give a buffer of four.
void ShortToKey(int16_t value, uint8_t* key) {
  StoreBE16(key, static_cast<uint16_t>(value));
  if (value >= 0) {
    key[0] |= 0x80;
  } else {
    for (int i = 0; i < 4; ++i) key[i] = static_cast<uint8_t>(~key[i]);
  }
}

// The inverse keeps the high byte of a negative value as stored and
// complements only the low byte.
int16_t KeyToShort(const uint8_t* key) {
  uint16_t v = LoadBE16(key);
  if (key[0] & 0x80) {
    v &= 0x7FFF;
  } else {
    v = static_cast<uint16_t>((v & 0xFF00) | static_cast<uint8_t>(~key[1]));
  }
  return static_cast<int16_t>(v);
}

int32_t DayNumber(int32_t year, int32_t month, int32_t day) {
  int32_t d = ((year - 1) * 1461) / 4 + day + kDayNumberBase;
  for (int m = 1; m < month; ++m) d += MonthDays(year, m);
  return d;
}

namespace {

int32_t DateKeyFromParts(uint8_t* key, int32_t y, int32_t m, int32_t d) {
  if (y < 0 || y > 9999 || m < 1 || m > 12 || d < 1 || d > MonthDays(y, m))
    return DB_ERR_INVALID_DATE;
  DoubleToKey(static_cast<double>(DayNumber(y, m, d)), key);
  return 0;
}

}  // namespace

int32_t DateToKey(char* key, const char* date, int32_t style) {
  uint8_t* k = reinterpret_cast<uint8_t*>(key);
  int32_t y = 0, m = 0, d = 0;
  int32_t rc = ParseDate(date, style, &y, &m, &d);
  if (rc == DB_WARN_FILE_EMPTY) {
    EmptyDateKey(k);
  } else if (rc < 0) {
    return KS_FAIL(kDate, rc);
  } else {
    rc = DateKeyFromParts(k, y, m, d);
    if (rc < 0) return KS_FAIL(kDate, rc);
  }
  key[8] = '\0';
  return 0;
}

int32_t KeyToDate(char* date, int32_t style, const char* key) {
  double value = KeyToDouble(reinterpret_cast<const uint8_t*>(key));
  if (!(value >= 1.0 && value < 2147483647.0)) {
    // The empty date's key (0.0), or no day number at all.
    date[0] = '\0';
    return 0;
  }
  int64_t d = static_cast<int64_t>(value);
  int64_t t = 4 * d - 6885640;
  int64_t years = t / 1461;
  int64_t day_of_year = (t - years * 1461 + 3) >> 2;
  int32_t year = static_cast<int32_t>(years + 1);
  if (day_of_year == 0) {
    // The formula's day 0 is 31 December of the year before.
    --year;
    day_of_year = IsLeap(year) ? 366 : 365;
  }
  int32_t month = 1;
  while (month < 12 && day_of_year > MonthDays(year, month)) {
    day_of_year -= MonthDays(year, month);
    ++month;
  }
  int32_t day = static_cast<int32_t>(day_of_year);
  if (year < 0 || year > 9999 || day < 1 || day > MonthDays(year, month))
    return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
  int32_t rc = FormatDate(date, style, year, month, day);
  if (rc < 0) return KS_FAIL(kDate, rc);
  return 0;
}

namespace {

// The key of an evaluated value for the tag (key length bytes + NUL).  A tag
// whose type is still unknown takes the value's type.
int32_t ValueToKey(Tag* tag, const DBEXPRVALUE& v, const uint8_t* date_field, char* key) {
  int length = tag->key_length();
  uint8_t* k = reinterpret_cast<uint8_t*>(key);
  int type = v.type == 'F' ? 'N' : v.type;
  if (tag->type == kTypeUnknown) {
    int32_t rc = SetDefaultKeyType(tag, type == 'M' ? 0 : type);
    if (rc < 0) return KS_PASS(kMake, rc);
  }
  std::memset(key, tag->shape.pad, static_cast<size_t>(length));
  key[length] = '\0';
  const uint8_t* value = static_cast<const uint8_t*>(v.value);
  switch (type) {
    case 1:
    case 'N':
      if (length < 8) break;
      DoubleToKey(LoadDouble(value), k);
      return 0;
    case 2: {
      if (length < 4) break;
      float f = 0;
      std::memcpy(&f, value, sizeof f);
      FloatToKey(f, k);
      return 0;
    }
    case 3:
    case 4: {
      if (length < 4) break;
      uint32_t u = LoadLE32(value);
      if (type == 3) {
        StoreBE32(k, u);
      } else {
        LongToKey(static_cast<int32_t>(u), k);
      }
      return 0;
    }
    case 5:
    case 6: {
      if (length < 2) break;
      uint16_t u = LoadLE16(value);
      if (type == 5) {
        StoreBE16(k, u);
      } else {
        uint8_t four[4];
        ShortToKey(static_cast<int16_t>(u), four);
        std::memcpy(k, four, 2);
      }
      return 0;
    }
    case 'D': {
      if (length < 8) break;
      int32_t y = 0, m = 0, d = 0;
      int32_t rc = 0;
      if (date_field) {
        char text[9] = {};
        std::memcpy(text, date_field, 8);
        rc = ParseDate(text, kStyleYearMonthDay, &y, &m, &d);
      } else {
        rc = ParseDate(static_cast<const char*>(v.value), State().default_date_style, &y, &m,
                       &d);
      }
      if (rc == DB_WARN_FILE_EMPTY) {
        EmptyDateKey(k);
        return 0;
      }
      if (rc < 0) return KS_FAIL(kMake, rc);
      rc = DateKeyFromParts(k, y, m, d);
      if (rc < 0) return KS_FAIL(kMake, rc);
      return 0;
    }
    case 'L': {
      uint8_t b = value ? value[0] : 0;
      bool truth = b == 1 || b == 'T' || b == 't' || b == 'Y' || b == 'y';
      key[0] = truth ? 'T' : 'F';
      key[1] = '\0';
      return 0;
    }
    case 'C': {
      int n = v.length < 0 ? 0 : v.length;
      n = static_cast<int>(strnlen(static_cast<const char*>(v.value), static_cast<size_t>(n)));
      if (n > length) n = length;
      std::memcpy(key, v.value, static_cast<size_t>(n));
      return 0;
    }
    default:
      return KS_FAIL(kMake, DB_ERR_BAD_EXPRESSION);
  }
  return KS_FAIL(kMake, DB_ERR_KEY_LENGTH);
}

// The stored bytes of a date field when the tag's expression is that field
// alone (its key keeps the stored century).
bool DateFieldBytes(int32_t table, const Tag* tag, uint8_t* out) {
  table::TableControl* t = table::LookUp(table, kMake);
  if (!t) return false;
  int32_t f = table::FieldNumberOf(t, tag->expression);
  if (f < 0 || t->fields[f].type != 'D' || t->fields[f].length != 8) return false;
  return table::GetFieldBytes(t, t->fields[f], out) >= 0;
}

}  // namespace

int32_t MakeKey(int32_t table, FoxIndex* ix, Tag* tag, char** key) {
  (void)ix;
  *key = nullptr;
  char* buffer = static_cast<char*>(MemAlloc(static_cast<size_t>(tag->key_length()) + 1));
  if (!buffer) return KS_FAIL(kMake, DB_ERR_MEMORY);
  DBEXPRVALUE v{};
  int32_t rc = EvaluateKeyExpression(table, tag->expression, &v);
  if (rc < 0) {
    MemFree(buffer);
    return KS_PASS(kMake, rc);
  }
  uint8_t stored[9] = {};
  bool from_field = v.type == 'D' && DateFieldBytes(table, tag, stored);
  Succeed();
  rc = ValueToKey(tag, v, from_field ? stored : nullptr, buffer);
  MemFree(v.value);
  if (rc < 0) {
    MemFree(buffer);
    return rc;
  }
  *key = buffer;
  return 0;
}

int32_t GetRecordNumber(int32_t table, int32_t* record, FoxIndex* ix, Tag* tag, const char* key) {
  table::TableControl* t = table::LookUp(table, kRecord);
  if (!t) return ErrorCode();
  uint32_t count = 0;
  int32_t rc = table::GetRecordCount(t, &count);
  if (rc < 0) return KS_PASS(kRecord, rc);
  const int kl = tag->key_length();
  for (uint64_t r = static_cast<uint32_t>(*record); r >= 1 && r <= count; r += tag->record_step) {
    rc = table::GetRecord(t, nullptr, static_cast<int32_t>(r));
    if (rc < 0) return KS_PASS(kRecord, rc);
    char* made = nullptr;
    rc = MakeKey(table, ix, tag, &made);
    if (rc < 0) return KS_PASS(kRecord, rc);
    bool same = std::memcmp(made, key, static_cast<size_t>(kl)) == 0;
    MemFree(made);
    if (same) {
      *record = static_cast<int32_t>(r);
      return Succeed();
    }
  }
  return DB_WARN_KEY_NOT_FOUND;
}

int32_t GetTagInfo(Tag* tag, DBFPTAGINFO* info) {
  std::memset(info->name, 0, sizeof info->name);
  std::memcpy(info->name, tag->name, 10);
  info->key_length = tag->key_length();
  info->key_type = tag->type;
  int32_t options = 0;
  if (tag->unique()) options |= DB_FP_UNIQUE;
  if (tag->descending) options |= DB_FP_DESCENDING;
  if (tag->shape.compact) options |= DB_FP_COMPACT;
  if (tag->options & kOptCompound) options |= DB_FP_COMPOUND_TAG;
  info->options = options;
  std::memset(info->expression, 0, sizeof info->expression);
  std::strncpy(info->expression, tag->expression, 254);
  return 0;
}

int32_t GetIndexInfo(FoxIndex* ix, Tag* tag, DBFPINDEXINFO* info) {
  constexpr int32_t kInfoReadOnly = 1;
  constexpr int32_t kInfoShared = 2;
  constexpr int32_t kInfoWriteThrough = 4;
  std::memset(info->file_name, 0, sizeof info->file_name);
  std::strncpy(info->file_name, ix->file_name, sizeof info->file_name - 1);
  int32_t state = info->state & ~(kInfoReadOnly | kInfoShared | kInfoWriteThrough);
  if (ix->state & kStateReadOnly) state |= kInfoReadOnly;
  if (ix->state & kStateShared) state |= kInfoShared;
  if (ix->state & kStateWriteThrough) state |= kInfoWriteThrough;
  info->state = state;
  info->lock_state = ix->lock_state;
  info->kind = ix->compact ? kInfoCompact : kInfoUncompressed;
  std::memset(info->expression, 0, sizeof info->expression);
  info->key_length = info->key_type = info->key_flags = info->expression_length = 0;
  if (!tag) return 0;
  info->key_length = tag->key_length();
  info->key_type = tag->type;
  int32_t flags = 0;
  if (tag->unique()) flags |= DB_FP_UNIQUE;
  if (tag->descending) flags |= DB_FP_DESCENDING;
  info->key_flags = flags;
  size_t n = std::strlen(tag->expression);
  info->expression_length = static_cast<int32_t>(n);
  if (n < sizeof info->expression) std::memcpy(info->expression, tag->expression, n);
  return 0;
}

}  // namespace kestrel::foxpro
