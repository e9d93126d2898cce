// The error log: one line "module path<TAB>line<TAB>code<LF>" per logged
// failure, appended while logging is on.
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "runtime/file_services.h"
#include "runtime/handles.h"
#include "runtime_fixture.h"
#include "support/temp_dir.h"

namespace kestrel::test {
namespace {

// The log name holds at most 29 characters, so the tests run inside their
// temporary directory and name the log relative to it.
class ErrorLogTest : public RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
    ASSERT_NE(getcwd(saved_, sizeof saved_), nullptr);
    ASSERT_EQ(chdir(dir_.path().c_str()), 0);
  }
  void TearDown() override {
    RuntimeTest::TearDown();
    EXPECT_EQ(chdir(saved_), 0);
  }
  std::vector<std::string> Lines(const std::string& name) {
    std::string text = ReadFileText(dir_.File(name));
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1) {
      lines.push_back(text.substr(start, nl - start));
    }
    EXPECT_EQ(start, text.size()) << "log does not end with a line feed";
    return lines;
  }

  TempDir dir_;
  char saved_[4096];
};

// "..\C_WIN32\<module>", tab, decimal line, tab, decimal code.
void ExpectRecord(const std::string& line, const char* module, int32_t code) {
  std::regex form(R"(^\.\.\\C_WIN32\\([A-Z0-9]+)\t([0-9]+)\t(-?[0-9]+)$)");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(line, m, form)) << "bad record: " << line;
  EXPECT_EQ(m[1].str(), module);
  EXPECT_GT(std::stoi(m[2].str()), 0);
  EXPECT_EQ(std::stoi(m[3].str()), code);
}

TEST_F(ErrorLogTest, OneRecordPerLoggedFailure) {
  DBSetErrorCode(-233);
  EXPECT_EQ(DBErrorLog(1, "err.log"), -233);  // returns the code, unchanged
  EXPECT_EQ(DBGetErrorCode(), -233);
  EXPECT_EQ(DBGetVersion(nullptr), -221);               // INITW32
  EXPECT_EQ(FileDelete("missing.dbf"), 204);            // FILEW32, a warning
  EXPECT_EQ(FileOpen(nullptr, "x", 0, nullptr), -221);  // INITW32
  int32_t h = -1;
  uint32_t attributes = 0;
  EXPECT_EQ(FileOpen(&h, "missing.dbf", 0, &attributes), -246);
  // Quiet failures leave no record.
  char byte;
  EXPECT_EQ(FileRead(-1, &byte, 1), -202);
  EXPECT_EQ(CheckHandle(3, DB_KIND_TABLE), -213);
  std::vector<std::string> lines = Lines("err.log");
  ASSERT_EQ(lines.size(), 4u);
  ExpectRecord(lines[0], "INITW32", -221);
  ExpectRecord(lines[1], "FILEW32", 204);
  ExpectRecord(lines[2], "INITW32", -221);
  ExpectRecord(lines[3], "INITW32", -246);
  EXPECT_NE(lines[0], lines[2]) << "call sites of one module must differ";
}

TEST_F(ErrorLogTest, PassedOnFailuresLogEachLevel) {
  DBErrorLog(1, "chain.log");
  // FileTruncate seeks first: the seek logs, then the truncate logs again.
  EXPECT_EQ(FileTruncate(-1, 10), -280);
  std::vector<std::string> lines = Lines("chain.log");
  ASSERT_EQ(lines.size(), 2u);
  ExpectRecord(lines[0], "FILEW32", -280);
  ExpectRecord(lines[1], "FILEW32", -280);
  EXPECT_NE(lines[0], lines[1]);
}

TEST_F(ErrorLogTest, SwitchModesAndLifecycle) {
  DBErrorLog(1, "first.log");
  DBGetVersion(nullptr);
  DBSetErrorCode(-206);
  // Any other non-zero mode switches logging on and keeps the name.
  EXPECT_EQ(DBErrorLog(2, "second.log"), -206);
  DBGetVersion(nullptr);
  EXPECT_EQ(DBErrorLog(0, "second.log"), -221);
  DBGetVersion(nullptr);
  EXPECT_EQ(Lines("first.log").size(), 2u);
  EXPECT_FALSE(FileExists("second.log"));

  // The switch survives DBTerminate but not DBInitialize.
  DBErrorLog(2, nullptr);
  DBTerminate();
  DBGetVersion(nullptr);
  EXPECT_EQ(Lines("first.log").size(), 3u);
  ASSERT_EQ(DBInitialize(20, 0), 0);
  DBGetVersion(nullptr);
  EXPECT_EQ(Lines("first.log").size(), 3u);
  // The name survives both.
  DBErrorLog(2, nullptr);
  DBGetVersion(nullptr);
  EXPECT_EQ(Lines("first.log").size(), 4u);
}

TEST_F(ErrorLogTest, NameIsCutAtTwentyNineCharacters) {
  const std::string longer = "abcdefghijklmnopqrstuvwxyz0123456789.log";
  DBErrorLog(1, longer.c_str());
  DBGetVersion(nullptr);
  EXPECT_EQ(Lines(longer.substr(0, 29)).size(), 1u);
  EXPECT_EQ(DBErrorLog(1, nullptr), -221);
}

TEST_F(ErrorLogTest, UnwritableLogIsSkippedSilently) {
  DBErrorLog(1, "no-such-dir/err.log");
  EXPECT_EQ(DBGetVersion(nullptr), -221);
  EXPECT_EQ(DBGetErrorCode(), -221);
}

}  // namespace
}  // namespace kestrel::test
