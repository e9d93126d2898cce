// Creating and opening tables: the bytes written in every dialect, the
// checks on the caller's field list, and what an open reports back.
#include <array>

#include "table_fixture.h"

namespace kestrel::test {
namespace {

uint16_t Le16(const std::vector<uint8_t>& b, size_t at) { return b[at] | (b[at + 1] << 8); }
uint32_t Le32(const std::vector<uint8_t>& b, size_t at) {
  return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

struct Today {
  int32_t year = 0, month = 0, day = 0, weekday = 0;
  Today() { DBGetDate3(&year, &month, &day, &weekday); }
};

// Every type a dialect accepts, with lengths that the fixed types override.
std::vector<DBFIELD> AllTypes(int dialect) {
  std::vector<DBFIELD> f = {
      Field("NAME", 'C', 20), Field("amount", 'n', 12, 2), Field("BORN", 'D', 3),
      Field("OK", 'L', 9),    Field("NOTES", 'M', 1),      Field("DBL", 1, 1),
      Field("FLT", 2, 0),     Field("U32", 3, 0),          Field("I32", 4, 0),
      Field("U16", 5, 0),     Field("I16", 6, 0),          Field("B12", 12, 0),
      Field("B14", 14, 0)};
  if (dialect == 2 || dialect == 4 || dialect == 8) f.push_back(Field("RATIO", 'F', 20, 5));
  return f;
}

class CreateOpenTest : public TableTest {};

TEST_F(CreateOpenTest, EveryDialectWritesItsHeaderAndReopensEveryFieldType) {
  const uint8_t memo_version[10] = {0x03, 0x83, 0x8B, 0x83, 0xF5, 0x83, 0x83, 0x83, 0xF5, 0x83};
  Today today;
  for (int dialect = 0; dialect <= 9; ++dialect) {
    SCOPED_TRACE(dialect);
    std::vector<DBFIELD> fields = AllTypes(dialect);
    std::string path = Create("T" + std::to_string(dialect) + ".DBF", fields, dialect);
    const uint32_t n = static_cast<uint32_t>(fields.size());
    // The caller's array is normalised in place.
    EXPECT_STREQ(fields[1].name, "AMOUNT");
    EXPECT_EQ(fields[1].type, 'N');
    EXPECT_EQ(fields[2].length, 8);
    EXPECT_EQ(fields[3].length, 1);
    EXPECT_EQ(fields[4].length, 10);
    EXPECT_EQ(fields[5].length, 8);
    EXPECT_EQ(fields[6].length, 4);
    EXPECT_EQ(fields[9].length, 2);
    EXPECT_EQ(fields[13 - 1].length, 8);

    std::vector<uint8_t> b = ReadFileBytes(path);
    uint32_t header = dialect == 9 ? 32 * (n + 2) : 32 * n + 33;
    uint32_t record = 1;
    for (const DBFIELD& f : fields) record += static_cast<uint32_t>(f.length);
    ASSERT_EQ(b.size(), header + 1u);
    EXPECT_EQ(b[0], memo_version[dialect]);
    EXPECT_EQ(b[1], today.year - 1900);
    EXPECT_EQ(b[2], today.month);
    EXPECT_EQ(b[3], today.day);
    EXPECT_EQ(Le32(b, 4), 0u);
    EXPECT_EQ(Le16(b, 8), header);
    EXPECT_EQ(Le16(b, 10), record);
    EXPECT_EQ(b[28], 0);
    for (uint32_t i = 0; i < n; ++i) {
      size_t d = 32 + 32 * i;
      EXPECT_EQ(std::string(reinterpret_cast<const char*>(&b[d])), fields[i].name);
      EXPECT_EQ(b[d + 11], static_cast<uint8_t>(fields[i].type));
      EXPECT_EQ(b[d + 16], static_cast<uint8_t>(fields[i].length));
    }
    size_t term = 32 + 32 * n;
    EXPECT_EQ(b[term], 0x0D);
    if (dialect == 9) {
      for (size_t k = term + 1; k < term + 32; ++k) EXPECT_EQ(b[k], 0) << k;
    }
    EXPECT_EQ(b[header], 0x1A);

    if (dialect == 0) {
      // Dialect 0 writes 0x03 even with a memo field, and an open insists on
      // the memo bit: such a table cannot be opened again.
      int32_t refused = 0;
      EXPECT_EQ(DBOpenFile(&refused, path.c_str(), 0), DB_ERR_VERSION);
      EXPECT_EQ(refused, -1);
      continue;
    }
    int32_t h = Open(path, dialect);
    DBFILEINFO info{};
    info.attributes = 0xF0;
    ASSERT_EQ(DBGetFileInfo(h, &info), 0);
    EXPECT_EQ(info.attributes, 0xF0u);
    EXPECT_EQ(info.dialect, dialect);
    EXPECT_EQ(info.has_memo, 1);
    EXPECT_EQ(std::string(info.name), path);
    DBRECORDINFO rec{};
    ASSERT_EQ(DBGetRecordInfo(h, &rec), 0);
    EXPECT_EQ(rec.record_length, static_cast<int32_t>(record));
    EXPECT_EQ(rec.field_count, static_cast<int32_t>(n));
    EXPECT_NE(rec.record_buffer, nullptr);
    std::vector<DBFIELD> back(n);
    int32_t widest = 0;
    ASSERT_EQ(DBGetFileDescription(h, &widest, back.data()), 0);
    EXPECT_EQ(widest, 20);
    for (uint32_t i = 0; i < n; ++i) {
      EXPECT_STREQ(back[i].name, fields[i].name);
      EXPECT_EQ(back[i].type, fields[i].type);
      EXPECT_EQ(back[i].length, fields[i].length);
      EXPECT_EQ(back[i].decimals, fields[i].decimals);
    }
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
  const Case cases[] = {
      {Field("", 'C', 5), 1, DB_ERR_FIELD_NAME},
      {Field("ELEVENCHARS", 'C', 5), 1, DB_ERR_FIELD_NAME},
      {Field("X", 'X', 5), 1, DB_ERR_FIELD_TYPE},
      {Field("X", 0, 5), 1, DB_ERR_FIELD_TYPE},
      {Field("X", 111, 5), 1, DB_ERR_FIELD_TYPE},
      {Field("X", 7, 5), 1, DB_ERR_FIELD_TYPE},
      {Field("X", 'F', 10, 2), 1, DB_ERR_FIELD_TYPE},
      {Field("X", 'C', 0), 1, DB_ERR_FIELD_LENGTH},
      {Field("X", 'C', 255), 1, DB_ERR_FIELD_LENGTH},
      {Field("X", 'C', 2049), 6, DB_ERR_FIELD_LENGTH},
      {Field("X", 'N', 20), 1, DB_ERR_FIELD_LENGTH},
      {Field("X", 'N', 21), 2, DB_ERR_FIELD_LENGTH},
      {Field("X", 'N', 5, 4), 2, DB_ERR_DECIMALS},
      {Field("X", 'N', 5, -1), 2, DB_ERR_DECIMALS},
      {Field("X", 'N', 19, 16), 1, DB_ERR_DECIMALS},
      {Field("X", 'C', 5), 10, DB_ERR_VERSION},
      {Field("X", 'C', 5), 0x401, DB_ERR_VERSION},
  };
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

TEST_F(CreateOpenTest, LongCharacterFieldKeepsItsHighLengthByte) {
  std::vector<DBFIELD> fields = {Field("TEXT", 'c', 300)};
  std::string path = Create("LONG.DBF", fields, 6);
  std::vector<uint8_t> b = ReadFileBytes(path);
  EXPECT_EQ(b[32 + 11], 'C');
  EXPECT_EQ(b[32 + 16], 44);
  EXPECT_EQ(b[32 + 17], 1);
  int32_t h = Open(path, 6);
  DBFIELD d{};
  ASSERT_EQ(DBGetFieldDescription(h, 0, &d), 0);
  EXPECT_EQ(d.length, 300);
  EXPECT_EQ(d.decimals, 1);  // byte 17 is reported as it stands
  EXPECT_EQ(DBGetFieldDescription(h, 1, &d), DB_ERR_FIELD_COUNT);
  EXPECT_EQ(DBGetFieldDescription(h, -1, &d), DB_ERR_FIELD_COUNT);
  DBCloseFile(h);
}

TEST_F(CreateOpenTest, YearByteRulesOfCreateUpdateAndLastUpdate) {
  Today today;
  std::string path = Create("YEAR.DBF", {Field("A", 'C', 4)}, 1);
  int32_t h = Open(path, 1);
  char text[16] = {};
  ASSERT_EQ(DBGetLastUpdate(h, text, DB_DATE_DBASE), 0);
  char expected[16] = {};
  DBDate3ToStr(expected, DB_DATE_DBASE, today.year, today.month, today.day);
  EXPECT_STREQ(text, expected);
  int32_t r = 0;
  ASSERT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), 0);
  ASSERT_EQ(DBFlushFile(h), 0);
  std::vector<uint8_t> b = ReadFileBytes(path);
  EXPECT_EQ(b[1], today.year % 100);
  ASSERT_EQ(DBGetLastUpdate(h, text, DB_DATE_DBASE), 0);
  DBDate3ToStr(expected, DB_DATE_DBASE, 1900 + today.year % 100, today.month, today.day);
  EXPECT_STREQ(text, expected);
  EXPECT_EQ(DBGetLastUpdate(h, nullptr, DB_DATE_DBASE), DB_ERR_NULL);
  DBCloseFile(h);

  // Unbuffered writes update the header at once.
  std::string direct = Create("DIRECT.DBF", {Field("A", 'C', 4)}, 1);
  EXPECT_EQ(ReadFileBytes(direct)[1], today.year - 1900);
  h = Open(direct, 1 | DB_OPEN_UNBUFFERED);
  ASSERT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), 0);
  b = ReadFileBytes(direct);
  EXPECT_EQ(b[1], today.year % 100);
  EXPECT_EQ(b[4], 1);
  EXPECT_EQ(b.back(), 0x1A);
  DBCloseFile(h);
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
  DBFILEINFO info{};
  DBGetFileInfo(h, &info);
  EXPECT_EQ(info.production_index, 1);
  ASSERT_EQ(DBSetFieldIndexed(h, 1), 0);
  EXPECT_EQ(DBSetFieldIndexed(h, 3), DB_ERR_FIELD_COUNT);
  EXPECT_EQ(ReadFileBytes(path)[64 + 31], 1);
  DBCloseFile(h);

  std::string plain = Create("PLAIN.DBF", {Field("A", 'C', 4)}, 8);
  h = Open(plain, 8);
  EXPECT_EQ(ReadFileBytes(plain)[28], 0);
  ASSERT_EQ(DBSetProductionIndex(h), 0);
  EXPECT_EQ(ReadFileBytes(plain)[28], 1);
  DBGetFileInfo(h, &info);
  EXPECT_EQ(info.production_index, 1);
  EXPECT_EQ(DBSetFieldIndexed(h, 0), DB_ERR_VERSION);  // dBASE IV only
  DBCloseFile(h);

  std::string three = Create("THREE.DBF", {Field("A", 'C', 4)}, 1);
  h = Open(three, 1);
  EXPECT_EQ(DBSetProductionIndex(h), DB_ERR_VERSION);
  DBCloseFile(h);
}

TEST_F(CreateOpenTest, OpenChecksDialectAgainstVersionAndModes) {
  std::string memo = Create("MEMO.DBF", {Field("A", 'C', 4), Field("M", 'M')}, 1);  // 0x83
  int32_t h = 7;
  EXPECT_EQ(DBOpenFile(&h, memo.c_str(), 8), DB_ERR_VERSION);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(DBOpenFile(&h, memo.c_str(), 10), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(DBOpenFile(&h, dir_.File("NONE.DBF").c_str(), 1), DB_ERR_OPEN);
  EXPECT_EQ(DBOpenFile(nullptr, memo.c_str(), 1), DB_ERR_NULL);
  EXPECT_EQ(DBOpenFile(&h, nullptr, 1), DB_ERR_NULL);
  ExpectNothingOpen();

  // Dialect 0 is opened as dialect 1.
  std::string zero = Create("ZERO.DBF", {Field("A", 'C', 4)}, 0);
  h = Open(zero, 0);
  DBFILEINFO zinfo{};
  DBGetFileInfo(h, &zinfo);
  EXPECT_EQ(zinfo.dialect, 1);
  DBCloseFile(h);

  // A file whose last descriptor slot starts with 0x0D opens as dialect 9.
  std::string nine = Create("NINE.DBF", {Field("A", 'C', 4), Field("B", 'N', 3)}, 9);
  h = Open(nine, 1);
  DBFILEINFO info{};
  DBGetFileInfo(h, &info);
  EXPECT_EQ(info.dialect, 9);
  DBRECORDINFO rec{};
  DBGetRecordInfo(h, &rec);
  EXPECT_EQ(rec.field_count, 2);
  DBCloseFile(h);

  // Read-only: writes refused; attribute bits reported.
  h = Open(memo, 1 | DB_OPEN_READONLY | DB_OPEN_AUTOLOCK);
  DBGetFileInfo(h, &info);
  EXPECT_EQ(info.attributes & 7u, 1u | 2u | 4u);  // 0x800 left 0x600 behind
  int32_t r = 0;
  EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBFlushFile(h), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBMarkRecordInActive(h, 1), DB_ERR_READ_ONLY);
  DBCloseFile(h);
  ExpectNothingOpen();
}

TEST_F(CreateOpenTest, HeaderWithTwoByteTerminatorOpensAndThreeIsRefused) {
  std::string path = Create("TERM.DBF", {Field("A", 'C', 4)}, 1);
  std::vector<uint8_t> b = ReadFileBytes(path);
  // 32n + 2: the header holds 0x0D and one more byte before the records.
  b.insert(b.begin() + 65, 0x00);
  b[8] = 66;
  WriteFileBytes(path, b);
  int32_t h = Open(path, 1);
  DBCloseFile(h);
  b.insert(b.begin() + 66, 0x00);
  b[8] = 67;
  WriteFileBytes(path, b);
  EXPECT_EQ(DBOpenFile(&h, path.c_str(), 1), DB_ERR_HEADER_LENGTH);
  EXPECT_EQ(h, -1);
  ExpectNothingOpen();
}

TEST_F(CreateOpenTest, CloseAndBadHandles) {
  std::string path = Create("H.DBF", {Field("A", 'C', 4)}, 1);
  int32_t h = Open(path, 1);
  ASSERT_EQ(DBCloseFile(h), 0);
  EXPECT_EQ(DBCloseFile(h), DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(DBGetRecord(h, 1), DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(DBFlushFile(-1), DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(DBGetFieldData(99, 0, nullptr), DB_ERR_INVALID_HANDLE);
  // DBTerminate closes what is still open.
  Open(path, 1 | DB_OPEN_SHARED);
  Open(path, 1 | DB_OPEN_READONLY | DB_OPEN_SHARED);
  EXPECT_EQ(DBTerminate(), 0);
  EXPECT_EQ(kestrel::testing::LiveAllocations(), 0);
  ASSERT_EQ(DBInitialize(25, 0), 0);
}

}  // namespace
}  // namespace kestrel::test
