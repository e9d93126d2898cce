// Calendar arithmetic behind the date calls: leap years, the shared
// month-length table, day numbers.
//
// A long date is a day number on the proleptic Gregorian calendar with
// 0001-01-01 as day 1.  Every routine that needs a month length first calls
// SetFebruaryFor(year), which rewrites the February entry of the month table
// kept in the library state; that table is what the rest of the date code
// reads.  None of these routines logs or touches the library error code.
#pragma once

#include <cstdint>

namespace kestrel {

inline constexpr int32_t kFirstLongDate = 1;       // 0001-01-01
inline constexpr int32_t kLastLongDate = 3652059;  // 9999-12-31
inline constexpr int32_t kMaxYear = 9999;

inline constexpr int32_t kDaysPer400Years = 146097;
inline constexpr int32_t kDaysPer100Years = 36524;
inline constexpr int32_t kDaysPer4Years = 1461;
inline constexpr int32_t kDaysPerYear = 365;

// Leap-year rule alone, without touching the month table.
constexpr bool IsLeap(int32_t year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// Sets February in the month table to 29 or 28 for year; true for a leap year.
bool SetFebruaryFor(int32_t year);

// Length of month 1..12 as the month table holds it now.
int32_t MonthLength(int32_t month);

// Year 0..9999, month 1..12, day 1..length of that month (February set for
// year as a side effect).
bool IsValidDate3(int32_t year, int32_t month, int32_t day);

// Day number of a date already checked by IsValidDate3.
int32_t DayNumber(int32_t year, int32_t month, int32_t day);

// Day of the year (1..366) of a date already checked by IsValidDate3.
int32_t DayOfYear(int32_t year, int32_t month, int32_t day);

// Splits a day of the year of year into month and day through the month
// table; false when it lies outside the year (0 included).
bool DayOfYearToDate(int32_t year, int32_t day_of_year, int32_t* month, int32_t* day);

// Inverse of DayNumber for kFirstLongDate..kLastLongDate (not checked here).
void DayNumberToDate(int32_t long_date, int32_t* year, int32_t* month, int32_t* day);

constexpr bool IsValidLongDate(int32_t long_date) {
  return long_date >= kFirstLongDate && long_date <= kLastLongDate;
}

// 0 = Sunday .. 6 = Saturday.
// Year 0 lies before day 1; its weekdays continue the same seven-day cycle.
constexpr int32_t WeekdayOf(int32_t long_date) { return ((long_date % 7) + 7) % 7; }

extern const char* const kDayNames[7];
extern const char* const kMonthNames[12];

}  // namespace kestrel
