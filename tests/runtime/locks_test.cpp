// Byte-range locks: the retry loop against a lock held by another process,
// conflicts between two handles of one process, and the lock buffer.
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "runtime/file_services.h"
#include "runtime_fixture.h"

namespace kestrel::test {
namespace {

// A second process that opens the file itself (so it has its own open file
// description) and locks a region.  It answers '+' once the region is held,
// unlocks on 'u' (answering '+' or '-'), and exits when the pipe closes.
class LockHolder {
 public:
  LockHolder(const std::string& path, uint32_t offset, uint32_t length) {
    int to_child[2], to_parent[2];
    if (pipe(to_child) != 0 || pipe(to_parent) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(to_child[1]);
      close(to_parent[0]);
      FileHandle h = kNoFile;
      uint32_t attributes = 0;
      char answer =
          FileOpen(&h, path.c_str(), 0x400, &attributes) >= 0 && FileLock(h, 0, offset, length) >= 0
              ? '+'
              : '-';
      for (char c = 0; write(to_parent[1], &answer, 1) == 1 && read(to_child[0], &c, 1) == 1;) {
        answer = FileLock(h, 1, offset, length) >= 0 ? '+' : '-';
      }
      _exit(0);
    }
    close(to_child[0]);
    close(to_parent[1]);
    command_ = to_child[1];
    reply_ = to_parent[0];
  }
  ~LockHolder() {
    close(command_);
    close(reply_);
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  // The child's next answer, after sending c (none: just wait).
  char Answer(char c = 0) {
    char answer = '!';
    if ((c && write(command_, &c, 1) != 1) || read(reply_, &answer, 1) != 1) return '!';
    return answer;
  }

 private:
  pid_t pid_ = -1;
  int command_ = -1;
  int reply_ = -1;
};

class LockTest : public RuntimeTest {
 protected:
  void SetUp() override {
    RuntimeTest::SetUp();
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
  TempDir dir_;
  std::string path_;
};

TEST_F(LockTest, OtherProcessHoldsRegionUntilItUnlocks) {
  LockHolder holder(path_, 100, 10);
  ASSERT_EQ(holder.Answer(), '+');
  FileHandle h = OpenShared();
  for (int32_t retries : {0, 1, 7}) {
    DBSetLockRetryCount(retries);
    long before = kestrel::testing::LockAttempts();
    EXPECT_EQ(Lock(h, 0, 105, 1), -279);
    EXPECT_EQ(kestrel::testing::LockAttempts() - before, retries > 1 ? retries : 1);
  }
  EXPECT_EQ(LocksUsed(), 0);
  EXPECT_EQ(Lock(h, 0, 110, 5), 0);  // the neighbouring bytes are free
  ASSERT_EQ(holder.Answer('u'), '+');
  DBSetLockRetryCount(3);
  long before = kestrel::testing::LockAttempts();
  EXPECT_EQ(Lock(h, 0, 100, 10), 0);
  EXPECT_EQ(kestrel::testing::LockAttempts() - before, 1);
  EXPECT_EQ(IsRegionLocked(h, 100, 10), 1);
  EXPECT_EQ(LocksUsed(), 2);
  FileClose(h);
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
