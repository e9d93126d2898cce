// Hostile and unlucky evaluations: wide, long and deep expressions, memory
// running out at every allocation an evaluation makes, and the inputs kept
// from fuzzing.  Each gives a status, never a crash, and leaves no block
// behind.  (Malformed texts are refused in evaluator_test.cpp.)
#include <algorithm>
#include <filesystem>

#include "expr_fixture.h"

namespace kestrel::test {
namespace {

// Evaluates text and checks the invariants every evaluation keeps: a
// success or a negative code, no result on failure, no leaked block.
Result Checked(int32_t table, const std::string& text) {
  long live = testing::LiveAllocations();
  Result r = ExprTest::EvalOn(table, text);
  EXPECT_TRUE(r.rc == 0 || r.rc < 0) << text << " gave " << r.rc;
  EXPECT_EQ(testing::LiveAllocations(), live) << text;
  return r;
}

TEST_F(ExprTest, WideLongAndDeepTextsStayWithinBounds) {
  EXPECT_EQ(Checked(table_, "STR(AMOUNT,300,2)").Show(),
            "C300:\"" + std::string(293, ' ') + "1234.56\"");
  // Numbers with more digits than a double holds.
  EXPECT_EQ(Checked(table_, std::string(400, '9')).rc, 0);
  EXPECT_EQ(Checked(table_, "0." + std::string(400, '0') + "1").Show(), "N8:0");
  // 220 characters and more of concatenation.
  std::string text = "NAME";
  for (int i = 0; i < 60; ++i) text += "+FIRST";
  EXPECT_EQ(Checked(table_, text).length, 10 + 60 * 8);
  // Values longer than 16-bit lengths allow are refused.
  EXPECT_EQ(Checked(table_, "NAME+" + std::string(40000, 'Q')).rc, DB_ERR_BAD_EXPRESSION);
  std::string many = "LEFT(NAME,1)";
  for (int i = 0; i < 3300; ++i) many += "+NAME";
  EXPECT_EQ(Checked(table_, many).rc, DB_ERR_BAD_EXPRESSION);
  // Nesting: moderate depth works, hostile depth is refused.
  std::string nested = "NAME";
  for (int i = 0; i < 30; ++i) nested = "LEFT(" + nested + ",9)";
  EXPECT_EQ(Checked(table_, nested).Show(), "C9:\"SMITH    \"");
  std::string deep = "NAME";
  for (int i = 0; i < 5000; ++i) deep = "LEFT(" + deep + ",9)";
  EXPECT_EQ(Checked(table_, deep).rc, DB_ERR_BAD_EXPRESSION);
}

TEST_F(ExprTest, EveryAllocationFailureIsReportedAndLeaksNothing) {
  // Long enough that the working values move to the heap and grow.
  std::string text = "NAME";
  for (int i = 0; i < 40; ++i) text += "+STR(AMOUNT,8,2)+DTOC(HIRED,1)+LEFT(FIRST,3)";
  std::string expected = "SMITH     ";
  for (int i = 0; i < 40; ++i) expected += " 1234.5620030715JOH";
  Result r;
  // Growth and the handed-out result at least.
  EXPECT_GE(FailEachAllocation([&] { return (r = EvalOn(table_, text)).rc; }, true), 2);
  EXPECT_EQ(r.bytes, expected);

  // The registry: a failed addition keeps what was there.
  for (long nth = 1; nth <= 3; ++nth) {
    long live = testing::LiveAllocations();
    testing::FailAllocation(nth);
    int32_t rc = DBAddParseEntry("K", [](DBEXPRVALUE*) -> int32_t { return 0; });
    testing::FailAllocation(0);
    if (rc == 0) {
      EXPECT_EQ(DBDeleteParseEntry("K"), 0);
    } else {
      EXPECT_EQ(rc, DB_ERR_MEMORY);
    }
    EXPECT_EQ(testing::LiveAllocations(), live);
  }
}

// Inputs kept from fuzzing and from bugs found along the way; each file of
// tests/expr/regressions holds one expression, replayed with the fuzz
// target's keywords.  They must evaluate or fail cleanly.
TEST_F(ExprTest, RegressionInputsEvaluateOrFailCleanly) {
  const std::string dir = std::string(KESTREL_TEST_FIXTURES) + "/../expr/regressions";
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  ASSERT_GE(files.size(), 13u);
  ASSERT_EQ(DBAddParseEntry("KW", ConstantKeyword), 0);
  ASSERT_EQ(DBAddParseEntry("PAD(", PadKeyword), 0);
  for (const std::string& file : files) {
    const std::vector<uint8_t> bytes = ReadFileBytes(file);
    std::string text(bytes.begin(), bytes.end());
    // The evaluator sees a NUL-terminated text: stop at an embedded NUL.
    text = text.substr(0, text.find('\0'));
    // A leading 0x01 selects the blank record, as in the fuzz target.
    const bool blank = !text.empty() && text[0] == '\x01';
    ASSERT_GE(DBGetRecord(table_, blank ? 2 : 1), 0);
    Checked(table_, blank ? text.substr(1) : text);
  }
}

}  // namespace
}  // namespace kestrel::test
