// Memo files written by other programs read as the expected dumps say (the
// fixtures with tables of their own are read through the table engine by
// the interop tests), and block sizes outside the accepted range.
#include "memo_test_util.h"

namespace kestrel::test {
namespace {

class FixtureTest : public MemoTest {};

TEST_F(FixtureTest, MemoFilesOfOtherPrograms) {
  struct Case {
    const char* file;
    int32_t dialect;  // DBT dialect; 0 for FPT
    size_t rows;
  } cases[] = {{"dbase_83.dbt", 1, 67},
               {"dbase_8b.dbt", 2, 9},
               {"client.dbt", 2, 6},
               {"dbase_f5.fpt", 0, 211},
               {"memotest.fpt", 0, 3}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    const Layout l{c.file, c.dialect == 0, c.dialect, 1};
    std::string path = CopyFixture(std::string("memo/") + c.file, dir_);
    int32_t h = -1;
    ASSERT_EQ(l.Open(&h, path, DB_OPEN_READONLY), 0);
    const std::vector<ExpectedMemo> memos =
        ReadExpectedMemos(std::string("memo/") + c.file + ".expected.tsv");
    for (const auto& [recno, block, text] : memos) {
      int32_t rc = 0;
      EXPECT_EQ(l.Get(h, block, &rc), text) << "record " << recno;
      EXPECT_EQ(rc, 0);
      uint32_t length = 0;
      int32_t type = -1;
      if (l.fpt && DBfpGetMemoType(h, block, &length, &type) == 0) {
        EXPECT_EQ(type, DB_FPT_TYPE_TEXT) << "record " << recno;
      }
    }
    EXPECT_EQ(memos.size(), c.rows);
    l.Close(h);
  }
}

TEST_F(FixtureTest, BlockSizesOutsideTheAcceptedRange) {
  int32_t h = 5;
  std::string fpt = CopyFixture("memo/vfp9_memo_bs1.fpt", dir_);
  EXPECT_EQ(DBfpOpenMemo(&h, fpt.c_str(), DB_OPEN_READONLY), DB_ERR_PAGE_SIZE);
  EXPECT_EQ(h, -1);
  std::string dbt = CopyFixture("memo/bde_test_4_64.dbt", dir_);
  EXPECT_EQ(DBxbOpenMemo(&h, dbt.c_str(), 2 | DB_OPEN_READONLY), DB_ERR_PAGE_SIZE);
  EXPECT_EQ(h, -1);
  // The plain layout has no block size of its own: it reads 512-byte blocks.
  EXPECT_EQ(DBxbOpenMemo(&h, dbt.c_str(), 3 | DB_OPEN_READONLY), 0);
  DBxbCloseMemo(h);
}

}  // namespace
}  // namespace kestrel::test
