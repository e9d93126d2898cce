// Status codes and their messages, the library error code and the version.
#include <cstring>
#include <string>

#include "runtime_fixture.h"

namespace kestrel::test {
namespace {

using StatusTest = RuntimeTest;

// The message table itself is data; these check its edges and that a code
// is looked up in the right half (warnings count up from 201, errors down
// from -201).
TEST_F(StatusTest, CodesGiveTheirMessagesAndUnknownCodesSaySo) {
  const std::pair<int32_t, const char*> known[] = {
      {0, "No error or warnings"},
      {201, "WARNING - record read is marked deleted"},
      {212, "WARNING - field is empty"},
      {-201, "ERROR - file write failure"},
      {-221, "ERROR - parameter address NULL"},
      {-261, "ERROR - internal lock buffer underflow"}};
  for (auto [code, text] : known) {
    EXPECT_EQ(DBSetErrorCode(code), code);
    EXPECT_EQ(DBGetErrorCode(), code);
    EXPECT_STREQ(DBGetErrorStr(), text) << code;
  }
  // -279 (lock retries exhausted), -280 (seek refused) and the 0xC000 rename
  // codes are real results without a message; the rest are simply not codes.
  for (int32_t other : {-279, -280, 49152, 200, 213, -200, -262, 1}) {
    DBSetErrorCode(other);
    EXPECT_STREQ(DBGetErrorStr(), "Unknown error or warning code") << other;
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
