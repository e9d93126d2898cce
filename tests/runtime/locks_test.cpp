// Byte-range locks: the retry loop against a lock held by another process,
// conflicts between two handles of one process, and the lock buffer.
#include <string>

#include "runtime/file_services.h"
#include "runtime/library_state.h"
#include "support/child.h"
#include "support/library.h"

namespace kestrel::test {
namespace {

class LockTest : public LibraryTestOf<20> {
 protected:
  void SetUp() override {
    LibraryTestOf<20>::SetUp();
    path_ = dir_.File("t.dbf");
    WriteFileBytes(path_, std::vector<uint8_t>(64, 'x'));
  }
  FileHandle OpenShared(int32_t mode = 0x400) {
    FileHandle h = kNoFile;
    uint32_t attributes = 0;
    EXPECT_EQ(FileOpen(&h, path_.c_str(), mode, &attributes), 0);
    return h;
  }
  // Clears the code first: a successful call returns the code it found.
  static int32_t Lock(FileHandle h, int32_t unlock, uint32_t offset, uint32_t length) {
    DBSetErrorCode(0);
    return FileLock(h, unlock, offset, length);
  }
  int32_t LocksUsed() {
    int32_t used = -1, capacity = -1;
    EXPECT_EQ(DBGetLockCount(&used, &capacity), 0);
    return used;
  }
  std::string path_;
};

TEST_F(LockTest, OtherProcessHoldsRegionUntilItUnlocks) {
  // The other process opens the file itself, so it has its own open file
  // description.
  Signal locked, unlock, unlocked;
  Child holder([&](ChildChecks& checks) {
    FileHandle c = OpenShared();
    CHILD_EQ(checks, FileLock(c, 0, 100, 10), 0);
    locked.Send();
    unlock.Wait();
    CHILD_EQ(checks, FileLock(c, 1, 100, 10), 0);
    unlocked.Send();
    unlock.Wait();
  });
  ASSERT_TRUE(locked.Wait());
  FileHandle h = OpenShared();
  for (int32_t retries : {0, 1, 7}) {
    DBSetLockRetryCount(retries);
    long before = kestrel::testing::LockAttempts();
    EXPECT_EQ(Lock(h, 0, 105, 1), -279);
    EXPECT_EQ(kestrel::testing::LockAttempts() - before, retries > 1 ? retries : 1);
  }
  EXPECT_EQ(LocksUsed(), 0);
  EXPECT_EQ(Lock(h, 0, 110, 5), 0);  // the neighbouring bytes are free
  unlock.Send();
  ASSERT_TRUE(unlocked.Wait());
  DBSetLockRetryCount(3);
  long before = kestrel::testing::LockAttempts();
  EXPECT_EQ(Lock(h, 0, 100, 10), 0);
  EXPECT_EQ(kestrel::testing::LockAttempts() - before, 1);
  EXPECT_EQ(IsRegionLocked(h, 100, 10), 1);
  EXPECT_EQ(LocksUsed(), 2);
  FileClose(h);
  unlock.Send();
  holder.Join();
  // The retry count outlives DBTerminate and DBInitialize.
  DBTerminate();
  ASSERT_EQ(DBInitialize(20, 0), 0);
  int32_t count = 0;
  EXPECT_EQ(DBGetLockRetryCount(&count), 0);
  EXPECT_EQ(count, 3);
}

TEST_F(LockTest, HandlesOfOneProcessConflictUnlessBothReadOnly) {
  FileHandle a = OpenShared();
  FileHandle b = OpenShared();
  DBSetLockRetryCount(2);
  EXPECT_EQ(Lock(a, 0, 0xEFFFFFFF, 1), 0);  // far beyond the file's end
  EXPECT_EQ(Lock(b, 0, 0xEFFFFFFF, 1), -279);
  EXPECT_EQ(IsRegionLocked(a, 0xEFFFFFFF, 1), 1);
  EXPECT_EQ(IsRegionLocked(b, 0xEFFFFFFF, 1), 0);
  EXPECT_EQ(Lock(a, 1, 0xEFFFFFFF, 1), 0);
  EXPECT_EQ(Lock(b, 0, 0xEFFFFFFF, 1), 0);

  FileHandle r1 = OpenShared(0x500);
  FileHandle r2 = OpenShared(0x500);
  EXPECT_EQ(Lock(r1, 0, 10, 4), 0);
  EXPECT_EQ(Lock(r2, 0, 10, 4), 0);
  EXPECT_EQ(Lock(a, 0, 12, 1), -279);
  for (FileHandle h : {a, b, r1, r2}) FileClose(h);
}

TEST_F(LockTest, BufferRecordsEachCallAndRefusesWhenFull) {
  FileHandle h = OpenShared();
  EXPECT_EQ(Lock(h, 0, 0, 1), 0);
  EXPECT_EQ(Lock(h, 0, 10, 2), 0);
  EXPECT_EQ(Lock(h, 0, 0, 1), 0);   // the same region twice: two entries
  EXPECT_EQ(Lock(h, 0, 20, 0), 0);  // an empty region is recorded too
  ASSERT_EQ(LocksUsed(), 4);
  // Unlocking removes the first match only; the others keep their order.
  EXPECT_EQ(Lock(h, 1, 0, 1), 0);
  ASSERT_EQ(LocksUsed(), 3);
  const LockEntry* e = State().locks;
  EXPECT_EQ(e[0].offset, 10u);
  EXPECT_EQ(e[1].offset, 0u);
  EXPECT_EQ(e[2].offset, 20u);
  // Unlocking a region never recorded still asks the system; nothing changes.
  long before = kestrel::testing::LockAttempts();
  EXPECT_EQ(Lock(h, 1, 30, 3), 0);
  EXPECT_EQ(kestrel::testing::LockAttempts() - before, 1);
  EXPECT_EQ(LocksUsed(), 3);
  EXPECT_EQ(IsRegionLocked(h, 10, 2), 1);
  EXPECT_EQ(IsRegionLocked(h, 10, 1), 0);
  EXPECT_EQ(IsRegionLocked(h + 1, 10, 2), 0);

  // A full buffer refuses a lock before asking the system, not an unlock.
  EXPECT_EQ(DBSetLockCount(2), -261);  // below the entries in use
  ASSERT_EQ(DBSetLockCount(3), 0);
  before = kestrel::testing::LockAttempts();
  EXPECT_EQ(Lock(h, 0, 9, 1), -260);
  EXPECT_EQ(kestrel::testing::LockAttempts(), before);
  EXPECT_EQ(Lock(h, 1, 10, 2), 0);
  EXPECT_EQ(LocksUsed(), 2);

  // Locking moves the file position to the region's offset.
  char c = 0;
  EXPECT_EQ(Lock(h, 0, 7, 1), 0);
  EXPECT_EQ(FileRead(h, &c, 1), 0);
  EXPECT_EQ(c, 'x');
  // A success hands back whatever code it found, even an earlier failure.
  DBSetErrorCode(-279);
  EXPECT_EQ(FileLock(h, 1, 7, 1), -279);
  EXPECT_EQ(IsRegionLocked(h, 7, 1), 0);
  EXPECT_EQ(Lock(-1, 0, 0, 1), -280);
  FileClose(h);
}

}  // namespace
}  // namespace kestrel::test
