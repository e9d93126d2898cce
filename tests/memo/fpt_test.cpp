// FPT memo files: block size codes, memos written and read in pieces, and
// damaged files.
#include "memo_test_util.h"

namespace kestrel::test {
namespace {

class FptTest : public MemoTest {
 protected:
  int32_t Make(const std::string& name, int32_t code) {
    path_ = dir_.File(name);
    EXPECT_EQ(DBfpCreateMemo(path_.c_str(), code), 0);
    int32_t h = -1;
    EXPECT_EQ(DBfpOpenMemo(&h, path_.c_str(), 0), 0);
    return h;
  }
  uint32_t Put(int32_t h, const std::string& data, uint32_t block = 0) {
    uint32_t b = block;
    EXPECT_EQ(DBfpPutMemoRecord(h, &b, data.data(), static_cast<uint32_t>(data.size()), 0,
                                block ? DB_MEMO_REPLACE : 0),
              0);
    return b;
  }
  std::string Get(int32_t h, uint32_t block) {
    int32_t rc = 0;
    std::string data = GetFpt(h, block, &rc);
    EXPECT_EQ(rc, 0) << "block " << block;
    return data;
  }
  std::string path_;
};

TEST_F(FptTest, BlockSizeCodes) {
  // Codes 1..32 count 512-byte units, larger ones bytes; the header's 512
  // bytes take whole blocks.
  struct Case {
    int32_t code;
    uint32_t block_size, next_free, file_size;
  } cases[] = {{1, 512, 1, 512},  {64, 64, 8, 512},   {2, 1024, 1, 1024},
               {33, 33, 16, 528}, {100, 100, 6, 600}, {32, 16384, 1, 16384}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.code);
    int32_t h = Make("c.fpt", c.code);
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
  EXPECT_EQ(DBfpCreateMemo(path_.c_str(), 0), DB_ERR_PAGE_SIZE);
  EXPECT_EQ(DBfpCreateMemo(path_.c_str(), 512), DB_ERR_PAGE_SIZE);
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
  for (int32_t rc = 1; rc == 1;) {
    char* piece = nullptr;
    rc = DBfpGetMemoRecord(h, b, &piece, 777, DB_FPT_PIECES);
    ASSERT_GE(rc, 0);
    back.append(piece, std::min<size_t>(777, data.size() - back.size()));
    DBFPMEMOINFO info{};
    ASSERT_EQ(DBfpGetMemoInfo(h, &info), 0);
    EXPECT_EQ(info.read_remaining, data.size() - back.size());
    EXPECT_EQ(rc, back.size() < data.size() ? 1 : 0);
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
  // Block 0, a block inside the header, the next free block.
  for (uint32_t outside : {0u, 3u, b + 1}) {
    char* out = reinterpret_cast<char*>(1);
    EXPECT_EQ(DBfpGetMemoRecord(h, outside, &out, 10, 0), DB_ERR_SEEK) << outside;
    EXPECT_EQ(out, nullptr);
  }
  DBfpCloseMemo(h);

  // A length field far beyond the end of the file: refused, nothing allocated.
  auto bytes = ReadFileBytes(path_);
  bytes[b * 64 + 4] = 0x7F;
  WriteFileBytes(path_, bytes);
  ASSERT_EQ(DBfpOpenMemo(&h, path_.c_str(), 0), 0);
  long before = kestrel::testing::AllocationCount();
  char* out = nullptr;
  EXPECT_EQ(DBfpGetMemoRecord(h, b, &out, 0xFFFFFFFFu, 0), DB_ERR_CORRUPTED);
  EXPECT_EQ(kestrel::testing::AllocationCount(), before);
  uint32_t length = 0;
  int32_t type = 0;
  EXPECT_EQ(DBfpGetMemoType(h, b, &length, &type), DB_ERR_CORRUPTED);
  DBfpCloseMemo(h);

  // Block sizes outside 33..16384 (1 and 16385), short files, bad switches.
  for (uint8_t high : {0x00, 0x40}) {
    bytes[6] = high;
    bytes[7] = 1;
    WriteFileBytes(path_, bytes);
    EXPECT_EQ(DBfpOpenMemo(&h, path_.c_str(), 0), DB_ERR_PAGE_SIZE);
    EXPECT_EQ(h, -1);
  }
  bytes.resize(100);
  WriteFileBytes(path_, bytes);
  EXPECT_EQ(DBfpOpenMemo(&h, path_.c_str(), 0), DB_ERR_NOT_MEMO);
  EXPECT_EQ(DBfpOpenMemo(&h, path_.c_str(), 1), DB_ERR_VERSION);
}

}  // namespace
}  // namespace kestrel::test
