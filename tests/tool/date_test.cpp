// The "kestrel date" command, run as a separate process.  Skipped when the
// tool has not been built in this tree.
#include "datetime/datetime_fixture.h"

namespace kestrel::test {
namespace {

using ToolDateTest = DateTimeTest;

ProcessResult Date(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "date");
  return RunTool(arguments);
}

TEST_F(ToolDateTest, ConvertsListsAndRefuses) {
  KESTREL_REQUIRE_TOOL();
  ProcessResult r = Date({"12/31/03", "--from", "2", "--to", "15"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "19031231\n");
  r = Date({"2004/061", "--from", "19", "--to", "7", "--details"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "01.03.2004  day 731641  Monday\n");

  r = Date({"--styles"});
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_NE(r.out.find(" 2  Gregorian (mm/dd/yy)\n"), std::string::npos);
  EXPECT_NE(r.out.find("19  Julian (yyyy/ddd)\n"), std::string::npos);
  EXPECT_EQ(r.out.find("14  "), std::string::npos);  // no format, not listed
  r = Date({"--today", "--to", "15"});
  EXPECT_EQ(r.exit_code, 0);
  ASSERT_EQ(r.out.size(), 9u);
  EXPECT_EQ(DBIsValidDateStr(r.out.substr(0, 8).c_str(), DB_DATE_DBASE), 0);

  EXPECT_EQ(Date({"02/29/1900", "--from", "3"}).exit_code, 1);
  EXPECT_EQ(Date({"12/31/03", "--from", "2", "--to", "14"}).exit_code, 1);
  EXPECT_EQ(Date({"  /  /  ", "--from", "2"}).exit_code, 1);
}

}  // namespace
}  // namespace kestrel::test
