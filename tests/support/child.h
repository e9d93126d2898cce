// Test support for tests that need a second process: a forked child whose
// failed checks come back to the parent as test failures, and a pipe used as
// a signal between the two.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <sstream>
#include <string>

namespace kestrel::test {

// A one-way pipe used as a signal: one side sends a byte, the other waits.
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
  void Send() { (void)!::write(fds_[1], ".", 1); }
  // Returns false when the other side is gone.
  bool Wait() {
    char c = 0;
    ssize_t n;
    do {
      n = ::read(fds_[0], &c, 1);
    } while (n < 0 && errno == EINTR);
    return n == 1;
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
    (void)!::write(fd_, text.data(), text.size());
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

// A forked child running body(checks); Join() (or the destructor) waits for
// it and turns its reports and an abnormal exit into failures of the test.
class Child {
 public:
  explicit Child(const std::function<void(ChildChecks&)>& body) {
    int fds[2];
    if (::pipe(fds) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::close(fds[0]);
      ChildChecks checks(fds[1]);
      body(checks);
      ::_exit(0);
    }
    ::close(fds[1]);
    report_ = fds[0];
  }
  ~Child() { Join(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

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

}  // namespace kestrel::test
