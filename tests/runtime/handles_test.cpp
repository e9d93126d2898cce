// The handle table: sizing by DBInitialize, slot allocation and checks, and
// DBTerminate closing what is still open through the registered routines.
#include <vector>

#include "runtime/handles.h"
#include "runtime/library_state.h"
#include "support/library.h"

namespace kestrel::test {
namespace {

// A control block that owns memory of its own, so leaks show in the counts.
struct TestBlock : ControlBlock {
  Buffer payload;
  int32_t tag = 0;
};

int32_t Take(int kind, TestBlock** block = nullptr) {
  int32_t handle = -7;
  TestBlock* b = nullptr;
  int32_t rc = AllocateHandle(&handle, kind, &b);
  if (rc < 0) {
    EXPECT_EQ(handle, -1);
    EXPECT_EQ(b, nullptr);
    return rc;
  }
  EXPECT_TRUE(b->payload.Allocate(64));
  if (block) *block = b;
  return handle;
}

using HandleTest = LibraryTestOf<20>;

TEST_F(HandleTest, InitializeSizesTheTableLockBufferAndDateStyle) {
  EXPECT_EQ(DBInitialize(4, 0), -213);
  EXPECT_EQ(DBInitialize(-1, 0), -213);
  // count, flags -> slots, lock capacity, default date style.
  struct Case {
    int32_t count, flags, slots, locks, style;
  };
  for (const Case& c : {Case{40, 0, 35, 70, 2}, Case{5, 4, 0, 0, 4}, Case{20, 1, 15, 30, 2},
                        Case{20, 0x109, 15, 30, 2}}) {  // style 9 is out of 2..5
    SCOPED_TRACE(c.count);
    ASSERT_EQ(DBInitialize(c.count, c.flags), 0);
    int32_t used = -1, capacity = -1, style = -1;
    EXPECT_EQ(DBGetLockCount(&used, &capacity), 0);
    EXPECT_EQ(used, 0);
    EXPECT_EQ(capacity, c.locks);
    char name[DB_DATE_NAME_SIZE];
    EXPECT_EQ(DBGetDefaultDateStyle(&style, name), 0);
    EXPECT_EQ(style, c.style);
    for (int i = 0; i < c.slots; ++i) EXPECT_EQ(Take(DB_KIND_TABLE), i);
    EXPECT_EQ(Take(DB_KIND_TABLE), -208);
    EXPECT_EQ(DBGetErrorCode(), -208);
  }
}

TEST_F(HandleTest, SlotsKindsAndChecks) {
  TestBlock* block = nullptr;
  ASSERT_EQ(Take(DB_KIND_TABLE, &block), 0);
  block->tag = 77;
  EXPECT_EQ(Take(DB_KIND_DBT_MEMO), 1);
  EXPECT_EQ(Take(DB_KIND_NTX_INDEX), 2);
  // Kinds 1..8 only; the reserved 2 and 6 are kinds too.
  for (int kind : {2, 6}) EXPECT_EQ(Take(kind), kind == 2 ? 3 : 4);
  for (int kind : {0, 9, -1, 255}) EXPECT_EQ(Take(kind), -256) << "kind " << kind;
  int32_t handle = 3;
  EXPECT_EQ(AllocateHandle(&handle, DB_KIND_TABLE, static_cast<TestBlock**>(nullptr)), -221);
  EXPECT_EQ(handle, -1);
  EXPECT_EQ(AllocateHandle(nullptr, DB_KIND_TABLE, &block), -221);

  // The lowest free slot is taken again, and taking one resets the code; a
  // control block that cannot be allocated leaves the slot free, no leak.
  DBSetErrorCode(-206);
  ReleaseHandle(1);
  long before = kestrel::testing::LiveAllocations();
  kestrel::testing::FailAllocation(1);
  EXPECT_EQ(Take(DB_KIND_TABLE), -203);
  EXPECT_EQ(kestrel::testing::LiveAllocations(), before);
  EXPECT_EQ(Take(DB_KIND_FOX_INDEX), 1);
  EXPECT_EQ(DBGetErrorCode(), 0);

  TestBlock* found = nullptr;
  EXPECT_EQ(CheckHandle(0, DB_KIND_TABLE, &found), 0);
  EXPECT_EQ(found->tag, 77);
  EXPECT_EQ(CheckHandle(1, DB_KIND_FOX_INDEX), 0);
  EXPECT_EQ(CheckHandle(-1, DB_KIND_TABLE), -213);
  EXPECT_EQ(CheckHandle(15, DB_KIND_TABLE), -213);  // equal to the slot count
  EXPECT_EQ(CheckHandle(14, DB_KIND_TABLE), -213);  // free slot
  EXPECT_EQ(CheckHandle(14, DB_KIND_FREE), -213);   // free slot asked as free
  EXPECT_EQ(CheckHandle(0, DB_KIND_NTX_INDEX), -213);
  ReleaseHandle(0);
  EXPECT_EQ(CheckHandle(0, DB_KIND_TABLE), -213);
}

// Close routines that record the order in which DBTerminate calls them.
std::vector<int32_t> g_closed;
std::vector<int32_t> g_code_at_close;

int32_t CloseAndRelease(int32_t handle) {
  g_closed.push_back(handle);
  g_code_at_close.push_back(DBGetErrorCode());
  ReleaseHandle(handle);
  return DBSetErrorCode(-211);  // a failing close must not stop the loop
}

int32_t CloseWithoutRelease(int32_t handle) {
  g_closed.push_back(1000 + handle);
  g_code_at_close.push_back(DBGetErrorCode());
  return DBSetErrorCode(-211);
}

TEST_F(HandleTest, TerminateClosesInSlotOrderAndInitializeDiscards) {
  g_closed.clear();
  g_code_at_close.clear();
  long before = kestrel::testing::LiveAllocations();
  RegisterCloseRoutine(DB_KIND_TABLE, &CloseAndRelease);
  RegisterCloseRoutine(DB_KIND_DBT_MEMO, &CloseWithoutRelease);
  ASSERT_EQ(Take(DB_KIND_DBT_MEMO), 0);
  ASSERT_EQ(Take(DB_KIND_TABLE), 1);
  ASSERT_EQ(Take(DB_KIND_NTX_INDEX), 2);  // no routine registered: only freed
  ASSERT_EQ(Take(DB_KIND_TABLE), 3);
  ASSERT_EQ(Take(DB_KIND_DBT_MEMO), 4);
  ReleaseHandle(3);
  DBSetErrorCode(-233);
  EXPECT_EQ(DBTerminate(), 0);
  EXPECT_EQ(g_closed, (std::vector<int32_t>{1000, 1, 1004}));
  EXPECT_EQ(g_code_at_close, (std::vector<int32_t>{0, 0, 0}));
  EXPECT_EQ(DBGetErrorCode(), 0);
  EXPECT_EQ(State().slot_count, 0);
  // Every block is gone, the two tables of the library included.
  EXPECT_EQ(kestrel::testing::LiveAllocations(), before - 2);

  // DBInitialize discards open objects without closing them, and forgets
  // the routines: nothing is called for a new table either.
  ASSERT_EQ(DBInitialize(20, 0), 0);
  RegisterCloseRoutine(DB_KIND_TABLE, &CloseAndRelease);
  ASSERT_EQ(Take(DB_KIND_TABLE), 0);
  g_closed.clear();
  ASSERT_EQ(DBInitialize(20, 0), 0);
  EXPECT_TRUE(g_closed.empty());
  EXPECT_EQ(CheckHandle(0, DB_KIND_TABLE), -213);
  EXPECT_EQ(kestrel::testing::LiveAllocations(), before);
  ASSERT_EQ(Take(DB_KIND_TABLE), 0);
  EXPECT_EQ(DBTerminate(), 0);
  EXPECT_TRUE(g_closed.empty());
}

}  // namespace
}  // namespace kestrel::test
