// Shared fixture of the table tests: an initialised library, a temporary
// directory, and helpers to build field lists and tables.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"
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

class TableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DBErrorLog(0, nullptr);
    DBSetLockRetryCount(0);
    ASSERT_EQ(DBInitialize(25, 0), 0);
    live_at_start_ = kestrel::testing::LiveAllocations();
  }
  void TearDown() override {
    kestrel::testing::FailAllocation(0);
    DBTerminate();
  }

  // Creates `name` in the temp dir and returns its path.
  std::string Create(const std::string& name, std::vector<DBFIELD>&& fields, int32_t dialect) {
    return Create(name, fields, dialect);
  }
  // Creates from the caller's list, which the library normalises in place.
  std::string Create(const std::string& name, std::vector<DBFIELD>& fields, int32_t dialect) {
    std::string path = dir_.File(name);
    EXPECT_EQ(
        DBCreateFile(path.c_str(), static_cast<int32_t>(fields.size()), fields.data(), dialect), 0);
    return path;
  }
  int32_t Open(const std::string& path, int32_t mode) {
    int32_t h = -1;
    EXPECT_EQ(DBOpenFile(&h, path.c_str(), mode), 0) << path;
    return h;
  }
  // A status and the value a call wrote, as "status value"; the value is
  // bound by reference, so it is read after the call.
  template <class T>
  static std::string R(int32_t rc, const T& value) {
    return std::to_string(rc) + " " + ToText(value);
  }
  static std::string ToText(const char* text) { return text; }
  template <class T>
  static std::string ToText(const T& value) {
    return std::to_string(value);
  }
  // Every slot free and no library memory beyond what was live at SetUp.
  void ExpectNothingOpen() {
    EXPECT_EQ(kestrel::testing::LiveAllocations(), live_at_start_);
    int32_t h = -1;
    EXPECT_EQ(DBGetRecordCount(0, &h), DB_ERR_INVALID_HANDLE);
  }

  TempDir dir_;
  long live_at_start_ = 0;
};

}  // namespace kestrel::test
