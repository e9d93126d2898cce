// Tables written by the engine in every dialect, read back by independent
// programs (python3-dbfread, python3-dbf, Perl XBase): the same field
// definitions, record values and deletion flags.
//
// Memo fields hold block numbers; so that the readers (some of which refuse
// a memo field without its memo file) can follow them, each table gets a
// memo file with a known text at each block.
#include <gtest/gtest.h>

#include <set>

#include "support/library.h"
#include "table_common.h"

namespace kestrel::test {
namespace {

struct FieldSpec {
  const char* name;
  char type;
  int length;
  int decimals;
};

// One record of the model: the values in normalised form (NAME as bytes,
// latin-1) and the memo text ("": no memo).
struct Row {
  bool deleted;
  std::string name;
  Json values;
  std::string memo;
};

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
      {false, "Alpha",
       {{"AMOUNT", 12.5}, {"QTY", 3}, {"DAY", "20200102"}, {"OK", true}, {"RATE", 1.125},
        {"BIG", 123456789012.25}},
       "first memo"},
      {false, "Beta \xE9",
       {{"AMOUNT", -0.25}, {"QTY", -7}, {"DAY", nullptr}, {"OK", false}, {"RATE", -3.5},
        {"BIG", -1.5}},
       ""},
      {false, "",
       {{"AMOUNT", nullptr}, {"QTY", nullptr}, {"DAY", nullptr}, {"OK", nullptr},
        {"RATE", nullptr}, {"BIG", nullptr}},
       ""},
      {true, "Gamma",
       {{"AMOUNT", 99999.99}, {"QTY", 0}, {"DAY", "19991231"}, {"OK", true}, {"RATE", 0.0},
        {"BIG", 0.0}},
       "line1\r\nline2"},
      {false, "Delta",
       {{"AMOUNT", 0.0}, {"QTY", 42}, {"DAY", "20000229"}, {"OK", false}, {"RATE", 12345.678},
        {"BIG", 1e15}},
       std::string(600, 'x')},
      {true, "Z  z",
       {{"AMOUNT", -999999.99}, {"QTY", 999999}, {"DAY", "19000101"}, {"OK", nullptr},
        {"RATE", 0.001}, {"BIG", -99.99}},
       "third"},
  };
  return rows;
}

bool AllowsFloat(int dialect) { return dialect == 2 || dialect == 4 || dialect == 8; }

std::vector<FieldSpec> FieldsFor(int dialect) {
  std::vector<FieldSpec> f = {{"NAME", 'C', 12, 0},
                              {"AMOUNT", 'N', 10, 2},
                              {"QTY", 'N', 6, 0},
                              {"DAY", 'D', 8, 0},
                              {"OK", 'L', 1, 0}};
  if (AllowsFloat(dialect)) {
    f.push_back({"RATE", 'F', 12, 3});
    f.push_back({"BIG", 'N', 20, 2});  // 20 digits: dBASE IV and FoxPro only
  }
  if (dialect == 6) f.push_back({"LONGTXT", 'C', 300, 0});  // Clipper's long character field
  // Dialect 0 writes version byte 0x03 even with a memo field, so readers
  // would not look for its memo file: it gets no memo field here.
  if (dialect != 0) f.push_back({"NOTE", 'M', 10, 0});
  return f;
}

std::string LongText(size_t row) {
  return "long text " + std::to_string(row) + std::string(280, '.') + "end";
}

// Writes the memo file beside the table through the engine (dBASE IV layout
// for dialect 2, FPT with 64-byte blocks for 4 and 8, the plain layout for
// the others) and returns the block of each row's memo (0: none).
std::vector<uint32_t> WriteMemoFile(int dialect, const std::string& table_path) {
  std::vector<uint32_t> blocks;
  if (dialect == 0) return blocks;
  const bool fpt = dialect == 4 || dialect == 8;
  const int32_t layout = dialect == 2 ? 2 : 1;
  const std::string memo = table_path.substr(0, table_path.size() - 4) + (fpt ? ".fpt" : ".dbt");
  int32_t m = -1;
  if (fpt) {
    EXPECT_EQ(DBfpCreateMemo(memo.c_str(), 64), 0);
    EXPECT_EQ(DBfpOpenMemo(&m, memo.c_str(), 0), 0);
  } else {
    EXPECT_EQ(DBxbCreateMemo(memo.c_str(), 1, layout), 0);
    EXPECT_EQ(DBxbOpenMemo(&m, memo.c_str(), layout), 0);
  }
  for (const Row& row : Rows()) {
    uint32_t block = 0;
    if (!row.memo.empty()) {
      const uint32_t n = static_cast<uint32_t>(row.memo.size());
      EXPECT_EQ(fpt ? DBfpPutMemoRecord(m, &block, row.memo.data(), n, 0, 0)
                    : DBxbPutMemoRecord(m, &block, row.memo.c_str(), 0),
                0);
    }
    blocks.push_back(block);
  }
  EXPECT_EQ(fpt ? DBfpCloseMemo(m) : DBxbCloseMemo(m), 0);
  return blocks;
}

// Puts a model value (null: left blank) into a D, L or numeric field.
int32_t PutValue(int32_t h, int field, char type, const Json& value) {
  if (value.is_null()) return 0;
  if (type == 'D') return DBPutFieldData(h, field, value.get<std::string>().c_str());
  if (type == 'L') {
    uint8_t flag = value.get<bool>() ? 1 : 0;
    return DBPutFieldData(h, field, &flag);
  }
  double d = value.get<double>();
  return DBPutFieldData(h, field, &d);
}

class TableReadersTest : public LibraryTest, public ::testing::WithParamInterface<int> {
 protected:
  TableReadersTest() : LibraryTest(64) {}
  void SetUp() override {
    LibraryTest::SetUp();
    DBSetDefaultDateStyle(DB_DATE_DBASE);
  }

  // Creates the table through the engine and returns the model, with memo
  // fields as texts (memo_as_text) or as block numbers.
  void WriteTable(int dialect, const std::string& path, Json* model_text, Json* model_blocks) {
    std::vector<FieldSpec> specs = FieldsFor(dialect);
    std::vector<DBFIELD> fields(specs.size());
    Json field_json = Json::array();
    for (size_t i = 0; i < specs.size(); ++i) {
      std::snprintf(fields[i].name, sizeof fields[i].name, "%s", specs[i].name);
      fields[i].type = specs[i].type;
      fields[i].length = specs[i].length;
      fields[i].decimals = specs[i].decimals;
      field_json.push_back({{"name", specs[i].name},
                            {"type", std::string(1, specs[i].type)},
                            {"length", specs[i].length},
                            {"decimals", specs[i].decimals}});
    }
    ASSERT_EQ(
        DBCreateFile(path.c_str(), static_cast<int32_t>(fields.size()), fields.data(), dialect), 0);
    std::vector<uint32_t> blocks = WriteMemoFile(dialect, path);

    int32_t h = -1;
    ASSERT_EQ(DBOpenFile(&h, path.c_str(), dialect), 0);
    *model_text = {{"fields", field_json}, {"records", Json::array()}};
    *model_blocks = *model_text;
    for (size_t r = 0; r < Rows().size(); ++r) {
      const Row& row = Rows()[r];
      ASSERT_EQ(DBClearBuffer(h), 0);
      Json values = Json::object();
      for (size_t i = 0; i < specs.size(); ++i) {
        const int f = static_cast<int>(i);
        const std::string name = specs[i].name;
        Json& value = values[name];
        if (name == "NAME") {
          value = Latin1(row.name);
          ASSERT_TRUE(row.name.empty() || DBPutFieldData(h, f, row.name.c_str()) >= 0);
        } else if (name == "LONGTXT") {  // filled in every other record
          value = r % 2 == 0 ? LongText(r) : "";
          ASSERT_TRUE(r % 2 || DBPutFieldData(h, f, LongText(r).c_str()) == 0);
        } else if (name == "NOTE") {
          value = row.memo.empty() ? Json() : Json(row.memo);
          ASSERT_TRUE(row.memo.empty() || DBPutFieldData(h, f, &blocks[r]) == 0);
        } else {
          value = row.values.at(name);
          ASSERT_EQ(PutValue(h, f, specs[i].type, value), 0) << name << " = " << value;
        }
      }
      int32_t recno = 0;
      ASSERT_EQ(DBPutRecord(h, &recno, DB_RECORD_APPEND), 0);
      ASSERT_EQ(recno, static_cast<int32_t>(r + 1));
      Json record = {{"recno", recno}, {"deleted", row.deleted}, {"values", values}};
      model_text->at("records").push_back(record);
      if (specs.back().type == 'M') {
        record["values"]["NOTE"] = row.memo.empty() ? Json() : Json(blocks[r]);
      }
      model_blocks->at("records").push_back(record);
    }
    for (size_t r = 0; r < Rows().size(); ++r) {
      if (Rows()[r].deleted) {
        ASSERT_EQ(DBMarkRecordInActive(h, static_cast<int32_t>(r + 1)), 0);
      }
    }
    ASSERT_EQ(DBCloseFile(h), 0);
  }
};

// Reader and dialect pairs that are known not to work, with the reason.
// Everything else must match.
const char* Unsupported(Checker checker, int dialect) {
  if (checker == Checker::kPythonDbf && dialect == 2) {
    return "python3-dbf refuses dBASE IV tables with memos (version byte 0x8B)";
  }
  if (checker == Checker::kPythonDbf && dialect == 6) {
    return "python3-dbf reads byte 17 of a C field as decimals, not as the high byte of a long "
           "Clipper character field";
  }
  return nullptr;
}

TEST_P(TableReadersTest, ReadersSeeWhatKestrelWrote) {
  const int dialect = GetParam();
  const std::string path = dir_.File("written.dbf");
  Json model_text, model_blocks;
  ASSERT_NO_FATAL_FAILURE(WriteTable(dialect, path, &model_text, &model_blocks));

  // The engine itself reads back what it wrote.
  Json own = KestrelDump(path, dialect);
  ExpectSameFields(model_blocks, own, "kestrel");
  ExpectSameRecords(model_blocks, own, "kestrel");

  int checked = 0;
  for (Checker checker : {Checker::kDbfread, Checker::kPythonDbf, Checker::kPerlXBase}) {
    KESTREL_REQUIRE_CHECKER(checker);
    const std::string what =
        std::string(CheckerName(checker)) + " on dialect " + std::to_string(dialect);
    if (const char* why = Unsupported(checker, dialect)) {
      std::cout << what << ": not compared (" << why << ")\n";
      continue;
    }
    Json got = RunChecker(ReaderCommand(checker, path));
    if (got.is_null()) continue;
    ExpectSameFields(model_text, got, what);
    ExpectSameRecords(model_text, got, what);
    ++checked;
  }
  EXPECT_GE(checked, 1) << "no independent reader compared dialect " << dialect;
}

template <class T>
std::string Bytes(T value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

// Binary field codes 1..6: of the three readers only Perl XBase opens such a
// table; it reports the fields' codes and lengths (not their values), and
// reads the other fields and the deletion flags.  The values read back
// through the engine byte for byte.
using TableReadersBinaryTest = LibraryTestOf<64>;

TEST_F(TableReadersBinaryTest, PerlXBaseSeesBinaryFieldDefinitions) {
  KESTREL_REQUIRE_CHECKER(Checker::kPerlXBase);
  const std::string path = dir_.File("binary.dbf");
  const int codes[] = {'C', DB_FTYPE_DOUBLE, DB_FTYPE_FLOAT, DB_FTYPE_ULONG,
                       DB_FTYPE_LONG, DB_FTYPE_USHORT, DB_FTYPE_SHORT};
  const int lengths[] = {8, 8, 4, 4, 4, 2, 2};
  const char* names[] = {"NAME", "DBL", "FLT", "ULONG", "SLONG", "USHORT", "SSHORT"};
  const std::vector<std::string> rows[] = {
      {"first", Bytes(1.5), Bytes(-2.25f), Bytes(4000000000u), Bytes(-5), Bytes(uint16_t{65535}),
       Bytes(int16_t{-32768})},
      {"second", Bytes(-1e300), Bytes(3.0e38f), Bytes(0u), Bytes(2147483647), Bytes(uint16_t{0}),
       Bytes(int16_t{32767})},
      {"third", Bytes(0.0), Bytes(0.0f), Bytes(1u), Bytes(-2147483647 - 1), Bytes(uint16_t{1}),
       Bytes(int16_t{-1})}};
  std::vector<DBFIELD> fields;
  Json model = {{"fields", Json::array()}, {"records", Json::array()}};
  for (int i = 0; i < 7; ++i) {
    fields.push_back(Field(names[i], codes[i], codes[i] == 'C' ? 8 : 1));  // binary lengths forced
    model["fields"].push_back({{"name", names[i]},
                               {"type", std::string(1, static_cast<char>(codes[i]))},
                               {"length", lengths[i]},
                               {"decimals", 0}});
  }
  ASSERT_EQ(DBCreateFile(path.c_str(), 7, fields.data(), 1), 0);
  for (int i = 1; i < 7; ++i) EXPECT_EQ(fields[i].length, lengths[i]) << names[i];
  int32_t h = Open(path, 1);
  for (const auto& row : rows) {
    ASSERT_EQ(DBClearBuffer(h), 0);
    for (int f = 0; f < 7; ++f) ASSERT_EQ(DBPutFieldData(h, f, row[f].data()), 0) << names[f];
    int32_t recno = 0;
    ASSERT_EQ(DBPutRecord(h, &recno, DB_RECORD_APPEND), 0);
    model["records"].push_back(
        {{"recno", recno}, {"deleted", recno == 2}, {"values", {{"NAME", row[0]}}}});
  }
  ASSERT_EQ(DBMarkRecordInActive(h, 2), 0);
  ASSERT_EQ(DBCloseFile(h), 0);
  h = Open(path, 1 | DB_OPEN_READONLY);
  for (int32_t recno = 1; recno <= 3; ++recno) {
    ASSERT_GE(DBGetRecord(h, recno), 0);
    for (int f = 1; f < 7; ++f) {
      char got[8] = {};
      ASSERT_EQ(DBGetFieldData(h, f, got), 0);
      EXPECT_EQ(std::string(got, static_cast<size_t>(lengths[f])), rows[recno - 1][f])
          << names[f] << " of record " << recno;
    }
  }
  EXPECT_EQ(DBCloseFile(h), 0);

  Json perl = RunChecker(ReaderCommand(Checker::kPerlXBase, path));
  ASSERT_FALSE(perl.is_null());
  ExpectSameFields(model, perl, "Perl XBase, binary codes");
  ExpectSameRecords(model, perl, "Perl XBase, binary codes");
}

INSTANTIATE_TEST_SUITE_P(Dialects, TableReadersTest, ::testing::Range(0, 10),
                         [](const auto& info) { return "Dialect" + std::to_string(info.param); });

}  // namespace
}  // namespace kestrel::test
