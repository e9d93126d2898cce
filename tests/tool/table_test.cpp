// The kestrel tool's table commands (info, dump) run as a separate process
// on a generated fixture, their output checked against the fixture's own
// record dump.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "interop/table_common.h"
#include "support/library.h"

namespace kestrel::test {
namespace {

class TableToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KESTREL_REQUIRE_TOOL();
    table_ = CopyFixture("tables/harbour/plain.dbf", dir_);
  }
  std::vector<Json> Expected() {
    std::vector<Json> rows;
    std::ifstream in(std::string(KESTREL_TEST_FIXTURES) + "/tables/harbour/plain.records.jsonl");
    std::string line;
    while (std::getline(in, line)) rows.push_back(Json::parse(line));
    return rows;
  }
  TempDir dir_;
  std::string table_;
};

TEST_F(TableToolTest, InfoShowsHeaderAndFields) {
  ProcessResult r = RunTool({"info", table_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  const std::string& out = r.out;
  EXPECT_NE(out.find("dialect:          1 (dBASE III), guessed from the version byte"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("version byte:     0x83\n"), std::string::npos) << out;
  EXPECT_NE(out.find("last update:      2024-01-15\n"), std::string::npos) << out;
  EXPECT_NE(out.find("records:          50\n"), std::string::npos) << out;
  EXPECT_NE(out.find("header length:    258\n"), std::string::npos) << out;
  EXPECT_NE(out.find("record length:    68\n"), std::string::npos) << out;
  EXPECT_NE(out.find("memo field:       yes\n"), std::string::npos) << out;
  // name, type, length, decimals, offset of every field.
  const char* rows[] = {"1 NAME C 20 0 1",    "2 CITY C 15 0 21", "3 AGE N 3 0 36",
                        "4 SALARY N 10 2 39", "5 HIRED D 8 0 49", "6 ACTIVE L 1 0 57",
                        "7 NOTES M 10 0 58"};
  std::vector<std::string> fields;
  for (const std::string& line : Lines(out)) {
    std::string squeezed = std::regex_replace(line, std::regex("\\s+"), " ");
    if (!squeezed.empty() && squeezed[0] == ' ') squeezed.erase(0, 1);
    fields.push_back(squeezed);
  }
  for (const char* row : rows) {
    EXPECT_NE(std::find(fields.begin(), fields.end(), row), fields.end()) << row << "\n" << out;
  }
}

TEST_F(TableToolTest, JsonDumpMatchesTheRecords) {
  ProcessResult r = RunTool({"dump", "--format", "json", table_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::vector<std::string> lines = Lines(r.out);
  std::vector<Json> want = Expected();
  ASSERT_EQ(lines.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    Json got = Json::parse(lines[i]);
    const Json& w = want[i];
    const std::string what = "record " + std::to_string(i + 1);
    EXPECT_EQ(got["recno"], w["recno"]) << what;
    EXPECT_EQ(got["deleted"], w["deleted"]) << what;
    const Json& g = got["fields"];
    EXPECT_EQ(g["NAME"], RStrip(w["fields"]["NAME"].get<std::string>())) << what;
    EXPECT_EQ(g["CITY"], RStrip(w["fields"]["CITY"].get<std::string>())) << what;
    // Blank numbers, dates and logicals are null in the dump; the fixture
    // writer reads them as 0, "" and false.
    const std::string raw = w["raw"];
    const bool age_blank = raw.substr(36, 3) == "   ";
    if (age_blank) {
      EXPECT_TRUE(g["AGE"].is_null()) << what;
    } else {
      EXPECT_TRUE(SameValue(g["AGE"], w["fields"]["AGE"])) << what;
    }
    if (raw.substr(39, 10) != std::string(10, ' ')) {
      EXPECT_TRUE(SameValue(g["SALARY"], w["fields"]["SALARY"])) << what;
    }
    const std::string hired = w["fields"]["HIRED"];
    if (hired.empty()) {
      EXPECT_TRUE(g["HIRED"].is_null()) << what;
    } else {
      EXPECT_EQ(g["HIRED"], hired.substr(0, 4) + "-" + hired.substr(4, 2) + "-" + hired.substr(6))
          << what;
    }
    if (raw[57] == ' ') {
      EXPECT_TRUE(g["ACTIVE"].is_null()) << what;
    } else {
      EXPECT_EQ(g["ACTIVE"], w["fields"]["ACTIVE"]) << what;
    }
    const std::string ref = w["memo_refs"]["NOTES"];
    if (ref == std::string(10, ' ')) {
      EXPECT_TRUE(g["NOTES"].is_null()) << what;
    } else {
      EXPECT_EQ(g["NOTES"], std::stoul(ref)) << what;
    }
  }
}

TEST_F(TableToolTest, CsvDumpHasHeaderAndOneLinePerRecord) {
  ProcessResult r = RunTool({"dump", table_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 51u);
  EXPECT_EQ(lines[0], "recno,deleted,NAME,CITY,AGE,SALARY,HIRED,ACTIVE,NOTES");
  // Record 1 is blank, record 2 holds the widest values, record 7 is deleted.
  EXPECT_EQ(lines[1], "1,false,,,,,,,");
  EXPECT_EQ(lines[2], "2,false,ZZZZZZZZZZZZZZZZZZZZ,ZZZZZZZZZZZZZZZ,999,9999999.99,2099-12-31,T,1");
  EXPECT_EQ(lines[7].substr(0, 7), "7,true,");
}

// A dBASE IV N20 field holds whole numbers beyond 64-bit integers: JSON
// prints them as floating-point numbers, small ones as integers.
TEST_F(TableToolTest, JsonDumpOfWideNumbers) {
  const std::string path = dir_.File("wide.dbf");
  ASSERT_GE(DBInitialize(16, 0), 0);
  DBFIELD fields[2] = {Field("BIG", 'N', 20), Field("SMALL", 'N', 5)};
  ASSERT_EQ(DBCreateFile(path.c_str(), 2, fields, DB_DIALECT_DBASE4), 0);
  int32_t h = -1;
  ASSERT_EQ(DBOpenFile(&h, path.c_str(), DB_DIALECT_DBASE4), 0);
  const double big = 12345678901234567890.0;
  const double small = -42;
  ASSERT_EQ(DBPutFieldData(h, 0, &big), 0);
  ASSERT_EQ(DBPutFieldData(h, 1, &small), 0);
  int32_t recno = 0;
  ASSERT_EQ(DBPutRecord(h, &recno, DB_RECORD_APPEND), 0);
  ASSERT_EQ(DBCloseFile(h), 0);
  DBTerminate();

  ProcessResult r = RunTool({"dump", "--format", "json", path});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  Json got = Json::parse(r.out);
  ASSERT_TRUE(got["fields"]["BIG"].is_number_float()) << r.out;
  EXPECT_TRUE(SameValue(got["fields"]["BIG"], big)) << r.out;
  EXPECT_TRUE(got["fields"]["SMALL"].is_number_integer()) << r.out;
  EXPECT_EQ(got["fields"]["SMALL"], -42) << r.out;
}

TEST_F(TableToolTest, ErrorsPrintTheLibraryMessageAndExitOne) {
  ProcessResult missing = RunTool({"info", dir_.File("nothing.dbf")});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_NE(missing.err.find("kestrel: cannot open"), std::string::npos) << missing.err;
  EXPECT_NE(missing.err.find("ERROR - "), std::string::npos) << missing.err;

  // A dBASE III table (0x83) opened as FoxPro is refused by the engine.
  ProcessResult wrong = RunTool({"dump", "--dialect", "8", table_});
  EXPECT_EQ(wrong.exit_code, 1);
  EXPECT_NE(wrong.err.find("ERROR - invalid dBaseIII version (-218)"), std::string::npos)
      << wrong.err;
  EXPECT_TRUE(wrong.out.empty());
}

}  // namespace
}  // namespace kestrel::test
