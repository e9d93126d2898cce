// Shared fixture of the runtime tests: a freshly initialised library with
// logging off, terminated again after each test.
#pragma once

#include <gtest/gtest.h>

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
};

}  // namespace kestrel::test
