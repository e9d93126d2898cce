// Field conversions: the stored text each put writes, the values each get
// returns, blanks, warnings 205 / 206 / 212 and the deliberate quirks.
#include <cmath>
#include <cstdio>
#include <random>

#include "table_fixture.h"

namespace kestrel::test {
namespace {

class FieldsTest : public TableTest {
 protected:
  void SetUp() override {
    TableTest::SetUp();
    std::vector<DBFIELD> fields = {
        Field("NAME", 'C', 4),   Field("N62", 'N', 6, 2), Field("N41", 'N', 4, 1),
        Field("N30", 'N', 3, 0), Field("DAY", 'D'),       Field("OK", 'L'),
        Field("MEMO", 'M'),      Field("DBL", 1),         Field("I16", 6),
        Field("B12", 12),        Field("F", 'F', 10, 3)};
    path_ = Create("F.DBF", fields, 2);
    h_ = Open(path_, 2);
    DBSetDefaultDateStyle(DB_DATE_GREGORIAN);
  }
  void TearDown() override {
    DBCloseFile(h_);
    TableTest::TearDown();
  }
  std::string Stored(int32_t field) {
    char text[64] = {};
    DBGetStrField(h_, field, text);
    return text;
  }
  double Number(int32_t field) {
    double v = -1;
    DBGetFieldData(h_, field, &v);
    return v;
  }
  std::string path_;
  int32_t h_ = -1;
};

TEST_F(FieldsTest, NumbersAreStoredAsFixedPointTextOfTheFieldWidth) {
  double v = 3.14159;
  EXPECT_EQ(DBPutFieldData(h_, 1, &v), DB_WARN_ROUNDED);
  EXPECT_EQ(Stored(1), "  3.14");
  EXPECT_EQ(Number(1), 3.14);
  v = 3.5;
  EXPECT_EQ(DBPutFieldData(h_, 2, &v), 0);
  EXPECT_EQ(Stored(2), " 3.5");
  v = 1000;
  EXPECT_EQ(DBPutFieldData(h_, 3, &v), DB_ERR_BAD_DATA);
  EXPECT_EQ(Stored(3), "   ");  // unchanged
  v = 999;
  EXPECT_EQ(DBPutFieldData(h_, 3, &v), 0);
  EXPECT_EQ(Stored(3), "999");
  // Only the upper bound is tested: a negative number too wide is cut.
  v = -123.45;
  EXPECT_EQ(DBPutFieldData(h_, 2, &v), DB_WARN_ROUNDED);
  EXPECT_EQ(Stored(2), "-123");
  v = 2.0004;
  EXPECT_EQ(DBPutNamedData(h_, "f", &v), DB_WARN_ROUNDED);
  EXPECT_EQ(Stored(10), "     2.000");
  v = -0.5;
  EXPECT_EQ(DBPutFieldData(h_, 3, &v), DB_WARN_ROUNDED);
  EXPECT_EQ(Stored(3), " -0");
  // Reading accepts leading spaces and the C library's grammar.
  EXPECT_EQ(DBPutStrField(h_, 1, "+1.5e1"), 0);
  EXPECT_EQ(Number(1), 15.0);
  EXPECT_EQ(DBPutStrField(h_, 1, " 0x10"), 0);
  EXPECT_EQ(Number(1), 16.0);
  EXPECT_EQ(DBPutStrField(h_, 1, "  12ab"), 0);
  EXPECT_EQ(Number(1), 12.0);
}

// The stored text must be what "%*.*f" prints, and 206 must follow whether
// that text reads back as the value given.
TEST_F(FieldsTest, RandomNumbersMatchTheFormattedOutputReference) {
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> mantissa(-1.0, 1.0);
  const int32_t fields[] = {1, 2, 3, 10};
  const int widths[] = {6, 4, 3, 10};
  const int decimals[] = {2, 1, 0, 3};
  const double limits[] = {9999.99, 999.9, 999, 9999999.999};
  for (int i = 0; i < 20000; ++i) {
    int k = static_cast<int>(rng() % 4);
    double v = mantissa(rng) * std::pow(10.0, static_cast<int>(rng() % 9) - 3);
    if (rng() % 4 == 0) v = std::round(v * 1000) / 1000;  // exact ties and short values
    char reference[512];
    std::snprintf(reference, sizeof reference, "%*.*f", widths[k], decimals[k], v);
    double back = std::strtod(reference, nullptr);
    int32_t rc = DBPutFieldData(h_, fields[k], &v);
    if (back > limits[k]) {
      ASSERT_EQ(rc, DB_ERR_BAD_DATA) << v;
      continue;
    }
    ASSERT_EQ(rc, back != v ? DB_WARN_ROUNDED : 0) << v;
    ASSERT_EQ(Stored(fields[k]), std::string(reference).substr(0, widths[k])) << v;
  }
}

TEST_F(FieldsTest, CharacterFieldsTruncateWithWarningAndPadWithSpaces) {
  EXPECT_EQ(DBPutFieldData(h_, 0, "abcdef"), DB_WARN_TRUNCATED);
  EXPECT_EQ(Stored(0), "abcd");
  EXPECT_EQ(DBPutNamedStr(h_, "Name", "ab"), 0);
  char text[8] = {};
  EXPECT_EQ(DBGetNamedData(h_, "NAME", text), 0);
  EXPECT_STREQ(text, "ab  ");
  EXPECT_EQ(DBPutFieldData(h_, 0, ""), 0);
  EXPECT_EQ(DBGetFieldData(h_, 0, text), DB_WARN_FIELD_EMPTY);
  EXPECT_STREQ(text, "    ");
  EXPECT_EQ(DBIsFieldBlank(h_, 0), DB_WARN_FIELD_EMPTY);
  EXPECT_EQ(DBIsNamedBlank(h_, "name"), DB_WARN_FIELD_EMPTY);
  DBPutStrField(h_, 0, "x");
  DBSetErrorCode(0);
  EXPECT_EQ(DBIsFieldBlank(h_, 0), 0);
  // A number can be stored as text too.
  EXPECT_EQ(DBPutStrField(h_, 1, "abcdefgh"), DB_WARN_TRUNCATED);
  EXPECT_EQ(Stored(1), "abcdef");
}

TEST_F(FieldsTest, DatesFollowTheDefaultStyle) {
  char text[16] = {};
  DBSetDefaultDateStyle(DB_DATE_GREGORIAN4);
  EXPECT_EQ(DBGetFieldData(h_, 4, text), DB_WARN_FIELD_EMPTY);
  EXPECT_STREQ(text, "  /  /    ");
  EXPECT_EQ(DBPutFieldData(h_, 4, "03/15/2004"), 0);
  EXPECT_EQ(Stored(4), "20040315");
  EXPECT_EQ(DBGetFieldData(h_, 4, text), 0);
  EXPECT_STREQ(text, "03/15/2004");
  DBSetDefaultDateStyle(DB_DATE_GERMAN4);
  EXPECT_EQ(DBGetFieldData(h_, 4, text), 0);
  EXPECT_STREQ(text, "15.03.2004");
  EXPECT_LT(DBPutFieldData(h_, 4, "31.02.2004"), 0);
  EXPECT_EQ(Stored(4), "20040315");  // unchanged
  DBSetDefaultDateStyle(DB_DATE_GREGORIAN);
  EXPECT_EQ(DBPutFieldData(h_, 4, "  /  /  "), 0);
  EXPECT_EQ(DBGetErrorCode(), 0);
  EXPECT_EQ(Stored(4), "        ");
  // A date field holding something that is no date reports the date error.
  DBPutStrField(h_, 4, "2004AB15");
  EXPECT_LT(DBGetFieldData(h_, 4, text), 0);
  // Styles without an empty template leave the caller's buffer alone.
  DBPutStrField(h_, 4, "");
  DBSetDefaultDateStyle(1);
  std::strcpy(text, "keep");
  EXPECT_EQ(DBGetFieldData(h_, 4, text), DB_WARN_FIELD_EMPTY);
  EXPECT_STREQ(text, "keep");
}

// In the stored style a date comes back as stored, exactly as the date
// formatter would print it, and an impossible stored date still fails.
TEST_F(FieldsTest, StoredStyleDatesMatchTheFormatter) {
  DBSetDefaultDateStyle(DB_DATE_DBASE);
  for (int32_t year : {0, 1, 1900, 2000, 2023, 2024, 9999}) {
    for (int32_t month = 0; month <= 13; ++month) {
      for (int32_t day = 0; day <= 32; ++day) {
        char stored[16];
        std::snprintf(stored, sizeof stored, "%04d%02d%02d", year, month, day);
        ASSERT_EQ(DBPutStrField(h_, 4, stored), 0);
        char expected[16] = {}, got[16] = {};
        int32_t want = DBDate3ToStr(expected, DB_DATE_DBASE, year, month, day);
        int32_t rc = DBGetFieldData(h_, 4, got);
        ASSERT_EQ(rc < 0, want < 0) << stored;
        if (rc >= 0) {
          ASSERT_EQ(rc, 0);
          ASSERT_STREQ(got, expected);
        }
      }
    }
  }
}

TEST_F(FieldsTest, LogicalMemoAndBinaryFields) {
  uint8_t b = 9;
  EXPECT_EQ(DBGetFieldData(h_, 5, &b), DB_WARN_FIELD_EMPTY);
  EXPECT_EQ(b, 0);
  const struct {
    uint8_t in;
    char stored;
  } logical[] = {{0, 'F'},   {'F', 'F'}, {'n', 'F'}, {1, 'T'},   {'T', 'T'},
                 {'y', 'T'}, {' ', ' '}, {'?', ' '}, {'t', 'T'}, {'N', 'F'}};
  for (const auto& c : logical) {
    ASSERT_EQ(DBPutFieldData(h_, 5, &c.in), 0) << int(c.in);
    EXPECT_EQ(Stored(5), std::string(1, c.stored));
  }
  uint8_t bad = 'x';
  EXPECT_EQ(DBPutFieldData(h_, 5, &bad), DB_ERR_BAD_DATA);
  DBPutStrField(h_, 5, "Y");
  DBGetFieldData(h_, 5, &b);
  EXPECT_EQ(b, 1);
  DBPutStrField(h_, 5, "?");
  b = 7;
  EXPECT_EQ(DBGetFieldData(h_, 5, &b), 0);
  EXPECT_EQ(b, 7);  // neither true nor false: unchanged

  uint32_t block = 12345;
  EXPECT_EQ(DBPutFieldData(h_, 6, &block), 0);
  EXPECT_EQ(Stored(6), "     12345");
  block = 0;
  EXPECT_EQ(DBGetNamedData(h_, "MEMO", &block), 0);
  EXPECT_EQ(block, 12345u);
  block = 0xFFFFFFFFu;
  EXPECT_EQ(DBPutFieldData(h_, 6, &block), 0);
  EXPECT_EQ(Stored(6), "4294967295");

  double d = -2.75;
  EXPECT_EQ(DBPutFieldData(h_, 7, &d), 0);
  double back = 0;
  EXPECT_EQ(DBGetFieldData(h_, 7, &back), 0);
  EXPECT_EQ(back, d);
  int16_t s = -300, s2 = 0;
  EXPECT_EQ(DBPutFieldData(h_, 8, &s), 0);
  EXPECT_EQ(DBGetFieldData(h_, 8, &s2), 0);
  EXPECT_EQ(s2, -300);
  uint8_t raw[2] = {};
  EXPECT_EQ(DBGetFieldBinary(h_, 8, raw), 0);
  EXPECT_EQ(raw[0] | (raw[1] << 8), 0xFED4);
  // Codes 12 and 14 are not converted at all.
  uint8_t four[4] = {1, 2, 3, 4};
  EXPECT_EQ(DBPutFieldData(h_, 9, four), 0);
  EXPECT_EQ(Stored(9), "    ");
  EXPECT_EQ(DBPutNamedBinary(h_, "B12", four), 0);
  uint8_t out[4] = {9, 9, 9, 9};
  EXPECT_EQ(DBGetFieldData(h_, 9, out), 0);
  EXPECT_EQ(out[0], 9);
  EXPECT_EQ(DBGetNamedBinary(h_, "b12", out), 0);
  EXPECT_EQ(out[3], 4);
}

TEST_F(FieldsTest, NamesNumbersAndNullArguments) {
  int32_t n = -1;
  EXPECT_EQ(DBGetFieldNumber(h_, &n, "memo"), 0);
  EXPECT_EQ(n, 6);
  EXPECT_EQ(DBGetFieldNumber(h_, &n, "MEM"), DB_ERR_FIELD_NAME);
  EXPECT_EQ(DBGetFieldNumber(h_, &n, "MEMOS"), DB_ERR_FIELD_NAME);
  EXPECT_EQ(DBGetFieldNumber(h_, nullptr, "MEMO"), DB_ERR_NULL);
  EXPECT_EQ(DBGetFieldNumber(h_, &n, nullptr), DB_ERR_NULL);
  char name[12] = {};
  EXPECT_EQ(DBGetFieldName(h_, name, 2), 0);
  EXPECT_STREQ(name, "N41");
  EXPECT_EQ(DBGetFieldName(h_, name, 11), DB_ERR_FIELD_COUNT);
  double v = 0;
  EXPECT_EQ(DBGetFieldData(h_, 11, &v), DB_ERR_FIELD_COUNT);
  EXPECT_EQ(DBGetFieldData(h_, -1, &v), DB_ERR_FIELD_COUNT);
  EXPECT_EQ(DBGetFieldData(h_, 1, nullptr), DB_ERR_NULL);
  EXPECT_EQ(DBPutFieldData(h_, 1, nullptr), DB_ERR_NULL);
  EXPECT_EQ(DBGetNamedData(h_, "NOPE", &v), DB_ERR_FIELD_NAME);
  EXPECT_EQ(DBPutNamedData(h_, nullptr, &v), DB_ERR_NULL);
  EXPECT_EQ(DBGetFieldBinary(h_, 0, nullptr), DB_ERR_NULL);
  EXPECT_EQ(DBIsNamedBlank(h_, "NOPE"), DB_ERR_FIELD_NAME);
  // Blank numbers read as 0 with 212.
  v = 5;
  EXPECT_EQ(DBGetFieldData(h_, 1, &v), DB_WARN_FIELD_EMPTY);
  EXPECT_EQ(v, 0.0);
}

}  // namespace
}  // namespace kestrel::test
