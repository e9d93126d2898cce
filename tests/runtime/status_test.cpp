// Status codes and their messages, the library error code and the version.
#include <cstring>

#include "support/library.h"

namespace kestrel::test {
namespace {

// The message table is data: its edges, and that a code is looked up in the
// right half (warnings count up from 201, errors down from -201).  -279,
// -280 and the 0xC000 rename codes are real results without a message.
using StatusTest = LibraryTestOf<20>;

TEST_F(StatusTest, MessagesVersionAndTheErrorCode) {
  const std::pair<int32_t, const char*> known[] = {
      {0, "No error or warnings"},
      {212, "WARNING - field is empty"},
      {-201, "ERROR - file write failure"},
      {-261, "ERROR - internal lock buffer underflow"},
      {-279, "Unknown error or warning code"},
      {49152, "Unknown error or warning code"},
      {213, "Unknown error or warning code"},
      {-262, "Unknown error or warning code"}};
  for (auto [code, text] : known) {
    EXPECT_EQ(DBSetErrorCode(code), code);
    EXPECT_EQ(DBGetErrorCode(), code);
    EXPECT_STREQ(DBGetErrorStr(), text) << code;
  }
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
