// Every pointer argument of the date, time and string calls may be null:
// the call answers -221 (or a null result) and never touches memory.
#include <functional>
#include <string>
#include <vector>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

using NullPointerTest = DateTimeTest;

TEST_F(NullPointerTest, EveryStatusCallAnswersMinus221) {
  int32_t a = 0, b = 0, c = 0, d = 0;
  char buf[DB_DATE_NAME_SIZE];
  const char* date = "01/01/2003";
  const char* time = "12:00:00";
  struct Call {
    const char* name;
    std::function<int32_t()> run;
    const char* module;
  };
  const std::vector<Call> calls = {
      {"DBDaysInMonth", [&] { return DBDaysInMonth(nullptr, 2003, 1); }, "DATE"},
      {"DBDate3ToLong", [&] { return DBDate3ToLong(nullptr, 2003, 1, 1); }, "DATE"},
      {"DBLongDateTo3 y", [&] { return DBLongDateTo3(nullptr, &b, &c, 5); }, "DATE"},
      {"DBLongDateTo3 m", [&] { return DBLongDateTo3(&a, nullptr, &c, 5); }, "DATE"},
      {"DBLongDateTo3 d", [&] { return DBLongDateTo3(&a, &b, nullptr, 5); }, "DATE"},
      {"DBLongDateToDayOfWeek", [&] { return DBLongDateToDayOfWeek(nullptr, 5); }, "DATE"},
      {"DBDayOfWeek", [&] { return DBDayOfWeek(nullptr, 1); }, "DATE"},
      {"DBMonthToStr", [&] { return DBMonthToStr(nullptr, 1); }, "DATE"},
      {"DBDate3ToStr", [&] { return DBDate3ToStr(nullptr, 3, 2003, 1, 1); }, "DATE"},
      {"DBStrDateTo3 y", [&] { return DBStrDateTo3(nullptr, &b, &c, date, 3); }, "DATE"},
      {"DBStrDateTo3 m", [&] { return DBStrDateTo3(&a, nullptr, &c, date, 3); }, "DATE"},
      {"DBStrDateTo3 d", [&] { return DBStrDateTo3(&a, &b, nullptr, date, 3); }, "DATE"},
      {"DBStrDateTo3 text", [&] { return DBStrDateTo3(&a, &b, &c, nullptr, 3); }, "DATE"},
      {"DBGetDefaultDateStyle s", [&] { return DBGetDefaultDateStyle(nullptr, buf); }, "DATE"},
      {"DBGetDefaultDateStyle b", [&] { return DBGetDefaultDateStyle(&a, nullptr); }, "DATE"},
      {"DBIsValidDateStr", [&] { return DBIsValidDateStr(nullptr, 3); }, "DATE"},
      {"DBIsStrLeapYear", [&] { return DBIsStrLeapYear(nullptr, 3); }, "DATE"},
      {"DBDaysInMonthStr n", [&] { return DBDaysInMonthStr(nullptr, date, 3); }, "DATE"},
      {"DBDaysInMonthStr t", [&] { return DBDaysInMonthStr(&a, nullptr, 3); }, "DATE"},
      {"DBConvertDateStr b", [&] { return DBConvertDateStr(nullptr, 15, date, 3); }, "DATE"},
      {"DBConvertDateStr t", [&] { return DBConvertDateStr(buf, 15, nullptr, 3); }, "DATE"},
      {"DBStrDateToLong n", [&] { return DBStrDateToLong(nullptr, date, 3); }, "DATE"},
      {"DBStrDateToLong t", [&] { return DBStrDateToLong(&a, nullptr, 3); }, "DATE"},
      {"DBLongDateToStr", [&] { return DBLongDateToStr(nullptr, 3, 5); }, "DATE"},
      {"DBStrDateToMonth b", [&] { return DBStrDateToMonth(nullptr, date, 3); }, "DATE"},
      {"DBStrDateToMonth t", [&] { return DBStrDateToMonth(buf, nullptr, 3); }, "DATE"},
      {"DBStrDateToIntDayWeek i", [&] { return DBStrDateToIntDayWeek(nullptr, date, 3); }, "DATE"},
      {"DBStrDateToIntDayWeek t", [&] { return DBStrDateToIntDayWeek(&a, nullptr, 3); }, "DATE"},
      {"DBStrDateToDayOfWeek b", [&] { return DBStrDateToDayOfWeek(nullptr, date, 3); }, "DATE"},
      {"DBStrDateToDayOfWeek t", [&] { return DBStrDateToDayOfWeek(buf, nullptr, 3); }, "DATE"},
      {"DBDaysBetweenStr n", [&] { return DBDaysBetweenStr(nullptr, date, 3, date, 3); }, "DATE"},
      {"DBDaysBetweenStr 1", [&] { return DBDaysBetweenStr(&a, nullptr, 3, date, 3); }, "DATE"},
      {"DBDaysBetweenStr 2", [&] { return DBDaysBetweenStr(&a, date, 3, nullptr, 3); }, "DATE"},
      {"DBGetDateStr", [&] { return DBGetDateStr(nullptr, 3); }, "DATE"},
      {"DBGetDate3 y", [&] { return DBGetDate3(nullptr, &b, &c, &d); }, "DATEW32"},
      {"DBGetDate3 m", [&] { return DBGetDate3(&a, nullptr, &c, &d); }, "DATEW32"},
      {"DBGetDate3 d", [&] { return DBGetDate3(&a, &b, nullptr, &d); }, "DATEW32"},
      {"DBGetDate3 w", [&] { return DBGetDate3(&a, &b, &c, nullptr); }, "DATEW32"},
      {"DBGetTime3 h", [&] { return DBGetTime3(nullptr, &b, &c, &d); }, "TIMEW32"},
      {"DBGetTime3 m", [&] { return DBGetTime3(&a, nullptr, &c, &d); }, "TIMEW32"},
      {"DBGetTime3 s", [&] { return DBGetTime3(&a, &b, nullptr, &d); }, "TIMEW32"},
      {"DBGetTime3 c", [&] { return DBGetTime3(&a, &b, &c, nullptr); }, "TIMEW32"},
      {"DBTime3ToStr", [&] { return DBTime3ToStr(nullptr, 1, 1, 1, 1); }, "TIME"},
      {"DBStrTimeTo3 h", [&] { return DBStrTimeTo3(nullptr, &b, &c, time, 1); }, "TIME"},
      {"DBStrTimeTo3 m", [&] { return DBStrTimeTo3(&a, nullptr, &c, time, 1); }, "TIME"},
      {"DBStrTimeTo3 s", [&] { return DBStrTimeTo3(&a, &b, nullptr, time, 1); }, "TIME"},
      {"DBStrTimeTo3 t", [&] { return DBStrTimeTo3(&a, &b, &c, nullptr, 1); }, "TIME"},
      {"DBIsValidTimeStr", [&] { return DBIsValidTimeStr(nullptr, 1); }, "TIME"},
      {"DBGetTimeStr", [&] { return DBGetTimeStr(nullptr, 1); }, "TIME"},
      {"DBSecondsBetweenStr n", [&] { return DBSecondsBetweenStr(nullptr, time, 1, time, 1); },
       "TIME"},
      {"DBSecondsBetweenStr 1", [&] { return DBSecondsBetweenStr(&a, nullptr, 1, time, 1); },
       "TIME"},
      {"DBSecondsBetweenStr 2", [&] { return DBSecondsBetweenStr(&a, time, 1, nullptr, 1); },
       "TIME"},
  };
  for (const Call& call : calls) {
    DBSetErrorCode(0);
    const size_t logged = LogCount();
    EXPECT_EQ(call.run(), DB_ERR_NULL) << call.name;
    EXPECT_EQ(DBGetErrorCode(), DB_ERR_NULL) << call.name;
    EXPECT_GT(LogCount(), logged) << call.name << " did not log";
    const std::string module = LastLoggedModule();
    EXPECT_EQ(module.substr(module.rfind('\\') + 1), call.module) << call.name;
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
