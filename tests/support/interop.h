// Test support for cross-checks with independent xBase programs: running a
// checker process and capturing what it prints, and deciding what a missing
// checker means (a skip on a developer machine, a failure under CI=true).
#pragma once

#include <string>
#include <vector>

namespace kestrel::test {

struct ProcessResult {
  int exit_code = -1;  // the exit status; 128 + signal when killed; -1 when it could not start
  std::string out;     // everything written to stdout
  std::string err;     // everything written to stderr
};

// Runs argv[0] (a full path) with the arguments, waits for it and returns its
// output. A process still running after timeout_seconds is killed.
ProcessResult RunProcess(const std::vector<std::string>& argv, int timeout_seconds = 120);

// The independent readers the interop tests use.
enum class Checker { kDbfread, kPythonDbf, kPerlXBase, kXbase64 };
const char* CheckerName(Checker checker);

// True when the checker's interpreter and module load, or its program was
// built and runs (probed once per process).
bool CheckerAvailable(Checker checker);

// True when the environment variable CI is set to something other than
// "", "0" or "false": then a missing checker fails the test.
bool RunningUnderCi();

// Path of a checker script in tests/interop/scripts.
std::string InteropScript(const std::string& name);

// The Xbase64 reader of .NTX files (tests/interop/xbase64), "" when it was
// not built.
inline constexpr const char* kXbase64Walker = KESTREL_XBASE64_WALK_PATH;
// The Xbase64 reader of .NDX files, "" when it was not built.
inline constexpr const char* kXbase64NdxWalker = KESTREL_XBASE64_NDX_WALK_PATH;

// The interpreters the checkers are run with (the system ones, which carry
// the Debian packages).
inline constexpr const char* kPython = "/usr/bin/python3";
inline constexpr const char* kPerl = "/usr/bin/perl";

}  // namespace kestrel::test

// Skips the current test when the checker is missing, or fails it under CI.
#define KESTREL_REQUIRE_CHECKER(checker)                                                \
  do {                                                                                  \
    if (!::kestrel::test::CheckerAvailable(checker)) {                                  \
      if (::kestrel::test::RunningUnderCi()) {                                          \
        FAIL() << "checker " << ::kestrel::test::CheckerName(checker)                   \
               << " is not installed (CI=true makes this a failure; see "               \
                  "scripts/install-deps.sh)";                                           \
      }                                                                                 \
      GTEST_SKIP() << "checker " << ::kestrel::test::CheckerName(checker)               \
                   << " is not installed; install it (scripts/install-deps.sh) to run " \
                      "this cross-check";                                               \
    }                                                                                   \
  } while (0)
