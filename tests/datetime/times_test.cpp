// Times of day as text (the clock is checked with the date's).
#include <cstdio>
#include <cstring>
#include <tuple>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

using TimeTest = DateTimeTest;

// Every time of the day prints and parses back in both styles.
TEST_F(TimeTest, EveryTimeOfDayRoundTrips) {
  for (int32_t t = 0; t < 24 * 3600; ++t) {
    const int32_t h = t / 3600, m = t / 60 % 60, s = t % 60;
    char text[DB_TIME_STR_SIZE], want[16];
    ASSERT_EQ(DBTime3ToStr(text, DB_TIME_HHMMSS, h, m, s), 0);
    std::snprintf(want, sizeof want, "%02d:%02d:%02d", h, m, s);
    ASSERT_STREQ(text, want);
    int32_t h2 = -1, m2 = -1, s2 = -1;
    ASSERT_EQ(DBStrTimeTo3(&h2, &m2, &s2, text, DB_TIME_HHMMSS), 0) << text;
    ASSERT_EQ(h2 * 3600 + m2 * 60 + s2, t) << text;
    ASSERT_EQ(DBTime3ToStr(text, DB_TIME_HHMM, h, m, s), 0);
    ASSERT_EQ(std::string(text), std::string(want, 2) + std::string(want + 3, 2));
    ASSERT_EQ(DBStrTimeTo3(&h2, &m2, &s2, text, DB_TIME_HHMM), 0) << text;
    ASSERT_EQ(h2 * 3600 + m2 * 60 + s2, t - s) << text;
  }
}

TEST_F(TimeTest, OnlyExactTwoDigitFieldsAndValidTimesAreAccepted) {
  for (const char* text :
       {"9:05:00", " 9:05:00", "09:5:00 ", "24:00:00", "23:60:00", "23:59:60", "-1:00:00",
        "09-05-00", "09:05:0", "09:05:000", "+9:05:00", "ab:cd:ef", "", "09:05"}) {
    int32_t h = 7, m = 7, s = 7;
    EXPECT_EQ(DBStrTimeTo3(&h, &m, &s, text, DB_TIME_HHMMSS), DB_ERR_INVALID_TIME) << text;
    EXPECT_EQ(h + m + s, 0) << text;
    EXPECT_EQ(DBIsValidTimeStr(text, DB_TIME_HHMMSS), DB_ERR_INVALID_TIME) << text;
  }
  EXPECT_EQ(LastLoggedModule(), "..\\C_ALL\\TIME");
  for (const char* text : {"905", "09:05", "2400", "0960", " 905", "09050"}) {
    EXPECT_EQ(DBIsValidTimeStr(text, DB_TIME_HHMM), DB_ERR_INVALID_TIME) << text;
  }
  int32_t h, m, s;
  char text[DB_TIME_STR_SIZE];
  for (int32_t style : {0, 3, -1}) {
    EXPECT_EQ(DBStrTimeTo3(&h, &m, &s, "12:00:00", style), DB_ERR_INVALID_COMMAND);
    EXPECT_EQ(DBTime3ToStr(text, style, 12, 0, 0), DB_ERR_INVALID_COMMAND);
  }
  // Printing checks the range first, the seconds in the short style too.
  for (auto [style, hh, mm, ss] :
       {std::tuple{1, 24, 0, 0}, {1, 0, 60, 0}, {2, 0, 0, 60}, {1, -1, 0, 0}, {9, -1, 0, 0}}) {
    EXPECT_EQ(DBTime3ToStr(text, style, hh, mm, ss), DB_ERR_INVALID_TIME) << hh << ":" << mm;
  }
}

TEST_F(TimeTest, SecondsBetween) {
  int32_t seconds = -1;
  EXPECT_EQ(DBSecondsBetweenStr(&seconds, "00:00:00", 1, "23:59:59", 1), 0);
  EXPECT_EQ(seconds, 86399);
  EXPECT_EQ(DBSecondsBetweenStr(&seconds, "1230", 2, "12:00:15", 1), 0);
  EXPECT_EQ(seconds, 1785);
  EXPECT_EQ(DBSecondsBetweenStr(&seconds, "1230", 2, "9:00:00", 1), DB_ERR_INVALID_TIME);
  EXPECT_EQ(seconds, 0);
}

}  // namespace
}  // namespace kestrel::test
