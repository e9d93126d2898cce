// String helpers, soundex and the byte-order helpers of the index engines.
#include <cstring>
#include <string>

#include "datetime_fixture.h"

namespace kestrel::test {
namespace {

using TextTest = DateTimeTest;

// The text of a buffer returned by DBstrright or DBstrmid, which is freed;
// "(null)" for none.
std::string Take(char* returned) {
  if (!returned) return "(null)";
  std::string text = returned;
  DBFreeMemory(returned);
  return text;
}

TEST_F(TextTest, LeftRightMidAndTrims) {
  char text[] = "ABCDEF";
  EXPECT_EQ(DBstrleft(text, 3), text);  // cut in place
  EXPECT_STREQ(text, "ABC");
  EXPECT_STREQ(DBstrleft(text, 5), "ABC");  // longer than the text: whole
  EXPECT_STREQ(DBstrleft(text, 0), "");
  char other[] = "XYZ";
  EXPECT_STREQ(DBstrleft(other, -2), "");

  const long live = kestrel::testing::LiveAllocations();
  EXPECT_EQ(Take(DBstrright("ABCDEF", 2)), "EF");
  EXPECT_EQ(Take(DBstrright("ABCDEF", 10)), "ABCDEF");
  EXPECT_EQ(Take(DBstrright("ABCDEF", 0)), "");
  EXPECT_EQ(Take(DBstrright("", 3)), "");
  EXPECT_EQ(Take(DBstrmid("ABCDEF", 5, 10)), "EF");
  EXPECT_EQ(Take(DBstrmid("ABCDEF", 2, 3)), "BCD");
  EXPECT_EQ(Take(DBstrmid("ABCDEF", 0, 1)), "A");  // positions count from 1
  EXPECT_EQ(Take(DBstrmid("ABCDEF", 6, 1)), "F");
  EXPECT_EQ(Take(DBstrmid("ABCDEF", 7, 1)), "(null)");  // past the end
  EXPECT_EQ(Take(DBstrmid("", 1, 1)), "(null)");
  // Out of memory: null and -203, nothing left allocated.
  kestrel::testing::FailAllocation(1);
  EXPECT_EQ(DBstrright("ABCDEF", 2), nullptr);
  EXPECT_EQ(DBGetErrorCode(), DB_ERR_MEMORY);
  kestrel::testing::FailAllocation(1);
  EXPECT_EQ(DBstrmid("ABCDEF", 2, 2), nullptr);
  EXPECT_EQ(DBGetErrorCode(), DB_ERR_MEMORY);
  EXPECT_EQ(kestrel::testing::LiveAllocations(), live);

  char both[] = "  AB\t";
  EXPECT_EQ(DBstrtrim(both), both);
  EXPECT_STREQ(both, "AB");
  char left[] = " \n\tA B ";
  EXPECT_STREQ(DBstrltrim(left), "A B ");
  char right[] = " A B \r\n\v\f";
  EXPECT_STREQ(DBstrrtrim(right), " A B");
  char blank[] = " \t ";
  EXPECT_STREQ(DBstrtrim(blank), "");
}

TEST_F(TextTest, SoundexCodes) {
  struct {
    const char* text;
    const char* code;
  } cases[] = {
      {"Robert", "R163"},   {"Rupert", "R163"},     {"robert", "R163"},
      {"Ashcraft", "A226"},  // H separates the two 2s
      {"Tymczak", "T522"},  {"Lee", "L000"},        {" 1abc", "A120"},
      {"Pfister", "P236"},  // F has the digit of the P before it
      {"Bab", "B100"},      {"B-b", "B000"},        {"Bb", "B000"},  // non-letters do not separate
      {"", "0000"},         {"1", "0000"},          {"  42 ", "0000"},
      {"a", "A000"},        {"Washington", "W252"}, {"O'Hara", "O600"},
  };
  for (const auto& c : cases) EXPECT_STREQ(DBSoundex(c.text), c.code) << "'" << c.text << "'";
  // One library-owned result, overwritten by the next call.
  const char* first = DBSoundex("Robert");
  EXPECT_EQ(DBSoundex("Lee"), first);
  EXPECT_STREQ(first, "L000");
}

}  // namespace
}  // namespace kestrel::test
