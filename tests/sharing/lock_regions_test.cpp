// Table lock regions as another process sees them: a forked child probes
// with plain fcntl(F_GETLK) and must find exactly the byte ranges each
// dialect's programs use while this process holds a record, the header or
// the file, and find them free again after the unlock.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kestrel/kestrel.h"
#include "runtime/memory.h"
#include "support/temp_dir.h"

namespace kestrel::test {
namespace {

struct Probe {
  uint64_t offset;
  uint64_t length;
  bool locked;  // expected: held by us as exactly this region
};

// Runs the probes in a child process; returns 0 when all hold, else the
// 1-based number of the first probe that did not.
int ProbeFromChild(const std::string& path, const std::vector<Probe>& probes) {
  pid_t pid = fork();
  if (pid == 0) {
    int fd = ::open(path.c_str(), O_RDWR);
    if (fd < 0) _exit(100);
    for (size_t i = 0; i < probes.size(); ++i) {
      struct flock fl;
      std::memset(&fl, 0, sizeof fl);
      fl.l_type = F_WRLCK;
      fl.l_whence = SEEK_SET;
      fl.l_start = static_cast<off_t>(probes[i].offset);
      fl.l_len = static_cast<off_t>(probes[i].length);
      if (fcntl(fd, F_GETLK, &fl) != 0) _exit(101);
      bool ok = probes[i].locked ? (fl.l_type != F_UNLCK &&
                                    static_cast<uint64_t>(fl.l_start) == probes[i].offset &&
                                    static_cast<uint64_t>(fl.l_len) == probes[i].length)
                                 : fl.l_type == F_UNLCK;
      if (!ok) _exit(static_cast<int>(i + 1));
    }
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 200;
}

// The region and the single bytes on each side of it.
std::vector<Probe> Exactly(uint64_t offset, uint64_t length) {
  std::vector<Probe> p = {{offset, length, true}, {offset + length, 1, false}};
  if (offset > 0) p.push_back({offset - 1, 1, false});
  return p;
}
std::vector<Probe> Free(uint64_t offset, uint64_t length) { return {{offset, length, false}}; }

DBFIELD Field(const char* name, int32_t type, int32_t length) {
  DBFIELD f{};
  std::strcpy(f.name, name);
  f.type = type;
  f.length = length;
  return f;
}

class LockRegionsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DBErrorLog(0, nullptr);
    DBSetLockRetryCount(0);
    ASSERT_EQ(DBInitialize(25, 0), 0);
  }
  void TearDown() override { DBTerminate(); }

  // A table with one C(9) field (header 65, record length 10) and `records`
  // records, opened shared.
  int32_t Make(int dialect, int records, bool production = false, int32_t extra = 0) {
    path_ = dir_.File("L" + std::to_string(dialect) + ".DBF");
    DBFIELD f = Field("A", 'C', 9);
    EXPECT_EQ(DBCreateFile(path_.c_str(), 1, &f, dialect | (production ? 0x200 : 0)), 0);
    int32_t h = -1;
    EXPECT_EQ(DBOpenFile(&h, path_.c_str(), dialect), 0);
    for (int i = 0; i < records; ++i) {
      int32_t r = 0;
      EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), 0);
    }
    DBCloseFile(h);
    EXPECT_EQ(DBOpenFile(&h, path_.c_str(), dialect | DB_OPEN_SHARED | extra), 0);
    return h;
  }
  std::vector<DBLOCKINFO> Info(int32_t h) {
    DBLOCKINFO* locks = nullptr;
    int32_t count = -1;
    EXPECT_EQ(DBGetLockInfo(h, &locks, &count), 0);
    std::vector<DBLOCKINFO> out(locks, locks + (locks ? count : 0));
    if (locks) DBFreeMemory(locks);
    return out;
  }
  // Locks with `lock`, checks the child sees `region`, the lock info, then
  // unlocks everything and checks the region is free again.
  void Check(int32_t h, int32_t rc_lock, uint64_t offset, uint64_t length, int32_t kind,
             int32_t record) {
    ASSERT_EQ(rc_lock, 0);
    EXPECT_EQ(ProbeFromChild(path_, Exactly(offset, length)), 0) << offset << "+" << length;
    std::vector<DBLOCKINFO> info = Info(h);
    ASSERT_EQ(info.size(), 1u);
    EXPECT_EQ(info[0].kind, kind);
    if (kind == DB_LOCK_RECORD) {
      EXPECT_EQ(info[0].record, record);
    }
    ASSERT_EQ(DBUnLockAll(h), 0);
    EXPECT_EQ(ProbeFromChild(path_, Free(offset, length)), 0);
    EXPECT_TRUE(Info(h).empty());
  }

  TempDir dir_;
  std::string path_;
};

TEST_F(LockRegionsTest, DbaseThreeLocksTheRecordBytesTheCountAndTheWholeFile) {
  for (int dialect : {1, 7, 9}) {
    SCOPED_TRACE(dialect);
    int32_t h = Make(dialect, 5);
    uint64_t header = dialect == 9 ? 96 : 65;
    Check(h, DBLockRecord(h, 3), header + 20, 10, DB_LOCK_RECORD, 3);
    Check(h, DBLockHeader(h), 4, 4, DB_LOCK_HEADER, 0);
    Check(h, DBLockFile(h), 0, 0x7FFFFFFF, DB_LOCK_FILE, 0);
    DBCloseFile(h);
  }
}

TEST_F(LockRegionsTest, DbaseFourUsesTheExclusiveOrRegions) {
  int32_t h = Make(2, 3);
  Check(h, DBLockRecord(h, 1), 0xEFFFFFFDu, 1, DB_LOCK_RECORD, 1);
  Check(h, DBLockRecord(h, 3), (3 + 1) ^ 0xEFFFFFFFu, 1, DB_LOCK_RECORD, 3);
  Check(h, DBLockHeader(h), 0xEFFFFFFEu, 1, DB_LOCK_HEADER, 0);
  Check(h, DBLockFile(h), 0xEFFFFFFEu, 2, DB_LOCK_FILE, 0);
  DBCloseFile(h);
}

TEST_F(LockRegionsTest, FoxProRegionsWithAndWithoutProductionIndex) {
  for (int dialect : {3, 4, 8}) {
    SCOPED_TRACE(dialect);
    int32_t h = Make(dialect, 100, true);
    Check(h, DBLockRecord(h, 7), 0x7FFFFFFEu - 7, 1, DB_LOCK_RECORD, 7);
    Check(h, DBLockHeader(h), 0x7FFFFFFEu, 1, DB_LOCK_HEADER, 0);
    Check(h, DBLockFile(h), 2133447731u, 14035916u, DB_LOCK_FILE, 0);
    DBCloseFile(h);
    h = Make(dialect, 10, false);
    Check(h, DBLockRecord(h, 2), (65 + 10) | 0x40000000u, 1, DB_LOCK_RECORD, 2);
    Check(h, DBLockFile(h), 0x40000000u, 1, DB_LOCK_FILE, 0);
    ASSERT_EQ(DBLockHeader(h), 0);
    EXPECT_EQ(ProbeFromChild(path_, Exactly(0x40000000u, 1)), 0);
    DBCloseFile(h);
  }
}

TEST_F(LockRegionsTest, ClipperRegionsAroundOneBillion) {
  for (int dialect : {5, 6}) {
    int32_t h = Make(dialect, 6);
    Check(h, DBLockRecord(h, 5), 1000000005u, 1, DB_LOCK_RECORD, 5);
    Check(h, DBLockHeader(h), 1000000000u, 1, DB_LOCK_HEADER, 0);
    Check(h, DBLockFile(h), 1000000000u, 1000000000u, DB_LOCK_FILE, 0);
    DBCloseFile(h);
  }
}

TEST_F(LockRegionsTest, OneRecordLockAtATimeUnlessSeveralAreAsked) {
  int32_t h = Make(6, 10);
  ASSERT_EQ(DBLockRecord(h, 7), 0);
  ASSERT_EQ(DBLockRecord(h, 8), 0);
  EXPECT_EQ(DBIsRecordLocked(h, 7), 0);
  EXPECT_EQ(DBIsRecordLocked(h, 8), 1);
  EXPECT_EQ(ProbeFromChild(path_, {{1000000007u, 1, false}, {1000000008u, 1, true}}), 0);
  DBFILEINFO info{};
  DBGetFileInfo(h, &info);
  EXPECT_EQ(info.lock_state, DB_LOCK_RECORD);
  EXPECT_EQ(info.lock_count, 1);
  DBCloseFile(h);
  EXPECT_EQ(ProbeFromChild(path_, Free(1000000008u, 1)), 0);  // closing let it go

  h = Make(6, 10, false, DB_OPEN_MULTILOCK);
  ASSERT_EQ(DBLockRecord(h, 7), 0);
  ASSERT_EQ(DBLockRecord(h, 8), 0);
  ASSERT_EQ(DBLockHeader(h), 0);
  EXPECT_EQ(Info(h).size(), 3u);
  ASSERT_EQ(DBUnLockRecord(h, 7), 0);
  EXPECT_EQ(ProbeFromChild(path_, {{1000000007u, 1, false}, {1000000008u, 1, true}}), 0);
  DBGetFileInfo(h, &info);
  EXPECT_EQ(info.lock_state, DB_LOCK_RECORD | DB_LOCK_HEADER);
  EXPECT_EQ(info.lock_count, 2);
  ASSERT_EQ(DBUnLockHeader(h), 0);
  ASSERT_EQ(DBUnLockRecord(h, 8), 0);
  DBGetFileInfo(h, &info);
  EXPECT_EQ(info.lock_state, 0);
  EXPECT_EQ(info.lock_count, 0);
  int32_t used = -1, capacity = 0;
  DBGetLockCount(&used, &capacity);
  EXPECT_EQ(used, 0);
  DBCloseFile(h);
}

TEST_F(LockRegionsTest, UnsharedTablesTakeNoLocks) {
  path_ = dir_.File("U.DBF");
  DBFIELD f = Field("A", 'C', 9);
  ASSERT_EQ(DBCreateFile(path_.c_str(), 1, &f, 1), 0);
  int32_t h = -1;
  ASSERT_EQ(DBOpenFile(&h, path_.c_str(), 1), 0);
  EXPECT_EQ(DBLockFile(h), 0);
  DBLOCKINFO sentinel{};
  DBLOCKINFO* locks = &sentinel;
  int32_t count = -1;
  EXPECT_EQ(DBGetLockInfo(h, &locks, &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(locks, &sentinel);  // left untouched
  EXPECT_EQ(DBGetLockInfo(h, nullptr, &count), DB_ERR_NULL);
  EXPECT_EQ(DBIsRecordLocked(h, 1), DB_ERR_NULL);  // unshared: the current code
  int32_t used = -1, capacity = 0;
  DBGetLockCount(&used, &capacity);
  EXPECT_EQ(used, 0);
  DBCloseFile(h);
}

}  // namespace
}  // namespace kestrel::test
