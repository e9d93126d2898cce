// Library start and stop, the error code and the error log switch, the
// version text.
#include "runtime/library_state.h"

#include <cstring>

#include "runtime/file_services.h"
#include "runtime/handles.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel {
namespace {

constexpr ModulePath kInit = KS_PLATFORM_MODULE("INITW32");
constexpr const char kVersionText[] = "4.00 Revision F";

// Five handles are held back for the process's own files.
constexpr int32_t kReservedHandles = 5;
// The slot count and the lock capacity (twice the slots) are 16-bit, so a
// larger count cannot be described and is refused like a count below 5.
constexpr int32_t kMaxCount = 16383 + kReservedHandles;

void FreeTables(LibraryState& s) {
  // Control blocks of objects that were never closed are freed with the
  // table; their files are left as they are.
  for (int i = 0; i < s.slot_count; ++i) {
    if (s.slots[i].object) Delete(s.slots[i].object);
  }
  MemFree(s.slots);
  MemFree(s.locks);
  s.slots = nullptr;
  s.locks = nullptr;
  s.slot_count = s.slot_capacity = 0;
  s.lock_count = s.lock_capacity = 0;
  s.open_objects = 0;
}

}  // namespace

LibraryState& State() {
  static LibraryState state;
  return state;
}

void OnTerminate(ResetRoutine routine) {
  ResetRoutine* routines = State().reset_routines;
  for (int i = 0; i < kResetRoutineCount; ++i) {
    if (routines[i] == routine) return;
    if (!routines[i]) {
      routines[i] = routine;
      return;
    }
  }
}

int32_t Initialize(int32_t count, int32_t flags) {
  LibraryState& s = State();
  FreeTables(s);
  s.log_switch = 0;
  int32_t style = flags & 0xFF;
  s.default_date_style = (style < 2 || style > 5) ? 2 : style;
  if (count < kReservedHandles || count > kMaxCount) return KS_FAIL(kInit, DB_ERR_INVALID_HANDLE);
  for (CloseRoutine& r : s.close_routines) r = nullptr;
  s.open_objects = 0;
  if (flags & 0x100) {
    // The system answers with its resulting limit of open files; the table
    // gets as many of the requested handles as that limit grants.
    int32_t answer = SetHandleCount(count & 0xFFFF);
    if (answer < count) count = answer;
    if (count < kReservedHandles) return KS_FAIL(kInit, DB_ERR_INVALID_HANDLE);
  }
  int32_t slots = count - kReservedHandles;
  // Never a zero-byte request: a table of no slots is still a table.
  s.slots = static_cast<HandleSlot*>(MemAlloc(sizeof(HandleSlot) * (slots > 0 ? slots : 1)));
  if (!s.slots) return KS_FAIL(kInit, DB_ERR_MEMORY);
  s.locks = static_cast<LockEntry*>(MemAlloc(sizeof(LockEntry) * (slots > 0 ? 2 * slots : 1)));
  if (!s.locks) return KS_FAIL(kInit, DB_ERR_MEMORY);
  s.slot_count = s.slot_capacity = static_cast<int16_t>(slots);
  s.lock_count = 0;
  s.lock_capacity = static_cast<int16_t>(2 * slots);
  return Succeed();
}

int32_t Terminate() {
  LibraryState& s = State();
  for (int i = 0; i < s.slot_count; ++i) {
    uint8_t kind = s.slots[i].kind;
    if (kind == DB_KIND_FREE || kind >= kCloseRoutineCount) continue;
    CloseRoutine close = s.close_routines[kind];
    if (!close) continue;
    Succeed();
    close(i);
  }
  FreeTables(s);
  for (ResetRoutine routine : s.reset_routines) {
    if (routine) routine();
  }
  return Succeed();
}

int32_t SetErrorLog(int32_t mode, const char* name) {
  LibraryState& s = State();
  // Mode 1 names the file; a missing name is refused before anything changes.
  if (mode == 1 && !name) return KS_FAIL(kInit, DB_ERR_NULL);
  s.log_switch = mode;
  if (mode == 1) {
    // At most 29 characters and the terminator; never read past the name.
    size_t n = strnlen(name, kLogNameSize - 1);
    std::memset(s.log_name, 0, sizeof s.log_name);
    std::memcpy(s.log_name, name, n);
  }
  return ErrorCode();
}

int32_t GetVersion(char* buffer) {
  if (!buffer) return KS_FAIL(kInit, DB_ERR_NULL);
  std::memcpy(buffer, kVersionText, sizeof kVersionText);
  return 0;
}

}  // namespace kestrel
