// Day numbers, leap years, month lengths and day names, checked against the
// standard library's civil calendar as an independent model.
#include <chrono>
#include <cstring>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

namespace chr = std::chrono;

using CalendarTest = DateTimeTest;

// Day number of a date by the standard library: 0001-01-01 is day 1.
int32_t ModelDayNumber(int y, unsigned m, unsigned d) {
  const chr::sys_days origin{chr::year{1} / 1 / 1};
  const chr::sys_days date{chr::year{y} / m / d};
  return static_cast<int32_t>((date - origin).count() + 1);
}

TEST_F(CalendarTest, KnownDayNumbers) {
  int32_t n = 0;
  EXPECT_EQ(DBDate3ToLong(&n, 1, 1, 1), 0);
  EXPECT_EQ(n, 1);
  EXPECT_EQ(DBDate3ToLong(&n, 2003, 1, 1), 0);
  EXPECT_EQ(n, 731216);
  EXPECT_EQ(DBDate3ToLong(&n, 9999, 12, 31), 0);
  EXPECT_EQ(n, 3652059);
  EXPECT_EQ(DBDate3ToLong(&n, 2000, 2, 29), 0);
  EXPECT_EQ(n, ModelDayNumber(2000, 2, 29));

  int32_t w = -1;
  EXPECT_EQ(DBLongDateToDayOfWeek(&w, 731216), 0);
  EXPECT_EQ(w, 3);  // 2003-01-01 was a Wednesday
  char name[DB_DATE_NAME_SIZE];
  EXPECT_EQ(DBDayOfWeek(name, w), 0);
  EXPECT_STREQ(name, "Wednesday");
}

// Every valid day number maps to the model's date and back, and its weekday
// is the model's.
TEST_F(CalendarTest, EveryDayNumberInvertsAndMatchesTheModel) {
  const chr::sys_days origin{chr::year{1} / 1 / 1};
  int failures = 0;
  for (int32_t n = DB_LONG_DATE_MIN; n <= DB_LONG_DATE_MAX && failures < 10; ++n) {
    const chr::year_month_day ymd{origin + chr::days{n - 1}};
    int32_t y = 0, m = 0, d = 0, back = 0, w = -1;
    ASSERT_EQ(DBLongDateTo3(&y, &m, &d, n), 0) << n;
    const bool same = y == static_cast<int>(ymd.year()) &&
                      m == static_cast<int>(static_cast<unsigned>(ymd.month())) &&
                      d == static_cast<int>(static_cast<unsigned>(ymd.day()));
    ASSERT_EQ(DBDate3ToLong(&back, y, m, d), 0);
    ASSERT_EQ(DBLongDateToDayOfWeek(&w, n), 0);
    const bool weekday_ok =
        w == static_cast<int32_t>(chr::weekday{origin + chr::days{n - 1}}.c_encoding());
    if (!same || back != n || !weekday_ok) {
      ++failures;
      ADD_FAILURE() << "day " << n << " gave " << y << "-" << m << "-" << d << " back " << back
                    << " weekday " << w;
    }
  }
  EXPECT_EQ(failures, 0);
}

TEST_F(CalendarTest, DayNumbersOutsideTheRangeAreRefused) {
  int32_t y = 7, m = 7, d = 7, w = 7;
  for (int32_t n : {0, -1, 3652060, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(DBLongDateTo3(&y, &m, &d, n), DB_ERR_INVALID_DATE) << n;
    EXPECT_EQ(DBLongDateToDayOfWeek(&w, n), DB_ERR_INVALID_DATE) << n;
  }
  EXPECT_EQ(LastLoggedModule(), "..\\C_ALL\\DATE");
}

TEST_F(CalendarTest, LeapYearsFollowTheGregorianRuleAndSetFebruary) {
  for (int y = -800; y <= 10000; ++y) {
    const int expected = chr::year{y}.is_leap() ? 1 : 0;
    ASSERT_EQ(DBIsLeapYear(y), expected) << y;
  }
  // February of the shared month table follows the last year asked about.
  int32_t days = 0;
  DBSetErrorCode(0);
  EXPECT_EQ(DBDaysInMonth(&days, 1900, 2), 0);
  EXPECT_EQ(days, 28);
  EXPECT_EQ(DBDaysInMonth(&days, 2000, 2), 0);
  EXPECT_EQ(days, 29);
  EXPECT_EQ(DBDaysInMonth(&days, 2004, 2), 0);
  EXPECT_EQ(days, 29);
  EXPECT_EQ(DBIsLeapYear(2001), 0);
  EXPECT_EQ(DBGetErrorCode(), 0);  // never touches the error code
}

TEST_F(CalendarTest, MonthLengthsAndRanges) {
  for (int y : {1, 1600, 1900, 2003, 2024, 9999}) {
    for (unsigned m = 1; m <= 12; ++m) {
      int32_t days = 0;
      ASSERT_EQ(DBDaysInMonth(&days, y, static_cast<int32_t>(m)), 0);
      const auto last = chr::year_month_day_last{chr::year{y} / chr::month{m} / chr::last};
      EXPECT_EQ(days, static_cast<int32_t>(static_cast<unsigned>(last.day()))) << y << "-" << m;
    }
  }
  int32_t days = 0;
  EXPECT_EQ(DBDaysInMonth(&days, 0, 1), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDaysInMonth(&days, 10000, 1), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDaysInMonth(&days, 2000, 0), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDaysInMonth(&days, 2000, 13), DB_ERR_INVALID_DATE);

  int32_t n = 0;
  EXPECT_EQ(DBDate3ToLong(&n, 2003, 2, 29), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDate3ToLong(&n, 2003, 4, 31), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDate3ToLong(&n, 2003, 1, 0), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDate3ToLong(&n, -1, 1, 1), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDate3ToLong(&n, 10000, 1, 1), DB_ERR_INVALID_DATE);
  // Year 0 is accepted and counts back from day 1.
  EXPECT_EQ(DBDate3ToLong(&n, 0, 1, 1), 0);
  EXPECT_EQ(n, -364);
}

TEST_F(CalendarTest, DayAndMonthNames) {
  const char* days[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                        "Thursday", "Friday", "Saturday"};
  const char* months[] = {"January", "February", "March",     "April",   "May",      "June",
                          "July",    "August",   "September", "October", "November", "December"};
  char name[DB_DATE_NAME_SIZE];
  for (int i = 0; i < 7; ++i) {
    ASSERT_EQ(DBDayOfWeek(name, i), 0);
    EXPECT_STREQ(name, days[i]);
  }
  for (int i = 1; i <= 12; ++i) {
    ASSERT_EQ(DBMonthToStr(name, i), 0);
    EXPECT_STREQ(name, months[i - 1]);
  }
  EXPECT_EQ(DBDayOfWeek(name, -1), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDayOfWeek(name, 7), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBMonthToStr(name, 0), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBMonthToStr(name, 13), DB_ERR_INVALID_DATE);
}

}  // namespace
}  // namespace kestrel::test
