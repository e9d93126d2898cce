// Damaged and hostile table files, and memory shortage at every allocation:
// each gives its error, leaves nothing open and nothing allocated.
#include <cstdio>
#include <filesystem>
#include <functional>
#include <random>

#include "table_fixture.h"

namespace kestrel::test {
namespace {

class HostileFilesTest : public TableTest {
 protected:
  // A two-field table with three records.
  std::string Good(const std::string& name, int dialect = 1) {
    std::string path = Create(name, {Field("NAME", 'C', 5), Field("QTY", 'N', 4, 1)}, dialect);
    int32_t h = Open(path, dialect);
    for (const char* text : {"one", "two", "three"}) {
      DBPutStrField(h, 0, text);
      AppendRecord(h);
    }
    EXPECT_EQ(DBCloseFile(h), 0);
    return path;
  }
  void ExpectRefused(const std::string& path, int32_t mode, int32_t code, const char* what) {
    int32_t h = 5;
    EXPECT_EQ(DBOpenFile(&h, path.c_str(), mode), code) << what;
    EXPECT_EQ(h, -1) << what;
    ExpectNothingOpen();
  }
};

TEST_F(HostileFilesTest, DamagedHeadersGiveTheirErrors) {
  const std::string path = Good("BAD.DBF");
  const std::vector<uint8_t> good = ReadFileBytes(path);  // header 97, record 10
  struct Case {
    const char* what;
    std::function<void(std::vector<uint8_t>&)> damage;
    int32_t mode;
    int32_t code;
  };
  const Case cases[] = {
      {"empty file", [](auto& b) { b.clear(); }, 1, DB_ERR_READ},
      {"descriptors cut", [](auto& b) { b.resize(70); }, 1, DB_ERR_READ},
      {"header length 31", [](auto& b) { b[8] = 31, b[9] = 0; }, 1, DB_ERR_HEADER_LENGTH},
      {"header length 33", [](auto& b) { b[8] = 33, b[9] = 0; }, 1, DB_ERR_HEADER_LENGTH},
      {"header length beyond the file", [](auto& b) { b[8] = 0x01, b[9] = 0xF0; }, 1, DB_ERR_READ},
      {"fox version in dBASE", [](auto& b) { b[0] = 0xF5; }, 1, DB_ERR_VERSION},
      {"production flag 2", [](auto& b) { b[28] = 2; }, 8, DB_ERR_MDX_FLAG},
      {"record length long", [](auto& b) { b[10] = 11; }, 1, DB_ERR_RECORD_LENGTH},
      {"record length 0", [](auto& b) { b[10] = 0, b[11] = 0; }, 1, DB_ERR_RECORD_LENGTH},
      {"field length grown", [](auto& b) { b[32 + 16] = 200; }, 1, DB_ERR_RECORD_LENGTH},
      {"memo without memo version", [](auto& b) { b[64 + 11] = 'M'; }, 1, DB_ERR_VERSION},
      {"month 13", [](auto& b) { b[2] = 13; }, 1, DB_ERR_CHANGE_DATE},
      {"day 0", [](auto& b) { b[3] = 0; }, 1, DB_ERR_CHANGE_DATE},
      {"type X in the first field", [](auto& b) { b[32 + 11] = 'X'; }, 1, DB_ERR_FIELD_TYPE},
      {"field name without terminator",
       [](auto& b) { std::fill(b.begin() + 32, b.begin() + 43, 'A'); }, 1, DB_ERR_FIELD_NAME},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> b = good;
    c.damage(b);
    WriteFileBytes(path, b);
    ExpectRefused(path, c.mode, c.code, c.what);
  }
  // Production flag 2 is only checked in dialects 2 and 8.
  std::vector<uint8_t> b = good;
  b[28] = 2;
  WriteFileBytes(path, b);
  int32_t h = Open(path, 1);
  DBCloseFile(h);
  ExpectNothingOpen();
}

// Random damage to the header and descriptors: whatever an open says, it
// must not crash, and a table that opens must read every record and field.
TEST_F(HostileFilesTest, RandomHeaderDamageNeverCrashes) {
  std::vector<DBFIELD> fields = {Field("NAME", 'C', 5), Field("QTY", 'N', 4, 1), Field("OK", 'L'),
                                 Field("DAY", 'D'),     Field("MEMO", 'M'),      Field("I16", 6)};
  const std::string path = Create("FUZZ.DBF", fields, 6);
  int32_t h = Open(path, 6);
  for (int i = 0; i < 3; ++i) {
    DBPutStrField(h, 0, "abc");
    DBPutStrField(h, 2, "T");
    DBPutStrField(h, 3, "20240229");
    AppendRecord(h);
  }
  ASSERT_EQ(DBCloseFile(h), 0);
  const std::vector<uint8_t> good = ReadFileBytes(path);
  const size_t header = 32 * fields.size() + 33;
  std::mt19937 rng(1234);
  int opened = 0;
  for (int i = 0; i < 3000; ++i) {
    std::vector<uint8_t> b = good;
    int hits = 1 + static_cast<int>(rng() % 4);
    for (int k = 0; k < hits; ++k) b[rng() % header] = static_cast<uint8_t>(rng());
    if (rng() % 8 == 0) b.resize(rng() % b.size());
    // A new file each time: rewriting one file in place makes the file
    // system flush it on every close.
    std::string name = dir_.File("F" + std::to_string(i) + ".DBF");
    WriteFileBytes(name, b);
    int32_t h = -1;
    int32_t rc = DBOpenFile(&h, name.c_str(), static_cast<int32_t>(rng() % 10) | DB_OPEN_READONLY);
    std::remove(name.c_str());
    if (rc != 0) {
      ASSERT_LT(rc, 0);
      ASSERT_EQ(h, -1);
      continue;
    }
    ++opened;
    DBRECORDINFO info{};
    DBGetRecordInfo(h, &info);
    uint32_t count = 0;
    DBGetRecordCount(h, &count);
    std::vector<uint8_t> out(70000);
    for (int32_t r = 1; r <= static_cast<int32_t>(std::min(count, 50u)); ++r) {
      if (DBGetRecord(h, r) < 0) continue;
      for (int32_t f = 0; f < info.field_count; ++f) {
        DBGetFieldData(h, f, out.data());
        DBGetStrField(h, f, reinterpret_cast<char*>(out.data()));
      }
    }
    ASSERT_EQ(DBCloseFile(h), 0);
  }
  EXPECT_GT(opened, 10);
  ExpectNothingOpen();
}

// Fields of length 0 (a damaged descriptor whose record length agrees) read
// and write nothing outside the record.
TEST_F(HostileFilesTest, ZeroLengthFieldsStayInsideTheRecord) {
  const std::string path =
      Create("ZERO.DBF", {Field("NAME", 'C', 5), Field("N", 'N', 3), Field("OK", 'L')}, 1);
  std::vector<uint8_t> b = ReadFileBytes(path);
  b[64 + 16] = 0;  // N length 0
  b[96 + 16] = 0;  // L length 0
  b[10] = 6;       // record length: flag + C5
  WriteFileBytes(path, b);
  int32_t h = Open(path, 1);
  uint8_t out[16] = {7, 7};
  EXPECT_EQ(DBGetFieldData(h, 2, out), 0);
  EXPECT_EQ(out[0], 7);
  double v = 1;
  EXPECT_EQ(DBGetFieldData(h, 1, &v), 0);
  EXPECT_EQ(DBPutFieldData(h, 2, "T"), 0);
  v = 5;
  EXPECT_EQ(DBPutFieldData(h, 1, &v), DB_ERR_BAD_DATA);
  DBSetErrorCode(0);
  EXPECT_EQ(DBIsFieldBlank(h, 2), 0);  // returns the current code
  DBCloseFile(h);
}

// A date field whose descriptor says 12 bytes opens (the records follow the
// descriptors), but a pack cannot make a work table of that layout: it
// refuses with -232 and leaves the table as it was (found by fuzzing: the
// copy wrote whole source records into the shorter work records).
TEST_F(HostileFilesTest, PackRefusesFieldLengthsItCannotRecreate) {
  const std::string path = Create("ODD.DBF", {Field("NAME", 'C', 5), Field("DAY", 'D')}, 1);
  std::vector<uint8_t> b = ReadFileBytes(path);
  b[64 + 16] = 12;  // DAY length 12
  b[10] = 18;       // record length: flag + C5 + 12
  WriteFileBytes(path, b);
  int32_t h = Open(path, 1);
  for (const char* text : {"one", "two", "three"}) {
    ASSERT_EQ(DBPutStrField(h, 0, text), 0);
    AppendRecord(h);
  }
  ASSERT_EQ(DBMarkRecordInActive(h, 2), 0);
  ASSERT_EQ(DBFlushFile(h), 0);
  const std::vector<uint8_t> before = ReadFileBytes(path);
  int32_t packed = h;
  EXPECT_EQ(DBPackFile(&packed), DB_ERR_RECORD_LENGTH);
  EXPECT_EQ(packed, h);
  EXPECT_EQ(ReadFileBytes(path), before);
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::path(path).parent_path() / "0.DBF"));
  char name[8] = {};
  ASSERT_EQ(DBGetRecord(h, 3), 0);
  ASSERT_EQ(DBGetStrField(h, 0, name), 0);
  EXPECT_STREQ(name, "three");
  EXPECT_EQ(DBCloseFile(h), 0);
}

// A damaged deleted-record chain: a head beyond the table is refused, a
// chain that loops ends the walk instead of hanging.
TEST_F(HostileFilesTest, DamagedReuseChainsNeitherHangNorWriteOutside) {
  const std::string path = Good("CHAIN.DBF");  // header 97, record length 10
  std::vector<uint8_t> b = ReadFileBytes(path);
  b[16] = 9;  // head: record 9 of 3
  WriteFileBytes(path, b);
  int32_t h = Open(path, 1 | DB_OPEN_REUSE);
  int32_t r = 0;
  EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), DB_ERR_CORRUPTED);
  DBCloseFile(h);
  b[16] = 1;  // head: record 1, which links to itself
  b[97] = '*';
  b[98] = 1, b[99] = 0, b[100] = 0, b[101] = 0;
  b[107] = '*';  // record 2 deleted but not in the chain
  WriteFileBytes(path, b);
  h = Open(path, 1 | DB_OPEN_REUSE);
  EXPECT_EQ(DBMarkRecordActive(h, 2), 0);
  EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), 0);
  EXPECT_EQ(r, 1);
  uint32_t count = 0;
  DBGetRecordCount(h, &count);
  EXPECT_EQ(count, 3u);
  DBCloseFile(h);
  ExpectNothingOpen();
}

TEST_F(HostileFilesTest, EveryAllocationFailureDuringOpenCreateAndAppend) {
  const std::string path = Good("MEM.DBF");
  int32_t h = 3;
  const int failures = FailEachAllocation([&] {
    const int32_t rc = DBOpenFile(&h, path.c_str(), 1);
    EXPECT_EQ(h < 0, rc < 0);
    return rc;
  });
  EXPECT_GE(failures, 4);  // block, cache, record buffer, descriptors, name
  DBCloseFile(h);
  std::vector<DBFIELD> fields = {Field("A", 'C', 5), Field("B", 'N', 5)};
  FailEachAllocation(
      [&] { return DBCreateFile(dir_.File("NEW.DBF").c_str(), 2, fields.data(), 1); });
  for (int32_t mode : {0, DB_OPEN_UNBUFFERED, DB_OPEN_REUSE}) {
    h = Open(path, 1 | mode);
    int32_t r = 0;
    FailEachAllocation([&] { return DBPutRecord(h, &r, DB_RECORD_APPEND); });
    DBCloseFile(h);
  }
  ExpectNothingOpen();
}

}  // namespace
}  // namespace kestrel::test
