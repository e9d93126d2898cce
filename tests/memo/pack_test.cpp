// Memo pack and memo fields of tables: the packed file keeps exactly the
// memos that active records point to, and the records get the new numbers.
#include <array>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

#include "memo_test_util.h"
#include "runtime/memory.h"

namespace kestrel::test {
namespace {

struct Format {
  const char* name;
  int32_t table_dialect;
  bool fpt;
  int32_t memo_arg;  // DBT: dialect 2 blocks; FPT: block size code
  uint32_t block_size;
  uint32_t overhead;  // bytes a memo takes besides its text
  uint32_t first_block;
};

class PackTest : public MemoTest, public ::testing::WithParamInterface<Format> {
 protected:
  void CreateTable(const std::string& dbf) {
    DBFIELD fields[3] = {};
    std::strcpy(fields[0].name, "NAME");
    fields[0].type = 'C';
    fields[0].length = 10;
    std::strcpy(fields[1].name, "NOTES");
    fields[1].type = 'M';
    std::strcpy(fields[2].name, "MORE");
    fields[2].type = 'M';
    ASSERT_EQ(DBCreateFile(dbf.c_str(), 3, fields, GetParam().table_dialect), 0);
  }
  int32_t OpenMemo(const std::string& path) {
    int32_t h = -1;
    const Format& f = GetParam();
    if (f.fpt) {
      EXPECT_EQ(DBfpOpenMemo(&h, path.c_str(), 0), 0);
    } else {
      EXPECT_EQ(DBxbOpenMemo(&h, path.c_str(), f.table_dialect), 0);
    }
    return h;
  }
  uint32_t PutMemo(int32_t h, const std::string& text, uint32_t replace = 0) {
    uint32_t b = replace;
    int32_t mode = replace ? DB_MEMO_REPLACE : 0;
    int32_t rc = GetParam().fpt ? DBfpPutMemoRecord(h, &b, text.data(),
                                                    static_cast<uint32_t>(text.size()), 0, mode)
                                : DBxbPutMemoRecord(h, &b, text.c_str(), mode);
    EXPECT_EQ(rc, 0);
    return b;
  }
  std::string GetMemo(int32_t h, uint32_t block) {
    int32_t rc = 0;
    std::string s = GetParam().fpt ? GetFpt(h, block, &rc) : GetDbt(h, block, &rc);
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
  std::string dbf = dir_.File("orders.dbf");
  std::string memo = dir_.File(f.fpt ? "orders.fpt" : "orders.dbt");
  CreateTable(dbf);
  if (f.fpt) {
    ASSERT_EQ(DBfpCreateMemo(memo.c_str(), f.memo_arg), 0);
  } else {
    ASSERT_EQ(DBxbCreateMemo(memo.c_str(), f.memo_arg, f.table_dialect), 0);
  }
  int32_t t = -1;
  ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), f.table_dialect), 0);
  int32_t m = OpenMemo(memo);

  std::mt19937 rng(17);
  // texts[recno][field] ("" = no memo)
  std::map<int32_t, std::array<std::string, 2>> texts;
  const int kRecords = 60;
  for (int r = 1; r <= kRecords; ++r) {
    ASSERT_EQ(DBClearBuffer(t), 0);
    ASSERT_EQ(DBPutStrField(t, 0, ("rec" + std::to_string(r)).c_str()), 0);
    for (int fld = 0; fld < 2; ++fld) {
      std::string text;
      if ((r + fld) % 4 != 0) {
        text = MemoText(rng, std::uniform_int_distribution<size_t>(1, 1800)(rng));
        uint32_t b = PutMemo(m, text);
        ASSERT_EQ(DBPutFieldData(t, 1 + fld, &b), 0);
      }
      texts[r][fld] = text;
    }
    int32_t recno = 0;
    ASSERT_EQ(DBPutRecord(t, &recno, DB_RECORD_APPEND), 0);
    ASSERT_EQ(recno, r);
  }
  // Grow some memos (they move, leaving dead space) and delete records.
  std::map<int32_t, std::string> deleted_fields;
  for (int r = 1; r <= kRecords; ++r) {
    ASSERT_GE(DBGetRecord(t, r), 0);
    if (r % 5 == 0 && !texts[r][0].empty()) {
      uint32_t b = 0;
      ASSERT_EQ(DBGetFieldData(t, 1, &b), 0);
      std::string text = MemoText(rng, 2500);
      uint32_t nb = PutMemo(m, text, b);
      ASSERT_EQ(DBPutFieldData(t, 1, &nb), 0);
      int32_t recno = r;
      ASSERT_EQ(DBPutRecord(t, &recno, DB_RECORD_REPLACE), 0);
      texts[r][0] = text;
    }
    if (r % 7 == 3) {
      ASSERT_EQ(DBMarkRecordInActive(t, r), 0);
      char raw[11] = {};
      ASSERT_GE(DBGetRecord(t, r), 0);
      DBRECORDINFO info{};
      ASSERT_EQ(DBGetRecordInfo(t, &info), 0);
      std::memcpy(raw, static_cast<char*>(info.record_buffer) + 11, 10);
      deleted_fields[r] = raw;
    }
  }
  ASSERT_EQ(DBFlushFile(t), 0);
  auto before = ReadFileBytes(memo);

  int32_t old_handle = m;
  ASSERT_EQ(f.fpt ? DBfpPackMemo(t, &m) : DBxbPackMemo(t, &m), 0);
  EXPECT_GE(m, 0);
  (void)old_handle;

  auto check = [&](int32_t table, int32_t memo_handle) {
    uint64_t live_blocks = 0;
    for (int r = 1; r <= kRecords; ++r) {
      SCOPED_TRACE(r);
      ASSERT_GE(DBGetRecord(table, r), 0);
      if (deleted_fields.count(r)) {
        DBRECORDINFO info{};
        ASSERT_EQ(DBGetRecordInfo(table, &info), 0);
        EXPECT_EQ(std::string(static_cast<char*>(info.record_buffer) + 11, 10), deleted_fields[r]);
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
        EXPECT_EQ(GetMemo(memo_handle, b), texts[r][fld]);
        live_blocks += BlocksOf(texts[r][fld].size());
      }
    }
    // Nothing else is left in the file.
    uint32_t next_free = 0;
    if (f.fpt) {
      DBFPMEMOHEADER h{};
      ASSERT_EQ(DBfpGetMemoHeader(memo_handle, &h), 0);
      next_free = h.next_free;
    } else {
      DBXBMEMOINFO info{};
      ASSERT_EQ(DBxbGetMemoInfo(memo_handle, &info), 0);
      next_free = info.next_free;
      EXPECT_EQ(info.free_runs, 0u);
    }
    EXPECT_EQ(next_free, f.first_block + live_blocks);
  };
  check(t, m);
  // The old file is kept as the backup.
  std::string backup = dir_.File(f.fpt ? "orders.bkt" : "orders.bkt");
  EXPECT_EQ(ReadFileBytes(backup), before);
  EXPECT_LT(ReadFileBytes(memo).size(), before.size());
  // The new numbers reached the table file.
  ASSERT_EQ(DBCloseFile(t), 0);
  ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), f.table_dialect), 0);
  check(t, m);
  // Packing again changes nothing in the memo file.
  auto packed = ReadFileBytes(memo);
  ASSERT_EQ(f.fpt ? DBfpPackMemo(t, &m) : DBxbPackMemo(t, &m), 0);
  EXPECT_EQ(ReadFileBytes(memo), packed);
  EXPECT_EQ(f.fpt ? DBfpCloseMemo(m) : DBxbCloseMemo(m), 0);
  EXPECT_EQ(DBCloseFile(t), 0);
}

TEST_P(PackTest, ReadOnlyMemoIsRefused) {
  const Format& f = GetParam();
  std::string dbf = dir_.File("ro.dbf");
  std::string memo = dir_.File(f.fpt ? "ro.fpt" : "ro.dbt");
  CreateTable(dbf);
  int32_t m = -1;
  if (f.fpt) {
    ASSERT_EQ(DBfpCreateMemo(memo.c_str(), f.memo_arg), 0);
    ASSERT_EQ(DBfpOpenMemo(&m, memo.c_str(), DB_OPEN_READONLY), 0);
  } else {
    ASSERT_EQ(DBxbCreateMemo(memo.c_str(), f.memo_arg, f.table_dialect), 0);
    ASSERT_EQ(DBxbOpenMemo(&m, memo.c_str(), f.table_dialect | DB_OPEN_READONLY), 0);
  }
  int32_t t = -1;
  ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), f.table_dialect), 0);
  EXPECT_EQ(f.fpt ? DBfpPackMemo(t, &m) : DBxbPackMemo(t, &m), DB_ERR_READ_ONLY);
  EXPECT_EQ(f.fpt ? DBfpPackMemo(t, nullptr) : DBxbPackMemo(t, nullptr), DB_ERR_NULL);
  DBCloseFile(t);
}

// A shared table and a shared memo file: the pack takes the table's file
// lock and gives it back, and the memo file is reopened shared.
TEST_P(PackTest, SharedFilesArePackedUnderLocks) {
  const Format& f = GetParam();
  std::string dbf = dir_.File("sh.dbf");
  std::string memo = dir_.File(f.fpt ? "sh.fpt" : "sh.dbt");
  CreateTable(dbf);
  if (f.fpt) {
    ASSERT_EQ(DBfpCreateMemo(memo.c_str(), f.memo_arg), 0);
  } else {
    ASSERT_EQ(DBxbCreateMemo(memo.c_str(), f.memo_arg, f.table_dialect), 0);
  }
  int32_t t = -1, m = -1;
  ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), f.table_dialect | DB_OPEN_AUTOLOCK), 0);
  ASSERT_EQ(f.fpt ? DBfpOpenMemo(&m, memo.c_str(), DB_OPEN_AUTOLOCK)
                  : DBxbOpenMemo(&m, memo.c_str(), f.table_dialect | DB_OPEN_AUTOLOCK),
            0);
  std::vector<std::string> texts;
  for (int r = 1; r <= 5; ++r) {
    std::string text(300 * r, static_cast<char>('k' + r));
    uint32_t b = PutMemo(m, text);
    if (r == 2) {  // grown: moves and leaves dead space behind
      text += "!";
      b = PutMemo(m, text, b);
    }
    texts.push_back(text);
    ASSERT_EQ(DBClearBuffer(t), 0);
    ASSERT_EQ(DBPutFieldData(t, 1, &b), 0);
    int32_t recno = 0;
    ASSERT_EQ(DBPutRecord(t, &recno, DB_RECORD_APPEND), 0);
  }
  ASSERT_EQ(f.fpt ? DBfpPackMemo(t, &m) : DBxbPackMemo(t, &m), 0);
  DBLOCKINFO* locks = nullptr;
  int32_t held = -1;
  ASSERT_EQ(DBGetLockInfo(t, &locks, &held), 0);
  EXPECT_EQ(held, 0);
  if (locks) DBFreeMemory(locks);
  int32_t attributes = 0;
  if (f.fpt) {
    DBFPMEMOINFO info{};
    ASSERT_EQ(DBfpGetMemoInfo(m, &info), 0);
    attributes = info.attributes;
    EXPECT_EQ(info.locked, 0);
  } else {
    DBXBMEMOINFO info{};
    ASSERT_EQ(DBxbGetMemoInfo(m, &info), 0);
    attributes = info.attributes;
    EXPECT_EQ(info.locked, 0);
  }
  EXPECT_TRUE(attributes & DB_MEMO_ATTR_SHARED);
  EXPECT_TRUE(attributes & DB_MEMO_ATTR_AUTOLOCK);
  for (int r = 1; r <= 5; ++r) {
    ASSERT_GE(DBGetRecord(t, r), 0);
    uint32_t b = 0;
    ASSERT_EQ(DBGetFieldData(t, 1, &b), 0);
    EXPECT_EQ(GetMemo(m, b), texts[static_cast<size_t>(r - 1)]);
  }
  if (f.fpt) {
    DBfpCloseMemo(m);
  } else {
    DBxbCloseMemo(m);
  }
  DBCloseFile(t);
}

INSTANTIATE_TEST_SUITE_P(Formats, PackTest,
                         ::testing::Values(Format{"dbt_plain", 3, false, 1, 512, 2, 1},
                                           Format{"dbt_dbase4", 2, false, 1, 512, 8, 1},
                                           Format{"dbt_dbase4_2k", 2, false, 4, 2048, 8, 1},
                                           Format{"fpt_64", 8, true, 64, 64, 8, 8},
                                           Format{"fpt_512", 8, true, 1, 512, 8, 1}),
                         [](const ::testing::TestParamInfo<Format>& info) {
                           return std::string(info.param.name);
                         });

}  // namespace
}  // namespace kestrel::test

namespace kestrel::test {
namespace {

// Allocation failures anywhere in a pack: -203, nothing leaks, and a pack
// that failed before the swap leaves both files as they were.
TEST_F(MemoTest, PackAllocationFailures) {
  for (bool fpt : {true, false}) {
    SCOPED_TRACE(fpt ? "fpt" : "dbt");
    const int32_t dialect = fpt ? 8 : 2;
    std::string dbf = dir_.File(fpt ? "f.dbf" : "d.dbf");
    std::string memo = dir_.File(fpt ? "f.fpt" : "d.dbt");
    auto open_memo = [&](int32_t* m) {
      return fpt ? DBfpOpenMemo(m, memo.c_str(), 0) : DBxbOpenMemo(m, memo.c_str(), dialect);
    };
    auto close_memo = [&](int32_t m) { return fpt ? DBfpCloseMemo(m) : DBxbCloseMemo(m); };
    DBFIELD fields[1] = {};
    std::strcpy(fields[0].name, "NOTES");
    fields[0].type = 'M';
    ASSERT_EQ(DBCreateFile(dbf.c_str(), 1, fields, dialect), 0);
    ASSERT_EQ(fpt ? DBfpCreateMemo(memo.c_str(), 64) : DBxbCreateMemo(memo.c_str(), 1, dialect), 0);
    int32_t t = -1, m = -1;
    ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), dialect), 0);
    ASSERT_EQ(open_memo(&m), 0);
    for (int i = 0; i < 20; ++i) {
      std::string text(100 + 50 * i, static_cast<char>('a' + i));
      uint32_t b = 0;
      ASSERT_EQ(
          fpt ? DBfpPutMemoRecord(m, &b, text.data(), static_cast<uint32_t>(text.size()), 0, 0)
              : DBxbPutMemoRecord(m, &b, text.c_str(), 0),
          0);
      ASSERT_EQ(DBClearBuffer(t), 0);
      ASSERT_EQ(DBPutFieldData(t, 0, &b), 0);
      int32_t recno = 0;
      ASSERT_EQ(DBPutRecord(t, &recno, DB_RECORD_APPEND), 0);
    }
    ASSERT_EQ(DBMarkRecordInActive(t, 3), 0);
    close_memo(m);
    DBCloseFile(t);
    const auto table_bytes = ReadFileBytes(dbf);
    const auto memo_bytes = ReadFileBytes(memo);

    bool completed = false;
    for (long n = 1; n < 400 && !completed; ++n) {
      WriteFileBytes(dbf, table_bytes);
      WriteFileBytes(memo, memo_bytes);
      long live = kestrel::testing::LiveAllocations();
      ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), dialect), 0);
      ASSERT_EQ(open_memo(&m), 0);
      kestrel::testing::FailAllocation(n);
      int32_t rc = fpt ? DBfpPackMemo(t, &m) : DBxbPackMemo(t, &m);
      kestrel::testing::FailAllocation(0);
      ASSERT_TRUE(rc == 0 || rc == DB_ERR_MEMORY) << "n=" << n << " rc=" << rc;
      completed = rc == 0;
      if (m >= 0) close_memo(m);
      DBCloseFile(t);
      if (!completed && m >= 0) {
        // A pack that failed before the swap changed nothing.
        EXPECT_EQ(ReadFileBytes(memo), memo_bytes) << "n=" << n;
        EXPECT_EQ(ReadFileBytes(dbf), table_bytes) << "n=" << n;
        EXPECT_FALSE(std::filesystem::exists(dir_.File(fpt ? "0.fpt" : "0.dbt"))) << "n=" << n;
      }
      EXPECT_EQ(kestrel::testing::LiveAllocations(), live) << "n=" << n;
    }
    EXPECT_TRUE(completed);
  }
}

}  // namespace
}  // namespace kestrel::test
