// Tables written by independent programs (python3-dbf, Perl XBase) read by
// the engine: the same field definitions, values and deletion flags; memo
// fields give block numbers that point at the memo texts the writer stored.
#include <gtest/gtest.h>

#include "memo/memo_test_util.h"
#include "table_common.h"

namespace kestrel::test {
namespace {

struct WriterCase {
  const char* label;
  Checker checker;
  const char* kind;  // python3-dbf table type or Perl XBase version byte
  int dialect;       // the dialect the engine opens the result with
  const char* memo_extension;
  int32_t open_status = 0;  // what DBOpenFile must return
};

class TableWritersTest : public LibraryTest, public ::testing::WithParamInterface<WriterCase> {
 protected:
  TableWritersTest() : LibraryTest(64) {}
};

TEST_P(TableWritersTest, KestrelReadsWhatTheyWrote) {
  const WriterCase& c = GetParam();
  KESTREL_REQUIRE_CHECKER(c.checker);
  const std::string path = dir_.File("other.dbf");
  std::vector<std::string> argv =
      c.checker == Checker::kPythonDbf
          ? std::vector<std::string>{kPython, InteropScript("write_pydbf.py"), path, c.kind}
          : std::vector<std::string>{kPerl, InteropScript("write_xbase.pl"), path, c.kind};
  Json written = RunChecker(argv);
  ASSERT_FALSE(written.is_null());

  if (c.open_status != 0) {
    int32_t h = 5;
    EXPECT_EQ(DBOpenFile(&h, path.c_str(), c.dialect | DB_OPEN_READONLY), c.open_status);
    EXPECT_EQ(h, -1);
    return;
  }
  Json got = KestrelDump(path, c.dialect);
  ASSERT_FALSE(got.is_null());
  ExpectSameFields(written, got, c.label);
  ExpectSameRecords(written, got, c.label, {"NOTE"});

  // Memo fields: a block number wherever the writer stored a text, and the
  // text sits at that block of the writer's memo file.
  const bool fpt = std::string(c.memo_extension) == ".fpt";
  const Layout memo{"", fpt, fpt ? 8 : 1, fpt ? 0 : 1};
  int32_t m = -1;
  ASSERT_EQ(memo.Open(&m, dir_.File(std::string("other") + c.memo_extension), DB_OPEN_READONLY), 0);
  ASSERT_EQ(got["records"].size(), written["records"].size());
  int memos = 0;
  for (size_t i = 0; i < written["records"].size(); ++i) {
    const Json& text = written["records"][i]["values"]["NOTE"];
    const Json& block = got["records"][i]["values"]["NOTE"];
    const std::string want = text.is_null() ? "" : text.get<std::string>();
    // No memo: no block, or (python3-dbf) a block holding an empty text.
    if (want.empty() && (!block.is_number() || block == 0)) continue;
    ASSERT_TRUE(block.is_number()) << c.label << " record " << i + 1;
    int32_t rc = 0;
    EXPECT_EQ(memo.Get(m, block.get<uint32_t>(), &rc), want)
        << c.label << " record " << i + 1 << " block " << block;
    memos += !want.empty();
  }
  memo.Close(m);
  EXPECT_GE(memos, 3);
}

INSTANTIATE_TEST_SUITE_P(
    Writers, TableWritersTest,
    ::testing::Values(WriterCase{"python3-dbf dBASE III", Checker::kPythonDbf, "db3", 1, ".dbt"},
                      WriterCase{"python3-dbf Clipper", Checker::kPythonDbf, "clp", 6, ".dbt"},
                      // python3-dbf pads a FoxPro header with a 263-byte area after
                      // the terminator (header length 520): the engine accepts only
                      // header lengths of 32n+0..2 and refuses the table.
                      WriterCase{"python3-dbf FoxPro", Checker::kPythonDbf, "fp", 8, ".fpt",
                                 DB_ERR_HEADER_LENGTH},
                      WriterCase{"Perl XBase dBASE III", Checker::kPerlXBase, "3", 1, ".dbt"},
                      WriterCase{"Perl XBase FoxPro", Checker::kPerlXBase, "245", 8, ".fpt"}),
    [](const auto& info) {
      std::string name;
      for (const char* p = info.param.label; *p; ++p) {
        if (std::isalnum(static_cast<unsigned char>(*p))) name += *p;
      }
      return name;
    });

}  // namespace
}  // namespace kestrel::test
