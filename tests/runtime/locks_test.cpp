// Byte-range locks: the retry loop against a lock held by another process,
// conflicts between two handles of one process, and the lock buffer.
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "runtime/file_services.h"
#include "runtime_fixture.h"
#include "support/temp_dir.h"

namespace kestrel::test {
namespace {

// A second process that opens the file itself (so it has its own open file
// description), locks a region and holds it until told to let go.
class LockHolder {
 public:
  LockHolder(const std::string& path, uint32_t offset, uint32_t length) {
    int to_child[2], to_parent[2];
    if (pipe(to_child) != 0 || pipe(to_parent) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(to_child[1]);
      close(to_parent[0]);
      Serve(path, offset, length, to_child[0], to_parent[1]);
    }
    close(to_child[0]);
    close(to_parent[1]);
    command_ = to_child[1];
    reply_ = to_parent[0];
  }
  ~LockHolder() {
    Ask('q');
    close(command_);
    close(reply_);
    int status = 0;
    if (pid_ > 0) waitpid(pid_, &status, 0);
  }
  // Sends a command and returns the child's one-byte answer ('+' done).
  char Ask(char c) {
    char answer = '?';
    if (write(command_, &c, 1) != 1 || read(reply_, &answer, 1) != 1) return '!';
    return answer;
  }
  // Waits for the first answer: whether the region is held.
  char Started() {
    char answer = '!';
    if (read(reply_, &answer, 1) != 1) return '!';
    return answer;
  }

 private:
  [[noreturn]] static void Serve(const std::string& path, uint32_t offset, uint32_t length, int in,
                                 int out) {
    FileHandle h = kNoFile;
    uint32_t attributes = 0;
    bool ok =
        FileOpen(&h, path.c_str(), 0x400, &attributes) >= 0 && FileLock(h, 0, offset, length) >= 0;
    char answer = ok ? '+' : '-';
    if (write(out, &answer, 1) != 1) _exit(1);
    char c;
    while (read(in, &c, 1) == 1) {
      if (c == 'u') answer = FileLock(h, 1, offset, length) >= 0 ? '+' : '-';
      if (write(out, &answer, 1) != 1 || c == 'q') break;
    }
    _exit(0);
  }

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
  ASSERT_EQ(holder.Started(), '+');
  FileHandle h = OpenShared();
  for (int32_t retries : {0, 1, 7}) {
    DBSetLockRetryCount(retries);
    long before = kestrel::testing::LockAttempts();
    EXPECT_EQ(Lock(h, 0, 105, 1), -279);
    EXPECT_EQ(kestrel::testing::LockAttempts() - before, retries > 1 ? retries : 1);
  }
  EXPECT_STREQ(DBGetErrorStr(), "Unknown error or warning code");
  EXPECT_EQ(LocksUsed(), 0);
  EXPECT_EQ(Lock(h, 0, 110, 5), 0);  // the neighbouring bytes are free
  ASSERT_EQ(holder.Ask('u'), '+');
  DBSetLockRetryCount(3);
  long before = kestrel::testing::LockAttempts();
  EXPECT_EQ(Lock(h, 0, 100, 10), 0);
  EXPECT_EQ(kestrel::testing::LockAttempts() - before, 1);
  EXPECT_EQ(IsRegionLocked(h, 100, 10), 1);
  EXPECT_EQ(LocksUsed(), 2);
  FileClose(h);
}

TEST_F(LockTest, TwoHandlesInOneProcessConflict) {
  FileHandle a = OpenShared();
  FileHandle b = OpenShared();
  DBSetLockRetryCount(2);
  EXPECT_EQ(Lock(a, 0, 0xEFFFFFFF, 1), 0);  // far beyond the file's end
  EXPECT_EQ(Lock(b, 0, 0xEFFFFFFF, 1), -279);
  EXPECT_EQ(IsRegionLocked(a, 0xEFFFFFFF, 1), 1);
  EXPECT_EQ(IsRegionLocked(b, 0xEFFFFFFF, 1), 0);
  EXPECT_EQ(Lock(a, 1, 0xEFFFFFFF, 1), 0);
  EXPECT_EQ(Lock(b, 0, 0xEFFFFFFF, 1), 0);
  FileClose(a);
  FileClose(b);
}

TEST_F(LockTest, ReadOnlyHandlesShareTheirLocks) {
  FileHandle r1 = OpenShared(0x500);
  FileHandle r2 = OpenShared(0x500);
  FileHandle w = OpenShared();
  EXPECT_EQ(Lock(r1, 0, 10, 4), 0);
  EXPECT_EQ(Lock(r2, 0, 10, 4), 0);
  EXPECT_EQ(Lock(w, 0, 12, 1), -279);
  FileClose(r1);
  FileClose(r2);
  FileClose(w);
}

TEST_F(LockTest, FullBufferRefusesWithoutSystemCall) {
  FileHandle h = OpenShared();
  ASSERT_EQ(DBSetLockCount(2), 0);
  EXPECT_EQ(Lock(h, 0, 0, 1), 0);
  EXPECT_EQ(Lock(h, 0, 5, 1), 0);
  long before = kestrel::testing::LockAttempts();
  EXPECT_EQ(Lock(h, 0, 9, 1), -260);
  EXPECT_EQ(kestrel::testing::LockAttempts(), before);
  EXPECT_EQ(LocksUsed(), 2);
  // Unlocking with a full buffer is allowed.
  EXPECT_EQ(Lock(h, 1, 0, 1), 0);
  EXPECT_EQ(LocksUsed(), 1);
  EXPECT_EQ(DBSetLockCount(0), -261);  // below the entries in use
  int32_t used = 0, capacity = 0;
  DBGetLockCount(&used, &capacity);
  EXPECT_EQ(capacity, 2);
  EXPECT_EQ(DBGetLockCount(nullptr, &capacity), -221);
  FileClose(h);
}

TEST_F(LockTest, BufferRecordsEachCallAndUnlockRemovesTheFirstMatch) {
  FileHandle h = OpenShared();
  DBSetErrorCode(0);
  EXPECT_EQ(Lock(h, 0, 0, 1), 0);
  EXPECT_EQ(Lock(h, 0, 10, 2), 0);
  EXPECT_EQ(Lock(h, 0, 0, 1), 0);   // the same region twice: two entries
  EXPECT_EQ(Lock(h, 0, 20, 0), 0);  // an empty region is recorded too
  ASSERT_EQ(LocksUsed(), 4);
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
  // Locking moves the file position to the region's offset.
  char c = 0;
  EXPECT_EQ(Lock(h, 0, 7, 1), 0);
  EXPECT_EQ(FileRead(h, &c, 1), 0);
  EXPECT_EQ(c, 'x');
  int32_t at_end = 1;
  EXPECT_EQ(Lock(h, 0, 64, 1), 0);
  EXPECT_EQ(FileAtEnd(h, &at_end), 0);
  EXPECT_EQ(at_end, 1);
  EXPECT_EQ(Lock(-1, 0, 0, 1), -280);
  FileClose(h);
}

TEST_F(LockTest, SuccessReturnsTheCodeItFound) {
  // Engines clear the code before a sequence of calls; a service that
  // succeeds hands back whatever it found, even an earlier failure.
  FileHandle h = OpenShared();
  DBSetErrorCode(-279);
  EXPECT_EQ(FileLock(h, 0, 4, 4), -279);
  EXPECT_EQ(IsRegionLocked(h, 4, 4), 1);
  DBSetErrorCode(-280);
  EXPECT_EQ(FileLock(h, 1, 4, 4), -280);
  EXPECT_EQ(IsRegionLocked(h, 4, 4), 0);
  DBSetErrorCode(-233);
  EXPECT_EQ(FileTruncate(h, 8), -233);
  int32_t at_end = 0;
  EXPECT_EQ(FileAtEnd(h, &at_end), -233);
  EXPECT_EQ(at_end, 1);
  FileClose(h);
  EXPECT_EQ(ReadFileBytes(path_).size(), 8u);
}

TEST_F(LockTest, RetryCountCalls) {
  EXPECT_EQ(DBSetLockRetryCount(-5), 0);
  int32_t count = 0;
  EXPECT_EQ(DBGetLockRetryCount(&count), 0);
  EXPECT_EQ(count, -5);
  EXPECT_EQ(DBGetLockRetryCount(nullptr), -221);
  // The retry count outlives DBTerminate and DBInitialize.
  DBTerminate();
  ASSERT_EQ(DBInitialize(20, 0), 0);
  DBGetLockRetryCount(&count);
  EXPECT_EQ(count, -5);
}

}  // namespace
}  // namespace kestrel::test
