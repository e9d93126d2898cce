// Both memo formats in every layout through real files: round trips of every
// size class, where replaced memos go, zap, the memo lock between processes
// and handles, allocation failures, and the memo files DBTerminate closes.
#include <map>

#include "memo_test_util.h"
#include "support/child.h"

namespace kestrel::test {
namespace {

class FormatTest : public MemoTest, public ::testing::WithParamInterface<Layout> {
 protected:
  // Creates and opens a memo file of the layout.
  int32_t Make(const std::string& stem, int32_t mode = 0) {
    path_ = dir_.File(stem + GetParam().Extension());
    EXPECT_EQ(GetParam().Create(path_), 0);
    int32_t h = -1;
    EXPECT_EQ(GetParam().Open(&h, path_, mode), 0);
    return h;
  }
  uint32_t BlockSize() const {
    const Layout& l = GetParam();
    if (!l.fpt) return l.dialect == 2 ? 512u * static_cast<uint32_t>(l.arg) : 512u;
    return l.arg <= 32 ? 512u * static_cast<uint32_t>(l.arg) : static_cast<uint32_t>(l.arg);
  }
  // Where the first memo of a new file goes.
  uint32_t FirstBlock() const { return GetParam().fpt ? (BlockSize() + 511) / BlockSize() : 1; }
  // The bytes a memo takes besides its text: a block header, or the end marks.
  size_t Overhead() const { return GetParam().fpt || GetParam().dialect == 2 ? 8 : 2; }
  std::string path_;
};

TEST_P(FormatTest, RoundTripsOfEverySizeClass) {
  const Layout& l = GetParam();
  const size_t bs = BlockSize();
  const size_t overhead = Overhead();
  const size_t fixed[] = {
      1,      2,    bs - overhead - 1, bs - overhead, bs - overhead + 1, bs, 2 * bs - overhead,
      2 * bs, 20000};
  const size_t kFixed = sizeof fixed / sizeof fixed[0];
  std::mt19937 rng(7);
  int32_t h = Make("rt");
  // FPT: every fifth memo is a picture holding any byte value.
  std::map<uint32_t, std::pair<std::string, bool>> model;
  for (size_t i = 0; i < 120; ++i) {
    size_t n = i < kFixed ? fixed[i] : std::uniform_int_distribution<size_t>(1, 4000)(rng);
    std::string text = MemoText(rng, n);
    bool picture = l.fpt && i % 5 == 4;
    for (size_t k = 0; picture && k < text.size(); k += 7) text[k] = static_cast<char>(k & 0xFF);
    uint32_t b = 0;
    ASSERT_EQ(l.Put(h, &b, text, picture ? DB_FPT_PICTURE : 0), 0) << n;
    ASSERT_TRUE(model.emplace(b, std::make_pair(text, picture)).second) << "block twice: " << b;
    int32_t rc = 0;
    ASSERT_EQ(l.Get(h, b, &rc), text);  // readable through the same handle at once
  }
  ASSERT_EQ(l.Close(h), 0);
  ASSERT_EQ(l.Open(&h, path_, DB_OPEN_READONLY), 0);
  for (const auto& [b, entry] : model) {
    int32_t rc = 0;
    ASSERT_EQ(l.Get(h, b, &rc), entry.first) << "block " << b;
    ASSERT_EQ(rc, 0);
    // The read with a length gives the same bytes, and for FPT the type.
    int32_t type = -1;
    ASSERT_EQ(GetBytes(l.fpt, h, b, &rc, &type), entry.first) << "block " << b;
    ASSERT_EQ(rc, 0);
    if (l.fpt) {
      uint32_t length = 0;
      int32_t stored_type = -1;
      ASSERT_EQ(DBfpGetMemoType(h, b, &length, &stored_type), 0);
      EXPECT_EQ(stored_type, entry.second ? DB_FPT_TYPE_PICTURE : DB_FPT_TYPE_TEXT);
      EXPECT_EQ(type, stored_type);
    }
  }
  // The file ends in the block before the next free one.
  Layout::State state = l.StateOf(h);
  EXPECT_EQ(state.block_size, bs);
  size_t size = ReadFileBytes(path_).size();
  EXPECT_TRUE(size > (state.next_free - 1) * bs && size <= state.next_free * bs) << size;
  uint32_t b = 0;
  EXPECT_EQ(l.Put(h, &b, "x"), DB_ERR_READ_ONLY);
  EXPECT_EQ(l.Zap(h), DB_ERR_READ_ONLY);
  EXPECT_EQ(l.Close(h), 0);
}

// A replaced memo stays in its blocks while it fits and moves to the end
// when it does not, its neighbour untouched.  The run it leaves is reused
// first-fit in the dBASE IV layout and left behind in the others.
TEST_P(FormatTest, ReplacedMemosStayInPlaceWhenTheyFitOrMove) {
  const Layout& l = GetParam();
  const size_t two_blocks = 2 * BlockSize() - Overhead();
  int32_t h = Make("r");
  uint32_t a = 0, b = 0, moved = 0, next = 0;
  ASSERT_EQ(l.Put(h, &a, std::string(two_blocks, 'a')), 0);
  ASSERT_EQ(l.Put(h, &b, "b"), 0);
  EXPECT_EQ(b, a + 2);
  for (size_t size : {two_blocks - 5, two_blocks}) {
    uint32_t same = a;
    ASSERT_EQ(l.Put(h, &same, std::string(size, 'c'), DB_MEMO_REPLACE), 0) << size;
    EXPECT_EQ(same, a) << size;
  }
  moved = a;
  ASSERT_EQ(l.Put(h, &moved, std::string(two_blocks + 1, 'd'), DB_MEMO_REPLACE), 0);
  EXPECT_EQ(moved, b + 1);
  ASSERT_EQ(l.Put(h, &next, std::string(BlockSize() - Overhead(), 'e')), 0);
  EXPECT_EQ(next, !l.fpt && l.dialect == 2 ? a : moved + 3);
  int32_t rc = 0;
  EXPECT_EQ(l.Get(h, b, &rc), "b");
  EXPECT_EQ(l.Get(h, moved, &rc), std::string(two_blocks + 1, 'd'));
  EXPECT_EQ(l.Get(h, next, &rc), std::string(BlockSize() - Overhead(), 'e'));
  EXPECT_EQ(l.Close(h), 0);
}

TEST_P(FormatTest, ZapEmptiesTheFile) {
  const Layout& l = GetParam();
  int32_t h = Make("zap");
  const size_t empty = ReadFileBytes(path_).size();
  for (int i = 0; i < 5; ++i) {
    uint32_t b = 0;
    ASSERT_EQ(l.Put(h, &b, std::string(700, static_cast<char>('a' + i))), 0);
  }
  ASSERT_EQ(l.Zap(h), 0);
  EXPECT_EQ(ReadFileBytes(path_).size(), empty);
  EXPECT_EQ(l.StateOf(h).next_free, FirstBlock());
  uint32_t b = 0;
  ASSERT_EQ(l.Put(h, &b, "again"), 0);
  EXPECT_EQ(b, FirstBlock());
  int32_t rc = 0;
  EXPECT_EQ(l.Get(h, b, &rc), "again");
  EXPECT_EQ(l.Close(h), 0);
}

// The memo lock of a shared file: writes need it (automatic locking takes it
// for the one write), and while another process holds it nobody else gets
// it; an unlocked handle re-reads the header, the locking one appends after
// what the other wrote.
TEST_P(FormatTest, SharedWritesNeedTheMemoLock) {
  const Layout& l = GetParam();
  int32_t h = Make("sh", DB_OPEN_SHARED), automatic = -1;
  ASSERT_EQ(l.Open(&automatic, path_, DB_OPEN_AUTOLOCK), 0);
  uint32_t b = 0;
  EXPECT_EQ(l.Put(h, &b, "x"), DB_ERR_MUST_LOCK);
  EXPECT_EQ(l.Zap(h), DB_ERR_MUST_LOCK);
  Signal ready, done;
  Child child([&](ChildChecks& checks) {
    int32_t c = -1;
    CHILD_EQ(checks, l.Open(&c, path_, DB_OPEN_SHARED), 0);
    CHILD_EQ(checks, l.Lock(c), 0);
    CHILD_EQ(checks, l.Put(c, &b, "child"), 0);
    CHILD_EQ(checks, b, FirstBlock());
    ready.Send();
    done.Wait();
  });
  ASSERT_TRUE(ready.Wait());
  EXPECT_EQ(l.Lock(h), DB_ERR_LOCK_RETRIES);
  EXPECT_EQ(l.Put(automatic, &b, "blocked"), DB_ERR_LOCK_RETRIES);
  EXPECT_EQ(l.StateOf(automatic).locked, 0);  // the failed automatic lock is not kept
  int32_t rc = 0;
  EXPECT_EQ(l.Get(h, FirstBlock(), &rc), "child");
  done.Send();
  child.Join();
  ASSERT_EQ(l.Lock(h), 0);  // the child's lock went with it
  EXPECT_EQ(l.Lock(automatic), DB_ERR_LOCK_RETRIES);
  ASSERT_EQ(l.Put(h, &b, "mine"), 0);
  EXPECT_EQ(b, FirstBlock() + 1);
  ASSERT_EQ(l.Unlock(h), 0);
  ASSERT_EQ(l.Put(automatic, &b, "automatic"), 0);
  EXPECT_EQ(b, FirstBlock() + 2);
  EXPECT_EQ(l.Get(h, b, &rc), "automatic");
  EXPECT_EQ(l.Close(automatic), 0);
  EXPECT_EQ(l.Close(h), 0);
}

// The nth allocation fails: the call reports -203 and nothing leaks.
TEST_P(FormatTest, AllocationFailuresLeakNothing) {
  const Layout& l = GetParam();
  path_ = dir_.File("fault" + l.Extension());
  ASSERT_EQ(l.Create(path_), 0);
  const std::string big(5000, 'w');
  EXPECT_GT(FailEachAllocation(
                [&] {
                  int32_t h = -1;
                  uint32_t b = 0;
                  int32_t rc = l.Open(&h, path_);
                  if (rc == 0) rc = l.Put(h, &b, big, l.fpt ? 0 : 10);  // DBT: wrapped at 10
                  if (rc == 0) rc = l.Put(h, &b, big + big, DB_MEMO_REPLACE);
                  if (rc == 0) l.Get(h, b, &rc);
                  char* piece = nullptr;
                  if (rc == 0 && l.fpt &&
                      (rc = DBfpGetMemoRecord(h, b, &piece, 1000, DB_FPT_PIECES)) == 1) {
                    rc = 0;  // more pieces follow
                  }
                  if (h >= 0) l.Close(h);
                  return rc;
                },
                true),
            0);
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, FormatTest,
    ::testing::Values(Layout{"dbt_plain", false, 3, 1}, Layout{"dbt_dbase3", false, 1, 1},
                      Layout{"dbt_clipper", false, 6, 1}, Layout{"dbt_dbase4", false, 2, 1},
                      Layout{"dbt_dbase4_2k", false, 2, 4}, Layout{"fpt_64", true, 8, 64},
                      Layout{"fpt_33", true, 8, 33}, Layout{"fpt_100", true, 8, 100},
                      Layout{"fpt_512", true, 8, 1}, Layout{"fpt_2k", true, 8, 4}),
    [](const auto& info) { return std::string(info.param.name); });

// DBTerminate closes memo files left open through their close routines:
// afterwards the files open exclusively again and nothing is left allocated.
TEST(MemoTerminate, ClosesOpenMemoFiles) {
  TempDir dir;
  std::string dbt = dir.File("t.dbt"), fpt = dir.File("t.fpt");
  long live = kestrel::testing::LiveAllocations();
  ASSERT_EQ(DBInitialize(20, 0), 0);
  ASSERT_EQ(DBxbCreateMemo(dbt.c_str(), 1, 2), 0);
  ASSERT_EQ(DBfpCreateMemo(fpt.c_str(), 64), 0);
  int32_t a = -1, b = -1;
  ASSERT_EQ(DBxbOpenMemo(&a, dbt.c_str(), 2), 0);
  ASSERT_EQ(DBfpOpenMemo(&b, fpt.c_str(), 0), 0);
  EXPECT_EQ(DBxbOpenMemo(&a, dbt.c_str(), 2), DB_ERR_OPEN);  // held exclusively
  ASSERT_EQ(DBTerminate(), 0);
  EXPECT_EQ(kestrel::testing::LiveAllocations(), live);
  ASSERT_EQ(DBInitialize(20, 0), 0);
  EXPECT_EQ(DBxbOpenMemo(&a, dbt.c_str(), 2), 0);
  EXPECT_EQ(DBfpOpenMemo(&b, fpt.c_str(), 0), 0);
  DBTerminate();
}

}  // namespace
}  // namespace kestrel::test
