// Zapping: the file keeps its header only, a later append writes the record
// and a new end marker, cached writes and the deleted-record chain do not
// come back, and a shared table needs (or takes, with automatic locking) the
// file lock.
#include "sharing_support.h"

namespace kestrel::test {
namespace {

class ZapTest : public SharingTest {};

TEST_F(ZapTest, OnlyTheHeaderStaysAndTheNextAppendEndsTheFileAgain) {
  for (int32_t dialect : {1, 2, 3, 5, 6, 7, 8, 9}) {
    SCOPED_TRACE(dialect);
    const size_t header = dialect == 9 ? 128 : 97;
    std::string path = Make("Z.DBF", 25, {}, dialect);
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
    ASSERT_EQ(after.size(), header);
    EXPECT_EQ(after[4] | after[5] | after[6] | after[7], 0);
    EXPECT_TRUE(std::equal(after.begin() + 8, after.end(), before.begin() + 8));

    EXPECT_EQ(Append(h, "fresh"), 1);
    ASSERT_EQ(DBCloseFile(h), 0);
    // Dialect 7 ends the file with a whole record's worth of end markers.
    std::vector<uint8_t> end(dialect == 7 ? 29 : 1, 0x1A);
    std::vector<uint8_t> bytes = ReadFileBytes(path);
    ASSERT_EQ(bytes.size(), header + 29 + end.size());
    EXPECT_EQ(bytes[4], 1);
    EXPECT_EQ(std::string(bytes.begin() + header, bytes.begin() + header + 6), " fresh");
    EXPECT_TRUE(std::equal(end.begin(), end.end(), bytes.end() - end.size()));
  }
}

TEST_F(ZapTest, CachedWritesAndTheDeletedRecordChainDoNotComeBack) {
  std::string path = Make("CACHE.DBF", 3);
  int32_t h = Open(path, 1);
  Append(h, "cached1");
  Append(h, "cached2");
  ASSERT_EQ(Replace(h, 1, "changed"), 0);
  ASSERT_EQ(DBZapFile(h), 0);
  ASSERT_EQ(DBFlushFile(h), 0);
  ASSERT_EQ(DBCloseFile(h), 0);
  EXPECT_EQ(ReadFileBytes(path).size(), 97u);

  path = Make("REUSE.DBF", 6);
  h = Open(path, 1 | DB_OPEN_REUSE);
  ASSERT_EQ(DBMarkRecordInActive(h, 5), 0);  // into the deleted-record chain
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

TEST_F(ZapTest, ASharedTableNeedsTheFileLock) {
  std::string path = Make("LOCKS.DBF", 4);
  std::vector<uint8_t> original = ReadFileBytes(path);
  int32_t h = Open(path, 1 | DB_OPEN_READONLY);
  EXPECT_EQ(DBZapFile(h), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBCloseFile(h), 0);
  // A header lock is not enough; the file lock is, and stays the caller's.
  h = Open(path, 1 | DB_OPEN_SHARED);
  EXPECT_EQ(DBZapFile(h), DB_ERR_MUST_LOCK);
  ASSERT_EQ(DBLockHeader(h), 0);
  EXPECT_EQ(DBZapFile(h), DB_ERR_MUST_LOCK);
  EXPECT_EQ(ReadFileBytes(path), original);
  ASSERT_EQ(DBLockFile(h), 0);
  EXPECT_EQ(DBZapFile(h), 0);
  EXPECT_EQ(LockState(h), std::make_pair(DB_LOCK_FILE, 1));
  EXPECT_EQ(Count(h), 0);
  EXPECT_EQ(DBCloseFile(h), 0);

  // With automatic locking the zap takes the file lock itself: not while
  // another process holds a record inside it, and afterwards it gives back
  // the lock it took and the record lock held before.
  path = Make("AUTO.DBF", 4);
  Signal to_parent, to_child;
  Child child([&](ChildChecks& checks) {
    int32_t c = -1;
    CHILD_EQ(checks, DBOpenFile(&c, path.c_str(), 1 | DB_OPEN_SHARED), 0);
    CHILD_EQ(checks, DBLockRecord(c, 3), 0);
    to_parent.Send();
    to_child.Wait();
  });
  to_parent.Wait();
  h = Open(path, 1 | DB_OPEN_AUTOLOCK);
  ASSERT_EQ(DBLockRecord(h, 1), 0);
  EXPECT_EQ(DBZapFile(h), DB_ERR_LOCK_RETRIES);
  EXPECT_EQ(Count(h), 4);
  to_child.Send();
  child.Join();
  ASSERT_EQ(DBLockRecord(h, 1), 0);
  EXPECT_EQ(DBZapFile(h), 0);
  EXPECT_EQ(LockState(h), std::make_pair(0, 0));
  EXPECT_EQ(LocksUsed(), 0);
  ExpectRegion(path, 0, 0x7FFFFFFF, false);
  EXPECT_EQ(Count(h), 0);
  EXPECT_EQ(Append(h, "after"), 1);
  EXPECT_EQ(DBCloseFile(h), 0);
}

}  // namespace
}  // namespace kestrel::test
