// Exported functions that describe a table (modules DFINFO, DINFO, DLUD) and
// set its production index marks (DHSET): handle and argument checks, then
// the table engine of table/table_control.h.
#include "runtime/boundary.h"
#include "table/table_control.h"

using namespace kestrel;
using namespace kestrel::table;

namespace {
constexpr ModulePath kDfinfo = KS_ENGINE_MODULE("DFINFO");
constexpr ModulePath kDinfo = KS_ENGINE_MODULE("DINFO");
constexpr ModulePath kDlud = KS_ENGINE_MODULE("DLUD");
constexpr ModulePath kDhset = KS_ENGINE_MODULE("DHSET");
}  // namespace

extern "C" KESTREL_API int32_t DBGetFileInfo(int32_t handle, DBFILEINFO* info) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDfinfo);
    if (!t) return ErrorCode();
    if (!info) return KS_FAIL(kDfinfo, DB_ERR_NULL);
    return GetFileInfo(t, info);
  });
}

extern "C" KESTREL_API int32_t DBGetFileDescription(int32_t handle, int32_t* widest,
                                                    DBFIELD* fields) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDinfo);
    if (!t) return ErrorCode();
    if (!widest || !fields) return KS_FAIL(kDinfo, DB_ERR_NULL);
    return GetFileDescription(t, widest, fields);
  });
}

extern "C" KESTREL_API int32_t DBGetFieldDescription(int32_t handle, int32_t field,
                                                     DBFIELD* description) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUpField(handle, field, kDinfo);
    if (!t) return ErrorCode();
    if (!description) return KS_FAIL(kDinfo, DB_ERR_NULL);
    return GetFieldDescription(t, field, description);
  });
}

extern "C" KESTREL_API int32_t DBGetLastUpdate(int32_t handle, char* buffer, int32_t date_style) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDlud);
    if (!t) return ErrorCode();
    if (!buffer) return KS_FAIL(kDlud, DB_ERR_NULL);
    return GetLastUpdate(t, buffer, date_style);
  });
}

extern "C" KESTREL_API int32_t DBSetProductionIndex(int32_t handle) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDhset);
    if (!t) return ErrorCode();
    return SetProductionIndex(t);
  });
}

extern "C" KESTREL_API int32_t DBSetFieldIndexed(int32_t handle, int32_t field) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDhset);
    if (!t) return ErrorCode();
    return SetFieldIndexed(t, field);
  });
}
