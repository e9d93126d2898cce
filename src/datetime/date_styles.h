// The date styles: their names, printed forms and parsing rules.
//
// A style fixes the order of the three parts, their separator and whether the
// year is printed with two or four digits.  Two-digit styles print the year
// modulo 100 and read a year below 100 as 19yy: there is no century window,
// so that a date read back always lands in the same century whatever today is.
//
// FormatDate and ParseDate report through their return value only (0, the
// blank-date warning 202, -212, -215); the exported calls log.
#pragma once

#include <cstdint>

namespace kestrel {

enum class DateOrder : uint8_t {
  kNone,                // no format: the style number is refused
  kMonthDayYear,        // mm?dd?yy[yy]
  kYearMonthDay,        // yy[yy]?mm?dd
  kDayMonthYear,        // dd?mm?yy[yy]
  kPackedYearMonthDay,  // yyyymmdd
  kPackedDayMonthYear,  // ddmmyy
  kYearDayOfYear,       // yyyy/ddd
};

struct DateStyle {
  const char* name;     // what DBGetDefaultDateStyle reports; "" when none
  DateOrder order;      // part order, kNone when the number has no format
  char separator;       // '/', '.', '-' or 0 for the packed styles
  uint8_t year_digits;  // 2 or 4
};

inline constexpr int32_t kLowestStyleNumber = 1;
inline constexpr int32_t kHighestStyleNumber = 19;

// The style for a number 1..19 (an entry with order kNone for those without a
// format); nullptr outside 1..19.
const DateStyle* FindDateStyle(int32_t style);

// True when the style number has a format that the conversions accept.
bool IsConvertibleStyle(int32_t style);

// Prints a valid date (checked by the caller) into buffer, which holds at
// least 11 bytes.  Returns 0, or -212 for a style without a format.
int32_t FormatDate(char* buffer, int32_t style, int32_t year, int32_t month, int32_t day);

// Parses text in the style.  Stores the date (zeros unless 0 is returned).
// Returns 0, 202 for a blank date, -212 for a bad style, -215 for a text
// that is not a valid date in that style.
int32_t ParseDate(const char* text, int32_t style, int32_t* year, int32_t* month, int32_t* day);

// Reads an optionally signed decimal number from [begin, end), stopping at
// the first non-digit; an empty or sign-only text reads as 0.  Values too
// large for 32 bits saturate so they fail range checks instead of wrapping.
int32_t ReadDecimal(const char* begin, const char* end);

}  // namespace kestrel
