// Two processes that both open a table shared: a lock held elsewhere is
// refused after exactly the retry count and keeps writes out, a failed lock
// leaves the bookkeeping as the lock rules say, and a buffered write-back
// carries no stale record over another process's change.
#include "sharing_support.h"

namespace kestrel::test {
namespace {

class TwoProcessTest : public SharingTest {
 protected:
  void SetUp() override {
    SharingTest::SetUp();
    path_ = Make("SHARED.DBF", 8);
  }
  std::string path_;
};

TEST_F(TwoProcessTest, ARecordLockKeepsTheOtherProcessOut) {
  int32_t h = Open(path_, 1 | DB_OPEN_SHARED);
  ASSERT_EQ(DBLockRecord(h, 3), 0);
  Signal to_child, to_parent;
  Child child([&](ChildChecks& checks) {
    int32_t c = -1;
    CHILD_EQ(checks, DBOpenFile(&c, path_.c_str(), 1 | DB_OPEN_SHARED), 0);
    int32_t used = LocksUsed();  // the lock buffer came along with the fork
    DBSetLockRetryCount(25);
    long before = kestrel::testing::LockAttempts();
    CHILD_EQ(checks, DBLockRecord(c, 3), DB_ERR_LOCK_RETRIES);
    CHILD_EQ(checks, kestrel::testing::LockAttempts() - before, 25L);
    CHILD_EQ(checks, DBIsRecordLocked(c, 3), 0);
    CHILD_EQ(checks, LocksUsed(), used);
    // Writes need their locks: refused without (an append needs the header
    // lock), and with automatic locking the held record cannot be had.
    int32_t r = 0;
    CHILD_EQ(checks, Replace(c, 3, "x"), DB_ERR_MUST_LOCK);
    CHILD_EQ(checks, DBPutRecord(c, &r, DB_RECORD_APPEND), DB_ERR_MUST_LOCK);
    CHILD_EQ(checks, DBMarkRecordInActive(c, 2), DB_ERR_MUST_LOCK);
    int32_t a = -1;
    CHILD_EQ(checks, DBOpenFile(&a, path_.c_str(), 1 | DB_OPEN_AUTOLOCK), 0);
    CHILD_EQ(checks, Replace(a, 3, "x"), DB_ERR_LOCK_RETRIES);
    CHILD_EQ(checks, DBCloseFile(a), 0);
    CHILD_EQ(checks, DBLockRecord(c, 5), 0);  // other records are free
    to_parent.Send();
    to_child.Wait();
    CHILD_EQ(checks, DBCloseFile(c), 0);  // lets record 5 go
    to_parent.Send();
  });
  to_parent.Wait();
  EXPECT_EQ(DBLockRecord(h, 5), DB_ERR_LOCK_RETRIES);
  // Asking for a record lock gives up the one held before the attempt, so a
  // failed attempt leaves nothing held.
  EXPECT_EQ(DBIsRecordLocked(h, 3), 0);
  EXPECT_EQ(LockState(h), std::make_pair(0, 0));
  to_child.Send();
  to_parent.Wait();
  EXPECT_EQ(DBLockRecord(h, 5), 0);
  child.Join();
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(TwoProcessTest, ABufferedWriteBackLeavesOtherProcessesRecordsAlone) {
  // This process reads record 1 into its cache window (records 1..8), another
  // process changes record 2 under its lock, then this process changes record
  // 1 under its lock and writes back: record 2 must keep the other change.
  int32_t h = Open(path_, 1 | DB_OPEN_SHARED);
  ASSERT_EQ(DBLockRecord(h, 1), 0);
  ASSERT_EQ(DBGetRecord(h, 1), 0);
  Child([&](ChildChecks& checks) {
    int32_t c = -1;
    CHILD_EQ(checks, DBOpenFile(&c, path_.c_str(), 1 | DB_OPEN_AUTOLOCK), 0);
    CHILD_EQ(checks, DBGetRecord(c, 2), 0);
    CHILD_EQ(checks, Replace(c, 2, "other"), 0);
    CHILD_EQ(checks, DBCloseFile(c), 0);
  }).Join();
  ASSERT_EQ(Replace(h, 1, "mine"), 0);
  // An append in the same window must not carry the old record 2 back either.
  ASSERT_EQ(DBLockHeader(h), 0);
  EXPECT_EQ(Append(h, "appended"), 9);
  ASSERT_EQ(DBFlushFile(h), 0);
  ASSERT_EQ(DBUnLockAll(h), 0);
  ASSERT_EQ(DBCloseFile(h), 0);
  h = Open(path_, 1);
  EXPECT_EQ(Text(h, 1), "mine");
  EXPECT_EQ(Text(h, 2), "other");
  EXPECT_EQ(Text(h, 9), "appended");
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(TwoProcessTest, AFailedLockLeavesStateAndCountsAsTheyWere) {
  Signal to_parent, to_child;
  Child child([&](ChildChecks& checks) {
    int32_t c = -1;
    CHILD_EQ(checks, DBOpenFile(&c, path_.c_str(), 1 | DB_OPEN_SHARED), 0);
    CHILD_EQ(checks, DBLockRecord(c, 5), 0);
    to_parent.Send();
    to_child.Wait();
  });
  to_parent.Wait();
  int32_t h = Open(path_, 1 | DB_OPEN_SHARED | DB_OPEN_MULTILOCK);
  ASSERT_EQ(DBLockRecord(h, 1), 0);
  ASSERT_EQ(DBLockHeader(h), 0);
  auto held = Held(h);
  int32_t used = LocksUsed();
  EXPECT_EQ(LockState(h), std::make_pair(DB_LOCK_RECORD | DB_LOCK_HEADER, 2));
  EXPECT_EQ(DBLockRecord(h, 5), DB_ERR_LOCK_RETRIES);
  EXPECT_EQ(LockState(h), std::make_pair(DB_LOCK_RECORD | DB_LOCK_HEADER, 2));
  EXPECT_EQ(Held(h), held);
  EXPECT_EQ(LocksUsed(), used);
  EXPECT_EQ(DBIsRecordLocked(h, 5), 0);
  // The file lock cannot be had either (the child's record is inside it).
  // Taking it gives up everything held first, so that stays given up.
  EXPECT_EQ(DBLockFile(h), DB_ERR_LOCK_RETRIES);
  EXPECT_EQ(LockState(h), std::make_pair(0, 0));
  EXPECT_EQ(DBIsRecordLocked(h, 1), 0);
  to_child.Send();
  child.Join();
  EXPECT_EQ(DBCloseFile(h), 0);
}

}  // namespace
}  // namespace kestrel::test
