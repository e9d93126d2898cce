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

TEST_F(ExprTest, CharacterFieldsConcatenateWithPlusAndDropWithMinus) {
  Result sum = Eval("NAME+FIRST");
  ASSERT_EQ(sum.rc, 0);
  EXPECT_EQ(sum.type, 'C');
  EXPECT_EQ(sum.length, 18);
  EXPECT_EQ(sum.bytes, "SMITH     JOHN    ");

  Result difference = Eval("NAME-FIRST");
  ASSERT_EQ(difference.rc, 0);
  EXPECT_EQ(difference.type, 'C');
  EXPECT_EQ(difference.bytes, "SMITH     ");

  // A leading sign has no effect on the first operand.
  EXPECT_EQ(Eval("-NAME").bytes, "SMITH     ");
  EXPECT_EQ(Eval("+NAME-FIRST+FIRST").bytes, "SMITH     JOHN    ");
}

TEST_F(ExprTest, NumericFieldsStandAloneButDoNotAdd) {
  Result price = Eval("PRICE");
  ASSERT_EQ(price.rc, 0);
  EXPECT_EQ(price.type, 'N');
  EXPECT_EQ(price.length, 8);
  EXPECT_DOUBLE_EQ(price.AsDouble(), 12.5);

  Result sum = Eval("PRICE+TAX");
  EXPECT_EQ(sum.rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(DBGetErrorCode(), DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("PRICE-TAX").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("NAME+PRICE").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("NAME+").rc, DB_ERR_BAD_EXPRESSION);  // an empty literal is the number 0
}

TEST_F(ExprTest, RawNumericFieldsAddAndSubtractInTheirOwnWidth) {
  Result q = Eval("Q1+Q2");
  ASSERT_EQ(q.rc, 0);
  EXPECT_EQ(q.type, 3);
  EXPECT_EQ(q.length, 4);
  EXPECT_EQ(q.As<uint32_t>(), 12u);
  EXPECT_EQ(Eval("Q1-Q2").As<uint32_t>(), 2u);
  EXPECT_EQ(Eval("Q2-Q1").As<uint32_t>(), 0xFFFFFFFEu);  // wraps as 32-bit

  Result s = Eval("S1+S2+S2");
  ASSERT_EQ(s.rc, 0);
  EXPECT_EQ(s.type, 5);
  EXPECT_EQ(s.length, 2);
  EXPECT_EQ(s.As<uint16_t>(), 390);

  Result f = Eval("F1-F2");
  ASSERT_EQ(f.rc, 0);
  EXPECT_EQ(f.type, 2);
  EXPECT_EQ(f.length, 4);
  EXPECT_FLOAT_EQ(f.As<float>(), 1.25f);

  EXPECT_EQ(Eval("I1+I1").As<int32_t>(), -80);
  // Different raw types do not mix, nor do raw and text values.
  EXPECT_EQ(Eval("Q1+S1").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("Q1+I1").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("NAME+Q1").rc, DB_ERR_BAD_EXPRESSION);
}

TEST_F(ExprTest, OtherTypesKeepTheirSizesAndAreDroppedAfterTheFirstOperand) {
  Result active = Eval("ACTIVE");
  ASSERT_EQ(active.rc, 0);
  EXPECT_EQ(active.type, 'L');
  EXPECT_EQ(active.length, 1);
  EXPECT_EQ(active.bytes[0], 1);

  Result notes = Eval("NOTES");
  ASSERT_EQ(notes.rc, 0);
  EXPECT_EQ(notes.type, 'M');
  EXPECT_EQ(notes.length, 4);

  Result raw = Eval("RAW12");
  ASSERT_EQ(raw.rc, 0);
  EXPECT_EQ(raw.type, 12);
  EXPECT_EQ(raw.length, 11);

  EXPECT_EQ(Eval("NAME+ACTIVE+HIRED+NOTES+FIRST").bytes, "SMITH     JOHN    ");
  EXPECT_EQ(Eval("NAME-HIRED").bytes, "SMITH     ");
}

TEST_F(ExprTest, LiteralsAreNumbersOrTexts) {
  Result empty = Eval("");
  ASSERT_EQ(empty.rc, 0);
  EXPECT_EQ(empty.type, 'N');
  EXPECT_EQ(empty.length, 8);
  EXPECT_EQ(empty.AsDouble(), 0.0);

  Result number = Eval("12.5");
  ASSERT_EQ(number.rc, 0);
  EXPECT_EQ(number.type, 'N');
  EXPECT_DOUBLE_EQ(number.AsDouble(), 12.5);

  Result text = Eval("12A");
  ASSERT_EQ(text.rc, 0);
  EXPECT_EQ(text.type, 'C');
  EXPECT_EQ(text.length, 3);
  EXPECT_EQ(text.bytes, "12A");

  // No field X: the name is a literal.  Quotes are ordinary characters.
  EXPECT_EQ(Eval("NAME+X").bytes, "SMITH     X");
  EXPECT_EQ(Eval("'AB'+NAME").bytes, "'AB'SMITH     ");
  // A literal ending the text is not length-checked; one before a
  // delimiter is at most 10 characters.
  EXPECT_EQ(Eval("NAME+ABCDEFGHIJKLMNOP").bytes, "SMITH     ABCDEFGHIJKLMNOP");
  EXPECT_EQ(Eval("ABCDEFGHIJ+NAME").rc, 0);
  EXPECT_EQ(Eval("ABCDEFGHIJK+NAME").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("ABCDEFGHIJK-NAME").rc, DB_ERR_BAD_EXPRESSION);
}

TEST_F(ExprTest, TheCallersTextLosesItsBlanksAndIsUpperCased) {
  Result r = Eval("  name + first - x y ");
  ASSERT_EQ(r.rc, 0);
  EXPECT_EQ(r.text, "NAME+FIRST-XY");
  EXPECT_EQ(r.bytes, "SMITH     JOHN    ");
  // A blank inside what was meant as a literal disappears too.
  EXPECT_EQ(Eval("NAME+a b").bytes, "SMITH     AB");
  // Even a failing evaluation leaves the text rewritten.
  Result bad = EvalOn(99, "name + x");
  EXPECT_EQ(bad.rc, DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(bad.text, "NAME+X");
}

TEST_F(ExprTest, StrFormatsWithDefaultsWidthsAndDecimals) {
  Result plain = Eval("STR(AMOUNT)");
  ASSERT_EQ(plain.rc, 0);
  EXPECT_EQ(plain.type, 'C');
  EXPECT_EQ(plain.length, 10);
  EXPECT_EQ(plain.bytes, "      1235");

  EXPECT_EQ(Eval("STR(AMOUNT,8,2)").bytes, " 1234.56");
  EXPECT_EQ(Eval("STR(AMOUNT,12)").bytes, "        1235");
  EXPECT_EQ(Eval("NAME+STR(PRICE,6,1)+FIRST").bytes, "SMITH       12.5JOHN    ");
  EXPECT_EQ(Eval("STR(12.5,5,2)").bytes, "12.50");
  // Wider than the width: asterisks, never past the buffer.
  EXPECT_EQ(Eval("STR(AMOUNT,3)").bytes, "***");
  EXPECT_EQ(Eval("STR(AMOUNT,6,2)").bytes, "******");
  EXPECT_EQ(Eval("STR(AMOUNT,7,2)").bytes, "1234.56");
  EXPECT_EQ(Eval("STR(AMOUNT,0)").length, 0);

  EXPECT_EQ(Eval("STR(AMOUNT,8").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("STR(AMOUNT,8,2").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("STR(AMOUNT").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("STR(NAME)").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("STR(Q1)").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("STR(AMOUNT,)").rc, DB_ERR_BAD_EXPRESSION);

  ASSERT_GE(DBGetRecord(table_, 2), 0);
  EXPECT_EQ(Eval("STR(AMOUNT,6,1)").bytes, "  -7.5");
}

TEST_F(ExprTest, DtocGivesTheDefaultStyleOrYyyymmdd) {
  Result hired = Eval("HIRED");
  ASSERT_EQ(hired.rc, 0);
  EXPECT_EQ(hired.type, 'D');
  EXPECT_EQ(hired.length, 10);
  EXPECT_EQ(hired.bytes, "07/15/2003");

  Result text = Eval("DTOC(HIRED)");
  ASSERT_EQ(text.rc, 0);
  EXPECT_EQ(text.type, 'C');
  EXPECT_EQ(text.bytes, "07/15/2003");

  // ",1" gives yyyymmdd in every style, the two-digit ones included.
  for (int style : {2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 15, 16, 19}) {
    ASSERT_EQ(DBSetDefaultDateStyle(style), 0);
    Result key = Eval("DTOC(HIRED,1)");
    ASSERT_EQ(key.rc, 0) << style;
    EXPECT_EQ(key.type, 'C');
    EXPECT_EQ(key.length, 8);
    EXPECT_EQ(key.bytes, "20030715") << "style " << style;
    EXPECT_EQ(Eval("NAME+DTOC(HIRED,1)").bytes, "SMITH     20030715") << style;
  }
  ASSERT_EQ(DBSetDefaultDateStyle(2), 0);
  EXPECT_EQ(Eval("DTOC(HIRED)").bytes, "07/15/03");
  EXPECT_EQ(Eval("DTOC(-HIRED,1)").bytes, "20030715");

  EXPECT_EQ(Eval("DTOC(NAME)").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("DTOC(PRICE,1)").rc, DB_ERR_BAD_EXPRESSION);

  // A blank date: eight blanks as a key, the style's template as text.
  ASSERT_GE(DBGetRecord(table_, 2), 0);
  EXPECT_EQ(Eval("DTOC(HIRED,1)").bytes, "        ");
  EXPECT_EQ(Eval("DTOC(HIRED)").bytes, "  /  /  ");
}

TEST_F(ExprTest, LeftRightAndSubstrCutTextsWithinTheirBounds) {
  EXPECT_EQ(Eval("LEFT(NAME,3)").bytes, "SMI");
  EXPECT_EQ(Eval("RIGHT(NAME,7)").bytes, "TH     ");
  EXPECT_EQ(Eval("LEFT(NAME,0)").length, 0);
  EXPECT_EQ(Eval("LEFT(NAME,200)").bytes, "SMITH     ");
  EXPECT_EQ(Eval("RIGHT(NAME,200)").bytes, "SMITH     ");
  EXPECT_EQ(Eval("SUBSTR(NAME,2,3)").bytes, "MIT");
  EXPECT_EQ(Eval("SUBSTR(NAME,4)").bytes, "TH     ");
  EXPECT_EQ(Eval("SUBSTR(NAME,0,2)").bytes, "SM");
  EXPECT_EQ(Eval("SUBSTR(NAME,11)").length, 0);
  EXPECT_EQ(Eval("SUBSTR(NAME,60000,60000)").length, 0);
  EXPECT_EQ(Eval("LEFT(NAME+FIRST,12)").bytes, "SMITH     JO");
  EXPECT_EQ(Eval("LEFT(NAME,2)+RIGHT(FIRST,6)").bytes, "SMHN    ");
  EXPECT_EQ(Eval("SUBSTR(LEFT(DTOC(HIRED,1),6),3,2)").bytes, "03");

  EXPECT_EQ(Eval("LEFT(NAME)").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("LEFT(NAME,)").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("LEFT(NAME,3").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("SUBSTR(NAME,2").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("LEFT(PRICE,2)").rc, DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(Eval("RIGHT(HIRED,2)").rc, DB_ERR_BAD_EXPRESSION);
}

TEST_F(ExprTest, EachEvaluationReadsTheCurrentRecord) {
  const char* key = "NAME+STR(AMOUNT,8,1)+DTOC(HIRED,1)";
  EXPECT_EQ(Eval(key).bytes, "SMITH       1234.620030715");
  ASSERT_GE(DBGetRecord(table_, 2), 0);
  EXPECT_EQ(Eval(key).bytes, "JONES         -7.5        ");
  ASSERT_GE(DBGetRecord(table_, 1), 0);
  EXPECT_EQ(Eval(key).bytes, "SMITH       1234.620030715");
  // Changing the record buffer changes the value at once.
  ASSERT_GE(DBPutNamedStr(table_, "NAME", "BROWN"), 0);
  EXPECT_EQ(Eval("NAME").bytes, "BROWN     ");
}

TEST_F(ExprTest, KeyEvaluationForTheIndexEnginesHandsOutAnOwnedBuffer) {
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
}

TEST_F(ExprTest, NullArgumentsAreRefused) {
  DBEXPRVALUE value{};
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
  int compared = 0;
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
    ++compared;
  }
  EXPECT_EQ(compared, 4000);
}

}  // namespace
}  // namespace kestrel::test
