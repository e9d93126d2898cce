// FPT memo files through real files.
#include <map>

#include "memo_test_util.h"
#include "runtime/memory.h"

namespace kestrel::test {
namespace {

class FptTest : public MemoTest {
 protected:
  int32_t Make(const std::string& name, int32_t code, int32_t switches = 0) {
    path_ = dir_.File(name);
    EXPECT_EQ(DBfpCreateMemo(path_.c_str(), code), 0);
    int32_t h = -1;
    EXPECT_EQ(DBfpOpenMemo(&h, path_.c_str(), switches), 0);
    return h;
  }
  uint32_t Put(int32_t h, const std::string& data, uint32_t block = 0, int32_t options = 0) {
    uint32_t b = block;
    int32_t rc = DBfpPutMemoRecord(h, &b, data.data(), static_cast<uint32_t>(data.size()), 0,
                                   options | (block ? DB_MEMO_REPLACE : 0));
    EXPECT_EQ(rc, 0);
    return b;
  }
  std::string path_;
};

TEST_F(FptTest, BlockSizeCodes) {
  struct Case {
    int32_t code;
    uint32_t block_size, next_free, file_size;
  } cases[] = {{1, 512, 1, 512},  {64, 64, 8, 512},   {2, 1024, 1, 1024},
               {33, 33, 16, 528}, {100, 100, 6, 600}, {32, 16384, 1, 16384}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.code);
    int32_t h = Make("c" + std::to_string(c.code) + ".fpt", c.code);
    auto bytes = ReadFileBytes(path_);
    ASSERT_EQ(bytes.size(), c.file_size);
    EXPECT_EQ((bytes[0] << 24) | (bytes[1] << 16) | (bytes[2] << 8) | bytes[3],
              static_cast<int>(c.next_free));
    EXPECT_EQ((bytes[6] << 8) | bytes[7], static_cast<int>(c.block_size));
    DBFPMEMOHEADER header{};
    ASSERT_EQ(DBfpGetMemoHeader(h, &header), 0);
    EXPECT_EQ(header.block_size, c.block_size);
    EXPECT_EQ(header.next_free, c.next_free);
    DBfpCloseMemo(h);
  }
  std::string p = dir_.File("x.fpt");
  EXPECT_EQ(DBfpCreateMemo(p.c_str(), 0), DB_ERR_PAGE_SIZE);
  EXPECT_EQ(DBfpCreateMemo(p.c_str(), 512), DB_ERR_PAGE_SIZE);
}

TEST_F(FptTest, RoundTripsInSeveralBlockSizes) {
  std::mt19937 rng(3);
  for (int32_t code : {64, 1, 33, 100, 4}) {
    SCOPED_TRACE(code);
    int32_t h = Make("rt" + std::to_string(code) + ".fpt", code);
    DBFPMEMOHEADER header{};
    ASSERT_EQ(DBfpGetMemoHeader(h, &header), 0);
    const uint32_t bs = header.block_size;
    std::map<uint32_t, std::pair<std::string, bool>> model;
    const size_t fixed[] = {1, bs - 8, bs - 7, bs, 2 * bs - 8, 20000};
    for (int i = 0; i < 150; ++i) {
      size_t n = i < 6 ? fixed[i] : std::uniform_int_distribution<size_t>(1, 4000)(rng);
      bool picture = i % 5 == 4;
      std::string data = MemoText(rng, n);
      if (picture) {
        for (size_t k = 0; k < data.size(); k += 7) data[k] = static_cast<char>(k & 0xFF);
      }
      uint32_t b = Put(h, data, 0, picture ? DB_FPT_PICTURE : 0);
      ASSERT_TRUE(model.emplace(b, std::make_pair(data, picture)).second);
    }
    ASSERT_EQ(DBfpCloseMemo(h), 0);
    ASSERT_EQ(DBfpOpenMemo(&h, path_.c_str(), DB_OPEN_READONLY), 0);
    for (const auto& [b, entry] : model) {
      int32_t rc = 0;
      ASSERT_EQ(GetFpt(h, b, &rc), entry.first) << "block " << b;
      uint32_t length = 0;
      int32_t type = -1;
      ASSERT_EQ(DBfpGetMemoType(h, b, &length, &type), 0);
      EXPECT_EQ(length, entry.first.size());
      EXPECT_EQ(type, entry.second ? DB_FPT_TYPE_PICTURE : DB_FPT_TYPE_TEXT);
    }
    uint32_t b = 0;
    EXPECT_EQ(DBfpPutMemoRecord(h, &b, "x", 1, 0, 0), DB_ERR_READ_ONLY);
    DBfpCloseMemo(h);
  }
}

TEST_F(FptTest, ReuseInPlaceOrMoved) {
  int32_t h = Make("reuse.fpt", 64);
  uint32_t b = Put(h, std::string(40, 'a'));
  EXPECT_EQ(b, 8u);
  uint32_t after = Put(h, "next");
  EXPECT_EQ(Put(h, std::string(50, 'b'), b), b);      // 58 <= 64
  uint32_t moved = Put(h, std::string(100, 'c'), b);  // 108 > 64
  EXPECT_GT(moved, after);
  int32_t rc = 0;
  EXPECT_EQ(GetFpt(h, after, &rc), "next");
  EXPECT_EQ(GetFpt(h, b, &rc), std::string(50, 'b'));  // left behind, not reclaimed
  EXPECT_EQ(GetFpt(h, moved, &rc), std::string(100, 'c'));
  uint32_t bad = 0;
  EXPECT_EQ(DBfpPutMemoRecord(h, &bad, "x", 1, 0, 1), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(DBfpPutMemoRecord(h, &bad, "x", 0, 0, 0), DB_ERR_BAD_DATA);
  EXPECT_EQ(DBfpPutMemoRecord(h, nullptr, "x", 1, 0, 0), DB_ERR_NULL);
  DBfpCloseMemo(h);
}

TEST_F(FptTest, PiecesWrittenAndRead) {
  int32_t h = Make("pieces.fpt", 64);
  std::mt19937 rng(5);
  std::string data = MemoText(rng, 20000);
  uint32_t before = Put(h, "before");
  uint32_t b = 0;
  for (size_t at = 0; at < data.size(); at += 1000) {
    ASSERT_EQ(DBfpPutMemoRecord(h, &b, data.data() + at, 1000, static_cast<uint32_t>(data.size()),
                                DB_FPT_PIECES),
              0);
  }
  uint32_t after = Put(h, "after");
  EXPECT_EQ(after, b + (20000 + 8 + 63) / 64);
  // Read back in pieces of 777 bytes: 1 while bytes remain, then 0.
  std::string back;
  for (;;) {
    char* piece = nullptr;
    int32_t rc = DBfpGetMemoRecord(h, b, &piece, 777, DB_FPT_PIECES);
    ASSERT_GE(rc, 0);
    DBFPMEMOINFO info{};
    ASSERT_EQ(DBfpGetMemoInfo(h, &info), 0);
    size_t n = std::min<size_t>(777, data.size() - back.size());
    back.append(piece, n);
    if (rc == 0) {
      EXPECT_EQ(info.read_remaining, 0u);
      break;
    }
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(info.read_remaining, data.size() - back.size());
  }
  EXPECT_EQ(back, data);
  // Into the caller's buffer; a zero follows when there is room.
  std::vector<char> buf(30, 'X');
  EXPECT_EQ(DBfpGetMemoToBuffer(h, before, buf.data(), 30, 0), 0);
  EXPECT_STREQ(buf.data(), "before");
  EXPECT_EQ(DBfpGetMemoToBuffer(h, b, buf.data(), 10, 0), 0);
  EXPECT_EQ(std::string(buf.data(), 10), data.substr(0, 10));
  EXPECT_EQ(buf[10], 'X');
  // The library buffer stays valid until the next get; option 4 reuses it.
  char* first = nullptr;
  ASSERT_EQ(DBfpGetMemoRecord(h, before, &first, 100, 0), 0);
  EXPECT_STREQ(first, "before");
  char* second = nullptr;
  ASSERT_EQ(DBfpGetMemoRecord(h, after, &second, 100, DB_FPT_KEEP_BUFFER), 0);
  EXPECT_EQ(first, second);
  EXPECT_STREQ(second, "after");
  // A later piece longer than what remains is refused.
  uint32_t p = 0;
  ASSERT_EQ(DBfpPutMemoRecord(h, &p, "abc", 3, 5, DB_FPT_PIECES), 0);
  EXPECT_EQ(DBfpPutMemoRecord(h, &p, "abc", 3, 5, DB_FPT_PIECES), DB_ERR_BAD_DATA);
  DBfpCloseMemo(h);
}

TEST_F(FptTest, BadBlocksAndDamagedFiles) {
  int32_t h = Make("bad.fpt", 64);
  uint32_t b = Put(h, "hello");
  int32_t rc = 0;
  GetFpt(h, 0, &rc);
  EXPECT_EQ(rc, DB_ERR_SEEK);
  GetFpt(h, 3, &rc);  // inside the header
  EXPECT_EQ(rc, DB_ERR_SEEK);
  GetFpt(h, b + 1, &rc);  // the next free block
  EXPECT_EQ(rc, DB_ERR_SEEK);
  char* out = reinterpret_cast<char*>(1);
  EXPECT_EQ(DBfpGetMemoRecord(h, 0, &out, 10, 0), DB_ERR_SEEK);
  EXPECT_EQ(out, nullptr);
  DBfpCloseMemo(h);

  // A length field far beyond the end of the file: refused, nothing allocated.
  auto bytes = ReadFileBytes(path_);
  bytes[b * 64 + 4] = 0x7F;
  WriteFileBytes(path_, bytes);
  ASSERT_EQ(DBfpOpenMemo(&h, path_.c_str(), 0), 0);
  long before = kestrel::testing::AllocationCount();
  EXPECT_EQ(DBfpGetMemoRecord(h, b, &out, 0xFFFFFFFFu, 0), DB_ERR_CORRUPTED);
  EXPECT_EQ(kestrel::testing::AllocationCount(), before);
  uint32_t length = 0;
  int32_t type = 0;
  EXPECT_EQ(DBfpGetMemoType(h, b, &length, &type), DB_ERR_CORRUPTED);
  DBfpCloseMemo(h);

  // Block sizes outside 33..16384, short files, bad switches.
  bytes[6] = 0;
  bytes[7] = 1;
  WriteFileBytes(path_, bytes);
  EXPECT_EQ(DBfpOpenMemo(&h, path_.c_str(), 0), DB_ERR_PAGE_SIZE);
  EXPECT_EQ(h, -1);
  bytes[6] = 0x40;
  bytes[7] = 0x01;
  WriteFileBytes(path_, bytes);
  EXPECT_EQ(DBfpOpenMemo(&h, path_.c_str(), 0), DB_ERR_PAGE_SIZE);
  bytes.resize(100);
  WriteFileBytes(path_, bytes);
  EXPECT_EQ(DBfpOpenMemo(&h, path_.c_str(), 0), DB_ERR_NOT_MEMO);
  EXPECT_EQ(DBfpOpenMemo(&h, path_.c_str(), 1), DB_ERR_VERSION);
  EXPECT_EQ(DBfpOpenMemo(nullptr, path_.c_str(), 0), DB_ERR_NULL);
}

TEST_F(FptTest, ZapAndLocks) {
  int32_t h = Make("zap.fpt", 64, DB_OPEN_SHARED);
  uint32_t b = 0;
  EXPECT_EQ(DBfpPutMemoRecord(h, &b, "x", 1, 0, 0), DB_ERR_MUST_LOCK);
  EXPECT_EQ(DBfpZapMemo(h), DB_ERR_MUST_LOCK);
  int32_t other = -1;
  ASSERT_EQ(DBfpOpenMemo(&other, path_.c_str(), DB_OPEN_AUTOLOCK), 0);
  uint32_t ob = 0;
  ASSERT_EQ(DBfpPutMemoRecord(other, &ob, "by the other", 12, 0, 0), 0);
  // The unlocked handle sees the other's append: its header is re-read.
  int32_t rc = 0;
  EXPECT_EQ(GetFpt(h, ob, &rc), "by the other");
  ASSERT_EQ(DBfpLockMemo(h), 0);
  EXPECT_EQ(DBfpLockMemo(other), DB_ERR_LOCK_RETRIES);
  EXPECT_EQ(DBfpPutMemoRecord(h, &b, "mine", 4, 0, 0), 0);
  EXPECT_EQ(b, ob + 1);
  ASSERT_EQ(DBfpZapMemo(h), 0);
  ASSERT_EQ(DBfpUnLockMemo(h), 0);
  EXPECT_EQ(ReadFileBytes(path_).size(), 512u);
  DBFPMEMOHEADER header{};
  ASSERT_EQ(DBfpGetMemoHeader(other, &header), 0);
  EXPECT_EQ(header.next_free, 8u);
  DBfpCloseMemo(other);
  DBfpCloseMemo(h);
}

TEST_F(FptTest, AllocationFailuresLeakNothing) {
  std::string path = dir_.File("fault.fpt");
  ASSERT_EQ(DBfpCreateMemo(path.c_str(), 64), 0);
  std::string big(3000, 'q');
  bool completed = false;
  for (long n = 1; n < 100 && !completed; ++n) {
    long live = kestrel::testing::LiveAllocations();
    kestrel::testing::FailAllocation(n);
    int32_t h = -1;
    int32_t rc = DBfpOpenMemo(&h, path.c_str(), 0);
    uint32_t b = 0;
    if (rc == 0) rc = DBfpPutMemoRecord(h, &b, big.data(), 3000, 0, 0);
    char* data = nullptr;
    if (rc == 0) rc = DBfpGetMemoRecord(h, b, &data, 3000, 0);
    if (rc == 0) rc = DBfpGetMemoRecord(h, b, &data, 1000, DB_FPT_PIECES);
    if (rc == 1) rc = 0;
    if (h >= 0) DBfpCloseMemo(h);
    kestrel::testing::FailAllocation(0);
    ASSERT_TRUE(rc == 0 || rc == DB_ERR_MEMORY) << "n=" << n << " rc=" << rc;
    completed = rc == 0;
    ASSERT_EQ(kestrel::testing::LiveAllocations(), live) << "n=" << n;
  }
  EXPECT_TRUE(completed);
}

}  // namespace
}  // namespace kestrel::test

namespace kestrel::test {
namespace {

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
  int32_t again = -1;
  EXPECT_EQ(DBxbOpenMemo(&again, dbt.c_str(), 2), DB_ERR_OPEN);  // held exclusively
  ASSERT_EQ(DBTerminate(), 0);
  EXPECT_EQ(kestrel::testing::LiveAllocations(), live);
  ASSERT_EQ(DBInitialize(20, 0), 0);
  EXPECT_EQ(DBxbOpenMemo(&a, dbt.c_str(), 2), 0);
  EXPECT_EQ(DBfpOpenMemo(&b, fpt.c_str(), 0), 0);
  DBTerminate();
}

}  // namespace
}  // namespace kestrel::test
