// The library's process-wide state: the one place where mutable globals live.
//
// The state has no lock: callers serialise their calls into the library.
// Other subsystems keep their process-wide data here too (the keyword
// registry and the evaluator's working state), so that DBInitialize and
// DBTerminate see everything there is to reset.
#pragma once

#include <cstdint>

#include "kestrel/kestrel_expr.h"
#include "kestrel/kestrel_frame.h"

namespace kestrel {

// Operating-system file handle (a POSIX descriptor); -1 when none.
using FileHandle = int32_t;
inline constexpr FileHandle kNoFile = -1;

// Base of every object's control block.  A handle slot owns one; the memory
// comes from the library allocator, zero-filled, so every member starts at 0.
struct ControlBlock {
  virtual ~ControlBlock() = default;
};

// One slot of the handle table.
struct HandleSlot {
  ControlBlock* object = nullptr;  // owned by the slot
  uint8_t kind = DB_KIND_FREE;     // DB_KIND_*; 0 = free
};

// The routine that closes an object of one kind, given its handle.
using CloseRoutine = int32_t (*)(int32_t handle);

// One held byte-range lock.
struct LockEntry {
  uint32_t offset;  // first byte of the region
  uint32_t length;  // bytes
  FileHandle file;  // the descriptor the lock was taken through
};

// A user keyword of the evaluator.
struct ParseEntry {
  char* name;                   // heap copy, exactly name_length bytes, no terminator
  ParseEntryCallback callback;  // evaluates the keyword
  int32_t name_length;
};

// The keyword registry: kept sorted by name.
struct ParseEntryTable {
  ParseEntry* entries = nullptr;
  int16_t count = 0;
  int16_t capacity = 0;
};

// The evaluator's working state (one evaluation at a time per process).
// The running sums of nested expressions live on the evaluator's own stack;
// what is kept here is what a keyword callback must reach.
struct EvaluatorState {
  const char* position = nullptr;  // parse position in the expression text
  int32_t table = -1;              // table handle names are resolved against
  DBEXPRVALUE current{};           // the value a keyword callback fills
  int32_t depth = 0;               // nesting of expressions now being parsed
};

// Allocation bookkeeping, for fault injection and leak checks in tests.
struct AllocationStats {
  long made = 0;     // allocations and reallocations so far
  long live = 0;     // blocks not yet freed
  long fail_at = 0;  // the value of `made` at which to fail; 0 = never
};

inline constexpr int kCloseRoutineCount = 10;
inline constexpr int kLogNameSize = 30;

struct LibraryState {
  // Handle table.
  HandleSlot* slots = nullptr;
  int16_t slot_count = 0;
  int16_t slot_capacity = 0;
  int16_t open_objects = 0;
  CloseRoutine close_routines[kCloseRoutineCount] = {};

  // Status and error log.
  int32_t error_code = 0;
  int32_t log_switch = 0;
  char log_name[kLogNameSize] = {};

  // Locks (see file_services.h).
  int32_t lock_retry_count = 0;
  LockEntry* locks = nullptr;
  int16_t lock_count = 0;
  int16_t lock_capacity = 0;
  long lock_attempts = 0;  // lock/unlock attempts made so far (tests count them)

  // Memory.
  AllocationStats allocations;

  // Dates.
  int32_t default_date_style = 2;
  // Month lengths shared by every date operation; DBIsLeapYear rewrites the
  // February entry for the year in hand before each use.
  int32_t month_lengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  // The last DBSoundex result (four characters and a zero), owned here
  // because the caller gets a pointer to it.
  char soundex_result[5] = {'0', '0', '0', '0', 0};

  // Expressions.
  ParseEntryTable parse_entries;
  EvaluatorState evaluator;

  // Clipper index builds: bytes of keys sorted in memory before the build
  // spills sorted runs to temporary files; 0 means the built-in default.
  uint64_t ntx_sort_budget = 0;
};

// The single instance.
LibraryState& State();

// Frees every keyword of the registry and the registry itself.
void FreeParseEntries();

}  // namespace kestrel
