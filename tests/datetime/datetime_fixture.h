// Shared fixture of the date, time and string tests: the error log on and
// written to a file in the temporary directory, so a test can say which
// failures were logged, and under which module.
#pragma once

#include <algorithm>

#include "support/library.h"

namespace kestrel::test {

class DateTimeTest : public InDirTest {
 protected:
  DateTimeTest() : InDirTest(20) {}
  void SetUp() override {
    InDirTest::SetUp();
    DBErrorLog(1, "dates.log");
  }
  std::string Log() const {
    return access("dates.log", F_OK) == 0 ? ReadFileText(dir_.File("dates.log")) : "";
  }
  // The number of log records written so far.
  size_t LogCount() const {
    const std::string log = Log();
    return static_cast<size_t>(std::count(log.begin(), log.end(), '\n'));
  }
  // The module path of the last record ("..\C_ALL\DATE"), or "".
  std::string LastLoggedModule() const {
    const std::string log = Log();
    if (log.empty()) return "";
    const size_t start = log.rfind('\n', log.size() - 2) + 1;  // npos + 1 is 0
    return log.substr(start, log.find('\t', start) - start);
  }
};

}  // namespace kestrel::test
