// The allocator and fault injection: every shortage becomes -203 and leaves
// nothing behind.
#include <cstring>
#include <new>

#include "runtime/boundary.h"
#include "runtime/library_state.h"
#include "support/library.h"

namespace kestrel::test {
namespace {

using kestrel::testing::FailAllocation;
using kestrel::testing::LiveAllocations;

using MemoryTest = LibraryTestOf<20>;

TEST_F(MemoryTest, InitializeFailsAtEachAllocationWithoutLeaking) {
  ASSERT_EQ(DBTerminate(), 0);
  const long idle = LiveAllocations();
  // The handle table and the lock buffer.
  EXPECT_EQ(FailEachAllocation([] {
              const int32_t rc = DBInitialize(30, 0);
              EXPECT_EQ(DBGetErrorCode(), rc);
              if (rc < 0) {
                EXPECT_EQ(DBTerminate(), 0);
              }
              return rc;
            }),
            2);
  EXPECT_EQ(State().slot_count, 25);
  EXPECT_EQ(DBTerminate(), 0);
  EXPECT_EQ(LiveAllocations(), idle);
}

TEST_F(MemoryTest, SetLockCountKeepsTheOldBufferOnShortage) {
  ASSERT_EQ(DBSetLockCount(3), 0);
  State().locks[0] = LockEntry{11, 1, 3};
  State().lock_count = 1;
  const long live = LiveAllocations();
  FailAllocation(1);
  EXPECT_EQ(DBSetLockCount(500), -203);
  EXPECT_EQ(LiveAllocations(), live);
  int32_t used = 0, capacity = 0;
  DBGetLockCount(&used, &capacity);
  EXPECT_EQ(used, 1);
  EXPECT_EQ(capacity, 3);
  ASSERT_EQ(DBSetLockCount(500), 0);
  EXPECT_EQ(State().locks[0].offset, 11u);  // contents kept across the resize
  DBGetLockCount(&used, &capacity);
  EXPECT_EQ(capacity, 500);
  EXPECT_EQ(DBSetLockCount(40000), -203);  // cannot be described in 16 bits
  State().lock_count = 0;
}

TEST_F(MemoryTest, AllocateAndReAllocateZeroFillAndKeepTheOldBlockOnFailure) {
  void* p = nullptr;
  DBSetErrorCode(-206);
  ASSERT_EQ(DBReAllocateMemory(&p, 8), 0);  // null pointer: a new block
  EXPECT_EQ(DBGetErrorCode(), -206);        // success leaves the code
  std::memcpy(p, "ABCDEFGH", 8);
  const long live = LiveAllocations();
  void* old = p;
  FailAllocation(1);
  EXPECT_EQ(DBReAllocateMemory(&p, 1 << 20), -203);
  EXPECT_EQ(p, old);
  EXPECT_EQ(LiveAllocations(), live);
  ASSERT_EQ(DBReAllocateMemory(&p, 4096), 0);
  EXPECT_EQ(std::memcmp(p, "ABCDEFGH", 8), 0);
  const char zeros[4088] = {};
  EXPECT_EQ(std::memcmp(static_cast<char*>(p) + 8, zeros, sizeof zeros), 0);
  ASSERT_EQ(DBReAllocateMemory(&p, 4), 0);
  EXPECT_EQ(std::memcmp(p, "ABCD", 4), 0);
  DBFreeMemory(p);
  EXPECT_EQ(DBFreeMemory(nullptr), 0);
  EXPECT_EQ(LiveAllocations(), live - 1);

  void* q = nullptr;
  ASSERT_EQ(DBAllocateMemory(&q, 4000), 0);
  EXPECT_EQ(std::memcmp(q, zeros, 4000), 0);
  DBFreeMemory(q);
  q = reinterpret_cast<void*>(1);
  FailAllocation(1);
  EXPECT_EQ(DBAllocateMemory(&q, 10), -203);
  EXPECT_EQ(q, nullptr);
}

TEST_F(MemoryTest, ContainerAndBufferShortages) {
  const long live = LiveAllocations();
  int32_t rc = Guarded([&]() -> int32_t {
    Vec<int> numbers;
    for (int i = 0; i < 4; ++i) numbers.push_back(i);
    FailAllocation(1);
    for (int i = 0; i < 1000; ++i) numbers.push_back(i);
    return 0;
  });
  EXPECT_EQ(rc, -203);
  EXPECT_EQ(DBGetErrorCode(), -203);
  EXPECT_EQ(LiveAllocations(), live);
  EXPECT_EQ(Guarded([]() -> int32_t { throw 1; }), -212);

  // A buffer keeps its contents when growing fails.
  Buffer b;
  ASSERT_TRUE(b.Allocate(4));
  std::memcpy(b.data(), "wxyz", 4);
  FailAllocation(1);
  EXPECT_FALSE(b.Resize(64));
  EXPECT_EQ(b.size(), 4u);
  FailAllocation(1);
  EXPECT_FALSE(b.Allocate(64));
  EXPECT_EQ(std::memcmp(b.data(), "wxyz", 4), 0);
  ASSERT_TRUE(b.Resize(6));
  EXPECT_EQ(b[4], 0);
  EXPECT_EQ(b[5], 0);
}

}  // namespace
}  // namespace kestrel::test
