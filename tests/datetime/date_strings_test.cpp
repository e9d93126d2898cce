// Date strings: printing and parsing in every style, the blank date, the
// length rules, two-digit years, the Julian style and the compositions.
#include <chrono>
#include <cstring>
#include <ctime>
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

// A parsed date as "y-m-d" (the parts as numbers) with the status.
std::string Parse(const char* text, int32_t style, int32_t* rc = nullptr) {
  int32_t y = -1, m = -1, d = -1;
  const int32_t status = DBStrDateTo3(&y, &m, &d, text, style);
  if (rc) *rc = status;
  return std::to_string(y) + "-" + std::to_string(m) + "-" + std::to_string(d);
}

TEST_F(DateStringTest, EveryStyleHasItsPrintedForm) {
  const char* forms[] = {"01/05/03",   "01/05/2003", "03.01.05",   "2003.01.05", "05.01.03",
                         "05.01.2003", "05/01/03",   "05/01/2003", "05/01/03",   "05/01/2003",
                         "05-01-03",   "05-01-2003", "20030105",   "050103",     "2003/005"};
  char text[DB_DATE_STR_SIZE];
  for (size_t i = 0; i < std::size(kStyles); ++i) {
    EXPECT_EQ(R(DBDate3ToStr(text, kStyles[i], 2003, 1, 5), text), R(0, forms[i])) << kStyles[i];
  }
  EXPECT_EQ(R(DBDate3ToStr(text, 19, 2004, 3, 1), text), "0 2004/061");
  EXPECT_EQ(R(DBDate3ToStr(text, 3, 9999, 12, 31), text), "0 12/31/9999");
  EXPECT_EQ(R(DBDate3ToStr(text, 2, 2105, 7, 4), text), "0 07/04/05");  // the year modulo 100
}

// Random dates over the whole range through every style and back.  A
// two-digit style brings a date back in the 1900s, or refuses it when that
// day does not exist there (29 February 2000 becomes 1900).  Converting the
// date from a four-digit style gives the same text as printing it.
TEST_F(DateStringTest, RandomDatesRoundTripThroughEveryStyle) {
  const int32_t four_digit[] = {3, 5, 7, 9, 11, 13, 15, 19};
  std::mt19937 random(20031231);
  std::uniform_int_distribution<int32_t> day_numbers(DB_LONG_DATE_MIN, DB_LONG_DATE_MAX);
  for (int i = 0; i < 20000; ++i) {
    const int32_t n = day_numbers(random), from = four_digit[i % 8];
    int32_t y, m, d, back = 0;
    char source[DB_DATE_STR_SIZE];
    ASSERT_EQ(DBLongDateTo3(&y, &m, &d, n), 0);
    ASSERT_EQ(DBLongDateToStr(source, from, n), 0);
    ASSERT_EQ(R(DBStrDateToLong(&back, source, from), back), R(0, n)) << source;
    for (int32_t style : kStyles) {
      char text[DB_DATE_STR_SIZE], converted[DB_DATE_STR_SIZE];
      ASSERT_EQ(DBDate3ToStr(text, style, y, m, d), 0);
      ASSERT_EQ(R(DBConvertDateStr(converted, style, source, from), converted), R(0, text));
      const int32_t want_y = TwoDigitStyle(style) ? 1900 + y % 100 : y;
      const bool valid = ModelValid(want_y, m, d);
      int32_t rc;
      ASSERT_EQ(Parse(text, style, &rc),
                valid ? std::to_string(want_y) + "-" + std::to_string(m) + "-" + std::to_string(d)
                      : "0-0-0")
          << text << " style " << style;
      ASSERT_EQ(rc, valid ? 0 : DB_ERR_INVALID_DATE) << text;
    }
  }
}

TEST_F(DateStringTest, BlankDatesAreAWarningAndNotLogged) {
  const size_t logged = LogCount();
  // Blanks in every style, and fields with only their separators left
  // (backslashes count as slashes).
  std::vector<std::pair<const char*, int32_t>> blanks = {
      {"  /  /  ", 2}, {"  .  .    ", 5}, {"  -  -  ", 12}, {"    /   ", 19}, {"  \\  \\  ", 8}};
  for (int32_t style = 1; style <= 20; ++style) {
    for (const char* blank : {"", " ", "        ", "          "}) blanks.emplace_back(blank, style);
  }
  for (auto [text, style] : blanks) {
    int32_t rc;
    DBSetErrorCode(0);
    EXPECT_EQ(Parse(text, style, &rc), "0-0-0");
    EXPECT_EQ(rc, DB_WARN_FILE_EMPTY) << "'" << text << "' style " << style;
    EXPECT_EQ(DBGetErrorCode(), DB_WARN_FILE_EMPTY);
  }
  // Compositions pass the warning on and give an empty result.
  char out[DB_DATE_STR_SIZE] = "x";
  int32_t n = 5;
  EXPECT_EQ(R(DBConvertDateStr(out, 15, "        ", 2), out), "202 ");
  EXPECT_EQ(R(DBStrDateToLong(&n, "  /  /  ", 2), n), "202 0");
  EXPECT_EQ(DBIsValidDateStr("", 3), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(LogCount(), logged);
}

TEST_F(DateStringTest, LengthRulesTwoDigitYearsAndMalformedTexts) {
  // Refused: the length rules (two-digit styles 6..8 characters, four-digit
  // ones 8..10, style 15 and 19 exactly 8, style 16 exactly 6, with blanks
  // counted), wrong or missing separators, days that do not exist (1900 is
  // not a leap year, 2003 has 365 days), a negative year.
  const std::pair<const char*, int32_t> refused[] = {
      {"1/1/3", 2},       {"12/31/2003", 2}, {"1/1/203", 3},    {"12/31/20031", 3},
      {" 12/31/2003", 3}, {"12/ 31/03", 2},  {"2003011", 15},   {"200301011", 15},
      {"01010", 16},      {"0101031", 16},   {"2003/01", 19},   {"12-31-03", 2},
      {"12/3103", 2},     {"12.31.03", 3},   {"20030230", 15},  {"20031301", 15},
      {"02/29/1900", 3},  {"00/10/2003", 3}, {"10/00/2003", 3}, {"31/12/-3", 8},
      {"2003/000", 19},   {"2003/366", 19},  {"ab/cd/ef", 2},   {"02/29/00", 2}};
  for (auto [text, style] : refused) {
    int32_t rc;
    EXPECT_EQ(Parse(text, style, &rc), "0-0-0") << "'" << text << "' style " << style;
    EXPECT_EQ(rc, DB_ERR_INVALID_DATE) << text;
    EXPECT_EQ(DBGetErrorCode(), DB_ERR_INVALID_DATE) << text;
  }
  EXPECT_EQ(LastLoggedModule(), "..\\C_ALL\\DATE");
  // Accepted: one-digit parts, backslashes read as slashes, blanks inside
  // dropped, a two-digit style keeps a year >= 100, year 0.  There is no
  // century window: a two-digit year is always in the 1900s.
  struct {
    const char* text;
    int32_t style;
    const char* want;
  } accepted[] = {
      {"02/29/2000", 3, "2000-2-29"}, {"1/2/2003", 3, "2003-1-2"},  {"12\\31\\03", 2, "1903-12-31"},
      {"12/ 1/03", 2, "1903-12-1"},   {"1/1/2003", 2, "2003-1-1"},  {"2004/366", 19, "2004-12-31"},
      {"2004/060", 19, "2004-2-29"},  {"0000/001", 19, "0-1-1"},    {"00000101", 15, "0-1-1"},
      {"12/31/99", 2, "1999-12-31"},  {"01/01/05", 2, "1905-1-1"},  {"00.01.01", 4, "1900-1-1"},
      {"31.12.29", 6, "1929-12-31"},  {"311230", 16, "1930-12-31"}, {"01-01-00", 12, "1900-1-1"},
      {"01/01/50", 10, "1950-1-1"}};
  for (const auto& c : accepted) {
    int32_t rc;
    DBSetErrorCode(0);
    EXPECT_EQ(Parse(c.text, c.style, &rc), c.want) << "'" << c.text << "' style " << c.style;
    EXPECT_EQ(rc, 0) << c.text;
    EXPECT_EQ(DBGetErrorCode(), 0) << c.text;
  }
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
      int32_t y, m, d;
      const int32_t rc = DBStrDateTo3(&y, &m, &d, text.c_str(), style);
      ASSERT_TRUE(rc == 0 || rc == DB_WARN_FILE_EMPTY || rc == DB_ERR_INVALID_COMMAND ||
                  rc == DB_ERR_INVALID_DATE)
          << rc;
      if (rc != 0) {
        ASSERT_EQ(y | m | d, 0);
        continue;
      }
      ++accepted;
      ASSERT_TRUE(y >= 0 && y <= 9999 && ModelValid(y, m, d)) << text;
      char printed[DB_DATE_STR_SIZE];
      ASSERT_EQ(DBDate3ToStr(printed, style, y, m, d), 0);
      int32_t y2, m2, d2;
      ASSERT_EQ(DBStrDateTo3(&y2, &m2, &d2, printed, style), 0) << printed;
      if (!TwoDigitStyle(style) || y < 2000) {
        EXPECT_EQ(y2, TwoDigitStyle(style) ? 1900 + y % 100 : y) << text;
        EXPECT_EQ(m2 * 100 + d2, m * 100 + d) << text;
      }
    }
  }
  EXPECT_GT(accepted, 100);  // the alphabet does produce dates
}

TEST_F(DateStringTest, StylesWithoutAFormatAndTheDefaultStyle) {
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
  EXPECT_EQ(DBDate3ToStr(text, 3, 10000, 1, 1), DB_ERR_INVALID_DATE);

  // The default style: 2 after DBInitialize(..., 0); 1..19 accepted, the
  // refusals not logged; the styles without a format have no name.
  const size_t logged = LogCount();
  EXPECT_EQ(DBSetDefaultDateStyle(0), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(DBSetDefaultDateStyle(20), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(LogCount(), logged);
  int32_t style = 0;
  char name[DB_DATE_NAME_SIZE];
  EXPECT_EQ(R(DBGetDefaultDateStyle(&style, name), style), "0 2");
  EXPECT_STREQ(name, "Gregorian (mm/dd/yy)");
  const std::pair<int32_t, const char*> named[] = {
      {19, "Julian (yyyy/ddd)"}, {14, ""}, {15, "dBASE (yyyymmdd)"}, {1, ""}};
  for (auto [set, want] : named) {
    ASSERT_EQ(DBSetDefaultDateStyle(set), 0);
    EXPECT_EQ(R(DBGetDefaultDateStyle(&style, name), name), R(0, want));
    EXPECT_EQ(style, set);
  }
}

TEST_F(DateStringTest, Compositions) {
  int32_t n = 0;
  char text[DB_DATE_NAME_SIZE];
  EXPECT_EQ(DBIsValidDateStr("02/29/2000", 3), 0);
  EXPECT_EQ(DBIsValidDateStr("02/29/2001", 3), DB_ERR_INVALID_DATE);
  EXPECT_EQ(DBIsStrLeapYear("20000101", 15), 1);
  EXPECT_EQ(DBIsStrLeapYear("19000101", 15), 0);
  EXPECT_EQ(DBIsStrLeapYear("19001301", 15), DB_ERR_INVALID_DATE);
  EXPECT_EQ(R(DBDaysInMonthStr(&n, "2004.02.10", 5), n), "0 29");
  EXPECT_EQ(R(DBDaysInMonthStr(&n, "10.04.2003", 7), n), "0 30");
  EXPECT_EQ(R(DBStrDateToMonth(text, "2003/032", 19), text), "0 February");
  EXPECT_EQ(R(DBStrDateToIntDayWeek(&n, "20030101", 15), n), "0 3");
  EXPECT_EQ(R(DBStrDateToDayOfWeek(text, "21/11/2026", 9), text), "0 Saturday");
  EXPECT_EQ(R(DBStrDateToDayOfWeek(text, "32/11/2026", 9), text), "-215 ");
  EXPECT_EQ(R(DBLongDateToStr(text, 15, 0), text), "-215 ");
  EXPECT_EQ(R(DBDaysBetweenStr(&n, "20030101", 15, "12/31/2002", 3), n), "0 1");
  EXPECT_EQ(R(DBDaysBetweenStr(&n, "12/31/2002", 3, "20040101", 15), n), "0 366");
  EXPECT_EQ(R(DBDaysBetweenStr(&n, "00010101", 15, "99991231", 15), n), "0 3652058");
  EXPECT_EQ(R(DBDaysBetweenStr(&n, "20030101", 15, "2003013", 15), n), "-215 0");
  // A failure inside a composition is logged where it happens and again for
  // the composition.
  const size_t logged = LogCount();
  EXPECT_EQ(DBConvertDateStr(text, 3, "13/01/03", 2), DB_ERR_INVALID_DATE);
  EXPECT_EQ(LogCount(), logged + 2);
  EXPECT_EQ(R(DBConvertDateStr(text, 14, "12/01/03", 2), text), "-212 ");
}

// Today and now from the clock, against the C library's local time; asked
// again when the second changed meanwhile.
TEST_F(DateStringTest, TodayAndNowFromTheClock) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    const std::time_t before = std::time(nullptr);
    int32_t y, m, d, w, h, min, s, hundredths = -1;
    char date[DB_DATE_STR_SIZE], time[DB_TIME_STR_SIZE];
    ASSERT_EQ(DBGetDate3(&y, &m, &d, &w), 0);
    ASSERT_EQ(DBGetDateStr(date, 15), 0);
    ASSERT_EQ(DBGetTime3(&h, &min, &s, &hundredths), 0);
    ASSERT_EQ(DBGetTimeStr(time, DB_TIME_HHMMSS), 0);
    if (std::time(nullptr) != before) continue;
    std::tm tm{};
    localtime_r(&before, &tm);
    EXPECT_EQ(y * 10000 + m * 100 + d,
              (tm.tm_year + 1900) * 10000 + (tm.tm_mon + 1) * 100 + tm.tm_mday);
    EXPECT_EQ(w, tm.tm_wday);
    EXPECT_EQ(h * 10000 + min * 100 + s,
              tm.tm_hour * 10000 + tm.tm_min * 100 + (tm.tm_sec > 59 ? 59 : tm.tm_sec));
    EXPECT_EQ(hundredths, 0);
    char want[32];
    std::strftime(want, sizeof want, "%Y%m%d %H:%M:%S", &tm);
    EXPECT_EQ(std::string(date) + " " + time, want);
    return;
  }
  FAIL() << "the clock kept moving";
}

}  // namespace
}  // namespace kestrel::test
