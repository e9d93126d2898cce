// Calendar arithmetic: leap years, the month table, day numbers.
#include "datetime/calendar.h"

namespace kestrel {

const char* const kDayNames[7] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                  "Thursday", "Friday", "Saturday"};
const char* const kMonthNames[12] = {"January",   "February", "March",    "April",
                                     "May",       "June",     "July",     "August",
                                     "September", "October",  "November", "December"};

namespace {
// Month lengths shared by every date operation; SetFebruaryFor rewrites the
// February entry for the year in hand before each use.
int32_t month_lengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
}  // namespace

bool SetFebruaryFor(int32_t year) {
  const bool leap = IsLeap(year);
  month_lengths[1] = leap ? 29 : 28;
  return leap;
}

int32_t MonthLength(int32_t month) { return month_lengths[month - 1]; }

bool IsValidDate3(int32_t year, int32_t month, int32_t day) {
  if (year < 0 || year > kMaxYear || month < 1 || month > 12) return false;
  SetFebruaryFor(year);
  return day >= 1 && day <= MonthLength(month);
}

int32_t DayOfYear(int32_t year, int32_t month, int32_t day) {
  SetFebruaryFor(year);
  int32_t total = day;
  for (int32_t m = 1; m < month; ++m) total += MonthLength(m);
  return total;
}

int32_t DayNumber(int32_t year, int32_t month, int32_t day) {
  // Whole years before this one (truncating divisions: year 0 counts back).
  const int32_t y = year - 1;
  return 365 * y + y / 4 - y / 100 + y / 400 + DayOfYear(year, month, day);
}

bool DayOfYearToDate(int32_t year, int32_t day_of_year, int32_t* month, int32_t* day) {
  SetFebruaryFor(year);
  if (day_of_year < 1) return false;
  for (int32_t m = 1; m <= 12; ++m) {
    const int32_t length = MonthLength(m);
    if (day_of_year <= length) {
      *month = m;
      *day = day_of_year;
      return true;
    }
    day_of_year -= length;
  }
  return false;
}

void DayNumberToDate(int32_t long_date, int32_t* year, int32_t* month, int32_t* day) {
  // Peel off whole cycles; what remains is the day of the year, where 0
  // stands for the last day of the year before (a cycle ends on 31 December).
  int32_t rest = long_date;
  const int32_t cycles400 = rest / kDaysPer400Years;
  rest -= cycles400 * kDaysPer400Years;
  int32_t cycles100 = rest / kDaysPer100Years;
  if (cycles100 > 3) cycles100 = 3;
  rest -= cycles100 * kDaysPer100Years;
  int32_t cycles4 = rest / kDaysPer4Years;
  if (cycles4 > 24) cycles4 = 24;
  rest -= cycles4 * kDaysPer4Years;
  int32_t years = rest / kDaysPerYear;
  if (years > 3) years = 3;
  rest -= years * kDaysPerYear;
  int32_t y = 400 * cycles400 + 100 * cycles100 + 4 * cycles4 + years + 1;
  if (rest == 0) {
    *year = y - 1;
    *month = 12;
    *day = 31;
    return;
  }
  *year = y;
  DayOfYearToDate(y, rest, month, day);
}

}  // namespace kestrel
