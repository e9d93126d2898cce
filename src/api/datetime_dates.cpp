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

void CopyText(char* buffer, const char* text) { std::memcpy(buffer, text, std::strlen(text) + 1); }

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
      return Record(DB_ERR_INVALID_COMMAND);
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
    return ReadDateFor(string, style, &y, &m, &d);
  });
}

KESTREL_API int32_t DBIsStrLeapYear(const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    int32_t y, m, d;
    const int32_t rc = ReadDateFor(string, style, &y, &m, &d);
    if (rc != 0) return rc;
    return SetFebruaryFor(y) ? 1 : 0;
  });
}

KESTREL_API int32_t DBDaysInMonthStr(int32_t* days, const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!days) return KS_FAIL(kDate, DB_ERR_NULL);
    *days = 0;
    int32_t y, m, d;
    const int32_t rc = ReadDateFor(string, style, &y, &m, &d);
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
    const int32_t rc = ReadDateFor(string, style, &y, &m, &d);
    if (rc != 0) return rc;
    *longDate = DayNumber(y, m, d);
    return 0;
  });
}

KESTREL_API int32_t DBLongDateToStr(char* buffer, int32_t style, int32_t longDate) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    buffer[0] = '\0';
    return DayNumberToText(buffer, style, longDate);
  });
}

KESTREL_API int32_t DBStrDateToMonth(char* buffer, const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    buffer[0] = '\0';
    int32_t y, m, d;
    const int32_t rc = ReadDateFor(string, style, &y, &m, &d);
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
    const int32_t rc = ReadDateFor(string, style, &y, &m, &d);
    if (rc != 0) return rc;
    *index = WeekdayOf(DayNumber(y, m, d));
    return 0;
  });
}

KESTREL_API int32_t DBStrDateToDayOfWeek(char* buffer, const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    buffer[0] = '\0';
    int32_t y, m, d;
    const int32_t rc = ReadDateFor(string, style, &y, &m, &d);
    if (rc != 0) return rc;
    CopyText(buffer, kDayNames[WeekdayOf(DayNumber(y, m, d))]);
    return 0;
  });
}

KESTREL_API int32_t DBDaysBetweenStr(int32_t* days, const char* string1, int32_t style1,
                                     const char* string2, int32_t style2) {
  return Guarded([&]() -> int32_t {
    if (!days) return KS_FAIL(kDate, DB_ERR_NULL);
    *days = 0;
    int32_t y1, m1, d1, y2, m2, d2;
    int32_t rc = ReadDateFor(string1, style1, &y1, &m1, &d1);
    if (rc != 0) return rc;
    rc = ReadDateFor(string2, style2, &y2, &m2, &d2);
    if (rc != 0) return rc;
    *days = std::abs(DayNumber(y1, m1, d1) - DayNumber(y2, m2, d2));
    return 0;
  });
}

KESTREL_API int32_t DBGetDateStr(char* buffer, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kDate, DB_ERR_NULL);
    buffer[0] = '\0';
    return TodayToText(buffer, style);
  });
}

KESTREL_API int32_t DBGetDate3(int32_t* year, int32_t* month, int32_t* day, int32_t* weekday) {
  return Guarded([&]() -> int32_t {
    if (!year || !month || !day || !weekday) return KS_FAIL(kDateClock, DB_ERR_NULL);
    return Today(year, month, day, weekday);
  });
}

}  // extern "C"
