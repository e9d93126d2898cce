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

// One record of the model: the values in normalised form and the memo text.
struct Row {
  bool deleted;
  std::string name;  // bytes (latin-1)
  Json amount, qty, day, ok, rate, big;
  std::string memo;  // empty: no memo
};

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
      {false, "Alpha", 12.5, 3, "20200102", true, 1.125, 123456789012.25, "first memo"},
      {false, "Beta \xE9", -0.25, -7, nullptr, false, -3.5, -1.5, ""},
      {false, "", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, ""},
      {true, "Gamma", 99999.99, 0, "19991231", true, 0.0, 0.0, "line1\r\nline2"},
      {false, "Delta", 0.0, 42, "20000229", false, 12345.678, 1e15, std::string(600, 'x')},
      {true, "Z  z", -999999.99, 999999, "19000101", nullptr, 0.001, -99.99, "third"},
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
        const Json* value = nullptr;
        if (name == "NAME") {
          if (!row.name.empty()) {
            ASSERT_GE(DBPutFieldData(h, f, row.name.c_str()), 0);
          }
          values[name] = Latin1(row.name);
          continue;
        }
        if (name == "LONGTXT") {
          const bool filled = r % 2 == 0;
          if (filled) {
            ASSERT_EQ(DBPutFieldData(h, f, LongText(r).c_str()), 0);
          }
          values[name] = filled ? LongText(r) : "";
          continue;
        }
        if (name == "NOTE") {
          if (!row.memo.empty()) {
            ASSERT_EQ(DBPutFieldData(h, f, &blocks[r]), 0);
          }
          values[name] = row.memo.empty() ? Json() : Json(row.memo);
          continue;
        }
        if (name == "AMOUNT") value = &row.amount;
        if (name == "QTY") value = &row.qty;
        if (name == "DAY") value = &row.day;
        if (name == "OK") value = &row.ok;
        if (name == "RATE") value = &row.rate;
        if (name == "BIG") value = &row.big;
        ASSERT_NE(value, nullptr) << name;
        values[name] = *value;
        if (value->is_null()) continue;
        if (specs[i].type == 'D') {
          ASSERT_EQ(DBPutFieldData(h, f, value->get<std::string>().c_str()), 0);
        } else if (specs[i].type == 'L') {
          uint8_t flag = value->get<bool>() ? 1 : 0;
          ASSERT_EQ(DBPutFieldData(h, f, &flag), 0);
        } else {
          double d = value->get<double>();
          ASSERT_EQ(DBPutFieldData(h, f, &d), 0) << name << " = " << d;
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

// Binary field codes 1..6: of the three readers only Perl XBase opens such a
// table; it reports the fields' codes and lengths (not their values), and
// reads the other fields and the deletion flags. The values are checked
// through the engine.
TEST(TableReadersBinaryTest, PerlXBaseSeesBinaryFieldDefinitions) {
  KESTREL_REQUIRE_CHECKER(Checker::kPerlXBase);
  ASSERT_GE(DBInitialize(64, 0), 0);
  TempDir dir;
  const std::string path = dir.File("binary.dbf");
  const struct {
    const char* name;
    int code;
    int length;
  } specs[] = {{"NAME", 'C', 8},
               {"DBL", DB_FTYPE_DOUBLE, 8},
               {"FLT", DB_FTYPE_FLOAT, 4},
               {"ULONG", DB_FTYPE_ULONG, 4},
               {"SLONG", DB_FTYPE_LONG, 4},
               {"USHORT", DB_FTYPE_USHORT, 2},
               {"SSHORT", DB_FTYPE_SHORT, 2}};
  std::vector<DBFIELD> fields;
  Json model = {{"fields", Json::array()}, {"records", Json::array()}};
  for (const auto& column : specs) {
    DBFIELD f{};
    std::snprintf(f.name, sizeof f.name, "%s", column.name);
    f.type = column.code;
    f.length = column.code == 'C' ? column.length : 1;  // the engine forces binary lengths
    fields.push_back(f);
    model["fields"].push_back({{"name", column.name},
                               {"type", std::string(1, static_cast<char>(column.code))},
                               {"length", column.length},
                               {"decimals", 0}});
  }
  ASSERT_EQ(DBCreateFile(path.c_str(), static_cast<int32_t>(fields.size()), fields.data(), 1), 0);
  for (size_t i = 1; i < fields.size(); ++i) EXPECT_EQ(fields[i].length, specs[i].length);
  int32_t h = -1;
  ASSERT_EQ(DBOpenFile(&h, path.c_str(), 1), 0);
  struct Values {
    const char* name;
    double d;
    float f;
    uint32_t u;
    int32_t l;
    uint16_t us;
    int16_t ss;
  } rows[] = {{"first", 1.5, -2.25f, 4000000000u, -5, 65535, -32768},
              {"second", -1e300, 3.0e38f, 0, 2147483647, 0, 32767},
              {"third", 0.0, 0.0f, 1, -2147483647 - 1, 1, -1}};
  for (const Values& v : rows) {
    ASSERT_EQ(DBClearBuffer(h), 0);
    ASSERT_EQ(DBPutFieldData(h, 0, v.name), 0);
    ASSERT_EQ(DBPutFieldData(h, 1, &v.d), 0);
    ASSERT_EQ(DBPutFieldData(h, 2, &v.f), 0);
    ASSERT_EQ(DBPutFieldData(h, 3, &v.u), 0);
    ASSERT_EQ(DBPutFieldData(h, 4, &v.l), 0);
    ASSERT_EQ(DBPutFieldData(h, 5, &v.us), 0);
    ASSERT_EQ(DBPutFieldData(h, 6, &v.ss), 0);
    int32_t recno = 0;
    ASSERT_EQ(DBPutRecord(h, &recno, DB_RECORD_APPEND), 0);
    model["records"].push_back(
        {{"recno", recno}, {"deleted", recno == 2}, {"values", {{"NAME", v.name}}}});
  }
  ASSERT_EQ(DBMarkRecordInActive(h, 2), 0);
  ASSERT_EQ(DBCloseFile(h), 0);

  ASSERT_EQ(DBOpenFile(&h, path.c_str(), 1 | DB_OPEN_READONLY), 0);
  for (int32_t recno = 1; recno <= 3; ++recno) {
    const Values& v = rows[recno - 1];
    ASSERT_GE(DBGetRecord(h, recno), 0);
    Values got{};
    ASSERT_EQ(DBGetFieldData(h, 1, &got.d), 0);
    ASSERT_EQ(DBGetFieldData(h, 2, &got.f), 0);
    ASSERT_EQ(DBGetFieldData(h, 3, &got.u), 0);
    ASSERT_EQ(DBGetFieldData(h, 4, &got.l), 0);
    ASSERT_EQ(DBGetFieldData(h, 5, &got.us), 0);
    ASSERT_EQ(DBGetFieldData(h, 6, &got.ss), 0);
    EXPECT_EQ(got.d, v.d);
    EXPECT_EQ(got.f, v.f);
    EXPECT_EQ(got.u, v.u);
    EXPECT_EQ(got.l, v.l);
    EXPECT_EQ(got.us, v.us);
    EXPECT_EQ(got.ss, v.ss);
  }
  EXPECT_EQ(DBCloseFile(h), 0);
  DBTerminate();

  Json perl = RunChecker(ReaderCommand(Checker::kPerlXBase, path));
  ASSERT_FALSE(perl.is_null());
  ExpectSameFields(model, perl, "Perl XBase, binary codes");
  ExpectSameRecords(model, perl, "Perl XBase, binary codes");
}

INSTANTIATE_TEST_SUITE_P(Dialects, TableReadersTest, ::testing::Range(0, 10),
                         [](const auto& info) { return "Dialect" + std::to_string(info.param); });

}  // namespace
}  // namespace kestrel::test
