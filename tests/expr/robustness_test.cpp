// Hostile and unlucky evaluations: malformed texts, absurd arguments, long
// and deep expressions, bytes above 127, and memory running out at every
// allocation an evaluation makes.  Each gives a status, never a crash, and
// leaves no block behind.
#include <dirent.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "expr_fixture.h"

namespace kestrel::test {
namespace {

// Evaluates text and checks the invariants every evaluation keeps: a
// success or a negative code, no result on failure, no leaked block.
Result Checked(ExprTest* test, int32_t table, const std::string& text) {
  (void)test;
  long live = testing::LiveAllocations();
  Result r = ExprTest::EvalOn(table, text);
  EXPECT_TRUE(r.rc == 0 || r.rc < 0) << text << " gave " << r.rc;
  EXPECT_EQ(testing::LiveAllocations(), live) << text;
  return r;
}

TEST_F(ExprTest, MalformedTextsAreBadExpressions) {
  for (const char* text : {")",
                           ",",
                           "NAME)",
                           "NAME,",
                           "NAME+)",
                           "NAME++FIRST",
                           "(NAME)",
                           "LEFT(",
                           "LEFT()",
                           "LEFT(,3)",
                           "RIGHT(NAME,,)",
                           "SUBSTR(NAME,)",
                           "SUBSTR()",
                           "STR()",
                           "STR(,3)",
                           "DTOC()",
                           "DTOC(,1)",
                           "STR(AMOUNT,10,2,3)",
                           "LEFT(NAME,3,4)",
                           "NAME+STR(AMOUNT,10,2",
                           "DTOC(HIRED,12)",
                           "FOO(NAME)",
                           "NAME+FOO(1)",
                           "STR(AMOUNT,60000,2)",
                           "STR(AMOUNT,40000)"}) {
    Result r = Checked(this, table_, text);
    EXPECT_EQ(r.rc, DB_ERR_BAD_EXPRESSION) << text;
  }
}

TEST_F(ExprTest, LenientEndingsAndHugeArgumentsStayWithinBounds) {
  // A function's closing character is stepped over unchecked but never past
  // the end of the text.
  EXPECT_EQ(Checked(this, table_, "DTOC(HIRED,1").bytes, "20030715");
  EXPECT_EQ(Checked(this, table_, "DTOC(HIRED,1]").bytes, "20030715");
  EXPECT_EQ(Checked(this, table_, "LEFT(NAME,3]").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Checked(this, table_, "(").bytes, "(");
  // Arguments beyond 16 bits saturate; widths beyond the largest value are refused.
  EXPECT_EQ(Checked(this, table_, "LEFT(NAME,99999999999)").bytes, "SMITH     ");
  Result wide = Checked(this, table_, "STR(AMOUNT,300,2)");
  ASSERT_EQ(wide.rc, 0);
  EXPECT_EQ(wide.length, 300);
  EXPECT_EQ(wide.bytes, std::string(293, ' ') + "1234.56");
  EXPECT_EQ(Checked(this, table_, "STR(AMOUNT,5,60000)").bytes, "*****");
  EXPECT_EQ(Checked(this, table_, "STR(AMOUNT,20,60000)").bytes, std::string(20, '*'));
  // Numbers with more digits than a double holds.
  EXPECT_EQ(Checked(this, table_, std::string(400, '9')).rc, 0);
  EXPECT_EQ(Checked(this, table_, "0." + std::string(400, '0') + "1").AsDouble(), 0.0);
}

TEST_F(ExprTest, LongDeepAndEightBitTextsAreSafe) {
  // 220 characters and more of concatenation.
  std::string text = "NAME";
  for (int i = 0; i < 60; ++i) text += "+FIRST";
  Result r = Checked(this, table_, text);
  ASSERT_EQ(r.rc, 0);
  EXPECT_EQ(r.length, 10 + 60 * 8);

  // Values longer than 16-bit lengths allow are refused.
  std::string huge = "NAME+" + std::string(40000, 'Q');
  EXPECT_EQ(Checked(this, table_, huge).rc, DB_ERR_BAD_EXPRESSION);
  std::string many = "LEFT(NAME,1)";
  for (int i = 0; i < 3300; ++i) many += "+NAME";
  EXPECT_EQ(Checked(this, table_, many).rc, DB_ERR_BAD_EXPRESSION);

  // Nesting: moderate depth works, hostile depth is refused.
  std::string nested = "NAME";
  for (int i = 0; i < 30; ++i) nested = "LEFT(" + nested + ",9)";
  EXPECT_EQ(Checked(this, table_, nested).bytes, "SMITH    ");
  std::string deep = "NAME";
  for (int i = 0; i < 5000; ++i) deep = "LEFT(" + deep + ",9)";
  EXPECT_EQ(Checked(this, table_, deep).rc, DB_ERR_BAD_EXPRESSION);

  // Bytes above 127 are ordinary literal characters (and not upper-cased).
  Result eight = Checked(this, table_, "NAME+\xC4\xE9\xFF");
  ASSERT_EQ(eight.rc, 0);
  EXPECT_EQ(eight.bytes, "SMITH     \xC4\xE9\xFF");
  EXPECT_EQ(Checked(this, table_, "\x80\x81+NAME").bytes, "\x80\x81SMITH     ");
}

TEST_F(ExprTest, EveryAllocationFailureIsReportedAndLeaksNothing) {
  // Long enough that the working values move to the heap and grow.
  std::string text = "NAME";
  for (int i = 0; i < 40; ++i) text += "+STR(AMOUNT,8,2)+DTOC(HIRED,1)+LEFT(FIRST,3)";
  std::string expected = "SMITH     ";
  for (int i = 0; i < 40; ++i) expected += " 1234.5620030715JOH";
  int failures = 0;
  bool succeeded = false;
  for (long nth = 1; nth < 200 && !succeeded; ++nth) {
    long live = testing::LiveAllocations();
    testing::FailAllocation(nth);
    Result r = EvalOn(table_, text);
    testing::FailAllocation(0);
    EXPECT_EQ(testing::LiveAllocations(), live) << nth;
    if (r.rc == 0) {
      EXPECT_EQ(r.bytes, expected);
      succeeded = true;
    } else {
      EXPECT_EQ(r.rc, DB_ERR_MEMORY) << nth;
      ++failures;
    }
  }
  EXPECT_TRUE(succeeded);
  EXPECT_GE(failures, 2);  // growth and the handed-out result at least

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

// The keywords the fuzz target registers, so that its inputs replay alike.
int32_t FuzzConstant(DBEXPRVALUE* current) {
  if (DBAllocateMemory(&current->value, 3) < 0) return DB_ERR_MEMORY;
  std::memcpy(current->value, "KW", 3);
  current->type = 'C';
  current->length = 2;
  return 0;
}
int32_t FuzzPad(DBEXPRVALUE* current) {
  int32_t rc = DBProcessTable();
  if (rc < 0) return rc;
  uint16_t width = 0;
  rc = DBGetValue(&width);
  if (rc < 0) return rc;
  if (current->type != 'C') return DB_ERR_BAD_EXPRESSION;
  void* buffer = nullptr;
  if (DBAllocateMemory(&buffer, width + 1u) < 0) return DB_ERR_MEMORY;
  std::memset(buffer, '.', width);
  size_t keep = current->length < width ? static_cast<size_t>(current->length) : width;
  std::memcpy(buffer, current->value, keep);
  DBFreeMemory(current->value);
  current->value = buffer;
  current->length = static_cast<int16_t>(width);
  return 0;
}

// Inputs kept from fuzzing and from bugs found along the way; each file of
// tests/expr/regressions holds one expression.  They must evaluate or fail
// cleanly.
TEST_F(ExprTest, RegressionInputsEvaluateOrFailCleanly) {
  std::string dir = std::string(KESTREL_TEST_FIXTURES) + "/../expr/regressions";
  DIR* listing = opendir(dir.c_str());
  ASSERT_NE(listing, nullptr) << dir;
  std::vector<std::string> files;
  while (dirent* entry = readdir(listing)) {
    if (entry->d_name[0] != '.') files.push_back(dir + "/" + entry->d_name);
  }
  closedir(listing);
  std::sort(files.begin(), files.end());
  ASSERT_FALSE(files.empty());
  ASSERT_EQ(DBAddParseEntry("KW", FuzzConstant), 0);
  ASSERT_EQ(DBAddParseEntry("PAD(", FuzzPad), 0);
  for (const std::string& file : files) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    std::string text = content.str();
    // The evaluator sees a NUL-terminated text: stop at an embedded NUL.
    text = text.substr(0, text.find('\0'));
    // A leading 0x01 selects the blank record, as in the fuzz target.
    bool blank = !text.empty() && text[0] == '\x01';
    ASSERT_GE(DBGetRecord(table_, blank ? 2 : 1), 0);
    Checked(this, table_, blank ? text.substr(1) : text);
  }
}

}  // namespace
}  // namespace kestrel::test
