// Exported memory functions (module MALOCW32): the library's own allocator,
// so that memory the library hands out can be freed by the caller.
#include "runtime/memory.h"
#include "runtime/status.h"

using namespace kestrel;

namespace {
constexpr ModulePath kMalloc = KS_PLATFORM_MODULE("MALOCW32");
}  // namespace

extern "C" {

KESTREL_API int32_t DBAllocateMemory(void** pointer, uint32_t size) {
  if (!pointer) return KS_FAIL(kMalloc, DB_ERR_NULL);
  *pointer = MemAlloc(size);
  if (!*pointer) return KS_FAIL(kMalloc, DB_ERR_MEMORY);
  return 0;
}

KESTREL_API int32_t DBReAllocateMemory(void** pointer, uint32_t size) {
  if (!pointer) return KS_FAIL(kMalloc, DB_ERR_NULL);
  void* p = MemRealloc(*pointer, size);
  if (!p) return KS_FAIL(kMalloc, DB_ERR_MEMORY);
  *pointer = p;
  return 0;
}

KESTREL_API int32_t DBFreeMemory(void* pointer) {
  MemFree(pointer);
  return 0;
}

}  // extern "C"
