// Two processes that both open a table shared: record, header and file locks
// keep each other out, a failed lock leaves the bookkeeping as the lock rules
// say, and the lock calls on unshared tables and unheld regions do nothing.
#include <tuple>

#include "sharing_support.h"

namespace kestrel::test {
namespace {

// ---- Two processes, one table -------------------------------------------

class TwoProcessTest : public SharingTest {
 protected:
  void SetUp() override {
    SharingTest::SetUp();
    path_ = Create("SHARED.DBF", {Field("NAME", 'C', 10)}, 1);
    int32_t h = Open(path_, 1);
    for (int i = 1; i <= 8; ++i) Append(h, "r" + std::to_string(i));
    ASSERT_EQ(DBCloseFile(h), 0);
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
    // The lock buffer came along with the fork: count from here.
    int32_t used_before = -1, capacity = -1;
    DBGetLockCount(&used_before, &capacity);
    // The held record stays out of reach however often the lock is tried.
    DBSetLockRetryCount(25);
    long before = kestrel::testing::LockAttempts();
    CHILD_EQ(checks, DBLockRecord(c, 3), DB_ERR_LOCK_RETRIES);
    CHILD_EQ(checks, kestrel::testing::LockAttempts() - before, 25L);
    CHILD_EQ(checks, DBIsRecordLocked(c, 3), 0);
    // Writing the held record needs its lock: refused, and with automatic
    // locking it cannot be had either.
    int32_t three = 3;
    CHILD_EQ(checks, DBPutRecord(c, &three, DB_RECORD_REPLACE), DB_ERR_MUST_LOCK);
    int32_t a = -1;
    CHILD_EQ(checks, DBOpenFile(&a, path_.c_str(), 1 | DB_OPEN_AUTOLOCK), 0);
    CHILD_EQ(checks, DBPutRecord(a, &three, DB_RECORD_REPLACE), DB_ERR_LOCK_RETRIES);
    CHILD_EQ(checks, DBCloseFile(a), 0);
    // Other records are free.
    CHILD_EQ(checks, DBLockRecord(c, 4), 0);
    CHILD_EQ(checks, DBIsRecordLocked(c, 4), 1);
    // Without several-locks mode a new record lock gives up the old one.
    CHILD_EQ(checks, DBLockRecord(c, 5), 0);
    CHILD_EQ(checks, DBIsRecordLocked(c, 4), 0);
    CHILD_EQ(checks, DBIsRecordLocked(c, 5), 1);
    int32_t used = -1;
    DBGetLockCount(&used, &capacity);
    CHILD_EQ(checks, used, used_before + 1);
    to_parent.Send();
    to_child.Wait();  // the parent has checked records 4 and 5
    CHILD_EQ(checks, DBCloseFile(c), 0);
    to_parent.Send();
  });
  to_parent.Wait();
  // The child holds record 5 only: 4 can be had, 5 cannot.
  ASSERT_EQ(DBLockRecord(h, 4), 0);  // gives up 3 as well
  EXPECT_EQ(DBIsRecordLocked(h, 3), 0);
  EXPECT_EQ(DBLockRecord(h, 5), DB_ERR_LOCK_RETRIES);
  // Asking for a record lock gives up the one held before the attempt, so a
  // failed attempt leaves nothing held.
  EXPECT_EQ(DBIsRecordLocked(h, 4), 0);
  to_child.Send();
  to_parent.Wait();  // the child closed its table
  EXPECT_EQ(DBLockRecord(h, 5), 0);
  child.Join();
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(TwoProcessTest, HeaderAndFileLocksExcludeEachOther) {
  // dBASE III: the header lock covers the record count (bytes 4..7), the
  // file lock everything from byte 0, records their own bytes.
  int32_t h = Open(path_, 1 | DB_OPEN_SHARED);
  ASSERT_EQ(DBLockHeader(h), 0);
  Signal to_parent, to_child;
  Child child([&](ChildChecks& checks) {
    int32_t c = -1;
    CHILD_EQ(checks, DBOpenFile(&c, path_.c_str(), 1 | DB_OPEN_SHARED), 0);
    CHILD_EQ(checks, DBLockHeader(c), DB_ERR_LOCK_RETRIES);
    CHILD_EQ(checks, DBLockFile(c), DB_ERR_LOCK_RETRIES);
    CHILD_EQ(checks, DBLockRecord(c, 2), 0);  // records do not overlap the count
    // An append needs the header lock; without automatic locking it is refused.
    int32_t r = 0;
    CHILD_EQ(checks, DBPutRecord(c, &r, DB_RECORD_APPEND), DB_ERR_MUST_LOCK);
    CHILD_EQ(checks, DBUnLockAll(c), 0);
    to_parent.Send();
    to_child.Wait();
    // The parent now holds the file lock: nothing at all can be had.
    CHILD_EQ(checks, DBLockRecord(c, 8), DB_ERR_LOCK_RETRIES);
    DBFILEINFO info{};
    DBGetFileInfo(c, &info);
    CHILD_EQ(checks, info.lock_state, 0);
    CHILD_EQ(checks, info.lock_count, 0);
    to_parent.Send();
    to_child.Wait();
    // Released: the child appends with automatic locking through a second open.
    int32_t a = -1;
    CHILD_EQ(checks, DBOpenFile(&a, path_.c_str(), 1 | DB_OPEN_AUTOLOCK), 0);
    DBClearBuffer(a);
    DBPutStrField(a, 0, "child");
    CHILD_EQ(checks, DBPutRecord(a, &r, DB_RECORD_APPEND), 0);
    CHILD_EQ(checks, r, 9);
    CHILD_EQ(checks, DBCloseFile(a), 0);
    CHILD_EQ(checks, DBCloseFile(c), 0);
    to_parent.Send();
  });
  to_parent.Wait();
  ASSERT_EQ(DBLockFile(h), 0);
  to_child.Send();
  to_parent.Wait();
  ASSERT_EQ(DBUnLockAll(h), 0);
  to_child.Send();
  to_parent.Wait();
  child.Join();
  EXPECT_EQ(Count(h), 9);
  EXPECT_EQ(Text(h, 9), "child");
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(TwoProcessTest, ABufferedWriteBackLeavesOtherProcessesRecordsAlone) {
  // This process reads record 1 into its cache window (records 1..8), another
  // process changes record 2 under its lock, then this process changes record
  // 1 under its lock and writes back: record 2 must keep the other change.
  int32_t h = Open(path_, 1 | DB_OPEN_SHARED);
  ASSERT_EQ(DBLockRecord(h, 1), 0);
  ASSERT_EQ(DBGetRecord(h, 1), 0);
  Signal to_parent;
  Child child([&](ChildChecks& checks) {
    int32_t c = -1;
    CHILD_EQ(checks, DBOpenFile(&c, path_.c_str(), 1 | DB_OPEN_AUTOLOCK), 0);
    CHILD_EQ(checks, DBGetRecord(c, 2), 0);
    CHILD_EQ(checks, DBPutStrField(c, 0, "other"), 0);
    int32_t two = 2;
    CHILD_EQ(checks, DBPutRecord(c, &two, DB_RECORD_REPLACE), 0);
    CHILD_EQ(checks, DBCloseFile(c), 0);
    to_parent.Send();
  });
  to_parent.Wait();
  child.Join();
  ASSERT_EQ(DBPutStrField(h, 0, "mine"), 0);
  int32_t one = 1;
  ASSERT_EQ(DBPutRecord(h, &one, DB_RECORD_REPLACE), 0);
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

// ---- What the lock calls do with bad input and failures -------------------

TEST_F(TwoProcessTest, LocksOfAnUnsharedTableDoNothing) {
  int32_t h = Open(path_, 1);
  int32_t used = -1, capacity = 0;
  EXPECT_EQ(DBLockFile(h), 0);
  EXPECT_EQ(DBLockHeader(h), 0);
  EXPECT_EQ(DBLockRecord(h, 2), 0);
  EXPECT_EQ(DBUnLockRecord(h, 2), 0);
  EXPECT_EQ(DBUnLockHeader(h), 0);
  EXPECT_EQ(DBUnLockAll(h), 0);
  DBGetLockCount(&used, &capacity);
  EXPECT_EQ(used, 0);
  DBFILEINFO info{};
  ASSERT_EQ(DBGetFileInfo(h, &info), 0);
  EXPECT_EQ(info.lock_state, 0);
  EXPECT_EQ(info.lock_count, 0);
  // Unshared writes need no lock.
  int32_t r = 2;
  EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_REPLACE), 0);
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(TwoProcessTest, UnlockingWhatIsNotHeldChangesNothing) {
  int32_t h = Open(path_, 1 | DB_OPEN_SHARED | DB_OPEN_MULTILOCK);
  ASSERT_EQ(DBLockRecord(h, 2), 0);
  ASSERT_EQ(DBLockRecord(h, 6), 0);
  EXPECT_EQ(DBUnLockRecord(h, 3), 0);
  EXPECT_EQ(DBUnLockHeader(h), 0);
  DBFILEINFO info{};
  ASSERT_EQ(DBGetFileInfo(h, &info), 0);
  EXPECT_EQ(info.lock_state, DB_LOCK_RECORD);
  EXPECT_EQ(info.lock_count, 2);
  EXPECT_EQ(DBIsRecordLocked(h, 2), 1);
  EXPECT_EQ(DBIsRecordLocked(h, 6), 1);
  DBLOCKINFO* locks = nullptr;
  int32_t count = 0;
  ASSERT_EQ(DBGetLockInfo(h, &locks, &count), 0);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(locks[0].kind, DB_LOCK_RECORD);
  EXPECT_EQ(locks[0].record, 2);
  EXPECT_EQ(locks[1].kind, DB_LOCK_RECORD);
  EXPECT_EQ(locks[1].record, 6);
  DBFreeMemory(locks);
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
    DBCloseFile(c);
  });
  to_parent.Wait();
  int32_t h = Open(path_, 1 | DB_OPEN_SHARED | DB_OPEN_MULTILOCK);
  ASSERT_EQ(DBLockRecord(h, 1), 0);
  ASSERT_EQ(DBLockHeader(h), 0);
  auto snapshot = [&]() {
    DBFILEINFO info{};
    EXPECT_EQ(DBGetFileInfo(h, &info), 0);
    DBLOCKINFO* locks = nullptr;
    int32_t count = 0;
    EXPECT_EQ(DBGetLockInfo(h, &locks, &count), 0);
    std::vector<std::pair<int32_t, int32_t>> list;
    for (int32_t i = 0; i < count; ++i) list.emplace_back(locks[i].kind, locks[i].record);
    DBFreeMemory(locks);
    int32_t used = 0, capacity = 0;
    DBGetLockCount(&used, &capacity);
    return std::make_tuple(info.lock_state, info.lock_count, list, used);
  };
  auto before = snapshot();
  EXPECT_EQ(std::get<0>(before), DB_LOCK_RECORD | DB_LOCK_HEADER);
  EXPECT_EQ(std::get<1>(before), 2);
  EXPECT_EQ(DBLockRecord(h, 5), DB_ERR_LOCK_RETRIES);
  EXPECT_EQ(snapshot(), before);
  EXPECT_EQ(DBIsRecordLocked(h, 5), 0);
  // The file lock cannot be had either (the child's record is inside it).
  // Taking it gives up everything held first, so that is what stays given up.
  EXPECT_EQ(DBLockFile(h), DB_ERR_LOCK_RETRIES);
  DBFILEINFO info{};
  ASSERT_EQ(DBGetFileInfo(h, &info), 0);
  EXPECT_EQ(info.lock_state, 0);
  EXPECT_EQ(info.lock_count, 0);
  EXPECT_EQ(DBIsRecordLocked(h, 1), 0);
  to_child.Send();
  child.Join();
  EXPECT_EQ(DBCloseFile(h), 0);
}

}  // namespace
}  // namespace kestrel::test
