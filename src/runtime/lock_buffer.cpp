// The lock buffer's sizing and the look-up of held regions.  The buffer
// itself is filled and emptied by FileLock (posix/file_services.cpp).
#include "runtime/file_services.h"
#include "runtime/library_state.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel {
namespace {
constexpr ModulePath kLocks = KS_PLATFORM_MODULE("LOCKSW32");
}  // namespace

int32_t IsRegionLocked(FileHandle handle, uint32_t offset, uint32_t length) {
  const LibraryState& s = State();
  for (int i = 0; i < s.lock_count; ++i) {
    const LockEntry& e = s.locks[i];
    if (e.offset == offset && e.length == length && e.file == handle) return 1;
  }
  return 0;
}

int32_t SetLockCapacity(int32_t capacity) {
  LibraryState& s = State();
  if (capacity < s.lock_count) return Record(DB_ERR_LOCK_UNDERFLOW);
  // The capacity is kept in 16 bits; a larger buffer cannot be described.
  if (capacity > 0x7FFF) return KS_FAIL(kLocks, DB_ERR_MEMORY);
  void* p = MemRealloc(s.locks, sizeof(LockEntry) * (capacity > 0 ? capacity : 1));
  if (!p) return KS_FAIL(kLocks, DB_ERR_MEMORY);
  s.locks = static_cast<LockEntry*>(p);
  s.lock_capacity = static_cast<int16_t>(capacity);
  return 0;
}

}  // namespace kestrel
