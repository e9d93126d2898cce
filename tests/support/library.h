// Test support shared by the component tests: the library initialised
// around each test with a temporary directory, field descriptions, the
// "status value" form of a call's results, and running the kestrel tool.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "kestrel/kestrel.h"
#include "runtime/memory.h"
#include "support/interop.h"
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

// Appends the record buffer of table h; returns the new record's number.
inline int32_t AppendRecord(int32_t h) {
  int32_t recno = 0;
  EXPECT_EQ(DBPutRecord(h, &recno, DB_RECORD_APPEND), 0);
  return recno;
}

// A status and the value a call wrote, as "status value" (numbers, bytes
// included, as numbers); bind the value by reference so it is read after
// the call.
template <class T>
std::string R(int32_t rc, const T& value) {
  std::ostringstream out;
  out << rc << ' ';
  if constexpr (std::is_arithmetic_v<T>) {
    out << std::to_string(value);
  } else {
    out << value;
  }
  return out.str();
}

// The library initialised with `count` (count - 5 slots) and `flags`, the
// error log off and no lock retries, terminated after each test; a temporary
// directory.
class LibraryTest : public ::testing::Test {
 protected:
  explicit LibraryTest(int32_t count = 40, int32_t flags = 0) : count_(count), flags_(flags) {}
  void SetUp() override {
    DBErrorLog(0, nullptr);
    DBSetLockRetryCount(0);
    ASSERT_EQ(DBInitialize(count_, flags_), 0);
  }
  void TearDown() override {
    kestrel::testing::FailAllocation(0);
    DBTerminate();
    DBErrorLog(0, nullptr);
  }
  int32_t Open(const std::string& path, int32_t mode) {
    int32_t h = -1;
    EXPECT_EQ(DBOpenFile(&h, path.c_str(), mode), 0) << path;
    return h;
  }

  TempDir dir_;

 private:
  int32_t count_, flags_;
};

// LibraryTest with a handle count of its own.
template <int32_t kCount>
class LibraryTestOf : public LibraryTest {
 protected:
  LibraryTestOf() : LibraryTest(kCount) {}
};

// LibraryTest run inside its temporary directory: the error log's name holds
// at most 29 characters, so tests name their logs relative to it.
class InDirTest : public LibraryTest {
 protected:
  using LibraryTest::LibraryTest;
  void SetUp() override {
    ASSERT_NE(getcwd(saved_, sizeof saved_), nullptr);
    ASSERT_EQ(chdir(dir_.path().c_str()), 0);
    LibraryTest::SetUp();
  }
  void TearDown() override {
    LibraryTest::TearDown();
    EXPECT_EQ(chdir(saved_), 0);
  }
  char saved_[4096];
};

// Makes the nth allocation fail for n = 1, 2, ... until `operation` succeeds:
// every failure must be -203 and leave nothing allocated (and, when
// `balanced`, the success too).  Returns the number of failures.
inline int FailEachAllocation(const std::function<int32_t()>& operation, bool balanced = false) {
  for (long n = 1; n <= 1000; ++n) {
    const long live = kestrel::testing::LiveAllocations();
    kestrel::testing::FailAllocation(n);
    const int32_t rc = operation();
    kestrel::testing::FailAllocation(0);
    if (rc != 0 || balanced) {
      EXPECT_EQ(kestrel::testing::LiveAllocations(), live) << n;
    }
    if (rc == 0) return static_cast<int>(n - 1);
    EXPECT_EQ(rc, DB_ERR_MEMORY) << n;
    if (rc != DB_ERR_MEMORY) return -1;
  }
  ADD_FAILURE() << "the operation never succeeded";
  return -1;
}

// The kestrel tool, or "" when it is not built in this tree.
inline std::string ToolPath() {
  const std::string tool = KESTREL_TOOL_PATH;
  return !tool.empty() && ::access(tool.c_str(), X_OK) == 0 ? tool : "";
}
// Runs the tool with the arguments.
inline ProcessResult RunTool(std::vector<std::string> args) {
  args.insert(args.begin(), KESTREL_TOOL_PATH);
  return RunProcess(args);
}
inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

}  // namespace kestrel::test

// Skips the current test when the tool has not been built.
#define KESTREL_REQUIRE_TOOL() \
  if (::kestrel::test::ToolPath().empty()) GTEST_SKIP() << "the kestrel tool is not built"
