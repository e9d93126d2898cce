// Exported date calls: the calendar, date strings in every style, the
// default date style and the compositions built on them.
//
// Success returns 0 and leaves the library error code as it was.  A blank
// date string is the warning 202: it is stored as the error code but not
// logged, since an empty date field is a normal thing to meet.
#include <cstdlib>
#include <cstring>

#include "datetime/calendar.h"
#include "datetime/clock.h"
#include "datetime/date_styles.h"
#include "datetime/dates.h"
#include "kestrel/kestrel_datetime.h"
#include "runtime/boundary.h"
#include "runtime/library_state.h"
#include "runtime/status.h"

using namespace kestrel;

namespace {

constexpr ModulePath kDate = KS_ENGINE_MODULE("DATE");
constexpr ModulePath kDateClock = KS_PLATFORM_MODULE("DATEW32");

// Turns a parser or printer result into the reported status.
int32_t Report(int line, int32_t rc) {
  if (rc == DB_WARN_FILE_EMPTY) return FailQuiet(rc);
  if (rc < 0) return Fail(kDate, line, rc);
  return rc;
}
#define DATE_REPORT(rc) Report(__LINE__, (rc))

void CopyText(char* buffer, const char* text) { std::memcpy(buffer, text, std::strlen(text) + 1); }

// Parses a date string for a composition; a failure is logged where it is
// found and once more for the composition itself.
int32_t ParseFor(int line, const char* text, int32_t style, int32_t* y, int32_t* m, int32_t* d) {
  int32_t rc = 0;
  if (!text) {
    *y = *m = *d = 0;
    rc = KS_FAIL(kDate, DB_ERR_NULL);
  } else {
    rc = TextToDate(y, m, d, text, style);
  }
  if (rc < 0) LogError(kDate, line, rc);
  return rc;
}
#define PARSE_FOR(text, style, y, m, d) ParseFor(__LINE__, (text), (style), (y), (m), (d))

}  // namespace

extern "C" {

KESTREL_API int32_t DBIsLeapYear(int32_t year) { return SetFebruaryFor(year) ? 1 : 0; }

KESTREL_API int32_t DBDaysInMonth(int32_t* days, int32_t year, int32_t month) {
  return Guarded([&]() -> int32_t {
    if (!days) return KS_FAIL(kDate, DB_ERR_NULL);
    if (year < 1 || year > kMaxYear || month < 1 || month > 12) {
      return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
    }
    SetFebruaryFor(year);
    *days = MonthLength(month);
    return 0;
  });
}

KESTREL_API int32_t DBDate3ToLong(int32_t* longDate, int32_t year, int32_t month, int32_t day) {
  return Guarded([&]() -> int32_t {
    if (!longDate) return KS_FAIL(kDate, DB_ERR_NULL);
    if (!IsValidDate3(year, month, day)) return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
    *longDate = DayNumber(year, month, day);
    return 0;
  });
}

KESTREL_API int32_t DBLongDateTo3(int32_t* year, int32_t* month, int32_t* day, int32_t longDate) {
  return Guarded([&]() -> int32_t {
    if (!year || !month || !day) return KS_FAIL(kDate, DB_ERR_NULL);
    if (!IsValidLongDate(longDate)) return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
    DayNumberToDate(longDate, year, month, day);
    return 0;
  });
}

KESTREL_API int32_t DBLongDateToDayOfWeek(int32_t* index, int32_t longDate) {
  return Guarded([&]() -> int32_t {
    if (!index) return KS_FAIL(kDate, DB_ERR_NULL);
    if (!IsValidLongDate(longDate)) return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
    *index = WeekdayOf(longDate);
    return 0;
  });
}

KESTREL_API int32_t DBDayOfWeek(char* buffer, int32_t index) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    if (index < 0 || index > 6) return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
    CopyText(buffer, kDayNames[index]);
    return 0;
  });
}

KESTREL_API int32_t DBMonthToStr(char* buffer, int32_t month) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    if (month < 1 || month > 12) return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
    CopyText(buffer, kMonthNames[month - 1]);
    return 0;
  });
}

KESTREL_API int32_t DBDate3ToStr(char* buffer, int32_t style, int32_t year, int32_t month,
                                 int32_t day) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    return DateToText(buffer, style, year, month, day);
  });
}

KESTREL_API int32_t DBStrDateTo3(int32_t* year, int32_t* month, int32_t* day, const char* string,
                                 int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!year || !month || !day) return KS_FAIL(kDate, DB_ERR_NULL);
    if (!string) {
      *year = *month = *day = 0;
      return KS_FAIL(kDate, DB_ERR_NULL);
    }
    return TextToDate(year, month, day, string, style);
  });
}

KESTREL_API int32_t DBSetDefaultDateStyle(int32_t style) {
  return Guarded([&]() -> int32_t {
    if (style < kLowestStyleNumber || style > kHighestStyleNumber) {
      return FailQuiet(DB_ERR_INVALID_COMMAND);
    }
    State().default_date_style = style;
    return 0;
  });
}

KESTREL_API int32_t DBGetDefaultDateStyle(int32_t* style, char* buffer) {
  return Guarded([&]() -> int32_t {
    if (!style || !buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    *style = State().default_date_style;
    const DateStyle* s = FindDateStyle(*style);
    CopyText(buffer, s ? s->name : "");
    return 0;
  });
}

KESTREL_API int32_t DBIsValidDateStr(const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    int32_t y, m, d;
    return PARSE_FOR(string, style, &y, &m, &d);
  });
}

KESTREL_API int32_t DBIsStrLeapYear(const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    int32_t y, m, d;
    const int32_t rc = PARSE_FOR(string, style, &y, &m, &d);
    if (rc != 0) return rc;
    return DBIsLeapYear(y);
  });
}

KESTREL_API int32_t DBDaysInMonthStr(int32_t* days, const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!days) return KS_FAIL(kDate, DB_ERR_NULL);
    *days = 0;
    int32_t y, m, d;
    const int32_t rc = PARSE_FOR(string, style, &y, &m, &d);
    if (rc != 0) return rc;
    SetFebruaryFor(y);
    *days = MonthLength(m);
    return 0;
  });
}

KESTREL_API int32_t DBConvertDateStr(char* buffer, int32_t toStyle, const char* string,
                                     int32_t fromStyle) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    return ConvertDateText(buffer, toStyle, string, fromStyle);
  });
}

KESTREL_API int32_t DBStrDateToLong(int32_t* longDate, const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!longDate) return KS_FAIL(kDate, DB_ERR_NULL);
    *longDate = 0;
    int32_t y, m, d;
    const int32_t rc = PARSE_FOR(string, style, &y, &m, &d);
    if (rc != 0) return rc;
    *longDate = DayNumber(y, m, d);
    return 0;
  });
}

KESTREL_API int32_t DBLongDateToStr(char* buffer, int32_t style, int32_t longDate) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    buffer[0] = '\0';
    if (!IsValidLongDate(longDate)) return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
    int32_t y, m, d;
    DayNumberToDate(longDate, &y, &m, &d);
    return DATE_REPORT(FormatDate(buffer, style, y, m, d));
  });
}

KESTREL_API int32_t DBStrDateToMonth(char* buffer, const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    buffer[0] = '\0';
    int32_t y, m, d;
    const int32_t rc = PARSE_FOR(string, style, &y, &m, &d);
    if (rc != 0) return rc;
    CopyText(buffer, kMonthNames[m - 1]);
    return 0;
  });
}

KESTREL_API int32_t DBStrDateToIntDayWeek(int32_t* index, const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!index) return KS_FAIL(kDate, DB_ERR_NULL);
    *index = 0;
    int32_t y, m, d;
    const int32_t rc = PARSE_FOR(string, style, &y, &m, &d);
    if (rc != 0) return rc;
    const int32_t day_number = DayNumber(y, m, d);
    // Year 0 lies before day 1; its weekdays continue the same seven-day cycle.
    *index = ((day_number % 7) + 7) % 7;
    return 0;
  });
}

KESTREL_API int32_t DBStrDateToDayOfWeek(char* buffer, const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    buffer[0] = '\0';
    int32_t index = 0;
    const int32_t rc = DBStrDateToIntDayWeek(&index, string, style);
    if (rc < 0) return KS_PASS(kDate, rc);
    if (rc != 0) return rc;
    CopyText(buffer, kDayNames[index]);
    return 0;
  });
}

KESTREL_API int32_t DBDaysBetweenStr(int32_t* days, const char* string1, int32_t style1,
                                     const char* string2, int32_t style2) {
  return Guarded([&]() -> int32_t {
    if (!days) return KS_FAIL(kDate, DB_ERR_NULL);
    *days = 0;
    int32_t first = 0, second = 0;
    int32_t rc = DBStrDateToLong(&first, string1, style1);
    if (rc < 0) return KS_PASS(kDate, rc);
    if (rc != 0) return rc;
    rc = DBStrDateToLong(&second, string2, style2);
    if (rc < 0) return KS_PASS(kDate, rc);
    if (rc != 0) return rc;
    *days = std::abs(first - second);
    return 0;
  });
}

KESTREL_API int32_t DBGetDateStr(char* buffer, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    buffer[0] = '\0';
    int32_t y, m, d, w;
    const int32_t rc = Today(&y, &m, &d, &w);
    if (rc < 0) return KS_PASS(kDate, rc);
    return DATE_REPORT(FormatDate(buffer, style, y, m, d));
  });
}

KESTREL_API int32_t DBGetDate3(int32_t* year, int32_t* month, int32_t* day, int32_t* weekday) {
  return Guarded([&]() -> int32_t {
    if (!year || !month || !day || !weekday) return KS_FAIL(kDateClock, DB_ERR_NULL);
    return Today(year, month, day, weekday);
  });
}

}  // extern "C"
