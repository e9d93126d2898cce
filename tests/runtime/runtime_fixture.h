// Shared fixture of the runtime tests: a freshly initialised library with
// logging off, terminated again after each test.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "kestrel/kestrel.h"
#include "runtime/library_state.h"
#include "runtime/memory.h"

namespace kestrel::test {

class RuntimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DBErrorLog(0, nullptr);
    DBSetLockRetryCount(0);
    ASSERT_EQ(DBInitialize(20, 0), 0);  // 15 slots, 30 lock entries
  }
  void TearDown() override {
    kestrel::testing::FailAllocation(0);
    DBTerminate();
    DBErrorLog(0, nullptr);
  }
  // A status and the number a call wrote, as "status number"; the number is
  // bound by reference, so it is read after the call.
  template <class T>
  static std::string R(int32_t rc, const T& value) {
    return std::to_string(rc) + " " + std::to_string(value);
  }
};

}  // namespace kestrel::test
