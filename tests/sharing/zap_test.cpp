// Zapping: the file keeps its header only, a later append writes the record
// and a new end marker, cached writes do not come back, and a shared table
// needs (or takes, with automatic locking) the file lock.
#include <filesystem>

#include "sharing_support.h"

namespace kestrel::test {
namespace {

class ZapTest : public SharingTest {
 protected:
  std::string Make(const std::string& name, int records, int32_t dialect = 1) {
    std::string path = Create(name, {Field("NAME", 'C', 12), Field("QTY", 'N', 5)}, dialect);
    int32_t h = Open(path, dialect);
    for (int i = 1; i <= records; ++i) Append(h, "r" + std::to_string(i));
    EXPECT_EQ(DBCloseFile(h), 0);
    return path;
  }
  static uint32_t HeaderLength(int32_t dialect) { return dialect == 9 ? 128 : 97; }
  static constexpr uint32_t kRecordLength = 18;
};

TEST_F(ZapTest, OnlyTheHeaderStaysAndTheNextAppendEndsTheFileAgain) {
  for (int32_t dialect : {1, 2, 3, 5, 6, 7, 8, 9}) {
    SCOPED_TRACE(dialect);
    std::string path = Make("Z.DBF", 25, dialect);
    std::vector<uint8_t> before = ReadFileBytes(path);
    int32_t h = Open(path, dialect);
    ASSERT_EQ(DBGetRecord(h, 4), 0);
    ASSERT_EQ(DBZapFile(h), 0);
    int32_t recno = -1;
    ASSERT_EQ(DBGetRecordNumber(h, &recno), 0);
    EXPECT_EQ(recno, 0);
    EXPECT_EQ(Count(h), 0);
    EXPECT_EQ(DBGetRecord(h, 1), DB_ERR_SEEK);
    // Already on disk, before any flush: the count is 0 and the file ends
    // right after the header terminator; the rest of the header is as it was.
    std::vector<uint8_t> after = ReadFileBytes(path);
    ASSERT_EQ(after.size(), HeaderLength(dialect));
    EXPECT_EQ(after[4] | after[5] | after[6] | after[7], 0);
    EXPECT_TRUE(std::equal(after.begin() + 8, after.end(), before.begin() + 8));

    EXPECT_EQ(Append(h, "fresh"), 1);
    ASSERT_EQ(DBCloseFile(h), 0);
    std::vector<uint8_t> bytes = ReadFileBytes(path);
    uint32_t end_marker = dialect == 7 ? kRecordLength : 1;
    ASSERT_EQ(bytes.size(), HeaderLength(dialect) + kRecordLength + end_marker);
    EXPECT_EQ(bytes[4], 1);
    EXPECT_EQ(bytes[HeaderLength(dialect)], ' ');
    EXPECT_EQ(bytes[HeaderLength(dialect) + 1], 'f');
    for (uint32_t i = 0; i < end_marker; ++i) {
      EXPECT_EQ(bytes[HeaderLength(dialect) + kRecordLength + i], 0x1A);
    }
    h = Open(path, dialect);
    EXPECT_EQ(Count(h), 1);
    EXPECT_EQ(Text(h, 1), "fresh");
    EXPECT_EQ(DBCloseFile(h), 0);
    std::filesystem::remove(path);
  }
}

TEST_F(ZapTest, CachedWritesDoNotComeBack) {
  std::string path = Make("CACHE.DBF", 3);
  int32_t h = Open(path, 1);
  // Appends and a replace still in the cache are dropped with the records.
  Append(h, "cached1");
  Append(h, "cached2");
  ASSERT_EQ(DBPutStrField(h, 0, "changed"), 0);
  int32_t r = 1;
  ASSERT_EQ(DBPutRecord(h, &r, DB_RECORD_REPLACE), 0);
  ASSERT_EQ(DBZapFile(h), 0);
  ASSERT_EQ(DBFlushFile(h), 0);
  ASSERT_EQ(DBCloseFile(h), 0);
  EXPECT_EQ(ReadFileBytes(path).size(), HeaderLength(1));
  h = Open(path, 1);
  EXPECT_EQ(Count(h), 0);
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(ZapTest, TheDeletedRecordChainGoesWithTheRecords) {
  std::string path = Make("REUSE.DBF", 6);
  int32_t h = Open(path, 1 | DB_OPEN_REUSE);
  ASSERT_EQ(DBMarkRecordInActive(h, 5), 0);
  ASSERT_EQ(DBMarkRecordInActive(h, 2), 0);
  ASSERT_EQ(DBZapFile(h), 0);
  // An append after the zap is a plain append, not a reuse of record 2.
  EXPECT_EQ(Append(h, "new"), 1);
  EXPECT_EQ(Append(h, "newer"), 2);
  ASSERT_EQ(DBCloseFile(h), 0);
  std::vector<uint8_t> bytes = ReadFileBytes(path);
  EXPECT_EQ(bytes[16] | bytes[17] | bytes[18] | bytes[19], 0);
  h = Open(path, 1 | DB_OPEN_REUSE);
  EXPECT_EQ(Text(h, 2), "newer");
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(ZapTest, ReadOnlyAndUnlockedSharedTablesAreRefused) {
  std::string path = Make("LOCKS.DBF", 4);
  std::vector<uint8_t> original = ReadFileBytes(path);
  EXPECT_EQ(DBZapFile(33), DB_ERR_INVALID_HANDLE);
  int32_t h = Open(path, 1 | DB_OPEN_READONLY);
  EXPECT_EQ(DBZapFile(h), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBCloseFile(h), 0);

  // Shared: a record or header lock is not enough; the file lock is.
  h = Open(path, 1 | DB_OPEN_SHARED);
  EXPECT_EQ(DBZapFile(h), DB_ERR_MUST_LOCK);
  ASSERT_EQ(DBLockHeader(h), 0);
  EXPECT_EQ(DBZapFile(h), DB_ERR_MUST_LOCK);
  EXPECT_EQ(ReadFileBytes(path), original);
  ASSERT_EQ(DBLockFile(h), 0);
  EXPECT_EQ(DBZapFile(h), 0);
  // The caller's file lock stays the caller's.
  DBFILEINFO info{};
  ASSERT_EQ(DBGetFileInfo(h, &info), 0);
  EXPECT_EQ(info.lock_state, DB_LOCK_FILE);
  EXPECT_EQ(Count(h), 0);
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(ZapTest, AutomaticLockingTakesTheFileLockAndGivesEverythingBack) {
  std::string path = Make("AUTO.DBF", 4);
  Signal to_parent, to_child;
  Child child([&](ChildChecks& checks) {
    int32_t c = -1;
    CHILD_EQ(checks, DBOpenFile(&c, path.c_str(), 1 | DB_OPEN_SHARED), 0);
    CHILD_EQ(checks, DBLockRecord(c, 3), 0);
    to_parent.Send();
    to_child.Wait();
    CHILD_EQ(checks, DBCloseFile(c), 0);
    to_parent.Send();
  });
  to_parent.Wait();
  int32_t h = Open(path, 1 | DB_OPEN_AUTOLOCK);
  ASSERT_EQ(DBLockRecord(h, 1), 0);
  // Another process holds record 3, inside the file region: nothing happens.
  EXPECT_EQ(DBZapFile(h), DB_ERR_LOCK_RETRIES);
  EXPECT_EQ(Count(h), 4);
  to_child.Send();
  to_parent.Wait();
  child.Join();
  ASSERT_EQ(DBLockRecord(h, 1), 0);
  EXPECT_EQ(DBZapFile(h), 0);
  // The lock it took and the record lock held before are both gone.
  DBFILEINFO info{};
  ASSERT_EQ(DBGetFileInfo(h, &info), 0);
  EXPECT_EQ(info.lock_state, 0);
  EXPECT_EQ(info.lock_count, 0);
  int32_t used = -1, capacity = 0;
  DBGetLockCount(&used, &capacity);
  EXPECT_EQ(used, 0);
  EXPECT_FALSE(ProbeRange(path, 0, 0x7FFFFFFF).held);
  EXPECT_EQ(Count(h), 0);
  EXPECT_EQ(Append(h, "after"), 1);
  EXPECT_EQ(DBCloseFile(h), 0);
}

}  // namespace
}  // namespace kestrel::test
