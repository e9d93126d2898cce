// Memo pack over the memo fields of tables: the packed file keeps exactly the
// memos that active records point to, the records get the new numbers, the
// locks of shared files are given back, and a pack that runs out of memory
// leaves both files as they were.
#include <array>
#include <cstring>
#include <filesystem>
#include <map>

#include "memo_test_util.h"

namespace kestrel::test {
namespace {

struct Format {
  Layout layout;
  uint32_t block_size;
  uint32_t overhead;  // bytes a memo takes besides its text
  uint32_t first_block;
};

void PrintTo(const Format& f, std::ostream* out) { *out << f.layout.name; }

class PackTest : public MemoTest, public ::testing::WithParamInterface<Format> {
 protected:
  // A table NAME C(10), NOTES M, MORE M (the first memo field at byte 11)
  // and an empty memo file.  In FoxPro tables MORE is a G (general) field,
  // which holds its memo reference as M does.
  void Create(const std::string& dbf, const std::string& memo) {
    DBFIELD fields[3] = {Field("NAME", 'C', 10), Field("NOTES", 'M'),
                         Field("MORE", GetParam().layout.fpt ? 'G' : 'M')};
    ASSERT_EQ(DBCreateFile(dbf.c_str(), 3, fields, GetParam().layout.dialect), 0);
    ASSERT_EQ(GetParam().layout.Create(memo), 0);
  }
  uint32_t PutMemo(int32_t h, const std::string& text, uint32_t replace = 0) {
    uint32_t b = replace;
    EXPECT_EQ(GetParam().layout.Put(h, &b, text, replace ? DB_MEMO_REPLACE : 0), 0);
    return b;
  }
  std::string GetMemo(int32_t h, uint32_t block) {
    int32_t rc = 0;
    std::string s = GetParam().layout.Get(h, block, &rc);
    EXPECT_EQ(rc, 0) << "block " << block;
    return s;
  }
  uint32_t BlocksOf(size_t length) {
    const Format& f = GetParam();
    return static_cast<uint32_t>((length + f.overhead + f.block_size - 1) / f.block_size);
  }
};

TEST_P(PackTest, KeepsExactlyTheMemosOfActiveRecords) {
  const Format& f = GetParam();
  const Layout& l = f.layout;
  // Exclusive, and shared with automatic locking: the pack takes the
  // table's file lock and gives it back, and reopens the memo file shared.
  for (int32_t mode : {0, DB_OPEN_AUTOLOCK}) {
    SCOPED_TRACE(mode);
    std::filesystem::remove_all(dir_.path());
    std::filesystem::create_directory(dir_.path());
    std::string dbf = dir_.File("orders.dbf"), memo = dir_.File("orders" + l.Extension());
    Create(dbf, memo);
    int32_t t = -1, m = -1;
    ASSERT_EQ(l.Open(&m, memo, DB_OPEN_READONLY), 0);
    ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), l.dialect | mode), 0);
    EXPECT_EQ(l.Pack(t, &m), DB_ERR_READ_ONLY);
    l.Close(m);
    ASSERT_EQ(l.Open(&m, memo, mode), 0);

    std::mt19937 rng(17);
    std::map<int32_t, std::array<std::string, 2>> texts;  // by record; "" = no memo
    const int kRecords = 60;
    for (int r = 1; r <= kRecords; ++r) {
      ASSERT_EQ(DBClearBuffer(t), 0);
      ASSERT_EQ(DBPutStrField(t, 0, ("rec" + std::to_string(r)).c_str()), 0);
      for (int fld = 0; fld < 2; ++fld) {
        if ((r + fld) % 4 == 0) continue;
        texts[r][fld] = MemoText(rng, std::uniform_int_distribution<size_t>(1, 1800)(rng));
        uint32_t b = PutMemo(m, texts[r][fld]);
        ASSERT_EQ(DBPutFieldData(t, 1 + fld, &b), 0);
      }
      ASSERT_EQ(AppendRecord(t), r);
    }
    // Grow some memos (they move, leaving dead space) and delete records,
    // whose memo fields must stay as they are.
    std::map<int32_t, std::string> deleted_fields;
    for (int r = 1; r <= kRecords; ++r) {
      ASSERT_GE(DBGetRecord(t, r), 0);
      if (r % 5 == 0 && !texts[r][0].empty()) {
        uint32_t b = 0;
        ASSERT_EQ(DBGetFieldData(t, 1, &b), 0);
        texts[r][0] = MemoText(rng, 2500);
        uint32_t nb = PutMemo(m, texts[r][0], b);
        ASSERT_EQ(DBPutFieldData(t, 1, &nb), 0);
        int32_t recno = r;
        ASSERT_EQ(DBPutRecord(t, &recno, DB_RECORD_REPLACE), 0);
      }
      if (r % 7 == 3) {
        ASSERT_EQ(DBMarkRecordInActive(t, r), 0);
        DBRECORDINFO info{};
        ASSERT_EQ(DBGetRecordInfo(t, &info), 0);
        deleted_fields[r] = std::string(static_cast<char*>(info.record_buffer) + 11, 10);
      }
    }
    ASSERT_EQ(DBFlushFile(t), 0);
    auto before = ReadFileBytes(memo);
    ASSERT_EQ(l.Pack(t, &m), 0);
    ASSERT_GE(m, 0);

    auto check = [&](int32_t table) {
      uint64_t live_blocks = 0;
      for (int r = 1; r <= kRecords; ++r) {
        SCOPED_TRACE(r);
        ASSERT_GE(DBGetRecord(table, r), 0);
        if (deleted_fields.count(r)) {
          DBRECORDINFO info{};
          ASSERT_EQ(DBGetRecordInfo(table, &info), 0);
          EXPECT_EQ(std::string(static_cast<char*>(info.record_buffer) + 11, 10),
                    deleted_fields[r]);
          continue;
        }
        for (int fld = 0; fld < 2; ++fld) {
          uint32_t b = 0;
          int32_t rc = DBGetFieldData(table, 1 + fld, &b);
          if (texts[r][fld].empty()) {
            EXPECT_EQ(rc, DB_WARN_FIELD_EMPTY);
            continue;
          }
          ASSERT_EQ(rc, 0);
          EXPECT_EQ(GetMemo(m, b), texts[r][fld]);
          live_blocks += BlocksOf(texts[r][fld].size());
        }
      }
      // Nothing else is left in the file (and no free run either).
      EXPECT_EQ(l.StateOf(m).next_free, f.first_block + live_blocks);
    };
    check(t);
    EXPECT_EQ(ReadFileBytes(dir_.File("orders.bkt")), before);  // the backup
    EXPECT_LT(ReadFileBytes(memo).size(), before.size());
    // The locks are given back; the memo file is opened as it was.
    Layout::State state = l.StateOf(m);
    EXPECT_EQ(state.locked, 0);
    EXPECT_EQ(state.attributes & (DB_MEMO_ATTR_SHARED | DB_MEMO_ATTR_AUTOLOCK),
              mode ? DB_MEMO_ATTR_SHARED | DB_MEMO_ATTR_AUTOLOCK : 0);
    DBFILEINFO table_info{};
    ASSERT_EQ(DBGetFileInfo(t, &table_info), 0);
    EXPECT_EQ(table_info.lock_count, 0);
    // The new numbers reached the table file.
    ASSERT_EQ(DBCloseFile(t), 0);
    ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), l.dialect | mode), 0);
    check(t);
    // Packing again changes nothing in the memo file.
    auto packed = ReadFileBytes(memo);
    ASSERT_EQ(l.Pack(t, &m), 0);
    EXPECT_EQ(ReadFileBytes(memo), packed);
    EXPECT_EQ(l.Close(m), 0);
    EXPECT_EQ(DBCloseFile(t), 0);
  }
}

// A memo reference that is no block number (2^32 + 2 would wrap to block 2,
// another record's memo) is -206 for the field read and for the pack, which
// then leaves both files as they were.
TEST_P(PackTest, DamagedReferencesAreErrorsEverywhere) {
  const Layout& l = GetParam().layout;
  std::string dbf = dir_.File("refs.dbf"), memo = dir_.File("refs" + l.Extension());
  Create(dbf, memo);
  int32_t t = -1, m = -1;
  ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), l.dialect), 0);
  ASSERT_EQ(l.Open(&m, memo), 0);
  for (int r = 1; r <= 3; ++r) {
    ASSERT_EQ(DBClearBuffer(t), 0);
    uint32_t b = PutMemo(m, "memo of record " + std::to_string(r));
    ASSERT_EQ(DBPutFieldData(t, 1, &b), 0);
    AppendRecord(t);
  }
  struct Case {
    const char* stored;
    int32_t status;
    uint32_t block;
  } cases[] = {
      {"4294967298", DB_ERR_CORRUPTED, 0},
      {"99999999999", DB_ERR_CORRUPTED, 0},
      {"     12abc", DB_ERR_CORRUPTED, 0},
      {"        -1", DB_ERR_CORRUPTED, 0},
      {"4294967295", 0, 4294967295u},
      {"0000000007", 0, 7},
      {"         0", 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.stored);
    ASSERT_GE(DBGetRecord(t, 2), 0);
    ASSERT_GE(DBPutStrField(t, 1, c.stored), 0);
    int32_t recno = 2;
    ASSERT_EQ(DBPutRecord(t, &recno, DB_RECORD_REPLACE), 0);
    uint32_t block = 12345;
    EXPECT_EQ(DBGetFieldData(t, 1, &block), c.status);
    EXPECT_EQ(block, c.status < 0 ? 12345u : c.block);
    if (c.status == 0) continue;
    ASSERT_EQ(DBFlushFile(t), 0);
    auto table_before = ReadFileBytes(dbf), memo_before = ReadFileBytes(memo);
    EXPECT_EQ(l.Pack(t, &m), DB_ERR_CORRUPTED);
    EXPECT_EQ(ReadFileBytes(dbf), table_before);
    EXPECT_EQ(ReadFileBytes(memo), memo_before);
  }
  l.Close(m);
  EXPECT_EQ(DBCloseFile(t), 0);
}

INSTANTIATE_TEST_SUITE_P(Formats, PackTest,
                         ::testing::Values(Format{{"dbt_plain", false, 3, 1}, 512, 2, 1},
                                           Format{{"dbt_dbase4", false, 2, 1}, 512, 8, 1},
                                           Format{{"dbt_dbase4_2k", false, 2, 4}, 2048, 8, 1},
                                           Format{{"fpt_64", true, 8, 64}, 64, 8, 8},
                                           Format{{"fpt_512", true, 8, 1}, 512, 8, 1}),
                         [](const auto& info) { return std::string(info.param.layout.name); });

// Allocation failures anywhere in a pack: -203, nothing leaks, and a pack
// that failed before the swap leaves both files as they were.
TEST_P(PackTest, AllocationFailures) {
  const Layout& l = GetParam().layout;
  std::string dbf = dir_.File("f.dbf"), memo = dir_.File("f" + l.Extension());
  Create(dbf, memo);
  int32_t t = -1, m = -1;
  ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), l.dialect), 0);
  ASSERT_EQ(l.Open(&m, memo), 0);
  auto text_of = [](int32_t recno) {
    return std::string(100 + 50 * (recno - 1), static_cast<char>('a' + recno - 1));
  };
  for (int i = 0; i < 20; ++i) {
    uint32_t b = PutMemo(m, text_of(i + 1));
    ASSERT_EQ(DBClearBuffer(t), 0);
    ASSERT_EQ(DBPutFieldData(t, 1, &b), 0);
    AppendRecord(t);
  }
  ASSERT_EQ(DBMarkRecordInActive(t, 3), 0);
  l.Close(m);
  DBCloseFile(t);
  const auto table_bytes = ReadFileBytes(dbf), memo_bytes = ReadFileBytes(memo);

  bool completed = false;
  for (long n = 1; n < 400 && !completed; ++n) {
    SCOPED_TRACE(n);
    WriteFileBytes(dbf, table_bytes);
    WriteFileBytes(memo, memo_bytes);
    long live = kestrel::testing::LiveAllocations();
    ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), l.dialect), 0);
    ASSERT_EQ(l.Open(&m, memo), 0);
    kestrel::testing::FailAllocation(n);
    int32_t rc = l.Pack(t, &m);
    kestrel::testing::FailAllocation(0);
    ASSERT_TRUE(rc == 0 || rc == DB_ERR_MEMORY) << rc;
    completed = rc == 0;
    const bool before_swap = !completed && m >= 0;  // the old handle is still open
    if (m >= 0) l.Close(m);
    // However far it got, every active record reads its own memo from the
    // file under the memo's name.
    ASSERT_EQ(l.Open(&m, memo), 0);
    for (int32_t recno = 1; recno <= 20; ++recno) {
      if (recno == 3) continue;
      ASSERT_GE(DBGetRecord(t, recno), 0);
      uint32_t b = 0;
      ASSERT_EQ(DBGetFieldData(t, 1, &b), 0);
      EXPECT_EQ(GetMemo(m, b), text_of(recno)) << "record " << recno;
    }
    l.Close(m);
    DBCloseFile(t);
    if (before_swap) {
      // A pack that failed before the swap changed nothing.
      EXPECT_EQ(ReadFileBytes(memo), memo_bytes);
      EXPECT_EQ(ReadFileBytes(dbf), table_bytes);
      EXPECT_FALSE(std::filesystem::exists(dir_.File("0" + l.Extension())));
    }
    EXPECT_EQ(kestrel::testing::LiveAllocations(), live);
  }
  EXPECT_TRUE(completed);
}

// A pack that fails before the swap (a directory holds the work file's name)
// gives back the memo lock it took, and keeps one the caller took itself.
TEST_P(PackTest, FailedPackGivesBackItsMemoLock) {
  const Layout& l = GetParam().layout;
  std::string dbf = dir_.File("g.dbf"), memo = dir_.File("g" + l.Extension());
  Create(dbf, memo);
  int32_t t = -1, m = -1, other = -1;
  ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), l.dialect | DB_OPEN_AUTOLOCK), 0);
  ASSERT_EQ(l.Open(&m, memo, DB_OPEN_AUTOLOCK), 0);
  ASSERT_EQ(l.Open(&other, memo, DB_OPEN_AUTOLOCK), 0);
  std::filesystem::create_directory(dir_.File("0" + l.Extension()));
  EXPECT_LT(l.Pack(t, &m), 0);
  ASSERT_GE(m, 0);
  EXPECT_EQ(l.StateOf(m).locked, 0);
  uint32_t b = 0;
  EXPECT_EQ(l.Put(other, &b, "written after the failed pack"), 0);
  ASSERT_EQ(l.Lock(m), 0);
  EXPECT_LT(l.Pack(t, &m), 0);
  EXPECT_EQ(l.StateOf(m).locked, 1);
  EXPECT_EQ(l.Unlock(m), 0);
  EXPECT_EQ(l.Close(other), 0);
  EXPECT_EQ(l.Close(m), 0);
  EXPECT_EQ(DBCloseFile(t), 0);
}

}  // namespace
}  // namespace kestrel::test
