// A null pointer argument of the date, time and string calls answers -221
// (or a null result), logged under the call's module; the guard is one
// helper, so one call per module shows it.
#include <functional>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

using NullPointerTest = DateTimeTest;

TEST_F(NullPointerTest, CallsAnswerMinus221AndLogTheirModule) {
  int32_t a = 0, b = 0, c = 0;
  char buf[DB_DATE_NAME_SIZE];
  const std::pair<const char*, std::function<int32_t()>> calls[] = {
      {"..\\C_ALL\\DATE", [&] { return DBConvertDateStr(buf, 15, nullptr, 3); }},
      {"..\\C_WIN32\\DATEW32", [&] { return DBGetDate3(&a, &b, &c, nullptr); }},
      {"..\\C_WIN32\\TIMEW32", [&] { return DBGetTime3(nullptr, &b, &c, &a); }},
      {"..\\C_ALL\\TIME", [&] { return DBSecondsBetweenStr(&a, "12:00:00", 1, nullptr, 1); }}};
  for (const auto& [module, call] : calls) {
    DBSetErrorCode(0);
    EXPECT_EQ(call(), DB_ERR_NULL) << module;
    EXPECT_EQ(DBGetErrorCode(), DB_ERR_NULL) << module;
    EXPECT_EQ(LastLoggedModule(), module);
  }
  EXPECT_EQ(DBstrmid(nullptr, 1, 2), nullptr);
  EXPECT_EQ(DBstrtrim(nullptr), nullptr);
  DBSetErrorCode(0);
  EXPECT_STREQ(DBSoundex(nullptr), "0000");
  EXPECT_EQ(DBGetErrorCode(), DB_ERR_NULL);
  EXPECT_EQ(LastLoggedModule(), "..\\C_ALL\\SOUNDEX");
}

}  // namespace
}  // namespace kestrel::test
