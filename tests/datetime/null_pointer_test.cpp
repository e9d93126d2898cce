// A null pointer argument of the date, time and string calls answers -221
// (or a null result), logged under the call's module, and touches nothing.
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

TEST_F(NullPointerTest, StatusCallsAnswerMinus221AndLogTheirModule) {
  int32_t a = 0, b = 0, c = 0, d = 0;
  char buf[DB_DATE_NAME_SIZE];
  const char* date = "01/01/2003";
  const char* time = "12:00:00";
  // A representative call or two per module: the guard is one helper.
  const std::vector<std::pair<std::string, std::vector<Call>>> modules = {
      {"..\\C_ALL\\DATE",
       {CALL(DBDaysInMonth(nullptr, 2003, 1)), CALL(DBLongDateTo3(&a, &b, nullptr, 5)),
        CALL(DBStrDateTo3(&a, &b, &c, nullptr, 3)), CALL(DBConvertDateStr(buf, 15, nullptr, 3)),
        CALL(DBDaysBetweenStr(&a, date, 3, nullptr, 3))}},
      {"..\\C_WIN32\\DATEW32", {CALL(DBGetDate3(&a, &b, &c, nullptr))}},
      {"..\\C_WIN32\\TIMEW32", {CALL(DBGetTime3(nullptr, &b, &c, &d))}},
      {"..\\C_ALL\\TIME",
       {CALL(DBStrTimeTo3(&a, &b, &c, nullptr, 1)),
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
  EXPECT_EQ(DBstrmid(nullptr, 1, 2), nullptr);
  EXPECT_EQ(DBstrtrim(nullptr), nullptr);
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
