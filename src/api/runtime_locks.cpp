// Exported lock buffer functions (module LOCKSW32): the retry count and the
// buffer's size.  The buffer itself is filled and emptied by FileLock.
#include "runtime/library_state.h"
#include "runtime/status.h"

using namespace kestrel;

namespace {
constexpr ModulePath kLocks = KS_PLATFORM_MODULE("LOCKSW32");
}  // namespace

extern "C" {

KESTREL_API int32_t DBSetLockRetryCount(int32_t count) {
  State().lock_retry_count = count;
  return 0;
}

KESTREL_API int32_t DBGetLockRetryCount(int32_t* count) {
  if (!count) return KS_FAIL(kLocks, DB_ERR_NULL);
  *count = State().lock_retry_count;
  return 0;
}

KESTREL_API int32_t DBGetLockCount(int32_t* used, int32_t* capacity) {
  if (!used || !capacity) return KS_FAIL(kLocks, DB_ERR_NULL);
  *used = State().lock_count;
  *capacity = State().lock_capacity;
  return 0;
}

KESTREL_API int32_t DBSetLockCount(int32_t capacity) { return SetLockCapacity(capacity); }

}  // extern "C"
