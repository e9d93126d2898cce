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
    h_ = Open(Create("F.DBF", fields, 2), 2);
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
  int32_t h_ = -1;
};

TEST_F(FieldsTest, NumbersAreStoredAsFixedPointTextOfTheFieldWidth) {
  struct {
    int32_t field;
    double value;
    int32_t rc;
    const char* stored;
  } cases[] = {
      {1, 3.14159, DB_WARN_ROUNDED, "  3.14"},
      {2, 3.5, 0, " 3.5"},
      {3, 1000, DB_ERR_BAD_DATA, "   "},  // too large: unchanged
      {3, 999, 0, "999"},
      {2, -123.45, DB_WARN_ROUNDED, "-123"},  // only the upper bound is checked: cut
      {10, 2.0004, DB_WARN_ROUNDED, "     2.000"},
      {3, -0.5, DB_WARN_ROUNDED, " -0"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(DBPutFieldData(h_, c.field, &c.value), c.rc) << c.value;
    EXPECT_EQ(Stored(c.field), c.stored) << c.value;
  }
  EXPECT_EQ(Number(1), 3.14);
  // Reading accepts leading spaces and the C library's grammar.
  for (auto [text, value] : {std::pair{"+1.5e1", 15.0}, {" 0x10", 16.0}, {"  12ab", 12.0}}) {
    EXPECT_EQ(DBPutStrField(h_, 1, text), 0);
    EXPECT_EQ(Number(1), value) << text;
  }
  // Blank numbers read as 0 with 212.
  double v = 5;
  EXPECT_EQ(DBPutStrField(h_, 1, ""), 0);
  EXPECT_EQ(DBGetFieldData(h_, 1, &v), DB_WARN_FIELD_EMPTY);
  EXPECT_EQ(v, 0.0);
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
  char text[8] = {};
  EXPECT_EQ(DBPutFieldData(h_, 0, "abcdef"), DB_WARN_TRUNCATED);
  EXPECT_EQ(Stored(0), "abcd");
  EXPECT_EQ(DBPutNamedStr(h_, "Name", "ab"), 0);
  EXPECT_EQ(R(DBGetNamedData(h_, "NAME", text), text), "0 ab  ");
  EXPECT_EQ(DBPutFieldData(h_, 0, ""), 0);
  EXPECT_EQ(R(DBGetFieldData(h_, 0, text), text), "212     ");
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
  EXPECT_EQ(R(DBGetFieldData(h_, 4, text), text), "212   /  /    ");
  EXPECT_EQ(DBPutFieldData(h_, 4, "03/15/2004"), 0);
  EXPECT_EQ(Stored(4), "20040315");
  EXPECT_EQ(R(DBGetFieldData(h_, 4, text), text), "0 03/15/2004");
  DBSetDefaultDateStyle(DB_DATE_GERMAN4);
  EXPECT_EQ(R(DBGetFieldData(h_, 4, text), text), "0 15.03.2004");
  EXPECT_LT(DBPutFieldData(h_, 4, "31.02.2004"), 0);
  EXPECT_EQ(Stored(4), "20040315");  // unchanged
  DBSetDefaultDateStyle(DB_DATE_GREGORIAN);
  EXPECT_EQ(DBPutFieldData(h_, 4, "  /  /  "), 0);
  EXPECT_EQ(DBGetErrorCode(), 0);
  EXPECT_EQ(Stored(4), "        ");
  // Styles without an empty template leave the caller's buffer alone.
  DBSetDefaultDateStyle(1);
  std::strcpy(text, "keep");
  EXPECT_EQ(R(DBGetFieldData(h_, 4, text), text), "212 keep");

  // In the stored style a date comes back as stored, exactly as the date
  // formatter would print it; an impossible or non-digit date still fails.
  DBSetDefaultDateStyle(DB_DATE_DBASE);
  for (int32_t year : {0, 1, 1900, 2000, 2023, 2024, 9999}) {
    for (int32_t month = 0; month <= 13; ++month) {
      for (int32_t day = 0; day <= 32; ++day) {
        char stored[16], expected[16] = {}, got[16] = {};
        std::snprintf(stored, sizeof stored, "%04d%02d%02d", year, month, day);
        ASSERT_EQ(DBPutStrField(h_, 4, stored), 0);
        const int32_t want = DBDate3ToStr(expected, DB_DATE_DBASE, year, month, day);
        ASSERT_EQ(R(DBGetFieldData(h_, 4, got), got), R(want < 0 ? want : 0, expected)) << stored;
      }
    }
  }
  DBPutStrField(h_, 4, "2004AB15");
  EXPECT_LT(DBGetFieldData(h_, 4, text), 0);
}

TEST_F(FieldsTest, LogicalMemoAndBinaryFields) {
  uint8_t b = 9;
  EXPECT_EQ(R(DBGetFieldData(h_, 5, &b), b), "212 0");
  const std::pair<uint8_t, const char*> logical[] = {{0, "F"},   {'F', "F"}, {'n', "F"}, {'N', "F"},
                                                     {1, "T"},   {'T', "T"}, {'y', "T"}, {'t', "T"},
                                                     {' ', " "}, {'?', " "}};
  for (auto [in, stored] : logical) {
    ASSERT_EQ(DBPutFieldData(h_, 5, &in), 0) << int(in);
    EXPECT_EQ(Stored(5), stored);
  }
  uint8_t bad = 'x';
  EXPECT_EQ(DBPutFieldData(h_, 5, &bad), DB_ERR_BAD_DATA);
  DBPutStrField(h_, 5, "Y");
  EXPECT_EQ(R(DBGetFieldData(h_, 5, &b), b), "0 1");
  DBPutStrField(h_, 5, "?");
  b = 7;
  EXPECT_EQ(R(DBGetFieldData(h_, 5, &b), b), "0 7");  // neither true nor false: unchanged

  // Memo block numbers are right-aligned text; the widest fills the field.
  uint32_t block = 12345;
  EXPECT_EQ(DBPutFieldData(h_, 6, &block), 0);
  EXPECT_EQ(Stored(6), "     12345");
  block = 0xFFFFFFFFu;
  EXPECT_EQ(DBPutFieldData(h_, 6, &block), 0);
  EXPECT_EQ(Stored(6), "4294967295");
  // Binary values are stored little-endian (their round trips are checked
  // in tests/interop); codes 12 and 14 are not converted at all.
  int16_t s = -300;
  uint8_t raw[4] = {}, four[4] = {1, 2, 3, 4}, out[4] = {9, 9, 9, 9};
  EXPECT_EQ(DBPutFieldData(h_, 8, &s), 0);
  EXPECT_EQ(DBGetFieldBinary(h_, 8, raw), 0);
  EXPECT_EQ(raw[0] | (raw[1] << 8), 0xFED4);
  EXPECT_EQ(DBPutFieldData(h_, 9, four), 0);
  EXPECT_EQ(Stored(9), "    ");
  EXPECT_EQ(DBPutNamedBinary(h_, "B12", four), 0);
  EXPECT_EQ(R(DBGetFieldData(h_, 9, out), out[0]), "0 9");
  EXPECT_EQ(R(DBGetNamedBinary(h_, "b12", out), out[3]), "0 4");
}

TEST_F(FieldsTest, NamesNumbersAndNullArguments) {
  int32_t n = -1;
  char name[12] = {};
  DBFIELD description{};
  double v = 0;
  EXPECT_EQ(R(DBGetFieldNumber(h_, &n, "memo"), n), "0 6");
  EXPECT_EQ(R(DBGetFieldName(h_, name, 2), name), "0 N41");
  for (int32_t rc : {DBGetFieldNumber(h_, &n, "MEM"), DBGetFieldNumber(h_, &n, "MEMOS"),
                     DBGetNamedData(h_, "NOPE", &v), DBIsNamedBlank(h_, "NOPE")}) {
    EXPECT_EQ(rc, DB_ERR_FIELD_NAME);
  }
  for (int32_t rc : {DBGetFieldName(h_, name, 11), DBGetFieldDescription(h_, 11, &description),
                     DBGetFieldDescription(h_, -1, &description), DBGetFieldData(h_, 11, &v),
                     DBGetFieldData(h_, -1, &v)}) {
    EXPECT_EQ(rc, DB_ERR_FIELD_COUNT);
  }
  for (int32_t rc : {DBGetFieldNumber(h_, nullptr, "MEMO"), DBGetFieldNumber(h_, &n, nullptr),
                     DBGetFieldData(h_, 1, nullptr), DBPutFieldData(h_, 1, nullptr),
                     DBPutNamedData(h_, nullptr, &v), DBGetFieldBinary(h_, 0, nullptr)}) {
    EXPECT_EQ(rc, DB_ERR_NULL);
  }
}

// Names are kept byte for byte: a Big5 name whose second bytes look like
// ASCII letters (b, D, m, W) survives create, open and pack; names that
// another program stored in lower case read as stored; lookups ignore the
// case of ASCII letters only.
TEST_F(FieldsTest, NamesAreKeptAsStored) {
  const std::string big5 = "\xAF\x62\xA5\x44\xA9\x6D\xA6\x57";  // 畜主姓名
  std::vector<DBFIELD> fields = {Field(big5.c_str(), 'C', 8), Field("amount", 'N', 5),
                                 Field("notes", 'G')};
  const std::string path = dir_.File("names.dbf");
  EXPECT_EQ(DBCreateFile(path.c_str(), 3, fields.data(), DB_DIALECT_DBASE3), DB_ERR_FIELD_TYPE);
  ASSERT_EQ(DBCreateFile(path.c_str(), 3, fields.data(), DB_DIALECT_FOXPRO), 0);
  EXPECT_EQ(std::string(fields[0].name), big5);
  EXPECT_EQ(std::string(fields[1].name), "AMOUNT");  // ASCII names are upper-cased
  EXPECT_EQ(fields[2].length, 10);
  // Another writer's lower-case name in descriptor 2.
  std::vector<uint8_t> bytes = ReadFileBytes(path);
  std::memcpy(&bytes[32 + 32 + 0], "amount", 6);
  WriteFileBytes(path, bytes);
  for (int pass = 0; pass < 2; ++pass) {
    int32_t h = Open(path, DB_DIALECT_FOXPRO);
    char name[12] = {};
    ASSERT_EQ(DBGetFieldName(h, name, 0), 0);
    EXPECT_EQ(std::string(name), big5) << pass;
    ASSERT_EQ(DBGetFieldName(h, name, 1), 0);
    EXPECT_EQ(std::string(name), "amount") << pass;
    DBFIELD described[3] = {};
    int32_t widest = 0;
    ASSERT_EQ(DBGetFileDescription(h, &widest, described), 0);
    EXPECT_EQ(std::string(described[0].name), big5);
    EXPECT_EQ(described[2].type, 'G');
    int32_t n = -1;
    EXPECT_EQ(R(DBGetFieldNumber(h, &n, big5.c_str()), n), "0 0");
    for (const char* spelling : {"AMOUNT", "Amount", "amount"}) {
      EXPECT_EQ(R(DBGetFieldNumber(h, &n, spelling), n), "0 1") << spelling;
    }
    // A byte above 0x7F compares exactly: no case folding of other code pages.
    std::string other = big5;
    other[0] = '\xCF';
    EXPECT_EQ(DBGetFieldNumber(h, &n, other.c_str()), DB_ERR_FIELD_NAME);
    // A G field reads and writes its memo reference as M does.
    uint32_t block = 42, back = 0;
    ASSERT_EQ(DBPutFieldData(h, 2, &block), 0);
    EXPECT_EQ(R(DBGetFieldData(h, 2, &back), back), "0 42");
    AppendRecord(h);
    if (pass == 0) {
      ASSERT_EQ(DBPackFile(&h), 0);  // the packed table keeps the names
    }
    ASSERT_EQ(DBCloseFile(h), 0);
  }
}

}  // namespace
}  // namespace kestrel::test
