// Damaged memo files: random bytes of valid files are overwritten, and every
// call either works or reports an error status - no crash, no hang, no read
// past the file (the sanitizer build checks the last).
#include <cstring>

#include "memo_test_util.h"

namespace kestrel::test {
namespace {

class CorruptTest : public MemoTest {};

TEST_F(CorruptTest, RandomDamageGivesStatusesOnly) {
  const Layout layouts[] = {{"dbt_plain", false, 3, 1},
                            {"dbt_dbase4", false, 2, 1},
                            {"fpt_64", true, 8, 64},
                            {"fpt_512", true, 8, 1}};
  std::mt19937 rng(99);
  for (const Layout& l : layouts) {
    SCOPED_TRACE(l.name);
    const uint32_t bs = l.fpt && l.arg == 64 ? 64 : 512;
    std::string path = dir_.File("c" + l.Extension());
    ASSERT_EQ(l.Create(path), 0);
    int32_t h = -1;
    ASSERT_EQ(l.Open(&h, path), 0);
    std::vector<uint32_t> blocks;
    for (int i = 0; i < 12; ++i) {
      uint32_t b = 0;
      ASSERT_EQ(l.Put(h, &b, MemoText(rng, 1 + rng() % 1500)), 0);
      blocks.push_back(b);
    }
    if (!l.fpt) {  // leave a free run behind in the dBASE IV layout
      ASSERT_EQ(l.Put(h, &blocks[3], std::string(3000, 'f'), DB_MEMO_REPLACE), 0);
    }
    l.Close(h);
    const auto good = ReadFileBytes(path);

    for (int round = 0; round < 150; ++round) {
      auto bytes = good;
      for (int c = 1 + static_cast<int>(rng() % 8); c > 0; --c) {
        // Half of the damage goes to the headers, where lengths and links
        // live, a third of the rest to the memos' block headers.
        size_t at = rng() % 2 ? rng() % 32 : rng() % bytes.size();
        if (rng() % 3 == 0) at = blocks[rng() % blocks.size()] * bs + rng() % 8;
        if (at < bytes.size()) bytes[at] = static_cast<uint8_t>(rng());
      }
      if (rng() % 10 == 0) bytes.resize(rng() % bytes.size());
      WriteFileBytes(path, bytes);
      if (l.Open(&h, path) < 0) {
        EXPECT_EQ(h, -1);
        continue;
      }
      for (uint32_t b = 0; b < 40; ++b) {
        if (l.fpt) {
          char* data = nullptr;
          EXPECT_LE(DBfpGetMemoRecord(h, b, &data, 0xFFFFFFFFu, 0), 0);
          uint32_t length = 0;
          int32_t type = 0;
          if (DBfpGetMemoType(h, b, &length, &type) == 0) {
            EXPECT_LE(length, bytes.size());
          }
          continue;
        }
        for (int32_t option : {0, DB_MEMO_NO_SOFT_BREAKS}) {
          char* text = nullptr;
          int32_t rc = DBxbGetMemoRecord(h, b, &text, option);
          EXPECT_EQ(rc == 0, text != nullptr);
          if (text) {
            EXPECT_LE(std::strlen(text), bytes.size());
            DBFreeMemory(text);
          }
        }
      }
      // Writes over damaged memos and free chains end too.
      for (int w = 0; w < 3; ++w) {
        uint32_t b = blocks[rng() % blocks.size()];
        EXPECT_LE(l.Put(h, &b, MemoText(rng, 1 + rng() % 3000), DB_MEMO_REPLACE), 0);
      }
      if (!l.fpt) {
        DBXBMEMOINFO info{};
        int32_t rc = DBxbGetMemoInfo(h, &info);
        EXPECT_TRUE(rc == 0 || rc == DB_ERR_CORRUPTED);
      }
      EXPECT_EQ(l.Close(h), 0);
    }
  }
}

}  // namespace
}  // namespace kestrel::test
