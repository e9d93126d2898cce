// The "kestrel date" command, run as a separate process.  Skipped when the
// tool has not been built in this tree.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

struct ToolRun {
  std::string out;
  int status;
};

ToolRun RunTool(const std::string& arguments) {
  const std::string command = std::string(KESTREL_TOOL_PATH) + " " + arguments + " 2>/dev/null";
  ToolRun run{"", -1};
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return run;
  char chunk[256];
  size_t n;
  while ((n = fread(chunk, 1, sizeof chunk, pipe)) > 0) run.out.append(chunk, n);
  const int status = pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

class ToolDateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string(KESTREL_TOOL_PATH).empty() || access(KESTREL_TOOL_PATH, X_OK) != 0) {
      GTEST_SKIP() << "kestrel tool not built";
    }
  }
};

TEST_F(ToolDateTest, ConvertsBetweenStyles) {
  ToolRun r = RunTool("date 12/31/03 --from 2 --to 15");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "19031231\n");
  r = RunTool("date 2004/061 --from 19 --to 7 --details");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "01.03.2004  day 731641  Monday\n");
}

TEST_F(ToolDateTest, InvalidDatesFail) {
  EXPECT_EQ(RunTool("date 02/29/1900 --from 3").status, 1);
  EXPECT_EQ(RunTool("date 12/31/03 --from 2 --to 14").status, 1);
  EXPECT_EQ(RunTool("date '  /  /  ' --from 2").status, 1);
}

TEST_F(ToolDateTest, ListsStylesAndToday) {
  ToolRun r = RunTool("date --styles");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find(" 2  Gregorian (mm/dd/yy)\n"), std::string::npos);
  EXPECT_NE(r.out.find("19  Julian (yyyy/ddd)\n"), std::string::npos);
  EXPECT_EQ(r.out.find("14  "), std::string::npos);  // no format, not listed

  r = RunTool("date --today --to 15");
  EXPECT_EQ(r.status, 0);
  ASSERT_EQ(r.out.size(), 9u);
  EXPECT_EQ(DBIsValidDateStr(r.out.substr(0, 8).c_str(), DB_DATE_DBASE), 0);
}

}  // namespace
}  // namespace kestrel::test
