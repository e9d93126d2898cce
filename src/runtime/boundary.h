// The exported entry points' guard: no C++ exception crosses the C interface.
//
// Engine code may use containers over the library allocator (memory.h), which
// throw std::bad_alloc when memory runs out.  Every exported function runs its
// body through Guarded, which turns that into the status -203 (logged under
// the memory module) and anything else unexpected into -212.
#pragma once

#include <cstdint>
#include <new>

#include "runtime/handles.h"
#include "runtime/status.h"

namespace kestrel {

int32_t ReportOutOfMemory(int line);
int32_t ReportUnexpectedException(int line);

template <class Body>
int32_t Guarded(Body&& body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    return ReportOutOfMemory(__LINE__);
  } catch (...) {
    return ReportUnexpectedException(__LINE__);
  }
}

// An exported call on one control block: inside the guard, the block of
// handle (of kind; otherwise -213 logged under module) is handed to body.
template <class T, class Body>
int32_t OnHandle(int32_t handle, int32_t kind, ModulePath module, Body&& body) noexcept {
  return Guarded([&]() -> int32_t {
    T* block = LookUpHandle<T>(handle, kind, module);
    if (!block) return ErrorCode();
    return body(block);
  });
}

}  // namespace kestrel
