// String helpers, soundex and the byte-order helpers of the index engines.
#include <cstring>
#include <string>

#include "datetime_fixture.h"
#include "text/byte_order.h"

namespace kestrel::test {
namespace {

using TextTest = DateTimeTest;

// Owns a buffer returned by DBstrright or DBstrmid.
struct Returned {
  explicit Returned(char* p) : text(p) {}
  ~Returned() { DBFreeMemory(text); }
  char* text;
};

TEST_F(TextTest, LeftCutsInPlace) {
  char text[] = "ABCDEF";
  EXPECT_EQ(DBstrleft(text, 3), text);
  EXPECT_STREQ(text, "ABC");
  EXPECT_STREQ(DBstrleft(text, 5), "ABC");  // longer than the text: whole
  EXPECT_STREQ(DBstrleft(text, 3), "ABC");
  EXPECT_STREQ(DBstrleft(text, 0), "");
  char other[] = "XYZ";
  EXPECT_STREQ(DBstrleft(other, -2), "");
}

TEST_F(TextTest, RightAndMidReturnNewBuffers) {
  const long live = kestrel::testing::LiveAllocations();
  {
    Returned r(DBstrright("ABCDEF", 2));
    ASSERT_NE(r.text, nullptr);
    EXPECT_STREQ(r.text, "EF");
    Returned all(DBstrright("ABCDEF", 10));
    EXPECT_STREQ(all.text, "ABCDEF");
    Returned none(DBstrright("ABCDEF", 0));
    EXPECT_STREQ(none.text, "");
    Returned empty(DBstrright("", 3));
    EXPECT_STREQ(empty.text, "");

    Returned mid(DBstrmid("ABCDEF", 5, 10));
    EXPECT_STREQ(mid.text, "EF");
    Returned inner(DBstrmid("ABCDEF", 2, 3));
    EXPECT_STREQ(inner.text, "BCD");
    Returned first(DBstrmid("ABCDEF", 1, 1));
    EXPECT_STREQ(first.text, "A");
    Returned last(DBstrmid("ABCDEF", 6, 1));
    EXPECT_STREQ(last.text, "F");
    EXPECT_EQ(DBstrmid("ABCDEF", 7, 1), nullptr);  // past the end
    EXPECT_EQ(DBstrmid("", 1, 1), nullptr);
    EXPECT_GT(kestrel::testing::LiveAllocations(), live);
  }
  EXPECT_EQ(kestrel::testing::LiveAllocations(), live);

  // Out of memory: null and -203, nothing left allocated.
  kestrel::testing::FailAllocation(1);
  EXPECT_EQ(DBstrright("ABCDEF", 2), nullptr);
  EXPECT_EQ(DBGetErrorCode(), DB_ERR_MEMORY);
  kestrel::testing::FailAllocation(1);
  EXPECT_EQ(DBstrmid("ABCDEF", 2, 2), nullptr);
  EXPECT_EQ(DBGetErrorCode(), DB_ERR_MEMORY);
  EXPECT_EQ(kestrel::testing::LiveAllocations(), live);
}

TEST_F(TextTest, Trims) {
  char both[] = "  AB\t";
  EXPECT_EQ(DBstrtrim(both), both);
  EXPECT_STREQ(both, "AB");
  char left[] = " \n\tA B ";
  EXPECT_STREQ(DBstrltrim(left), "A B ");
  char right[] = " A B \r\n\v\f";
  EXPECT_STREQ(DBstrrtrim(right), " A B");
  char blank[] = " \t ";
  EXPECT_STREQ(DBstrtrim(blank), "");
  char empty[] = "";
  EXPECT_STREQ(DBstrtrim(empty), "");
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
  for (const auto& c : cases) {
    const char* code = DBSoundex(c.text);
    ASSERT_NE(code, nullptr);
    EXPECT_STREQ(code, c.code) << "'" << c.text << "'";
    EXPECT_EQ(std::strlen(code), 4u);
  }
  // One library-owned result, overwritten by the next call.
  const char* first = DBSoundex("Robert");
  const char* second = DBSoundex("Lee");
  EXPECT_EQ(first, second);
  EXPECT_STREQ(first, "L000");
}

TEST_F(TextTest, ByteOrderHelpers) {
  static_assert(SwapBytes16(0x1234) == 0x3412);
  static_assert(SwapBytes32(0x12345678u) == 0x78563412u);
  EXPECT_EQ(SwapBytes32(SwapBytes32(0xDEADBEEFu)), 0xDEADBEEFu);

  const uint32_t value = 0x01020304u;
  uint8_t out4[4];
  ReverseCopy4(out4, &value);
  uint8_t native[4];
  std::memcpy(native, &value, 4);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(out4[i], native[3 - i]);

  const double one = 1.0;  // IEEE 0x3FF0000000000000
  uint8_t native8[8], out8[8];
  std::memcpy(native8, &one, 8);
  ReverseCopy8(out8, &one);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(out8[i], native8[7 - i]);

  // In place works too.
  uint8_t in_place[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ReverseCopy8(in_place, in_place);
  const uint8_t reversed[8] = {8, 7, 6, 5, 4, 3, 2, 1};
  EXPECT_EQ(std::memcmp(in_place, reversed, 8), 0);
  ReverseCopy4(in_place, in_place);
  const uint8_t again[4] = {5, 6, 7, 8};
  EXPECT_EQ(std::memcmp(in_place, again, 4), 0);
}

}  // namespace
}  // namespace kestrel::test
