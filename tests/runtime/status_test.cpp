// Status codes and their messages, the library error code and the version.
#include <cstring>
#include <string>

#include "runtime_fixture.h"

namespace kestrel::test {
namespace {

struct Expected {
  int32_t code;
  const char* text;
};

// Callers compare these texts, so every one is checked letter for letter.
constexpr Expected kTable[] = {
    {0, "No error or warnings"},
    {201, "WARNING - record read is marked deleted"},
    {202, "WARNING - file is empty"},
    {203, "WARNING - no more keys"},
    {204, "WARNING - could not find key in index file"},
    {205, "WARNING - data field truncated"},
    {206, "WARNING - numeric field rounded"},
    {207, "WARNING - file length is incorrect"},
    {208, "WARNING - file I/O not buffered"},
    {209, "WARNING - partial memory allocation"},
    {210, "WARNING - function not supported"},
    {211, "WARNING - object already exists"},
    {212, "WARNING - field is empty"},
    {-201, "ERROR - file write failure"},
    {-202, "ERROR - file read failure"},
    {-203, "ERROR - memory allocation error"},
    {-204, "ERROR - file pointer reposition failed"},
    {-205, "ERROR - file not found"},
    {-206, "ERROR - file corrupted"},
    {-207, "ERROR - bad user specified key expression"},
    {-208, "ERROR - no handles available"},
    {-209, "ERROR - no index pages loaded"},
    {-210, "ERROR - index page was not loaded"},
    {-211, "ERROR - file close failure"},
    {-212, "ERROR - invalid command"},
    {-213, "ERROR - invalid handle number"},
    {-214, "ERROR - invalid filename"},
    {-215, "ERROR - invalid date"},
    {-216, "ERROR - invalid time"},
    {-217, "ERROR - file not in memo format"},
    {-218, "ERROR - invalid dBaseIII version"},
    {-219, "ERROR - file header length error"},
    {-220, "ERROR - last file change date in error"},
    {-221, "ERROR - parameter address NULL"},
    {-222, "ERROR - invalid key type"},
    {-223, "ERROR - invalid key length"},
    {-224, "ERROR - item length incorrect"},
    {-225, "ERROR - invalid root page"},
    {-226, "ERROR - bad maximum number of keys per page"},
    {-227, "ERROR - invalid number of fields"},
    {-228, "ERROR - field name invalid"},
    {-229, "ERROR - bad field length"},
    {-230, "ERROR - decimal places parameter invalid"},
    {-231, "ERROR - invalid field type"},
    {-232, "ERROR - invalid record length"},
    {-233, "ERROR - bad data"},
    {-234, "ERROR - memo soft line length invalid"},
    {-235, "ERROR - MDX flag in DBF file invalid"},
    {-236, "ERROR - file open for reading only"},
    {-237, "ERROR - file locking violation"},
    {-238, "ERROR - sharing buffer overflow"},
    {-239, "ERROR - path not found"},
    {-240, "ERROR - access to file denied"},
    {-241, "ERROR - invalid access code"},
    {-242, "ERROR - file must be locked first"},
    {-243, "ERROR - diskette changed"},
    {-244, "ERROR - bad minimum number of keys per page"},
    {-245, "ERROR - some files remain open"},
    {-246, "ERROR - could not open the file"},
    {-247, "ERROR - flush to disk failure"},
    {-248, "ERROR - invalid tag handle"},
    {-249, "ERROR - invalid page size in blocks"},
    {-250, "ERROR - invalid tag name"},
    {-251, "ERROR - invalid page offset adder"},
    {-252, "ERROR - invalid maximum number of tag table elements"},
    {-253, "ERROR - bad tag table element length"},
    {-254, "ERROR - invalid tag count"},
    {-255, "ERROR - unknown key format switches"},
    {-256, "ERROR - unknown switch error"},
    {-257, "ERROR - tag in use"},
    {-258, "ERROR - Windows GlobalLock error"},
    {-259, "ERROR - Windows Task lookup Failed"},
    {-260, "ERROR - internal lock buffer overflow"},
    {-261, "ERROR - internal lock buffer underflow"},
};

constexpr char kUnknown[] = "Unknown error or warning code";

using StatusTest = RuntimeTest;

TEST_F(StatusTest, EveryCodeHasItsExactMessage) {
  for (const Expected& e : kTable) {
    EXPECT_EQ(DBSetErrorCode(e.code), e.code);
    EXPECT_EQ(DBGetErrorCode(), e.code);
    EXPECT_STREQ(DBGetErrorStr(), e.text) << "code " << e.code;
  }
}

TEST_F(StatusTest, CodesWithoutTextAreUnknown) {
  // -279 (lock retries exhausted), -280 (seek refused) and the 0xC000 rename
  // codes are real results without a message; the rest are simply not codes.
  for (int32_t code : {-279, -280, 49152, 49152 | 2, 200, 213, -200, -262, -1, 1}) {
    DBSetErrorCode(code);
    EXPECT_STREQ(DBGetErrorStr(), kUnknown) << "code " << code;
  }
}

TEST_F(StatusTest, VersionTextAndNullBuffer) {
  char buffer[32];
  std::memset(buffer, 'x', sizeof buffer);
  DBSetErrorCode(-233);
  EXPECT_EQ(DBGetVersion(buffer), 0);
  EXPECT_STREQ(buffer, "4.00 Revision F");
  EXPECT_EQ(buffer[16], 'x');         // exactly 16 bytes written
  EXPECT_EQ(DBGetErrorCode(), -233);  // success leaves the code alone
  EXPECT_EQ(DBGetVersion(nullptr), -221);
  EXPECT_EQ(DBGetErrorCode(), -221);
}

TEST_F(StatusTest, InitializeAndTerminateResetTheCode) {
  DBSetErrorCode(-206);
  EXPECT_EQ(DBInitialize(20, 0), 0);
  EXPECT_EQ(DBGetErrorCode(), 0);
  DBSetErrorCode(-206);
  EXPECT_EQ(DBTerminate(), 0);
  EXPECT_EQ(DBGetErrorCode(), 0);
  EXPECT_EQ(DBInitialize(20, 0), 0);
}

}  // namespace
}  // namespace kestrel::test
