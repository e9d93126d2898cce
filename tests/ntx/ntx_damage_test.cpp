// Damaged index files: every kind of broken page gives an error status from
// the engine and a finding from the checker, never a crash or a hang.
#include <cstring>
#include <filesystem>

#include "index/clipper/ntx_format.h"
#include "ntx_test_util.h"
#include "util/coding.h"

namespace kestrel::test {
namespace {

class NtxDamageTest : public NtxTest {
 protected:
  // An index of 600 keys (C(10): 50 per page, three levels), closed.
  void SetUp() override {
    NtxTest::SetUp();
    path_ = dir_.File("d.ntx");
    int32_t h = CreateOpen("d.ntx", 'C', 10);
    for (int i = 0; i < 600; ++i) {
      char k[11];
      std::snprintf(k, sizeof k, "K%04d", (i * 7919) % 600);
      ASSERT_EQ(DBclAddKey(h, k, i + 1), 0);
    }
    ASSERT_EQ(DBclCloseIndex(h), 0);
    good_ = ReadFileBytes(path_);
    root_ = LoadLE32(&good_[ntx::kHdrRoot]);
  }

  uint32_t ItemOffset(const std::vector<uint8_t>& b, uint32_t page, int i) {
    return page + LoadLE16(&b[page + ntx::kPageTable + 2 * i]);
  }
  uint32_t Child(const std::vector<uint8_t>& b, uint32_t page, int i) {
    return LoadLE32(&b[ItemOffset(b, page, i)]);
  }
  uint32_t FirstLeaf() {
    uint32_t page = root_;
    while (Child(good_, page, 0) != 0) page = Child(good_, page, 0);
    return page;
  }

  // Writes the damaged bytes, opens, walks and searches: the first error.
  int32_t Exercise(const std::vector<uint8_t>& bytes) {
    WriteFileBytes(path_, bytes);
    int32_t h = -1;
    int32_t rc = DBclOpenIndex(&h, path_.c_str(), 0);
    if (rc < 0) return rc;
    char key[11];
    int32_t rec = 0;
    int32_t first_error = 0;
    int steps = 0;
    for (rc = DBclGoFirstKey(h, key, &rec); rc == 0 && steps < 10000; ++steps) {
      rc = DBclGoNextKey(h, key, &rec);
    }
    if (rc < 0) first_error = rc;
    std::strcpy(key, "K0300");
    rc = DBclKeySearch(h, key, &rec, 1);
    if (rc < 0 && first_error == 0) first_error = rc;
    for (int i = 0; i < 100 && first_error == 0; ++i) {
      rc = DBclAddKey(h, "NEW", 1000 + i);
      if (rc < 0) first_error = rc;
    }
    DBclCloseIndex(h);
    return first_error;
  }

  std::string path_;
  std::vector<uint8_t> good_;
  uint32_t root_ = 0;
};

TEST_F(NtxDamageTest, ChildOffsetOutsideTheFile) {
  auto bad = good_;
  StoreLE32(&bad[ItemOffset(bad, root_, 1)], 0x7FFFFC00u);
  EXPECT_EQ(Exercise(bad), DB_ERR_SEEK);
  EXPECT_NE(FileFindings(path_).find("outside the file"), std::string::npos);
  bad = good_;
  StoreLE32(&bad[ItemOffset(bad, root_, 0)], root_ + 17);  // not a page boundary
  EXPECT_EQ(Exercise(bad), DB_ERR_SEEK);
}

TEST_F(NtxDamageTest, CountLargerThanAPageHolds) {
  auto bad = good_;
  StoreLE16(&bad[FirstLeaf()], 60);
  EXPECT_EQ(Exercise(bad), DB_ERR_CORRUPTED);
  EXPECT_NE(FileFindings(path_).find("exceeds the page capacity"), std::string::npos);
}

TEST_F(NtxDamageTest, OffsetTablePointingOutsideThePage) {
  auto bad = good_;
  StoreLE16(&bad[FirstLeaf() + ntx::kPageTable + 2 * 3], 1020);
  EXPECT_EQ(Exercise(bad), DB_ERR_CORRUPTED);
  EXPECT_NE(FileFindings(path_).find("points outside"), std::string::npos);
  // Two entries naming the same item: the checker sees it.
  bad = good_;
  uint32_t leaf = FirstLeaf();
  StoreLE16(&bad[leaf + ntx::kPageTable + 2], LoadLE16(&bad[leaf + ntx::kPageTable]));
  WriteFileBytes(path_, bad);
  EXPECT_NE(FileFindings(path_).find("not a permutation"), std::string::npos);
}

TEST_F(NtxDamageTest, PageThatLostItsCount) {
  // Each reader must call these files corrupt, not empty or shorter.
  auto zero_root = good_;
  StoreLE16(&zero_root[root_], 0);  // the root still names its first child
  auto cut_root = good_;
  int n = LoadLE16(&good_[root_]);
  StoreLE16(&cut_root[root_], static_cast<uint16_t>(n + 1));  // the item after the last child
  auto cut_leaf = good_;
  StoreLE32(&cut_leaf[ItemOffset(cut_leaf, root_, n)], 0);  // the last child link lost
  struct Case {
    const char* what;
    const std::vector<uint8_t>& bytes;
    const char* finding;
  } cases[] = {
      {"root count 0", zero_root, "empty root page with a child"},
      {"root count past its children", cut_root, "unlike item 0"},
      {"root's last child lost", cut_leaf, "unlike item 0"},
  };
  for (const Case& c : cases) {
    WriteFileBytes(path_, c.bytes);
    EXPECT_NE(FileFindings(path_).find(c.finding), std::string::npos) << c.what;
    int32_t h = -1;
    ASSERT_EQ(DBclOpenIndex(&h, path_.c_str(), 0), 0) << c.what;
    char key[11] = "K0300";
    int32_t rec = 0, percent = 0;
    EXPECT_EQ(DBclGoFirstKey(h, key, &rec), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclGoLastKey(h, key, &rec), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclGoNextKey(h, key, &rec), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclGoPreviousKey(h, key, &rec), DB_ERR_CORRUPTED) << c.what;
    for (int mode : {1, 2, 11, 12, 13, 14, 15}) {
      std::strcpy(key, "K0300");
      EXPECT_EQ(DBclKeySearch(h, key, &rec, mode), DB_ERR_CORRUPTED) << c.what << mode;
    }
    EXPECT_EQ(DBclGetKeyPercent(h, &percent, "K0300", 0), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclGetKeyAtPercent(h, 50, key, &rec), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclAddKey(h, "NEW", 1000), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclDeleteKey(h, "K0300", 1), DB_ERR_CORRUPTED) << c.what;
    DBclCloseIndex(h);
  }
}

TEST_F(NtxDamageTest, PathDeeperThanTheStack) {
  // The root's first child pointer names the root itself: a loop downwards.
  auto bad = good_;
  StoreLE32(&bad[ItemOffset(bad, root_, 0)], root_);
  EXPECT_EQ(Exercise(bad), DB_ERR_CORRUPTED);
  EXPECT_NE(FileFindings(path_).find("reached twice"), std::string::npos);
}

TEST_F(NtxDamageTest, FreeListLoops) {
  // Free pages come from deleting most keys (merges release pages).
  int32_t h = -1;
  ASSERT_EQ(DBclOpenIndex(&h, path_.c_str(), 0), 0);
  for (int i = 0; i < 500; ++i) {
    char k[11];
    std::snprintf(k, sizeof k, "K%04d", (i * 7919) % 600);
    ASSERT_EQ(DBclDeleteKey(h, k, i + 1), 0);
  }
  ASSERT_EQ(DBclCloseIndex(h), 0);
  auto freed = ReadFileBytes(path_);
  ntx::CheckSummary s{};
  ASSERT_EQ(FileFindings(path_, &s), "");
  ASSERT_GE(s.free_pages, 2u);
  uint32_t head = LoadLE32(&freed[ntx::kHdrFreeList]);
  uint32_t next = Child(freed, head, 0);
  ASSERT_NE(next, 0u);
  // A loop of two pages: the checker reports it.
  auto bad = freed;
  StoreLE32(&bad[ItemOffset(bad, next, 0)], head);
  WriteFileBytes(path_, bad);
  EXPECT_NE(FileFindings(path_).find("free list loops"), std::string::npos);
  // A page that links to itself: taking it gives an error, not a loop.
  bad = freed;
  StoreLE32(&bad[ItemOffset(bad, head, 0)], head);
  EXPECT_EQ(Exercise(bad), DB_ERR_CORRUPTED);
}

TEST_F(NtxDamageTest, TruncatedFile) {
  auto bad = good_;
  bad.resize(bad.size() - 1024 - 512);
  int32_t rc = Exercise(bad);
  EXPECT_TRUE(rc == DB_ERR_SEEK || rc == DB_ERR_READ || rc == DB_ERR_ROOT_PAGE) << rc;
  EXPECT_NE(FileFindings(path_), "");
}

}  // namespace
}  // namespace kestrel::test

namespace kestrel::test {
namespace {

bool IsStatus(int32_t rc) {
  return rc == 0 || (rc >= 201 && rc <= 212) || (rc <= -201 && rc >= -280);
}

// Inputs kept from fuzzing the page reader: each is opened, walked, searched
// and changed; whatever the file holds, the calls return statuses.
TEST_F(NtxTest, FuzzFoundInputsGiveStatuses) {
  std::filesystem::path dir = std::filesystem::path(KESTREL_TEST_FIXTURES) / "ntx" / "fuzz";
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    std::string path = CopyFixture("ntx/fuzz/" + entry.path().filename().string(), dir_, "f.ntx");
    FileFindings(path);
    int32_t h = -1;
    if (DBclOpenIndex(&h, path.c_str(), 0) >= 0) {
      char key[300] = {};
      int32_t rec = 0;
      int steps = 0;
      for (int32_t rc = DBclGoFirstKey(h, key, &rec); rc == 0 && steps < 5000; ++steps) {
        rc = DBclGoNextKey(h, key, &rec);
        EXPECT_TRUE(IsStatus(rc)) << rc;
      }
      for (int mode : {1, 2, 11, 12, 13, 14, 15}) {
        std::memset(key, 0, sizeof key);
        key[0] = 'M';
        int32_t rc = DBclKeySearch(h, key, &rec, mode);
        EXPECT_TRUE(IsStatus(rc)) << rc;
      }
      char k[300] = {};
      for (int i = 0; i < 30; ++i) {
        std::snprintf(k, 8, "K%03d", i * 7 % 50);
        EXPECT_TRUE(IsStatus(DBclAddKey(h, k, i + 1)));
        if (i % 2) {
          EXPECT_TRUE(IsStatus(DBclDeleteKey(h, k, i + 1)));
        }
      }
      EXPECT_TRUE(IsStatus(DBclCloseIndex(h)));
    }
    ++files;
  }
  EXPECT_GE(files, 20);
}

}  // namespace
}  // namespace kestrel::test
