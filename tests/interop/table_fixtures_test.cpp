// Tables written by other xBase programs (tests/fixtures/tables, see its
// NOTICE) read by the engine: every record's deletion flag, raw image and
// converted values as the programs' own dumps give them; damaged and foreign
// files are refused with an error status.
#include <gtest/gtest.h>

#include <fstream>

#include "support/library.h"
#include "table_common.h"

namespace kestrel::test {
namespace {

std::string Fixture(const std::string& relative) {
  return std::string(KESTREL_TEST_FIXTURES) + "/tables/" + relative;
}

// The dialect a table's version byte calls for.
int DialectOf(const std::string& path) {
  std::vector<uint8_t> bytes = ReadFileBytes(path);
  if (bytes.empty()) return 1;
  if (bytes[0] == 0x8B) return 2;
  if (bytes[0] == 0xF5) return 8;
  return 1;
}

class TableFixturesTest : public LibraryTest {
 protected:
  TableFixturesTest() : LibraryTest(64) {}
  void SetUp() override {
    LibraryTest::SetUp();
    DBSetDefaultDateStyle(DB_DATE_DBASE);
  }
};

// ---- Sets written by a Clipper- and FoxPro-compatible system ----------------
// Their dumps keep every byte: C fields with their blanks, the whole record
// image (flag byte first), the memo field's 10 stored bytes.

void CheckGeneratedSet(const std::string& table) {
  const std::string path = Fixture("harbour/" + table + ".dbf");
  const Json raw = KestrelDump(path, DialectOf(path), true), blocks = KestrelDump(path, DialectOf(path));
  ASSERT_FALSE(raw.is_null() || blocks.is_null()) << table;
  std::ifstream lines(Fixture("harbour/" + table + ".records.jsonl"));
  size_t i = 0;
  for (std::string line; std::getline(lines, line); ++i) {
    const Json want = Json::parse(line);
    const std::string what = table + " record " + std::to_string(i + 1);
    ASSERT_LT(i, raw["records"].size()) << what;
    const Json& got = raw["records"][i];
    EXPECT_EQ(got["recno"], want["recno"]) << what;
    EXPECT_EQ(got["deleted"], want["deleted"]) << what;
    EXPECT_EQ(got["raw"], want["raw"]) << what << ": record image";
    for (const auto& [name, value] : want["fields"].items()) {
      EXPECT_TRUE(SameValue(got["values"][name], value))
          << what << " " << name << ": " << got["values"][name].dump();
    }
    // A memo field's 10 stored bytes, and the block number they give.
    const Json refs = want.value("memo_refs", Json::object());
    for (const auto& [name, stored] : refs.items()) {
      EXPECT_EQ(got["values"][name], stored) << what << " " << name;
      const std::string digits = RStrip(stored.get<std::string>().substr(
          std::min(stored.get<std::string>().find_first_not_of(' '), size_t{10})));
      EXPECT_EQ(blocks["records"][i]["values"][name],
                digits.empty() ? Json() : Json(std::stoul(digits)))
          << what << " " << name;
    }
  }
  EXPECT_EQ(i, raw["records"].size()) << table << ": records in the dump";
  EXPECT_GT(i, 0u);
}

TEST_F(TableFixturesTest, GeneratedDbase3Table) { CheckGeneratedSet("plain"); }
TEST_F(TableFixturesTest, GeneratedDbase3TableWithoutMemo) { CheckGeneratedSet("plainnm"); }
TEST_F(TableFixturesTest, GeneratedClipperTable) { CheckGeneratedSet("staff"); }
TEST_F(TableFixturesTest, GeneratedFoxProTable) { CheckGeneratedSet("fstaff"); }

// ---- Tables from public repositories ----------------------------------------
// Their dumps come from python3-dbfread: C without trailing blanks and NULs,
// N/F numbers or null, D "YYYY-MM-DD" or null, L true/false/null; a value the
// reader could not parse is an object and is not compared; memo texts are
// not compared (the table engine gives block numbers).

Json NormaliseDump(const Json& dump) {
  Json out;
  out["physical_order"] = true;
  out["fields"] = Json::array();
  std::map<std::string, std::string> types;
  for (const auto& f : dump["fields"]) {
    const std::string type = f["type"];
    const std::string name = f["name"];  // names as stored
    types[name] = type;
    Json field = f;
    field["name"] = name;
    if (type == "C") {
      field["length"] = f["length"].get<int>() + 256 * f["decimals"].get<int>();
      field["decimals"] = 0;
    }
    out["fields"].push_back(field);
  }
  out["records"] = Json::array();
  for (const auto& r : dump["records"]) {
    Json values = Json::object();
    for (auto it = r["values"].begin(); it != r["values"].end(); ++it) {
      const std::string name = it.key();
      const std::string& type = types[name];
      if (it.value().is_object() || type == "M") continue;
      Json v = it.value();
      if (type == "D" && v.is_string()) {
        std::string s = v;
        s.erase(std::remove(s.begin(), s.end(), '-'), s.end());
        v = s;
      }
      if (type == "C" && v.is_null()) v = "";
      values[name] = v;
    }
    // The engine counts every flag byte other than a blank as deleted; the
    // dump marks a flag that is neither blank nor "*" separately.
    const bool deleted = r["deleted"].get<bool>() || r.contains("flag");
    out["records"].push_back({{"recno", r["recno"]}, {"deleted", deleted}, {"values", values}});
  }
  return out;
}

TEST_F(TableFixturesTest, PublicTablesMatchTheirDumps) {
  const char* tables[] = {
      "dbfread_people.dbf",               // dBASE III, a deleted record
      "dbffile-js_PYACFL.DBF",            // 30 of 45 records deleted
      "fluxo-caixa-clipper_BANCO.DBF",    // Clipper header end (0D 00), D fields with decimals 2
      "fluxo-caixa-clipper_IMPRESS.DBF",  // a flag byte overwritten by 0x1A
      "ndbfreaderex_TEST1.DBF",           // no records
      "ndbfreaderex_TEST3.DBF",           // dBASE III
      "ndbfreaderex_TEST3C.DBF",          // the same table written by Clipper
      "ndbfreaderex_BDE_TEST_4_512.dbf",  // dBASE IV (0x8B) with a memo field
      "php-xbase_dBase_dBaseIV.dbf",      // dBASE IV with an F field and N20.4
      "dbase-rs_contain_null_padded_numeric.dbf",  // N50 padded with NULs
      "ruby-dbf_dbase_03.dbf",                     // 31 fields
      "ruby-dbf_dbase_8b.dbf",                     // dBASE IV with memo and F fields
      "php-xbase_foxpro_91.dbf",                   // FoxPro (0xF5), 108 fields, no records
      "php-xbase_foxpro_Foxpro2.dbf",              // FoxPro with a general (G) field
  };
  for (const char* name : tables) {
    SCOPED_TRACE(name);
    const std::string path = Fixture(std::string("realworld/") + name);
    Json expected = NormaliseDump(Json::parse(ReadFileText(path + ".expected.json")));
    Json got = KestrelDump(path, DialectOf(path));
    if (got.is_null()) continue;
    ExpectSameFields(expected, got, name);
    ExpectSameRecords(expected, got, name);
  }
}

// A FoxPro table with a character field of 300 bytes, stored as length byte
// 44 and high byte 1 (which python3-dbfread takes for 44 characters with one
// decimal, misreading every field after it). The record length (505) agrees
// with 300.
TEST_F(TableFixturesTest, LongCharacterFieldOfFoxProTable) {
  const std::string path = Fixture("realworld/php-xbase_foxpro_pr90.dbf");
  int32_t h = -1;
  ASSERT_EQ(DBOpenFile(&h, path.c_str(), DB_DIALECT_FOXPRO | DB_OPEN_READONLY), 0);
  DBFIELD note{};
  ASSERT_EQ(DBGetFieldDescription(h, 3, &note), 0);
  EXPECT_STREQ(note.name, "NOTE");
  EXPECT_EQ(note.length, 300);
  ASSERT_EQ(DBGetRecord(h, 2), 0);
  std::string digits;
  for (int i = 0; i < 30; ++i) digits += std::string(10, static_cast<char>('0' + (i % 10)));
  std::string text(301, '\0');
  ASSERT_EQ(DBGetFieldData(h, 3, text.data()), 0);
  EXPECT_EQ(text.substr(0, 300), digits);
  char due[DB_DATE_STR_SIZE + 1] = {};
  ASSERT_EQ(DBGetNamedData(h, "DUE", due), 0);  // the field right after the long one
  EXPECT_STREQ(due, "20070519");
  double account = 0;
  ASSERT_EQ(DBGetNamedData(h, "ACCOUNT", &account), 0);
  EXPECT_EQ(account, 10855);
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(TableFixturesTest, ForeignAndDamagedTablesAreRefused) {
  struct Case {
    const char* name;
    int32_t code;
  } cases[] = {
      // The header's record length leaves out the deletion flag byte.
      {"dbase-rs_stations_with_deleted.dbf", DB_ERR_RECORD_LENGTH},
      // Visual FoxPro (0x30) and dBASE 7 (0x04) tables, and a dBASE II file:
      // version bytes of formats this library does not read.
      {"dbfread_memotest.dbf", DB_ERR_VERSION},
      {"php-xbase_foxpro_currency.dbf", DB_ERR_VERSION},
      {"javadbf_test_delete.dbf", DB_ERR_VERSION},
      {"ruby-dbf_dbase_02.dbf", DB_ERR_VERSION},
      {"ruby-dbf_mazovia.dbf", DB_ERR_VERSION},
      // An 11-character field name ("value_f_non") fills the name slot with no
      // terminator.
      {"dbase-rs_contain_none_float.dbf", DB_ERR_FIELD_NAME},
  };
  for (const Case& c : cases) {
    const std::string path = Fixture(std::string("realworld/") + c.name);
    int32_t h = 5;
    EXPECT_EQ(DBOpenFile(&h, path.c_str(), DialectOf(path) | DB_OPEN_READONLY), c.code) << c.name;
    EXPECT_EQ(h, -1) << c.name;
  }
}

// ---- Damage: truncated files (bad header bytes: tests/table) ----------------

TEST_F(TableFixturesTest, TruncatedTableReadsWhatIsThereAndReportsTheRest) {
  const std::vector<uint8_t> whole = ReadFileBytes(Fixture("harbour/plainnm.dbf"));
  const size_t header = 226, record = 58;  // facts of plainnm.dbf
  ASSERT_EQ(whole.size(), header + 50 * record + 1);
  // Cut inside the header and the field descriptors: the open fails.
  for (size_t size : {size_t(0), size_t(1), size_t(31), size_t(32), size_t(100), size_t(200)}) {
    std::vector<uint8_t> part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
    const std::string path = dir_.File("cut" + std::to_string(size) + ".dbf");
    WriteFileBytes(path, part);
    int32_t h = 5;
    EXPECT_LT(DBOpenFile(&h, path.c_str(), 1 | DB_OPEN_READONLY), 0) << "cut at " << size;
    EXPECT_EQ(h, -1);
  }
  // Cut inside record 21: records 1..20 read whole, the cut one is an error.
  const size_t size = header + 20 * record + 17;
  std::vector<uint8_t> part(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
  const std::string path = dir_.File("records.dbf");
  WriteFileBytes(path, part);
  for (int mode : {1 | DB_OPEN_READONLY, 1 | DB_OPEN_READONLY | DB_OPEN_UNBUFFERED}) {
    int32_t h = -1;
    ASSERT_EQ(DBOpenFile(&h, path.c_str(), mode), 0);
    DBRECORDINFO info{};
    ASSERT_EQ(DBGetRecordInfo(h, &info), 0);
    // Buffered, records 17..24 share one cache window that comes up short:
    // the whole records in it must still read.
    const int32_t whole_records = 20;
    for (int32_t recno = 1; recno <= whole_records; ++recno) {
      ASSERT_GE(DBGetRecord(h, recno), 0) << recno;
      const auto* image = static_cast<const uint8_t*>(info.record_buffer);
      const size_t at = header + static_cast<size_t>(recno - 1) * record;
      EXPECT_TRUE(
          std::equal(image, image + record, whole.begin() + static_cast<std::ptrdiff_t>(at)))
          << "record " << recno << " mode " << std::hex << mode;
    }
    EXPECT_LT(DBGetRecord(h, 21), 0)
        << "a record cut short must not read as whole, mode " << std::hex << mode;
    EXPECT_LT(DBGetRecord(h, 50), 0)
        << "a record past the end of the file, mode " << std::hex << mode;
    EXPECT_EQ(DBCloseFile(h), 0);
  }
}

TEST_F(TableFixturesTest, HeaderWithoutRecordsOrTerminatorOpensButReadsNothing) {
  std::vector<uint8_t> bytes = ReadFileBytes(Fixture("harbour/plainnm.dbf"));
  bytes.resize(224);  // all six descriptors, no terminator, no records
  const std::string path = dir_.File("headonly.dbf");
  WriteFileBytes(path, bytes);
  int32_t h = -1;
  ASSERT_EQ(DBOpenFile(&h, path.c_str(), 1 | DB_OPEN_READONLY), 0);
  EXPECT_LT(DBGetRecord(h, 1), 0);
  EXPECT_LT(DBGetRecord(h, 50), 0);
  EXPECT_EQ(DBCloseFile(h), 0);
}

}  // namespace
}  // namespace kestrel::test
