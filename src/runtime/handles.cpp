// The handle table (handles.h).
#include "runtime/handles.h"

#include "runtime/status.h"

namespace kestrel {
namespace {
constexpr ModulePath kInit = KS_PLATFORM_MODULE("INITW32");
}  // namespace

int32_t FindFreeSlot(int32_t* handle, int kind) {
  if (!handle) return KS_FAIL(kInit, DB_ERR_NULL);
  *handle = -1;
  LibraryState& s = State();
  int free_slot = -1;
  for (int i = 0; i < s.slot_count; ++i) {
    if (s.slots[i].kind == DB_KIND_FREE) {
      free_slot = i;
      break;
    }
  }
  if (free_slot < 0) return KS_FAIL(kInit, DB_ERR_NO_HANDLES);
  if (kind < 1 || kind > 8) return KS_FAIL(kInit, DB_ERR_SWITCH);
  *handle = free_slot;
  return 0;
}

int32_t TakeSlot(int32_t handle, int kind, ControlBlock* block) {
  LibraryState& s = State();
  s.slots[handle].object = block;
  s.slots[handle].kind = static_cast<uint8_t>(kind);
  ++s.open_objects;
  return Succeed();
}

int32_t ControlBlockAllocationFailed(int32_t* handle) {
  *handle = -1;
  return KS_FAIL(kInit, DB_ERR_MEMORY);
}

int32_t AllocateHandle(int32_t* handle, int kind, ControlBlock* block) {
  if (!handle || !block) {
    Delete(block);
    if (handle) *handle = -1;
    return KS_FAIL(kInit, DB_ERR_NULL);
  }
  int32_t rc = FindFreeSlot(handle, kind);
  if (rc < 0) {
    Delete(block);
    return rc;
  }
  return TakeSlot(*handle, kind, block);
}

int32_t CheckHandle(int32_t handle, int kind) {
  LibraryState& s = State();
  if (handle < 0 || handle >= s.slot_count || s.slots[handle].kind != kind ||
      kind == DB_KIND_FREE) {
    return Record(DB_ERR_INVALID_HANDLE);
  }
  return 0;
}

void ReleaseHandle(int32_t handle) {
  LibraryState& s = State();
  if (handle < 0 || handle >= s.slot_count || s.slots[handle].kind == DB_KIND_FREE) return;
  Delete(s.slots[handle].object);
  s.slots[handle].object = nullptr;
  s.slots[handle].kind = DB_KIND_FREE;
  --s.open_objects;
}

void RegisterCloseRoutine(int kind, CloseRoutine routine) {
  if (kind >= 0 && kind < kCloseRoutineCount) State().close_routines[kind] = routine;
}

}  // namespace kestrel
