// Exported table file functions: create, open, flush, close, header re-read
// (modules DCREATE, DOPEN), pack (DPACK) and zap (DZAP).  Handle and argument
// checks, then the table engine of table/table_control.h.
#include "runtime/boundary.h"
#include "table/table_control.h"

using namespace kestrel;
using namespace kestrel::table;

namespace {
constexpr ModulePath kDcreate = KS_ENGINE_MODULE("DCREATE");
constexpr ModulePath kDopen = KS_ENGINE_MODULE("DOPEN");
constexpr ModulePath kDpack = KS_ENGINE_MODULE("DPACK");
constexpr ModulePath kDzap = KS_ENGINE_MODULE("DZAP");

// Runs op(t) on the table of handle.
template <class Op>
int32_t OnTable(int32_t handle, ModulePath module, Op op) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, module);
    if (!t) return ErrorCode();
    return op(t);
  });
}
}  // namespace

extern "C" KESTREL_API int32_t DBCreateFile(const char* name, int32_t field_count, DBFIELD* fields,
                                            int32_t dialect) {
  return Guarded([&]() -> int32_t {
    if (!name || !fields) return KS_FAIL(kDcreate, DB_ERR_NULL);
    return CreateTable(name, field_count, fields, dialect);
  });
}

extern "C" KESTREL_API int32_t DBOpenFile(int32_t* handle, const char* name, int32_t mode) {
  return Guarded([&]() -> int32_t {
    if (!handle || !name) {
      if (handle) *handle = -1;
      return KS_FAIL(kDopen, DB_ERR_NULL);
    }
    return OpenTable(handle, name, mode);
  });
}

extern "C" KESTREL_API int32_t DBFlushFile(int32_t handle) {
  return OnTable(handle, kDopen, FlushTable);
}

extern "C" KESTREL_API int32_t DBCloseFile(int32_t handle) {
  return OnTable(handle, kDopen, [handle](TableControl* t) { return CloseTable(handle, t); });
}

extern "C" KESTREL_API int32_t DBGetFileHeader(int32_t handle) {
  return OnTable(handle, kDopen, ReadFileHeader);
}

extern "C" KESTREL_API int32_t DBPackFile(int32_t* handle) {
  return Guarded([&]() -> int32_t {
    if (!handle) return KS_FAIL(kDpack, DB_ERR_NULL);
    TableControl* t = LookUp(*handle, kDpack);
    if (!t) return ErrorCode();
    return PackTable(handle, t);
  });
}

extern "C" KESTREL_API int32_t DBZapFile(int32_t handle) {
  return OnTable(handle, kDzap, ZapTable);
}
