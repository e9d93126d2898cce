// Times of day as text, and the clock.
#include <cstring>
#include <ctime>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

using TimeTest = DateTimeTest;

// Every time of the day prints and parses back in both styles.
TEST_F(TimeTest, EveryTimeOfDayRoundTrips) {
  for (int32_t h = 0; h < 24; ++h) {
    for (int32_t m = 0; m < 60; ++m) {
      for (int32_t s = 0; s < 60; ++s) {
        char text[DB_TIME_STR_SIZE];
        ASSERT_EQ(DBTime3ToStr(text, DB_TIME_HHMMSS, h, m, s), 0);
        char want[16];
        std::snprintf(want, sizeof want, "%02d:%02d:%02d", h, m, s);
        ASSERT_STREQ(text, want);
        int32_t h2 = -1, m2 = -1, s2 = -1;
        ASSERT_EQ(DBStrTimeTo3(&h2, &m2, &s2, text, DB_TIME_HHMMSS), 0) << text;
        ASSERT_EQ(h2 * 3600 + m2 * 60 + s2, h * 3600 + m * 60 + s) << text;
      }
      char text[DB_TIME_STR_SIZE];
      ASSERT_EQ(DBTime3ToStr(text, DB_TIME_HHMM, h, m, 59), 0);
      ASSERT_EQ(std::strlen(text), 4u);
      int32_t h2 = -1, m2 = -1, s2 = -1;
      ASSERT_EQ(DBStrTimeTo3(&h2, &m2, &s2, text, DB_TIME_HHMM), 0) << text;
      ASSERT_EQ(h2, h);
      ASSERT_EQ(m2, m);
      ASSERT_EQ(s2, 0);
    }
  }
}

TEST_F(TimeTest, OnlyExactTwoDigitFieldsAreAccepted) {
  const char* refused_long[] = {"9:05:00",  " 9:05:00", "09:5:00 ", "24:00:00", "23:60:00",
                                "23:59:60", "-1:00:00", "09-05-00", "09:05:0",  "09:05:000",
                                "+9:05:00", "ab:cd:ef", "",         "09:05"};
  for (const char* text : refused_long) {
    int32_t h = 7, m = 7, s = 7;
    EXPECT_EQ(DBStrTimeTo3(&h, &m, &s, text, DB_TIME_HHMMSS), DB_ERR_INVALID_TIME) << text;
    EXPECT_EQ(h + m + s, 0) << text;
    EXPECT_EQ(DBIsValidTimeStr(text, DB_TIME_HHMMSS), DB_ERR_INVALID_TIME) << text;
  }
  EXPECT_EQ(LastLoggedModule(), "..\\C_ALL\\TIME");
  const char* refused_short[] = {"905", "09:05", "2400", "0960", " 905", "09050"};
  for (const char* text : refused_short) {
    EXPECT_EQ(DBIsValidTimeStr(text, DB_TIME_HHMM), DB_ERR_INVALID_TIME) << text;
  }
  int32_t h, m, s;
  EXPECT_EQ(DBStrTimeTo3(&h, &m, &s, "23:59:59", DB_TIME_HHMMSS), 0);
  EXPECT_EQ(h * 10000 + m * 100 + s, 235959);
  for (int32_t style : {0, 3, -1}) {
    EXPECT_EQ(DBStrTimeTo3(&h, &m, &s, "12:00:00", style), DB_ERR_INVALID_COMMAND);
    char text[DB_TIME_STR_SIZE];
    EXPECT_EQ(DBTime3ToStr(text, style, 12, 0, 0), DB_ERR_INVALID_COMMAND);
  }
}

TEST_F(TimeTest, PrintingChecksTheRangeFirst) {
  char text[DB_TIME_STR_SIZE];
  EXPECT_EQ(DBTime3ToStr(text, 1, 24, 0, 0), DB_ERR_INVALID_TIME);
  EXPECT_EQ(DBTime3ToStr(text, 1, 0, 60, 0), DB_ERR_INVALID_TIME);
  EXPECT_EQ(DBTime3ToStr(text, 2, 0, 0, 60),
            DB_ERR_INVALID_TIME);  // seconds checked in style 2 too
  EXPECT_EQ(DBTime3ToStr(text, 1, -1, 0, 0), DB_ERR_INVALID_TIME);
  EXPECT_EQ(DBTime3ToStr(text, 9, -1, 0, 0), DB_ERR_INVALID_TIME);
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

TEST_F(TimeTest, NowFromTheClock) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    const std::time_t before = std::time(nullptr);
    int32_t h, m, s, hundredths = -1;
    ASSERT_EQ(DBGetTime3(&h, &m, &s, &hundredths), 0);
    char text[DB_TIME_STR_SIZE];
    ASSERT_EQ(DBGetTimeStr(text, DB_TIME_HHMMSS), 0);
    const std::time_t after = std::time(nullptr);
    if (after != before) continue;  // a second passed: ask again
    std::tm tm{};
    localtime_r(&before, &tm);
    EXPECT_EQ(h, tm.tm_hour);
    EXPECT_EQ(m, tm.tm_min);
    EXPECT_EQ(s, tm.tm_sec > 59 ? 59 : tm.tm_sec);
    EXPECT_EQ(hundredths, 0);
    char want[16];
    std::strftime(want, sizeof want, "%H:%M:%S", &tm);
    EXPECT_STREQ(text, want);
    return;
  }
  FAIL() << "the clock kept moving";
}

}  // namespace
}  // namespace kestrel::test
