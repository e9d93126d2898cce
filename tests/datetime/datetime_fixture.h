// Shared fixture of the date, time and string tests: an initialised library
// whose error log is on and written to a file in a temporary directory, so a
// test can say which failures were logged, and under which module.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kestrel/kestrel.h"
#include "runtime/memory.h"
#include "support/temp_dir.h"

namespace kestrel::test {

class DateTimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(getcwd(saved_, sizeof saved_), nullptr);
    // The log name is short (29 characters at most): name it relative to the
    // temporary directory.
    ASSERT_EQ(chdir(dir_.path().c_str()), 0);
    ASSERT_EQ(DBInitialize(20, 0), 0);
    DBErrorLog(1, "dates.log");
  }
  void TearDown() override {
    kestrel::testing::FailAllocation(0);
    DBErrorLog(0, nullptr);
    DBTerminate();
    EXPECT_EQ(chdir(saved_), 0);
  }

  // The log records written so far.
  std::vector<std::string> LogLines() const {
    std::vector<std::string> lines;
    if (access(dir_.File("dates.log").c_str(), F_OK) != 0) return lines;
    const std::string text = ReadFileText(dir_.File("dates.log"));
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
      lines.push_back(text.substr(start, nl - start));
    }
    return lines;
  }
  size_t LogCount() const { return LogLines().size(); }
  // The module path of the last record ("..\C_ALL\DATE"), or "" if none.
  std::string LastLoggedModule() const {
    auto lines = LogLines();
    if (lines.empty()) return "";
    return lines.back().substr(0, lines.back().find('\t'));
  }

  TempDir dir_;
  char saved_[4096];
};

}  // namespace kestrel::test
