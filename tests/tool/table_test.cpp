// The kestrel tool's table commands (info, dump) run as a separate process
// on a generated fixture, their output checked against the fixture's own
// record dump.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
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
  ProcessResult r = RunTool({"dump", "--format", "json", "--memo-blocks", table_});
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
  ProcessResult r = RunTool({"dump", "--memo-blocks", table_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  std::vector<std::string> lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 51u);
  EXPECT_EQ(lines[0], "recno,deleted,NAME,CITY,AGE,SALARY,HIRED,ACTIVE,NOTES");
  // Record 1 is blank, record 2 holds the widest values, record 7 is deleted.
  EXPECT_EQ(lines[1], "1,false,,,,,,,");
  EXPECT_EQ(lines[2], "2,false,ZZZZZZZZZZZZZZZZZZZZ,ZZZZZZZZZZZZZZZ,999,9999999.99,2099-12-31,T,1");
  EXPECT_EQ(lines[7].substr(0, 7), "7,true,");
}

// Numbers are exported as the digits stored, never through a double: an
// N(20) holds more digits than a double keeps.
TEST_F(TableToolTest, NumbersKeepTheirStoredDigits) {
  const std::string path = dir_.File("wide.dbf");
  ASSERT_GE(DBInitialize(16, 0), 0);
  DBFIELD fields[3] = {Field("BIG", 'N', 20), Field("FINE", 'N', 20, 18), Field("SMALL", 'F', 8, 2)};
  ASSERT_EQ(DBCreateFile(path.c_str(), 3, fields, DB_DIALECT_DBASE4), 0);
  int32_t h = -1;
  ASSERT_EQ(DBOpenFile(&h, path.c_str(), DB_DIALECT_DBASE4), 0);
  // The stored texts, as this or another program wrote them, and what CSV
  // and JSON must show.
  struct Row {
    const char* big;
    const char* fine;
    const char* small;
    const char* want;  // BIG,FINE,SMALL as CSV; JSON has the same number texts
  } rows[] = {
      {"12345678901234567890", "1.234567890123460000", "   -0.50",
       "12345678901234567890,1.234567890123460000,-0.50"},
      {"-1234567890123456789", "0.000000000000000001", "   +7.25",
       "-1234567890123456789,0.000000000000000001,7.25"},
      {"00000000000000000042", "   .5               ", "-.5     ", "42,0.5,-0.5"},
      {"   9007199254740993 ", "-0.00000000000000000", "1.5E+03 ",
       "9007199254740993,-0.00000000000000000,1.5e+03"},
  };
  for (const Row& row : rows) {
    ASSERT_GE(DBPutStrField(h, 0, row.big), 0);
    ASSERT_GE(DBPutStrField(h, 1, row.fine), 0);
    ASSERT_GE(DBPutStrField(h, 2, row.small), 0);
    AppendRecord(h);
  }
  ASSERT_EQ(DBCloseFile(h), 0);
  DBTerminate();

  ProcessResult csv = RunTool({"dump", path});
  ASSERT_EQ(csv.exit_code, 0) << csv.err;
  ProcessResult json = RunTool({"dump", "--format", "json", path});
  ASSERT_EQ(json.exit_code, 0) << json.err;
  std::vector<std::string> csv_lines = Lines(csv.out), json_lines = Lines(json.out);
  ASSERT_EQ(csv_lines.size(), std::size(rows) + 1);
  ASSERT_EQ(json_lines.size(), std::size(rows));
  for (size_t i = 0; i < std::size(rows); ++i) {
    const std::string want = rows[i].want;
    EXPECT_EQ(csv_lines[i + 1], std::to_string(i + 1) + ",false," + want);
    std::vector<std::string> numbers;
    std::istringstream parts(want);
    for (std::string part; std::getline(parts, part, ',');) numbers.push_back(part);
    const std::string json_want = "\"fields\":{\"BIG\":" + numbers[0] + ",\"FINE\":" + numbers[1] +
                                  ",\"SMALL\":" + numbers[2] + "}";
    EXPECT_NE(json_lines[i].find(json_want), std::string::npos) << json_lines[i];
    EXPECT_NO_THROW(Json::parse(json_lines[i])) << json_lines[i];
  }
}

// A header that claims more records than the file holds (up to 2^32 - 1,
// past what a signed count can show): every command says so and reads the
// records that are there; nothing prints -1 or an empty success.
TEST_F(TableToolTest, RecordCountsTheFileCannotHold) {
  for (uint32_t claimed : {51u, 0x80000000u, 0xFFFFFFFFu}) {
    std::vector<uint8_t> bytes = ReadFileBytes(table_);
    for (int i = 0; i < 4; ++i) bytes[4 + i] = static_cast<uint8_t>(claimed >> (8 * i));
    const std::string path = dir_.File("claims.dbf");
    WriteFileBytes(path, bytes);
    const std::string what = "claimed " + std::to_string(claimed);

    ProcessResult info = RunTool({"info", path});
    EXPECT_EQ(info.exit_code, 0) << what << info.err;
    EXPECT_NE(info.out.find("records:          " + std::to_string(claimed) + " (readable: 50)\n"),
              std::string::npos)
        << what << info.out;
    EXPECT_NE(info.err.find("the file holds 50"), std::string::npos) << what << info.err;

    for (const char* format : {"csv", "json"}) {
      ProcessResult dump = RunTool({"dump", "--memo-blocks", "--format", format, path});
      EXPECT_EQ(dump.exit_code, 1) << what;
      EXPECT_EQ(Lines(dump.out).size(), std::string(format) == "csv" ? 51u : 50u) << what;
      EXPECT_NE(dump.err.find("only 50 of the " + std::to_string(claimed)), std::string::npos)
          << what << dump.err;
    }

    ProcessResult locks = RunProcess({ToolPath(), "locks", path}, 20);
    EXPECT_EQ(locks.exit_code, 0) << what << locks.err;
    EXPECT_NE(locks.out.find(", 50 records,"), std::string::npos) << what << locks.out;
  }
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

  // Tables of other families are refused with what they are, not with the
  // engine's dBASE III message.
  struct Foreign {
    size_t offset;
    uint8_t byte;
    const char* says;
  } foreign[] = {
      {0, 0x30, "a Visual FoxPro table (0x30): not supported (-218)"},
      {0, 0x8C, "a dBASE 7 table (0x8C): not supported (-218)"},
      {32 + 2 * 32 + 11, '+', "field AGE has type '+' (autoincrement): not supported (-231)"},
  };
  for (const Foreign& f : foreign) {
    std::vector<uint8_t> bytes = ReadFileBytes(table_);
    bytes[f.offset] = f.byte;
    const std::string path = dir_.File("foreign.dbf");
    WriteFileBytes(path, bytes);
    ProcessResult r = RunTool({"info", path});
    EXPECT_EQ(r.exit_code, 1) << f.says;
    EXPECT_NE(r.err.find(f.says), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("dBaseIII"), std::string::npos) << r.err;
  }
}

}  // namespace
}  // namespace kestrel::test
