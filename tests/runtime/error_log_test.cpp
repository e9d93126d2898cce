// The error log: one line "module path<TAB>line<TAB>code<LF>" per logged
// failure, appended while logging is on.
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "runtime/file_services.h"
#include "runtime/handles.h"
#include "runtime/library_state.h"
#include "support/library.h"

namespace kestrel::test {
namespace {

class ErrorLogTest : public InDirTest {
 protected:
  ErrorLogTest() : InDirTest(20) {}
  // The records of a log as "MODULE code", each checked to have the form
  // "..\C_WIN32\<module>", tab, a positive line number, tab, the code.
  std::vector<std::string> Records(const std::string& name, std::vector<int>* lines = nullptr) {
    const std::string text = FileExists(name.c_str()) ? ReadFileText(dir_.File(name)) : "";
    const std::regex form(R"(\.\.\\C_WIN32\\([A-Z0-9]+)\t([1-9][0-9]*)\t(-?[0-9]+)\n)");
    std::vector<std::string> records;
    long used = 0;
    for (std::sregex_iterator m(text.begin(), text.end(), form), end; m != end; ++m) {
      EXPECT_EQ(m->position(), used) << "bad record in " << text;
      used = m->position() + m->length();
      records.push_back((*m)[1].str() + " " + (*m)[3].str());
      if (lines) lines->push_back(std::stoi((*m)[2].str()));
    }
    EXPECT_EQ(used, static_cast<long>(text.size())) << "bad or unterminated record in " << text;
    return records;
  }
};

TEST_F(ErrorLogTest, OneRecordPerLoggedFailureAndPerLevelPassedOn) {
  DBSetErrorCode(-233);
  EXPECT_EQ(DBErrorLog(1, "err.log"), -233);  // returns the code, unchanged
  EXPECT_EQ(DBGetErrorCode(), -233);
  EXPECT_EQ(DBGetVersion(nullptr), -221);
  EXPECT_EQ(FileDelete("missing.dbf"), 204);  // a warning is logged too
  EXPECT_EQ(FileOpen(nullptr, "x", 0, nullptr), -221);
  int32_t h = -1;
  uint32_t attributes = 0;
  EXPECT_EQ(FileOpen(&h, "missing.dbf", 0, &attributes), -246);
  // Quiet failures leave no record.
  char byte;
  EXPECT_EQ(FileRead(-1, &byte, 1), -202);
  EXPECT_EQ(CheckHandle(3, DB_KIND_TABLE), -213);
  // FileTruncate seeks first: the seek logs, then the truncate logs again.
  EXPECT_EQ(FileTruncate(-1, 10), -280);
  std::vector<int> lines;
  EXPECT_EQ(Records("err.log", &lines),
            (std::vector<std::string>{"INITW32 -221", "FILEW32 204", "INITW32 -221", "INITW32 -246",
                                      "FILEW32 -280", "FILEW32 -280"}));
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_NE(lines[0], lines[2]) << "call sites of one module must differ";
  EXPECT_NE(lines[4], lines[5]);
}

TEST_F(ErrorLogTest, SwitchModesNameAndLifecycle) {
  DBErrorLog(1, "first.log");
  DBGetVersion(nullptr);
  DBSetErrorCode(-206);
  // Any other non-zero mode switches logging on and keeps the name.
  EXPECT_EQ(DBErrorLog(2, "second.log"), -206);
  DBGetVersion(nullptr);
  EXPECT_EQ(DBErrorLog(0, "second.log"), -221);
  DBGetVersion(nullptr);
  EXPECT_EQ(Records("first.log").size(), 2u);
  EXPECT_FALSE(FileExists("second.log"));
  // The switch survives DBTerminate but not DBInitialize; the name both.
  DBErrorLog(2, nullptr);
  DBTerminate();
  DBGetVersion(nullptr);
  EXPECT_EQ(Records("first.log").size(), 3u);
  ASSERT_EQ(DBInitialize(20, 0), 0);
  DBGetVersion(nullptr);
  EXPECT_EQ(Records("first.log").size(), 3u);
  DBErrorLog(2, nullptr);
  DBGetVersion(nullptr);
  EXPECT_EQ(Records("first.log").size(), 4u);

  // Names are cut at 29 characters; mode 1 needs one.
  const std::string longer = "abcdefghijklmnopqrstuvwxyz0123456789.log";
  DBErrorLog(1, longer.c_str());
  DBGetVersion(nullptr);
  EXPECT_EQ(Records(longer.substr(0, 29)).size(), 1u);
  EXPECT_EQ(DBErrorLog(1, nullptr), -221);
  // A log that cannot be written is skipped silently.
  DBErrorLog(1, "no-such-dir/err.log");
  EXPECT_EQ(DBGetVersion(nullptr), -221);
  EXPECT_EQ(DBGetErrorCode(), -221);
}

}  // namespace
}  // namespace kestrel::test
