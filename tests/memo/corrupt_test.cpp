// Damaged memo files: random bytes of valid files are overwritten, and every
// call either works or reports an error status - no crash, no hang, no read
// past the file (the sanitizer build checks the last).
#include <cstring>

#include "memo_test_util.h"

namespace kestrel::test {
namespace {

class CorruptTest : public MemoTest {};

TEST_F(CorruptTest, RandomDamageGivesStatusesOnly) {
  struct Kind {
    bool fpt;
    int32_t dialect;  // DBT dialect or FPT block size code
  } kinds[] = {{false, 3}, {false, 2}, {true, 64}, {true, 1}};
  std::mt19937 rng(99);
  for (const Kind& k : kinds) {
    SCOPED_TRACE(k.fpt ? "fpt" : "dbt");
    std::string path = dir_.File(k.fpt ? "c.fpt" : "c.dbt");
    ASSERT_EQ(k.fpt ? DBfpCreateMemo(path.c_str(), k.dialect)
                    : DBxbCreateMemo(path.c_str(), 1, k.dialect),
              0);
    int32_t h = -1;
    ASSERT_EQ(k.fpt ? DBfpOpenMemo(&h, path.c_str(), 0) : DBxbOpenMemo(&h, path.c_str(), k.dialect),
              0);
    std::vector<uint32_t> blocks;
    for (int i = 0; i < 12; ++i) {
      std::string text = MemoText(rng, 1 + rng() % 1500);
      uint32_t b = 0;
      ASSERT_EQ(
          k.fpt ? DBfpPutMemoRecord(h, &b, text.data(), static_cast<uint32_t>(text.size()), 0, 0)
                : DBxbPutMemoRecord(h, &b, text.c_str(), 0),
          0);
      blocks.push_back(b);
    }
    if (!k.fpt) {  // leave a free run behind in the dBASE IV layout
      uint32_t b = blocks[3];
      ASSERT_EQ(DBxbPutMemoRecord(h, &b, std::string(3000, 'f').c_str(), DB_MEMO_REPLACE), 0);
    }
    k.fpt ? DBfpCloseMemo(h) : DBxbCloseMemo(h);
    const auto good = ReadFileBytes(path);

    for (int round = 0; round < 150; ++round) {
      auto bytes = good;
      int changes = 1 + static_cast<int>(rng() % 8);
      for (int c = 0; c < changes; ++c) {
        // Half of the damage goes to the headers, where lengths and links live.
        size_t at = rng() % 2 ? rng() % 32 : rng() % bytes.size();
        if (rng() % 3 == 0) {
          at = blocks[rng() % blocks.size()] * (k.fpt ? (k.dialect == 64 ? 64 : 512) : 512) +
               rng() % 8;
        }
        if (at < bytes.size()) bytes[at] = static_cast<uint8_t>(rng());
      }
      if (rng() % 10 == 0) bytes.resize(rng() % bytes.size());
      WriteFileBytes(path, bytes);
      int32_t rc =
          k.fpt ? DBfpOpenMemo(&h, path.c_str(), 0) : DBxbOpenMemo(&h, path.c_str(), k.dialect);
      if (rc < 0) {
        EXPECT_EQ(h, -1);
        continue;
      }
      for (uint32_t b = 0; b < 40; ++b) {
        if (k.fpt) {
          char* data = nullptr;
          rc = DBfpGetMemoRecord(h, b, &data, 0xFFFFFFFFu, 0);
          EXPECT_LE(rc, 0);
          uint32_t length = 0;
          int32_t type = 0;
          if (DBfpGetMemoType(h, b, &length, &type) == 0) {
            EXPECT_LE(length, bytes.size());
          }
        } else {
          for (int32_t option : {0, DB_MEMO_NO_SOFT_BREAKS}) {
            char* text = nullptr;
            rc = DBxbGetMemoRecord(h, b, &text, option);
            EXPECT_TRUE((rc == 0) == (text != nullptr));
            if (text) {
              EXPECT_LE(std::strlen(text), bytes.size());
              DBFreeMemory(text);
            }
          }
        }
      }
      // Writes over damaged memos and free chains end too.
      for (int w = 0; w < 3; ++w) {
        uint32_t b = blocks[rng() % blocks.size()];
        std::string text = MemoText(rng, 1 + rng() % 3000);
        rc = k.fpt ? DBfpPutMemoRecord(h, &b, text.data(), static_cast<uint32_t>(text.size()), 0,
                                       DB_MEMO_REPLACE)
                   : DBxbPutMemoRecord(h, &b, text.c_str(), DB_MEMO_REPLACE);
        EXPECT_LE(rc, 0);
      }
      if (!k.fpt) {
        DBXBMEMOINFO info{};
        rc = DBxbGetMemoInfo(h, &info);
        EXPECT_TRUE(rc == 0 || rc == DB_ERR_CORRUPTED);
      }
      EXPECT_EQ(k.fpt ? DBfpCloseMemo(h) : DBxbCloseMemo(h), 0);
    }
  }
}

}  // namespace
}  // namespace kestrel::test
