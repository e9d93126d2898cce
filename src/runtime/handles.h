// The handle table: small integers that name open tables, memo files and
// indexes.  A handle is the index of a slot; each slot records the object's
// kind and owns its control block.
#pragma once

#include <cstdint>

#include "runtime/library_state.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel {

// Takes the lowest free slot for an object of `kind` (1..8) and stores
// `block` in it.  The slot owns the block from then on; when the call fails
// the block is destroyed and *handle is -1.
// Codes: -221 null handle or block, -256 kind outside 1..8, -208 no free slot.
int32_t AllocateHandle(int32_t* handle, int kind, ControlBlock* block);

// Allocates a zero-filled control block of type T and a slot for it.
// *object receives the block (nullptr on failure); -203 when the block
// cannot be allocated.
template <class T>
int32_t AllocateHandle(int32_t* handle, int kind, T** object);

// 0 when handle names a slot of `kind`, else -213 (not logged here: callers
// log it under their own module).
int32_t CheckHandle(int32_t handle, int kind);

// CheckHandle, and on success the slot's control block as T.
template <class T>
int32_t CheckHandle(int32_t handle, int kind, T** object) {
  int32_t rc = CheckHandle(handle, kind);
  if (rc < 0) return rc;
  *object = static_cast<T*>(State().slots[handle].object);
  return 0;
}

// The one look-up every entry point starts with: the control block of a
// handle of `kind`, or nullptr after logging -213 under `module`.
template <class T>
T* LookUpHandle(int32_t handle, int kind, ModulePath module) {
  T* object = nullptr;
  int32_t rc = CheckHandle<T>(handle, kind, &object);
  if (rc < 0) {
    Fail(module, __LINE__, rc);
    return nullptr;
  }
  return object;
}

// Frees the slot's control block and the slot.
void ReleaseHandle(int32_t handle);

// Records the close routine of a kind, so that DBTerminate can close what
// is still open.
void RegisterCloseRoutine(int kind, CloseRoutine routine);

// ---- implementation ----

// Checks the arguments and finds the lowest free slot without taking it.
// On failure *handle is -1 (when handle is not null) and the code is logged.
int32_t FindFreeSlot(int32_t* handle, int kind);
// Takes the slot found by FindFreeSlot for block and resets the error code.
int32_t TakeSlot(int32_t handle, int kind, ControlBlock* block);
// Reports a control block that could not be allocated (-203, handle -1).
int32_t ControlBlockAllocationFailed(int32_t* handle);

template <class T>
int32_t AllocateHandle(int32_t* handle, int kind, T** object) {
  if (object) *object = nullptr;
  if (!object) return AllocateHandle(handle, kind, static_cast<ControlBlock*>(nullptr));
  int32_t rc = FindFreeSlot(handle, kind);
  if (rc < 0) return rc;
  T* block = New<T>();
  if (!block) return ControlBlockAllocationFailed(handle);
  *object = block;
  return TakeSlot(*handle, kind, block);
}

}  // namespace kestrel
