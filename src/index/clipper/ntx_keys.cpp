// Key conversions: numeric keys as digit texts, dates in the yyyymmdd style,
// binary keys as order-preserving big-endian bytes; the key of a record made
// from the index's key expression.
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "datetime/date_styles.h"
#include "expr/evaluate.h"
#include "index/clipper/ntx_index.h"
#include "runtime/memory.h"

namespace kestrel::ntx {
namespace {

constexpr ModulePath kMake = KS_ENGINE_MODULE("CKMAKE");
constexpr ModulePath kDate = KS_ENGINE_MODULE("CKDATE");
constexpr int kDateStyleDbase = 15;

// The digit and point characters of a negative key: 92 minus the code.
inline char Complement92(char c) { return static_cast<char>(92 - c); }

// Adds one at position at of text, carrying toward the front over the point,
// down to position first.  True when a carry is left over.
bool RoundUp(char* text, int at, int first) {
  for (int i = at; i >= first; --i) {
    if (text[i] == '.') continue;
    if (text[i] == '9') {
      text[i] = '0';
      continue;
    }
    if (text[i] >= '0' && text[i] < '9') {
      ++text[i];
      return false;
    }
  }
  return true;
}

// The value as "%+040.17f" prints it: the sign, the digits zero-padded to 40
// characters, exactly 17 decimals (correctly rounded).  The shortest-digits
// conversion of the standard library produces the same digits at a fraction
// of the cost of the formatted print, which stays for infinities, NaNs and
// anything the conversion refuses.
int PrintFixed17(double value, char* text, size_t size) {
  if (!std::isfinite(value)) return std::snprintf(text, size, "%+040.17f", value);
  char digits[400];
  std::to_chars_result r =
      std::to_chars(digits, digits + sizeof digits, value, std::chars_format::fixed, 17);
  if (r.ec != std::errc()) return std::snprintf(text, size, "%+040.17f", value);
  bool negative = digits[0] == '-';
  const char* body = digits + (negative ? 1 : 0);
  int length = static_cast<int>(r.ptr - body);
  int pad = length < 39 ? 39 - length : 0;
  if (static_cast<size_t>(1 + pad + length) >= size) return -1;
  text[0] = negative ? '-' : '+';
  std::memset(text + 1, '0', static_cast<size_t>(pad));
  std::memcpy(text + 1 + pad, body, static_cast<size_t>(length));
  text[1 + pad + length] = '\0';
  return 1 + pad + length;
}

}  // namespace

namespace {

// The digits-point-decimals form that other programs of the dialect store:
// the value rounded half away from zero to the decimals, the integer digits
// zero-padded; a value too wide for the key becomes all '*' (and sorts
// before every number); a value that rounds to zero is not negative.
int32_t NumericWithDecimals(const char* text, int len, int d, int key_length, int decimals,
                            char* key) {
  char digits[512];
  std::memcpy(digits, text, len + 1);
  int last = decimals > 0 ? d + decimals : d - 1;
  int first = decimals > 0 ? last - key_length + 1 : d - key_length;
  int round_at = decimals > 0 ? last + 1 : d + 1;
  bool overflow = first < 1;
  if (round_at < len && digits[round_at] >= '5') {
    if (RoundUp(digits, last, 1)) overflow = true;
  }
  for (int i = 1; i < first && !overflow; ++i) overflow = digits[i] != '0';
  if (overflow) {
    std::memset(key, '*', key_length);
    key[key_length] = '\0';
    return DB_WARN_ROUNDED;
  }
  bool zero = true;
  for (int i = first; i <= last; ++i) zero &= digits[i] == '0' || digits[i] == '.';
  bool negative = digits[0] == '-' && !zero;
  for (int i = 0; i < key_length; ++i) {
    char c = digits[first + i];
    if (negative && c != '.') c = Complement92(c);
    key[i] = c;
  }
  key[key_length] = '\0';
  return 0;
}

}  // namespace

int32_t NumericToKey(double value, int key_length, int decimals, int32_t form, char* key) {
  char text[512];
  int len = PrintFixed17(value, text, sizeof text);
  if (len <= 0 || len >= static_cast<int>(sizeof text)) return DB_ERR_BAD_DATA;
  const char* point = std::strchr(text, '.');
  if (!point) return DB_ERR_BAD_DATA;
  int d = static_cast<int>(point - text);
  if (form == kNumericWithDecimals) {
    return NumericWithDecimals(text, len, d, key_length, decimals, key);
  }
  // Key length integer digits, ending just before the point.  The last
  // position that takes part in rounding is the point itself without
  // decimals, else the position decimals + 1 after it.
  int first = d - key_length;
  int kept = decimals == 0 ? d : d + decimals + 1;
  if (kept + 1 >= len) kept = len - 2;
  int32_t status = 0;
  char digit = text[kept + 1];
  bool up = digit > '5';
  if (digit == '5') {
    // An exact half (the last two digits printed do not count) stays.
    for (int i = kept + 2; i <= len - 3; ++i) up |= text[i] != '0';
  }
  int lowest = first < 1 ? 1 : first;  // never the sign
  if (up && RoundUp(text, kept, lowest)) status = DB_WARN_ROUNDED;
  bool negative = text[0] == '-';
  for (int i = 0; i < key_length; ++i) {
    int at = first + i;
    char c = (at >= 1 && at < len) ? text[at] : '0';
    if (negative && c != '.') c = Complement92(c);
    key[i] = c;
  }
  key[key_length] = '\0';
  return status;
}

bool NumericTextToKey(const char* text, int length, int key_length, int decimals, int32_t form,
                      char* key, int32_t* status) {
  // The stored text: blanks, an optional minus, digits with at most one
  // point, blanks.  Anything else (exponents, a plus, garbage, a blank field)
  // is left to the double conversion.
  if (length > 64 || key_length < 1 || key_length > 21 || decimals < 0 || decimals > 9) {
    return false;
  }
  int at = 0;
  while (at < length && text[at] == ' ') ++at;
  bool minus = at < length && text[at] == '-';
  if (minus) ++at;
  int int_first = at;
  while (at < length && text[at] >= '0' && text[at] <= '9') ++at;
  int int_end = at;
  int frac_first = at, frac_end = at;
  if (at < length && text[at] == '.') {
    frac_first = ++at;
    while (at < length && text[at] >= '0' && text[at] <= '9') ++at;
    frac_end = at;
  }
  while (at < length && text[at] == ' ') ++at;
  if (at != length || (int_end == int_first && frac_end == frac_first)) return false;
  while (int_first < int_end && text[int_first] == '0') ++int_first;
  while (frac_end > frac_first && text[frac_end - 1] == '0') --frac_end;
  int int_digits = int_end - int_first;
  int frac_digits = frac_end - frac_first;
  if (int_digits == 0 && frac_digits == 0 && minus) return false;  // -0 keeps its sign

  // The double nearest the text differs from it by less than one part in
  // 2^53.  The conversion through the double rounds at the digit `decider`
  // places after the point; when the text has no digits from there on and
  // its integer part is at most 14 - decider digits long, the double's
  // digits there are all zeros or all nines, and rounding gives back exactly
  // the text's digits.  So the key is the text's own digits.
  int decider = form == kNumericWithDecimals ? decimals + 1 : (decimals == 0 ? 1 : decimals + 2);
  if (frac_digits >= decider || int_digits > 14 - decider) return false;

  *status = 0;
  if (form == kNumericWithDecimals) {
    int width = decimals > 0 ? key_length - decimals - 1 : key_length;  // integer places
    if (width < 0) return false;
    if (int_digits > width) {
      std::memset(key, '*', key_length);
      key[key_length] = '\0';
      *status = DB_WARN_ROUNDED;
      return true;
    }
    int pad = width - int_digits;
    std::memset(key, '0', pad);
    std::memcpy(key + pad, text + int_first, int_digits);
    if (decimals > 0) {
      key[width] = '.';
      std::memset(key + width + 1, '0', decimals);
      std::memcpy(key + width + 1, text + frac_first, frac_digits);
    }
  } else {
    // The key's integer places only: the last key_length integer digits.
    int take = int_digits < key_length ? int_digits : key_length;
    int pad = key_length - take;
    std::memset(key, '0', pad);
    std::memcpy(key + pad, text + int_end - take, take);
  }
  if (minus) {
    for (int i = 0; i < key_length; ++i) {
      if (key[i] != '.') key[i] = Complement92(key[i]);
    }
  }
  key[key_length] = '\0';
  return true;
}

double KeyToNumeric(const char* key) {
  char text[300];
  size_t n = strnlen(key, sizeof text - 2);
  bool negative = n > 0 && static_cast<unsigned char>(key[0]) < '0';
  text[0] = negative ? '-' : '+';
  for (size_t i = 0; i < n; ++i) text[i + 1] = negative ? Complement92(key[i]) : key[i];
  text[n + 1] = '\0';
  return std::strtod(text, nullptr);
}

void BinaryToKey(int type, const void* value, uint8_t* key) {
  switch (type) {
    case 1: {
      uint64_t bits;
      std::memcpy(&bits, value, 8);
      bits = (bits >> 63) ? ~bits : (bits | (1ull << 63));
      StoreBE32(key, static_cast<uint32_t>(bits >> 32));
      StoreBE32(key + 4, static_cast<uint32_t>(bits));
      break;
    }
    case 2:
    case 4: {
      uint32_t bits;
      std::memcpy(&bits, value, 4);
      bits = (bits >> 31) ? ~bits : (bits | 0x80000000u);
      StoreBE32(key, bits);
      break;
    }
    case 3: {
      uint32_t bits;
      std::memcpy(&bits, value, 4);
      StoreBE32(key, bits);
      break;
    }
    case 6: {
      uint16_t bits;
      std::memcpy(&bits, value, 2);
      bits = static_cast<uint16_t>((bits >> 15) ? ~bits : (bits | 0x8000u));
      StoreBE16(key, bits);
      break;
    }
    case 5: {
      uint16_t bits;
      std::memcpy(&bits, value, 2);
      StoreBE16(key, bits);
      break;
    }
    default:
      break;
  }
}

void KeyToBinary(int type, const uint8_t* key, void* value) {
  switch (type) {
    case 1: {
      uint64_t bits = (static_cast<uint64_t>(LoadBE32(key)) << 32) | LoadBE32(key + 4);
      bits = (bits >> 63) ? (bits & ~(1ull << 63)) : ~bits;
      std::memcpy(value, &bits, 8);
      break;
    }
    case 2:
    case 4: {
      uint32_t bits = LoadBE32(key);
      bits = (bits >> 31) ? (bits & 0x7FFFFFFFu) : ~bits;
      std::memcpy(value, &bits, 4);
      break;
    }
    case 3: {
      uint32_t bits = LoadBE32(key);
      std::memcpy(value, &bits, 4);
      break;
    }
    case 6: {
      uint16_t bits = LoadBE16(key);
      bits = static_cast<uint16_t>((bits >> 15) ? (bits & 0x7FFFu) : ~bits);
      std::memcpy(value, &bits, 2);
      break;
    }
    case 5: {
      uint16_t bits = LoadBE16(key);
      std::memcpy(value, &bits, 2);
      break;
    }
    default:
      break;
  }
}

int32_t DateToKey(char* key, const char* date, int32_t style) {
  int32_t y = 0, m = 0, d = 0;
  int32_t rc = ParseDate(date, style, &y, &m, &d);
  if (rc == DB_WARN_FILE_EMPTY) {
    std::memset(key, ' ', 8);
  } else if (rc < 0) {
    KS_FAIL(kDate, rc);
  } else {
    char text[16] = {};
    rc = FormatDate(text, kDateStyleDbase, y, m, d);
    if (rc < 0)
      KS_FAIL(kDate, rc);
    else
      std::memcpy(key, text, 8);
  }
  key[8] = '\0';
  return Record(0);
}

int32_t KeyToDate(char* date, int32_t style, const char* key) {
  char text[9] = {};
  std::memcpy(text, key, strnlen(key, 8));
  int32_t y = 0, m = 0, d = 0;
  int32_t rc = ParseDate(text, kDateStyleDbase, &y, &m, &d);
  if (rc == DB_WARN_FILE_EMPTY) {
    std::memset(date, ' ', 8);
    date[8] = '\0';
  } else if (rc < 0) {
    KS_FAIL(kDate, rc);
    date[0] = '\0';
  } else {
    rc = FormatDate(date, style, y, m, d);
    if (rc < 0) {
      KS_FAIL(kDate, rc);
      date[0] = '\0';
    }
  }
  return Record(0);
}

// Converts an evaluated value into the index's key bytes (key_length + 1
// bytes, NUL-terminated).
int32_t ValueToKey(NtxIndex* ix, const DBEXPRVALUE& v, char* key, ModulePath module) {
  const KeyDescriptor& k = *ix->key;
  int length = k.key_length;
  // A value of the wrong kind for the index: a binary value for a text key,
  // a text, date or number for a binary key, or a binary value of another type.
  bool binary_value = v.type >= 1 && v.type <= 6;
  if (binary_value != (k.binary_type != 0) || (binary_value && v.type != k.binary_type)) {
    if (binary_value || v.type == 'C' || v.type == 'D' || v.type == 'N' || v.type == 'F') {
      return KS_FAIL(module, DB_ERR_KEY_TYPE);
    }
  }
  switch (v.type) {
    case 1:
    case 2:
    case 3:
    case 4:
    case 5:
    case 6: {
      if (table::BinaryTypeSize(v.type) != static_cast<uint32_t>(length))
        return KS_FAIL(module, DB_ERR_KEY_LENGTH);
      BinaryToKey(v.type, v.value, reinterpret_cast<uint8_t*>(key));
      key[length] = '\0';
      return 0;
    }
    case 'C': {
      int n = v.length < 0 ? 0 : v.length;
      n = static_cast<int>(strnlen(static_cast<const char*>(v.value), n));
      if (n > length) return KS_FAIL(module, DB_ERR_KEY_LENGTH);  // a key too long
      std::memcpy(key, v.value, n);
      std::memset(key + n, ' ', length - n);
      key[length] = '\0';
      return 0;
    }
    case 'D': {
      int32_t style = State().default_date_style;
      const char* text = static_cast<const char*>(v.value);
      if (style == kDateStyleDbase) {
        size_t n = strnlen(text, 8);
        std::memcpy(key, text, n);
        std::memset(key + n, ' ', 8 - n);
      } else {
        int32_t y = 0, m = 0, d = 0;
        int32_t rc = ParseDate(text, style, &y, &m, &d);
        if (rc == DB_WARN_FILE_EMPTY) {
          std::memset(key, ' ', 8);
        } else if (rc < 0) {
          return KS_FAIL(module, rc);
        } else {
          char out[16] = {};
          FormatDate(out, kDateStyleDbase, y, m, d);
          std::memcpy(key, out, 8);
        }
      }
      if (length > 8) std::memset(key + 8, ' ', length - 8);
      key[length] = '\0';
      return 0;
    }
    case 'N':
    case 'F': {
      double value = LoadDouble(static_cast<const uint8_t*>(v.value));
      int32_t rc = NumericToKey(value, length, k.decimals, ix->numeric_form, key);
      if (rc < 0) return KS_FAIL(module, rc);
      return rc;
    }
    default:
      return KS_FAIL(module, DB_ERR_BAD_EXPRESSION);
  }
}

int32_t MakeKey(int32_t table, NtxIndex* ix, char** key) {
  *key = nullptr;
  char* buffer = static_cast<char*>(MemAlloc(ix->key->key_length + 1));
  if (!buffer) return KS_FAIL(kMake, DB_ERR_MEMORY);
  DBEXPRVALUE v{};
  int32_t rc = EvaluateKeyExpression(table, ix->key->expression, &v);
  if (rc < 0) {
    MemFree(buffer);
    return KS_PASS(kMake, rc);
  }
  rc = ValueToKey(ix, v, buffer, kMake);
  MemFree(v.value);
  if (rc < 0) {
    MemFree(buffer);
    return rc;
  }
  *key = buffer;
  return rc;
}

// The index information: the caller's other state bits are kept, the
// read-only, shared and write-through bits follow the open.
int32_t GetIndexInfo(NtxIndex* ix, DBCLINDEXINFO* info) {
  constexpr int32_t kInfoReadOnly = 1;
  constexpr int32_t kInfoShared = 2;
  constexpr int32_t kInfoWriteThrough = 4;
  const KeyDescriptor& k = *ix->key;
  std::memset(info->file_name, 0, sizeof info->file_name);
  std::strncpy(info->file_name, ix->file_name, sizeof info->file_name - 1);
  int32_t state = info->state & ~(kInfoReadOnly | kInfoShared | kInfoWriteThrough);
  if (ix->state & kStateReadOnly) state |= kInfoReadOnly;
  if (ix->state & kStateShared) state |= kInfoShared;
  if (ix->state & kStateWriteThrough) state |= kInfoWriteThrough;
  info->state = state;
  info->key_length = k.key_length;
  info->key_type = '?';
  int32_t flags = 0;
  if (k.flags & kFlagUnique) flags |= DB_CL_UNIQUE;
  if ((k.flags & kFlagDescending) || std::strncmp(k.expression, "DESCEND", 7) == 0)
    flags |= DB_CL_DESCENDING;
  info->key_flags = flags;
  info->decimals = k.decimals;
  info->lock_state = ix->lock_state;
  size_t n = std::strlen(k.expression);
  info->expression_length = static_cast<int32_t>(n);
  std::memset(info->expression, 0, sizeof info->expression);
  if (n < sizeof info->expression) std::memcpy(info->expression, k.expression, n);
  return 0;
}

}  // namespace kestrel::ntx
