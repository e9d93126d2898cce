// kestrel memo: one memo printed raw, found through the table's companion
// memo file.
#include <map>
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

}  // namespace
}  // namespace kestrel::test
