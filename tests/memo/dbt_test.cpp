// DBT memo files: both layouts through real files.
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "memo_test_util.h"
#include "runtime/memory.h"

namespace kestrel::test {
namespace {

class DbtTest : public MemoTest {
 protected:
  // Creates and opens a memo file; dialect 2 uses blocks x 512 bytes.
  int32_t Make(const std::string& name, int32_t dialect, int32_t blocks = 1, int32_t mode = 0) {
    path_ = dir_.File(name);
    EXPECT_EQ(DBxbCreateMemo(path_.c_str(), blocks, dialect), 0);
    int32_t h = -1;
    EXPECT_EQ(DBxbOpenMemo(&h, path_.c_str(), dialect | mode), 0);
    return h;
  }
  uint32_t Put(int32_t h, const std::string& text, uint32_t block = 0, int32_t mode = 0) {
    uint32_t b = block;
    int32_t rc = DBxbPutMemoRecord(h, &b, text.c_str(), mode | (block ? DB_MEMO_REPLACE : 0));
    EXPECT_EQ(rc, 0) << "put of " << text.size() << " bytes";
    return b;
  }
  std::string path_;
};

TEST_F(DbtTest, NewFilesHaveTheirHeaders) {
  std::string plain = dir_.File("plain.dbt");
  ASSERT_EQ(DBxbCreateMemo(plain.c_str(), 1, 3), 0);
  auto bytes = ReadFileBytes(plain);
  ASSERT_EQ(bytes.size(), 513u);
  EXPECT_EQ(bytes[0], 1);
  EXPECT_EQ(bytes[512], 0x1A);

  std::string iv = dir_.File("orders.dbt");
  ASSERT_EQ(DBxbCreateMemo(iv.c_str(), 2, 2), 0);
  bytes = ReadFileBytes(iv);
  ASSERT_EQ(bytes.size(), 1025u);
  EXPECT_EQ(bytes[0], 1);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(&bytes[8])), "ORDERS");
  EXPECT_EQ(bytes[18], 2);
  EXPECT_EQ(bytes[19], 1);
  EXPECT_EQ(bytes[20] | (bytes[21] << 8), 1024);
  EXPECT_EQ(bytes[1024], 0x1A);

  EXPECT_EQ(DBxbCreateMemo(plain.c_str(), 0, 3), DB_ERR_PAGE_SIZE);
  EXPECT_EQ(DBxbCreateMemo(plain.c_str(), 33, 2), DB_ERR_PAGE_SIZE);
  EXPECT_EQ(DBxbCreateMemo(plain.c_str(), 1, 8), DB_ERR_VERSION);
  int32_t h = 7;
  EXPECT_EQ(DBxbOpenMemo(&h, iv.c_str(), 4), DB_ERR_VERSION);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(DBxbOpenMemo(&h, plain.c_str(), 3), DB_ERR_NOT_MEMO);  // emptied by the -218 create
  EXPECT_EQ(DBxbOpenMemo(&h, dir_.File("missing.dbt").c_str(), 3), DB_ERR_OPEN);
  EXPECT_EQ(h, -1);
}

// Many memos of mixed sizes written, then read back through a new handle.
TEST_F(DbtTest, RoundTripsMixedSizesInEveryLayout) {
  struct Layout {
    int32_t dialect, blocks;
  } layouts[] = {{3, 1}, {1, 1}, {6, 1}, {2, 1}, {2, 4}};
  std::mt19937 rng(7);
  const size_t fixed[] = {1, 2, 509, 510, 511, 512, 1022, 1024, 2040, 2048, 20000};
  for (const Layout& l : layouts) {
    SCOPED_TRACE(l.dialect * 100 + l.blocks);
    int32_t h = Make("rt" + std::to_string(l.dialect) + std::to_string(l.blocks) + ".dbt",
                     l.dialect, l.blocks);
    std::map<uint32_t, std::string> model;
    for (int i = 0; i < 120; ++i) {
      size_t n = i < 11 ? fixed[i] : std::uniform_int_distribution<size_t>(1, 3000)(rng);
      std::string text = MemoText(rng, n);
      uint32_t b = Put(h, text);
      ASSERT_TRUE(model.emplace(b, text).second) << "block handed out twice: " << b;
      int32_t rc = 0;
      ASSERT_EQ(GetDbt(h, b, &rc), text);  // readable through the same handle at once
    }
    ASSERT_EQ(DBxbCloseMemo(h), 0);
    ASSERT_EQ(DBxbOpenMemo(&h, path_.c_str(), l.dialect), 0);
    for (const auto& [b, text] : model) {
      int32_t rc = 0;
      ASSERT_EQ(GetDbt(h, b, &rc), text) << "block " << b;
      ASSERT_EQ(rc, 0);
    }
    DBXBMEMOINFO info{};
    ASSERT_EQ(DBxbGetMemoInfo(h, &info), 0);
    EXPECT_EQ(info.block_size, 512 * l.blocks);
    EXPECT_EQ(info.dialect, l.dialect);
    EXPECT_EQ(info.next_free, info.block_count);
    EXPECT_EQ(std::string(info.file_name), path_);
    EXPECT_EQ(DBxbCloseMemo(h), 0);
  }
}

TEST_F(DbtTest, PlainReplaceInPlaceOrMoved) {
  int32_t h = Make("r.dbt", 3);
  uint32_t b1 = Put(h, "first");
  EXPECT_EQ(b1, 1u);
  uint32_t b2 = Put(h, "second");
  // 510 characters + 0x1A 0x1A fill exactly one block: in place.
  std::string t510(510, 'x');
  EXPECT_EQ(Put(h, t510, b1), b1);
  int32_t rc = 0;
  EXPECT_EQ(GetDbt(h, b2, &rc), "second");
  // 511 need a second block: the memo moves to the end.
  std::string t511(511, 'y');
  uint32_t moved = Put(h, t511, b1);
  EXPECT_EQ(moved, 3u);
  EXPECT_EQ(GetDbt(h, moved, &rc), t511);
  EXPECT_EQ(GetDbt(h, b2, &rc), "second");
  // A 1500-byte memo (3 blocks) replaced by 1000 bytes (2 blocks) stays.
  uint32_t big = Put(h, std::string(1500, 'b'));
  EXPECT_EQ(Put(h, std::string(1000, 'c'), big), big);
  EXPECT_EQ(GetDbt(h, big, &rc), std::string(1000, 'c'));
  // Replacing "no memo" appends.
  uint32_t fresh = Put(h, "new", 0);
  EXPECT_GT(fresh, big);
  DBxbCloseMemo(h);
}

// dBASE IV layout: random puts and replaces against a model, the free chain
// checked after every step.
TEST_F(DbtTest, DbaseIvFreeChainModel) {
  int32_t h = Make("iv.dbt", 2);
  std::mt19937 rng(11);
  std::map<uint32_t, std::string> live;
  for (int step = 0; step < 400; ++step) {
    size_t n = std::uniform_int_distribution<size_t>(1, 2500)(rng);
    std::string text = MemoText(rng, n);
    uint32_t b = 0;
    bool replace = !live.empty() && rng() % 3 != 0;
    uint32_t old = 0;
    if (replace) {
      auto it = live.begin();
      std::advance(it, rng() % live.size());
      old = it->first;
      b = old;
    }
    ASSERT_EQ(DBxbPutMemoRecord(h, &b, text.c_str(), replace ? DB_MEMO_REPLACE : 0), 0);
    if (replace) live.erase(old);
    for (const auto& [blk, t] : live) {
      // The new memo never overlaps a live one.
      uint32_t blocks = static_cast<uint32_t>((t.size() + 8 + 511) / 512);
      ASSERT_FALSE(b >= blk && b < blk + blocks) << "step " << step;
    }
    live[b] = text;
    if (step % 25 == 0 || step == 399) {
      for (const auto& [blk, t] : live) {
        int32_t rc = 0;
        ASSERT_EQ(GetDbt(h, blk, &rc), t) << "step " << step << " block " << blk;
      }
      DBXBMEMOINFO info{};
      ASSERT_EQ(DBxbGetMemoInfo(h, &info), 0);
      uint64_t used = 1;  // the header block
      for (const auto& [blk, t] : live) used += (t.size() + 8 + 511) / 512;
      EXPECT_LE(used + info.free_blocks, info.block_count) << "step " << step;
    }
  }
  // Freed runs were reused: the file is far smaller than all writes together.
  DBXBMEMOINFO info{};
  ASSERT_EQ(DBxbGetMemoInfo(h, &info), 0);
  EXPECT_LT(info.block_count, 400u * 3);
  DBxbCloseMemo(h);
}

TEST_F(DbtTest, DbaseIvFreedRunIsTakenFirstFit) {
  int32_t h = Make("ff.dbt", 2);
  uint32_t a = Put(h, std::string(1200, 'a'));  // 3 blocks at 1
  uint32_t b = Put(h, "b");                     // block 4
  EXPECT_EQ(a, 1u);
  EXPECT_EQ(b, 4u);
  uint32_t moved = Put(h, std::string(2000, 'A'), a);  // 4 blocks: moves to 5
  EXPECT_EQ(moved, 5u);
  DBXBMEMOINFO info{};
  ASSERT_EQ(DBxbGetMemoInfo(h, &info), 0);
  EXPECT_EQ(info.free_runs, 1u);
  EXPECT_EQ(info.free_blocks, 3u);
  EXPECT_EQ(info.next_free, 1u);
  // A memo of two blocks fits into the freed run.
  EXPECT_EQ(Put(h, std::string(700, 'c')), 1u);
  ASSERT_EQ(DBxbGetMemoInfo(h, &info), 0);
  EXPECT_EQ(info.free_runs, 0u);
  // In place: shorter text, and the stored length follows it.
  EXPECT_EQ(Put(h, "short", moved), moved);
  int32_t rc = 0;
  EXPECT_EQ(GetDbt(h, moved, &rc), "short");
  EXPECT_EQ(GetDbt(h, b, &rc), "b");
  DBxbCloseMemo(h);
}

TEST_F(DbtTest, SoftLineBreaks) {
  int32_t h = Make("soft.dbt", 3);
  std::string text =
      "The quick brown fox jumps over the lazy dog and keeps running\r\n"
      "Supercalifragilisticexpialidocious words do not fit";
  uint32_t b = Put(h, text, 0, 10);
  int32_t rc = 0;
  std::string raw = GetDbt(h, b, &rc);
  EXPECT_NE(raw.find("\x8D\n"), std::string::npos);
  // No line between breaks of either kind is longer than 10.
  size_t run = 0;
  for (char c : raw) {
    if (c == '\n') {
      run = 0;
    } else if (c != '\x8D') {
      ASSERT_LE(++run, 10u) << raw;
    }
  }
  EXPECT_EQ(GetDbt(h, b, &rc, DB_MEMO_NO_SOFT_BREAKS), text);
  EXPECT_EQ(rc, 0);
  // Lengths outside 10..132 are refused, and so is an unknown read option.
  uint32_t b2 = 0;
  EXPECT_EQ(DBxbPutMemoRecord(h, &b2, "abc", 9), DB_ERR_SOFT_LINE);
  EXPECT_EQ(DBxbPutMemoRecord(h, &b2, "abc", 133), DB_ERR_SOFT_LINE);
  char* out = reinterpret_cast<char*>(1);
  EXPECT_EQ(DBxbGetMemoRecord(h, b, &out, 1), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(out, nullptr);
  DBxbCloseMemo(h);

  // dBASE IV wraps too; Clipper ignores the soft line length.
  int32_t iv = Make("softiv.dbt", 2);
  uint32_t bi = Put(iv, text, 0, 12);
  EXPECT_NE(GetDbt(iv, bi, &rc).find("\x8D\n"), std::string::npos);
  EXPECT_EQ(GetDbt(iv, bi, &rc, DB_MEMO_NO_SOFT_BREAKS), text);
  DBxbCloseMemo(iv);
  int32_t cl = Make("clip.dbt", 6);
  uint32_t bc = Put(cl, text, 0, 10);
  EXPECT_EQ(GetDbt(cl, bc, &rc), text);
  DBxbCloseMemo(cl);
}

TEST_F(DbtTest, BadArgumentsAndDamagedFiles) {
  int32_t h = Make("bad.dbt", 3);
  uint32_t b = Put(h, "hello");
  int32_t rc = 0;
  GetDbt(h, 0, &rc);
  EXPECT_EQ(rc, DB_ERR_SEEK);
  GetDbt(h, b + 1, &rc);
  EXPECT_EQ(rc, DB_ERR_SEEK);
  uint32_t blk = 0;
  EXPECT_EQ(DBxbPutMemoRecord(h, &blk, "", 0), DB_ERR_BAD_DATA);
  EXPECT_EQ(DBxbPutMemoRecord(h, nullptr, "x", 0), DB_ERR_NULL);
  EXPECT_EQ(DBxbPutMemoRecord(h, &blk, "x", 512), DB_ERR_INVALID_COMMAND);
  blk = 99;
  EXPECT_EQ(DBxbPutMemoRecord(h, &blk, "x", DB_MEMO_REPLACE), DB_ERR_SEEK);
  EXPECT_EQ(DBxbGetMemoRecord(h, b, nullptr, 0), DB_ERR_NULL);
  EXPECT_EQ(DBxbGetMemoRecord(h + 1, b, nullptr, 0), DB_ERR_NULL);
  char* t = nullptr;
  EXPECT_EQ(DBxbGetMemoRecord(h + 1, b, &t, 0), DB_ERR_INVALID_HANDLE);
  // The plain layout holds texts up to 128 blocks with their end marks.
  std::string longest(128 * 512 - 2, 'l');
  uint32_t lb = Put(h, longest);
  EXPECT_EQ(GetDbt(h, lb, &rc), longest);
  blk = 0;
  EXPECT_EQ(DBxbPutMemoRecord(h, &blk, (longest + "x").c_str(), 0), DB_ERR_FIELD_LENGTH);
  DBxbCloseMemo(h);

  // A plain memo whose end marker is missing: the file ends inside the text.
  auto bytes = ReadFileBytes(path_);
  bytes.resize(512 + 3);  // "hel"
  WriteFileBytes(path_, bytes);
  ASSERT_EQ(DBxbOpenMemo(&h, path_.c_str(), 3), 0);
  GetDbt(h, 1, &rc);
  EXPECT_EQ(rc, DB_ERR_CORRUPTED);
  DBxbCloseMemo(h);

  // A plain memo of more than 128 blocks without an end marker.
  bytes.assign(512 + 130 * 512, 'z');
  bytes[0] = 2;
  for (int i = 1; i < 512; ++i) bytes[i] = 0;
  WriteFileBytes(path_, bytes);
  ASSERT_EQ(DBxbOpenMemo(&h, path_.c_str(), 3), 0);
  GetDbt(h, 1, &rc);
  EXPECT_EQ(rc, DB_ERR_FIELD_LENGTH);
  DBxbCloseMemo(h);

  // dBASE IV: a block header whose length runs past the end of the file is
  // refused before anything is allocated for it.
  int32_t iv = Make("badiv.dbt", 2);
  uint32_t bi = Put(iv, "text");
  DBxbCloseMemo(iv);
  bytes = ReadFileBytes(path_);
  bytes[512 * bi + 4] = 0xF0;
  bytes[512 * bi + 5] = 0xFF;
  bytes[512 * bi + 6] = 0xFF;
  bytes[512 * bi + 7] = 0x7F;
  WriteFileBytes(path_, bytes);
  ASSERT_EQ(DBxbOpenMemo(&iv, path_.c_str(), 2), 0);
  long before = kestrel::testing::AllocationCount();
  GetDbt(iv, bi, &rc);
  EXPECT_EQ(rc, DB_ERR_CORRUPTED);
  EXPECT_EQ(kestrel::testing::AllocationCount(), before);
  uint32_t rb = bi;
  EXPECT_EQ(DBxbPutMemoRecord(iv, &rb, std::string(3000, 'q').c_str(), DB_MEMO_REPLACE),
            DB_ERR_CORRUPTED);
  DBxbCloseMemo(iv);

  // A block size outside 512..16384 in the dBASE IV header.
  bytes[20] = 64;
  bytes[21] = 0;
  WriteFileBytes(path_, bytes);
  EXPECT_EQ(DBxbOpenMemo(&iv, path_.c_str(), 2), DB_ERR_PAGE_SIZE);
  EXPECT_EQ(iv, -1);
  // Too short for a memo file.
  bytes.resize(20);
  WriteFileBytes(path_, bytes);
  EXPECT_EQ(DBxbOpenMemo(&iv, path_.c_str(), 2), DB_ERR_NOT_MEMO);
}

TEST_F(DbtTest, LoopingFreeChainIsAnErrorNotAHang) {
  int32_t h = Make("loop.dbt", 2);
  for (int i = 0; i < 4; ++i) Put(h, "x");  // blocks 1..4
  DBxbCloseMemo(h);
  auto bytes = ReadFileBytes(path_);
  // Header -> run at 1 -> run at 2 -> run at 1 ...; each run one block long.
  auto store = [&](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<uint8_t>(v >> (8 * i));
  };
  store(0, 1);
  store(512, 2);
  store(516, 1);
  store(1024, 1);
  store(1028, 1);
  WriteFileBytes(path_, bytes);
  ASSERT_EQ(DBxbOpenMemo(&h, path_.c_str(), 2), 0);
  uint32_t b = 0;
  EXPECT_EQ(DBxbPutMemoRecord(h, &b, std::string(1500, 'z').c_str(), 0), DB_ERR_CORRUPTED);
  DBXBMEMOINFO info{};
  EXPECT_EQ(DBxbGetMemoInfo(h, &info), DB_ERR_CORRUPTED);
  // A memo that fits a one-block run still goes there.
  b = 0;
  EXPECT_EQ(DBxbPutMemoRecord(h, &b, "fits", 0), 0);
  EXPECT_EQ(b, 1u);
  DBxbCloseMemo(h);
}

TEST_F(DbtTest, ZapEmptiesTheFile) {
  for (int32_t dialect : {3, 2}) {
    int32_t h = Make("zap" + std::to_string(dialect) + ".dbt", dialect);
    for (int i = 0; i < 5; ++i) Put(h, std::string(700, 'a' + i));
    ASSERT_EQ(DBxbZapMemo(h), 0);
    EXPECT_EQ(ReadFileBytes(path_).size(), 513u);
    EXPECT_EQ(Put(h, "again"), 1u);
    int32_t rc = 0;
    EXPECT_EQ(GetDbt(h, 1, &rc), "again");
    DBxbCloseMemo(h);
  }
}

TEST_F(DbtTest, SharedFilesNeedTheLock) {
  int32_t h = Make("sh.dbt", 3, 1, DB_OPEN_SHARED);
  uint32_t b = 0;
  EXPECT_EQ(DBxbPutMemoRecord(h, &b, "x", 0), DB_ERR_MUST_LOCK);
  ASSERT_EQ(DBxbLockMemo(h), 0);
  EXPECT_EQ(DBxbPutMemoRecord(h, &b, "locked", 0), 0);
  ASSERT_EQ(DBxbUnLockMemo(h), 0);
  // A second handle on the same file appends with automatic locking; the
  // first reads the new memo because a shared read re-reads the header.
  int32_t h2 = -1;
  ASSERT_EQ(DBxbOpenMemo(&h2, path_.c_str(), 3 | DB_OPEN_AUTOLOCK), 0);
  uint32_t b2 = 0;
  ASSERT_EQ(DBxbPutMemoRecord(h2, &b2, "from the other handle", 0), 0);
  EXPECT_EQ(b2, b + 1);
  int32_t rc = 0;
  EXPECT_EQ(GetDbt(h, b2, &rc), "from the other handle");
  // While one handle holds the lock the other cannot take it.
  ASSERT_EQ(DBxbLockMemo(h), 0);
  EXPECT_EQ(DBxbLockMemo(h2), DB_ERR_LOCK_RETRIES);
  uint32_t b3 = 0;
  EXPECT_EQ(DBxbPutMemoRecord(h2, &b3, "blocked", 0), DB_ERR_LOCK_RETRIES);
  ASSERT_EQ(DBxbUnLockMemo(h), 0);
  DBxbCloseMemo(h2);
  DBxbCloseMemo(h);
  // Read-only files refuse writes.
  ASSERT_EQ(DBxbOpenMemo(&h, path_.c_str(), 3 | DB_OPEN_READONLY), 0);
  EXPECT_EQ(DBxbPutMemoRecord(h, &b, "x", 0), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBxbZapMemo(h), DB_ERR_READ_ONLY);
  DBxbCloseMemo(h);
}

TEST_F(DbtTest, LockHeldByAnotherProcess) {
  int32_t h = Make("proc.dbt", 3, 1, DB_OPEN_SHARED);
  int ready[2], done[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(done), 0);
  pid_t child = fork();
  if (child == 0) {
    int32_t ch = -1;
    DBInitialize(20, 0);
    int ok = DBxbOpenMemo(&ch, path_.c_str(), 3 | DB_OPEN_SHARED) == 0 && DBxbLockMemo(ch) == 0;
    uint32_t b = 0;
    if (ok) ok = DBxbPutMemoRecord(ch, &b, "child", 0) == 0;
    char c = ok ? '1' : '0';
    (void)!write(ready[1], &c, 1);
    (void)!read(done[0], &c, 1);
    _exit(0);
  }
  char c = 0;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  EXPECT_EQ(c, '1');
  EXPECT_EQ(DBxbLockMemo(h), DB_ERR_LOCK_RETRIES);
  int32_t rc = 0;
  EXPECT_EQ(GetDbt(h, 1, &rc), "child");
  (void)!write(done[1], &c, 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(DBxbLockMemo(h), 0);
  DBxbCloseMemo(h);
}

// The nth allocation fails: the call reports -203 and nothing leaks.
TEST_F(DbtTest, AllocationFailuresLeakNothing) {
  for (int32_t dialect : {3, 2}) {
    std::string path = dir_.File("fault" + std::to_string(dialect) + ".dbt");
    ASSERT_EQ(DBxbCreateMemo(path.c_str(), 1, dialect), 0);
    std::string big(5000, 'w');
    bool completed = false;
    for (long n = 1; n < 200 && !completed; ++n) {
      long live = kestrel::testing::LiveAllocations();
      kestrel::testing::FailAllocation(n);
      int32_t h = -1;
      int32_t rc = DBxbOpenMemo(&h, path.c_str(), dialect);
      uint32_t b = 0;
      if (rc == 0) rc = DBxbPutMemoRecord(h, &b, big.c_str(), 10);
      if (rc == 0) {
        uint32_t r = b;
        rc = DBxbPutMemoRecord(h, &r, (big + big).c_str(), DB_MEMO_REPLACE);
      }
      char* text = nullptr;
      if (rc == 0) rc = DBxbGetMemoRecord(h, b, &text, DB_MEMO_NO_SOFT_BREAKS);
      if (text) DBFreeMemory(text);
      if (h >= 0) DBxbCloseMemo(h);
      kestrel::testing::FailAllocation(0);
      ASSERT_TRUE(rc == 0 || rc == DB_ERR_MEMORY) << "n=" << n << " rc=" << rc;
      if (rc == 0) completed = true;
      ASSERT_EQ(kestrel::testing::LiveAllocations(), live) << "n=" << n;
    }
    EXPECT_TRUE(completed);
  }
}

}  // namespace
}  // namespace kestrel::test
