// Date strings: printing and parsing in every style, the blank date, the
// length rules, two-digit years, the Julian style and the compositions.
#include <chrono>
#include <cstring>
#include <random>
#include <string>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

namespace chr = std::chrono;

using DateStringTest = DateTimeTest;

const int32_t kStyles[] = {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 15, 16, 19};

bool TwoDigitStyle(int32_t style) { return style % 2 == 0 && style != 19; }

bool ModelValid(int32_t y, int32_t m, int32_t d) {
  return chr::year_month_day{chr::year{y}, chr::month{static_cast<unsigned>(m)},
                             chr::day{static_cast<unsigned>(d)}}
      .ok();
}

struct Date {
  int32_t y, m, d;
};

Date Parse(const char* text, int32_t style, int32_t* rc) {
  Date date{-1, -1, -1};
  *rc = DBStrDateTo3(&date.y, &date.m, &date.d, text, style);
  return date;
}

TEST_F(DateStringTest, EveryStyleHasItsPrintedForm) {
  struct {
    int32_t style;
    const char* text;
  } cases[] = {{2, "01/05/03"},  {3, "01/05/2003"},  {4, "03.01.05"},  {5, "2003.01.05"},
               {6, "05.01.03"},  {7, "05.01.2003"},  {8, "05/01/03"},  {9, "05/01/2003"},
               {10, "05/01/03"}, {11, "05/01/2003"}, {12, "05-01-03"}, {13, "05-01-2003"},
               {15, "20030105"}, {16, "050103"},     {19, "2003/005"}};
  for (const auto& c : cases) {
    char text[DB_DATE_STR_SIZE];
    ASSERT_EQ(DBDate3ToStr(text, c.style, 2003, 1, 5), 0) << c.style;
    EXPECT_STREQ(text, c.text) << "style " << c.style;
    int32_t rc;
    Date back = Parse(c.text, c.style, &rc);
    EXPECT_EQ(rc, 0) << c.text;
    EXPECT_EQ(back.y, 2003 - (TwoDigitStyle(c.style) ? 100 : 0)) << c.text;  // 03 is 1903
    EXPECT_EQ(back.m, 1);
    EXPECT_EQ(back.d, 5);
  }
  char text[DB_DATE_STR_SIZE];
  EXPECT_EQ(DBDate3ToStr(text, 19, 2004, 3, 1), 0);
  EXPECT_STREQ(text, "2004/061");
  EXPECT_EQ(DBDate3ToStr(text, 3, 9999, 12, 31), 0);
  EXPECT_STREQ(text, "12/31/9999");
  EXPECT_EQ(DBDate3ToStr(text, 2, 2105, 7, 4), 0);  // the year modulo 100
  EXPECT_STREQ(text, "07/04/05");
}

// Random dates over the whole range through every style and back.  A
// two-digit style brings a date back in the 1900s, or refuses it when that
// day does not exist there (29 February 2000 becomes 1900).
TEST_F(DateStringTest, RandomDatesRoundTripThroughEveryStyle) {
  std::mt19937 random(20031231);
  std::uniform_int_distribution<int32_t> day_numbers(DB_LONG_DATE_MIN, DB_LONG_DATE_MAX);
  for (int i = 0; i < 20000; ++i) {
    Date date;
    ASSERT_EQ(DBLongDateTo3(&date.y, &date.m, &date.d, day_numbers(random)), 0);
    for (int32_t style : kStyles) {
      char text[DB_DATE_STR_SIZE];
      ASSERT_EQ(DBDate3ToStr(text, style, date.y, date.m, date.d), 0);
      int32_t rc;
      const Date back = Parse(text, style, &rc);
      Date want = date;
      if (TwoDigitStyle(style)) want.y = 1900 + date.y % 100;
      if (!ModelValid(want.y, want.m, want.d)) {
        EXPECT_EQ(rc, DB_ERR_INVALID_DATE) << text << " style " << style;
        continue;
      }
      ASSERT_EQ(rc, 0) << text << " style " << style;
      ASSERT_EQ(back.y, want.y) << text << " style " << style;
      ASSERT_EQ(back.m, want.m) << text;
      ASSERT_EQ(back.d, want.d) << text;
    }
  }
}

// Conversion between any two four-digit styles keeps the date.
TEST_F(DateStringTest, ConvertBetweenStylesKeepsTheDate) {
  const int32_t four_digit[] = {3, 5, 7, 9, 11, 13, 15, 19};
  std::mt19937 random(7);
  std::uniform_int_distribution<int32_t> day_numbers(DB_LONG_DATE_MIN, DB_LONG_DATE_MAX);
  for (int i = 0; i < 2000; ++i) {
    const int32_t n = day_numbers(random);
    for (int32_t from : four_digit) {
      for (int32_t to : four_digit) {
        char source[DB_DATE_STR_SIZE], converted[DB_DATE_STR_SIZE];
        ASSERT_EQ(DBLongDateToStr(source, from, n), 0);
        ASSERT_EQ(DBConvertDateStr(converted, to, source, from), 0) << source;
        int32_t back = 0;
        ASSERT_EQ(DBStrDateToLong(&back, converted, to), 0) << converted;
        ASSERT_EQ(back, n) << source << " -> " << converted;
      }
    }
  }
  char out[DB_DATE_STR_SIZE];
  EXPECT_EQ(DBConvertDateStr(out, 15, "12/31/03", 2), 0);
  EXPECT_STREQ(out, "19031231");
}

TEST_F(DateStringTest, BlankDatesAreAWarningAndNotLogged) {
  const size_t logged = LogCount();
  const char* blanks[] = {"", " ", "  ", "        ", "          "};
  for (int32_t style = 1; style <= 20; ++style) {
    for (const char* blank : blanks) {
      DBSetErrorCode(0);
      int32_t rc;
      const Date date = Parse(blank, style, &rc);
      EXPECT_EQ(rc, DB_WARN_FILE_EMPTY) << "'" << blank << "' style " << style;
      EXPECT_EQ(date.y, 0);
      EXPECT_EQ(date.m, 0);
      EXPECT_EQ(date.d, 0);
      EXPECT_EQ(DBGetErrorCode(), DB_WARN_FILE_EMPTY);
    }
  }
  // An empty field with only its separators left is blank too.
  int32_t rc;
  Parse("  /  /  ", 2, &rc);
  EXPECT_EQ(rc, DB_WARN_FILE_EMPTY);
  Parse("  .  .    ", 5, &rc);
  EXPECT_EQ(rc, DB_WARN_FILE_EMPTY);
  Parse("  -  -  ", 12, &rc);
  EXPECT_EQ(rc, DB_WARN_FILE_EMPTY);
  Parse("    /   ", 19, &rc);
  EXPECT_EQ(rc, DB_WARN_FILE_EMPTY);
  Parse("  \\  \\  ", 8, &rc);  // backslashes count as slashes
  EXPECT_EQ(rc, DB_WARN_FILE_EMPTY);
  EXPECT_EQ(LogCount(), logged);

  // Compositions pass the warning on and give an empty result.
  char out[DB_DATE_STR_SIZE] = "x";
  int32_t n = 5;
  EXPECT_EQ(DBConvertDateStr(out, 15, "        ", 2), DB_WARN_FILE_EMPTY);
  EXPECT_STREQ(out, "");
  EXPECT_EQ(DBStrDateToLong(&n, "  /  /  ", 2), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(DBIsValidDateStr("", 3), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(LogCount(), logged);
}

TEST_F(DateStringTest, LengthRulesAndMalformedTexts) {
  struct {
    const char* text;
    int32_t style;
  } refused[] = {
      {"1/1/3", 2},                          // two-digit styles: 6..8 characters
      {"12/31/2003", 2},                     // 10 > 8
      {"1/1/203", 3},                        // four-digit styles: 8..10
      {"12/31/20031", 3},                    // 11 > 10
      {" 12/31/2003", 3},                    // leading blanks count toward the length
      {"2003011", 15},                       // style 15: exactly 8
      {"200301011", 15},  {"01010", 16},     // style 16: exactly 6
      {"0101031", 16},    {"2003/01", 19},   // style 19: exactly 8
      {"12-31-03", 2},                       // wrong separator
      {"12/3103", 2},                        // second separator missing
      {"12.31.03", 3},    {"20030230", 15},  // no such day
      {"20031301", 15},   {"02/29/1900", 3}, {"00/10/2003", 3},
      {"10/00/2003", 3},  {"31/12/-3", 8},  // negative year in a two-digit style
      {"2003/000", 19},                     // day of the year 0
      {"2003/366", 19},                     // 2003 has 365 days
      {"12/ 31/03", 2},                     // blanks count toward the length too
      {"ab/cd/ef", 2},
  };
  for (const auto& c : refused) {
    int32_t rc;
    const Date date = Parse(c.text, c.style, &rc);
    EXPECT_EQ(rc, DB_ERR_INVALID_DATE) << "'" << c.text << "' style " << c.style;
    EXPECT_EQ(date.y, 0) << c.text;
    EXPECT_EQ(date.m, 0) << c.text;
    EXPECT_EQ(date.d, 0) << c.text;
    EXPECT_EQ(DBGetErrorCode(), DB_ERR_INVALID_DATE);
  }
  EXPECT_EQ(LastLoggedModule(), "..\\C_ALL\\DATE");

  struct {
    const char* text;
    int32_t style;
    Date want;
  } accepted[] = {
      {"02/29/2000", 3, {2000, 2, 29}},
      {"1/2/2003", 3, {2003, 1, 2}},      // one-digit parts are read as numbers
      {"12\\31\\03", 2, {1903, 12, 31}},  // backslashes read as slashes
      {"12/ 1/03", 2, {1903, 12, 1}},     // blanks inside are dropped
      {"1/1/2003", 2, {2003, 1, 1}},      // a two-digit style keeps a year >= 100
      {"2004/366", 19, {2004, 12, 31}},
      {"2004/060", 19, {2004, 2, 29}},
      {"0000/001", 19, {0, 1, 1}},
      {"00000101", 15, {0, 1, 1}},
  };
  for (const auto& c : accepted) {
    int32_t rc;
    const Date date = Parse(c.text, c.style, &rc);
    ASSERT_EQ(rc, 0) << c.text;
    EXPECT_EQ(date.y, c.want.y) << c.text;
    EXPECT_EQ(date.m, c.want.m) << c.text;
    EXPECT_EQ(date.d, c.want.d) << c.text;
  }
}

// No century window: a two-digit year is always in the 1900s.
TEST_F(DateStringTest, TwoDigitYearsAreNineteenHundreds) {
  struct {
    const char* text;
    int32_t style;
    int32_t year;
  } cases[] = {{"12/31/99", 2, 1999},  {"12/31/03", 2, 1903}, {"01/01/05", 2, 1905},
               {"00.01.01", 4, 1900},  {"31.12.29", 6, 1929}, {"311230", 16, 1930},
               {"01-01-00", 12, 1900}, {"01/01/50", 10, 1950}};
  for (const auto& c : cases) {
    int32_t rc;
    const Date date = Parse(c.text, c.style, &rc);
    ASSERT_EQ(rc, 0) << c.text;
    EXPECT_EQ(date.y, c.year) << c.text;
  }
  int32_t rc;
  Parse("02/29/00", 2, &rc);  // 1900 is not a leap year
  EXPECT_EQ(rc, DB_ERR_INVALID_DATE);
}

// Arbitrary bytes in every style: the parser answers with one of its four
// statuses, and whatever it accepts is a real date that prints and reads back
// to itself.
TEST_F(DateStringTest, ArbitraryTextsNeverGiveABadDate) {
  DBErrorLog(0, nullptr);  // millions of refusals: keep the log out of the timing
  std::mt19937 random(4711);
  const char alphabet[] = "0123456789/.-\\ +x\t";
  std::uniform_int_distribution<int> lengths(0, 12);
  std::uniform_int_distribution<int> pick(0, sizeof alphabet - 2);
  std::uniform_int_distribution<int> any_byte(1, 255);
  int accepted = 0;
  for (int i = 0; i < 50000; ++i) {
    std::string text(static_cast<size_t>(lengths(random)), ' ');
    for (char& c : text)
      c = i % 4 == 0 ? static_cast<char>(any_byte(random)) : alphabet[pick(random)];
    for (int32_t style = 0; style <= 20; ++style) {
      int32_t rc;
      const Date date = Parse(text.c_str(), style, &rc);
      ASSERT_TRUE(rc == 0 || rc == DB_WARN_FILE_EMPTY || rc == DB_ERR_INVALID_COMMAND ||
                  rc == DB_ERR_INVALID_DATE)
          << rc;
      if (rc != 0) {
        ASSERT_EQ(date.y | date.m | date.d, 0);
        continue;
      }
      ++accepted;
      ASSERT_TRUE(date.y >= 0 && date.y <= 9999 && ModelValid(date.y, date.m, date.d)) << text;
      char printed[DB_DATE_STR_SIZE];
      ASSERT_EQ(DBDate3ToStr(printed, style, date.y, date.m, date.d), 0);
      int32_t again_rc;
      const Date again = Parse(printed, style, &again_rc);
      ASSERT_EQ(again_rc, 0) << printed;
      if (!TwoDigitStyle(style) || date.y < 2000) {
        EXPECT_EQ(again.y, TwoDigitStyle(style) ? 1900 + date.y % 100 : date.y) << text;
        EXPECT_EQ(again.m, date.m) << text;
        EXPECT_EQ(again.d, date.d) << text;
      }
    }
  }
  EXPECT_GT(accepted, 100);  // the alphabet does produce dates
}

TEST_F(DateStringTest, StylesWithoutAFormatAreRefused) {
  char text[DB_DATE_STR_SIZE];
  for (int32_t style : {-1, 0, 1, 14, 17, 18, 20, 1000}) {
    EXPECT_EQ(DBDate3ToStr(text, style, 2003, 1, 1), DB_ERR_INVALID_COMMAND) << style;
    int32_t rc;
    Parse("01/01/2003", style, &rc);
    EXPECT_EQ(rc, DB_ERR_INVALID_COMMAND) << style;
    EXPECT_EQ(DBLongDateToStr(text, style, 731216), DB_ERR_INVALID_COMMAND) << style;
  }
  // The date is checked before the style.
  EXPECT_EQ(DBDate3ToStr(text, 99, 2003, 2, 30), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDate3ToStr(text, 3, 2003, 2, 29), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBDate3ToStr(text, 3, 10000, 1, 1), DB_ERR_INVALID_DATE);
}

TEST_F(DateStringTest, DefaultStyle) {
  int32_t style = 0;
  char name[DB_DATE_NAME_SIZE];
  ASSERT_EQ(DBGetDefaultDateStyle(&style, name), 0);
  EXPECT_EQ(style, 2);  // what DBInitialize chose for flags 0
  EXPECT_STREQ(name, "Gregorian (mm/dd/yy)");

  const size_t logged = LogCount();
  EXPECT_EQ(DBSetDefaultDateStyle(0), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(DBSetDefaultDateStyle(20), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(LogCount(), logged);  // refused without a log record
  ASSERT_EQ(DBGetDefaultDateStyle(&style, name), 0);
  EXPECT_EQ(style, 2);

  ASSERT_EQ(DBSetDefaultDateStyle(19), 0);
  ASSERT_EQ(DBGetDefaultDateStyle(&style, name), 0);
  EXPECT_EQ(style, 19);
  EXPECT_STREQ(name, "Julian (yyyy/ddd)");
  ASSERT_EQ(DBSetDefaultDateStyle(14), 0);  // accepted, but has no name or format
  ASSERT_EQ(DBGetDefaultDateStyle(&style, name), 0);
  EXPECT_EQ(style, 14);
  EXPECT_STREQ(name, "");
  ASSERT_EQ(DBSetDefaultDateStyle(15), 0);
  ASSERT_EQ(DBGetDefaultDateStyle(&style, name), 0);
  EXPECT_STREQ(name, "dBASE (yyyymmdd)");
}

TEST_F(DateStringTest, Compositions) {
  EXPECT_EQ(DBIsValidDateStr("02/29/2000", 3), 0);
  EXPECT_EQ(DBIsValidDateStr("02/29/2001", 3), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBIsStrLeapYear("20000101", 15), 1);
  EXPECT_EQ(DBIsStrLeapYear("19000101", 15), 0);
  EXPECT_EQ(DBIsStrLeapYear("19001301", 15), DB_ERR_INVALID_DATE);

  int32_t days = 0;
  EXPECT_EQ(DBDaysInMonthStr(&days, "2004.02.10", 5), 0);
  EXPECT_EQ(days, 29);
  EXPECT_EQ(DBDaysInMonthStr(&days, "10.04.2003", 7), 0);
  EXPECT_EQ(days, 30);

  char text[DB_DATE_NAME_SIZE];
  EXPECT_EQ(DBStrDateToMonth(text, "2003/032", 19), 0);
  EXPECT_STREQ(text, "February");
  int32_t index = -1;
  EXPECT_EQ(DBStrDateToIntDayWeek(&index, "20030101", 15), 0);
  EXPECT_EQ(index, 3);
  EXPECT_EQ(DBStrDateToDayOfWeek(text, "21/11/2026", 9), 0);
  EXPECT_STREQ(text, "Saturday");
  EXPECT_EQ(DBStrDateToDayOfWeek(text, "32/11/2026", 9), DB_ERR_INVALID_DATE);

  int32_t n = 0;
  EXPECT_EQ(DBStrDateToLong(&n, "01/01/2003", 3), 0);
  EXPECT_EQ(n, 731216);
  EXPECT_EQ(DBLongDateToStr(text, 15, 3652059), 0);
  EXPECT_STREQ(text, "99991231");
  EXPECT_EQ(DBLongDateToStr(text, 15, 0), DB_ERR_INVALID_DATE);

  EXPECT_EQ(DBDaysBetweenStr(&days, "20030101", 15, "12/31/2002", 3), 0);
  EXPECT_EQ(days, 1);
  EXPECT_EQ(DBDaysBetweenStr(&days, "12/31/2002", 3, "20040101", 15), 0);
  EXPECT_EQ(days, 366);
  EXPECT_EQ(DBDaysBetweenStr(&days, "00010101", 15, "99991231", 15), 0);
  EXPECT_EQ(days, 3652058);
  EXPECT_EQ(DBDaysBetweenStr(&days, "20030101", 15, "2003013", 15), DB_ERR_INVALID_DATE);

  // A failure inside a composition is logged where it happens and again for
  // the composition.
  const size_t logged = LogCount();
  EXPECT_EQ(DBConvertDateStr(text, 3, "13/01/03", 2), DB_ERR_INVALID_DATE);
  EXPECT_EQ(LogCount(), logged + 2);
  EXPECT_EQ(DBConvertDateStr(text, 14, "12/01/03", 2), DB_ERR_INVALID_COMMAND);
  EXPECT_STREQ(text, "");
}

TEST_F(DateStringTest, TodayFromTheClock) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    const std::time_t before = std::time(nullptr);
    int32_t y, m, d, w;
    ASSERT_EQ(DBGetDate3(&y, &m, &d, &w), 0);
    char text[DB_DATE_STR_SIZE];
    ASSERT_EQ(DBGetDateStr(text, 15), 0);
    const std::time_t after = std::time(nullptr);
    std::tm tm{};
    localtime_r(&before, &tm);
    std::tm tm_after{};
    localtime_r(&after, &tm_after);
    if (tm.tm_mday != tm_after.tm_mday) continue;  // midnight passed: ask again
    EXPECT_EQ(y, tm.tm_year + 1900);
    EXPECT_EQ(m, tm.tm_mon + 1);
    EXPECT_EQ(d, tm.tm_mday);
    EXPECT_EQ(w, tm.tm_wday);
    char want[16];
    std::strftime(want, sizeof want, "%Y%m%d", &tm);
    EXPECT_STREQ(text, want);
    return;
  }
  FAIL() << "the date kept changing";
}

}  // namespace
}  // namespace kestrel::test
