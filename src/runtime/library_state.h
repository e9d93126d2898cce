// The runtime frame's process-wide state: the handle table, the error code
// and log, the lock buffer, allocation bookkeeping and the default date
// style.
//
// The state has no lock: callers serialise their calls into the library.
// Every other subsystem owns its own process-wide data (the evaluator and its
// keyword registry in src/expr, the month table in src/datetime, the soundex
// result in src/text, the build sort budget in src/index/common); a subsystem whose data DBTerminate must release
// registers a reset routine here (OnTerminate).
#pragma once

#include <cstdint>

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

// Allocation bookkeeping, for fault injection and leak checks in tests.
struct AllocationStats {
  long made = 0;     // allocations and reallocations so far
  long live = 0;     // blocks not yet freed
  long fail_at = 0;  // the value of `made` at which to fail; 0 = never
};

// A routine that releases a subsystem's own process-wide data.
using ResetRoutine = void (*)();

inline constexpr int kCloseRoutineCount = 10;
inline constexpr int kResetRoutineCount = 8;
inline constexpr int kLogNameSize = 30;

struct LibraryState {
  // Handle table.
  HandleSlot* slots = nullptr;
  int16_t slot_count = 0;
  int16_t slot_capacity = 0;
  int16_t open_objects = 0;
  CloseRoutine close_routines[kCloseRoutineCount] = {};
  ResetRoutine reset_routines[kResetRoutineCount] = {};

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

};

// The single instance.
LibraryState& State();

// Registers a routine DBTerminate runs after closing every open object (once
// per routine, however often it is registered; registrations outlive
// DBInitialize and DBTerminate).
void OnTerminate(ResetRoutine routine);

// The frame's start and stop (DBInitialize, DBTerminate), the error log
// switch (DBErrorLog), the version text and the lock buffer's capacity
// (DBSetLockCount); each returns what its exported function returns.
int32_t Initialize(int32_t count, int32_t flags);
int32_t Terminate();
int32_t SetErrorLog(int32_t mode, const char* name);
int32_t GetVersion(char* buffer);
int32_t SetLockCapacity(int32_t capacity);

}  // namespace kestrel
