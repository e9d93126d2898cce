// Date styles: the style table, printing and parsing of date strings.
#include "datetime/date_styles.h"

#include <cstdio>
#include <cstring>

#include "datetime/calendar.h"
#include "kestrel/kestrel_frame.h"

namespace kestrel {
namespace {

// Indexed by style number 0..19.
const DateStyle kStyles[kHighestStyleNumber + 1] = {
    /*  0 */ {"", DateOrder::kNone, 0, 0},
    /*  1 */ {"", DateOrder::kNone, 0, 0},
    /*  2 */ {"Gregorian (mm/dd/yy)", DateOrder::kMonthDayYear, '/', 2},
    /*  3 */ {"Gregorian (mm/dd/yyyy)", DateOrder::kMonthDayYear, '/', 4},
    /*  4 */ {"ENSI (yy.mm.dd)", DateOrder::kYearMonthDay, '.', 2},
    /*  5 */ {"ENSI (yyyy.mm.dd)", DateOrder::kYearMonthDay, '.', 4},
    /*  6 */ {"German (dd.mm.yy)", DateOrder::kDayMonthYear, '.', 2},
    /*  7 */ {"German (dd.mm.yyyy)", DateOrder::kDayMonthYear, '.', 4},
    /*  8 */ {"British (dd/mm/yy)", DateOrder::kDayMonthYear, '/', 2},
    /*  9 */ {"British (dd/mm/yyyy)", DateOrder::kDayMonthYear, '/', 4},
    /* 10 */ {"French (dd/mm/yy)", DateOrder::kDayMonthYear, '/', 2},
    /* 11 */ {"French (dd/mm/yyyy)", DateOrder::kDayMonthYear, '/', 4},
    /* 12 */ {"Italian (dd-mm-yy)", DateOrder::kDayMonthYear, '-', 2},
    /* 13 */ {"Italian (dd-mm-yyyy)", DateOrder::kDayMonthYear, '-', 4},
    /* 14 */ {"", DateOrder::kNone, 0, 0},
    /* 15 */ {"dBASE (yyyymmdd)", DateOrder::kPackedYearMonthDay, 0, 4},
    /* 16 */ {"DMY (ddmmyy)", DateOrder::kPackedDayMonthYear, 0, 2},
    /* 17 */ {"", DateOrder::kNone, 0, 0},
    /* 18 */ {"", DateOrder::kNone, 0, 0},
    /* 19 */ {"Julian (yyyy/ddd)", DateOrder::kYearDayOfYear, '/', 4},
};

// Longest text the parser looks at: anything longer fails the length rule.
constexpr size_t kMaxDateText = 10;

// Allowed lengths of the whole text, blanks included.
struct LengthRule {
  size_t min;
  size_t max;
};

LengthRule LengthRuleFor(const DateStyle& s) {
  switch (s.order) {
    case DateOrder::kPackedYearMonthDay:
      return {8, 8};
    case DateOrder::kPackedDayMonthYear:
      return {6, 6};
    case DateOrder::kYearDayOfYear:
      return {8, 8};
    default:
      return s.year_digits == 2 ? LengthRule{6, 8} : LengthRule{8, 10};
  }
}

// Reads the count characters at position from of a packed date text of n
// characters; a part cut short by missing characters reads what is there.
int32_t ReadPart(const char* work, size_t n, size_t from, size_t count) {
  const char* b = work + (from < n ? from : n);
  const char* e = work + (from + count < n ? from + count : n);
  return ReadDecimal(b, e);
}

// Finds the next separator in [p, end); end when there is none.
const char* FindSeparator(const char* p, const char* end, char separator) {
  while (p < end && *p != separator) ++p;
  return p;
}

}  // namespace

const DateStyle* FindDateStyle(int32_t style) {
  if (style < 0 || style > kHighestStyleNumber) return nullptr;
  return &kStyles[style];
}

bool IsConvertibleStyle(int32_t style) {
  const DateStyle* s = FindDateStyle(style);
  return s && s->order != DateOrder::kNone;
}

int32_t ReadDecimal(const char* begin, const char* end) {
  const char* p = begin;
  bool negative = false;
  if (p < end && (*p == '-' || *p == '+')) {
    negative = *p == '-';
    ++p;
  }
  int64_t value = 0;
  for (; p < end && *p >= '0' && *p <= '9'; ++p) {
    value = value * 10 + (*p - '0');
    if (value > INT32_MAX) value = INT32_MAX;  // saturate: stays out of every range
  }
  return static_cast<int32_t>(negative ? -value : value);
}

int32_t FormatDate(char* buffer, int32_t style, int32_t year, int32_t month, int32_t day) {
  if (!IsConvertibleStyle(style)) return DB_ERR_INVALID_COMMAND;
  const DateStyle& s = kStyles[style];
  const int32_t y = s.year_digits == 2 ? year % 100 : year;
  // Every value is range-checked, so no form exceeds 10 characters.
  constexpr size_t kSize = kMaxDateText + 1;
  const char sep = s.separator;
  switch (s.order) {
    case DateOrder::kMonthDayYear:
      std::snprintf(buffer, kSize, s.year_digits == 2 ? "%02d%c%02d%c%02d" : "%02d%c%02d%c%04d",
                    month, sep, day, sep, y);
      break;
    case DateOrder::kYearMonthDay:
      std::snprintf(buffer, kSize, s.year_digits == 2 ? "%02d%c%02d%c%02d" : "%04d%c%02d%c%02d", y,
                    sep, month, sep, day);
      break;
    case DateOrder::kDayMonthYear:
      std::snprintf(buffer, kSize, s.year_digits == 2 ? "%02d%c%02d%c%02d" : "%02d%c%02d%c%04d",
                    day, sep, month, sep, y);
      break;
    case DateOrder::kPackedYearMonthDay:
      std::snprintf(buffer, kSize, "%04d%02d%02d", y, month, day);
      break;
    case DateOrder::kPackedDayMonthYear:
      std::snprintf(buffer, kSize, "%02d%02d%02d", day, month, y);
      break;
    case DateOrder::kYearDayOfYear:
      std::snprintf(buffer, kSize, "%04d/%03d", y, DayOfYear(year, month, day));
      break;
    case DateOrder::kNone:
      return DB_ERR_INVALID_COMMAND;
  }
  return 0;
}

int32_t ParseDate(const char* text, int32_t style, int32_t* year, int32_t* month, int32_t* day) {
  *year = *month = *day = 0;

  // A text of nothing but blanks is a blank date.
  const char* first = text;
  while (*first == ' ') ++first;
  if (*first == '\0') return DB_WARN_FILE_EMPTY;

  if (style < 2 || style > kHighestStyleNumber || !IsConvertibleStyle(style)) {
    return DB_ERR_INVALID_COMMAND;
  }
  const DateStyle& s = kStyles[style];

  // The length rule counts the whole text as given, leading blanks included.
  const size_t length = strnlen(text, kMaxDateText + 1);
  const LengthRule rule = LengthRuleFor(s);
  if (length < rule.min || length > rule.max) return DB_ERR_INVALID_DATE;

  // Work on a copy without blanks, with backslashes read as slashes.
  char work[kMaxDateText + 1];
  size_t n = 0;
  for (size_t i = 0; i < length; ++i) {
    char c = text[i];
    if (c == ' ') continue;
    if (c == '\\') c = '/';
    work[n++] = c;
  }
  work[n] = '\0';
  const char* const end = work + n;

  // Only the separators left: an empty date field such as "  /  /  ".
  if (s.separator != 0) {
    const size_t separators = s.order == DateOrder::kYearDayOfYear ? 1 : 2;
    bool only_separators = n == separators;
    for (size_t i = 0; only_separators && i < n; ++i) only_separators = work[i] == s.separator;
    if (only_separators) return DB_WARN_FILE_EMPTY;
  }

  int32_t y = 0, m = 0, d = 0;
  switch (s.order) {
    case DateOrder::kMonthDayYear:
    case DateOrder::kYearMonthDay:
    case DateOrder::kDayMonthYear: {
      const char* sep1 = FindSeparator(work, end, s.separator);
      if (sep1 == end) return DB_ERR_INVALID_DATE;
      const char* sep2 = FindSeparator(sep1 + 1, end, s.separator);
      if (sep2 == end) return DB_ERR_INVALID_DATE;
      const int32_t a = ReadDecimal(work, sep1);
      const int32_t b = ReadDecimal(sep1 + 1, sep2);
      const int32_t c = ReadDecimal(sep2 + 1, end);
      if (s.order == DateOrder::kMonthDayYear) {
        m = a, d = b, y = c;
      } else if (s.order == DateOrder::kYearMonthDay) {
        y = a, m = b, d = c;
      } else {
        d = a, m = b, y = c;
      }
      break;
    }
    case DateOrder::kPackedYearMonthDay:
      // Cut by position; blanks removed above may leave the text short.
      y = ReadPart(work, n, 0, 4), m = ReadPart(work, n, 4, 2), d = ReadPart(work, n, 6, 2);
      break;
    case DateOrder::kPackedDayMonthYear:
      d = ReadPart(work, n, 0, 2), m = ReadPart(work, n, 2, 2), y = ReadPart(work, n, 4, 2);
      break;
    case DateOrder::kYearDayOfYear: {
      const char* sep = FindSeparator(work, end, '/');
      if (sep == end) return DB_ERR_INVALID_DATE;
      y = ReadDecimal(work, sep);
      const int32_t day_of_year = ReadDecimal(sep + 1, end);
      if (y < 0 || y > kMaxYear) return DB_ERR_INVALID_DATE;
      if (!DayOfYearToDate(y, day_of_year, &m, &d)) return DB_ERR_INVALID_DATE;
      break;
    }
    case DateOrder::kNone:
      return DB_ERR_INVALID_COMMAND;
  }

  if (s.year_digits == 2) {
    if (y < 0) return DB_ERR_INVALID_DATE;
    if (y < 100) y += 1900;
  }
  if (!IsValidDate3(y, m, d)) return DB_ERR_INVALID_DATE;
  *year = y;
  *month = m;
  *day = d;
  return 0;
}

}  // namespace kestrel
