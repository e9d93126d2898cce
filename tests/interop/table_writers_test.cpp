// Tables written by independent programs (python3-dbf, Perl XBase) read by
// the engine: the same field definitions, values and deletion flags; memo
// fields give block numbers that point at the memo texts the writer stored.
#include <gtest/gtest.h>

#include "support/library.h"
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

uint32_t LoadBE32(const std::vector<uint8_t>& b, size_t at) {
  return uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 | b[at + 3];
}

// The memo text stored at `block`, as the writer's memo file holds it.
std::string MemoAt(const std::vector<uint8_t>& memo, bool foxpro, uint32_t block, size_t size) {
  size_t start;
  if (foxpro) {
    const size_t block_size = size_t(memo[6]) << 8 | memo[7];
    start = block * block_size + 8;
    if (start > memo.size()) return "<beyond the memo file>";
    const uint32_t length = LoadBE32(memo, start - 4);
    size = std::min<size_t>(length, memo.size() - start);
  } else {
    start = size_t(block) * 512;
    if (start > memo.size()) return "<beyond the memo file>";
    size = std::min(size, memo.size() - start);
  }
  return std::string(memo.begin() + static_cast<std::ptrdiff_t>(start),
                     memo.begin() + static_cast<std::ptrdiff_t>(start + size));
}

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
  const std::vector<uint8_t> memo =
      ReadFileBytes(dir_.File(std::string("other") + c.memo_extension));
  ASSERT_FALSE(memo.empty()) << "the writer made no memo file";
  const bool foxpro = std::string(c.memo_extension) == ".fpt";
  ASSERT_EQ(got["records"].size(), written["records"].size());
  int memos = 0;
  for (size_t i = 0; i < written["records"].size(); ++i) {
    const Json& text = written["records"][i]["values"]["NOTE"];
    const Json& block = got["records"][i]["values"]["NOTE"];
    if (text.is_null() || text.get<std::string>().empty()) {
      // No memo, or (python3-dbf) a block holding an empty text.
      if (block.is_number() && block != 0) {
        const std::string stored = MemoAt(memo, foxpro, block.get<uint32_t>(), 1);
        EXPECT_TRUE(stored.empty() || stored == "\x1a")
            << c.label << " record " << i + 1 << ": block " << block << " holds a text";
      }
      continue;
    }
    ASSERT_TRUE(block.is_number()) << c.label << " record " << i + 1;
    const std::string want = text.get<std::string>();
    EXPECT_EQ(MemoAt(memo, foxpro, block.get<uint32_t>(), want.size()), want)
        << c.label << " record " << i + 1 << " block " << block;
    ++memos;
  }
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
