// Every pointer argument of the date, time and string calls may be null:
// the call answers -221 (or a null result) and never touches memory.
#include <functional>
#include <string>
#include <vector>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

using NullPointerTest = DateTimeTest;

struct Call {
  const char* text;
  std::function<int32_t()> run;
};
#define CALL(expression)                    \
  Call {                                    \
#expression, [&] { return expression; } \
  }

TEST_F(NullPointerTest, EveryStatusCallAnswersMinus221AndLogsItsModule) {
  int32_t a = 0, b = 0, c = 0, d = 0;
  char buf[DB_DATE_NAME_SIZE];
  const char* date = "01/01/2003";
  const char* time = "12:00:00";
  const std::vector<std::pair<std::string, std::vector<Call>>> modules = {
      {"..\\C_ALL\\DATE",
       {CALL(DBDaysInMonth(nullptr, 2003, 1)),
        CALL(DBDate3ToLong(nullptr, 2003, 1, 1)),
        CALL(DBLongDateTo3(nullptr, &b, &c, 5)),
        CALL(DBLongDateTo3(&a, nullptr, &c, 5)),
        CALL(DBLongDateTo3(&a, &b, nullptr, 5)),
        CALL(DBLongDateToDayOfWeek(nullptr, 5)),
        CALL(DBDayOfWeek(nullptr, 1)),
        CALL(DBMonthToStr(nullptr, 1)),
        CALL(DBDate3ToStr(nullptr, 3, 2003, 1, 1)),
        CALL(DBStrDateTo3(nullptr, &b, &c, date, 3)),
        CALL(DBStrDateTo3(&a, nullptr, &c, date, 3)),
        CALL(DBStrDateTo3(&a, &b, nullptr, date, 3)),
        CALL(DBStrDateTo3(&a, &b, &c, nullptr, 3)),
        CALL(DBGetDefaultDateStyle(nullptr, buf)),
        CALL(DBGetDefaultDateStyle(&a, nullptr)),
        CALL(DBIsValidDateStr(nullptr, 3)),
        CALL(DBIsStrLeapYear(nullptr, 3)),
        CALL(DBDaysInMonthStr(nullptr, date, 3)),
        CALL(DBDaysInMonthStr(&a, nullptr, 3)),
        CALL(DBConvertDateStr(nullptr, 15, date, 3)),
        CALL(DBConvertDateStr(buf, 15, nullptr, 3)),
        CALL(DBStrDateToLong(nullptr, date, 3)),
        CALL(DBStrDateToLong(&a, nullptr, 3)),
        CALL(DBLongDateToStr(nullptr, 3, 5)),
        CALL(DBStrDateToMonth(nullptr, date, 3)),
        CALL(DBStrDateToMonth(buf, nullptr, 3)),
        CALL(DBStrDateToIntDayWeek(nullptr, date, 3)),
        CALL(DBStrDateToIntDayWeek(&a, nullptr, 3)),
        CALL(DBStrDateToDayOfWeek(nullptr, date, 3)),
        CALL(DBStrDateToDayOfWeek(buf, nullptr, 3)),
        CALL(DBDaysBetweenStr(nullptr, date, 3, date, 3)),
        CALL(DBDaysBetweenStr(&a, nullptr, 3, date, 3)),
        CALL(DBDaysBetweenStr(&a, date, 3, nullptr, 3)),
        CALL(DBGetDateStr(nullptr, 3))}},
      {"..\\C_WIN32\\DATEW32",
       {CALL(DBGetDate3(nullptr, &b, &c, &d)), CALL(DBGetDate3(&a, nullptr, &c, &d)),
        CALL(DBGetDate3(&a, &b, nullptr, &d)), CALL(DBGetDate3(&a, &b, &c, nullptr))}},
      {"..\\C_WIN32\\TIMEW32",
       {CALL(DBGetTime3(nullptr, &b, &c, &d)), CALL(DBGetTime3(&a, nullptr, &c, &d)),
        CALL(DBGetTime3(&a, &b, nullptr, &d)), CALL(DBGetTime3(&a, &b, &c, nullptr))}},
      {"..\\C_ALL\\TIME",
       {CALL(DBTime3ToStr(nullptr, 1, 1, 1, 1)), CALL(DBStrTimeTo3(nullptr, &b, &c, time, 1)),
        CALL(DBStrTimeTo3(&a, nullptr, &c, time, 1)), CALL(DBStrTimeTo3(&a, &b, nullptr, time, 1)),
        CALL(DBStrTimeTo3(&a, &b, &c, nullptr, 1)), CALL(DBIsValidTimeStr(nullptr, 1)),
        CALL(DBGetTimeStr(nullptr, 1)), CALL(DBSecondsBetweenStr(nullptr, time, 1, time, 1)),
        CALL(DBSecondsBetweenStr(&a, nullptr, 1, time, 1)),
        CALL(DBSecondsBetweenStr(&a, time, 1, nullptr, 1))}},
  };
  for (const auto& [module, calls] : modules) {
    for (const Call& call : calls) {
      DBSetErrorCode(0);
      const size_t logged = LogCount();
      EXPECT_EQ(call.run(), DB_ERR_NULL) << call.text;
      EXPECT_EQ(DBGetErrorCode(), DB_ERR_NULL) << call.text;
      EXPECT_GT(LogCount(), logged) << call.text << " did not log";
      EXPECT_EQ(LastLoggedModule(), module) << call.text;
    }
  }
}

TEST_F(NullPointerTest, StringHelpersReturnNull) {
  EXPECT_EQ(DBstrleft(nullptr, 2), nullptr);
  EXPECT_EQ(DBstrright(nullptr, 2), nullptr);
  EXPECT_EQ(DBstrmid(nullptr, 1, 2), nullptr);
  EXPECT_EQ(DBstrtrim(nullptr), nullptr);
  EXPECT_EQ(DBstrltrim(nullptr), nullptr);
  EXPECT_EQ(DBstrrtrim(nullptr), nullptr);
  EXPECT_EQ(DBGetErrorCode(), DB_ERR_NULL);

  DBSetErrorCode(0);
  const char* code = DBSoundex(nullptr);
  ASSERT_NE(code, nullptr);
  EXPECT_STREQ(code, "0000");
  EXPECT_EQ(DBGetErrorCode(), DB_ERR_NULL);
  EXPECT_EQ(LastLoggedModule(), "..\\C_ALL\\SOUNDEX");
}

}  // namespace
}  // namespace kestrel::test
