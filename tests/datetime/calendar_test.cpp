// Day numbers, leap years, month lengths and day names, checked against the
// standard library's civil calendar as an independent model.
#include <chrono>
#include <cstring>
#include <tuple>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

namespace chr = std::chrono;

using CalendarTest = DateTimeTest;

// Every valid day number (0001-01-01 is day 1) maps to the model's date and
// back, and its weekday is the model's; numbers outside the range are refused.
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
  EXPECT_EQ(DB_LONG_DATE_MAX, 3652059);  // 9999-12-31

  int32_t y = 7, m = 7, d = 7, w = 7;
  for (int32_t n : {0, -1, 3652060, INT32_MAX, INT32_MIN}) {
    EXPECT_EQ(DBLongDateTo3(&y, &m, &d, n), DB_ERR_INVALID_DATE) << n;
    EXPECT_EQ(DBLongDateToDayOfWeek(&w, n), DB_ERR_INVALID_DATE) << n;
  }
  EXPECT_EQ(LastLoggedModule(), "..\\C_ALL\\DATE");
}

TEST_F(CalendarTest, LeapYearsMonthLengthsAndRanges) {
  DBSetErrorCode(0);
  for (int y = -800; y <= 10000; ++y) {
    ASSERT_EQ(DBIsLeapYear(y), chr::year{y}.is_leap() ? 1 : 0) << y;
  }
  EXPECT_EQ(DBGetErrorCode(), 0);  // never touches the error code
  for (int y : {1, 1600, 1900, 2000, 2003, 2024, 9999}) {
    for (unsigned m = 1; m <= 12; ++m) {
      // The month table is shared: February follows the last year asked about.
      DBIsLeapYear(y + 1);
      int32_t days = 0;
      ASSERT_EQ(DBDaysInMonth(&days, y, static_cast<int32_t>(m)), 0);
      const auto last = chr::year_month_day_last{chr::year{y} / chr::month{m} / chr::last};
      EXPECT_EQ(days, static_cast<int32_t>(static_cast<unsigned>(last.day()))) << y << "-" << m;
    }
  }
  int32_t days = 0;
  for (auto [y, m] : {std::pair{0, 1}, {10000, 1}, {2000, 0}, {2000, 13}}) {
    EXPECT_EQ(DBDaysInMonth(&days, y, m), DB_ERR_INVALID_DATE) << y << "-" << m;
  }
  int32_t n = 0;
  struct {
    int32_t y, m, d;
  } bad[] = {{2003, 2, 29}, {2003, 4, 31}, {2003, 1, 0}, {-1, 1, 1}, {10000, 1, 1}, {2003, 13, 1}};
  for (auto [y, m, d] : bad) {
    EXPECT_EQ(DBDate3ToLong(&n, y, m, d), DB_ERR_INVALID_DATE) << y << "-" << m << "-" << d;
  }
  // Year 0 is accepted and counts back from day 1.
  EXPECT_EQ(DBDate3ToLong(&n, 0, 1, 1), 0);
  EXPECT_LT(n, -363);
}

// The names of the first and last day and month; out of range is refused.
TEST_F(CalendarTest, DayAndMonthNames) {
  char name[DB_DATE_NAME_SIZE];
  for (auto [i, day, month] : {std::tuple{-1, "", ""}, {0, "Sunday", ""}, {1, "Monday", "January"},
                               {6, "Saturday", "June"}, {7, "", "July"}, {12, "", "December"},
                               {13, "", ""}}) {
    std::strcpy(name, "");
    EXPECT_EQ(R(DBDayOfWeek(name, i), name), *day ? R(0, day) : "-215 ") << i;
    std::strcpy(name, "");
    EXPECT_EQ(R(DBMonthToStr(name, i), name), *month ? R(0, month) : "-215 ") << i;
  }
}

}  // namespace
}  // namespace kestrel::test
