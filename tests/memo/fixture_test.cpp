// Memo files written by other programs read as the expected dumps say.
#include <fstream>
#include <sstream>
#include <vector>

#include "memo_test_util.h"

namespace kestrel::test {
namespace {

struct Expected {
  int recno;
  uint32_t block;
  std::string text;
};

std::vector<Expected> LoadExpected(const std::string& name) {
  std::ifstream in(std::string(KESTREL_TEST_FIXTURES) + "/memo/" + name);
  std::vector<Expected> rows;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    Expected e{};
    std::string hex;
    fields >> e.recno >> e.block;
    std::getline(fields, hex);
    if (!hex.empty() && hex[0] == '\t') hex.erase(0, 1);
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
      e.text.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    rows.push_back(e);
  }
  return rows;
}

class FixtureTest : public MemoTest {};

TEST_F(FixtureTest, DbtFilesOfOtherPrograms) {
  struct Case {
    const char* file;
    int32_t dialect;
    size_t expected_rows;
  } cases[] = {{"staff.dbt", 6, 259},  {"plain.dbt", 1, 44}, {"dbase_83.dbt", 1, 67},
               {"dbase_8b.dbt", 2, 9}, {"client.dbt", 2, 6}, {"staff.dbt", 3, 259}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    auto rows = LoadExpected(std::string(c.file) + ".expected.tsv");
    ASSERT_EQ(rows.size(), c.expected_rows);
    std::string path = CopyFixture(std::string("memo/") + c.file, dir_);
    int32_t h = -1;
    ASSERT_EQ(DBxbOpenMemo(&h, path.c_str(), c.dialect | DB_OPEN_READONLY), 0);
    for (const Expected& e : rows) {
      int32_t rc = 0;
      EXPECT_EQ(GetDbt(h, e.block, &rc), e.text) << "record " << e.recno;
      EXPECT_EQ(rc, 0);
    }
    DBxbCloseMemo(h);
  }
}

TEST_F(FixtureTest, FptFilesOfOtherPrograms) {
  struct Case {
    const char* file;
    uint32_t block_size;
    size_t expected_rows;
  } cases[] = {{"fstaff.fpt", 64, 261},
               {"fstaf512.fpt", 512, 261},
               {"dbase_f5.fpt", 64, 211},
               {"memotest.fpt", 512, 3}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    auto rows = LoadExpected(std::string(c.file) + ".expected.tsv");
    ASSERT_EQ(rows.size(), c.expected_rows);
    std::string path = CopyFixture(std::string("memo/") + c.file, dir_);
    int32_t h = -1;
    ASSERT_EQ(DBfpOpenMemo(&h, path.c_str(), DB_OPEN_READONLY), 0);
    DBFPMEMOHEADER header{};
    ASSERT_EQ(DBfpGetMemoHeader(h, &header), 0);
    EXPECT_EQ(header.block_size, c.block_size);
    for (const Expected& e : rows) {
      int32_t rc = 0;
      EXPECT_EQ(GetFpt(h, e.block, &rc), e.text) << "record " << e.recno;
      EXPECT_EQ(rc, 0);
    }
    DBfpCloseMemo(h);
  }
}

// The writer stores even its binary memos (records 13 and 26: every byte
// value) with the text type word; lengths and types come from the headers.
TEST_F(FixtureTest, MemoTypesAndLengths) {
  std::string path = CopyFixture("memo/fstaff.fpt", dir_);
  int32_t h = -1;
  ASSERT_EQ(DBfpOpenMemo(&h, path.c_str(), DB_OPEN_READONLY), 0);
  for (const Expected& e : LoadExpected("fstaff.fpt.expected.tsv")) {
    uint32_t length = 0;
    int32_t type = -1;
    ASSERT_EQ(DBfpGetMemoType(h, e.block, &length, &type), 0);
    EXPECT_EQ(length, e.text.size());
    EXPECT_EQ(type, DB_FPT_TYPE_TEXT) << e.recno;
    if (e.recno == 13) {
      EXPECT_EQ(length, 256u);
    }
  }
  DBfpCloseMemo(h);
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
