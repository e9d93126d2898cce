// Creating and opening tables: the bytes written in every dialect, the
// checks on the caller's field list, and what an open reports back.
#include "table_fixture.h"

namespace kestrel::test {
namespace {

uint32_t Le16(const std::vector<uint8_t>& b, size_t at) { return b[at] | (b[at + 1] << 8); }

struct Today {
  int32_t year = 0, month = 0, day = 0, weekday = 0;
  Today() { DBGetDate3(&year, &month, &day, &weekday); }
};

class CreateOpenTest : public TableTest {
 protected:
  DBFILEINFO Info(int32_t h) {
    DBFILEINFO info{};
    EXPECT_EQ(DBGetFileInfo(h, &info), 0);
    return info;
  }
};

// The descriptors and records of every dialect are read back, by this
// library and by independent readers, in tests/interop; here: the caller's
// array, the version byte, the date and the header layout.
TEST_F(CreateOpenTest, EveryDialectWritesItsHeaderAndNormalisesTheFields) {
  const uint8_t memo_version[10] = {0x03, 0x83, 0x8B, 0x83, 0xF5, 0x83, 0x83, 0x83, 0xF5, 0x83};
  Today today;
  for (int dialect = 0; dialect <= 9; ++dialect) {
    SCOPED_TRACE(dialect);
    // Names and letters are upper-cased and the fixed types get their own
    // lengths, in the caller's array.
    std::vector<DBFIELD> fields = {
        Field("NAME", 'C', 20), Field("amount", 'n', 12, 2), Field("BORN", 'D', 3),
        Field("OK", 'L', 9),    Field("NOTES", 'M', 1),      Field("DBL", 1, 1),
        Field("FLT", 2, 0),     Field("U32", 3, 0),          Field("I32", 4, 0),
        Field("U16", 5, 0),     Field("I16", 6, 0),          Field("B12", 12, 0),
        Field("B14", 14, 0)};
    const int32_t lengths[] = {20, 12, 8, 1, 10, 8, 4, 4, 4, 2, 2, 4, 8};
    std::string path = Create("T" + std::to_string(dialect) + ".DBF", fields, dialect);
    const uint32_t n = static_cast<uint32_t>(fields.size());
    EXPECT_STREQ(fields[1].name, "AMOUNT");
    EXPECT_EQ(fields[1].type, 'N');
    uint32_t record = 1;
    for (uint32_t i = 0; i < n; ++i) {
      EXPECT_EQ(fields[i].length, lengths[i]) << fields[i].name;
      record += static_cast<uint32_t>(lengths[i]);
    }

    std::vector<uint8_t> b = ReadFileBytes(path);
    const uint32_t header = dialect == 9 ? 32 * (n + 2) : 32 * n + 33;
    ASSERT_EQ(b.size(), header + 1u);
    EXPECT_EQ(b[0], memo_version[dialect]);
    EXPECT_EQ(b[1], today.year - 1900);
    EXPECT_EQ(b[2], today.month);
    EXPECT_EQ(b[3], today.day);
    EXPECT_EQ(b[4] | b[5] | b[6] | b[7] | b[28], 0);  // no records, no production index
    EXPECT_EQ(Le16(b, 8), header);
    EXPECT_EQ(Le16(b, 10), record);
    EXPECT_EQ(b[32 + 32 * n], 0x0D);
    for (size_t k = 33 + 32 * n; k < header; ++k) EXPECT_EQ(b[k], 0) << k;  // dialect 9's block
    EXPECT_EQ(b[header], 0x1A);

    int32_t h = -1;
    if (dialect == 0) {
      // Dialect 0 writes 0x03 even with a memo field, and an open insists on
      // the memo bit: such a table cannot be opened again.
      EXPECT_EQ(DBOpenFile(&h, path.c_str(), 0), DB_ERR_VERSION);
      EXPECT_EQ(h, -1);
      continue;
    }
    h = Open(path, dialect);
    DBFILEINFO info{};
    info.attributes = 0xF0;
    ASSERT_EQ(DBGetFileInfo(h, &info), 0);
    EXPECT_EQ(info.attributes, 0xF0u);
    EXPECT_EQ(info.dialect, dialect);
    EXPECT_EQ(info.has_memo, 1);
    EXPECT_EQ(std::string(info.name), path);
    int32_t widest = 0;
    std::vector<DBFIELD> back(n);
    ASSERT_EQ(DBGetFileDescription(h, &widest, back.data()), 0);
    EXPECT_EQ(widest, 20);
    EXPECT_EQ(back[12].type, 14);
    EXPECT_EQ(back[12].length, 8);
    ASSERT_EQ(DBCloseFile(h), 0);
  }
  ExpectNothingOpen();
}

TEST_F(CreateOpenTest, FieldListErrorsAreRefusedWithTheirCodes) {
  struct Case {
    DBFIELD field;
    int32_t dialect;
    int32_t code;
  };
  // clang-format off
  const Case cases[] = {
      {Field("", 'C', 5), 1, DB_ERR_FIELD_NAME},
      {Field("ELEVENCHARS", 'C', 5), 1, DB_ERR_FIELD_NAME},
      {Field("X", 'X', 5), 1, DB_ERR_FIELD_TYPE}, {Field("X", 0, 5), 1, DB_ERR_FIELD_TYPE},
      {Field("X", 111, 5), 1, DB_ERR_FIELD_TYPE}, {Field("X", 7, 5), 1, DB_ERR_FIELD_TYPE},
      {Field("X", 'F', 10, 2), 1, DB_ERR_FIELD_TYPE}, {Field("X", 'C', 0), 1, DB_ERR_FIELD_LENGTH},
      {Field("X", 'C', 255), 1, DB_ERR_FIELD_LENGTH},
      {Field("X", 'C', 2049), 6, DB_ERR_FIELD_LENGTH},
      {Field("X", 'N', 20), 1, DB_ERR_FIELD_LENGTH}, {Field("X", 'N', 21), 2, DB_ERR_FIELD_LENGTH},
      {Field("X", 'N', 5, 4), 2, DB_ERR_DECIMALS}, {Field("X", 'N', 5, -1), 2, DB_ERR_DECIMALS},
      {Field("X", 'N', 19, 16), 1, DB_ERR_DECIMALS}, {Field("X", 'C', 5), 10, DB_ERR_VERSION},
      {Field("X", 'C', 5), 0x401, DB_ERR_VERSION}};
  // clang-format on
  for (const Case& c : cases) {
    DBFIELD f = c.field;
    std::string path = dir_.File("BAD.DBF");
    EXPECT_EQ(DBCreateFile(path.c_str(), 1, &f, c.dialect), c.code) << f.name << " " << c.dialect;
    EXPECT_EQ(DBGetErrorCode(), c.code);
  }
  // Accepted near the limits.
  std::vector<DBFIELD> ok = {Field("A", 'N', 20, 16), Field("B", 'C', 2048)};
  EXPECT_EQ(DBCreateFile(dir_.File("OK2.DBF").c_str(), 1, ok.data(), 2), 0);
  EXPECT_EQ(DBCreateFile(dir_.File("OK6.DBF").c_str(), 1, ok.data() + 1, 6), 0);
  DBFIELD f = Field("A", 'C', 5);
  EXPECT_EQ(DBCreateFile(nullptr, 1, &f, 1), DB_ERR_NULL);
  EXPECT_EQ(DBCreateFile(dir_.File("X.DBF").c_str(), 1, nullptr, 1), DB_ERR_NULL);
  EXPECT_EQ(DBCreateFile(dir_.File("X.DBF").c_str(), 0, &f, 1), DB_ERR_FIELD_COUNT);
  // Field count and record length limits by dialect.
  std::vector<DBFIELD> many;
  for (int i = 0; i < 129; ++i) many.push_back(Field(("F" + std::to_string(i)).c_str(), 'C', 1));
  EXPECT_EQ(DBCreateFile(dir_.File("M.DBF").c_str(), 129, many.data(), 1), DB_ERR_FIELD_COUNT);
  EXPECT_EQ(DBCreateFile(dir_.File("M.DBF").c_str(), 129, many.data(), 2), 0);
  std::vector<DBFIELD> wide(15, Field("W", 'C', 250));
  wide.push_back(Field("W", 'C', 249));  // record length 4000
  EXPECT_EQ(DBCreateFile(dir_.File("W.DBF").c_str(), 16, wide.data(), 1), 0);
  wide.push_back(Field("W", 'C', 1));
  EXPECT_EQ(DBCreateFile(dir_.File("W.DBF").c_str(), 17, wide.data(), 1), DB_ERR_RECORD_LENGTH);
}

TEST_F(CreateOpenTest, YearByteOfCreateUpdateAndLastUpdate) {
  Today today;
  char expected[16] = {}, text[16] = {};
  for (int32_t mode : {0, DB_OPEN_UNBUFFERED}) {
    std::string path = Create("YEAR.DBF", {Field("A", 'C', 4)}, 1);
    EXPECT_EQ(ReadFileBytes(path)[1], today.year - 1900);
    int32_t h = Open(path, 1 | mode);
    ASSERT_EQ(DBGetLastUpdate(h, text, DB_DATE_DBASE), 0);
    DBDate3ToStr(expected, DB_DATE_DBASE, today.year, today.month, today.day);
    EXPECT_STREQ(text, expected);
    // An update writes the year modulo 100, which reads back in the 1900s;
    // unbuffered at once, buffered at the flush.
    AppendRecord(h);
    if (!mode) {
      ASSERT_EQ(DBFlushFile(h), 0);
    }
    std::vector<uint8_t> b = ReadFileBytes(path);
    EXPECT_EQ(b[1], today.year % 100);
    EXPECT_EQ(b[4], 1);
    EXPECT_EQ(b.back(), 0x1A);
    ASSERT_EQ(DBGetLastUpdate(h, text, DB_DATE_DBASE), 0);
    DBDate3ToStr(expected, DB_DATE_DBASE, 1900 + today.year % 100, today.month, today.day);
    EXPECT_STREQ(text, expected);
    EXPECT_EQ(DBGetLastUpdate(h, nullptr, DB_DATE_DBASE), DB_ERR_NULL);
    DBCloseFile(h);
  }
}

TEST_F(CreateOpenTest, ProductionIndexFlagsAndFieldIndexedMarks) {
  std::vector<DBFIELD> fields = {Field("A", 'C' | 0x100, 4), Field("B", 'N', 5),
                                 Field("C", 'c' | 0x100, 3)};
  std::string path = Create("PROD.DBF", fields, 2 | DB_CREATE_PRODUCTION_INDEX);
  std::vector<uint8_t> b = ReadFileBytes(path);
  EXPECT_EQ(b[28], 1);
  EXPECT_EQ(b[32 + 31], 1);
  EXPECT_EQ(b[64 + 31], 0);
  EXPECT_EQ(b[96 + 31], 0);  // the lower-case letter rewrote the slot
  int32_t h = Open(path, 2);
  EXPECT_EQ(Info(h).production_index, 1);
  ASSERT_EQ(DBSetFieldIndexed(h, 1), 0);
  EXPECT_EQ(DBSetFieldIndexed(h, 3), DB_ERR_FIELD_COUNT);
  EXPECT_EQ(ReadFileBytes(path)[64 + 31], 1);
  DBCloseFile(h);

  std::string plain = Create("PLAIN.DBF", {Field("A", 'C', 4)}, 8);
  h = Open(plain, 8);
  ASSERT_EQ(DBSetProductionIndex(h), 0);
  EXPECT_EQ(ReadFileBytes(plain)[28], 1);
  EXPECT_EQ(Info(h).production_index, 1);
  EXPECT_EQ(DBSetFieldIndexed(h, 0), DB_ERR_VERSION);  // dBASE IV only
  DBCloseFile(h);
  h = Open(Create("THREE.DBF", {Field("A", 'C', 4)}, 1), 1);
  EXPECT_EQ(DBSetProductionIndex(h), DB_ERR_VERSION);
  DBCloseFile(h);
}

TEST_F(CreateOpenTest, OpenChecksDialectVersionHeaderAndModes) {
  std::string memo = Create("MEMO.DBF", {Field("A", 'C', 4), Field("M", 'M')}, 1);  // 0x83
  int32_t h = 7;
  EXPECT_EQ(DBOpenFile(&h, memo.c_str(), 8), DB_ERR_VERSION);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(DBOpenFile(&h, memo.c_str(), 10), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(DBOpenFile(&h, dir_.File("NONE.DBF").c_str(), 1), DB_ERR_OPEN);
  EXPECT_EQ(DBOpenFile(nullptr, memo.c_str(), 1), DB_ERR_NULL);
  EXPECT_EQ(DBOpenFile(&h, nullptr, 1), DB_ERR_NULL);
  ExpectNothingOpen();

  // Dialect 0 is opened as dialect 1; a file whose last descriptor slot
  // starts with 0x0D opens as dialect 9.
  h = Open(Create("ZERO.DBF", {Field("A", 'C', 4)}, 0), 0);
  EXPECT_EQ(Info(h).dialect, 1);
  DBCloseFile(h);
  h = Open(Create("NINE.DBF", {Field("A", 'C', 4), Field("B", 'N', 3)}, 9), 1);
  EXPECT_EQ(Info(h).dialect, 9);
  DBRECORDINFO rec{};
  DBGetRecordInfo(h, &rec);
  EXPECT_EQ(rec.field_count, 2);
  DBCloseFile(h);

  // Read-only: writes refused; attribute bits reported.
  h = Open(memo, 1 | DB_OPEN_READONLY | DB_OPEN_AUTOLOCK);
  EXPECT_EQ(Info(h).attributes & 7u, 1u | 2u | 4u);  // 0x800 left 0x600 behind
  int32_t r = 0;
  EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBFlushFile(h), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBMarkRecordInActive(h, 1), DB_ERR_READ_ONLY);
  DBCloseFile(h);

  // A header of 32n + 2 bytes (0x0D and one more byte) opens; 32n + 3 not.
  std::string path = Create("TERM.DBF", {Field("A", 'C', 4)}, 1);
  std::vector<uint8_t> b = ReadFileBytes(path);
  b.insert(b.begin() + 65, 0x00);
  b[8] = 66;
  WriteFileBytes(path, b);
  DBCloseFile(Open(path, 1));
  b.insert(b.begin() + 66, 0x00);
  b[8] = 67;
  WriteFileBytes(path, b);
  EXPECT_EQ(DBOpenFile(&h, path.c_str(), 1), DB_ERR_HEADER_LENGTH);

  // Closed handles are refused; DBTerminate closes what is still open.
  h = Open(path = Create("H.DBF", {Field("A", 'C', 4)}, 1), 1);
  ASSERT_EQ(DBCloseFile(h), 0);
  EXPECT_EQ(DBCloseFile(h), DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(DBGetRecord(h, 1), DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(DBFlushFile(-1), DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(DBGetFieldData(99, 0, nullptr), DB_ERR_INVALID_HANDLE);
  ExpectNothingOpen();
  Open(path, 1 | DB_OPEN_SHARED);
  Open(path, 1 | DB_OPEN_READONLY | DB_OPEN_SHARED);
  EXPECT_EQ(DBTerminate(), 0);
  EXPECT_EQ(kestrel::testing::LiveAllocations(), 0);
  ASSERT_EQ(DBInitialize(25, 0), 0);
}

}  // namespace
}  // namespace kestrel::test
