// kestrel memo: one memo printed raw, found through the table's companion
// memo file.
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/library.h"

namespace kestrel::test {
namespace {

std::map<int, std::string> ExpectedMemos(const std::string& name) {
  std::map<int, std::string> out;
  for (const ExpectedMemo& m : ReadExpectedMemos("memo/" + name)) out[m.recno] = m.text;
  return out;
}

TEST(MemoTool, PrintsOneMemoRaw) {
  KESTREL_REQUIRE_TOOL();
  TempDir dir;
  for (const char* f : {"staff.dbf", "staff.dbt", "fstaff.dbf", "fstaff.fpt"}) {
    CopyFixture(std::string("memo/") + f, dir);
  }
  auto staff = ExpectedMemos("staff.dbt.expected.tsv");
  for (int recno : {2, 3, 39, 78, 298}) {
    ASSERT_TRUE(staff.count(recno)) << recno;
    ProcessResult r = RunTool({"memo", dir.File("staff.dbf"), "NOTES", std::to_string(recno)});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_EQ(r.out, staff[recno]) << "record " << recno;
  }
  // Record 39 holds a soft line break; the switch removes it.
  ASSERT_NE(staff[39].find("\x8D\n"), std::string::npos);
  ProcessResult soft = RunTool({"memo", dir.File("staff.dbf"), "notes", "39", "--no-soft-breaks"});
  EXPECT_EQ(soft.exit_code, 0);
  EXPECT_EQ(soft.out.find('\x8D'), std::string::npos);
  EXPECT_EQ(soft.out.size(), staff[39].size() - 2);

  auto fstaff = ExpectedMemos("fstaff.fpt.expected.tsv");
  ProcessResult fox = RunTool({"memo", dir.File("fstaff.dbf"), "6", "13"});
  EXPECT_EQ(fox.exit_code, 0) << fox.err;
  EXPECT_EQ(fox.out, fstaff[13]);  // every byte value

  // A record without a memo prints nothing; a field that is no memo fails.
  ProcessResult none = RunTool({"memo", dir.File("staff.dbf"), "NOTES", "1"});
  EXPECT_EQ(none.exit_code, 0);
  EXPECT_EQ(none.out, "");
  ProcessResult bad = RunTool({"memo", dir.File("staff.dbf"), "NAME", "1"});
  EXPECT_EQ(bad.exit_code, 1);
  EXPECT_NE(bad.err.find("-231"), std::string::npos);
}

// kestrel dump shows the text of memo fields when the memo file is there.
TEST(MemoTool, DumpShowsMemoText) {
  KESTREL_REQUIRE_TOOL();
  TempDir dir;
  CopyFixture("memo/staff.dbf", dir);
  CopyFixture("memo/staff.dbt", dir);
  auto staff = ExpectedMemos("staff.dbt.expected.tsv");
  ProcessResult r = RunTool({"dump", "--format", "json", dir.File("staff.dbf")});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  int checked = 0;
  for (const std::string& line : Lines(r.out)) {
    auto j = nlohmann::json::parse(line);
    int recno = j["recno"];
    auto it = staff.find(recno);
    const auto& notes = j["fields"]["NOTES"];
    if (it == staff.end() || it->second.empty()) {
      EXPECT_TRUE(notes.is_null()) << recno;
      continue;
    }
    bool ascii = true;
    for (unsigned char c : it->second) ascii = ascii && c < 0x80;
    if (!ascii) continue;
    EXPECT_EQ(notes, it->second) << recno;
    ++checked;
  }
  EXPECT_GT(checked, 200);
}

std::string Base64(const std::string& bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t n = static_cast<uint8_t>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) n |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) n |= static_cast<uint8_t>(bytes[i + 2]);
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(n >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kAlphabet[n & 63] : '=';
  }
  return out;
}

class MemoExportTest : public LibraryTest {
 protected:
  void SetUp() override {
    KESTREL_REQUIRE_TOOL();
    LibraryTest::SetUp();
  }
  // A table NAME C(8), NOTES M, and for FoxPro PIC G, one record per entry
  // of refs: the memo references stored as text ("" = blank).
  std::string MakeTable(const std::string& name, int32_t dialect,
                        const std::vector<std::vector<std::string>>& refs) {
    const std::string path = dir_.File(name);
    std::vector<DBFIELD> fields = {Field("NAME", 'C', 8), Field("NOTES", 'M'), Field("PIC", 'G')};
    if (dialect != DB_DIALECT_FOXPRO) fields.pop_back();
    EXPECT_EQ(
        DBCreateFile(path.c_str(), static_cast<int32_t>(fields.size()), fields.data(), dialect), 0);
    int32_t h = -1;
    EXPECT_EQ(DBOpenFile(&h, path.c_str(), dialect), 0);
    for (size_t r = 0; r < refs.size(); ++r) {
      EXPECT_EQ(DBClearBuffer(h), 0);
      EXPECT_GE(DBPutStrField(h, 0, ("rec" + std::to_string(r + 1)).c_str()), 0);
      for (size_t f = 0; f < refs[r].size(); ++f) {
        EXPECT_GE(DBPutStrField(h, static_cast<int32_t>(f + 1), refs[r][f].c_str()), 0);
      }
      AppendRecord(h);
    }
    EXPECT_EQ(DBCloseFile(h), 0);
    return path;
  }
};

// Memos are exported whole: a plain DBT memo of 100,000 bytes (beyond what
// one text read takes), binary memos with zero bytes (FPT text and picture
// memos, a G field) in base64 for JSON and as bytes in CSV and in
// `kestrel memo`.
TEST_F(MemoExportTest, LongAndBinaryMemosWhole) {
  // Plain DBT written by hand: the library's writer keeps to 64 KB.
  std::string long_text;
  for (int i = 0; long_text.size() < 100000; ++i) long_text += "line " + std::to_string(i) + "\r\n";
  long_text.resize(100000);
  std::vector<uint8_t> dbt(512, 0);
  std::vector<uint8_t> memo1(long_text.begin(), long_text.end());
  memo1.insert(memo1.end(), {0x1A, 0x1A});
  memo1.resize((memo1.size() + 511) / 512 * 512, 0);
  dbt.insert(dbt.end(), memo1.begin(), memo1.end());
  const uint32_t second = static_cast<uint32_t>(dbt.size() / 512);
  for (char c : std::string("short, \"quoted\"")) dbt.push_back(static_cast<uint8_t>(c));
  dbt.insert(dbt.end(), {0x1A, 0x1A});
  dbt[0] = static_cast<uint8_t>(second + 1);
  std::string dbf =
      MakeTable("long.dbf", DB_DIALECT_DBASE3, {{"1"}, {std::to_string(second)}, {""}});
  WriteFileBytes(dir_.File("long.dbt"), dbt);

  ProcessResult json = RunTool({"dump", "--format", "json", dbf});
  ASSERT_EQ(json.exit_code, 0) << json.err;
  std::vector<std::string> rows = Lines(json.out);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(nlohmann::json::parse(rows[0])["fields"]["NOTES"], long_text);
  EXPECT_EQ(nlohmann::json::parse(rows[1])["fields"]["NOTES"], "short, \"quoted\"");
  EXPECT_TRUE(nlohmann::json::parse(rows[2])["fields"]["NOTES"].is_null());
  ProcessResult csv = RunTool({"dump", dbf});
  ASSERT_EQ(csv.exit_code, 0) << csv.err;
  EXPECT_NE(csv.out.find("\n1,false,rec1,\"" + long_text + "\"\n"), std::string::npos);
  EXPECT_NE(csv.out.find("\n2,false,rec2,\"short, \"\"quoted\"\"\"\n"), std::string::npos);
  ProcessResult one = RunTool({"memo", dbf, "NOTES", "1"});
  EXPECT_EQ(one.exit_code, 0) << one.err;
  EXPECT_EQ(one.out, long_text);

  // FoxPro: a text memo holding a zero byte and a picture in a G field.
  const std::string text_with_zero("abc\0def", 7), picture("\xFF\xD8\x00\x1A\x10JFIF\x00", 10);
  const std::string fpt = dir_.File("fox.fpt");
  ASSERT_EQ(DBfpCreateMemo(fpt.c_str(), 64), 0);
  int32_t m = -1;
  ASSERT_EQ(DBfpOpenMemo(&m, fpt.c_str(), 0), 0);
  uint32_t b1 = 0, b2 = 0;
  ASSERT_EQ(DBfpPutMemoRecord(m, &b1, text_with_zero.data(), 7, 0, 0), 0);
  ASSERT_EQ(DBfpPutMemoRecord(m, &b2, picture.data(), 10, 0, DB_FPT_PICTURE), 0);
  ASSERT_EQ(DBfpCloseMemo(m), 0);
  std::string fox =
      MakeTable("fox.dbf", DB_DIALECT_FOXPRO, {{std::to_string(b1), std::to_string(b2)}});
  json = RunTool({"dump", "--format", "json", fox});
  ASSERT_EQ(json.exit_code, 0) << json.err;
  auto row = nlohmann::json::parse(json.out)["fields"];
  EXPECT_EQ(row["NOTES"], nlohmann::json({{"base64", Base64(text_with_zero)}})) << json.out;
  EXPECT_EQ(row["PIC"], nlohmann::json({{"base64", Base64(picture)}})) << json.out;
  csv = RunTool({"dump", fox});
  ASSERT_EQ(csv.exit_code, 0) << csv.err;
  EXPECT_EQ(Lines(csv.out).back(), "1,false,rec1," + text_with_zero + "," + picture);
  for (const auto& [field, bytes] :
       {std::pair{"NOTES", text_with_zero}, std::pair{"PIC", picture}}) {
    ProcessResult raw = RunTool({"memo", fox, field, "1"});
    EXPECT_EQ(raw.exit_code, 0) << raw.err;
    EXPECT_EQ(raw.out, bytes) << field;
  }
}

// Memo problems are errors, not block numbers or another record's memo: a
// missing memo file, one the table cannot read, a reference of 2^32 or more,
// a block past the end.  The rows before the failing one are whole, nothing
// of the failing row is written; --memo-blocks prints the numbers instead.
TEST_F(MemoExportTest, MemoProblemsAreErrors) {
  const std::string dbt = dir_.File("bad.dbt");
  ASSERT_EQ(DBxbCreateMemo(dbt.c_str(), 1, 2), 0);
  int32_t m = -1;
  ASSERT_EQ(DBxbOpenMemo(&m, dbt.c_str(), 2), 0);
  uint32_t b = 0;
  ASSERT_EQ(DBxbPutMemoRecord(m, &b, "first memo", 0), 0);
  ASSERT_EQ(DBxbCloseMemo(m), 0);
  const std::vector<uint8_t> good = ReadFileBytes(dbt);
  struct Case {
    std::string ref;  // record 2's reference
    bool memo_file;
    int dbt_block_size;  // 0: as written
    const char* says;
  } cases[] = {
      {"4294967298", true, 0, "(-206)"},
      {"99", true, 0, "(-204)"},
      {"1", false, 0, "memo file that is not there"},
      {"1", true, 64, "(-249)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ref + " " + c.says);
    std::filesystem::remove(dbt);
    std::string dbf = MakeTable("bad.dbf", DB_DIALECT_DBASE4, {{std::to_string(b)}, {c.ref}, {""}});
    if (c.memo_file) {
      std::vector<uint8_t> bytes = good;
      if (c.dbt_block_size) bytes[20] = static_cast<uint8_t>(c.dbt_block_size), bytes[21] = 0;
      WriteFileBytes(dbt, bytes);
    }
    for (const char* format : {"csv", "json"}) {
      ProcessResult r = RunTool({"dump", "--format", format, dbf});
      EXPECT_EQ(r.exit_code, 1) << format;
      EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
      std::vector<std::string> lines = Lines(r.out);
      const bool csv = std::string(format) == "csv";
      // The header (CSV) and the rows before the failing one, each line
      // complete: record 1 when the memo file is usable, none otherwise.
      const bool usable = c.memo_file && c.dbt_block_size == 0;
      ASSERT_EQ(lines.size(), (csv ? 1u : 0u) + (usable ? 1u : 0u)) << r.out;
      EXPECT_TRUE(r.out.empty() || r.out.back() == '\n');
      if (usable) {
        EXPECT_NE(lines.back().find("first memo"), std::string::npos) << lines.back();
      }
    }
    ProcessResult memo = RunTool({"memo", dbf, "NOTES", "2"});
    EXPECT_EQ(memo.exit_code, 1);
    EXPECT_EQ(memo.out, "");
    ProcessResult blocks = RunTool({"dump", "--memo-blocks", dbf});
    EXPECT_EQ(blocks.exit_code, c.ref.size() > 9 ? 1 : 0) << blocks.err;  // 2^32 + 2 is no number
    if (blocks.exit_code == 0) {
      EXPECT_EQ(Lines(blocks.out)[2], "2,false,rec2," + c.ref);
    }
  }
}

}  // namespace
}  // namespace kestrel::test
