// Support for the sharing tests: an initialised library with a temporary
// directory, tables of known records, and a probe that asks the kernel with
// plain fcntl F_GETLK, from another process, who holds a byte range.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/file_services.h"
#include "support/child.h"
#include "support/library.h"

namespace kestrel::test {

// Checks from another process, with a plain fcntl(F_GETLK) on a descriptor
// of its own, that exactly [offset, offset + length) is held (one lock,
// neither byte beside it), or that none of it is.
inline void ExpectRegion(const std::string& path, uint64_t offset, uint64_t length, bool held) {
  Child child([&](ChildChecks& checks) {
    // The range of the lock that keeps a write lock off [at, at + n), or {-1, 0}.
    using Range = std::pair<int64_t, int64_t>;
    auto probe = [&](uint64_t at, uint64_t n) {
      int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
      struct flock fl {};
      fl.l_type = F_WRLCK;
      fl.l_whence = SEEK_SET;
      fl.l_start = static_cast<off_t>(at);
      fl.l_len = static_cast<off_t>(n);
      bool taken = fd >= 0 && ::fcntl(fd, F_GETLK, &fl) == 0 && fl.l_type != F_UNLCK;
      if (fd >= 0) ::close(fd);
      return taken ? Range(fl.l_start, fl.l_len) : Range(-1, 0);
    };
    std::string what = std::to_string(offset) + " +" + std::to_string(length);
    if (!held) return checks.Check(probe(offset, length).first < 0, __LINE__, what + " is free");
    checks.Check(probe(offset, length) == Range(offset, length) &&
                     probe(offset + length, 1).first < 0 &&
                     (offset == 0 || probe(offset - 1, 1).first < 0),
                 __LINE__, what + " is held exactly");
  });
}

// An initialised library (lock retries off) and a temporary directory.
class SharingTest : public LibraryTest {
 protected:
  // A table NAME C(20), QTY N(8,2) (header 97 bytes, 128 in dialect 9;
  // records of 29) holding "r1".."rN", the listed records marked deleted.
  // QTY carries the dBASE IV production tag flag.
  std::string Make(const std::string& name, int records, const std::vector<int>& deleted = {},
                   int32_t dialect = 1) {
    std::string path = dir_.File(name);
    DBFIELD fields[] = {Field("NAME", 'C', 20), Field("QTY", 'N' | 0x100, 8, 2)};
    EXPECT_EQ(DBCreateFile(path.c_str(), 2, fields, dialect), 0) << path;
    int32_t h = Open(path, dialect & 0xFF);
    for (int i = 1; i <= records; ++i) Append(h, "r" + std::to_string(i));
    for (int r : deleted) EXPECT_EQ(DBMarkRecordInActive(h, r), 0);
    EXPECT_EQ(DBCloseFile(h), 0);
    return path;
  }
  // Appends one record whose first field holds text; returns its number.
  int32_t Append(int32_t h, const std::string& text) {
    EXPECT_EQ(DBClearBuffer(h), 0);
    EXPECT_EQ(DBPutStrField(h, 0, text.c_str()), 0);
    int32_t r = 0;
    EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), 0);
    return r;
  }
  // Writes text into the first field of record r.
  int32_t Replace(int32_t h, int32_t r, const std::string& text) {
    EXPECT_EQ(DBPutStrField(h, 0, text.c_str()), 0);
    return DBPutRecord(h, &r, DB_RECORD_REPLACE);
  }
  // The first field of record r without its trailing blanks.
  std::string Text(int32_t h, int32_t r) {
    char text[300] = {};
    int32_t rc = DBGetRecord(h, r);
    EXPECT_TRUE(rc == 0 || rc == DB_WARN_RECORD_DELETED) << rc;
    EXPECT_EQ(DBGetStrField(h, 0, text), 0);
    std::string s = text;
    s.erase(s.find_last_not_of(' ') + 1);
    return s;
  }
  int32_t Count(int32_t h) {
    uint32_t n = 0;
    EXPECT_EQ(DBGetRecordCount(h, &n), 0);
    return static_cast<int32_t>(n);
  }
  // The lock state and lock count the table reports.
  std::pair<int32_t, int32_t> LockState(int32_t h) {
    DBFILEINFO info{};
    EXPECT_EQ(DBGetFileInfo(h, &info), 0);
    return {info.lock_state, info.lock_count};
  }
  // The locks the table reports holding, as (kind, record) pairs.
  std::vector<std::pair<int32_t, int32_t>> Held(int32_t h) {
    DBLOCKINFO* locks = nullptr;
    int32_t count = 0;
    EXPECT_EQ(DBGetLockInfo(h, &locks, &count), 0);
    std::vector<std::pair<int32_t, int32_t>> out;
    for (int32_t i = 0; locks && i < count; ++i) out.emplace_back(locks[i].kind, locks[i].record);
    if (locks) DBFreeMemory(locks);
    return out;
  }
  // Locks held in the whole library.
  static int32_t LocksUsed() {
    int32_t used = -1, capacity = 0;
    DBGetLockCount(&used, &capacity);
    return used;
  }
};

// Retries a lock call while another process holds the region (-279),
// yielding between attempts; any other result is returned.
template <class Lock>
int32_t LockPatiently(Lock lock) {
  for (;;) {
    int32_t rc = lock();
    if (rc != DB_ERR_LOCK_RETRIES) return rc;
    ::sched_yield();
  }
}

}  // namespace kestrel::test
