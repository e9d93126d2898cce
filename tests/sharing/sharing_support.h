// Support for the sharing tests: an initialised library with a temporary
// directory, forked child processes that report their failed checks back to
// the parent, pipe signals between the two, and a probe that asks the kernel
// with plain fcntl F_GETLK who holds a byte range.
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

#include "kestrel/kestrel.h"
#include "runtime/file_services.h"
#include "runtime/memory.h"
#include "support/temp_dir.h"

namespace kestrel::test {

inline DBFIELD Field(const char* name, int32_t type, int32_t length = 0, int32_t decimals = 0) {
  DBFIELD f{};
  std::memcpy(f.name, name, std::min(std::strlen(name), sizeof f.name - 1));
  f.type = type;
  f.length = length;
  f.decimals = decimals;
  return f;
}

// What the kernel says about a byte range: whether another lock conflicts
// with a write lock there and, if so, the conflicting lock's range and owner.
struct Probe {
  bool held = false;
  int64_t start = 0;
  int64_t length = 0;
  int32_t pid = 0;
};

// Asks with a classic F_GETLK on a descriptor of its own (read-only, so the
// probe itself can take nothing).
inline Probe ProbeRange(const std::string& path, uint64_t offset, uint64_t length) {
  Probe p;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return p;
  struct flock fl {};
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = static_cast<off_t>(offset);
  fl.l_len = static_cast<off_t>(length);
  if (::fcntl(fd, F_GETLK, &fl) == 0 && fl.l_type != F_UNLCK) {
    p.held = true;
    p.start = fl.l_start;
    p.length = fl.l_len;
    p.pid = fl.l_pid;
  }
  ::close(fd);
  return p;
}

// A one-way pipe used as a signal: one side sends bytes, the other waits.
class Signal {
 public:
  Signal() {
    if (::pipe(fds_) != 0) fds_[0] = fds_[1] = -1;
  }
  ~Signal() {
    for (int fd : fds_) {
      if (fd >= 0) ::close(fd);
    }
  }
  Signal(const Signal&) = delete;
  Signal& operator=(const Signal&) = delete;
  void Send(char c = '.') {
    ssize_t n = ::write(fds_[1], &c, 1);
    (void)n;
  }
  // The next byte sent, or 0 when the other side is gone.
  char Wait() {
    char c = 0;
    ssize_t n;
    do {
      n = ::read(fds_[0], &c, 1);
    } while (n < 0 && errno == EINTR);
    return n == 1 ? c : 0;
  }

 private:
  int fds_[2] = {-1, -1};
};

// The checks of a child process: every failed check becomes one line that
// the parent reports as a test failure.
class ChildChecks {
 public:
  explicit ChildChecks(int fd) : fd_(fd) {}
  void Check(bool ok, int line, const std::string& what) {
    if (ok) return;
    std::string text = "child line " + std::to_string(line) + ": " + what + "\n";
    ssize_t n = ::write(fd_, text.data(), text.size());
    (void)n;
  }
  template <class A, class B>
  void Equal(const A& actual, const B& expected, int line, const char* what) {
    if (actual == expected) return;
    std::ostringstream s;
    s << what << ": got " << actual << ", want " << expected;
    Check(false, line, s.str());
  }

 private:
  int fd_;
};

#define CHILD_CHECK(checks, cond) (checks).Check((cond), __LINE__, #cond)
#define CHILD_EQ(checks, actual, expected) \
  (checks).Equal((actual), (expected), __LINE__, #actual " == " #expected)

// A forked child running body(checks); Join() waits for it and turns its
// reports (and an abnormal exit) into failures of the current test.
class Child {
 public:
  explicit Child(std::function<void(ChildChecks&)> body) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(fds[0]);
      ChildChecks checks(fds[1]);
      body(checks);
      ::close(fds[1]);
      ::_exit(0);
    }
    ::close(fds[1]);
    report_ = fds[0];
  }
  ~Child() {
    if (pid_ > 0) Join();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  int pid() const { return pid_; }

  void Join() {
    if (pid_ <= 0) return;
    std::string text;
    char buffer[512];
    ssize_t n;
    while ((n = ::read(report_, buffer, sizeof buffer)) != 0) {
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) break;
      text.append(buffer, static_cast<size_t>(n));
    }
    ::close(report_);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    if (!text.empty()) ADD_FAILURE() << text;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child status " << status;
  }

 private:
  int pid_ = -1;
  int report_ = -1;
};

// An initialised library and a temporary directory for every test.
class SharingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DBErrorLog(0, nullptr);
    ASSERT_EQ(DBInitialize(40, 0), 0);
    DBSetLockRetryCount(0);
  }
  void TearDown() override {
    kestrel::testing::FailAllocation(0);
    DBTerminate();
  }

  // Creates name in the temp dir (the field list is normalised in place).
  std::string Create(const std::string& name, std::vector<DBFIELD> fields, int32_t dialect) {
    std::string path = dir_.File(name);
    EXPECT_EQ(
        DBCreateFile(path.c_str(), static_cast<int32_t>(fields.size()), fields.data(), dialect), 0)
        << path;
    return path;
  }
  int32_t Open(const std::string& path, int32_t mode) {
    int32_t h = -1;
    EXPECT_EQ(DBOpenFile(&h, path.c_str(), mode), 0) << path;
    return h;
  }
  // Appends one record whose first (character) field holds text.
  int32_t Append(int32_t h, const std::string& text) {
    EXPECT_EQ(DBClearBuffer(h), 0);
    EXPECT_EQ(DBPutStrField(h, 0, text.c_str()), 0);
    int32_t r = 0;
    EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), 0);
    return r;
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
    int32_t n = -1;
    EXPECT_EQ(DBGetRecordCount(h, &n), 0);
    return n;
  }

  TempDir dir_;
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
