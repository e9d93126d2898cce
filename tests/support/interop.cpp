#include "support/interop.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

namespace kestrel::test {

namespace {
constexpr const char* kEmulator = "/usr/bin/qemu-i386";
}  // namespace

ProcessResult RunProcess(const std::vector<std::string>& argv, int timeout_seconds) {
  ProcessResult result;
  if (argv.empty()) return result;
  int out_pipe[2];
  int err_pipe[2];
  if (::pipe2(out_pipe, O_CLOEXEC) != 0) return result;
  if (::pipe2(err_pipe, O_CLOEXEC) != 0) {
    ::close(out_pipe[0]);
    ::close(out_pipe[1]);
    return result;
  }
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid = ::fork();
  if (pid == 0) {
    int devnull = ::open("/dev/null", O_RDONLY);
    if (devnull >= 0) ::dup2(devnull, 0);
    ::dup2(out_pipe[1], 1);
    ::dup2(err_pipe[1], 2);
    ::execv(args[0], args.data());
    if (errno == ENOEXEC) {
      // A 32-bit checker on a kernel built without 32-bit support: run it
      // under user-mode emulation (scripts/install-deps.sh installs it there).
      std::vector<char*> emulated = {const_cast<char*>(kEmulator), const_cast<char*>("-L"),
                                     const_cast<char*>("/")};
      emulated.insert(emulated.end(), args.begin(), args.end());
      ::execv(kEmulator, emulated.data());
    }
    ::_exit(127);
  }
  ::close(out_pipe[1]);
  ::close(err_pipe[1]);
  if (pid < 0) {
    ::close(out_pipe[0]);
    ::close(err_pipe[0]);
    return result;
  }
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_count = 2;
  bool killed = false;
  char buffer[65536];
  while (open_count > 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                    deadline - std::chrono::steady_clock::now())
                    .count();
    if (left <= 0) {
      ::kill(pid, SIGKILL);
      killed = true;
      break;
    }
    int ready = ::poll(fds, 2, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        ::close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  for (auto& f : fds) {
    if (f.fd >= 0) ::close(f.fd);
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) {
    result.exit_code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.exit_code = 128 + WTERMSIG(status);
  }
  if (killed) result.err += "\n(killed after " + std::to_string(timeout_seconds) + " s)";
  return result;
}

const char* CheckerName(Checker checker) {
  switch (checker) {
    case Checker::kDbfread:
      return "python3-dbfread";
    case Checker::kPythonDbf:
      return "python3-dbf";
    case Checker::kPerlXBase:
      return "Perl XBase (libdbd-xbase-perl)";
    case Checker::kXbase64:
      return "Xbase64 (libxbase64-1:i386, built as ntx_walk_xbase64)";
  }
  return "?";
}

bool CheckerAvailable(Checker checker) {
  static std::map<Checker, bool> known;
  auto it = known.find(checker);
  if (it != known.end()) return it->second;
  ProcessResult r;
  switch (checker) {
    case Checker::kDbfread:
      r = RunProcess({kPython, "-c", "import dbfread"}, 60);
      break;
    case Checker::kPythonDbf:
      r = RunProcess({kPython, "-c", "import dbf"}, 60);
      break;
    case Checker::kPerlXBase:
      r = RunProcess({kPerl, "-MXBase", "-e", "1"}, 60);
      break;
    case Checker::kXbase64:
      if (kXbase64Walker[0] != '\0') r = RunProcess({kXbase64Walker, "probe"}, 60);
      break;
  }
  bool ok = r.exit_code == 0;
  known[checker] = ok;
  return ok;
}

bool RunningUnderCi() {
  const char* ci = std::getenv("CI");
  if (ci == nullptr) return false;
  return std::strcmp(ci, "") != 0 && std::strcmp(ci, "0") != 0 && std::strcmp(ci, "false") != 0;
}

std::string InteropScript(const std::string& name) {
  return (std::filesystem::path(KESTREL_TEST_FIXTURES).parent_path() / "interop" / "scripts" / name)
      .string();
}

}  // namespace kestrel::test
