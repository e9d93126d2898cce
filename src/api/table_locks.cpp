// Exported table lock functions (module DOPEN; DLINFO for DBGetLockInfo):
// handle and argument checks, then the lock engine of table/table_control.h.
#include "runtime/boundary.h"
#include "table/table_control.h"

using namespace kestrel;
using namespace kestrel::table;

namespace {
constexpr ModulePath kDopen = KS_ENGINE_MODULE("DOPEN");
constexpr ModulePath kDlinfo = KS_ENGINE_MODULE("DLINFO");

template <class Op>
int32_t OnTable(int32_t handle, Op op) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDopen);
    if (!t) return ErrorCode();
    return op(t);
  });
}
}  // namespace

extern "C" KESTREL_API int32_t DBLockFile(int32_t handle) { return OnTable(handle, LockTable); }

extern "C" KESTREL_API int32_t DBLockHeader(int32_t handle) { return OnTable(handle, LockHeader); }

extern "C" KESTREL_API int32_t DBLockRecord(int32_t handle, int32_t recno) {
  return OnTable(handle, [recno](TableControl* t) { return LockRecord(t, recno); });
}

extern "C" KESTREL_API int32_t DBUnLockRecord(int32_t handle, int32_t recno) {
  return OnTable(handle, [recno](TableControl* t) { return UnlockRecord(t, recno); });
}

extern "C" KESTREL_API int32_t DBUnLockHeader(int32_t handle) {
  return OnTable(handle, UnlockHeader);
}

extern "C" KESTREL_API int32_t DBUnLockAll(int32_t handle) { return OnTable(handle, UnlockAll); }

extern "C" KESTREL_API int32_t DBIsRecordLocked(int32_t handle, int32_t recno) {
  return OnTable(handle, [recno](TableControl* t) { return IsRecordLocked(t, recno); });
}

extern "C" KESTREL_API int32_t DBGetLockInfo(int32_t handle, DBLOCKINFO** locks, int32_t* count) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDlinfo);
    if (!t) return ErrorCode();
    if (!locks || !count) return KS_FAIL(kDlinfo, DB_ERR_NULL);
    return GetLockInfo(t, locks, count);
  });
}
