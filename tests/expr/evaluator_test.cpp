// The evaluator's behaviour as users and the index engines rely on it: types
// and lengths of results, the deliberate asymmetries of "+" and "-", the
// functions, and what happens to the caller's text.
#include <cmath>
#include <cstdio>
#include <random>

#include "expr/evaluate.h"
#include "expr_fixture.h"

namespace kestrel::test {
namespace {

// Expressions on record 1 and what they give (see Result::Show).
//  - Character fields concatenate with "+" and drop with "-"; a leading sign
//    has no effect on the first operand.  Numeric fields stand alone but do
//    not add; raw numeric fields add and subtract in their own width.  Other
//    types keep their sizes and are dropped after the first operand.
//  - Literals are numbers or texts: an unknown name is a literal; quotes and
//    bytes above 127 are ordinary characters (and not upper-cased).  A
//    literal before a delimiter is at most 10 characters.
//  - STR: width 10 and no decimals by default, asterisks when too wide.
//    DTOC: the default style, or yyyymmdd with ",1".  LEFT, RIGHT and SUBSTR
//    cut texts within their bounds.  Arguments beyond 16 bits saturate; a
//    function's closing character is stepped over unchecked.
TEST_F(ExprTest, ExpressionsGiveTheirTypesLengthsAndValues) {
  // clang-format off
  const std::pair<const char*, const char*> cases[] = {
      {"NAME+FIRST", "C18:\"SMITH     JOHN    \""}, {"NAME-FIRST", "C10:\"SMITH     \""},
      {"-NAME", "C10:\"SMITH     \""}, {"+NAME-FIRST+FIRST", "C18:\"SMITH     JOHN    \""},
      {"PRICE", "N8:12.5"}, {"Q1+Q2", "3/4:12"}, {"Q1-Q2", "3/4:2"}, {"Q2-Q1", "3/4:4294967294"},
      {"S1+S2+S2", "5/2:390"}, {"F1-F2", "2/4:1.250000"}, {"I1+I1", "4/4:-80"}, {"ACTIVE", "L1:1"},
      {"NOTES", "M4:"}, {"RAW12", "12/11:"},
      {"NAME+ACTIVE+HIRED+NOTES+FIRST", "C18:\"SMITH     JOHN    \""},
      {"NAME-HIRED", "C10:\"SMITH     \""}, {"", "N8:0"}, {"12.5", "N8:12.5"},
      {"12A", "C3:\"12A\""}, {"NAME+X", "C11:\"SMITH     X\""},
      {"'AB'+NAME", "C14:\"'AB'SMITH     \""},
      {"NAME+\xC4\xE9\xFF", "C13:\"SMITH     \xC4\xE9\xFF\""},
      {"\x80\x81+NAME", "C12:\"\x80\x81SMITH     \""}, {"(", "C1:\"(\""},
      {"NAME+ABCDEFGHIJKLMNOP", "C26:\"SMITH     ABCDEFGHIJKLMNOP\""},
      {"ABCDEFGHIJ+NAME", "C20:\"ABCDEFGHIJSMITH     \""}, {"STR(AMOUNT)", "C10:\"      1235\""},
      {"STR(AMOUNT,8,2)", "C8:\" 1234.56\""}, {"STR(AMOUNT,12)", "C12:\"        1235\""},
      {"NAME+STR(PRICE,6,1)+FIRST", "C24:\"SMITH       12.5JOHN    \""},
      {"STR(12.5,5,2)", "C5:\"12.50\""}, {"STR(AMOUNT,3)", "C3:\"***\""},
      {"STR(AMOUNT,6,2)", "C6:\"******\""}, {"STR(AMOUNT,7,2)", "C7:\"1234.56\""},
      {"STR(AMOUNT,0)", "C0:\"\""}, {"STR(AMOUNT,5,60000)", "C5:\"*****\""},
      {"STR(AMOUNT,20,60000)", "C20:\"********************\""}, {"HIRED", "D10:\"07/15/2003\""},
      {"DTOC(HIRED)", "C10:\"07/15/2003\""}, {"DTOC(HIRED,1)", "C8:\"20030715\""},
      {"DTOC(-HIRED,1)", "C8:\"20030715\""}, {"DTOC(HIRED,1", "C8:\"20030715\""},
      {"DTOC(HIRED,1]", "C8:\"20030715\""}, {"LEFT(NAME,3)", "C3:\"SMI\""},
      {"RIGHT(NAME,7)", "C7:\"TH     \""}, {"LEFT(NAME,0)", "C0:\"\""},
      {"LEFT(NAME,200)", "C10:\"SMITH     \""}, {"RIGHT(NAME,200)", "C10:\"SMITH     \""},
      {"LEFT(NAME,99999999999)", "C10:\"SMITH     \""}, {"SUBSTR(NAME,2,3)", "C3:\"MIT\""},
      {"SUBSTR(NAME,4)", "C7:\"TH     \""}, {"SUBSTR(NAME,0,2)", "C2:\"SM\""},
      {"SUBSTR(NAME,11)", "C0:\"\""}, {"SUBSTR(NAME,60000,60000)", "C0:\"\""},
      {"LEFT(NAME+FIRST,12)", "C12:\"SMITH     JO\""},
      {"LEFT(NAME,2)+RIGHT(FIRST,6)", "C8:\"SMHN    \""},
      {"SUBSTR(LEFT(DTOC(HIRED,1),6),3,2)", "C2:\"03\""},
      // An alias of this table before "->" names the field; the arrow's "-"
      // is never the minus operator.
      {"FIELD->NAME", "C10:\"SMITH     \""}, {"_field -> first", "C8:\"JOHN    \""},
      {"Staff->Name+FIELD->FIRST", "C18:\"SMITH     JOHN    \""},
      {"STR(STAFF->PRICE,6,1)+FIELD->FIRST", "C14:\"  12.5JOHN    \""},
      {"DTOC(FIELD->HIRED,1)", "C8:\"20030715\""}, {"NAME-FIELD->FIRST", "C10:\"SMITH     \""},
      {"Q1+FIELD->Q2", "3/4:12"}};
  // clang-format on
  for (const auto& [expression, want] : cases) {
    DBSetErrorCode(0);
    EXPECT_EQ(Show(expression), want) << expression;
    EXPECT_EQ(DBGetErrorCode(), 0) << expression;
  }
}

// Malformed texts, types that do not mix, absurd widths: each fails with -207,
// returns no value and leaves no block behind.
TEST_F(ExprTest, BadExpressionsAreRefused) {
  // An empty literal is the number 0 ("NAME+"); "-" does not mix types either.
  // clang-format off
  const char* const refused[] = {
      "PRICE+TAX", "PRICE-TAX", "NAME+PRICE", "NAME+", "Q1+S1", "Q1+I1", "NAME+Q1",
      "ABCDEFGHIJK+NAME", "ABCDEFGHIJK-NAME", "STR(AMOUNT,8", "STR(AMOUNT,8,2", "STR(AMOUNT",
      "STR(NAME)", "STR(Q1)", "STR(AMOUNT,)", "STR(AMOUNT,60000,2)", "STR(AMOUNT,40000)",
      "DTOC(NAME)", "DTOC(PRICE,1)", "DTOC(HIRED,12)", "LEFT(NAME)", "LEFT(NAME,)", "LEFT(NAME,3",
      "LEFT(NAME,3]", "SUBSTR(NAME,2", "LEFT(PRICE,2)", "RIGHT(HIRED,2)", ")", ",", "NAME)",
      "NAME,", "NAME+)", "NAME++FIRST", "(NAME)", "LEFT(", "LEFT()", "LEFT(,3)", "RIGHT(NAME,,)",
      "SUBSTR(NAME,)", "SUBSTR()", "STR()", "STR(,3)", "DTOC()", "DTOC(,1)", "STR(AMOUNT,10,2,3)",
      "LEFT(NAME,3,4)", "NAME+STR(AMOUNT,10,2", "FOO(NAME)", "NAME+FOO(1)",
      // Another work area's alias, or no such field behind a good one.
      "ABT->NAME", "NAME+STAFFS->FIRST", "FIELDS->NAME", "NAME->FIRST", "FIELD->NAMEE",
      "FIELD->", "STR(FIELD->ABCDEFGHIJK,3)"};
  // clang-format on
  for (const char* expression : refused) {
    const long live = testing::LiveAllocations();
    DBSetErrorCode(0);
    EXPECT_EQ(Show(expression), "error -207") << expression;
    EXPECT_EQ(DBGetErrorCode(), DB_ERR_BAD_EXPRESSION) << expression;
    EXPECT_EQ(testing::LiveAllocations(), live) << expression;
  }
}

TEST_F(ExprTest, EachEvaluationReadsTheCurrentRecordAndDateStyle) {
  const char* key = "NAME+STR(AMOUNT,8,1)+DTOC(HIRED,1)";
  EXPECT_EQ(Show(key), "C26:\"SMITH       1234.620030715\"");
  ASSERT_GE(DBGetRecord(table_, 2), 0);
  EXPECT_EQ(Show(key), "C26:\"JONES         -7.5        \"");  // a blank date: 8 blanks
  EXPECT_EQ(Show("DTOC(HIRED)"), "C10:\"  /  /    \"");        // the style's template
  ASSERT_GE(DBGetRecord(table_, 1), 0);
  EXPECT_EQ(Show(key), "C26:\"SMITH       1234.620030715\"");
  // Changing the record buffer changes the value at once.
  ASSERT_GE(DBPutNamedStr(table_, "NAME", "BROWN"), 0);
  EXPECT_EQ(Show("NAME"), "C10:\"BROWN     \"");
  // ",1" gives yyyymmdd in every style, the two-digit ones included.
  for (int style : {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 15, 16, 19}) {
    ASSERT_EQ(DBSetDefaultDateStyle(style), 0);
    EXPECT_EQ(Show("NAME+DTOC(HIRED,1)"), "C18:\"BROWN     20030715\"") << style;
  }
  ASSERT_EQ(DBSetDefaultDateStyle(2), 0);
  EXPECT_EQ(Show("DTOC(HIRED)"), "C8:\"07/15/03\"");
}

TEST_F(ExprTest, TheCallersTextLosesItsBlanksAndIsUpperCased) {
  Result r = Eval("  name + first - x y ");
  EXPECT_EQ(r.text, "NAME+FIRST-XY");
  EXPECT_EQ(r.Show(), "C18:\"SMITH     JOHN    \"");
  // A blank inside what was meant as a literal disappears too.
  EXPECT_EQ(Show("NAME+a b"), "C12:\"SMITH     AB\"");
  // Even a failing evaluation leaves the text rewritten.
  Result bad = EvalOn(99, "name + x");
  EXPECT_EQ(bad.rc, DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(bad.text, "NAME+X");
}

TEST_F(ExprTest, KeyEvaluationHandsOutAnOwnedBufferAndNullsAreRefused) {
  DBEXPRVALUE value{};
  long live = testing::LiveAllocations();
  ASSERT_EQ(EvaluateKeyExpression(table_, "NAME+FIRST", &value), 0);
  ASSERT_NE(value.value, nullptr);
  EXPECT_EQ(value.type, 'C');
  EXPECT_EQ(value.length, 18);
  EXPECT_EQ(testing::LiveAllocations(), live + 1);
  MemFree(value.value);
  EXPECT_EQ(EvaluateKeyExpression(-1, "NAME", &value), DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(value.value, nullptr);
  EXPECT_EQ(EvaluateKeyExpression(table_, "NAME)", &value), DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(value.value, nullptr);
  EXPECT_EQ(testing::LiveAllocations(), live);

  char text[] = "NAME";
  EXPECT_EQ(DBEvaluateStr(table_, nullptr, &value), DB_ERR_NULL);
  EXPECT_EQ(DBEvaluateStr(table_, text, nullptr), DB_ERR_NULL);
  EXPECT_EQ(DBGetValue(nullptr), DB_ERR_NULL);
  // Outside a keyword callback there is nothing to parse.
  uint16_t n;
  EXPECT_EQ(DBGetValue(&n), DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(DBProcessTable(), DB_ERR_BAD_EXPRESSION);
}

// STR must print exactly what the C library's "%*.*f" prints for the same
// double.  The numbers come through a keyword so that any double can be fed.
double g_number = 0;
int32_t NumberKeyword(DBEXPRVALUE* current) {
  if (DBAllocateMemory(&current->value, 8) < 0) return DB_ERR_MEMORY;
  std::memcpy(current->value, &g_number, 8);
  current->type = 'N';
  current->length = 8;
  return 0;
}

TEST_F(ExprTest, StrMatchesTheCLibraryFixedPointFormat) {
  ASSERT_EQ(DBAddParseEntry("NUM", NumberKeyword), 0);
  std::mt19937_64 random(20261121);
  std::uniform_int_distribution<int> exponent(-8, 14);
  std::uniform_real_distribution<double> mantissa(-1.0, 1.0);
  for (int i = 0; i < 4000; ++i) {
    if (i % 4 == 0) {
      // Exact halves stress the rounding rule.
      g_number = (static_cast<int>(random() % 20001) - 10000) / 8.0;
    } else {
      g_number = mantissa(random) * std::pow(10.0, exponent(random));
    }
    int width = static_cast<int>(random() % 24);
    int decimals = static_cast<int>(random() % 8);
    char expected[128];
    int n = std::snprintf(expected, sizeof expected, "%*.*f", width, decimals, g_number);
    std::string want = n <= width ? std::string(expected) : std::string(width, '*');
    std::string expression =
        "STR(NUM," + std::to_string(width) + "," + std::to_string(decimals) + ")";
    Result r = Eval(expression);
    ASSERT_EQ(r.rc, 0) << expression;
    ASSERT_EQ(r.bytes, want) << expression << " of " << g_number;
  }
}

}  // namespace
}  // namespace kestrel::test
