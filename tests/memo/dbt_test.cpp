// DBT memo files: headers, the dBASE IV free chain against a model, soft
// line breaks, and damaged files.
#include <map>

#include "memo_test_util.h"

namespace kestrel::test {
namespace {

class DbtTest : public MemoTest {
 protected:
  // Creates and opens a memo file; dialect 2 uses blocks x 512 bytes.
  int32_t Make(const std::string& name, int32_t dialect, int32_t blocks = 1) {
    path_ = dir_.File(name);
    EXPECT_EQ(DBxbCreateMemo(path_.c_str(), blocks, dialect), 0);
    int32_t h = -1;
    EXPECT_EQ(DBxbOpenMemo(&h, path_.c_str(), dialect), 0);
    return h;
  }
  uint32_t Put(int32_t h, const std::string& text, uint32_t block = 0, int32_t mode = 0) {
    uint32_t b = block;
    EXPECT_EQ(DBxbPutMemoRecord(h, &b, text.c_str(), mode | (block ? DB_MEMO_REPLACE : 0)), 0)
        << "put of " << text.size() << " bytes";
    return b;
  }
  std::string Get(int32_t h, uint32_t block, int32_t option = 0) {
    int32_t rc = 0;
    std::string text = GetDbt(h, block, &rc, option);
    EXPECT_EQ(rc, 0) << "block " << block;
    return text;
  }
  DBXBMEMOINFO Info(int32_t h) {
    DBXBMEMOINFO info{};
    EXPECT_EQ(DBxbGetMemoInfo(h, &info), 0);
    return info;
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
}

// dBASE IV layout: random puts and replaces against a model, the free chain
// checked as it goes.
TEST_F(DbtTest, DbaseIvFreeChainModel) {
  int32_t h = Make("iv.dbt", 2);
  std::mt19937 rng(11);
  std::map<uint32_t, std::string> live;
  auto blocks_of = [](const std::string& t) { return (t.size() + 8 + 511) / 512; };
  for (int step = 0; step < 400; ++step) {
    std::string text = MemoText(rng, std::uniform_int_distribution<size_t>(1, 2500)(rng));
    uint32_t b = 0;
    bool replace = !live.empty() && rng() % 3 != 0;
    if (replace) {
      auto it = std::next(live.begin(), static_cast<long>(rng() % live.size()));
      b = it->first;
      live.erase(it);
    }
    ASSERT_EQ(DBxbPutMemoRecord(h, &b, text.c_str(), replace ? DB_MEMO_REPLACE : 0), 0);
    for (const auto& [blk, t] : live) {
      ASSERT_FALSE(b >= blk && b < blk + blocks_of(t)) << "overlap at step " << step;
    }
    live[b] = text;
    if (step % 25 == 0 || step == 399) {
      uint64_t used = 1;  // the header block
      for (const auto& [blk, t] : live) {
        ASSERT_EQ(Get(h, blk), t) << "step " << step;
        used += blocks_of(t);
      }
      DBXBMEMOINFO info = Info(h);
      EXPECT_LE(used + info.free_blocks, info.block_count) << "step " << step;
    }
  }
  // Freed runs were reused: the file is far smaller than all writes together.
  EXPECT_LT(Info(h).block_count, 400u * 3);
  DBxbCloseMemo(h);
}

TEST_F(DbtTest, SoftLineBreaks) {
  const std::string text =
      "The quick brown fox jumps over the lazy dog and keeps running\r\n"
      "Supercalifragilisticexpialidocious words do not fit";
  // dBASE III and IV wrap at the length given; Clipper ignores it.
  for (auto [dialect, length] : {std::pair{3, 10}, {2, 12}, {6, 10}}) {
    SCOPED_TRACE(dialect);
    int32_t h = Make("soft.dbt", dialect);
    uint32_t b = Put(h, text, 0, length);
    std::string raw = Get(h, b);
    // Wrapped: no line between breaks of either kind is longer than asked.
    size_t run = 0, longest = 0;
    for (char c : raw) {
      run = c == '\n' ? 0 : run + (c != '\x8D');
      longest = std::max(longest, run);
    }
    if (dialect == 6) {
      EXPECT_EQ(raw, text);
    } else {
      EXPECT_NE(raw.find("\x8D\n"), std::string::npos);
      EXPECT_LE(longest, static_cast<size_t>(length)) << raw;
    }
    EXPECT_EQ(Get(h, b, DB_MEMO_NO_SOFT_BREAKS), text);
    // Lengths outside 10..132 are refused, and so is an unknown read option.
    uint32_t b2 = 0;
    EXPECT_EQ(DBxbPutMemoRecord(h, &b2, "abc", 9), dialect != 6 ? DB_ERR_SOFT_LINE : 0);
    EXPECT_EQ(DBxbPutMemoRecord(h, &b2, "abc", 133), dialect != 6 ? DB_ERR_SOFT_LINE : 0);
    char* out = reinterpret_cast<char*>(1);
    EXPECT_EQ(DBxbGetMemoRecord(h, b, &out, 1), DB_ERR_INVALID_COMMAND);
    EXPECT_EQ(out, nullptr);
    DBxbCloseMemo(h);
  }
}

TEST_F(DbtTest, BadBlocksLongTextsAndDamagedFiles) {
  int32_t h = Make("bad.dbt", 3);
  uint32_t b = Put(h, "hello");
  int32_t rc = 0;
  for (uint32_t outside : {0u, b + 1}) {
    GetDbt(h, outside, &rc);
    EXPECT_EQ(rc, DB_ERR_SEEK) << outside;
  }
  uint32_t blk = 0;
  EXPECT_EQ(DBxbPutMemoRecord(h, &blk, "", 0), DB_ERR_BAD_DATA);
  blk = 99;
  EXPECT_EQ(DBxbPutMemoRecord(h, &blk, "x", DB_MEMO_REPLACE), DB_ERR_SEEK);
  // The plain layout holds texts up to 128 blocks with their end marks.
  std::string longest(128 * 512 - 2, 'l');
  EXPECT_EQ(Get(h, Put(h, longest)), longest);
  blk = 0;
  EXPECT_EQ(DBxbPutMemoRecord(h, &blk, (longest + "x").c_str(), 0), DB_ERR_FIELD_LENGTH);
  DBxbCloseMemo(h);

  // A plain memo whose end marker is missing: the file ends inside the text
  // ("hel"), or more than 128 blocks follow without one.
  auto bytes = ReadFileBytes(path_);
  bytes.resize(512 + 3);
  std::vector<uint8_t> unended(512 + 130 * 512, 'z');
  std::fill(unended.begin(), unended.begin() + 512, 0);
  unended[0] = 2;
  auto expect_read = [&](const std::vector<uint8_t>& file, int32_t code) {
    WriteFileBytes(path_, file);
    ASSERT_EQ(DBxbOpenMemo(&h, path_.c_str(), 3), 0);
    GetDbt(h, 1, &rc);
    EXPECT_EQ(rc, code);
    DBxbCloseMemo(h);
  };
  expect_read(bytes, DB_ERR_CORRUPTED);
  expect_read(unended, DB_ERR_FIELD_LENGTH);
  // The read with a length takes a memo whole at any length: 130 blocks end
  // with their marks here; without them the file ends inside the memo.
  std::vector<uint8_t> ended = unended;
  ended.insert(ended.end(), {0x1A, 0x1A});
  for (const auto& [file, code] : {std::pair{ended, 0}, std::pair{unended, DB_ERR_CORRUPTED}}) {
    WriteFileBytes(path_, file);
    ASSERT_EQ(DBxbOpenMemo(&h, path_.c_str(), 3), 0);
    std::string whole = GetBytes(false, h, 1, &rc);
    EXPECT_EQ(rc, code);
    if (code == 0) {
      EXPECT_EQ(whole, std::string(130 * 512, 'z'));
    }
    DBxbCloseMemo(h);
  }

  // dBASE IV: a block header whose length runs past the end of the file is
  // refused before anything is allocated for it, in reads and replaces.
  h = Make("badiv.dbt", 2);
  b = Put(h, "text");
  DBxbCloseMemo(h);
  bytes = ReadFileBytes(path_);
  // Binary data (a zero byte inside) reads whole through the read with a
  // length; the text read stops at the zero.
  bytes[512 * b + 8 + 1] = 0;
  WriteFileBytes(path_, bytes);
  ASSERT_EQ(DBxbOpenMemo(&h, path_.c_str(), 2), 0);
  EXPECT_EQ(GetBytes(false, h, b, &rc), std::string("t\0xt", 4));
  EXPECT_EQ(rc, 0);
  DBxbCloseMemo(h);
  const uint8_t huge[4] = {0xF0, 0xFF, 0xFF, 0x7F};
  std::copy(huge, huge + 4, bytes.begin() + 512 * b + 4);
  WriteFileBytes(path_, bytes);
  ASSERT_EQ(DBxbOpenMemo(&h, path_.c_str(), 2), 0);
  long before = kestrel::testing::AllocationCount();
  GetDbt(h, b, &rc);
  EXPECT_EQ(rc, DB_ERR_CORRUPTED);
  EXPECT_EQ(kestrel::testing::AllocationCount(), before);
  EXPECT_EQ(DBxbPutMemoRecord(h, &b, std::string(3000, 'q').c_str(), DB_MEMO_REPLACE),
            DB_ERR_CORRUPTED);
  DBxbCloseMemo(h);
  // A block size outside 512..16384 in the header, and a file too short.
  bytes[20] = 64;
  bytes[21] = 0;
  WriteFileBytes(path_, bytes);
  EXPECT_EQ(DBxbOpenMemo(&h, path_.c_str(), 2), DB_ERR_PAGE_SIZE);
  EXPECT_EQ(h, -1);
  bytes.resize(20);
  WriteFileBytes(path_, bytes);
  EXPECT_EQ(DBxbOpenMemo(&h, path_.c_str(), 2), DB_ERR_NOT_MEMO);
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
  EXPECT_EQ(Put(h, "fits"), 1u);
  DBxbCloseMemo(h);
}

}  // namespace
}  // namespace kestrel::test
