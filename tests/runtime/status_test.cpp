// Status codes and their messages, the library error code and the version.
#include <cstring>
#include <sstream>
#include <string>

#include "runtime_fixture.h"

namespace kestrel::test {
namespace {

// Callers compare the message texts, so every one is checked letter for
// letter: those of 201, 202, ... and of -201, -202, ..., in order.
constexpr char kWarnings[] =
    "record read is marked deleted|file is empty|no more keys|"
    "could not find key in index file|data field truncated|numeric field rounded|"
    "file length is incorrect|file I/O not buffered|partial memory allocation|"
    "function not supported|object already exists|field is empty";
constexpr char kErrors[] =
    "file write failure|file read failure|memory allocation error|"
    "file pointer reposition failed|file not found|file corrupted|"
    "bad user specified key expression|no handles available|no index pages loaded|"
    "index page was not loaded|file close failure|invalid command|invalid handle number|"
    "invalid filename|invalid date|invalid time|file not in memo format|"
    "invalid dBaseIII version|file header length error|last file change date in error|"
    "parameter address NULL|invalid key type|invalid key length|item length incorrect|"
    "invalid root page|bad maximum number of keys per page|invalid number of fields|"
    "field name invalid|bad field length|decimal places parameter invalid|invalid field type|"
    "invalid record length|bad data|memo soft line length invalid|"
    "MDX flag in DBF file invalid|file open for reading only|file locking violation|"
    "sharing buffer overflow|path not found|access to file denied|invalid access code|"
    "file must be locked first|diskette changed|bad minimum number of keys per page|"
    "some files remain open|could not open the file|flush to disk failure|invalid tag handle|"
    "invalid page size in blocks|invalid tag name|invalid page offset adder|"
    "invalid maximum number of tag table elements|bad tag table element length|"
    "invalid tag count|unknown key format switches|unknown switch error|tag in use|"
    "Windows GlobalLock error|Windows Task lookup Failed|internal lock buffer overflow|"
    "internal lock buffer underflow";

using StatusTest = RuntimeTest;

TEST_F(StatusTest, EveryCodeHasItsExactMessage) {
  auto expect = [](int32_t code, const std::string& text) {
    EXPECT_EQ(DBSetErrorCode(code), code);
    EXPECT_EQ(DBGetErrorCode(), code);
    EXPECT_EQ(DBGetErrorStr(), text) << "code " << code;
  };
  expect(0, "No error or warnings");
  std::string text;
  int32_t code = 201;
  for (std::istringstream in(kWarnings); std::getline(in, text, '|');) {
    expect(code++, "WARNING - " + text);
  }
  EXPECT_EQ(code, 213);
  code = -201;
  for (std::istringstream in(kErrors); std::getline(in, text, '|');) {
    expect(code--, "ERROR - " + text);
  }
  EXPECT_EQ(code, -262);
  // -279 (lock retries exhausted), -280 (seek refused) and the 0xC000 rename
  // codes are real results without a message; the rest are simply not codes.
  for (int32_t other : {-279, -280, 49152, 49152 | 2, 200, 213, -200, -262, -1, 1}) {
    expect(other, "Unknown error or warning code");
  }
}

TEST_F(StatusTest, VersionAndInitializeCodes) {
  char buffer[32];
  std::memset(buffer, 'x', sizeof buffer);
  DBSetErrorCode(-233);
  EXPECT_EQ(DBGetVersion(buffer), 0);
  EXPECT_STREQ(buffer, "4.00 Revision F");
  EXPECT_EQ(buffer[16], 'x');         // exactly 16 bytes written
  EXPECT_EQ(DBGetErrorCode(), -233);  // success leaves the code alone
  // DBInitialize resets the code (DBTerminate's reset is checked from C).
  EXPECT_EQ(DBInitialize(20, 0), 0);
  EXPECT_EQ(DBGetErrorCode(), 0);
}

}  // namespace
}  // namespace kestrel::test
