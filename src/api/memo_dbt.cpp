// Exported DBT memo functions (DBxb...): handle and argument checks, then
// the DBT engine of memo/dbt_memo.h.
#include "kestrel/kestrel_memo.h"
#include "memo/dbt_memo.h"
#include "memo/memo_common.h"
#include "memo/memo_pack.h"
#include "runtime/boundary.h"
#include "runtime/handles.h"
#include "runtime/status.h"

using namespace kestrel;
using namespace kestrel::memo;

namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("TOPEN");
constexpr ModulePath kGet = KS_ENGINE_MODULE("TRGET");
constexpr ModulePath kPut = KS_ENGINE_MODULE("TRPUT");
constexpr ModulePath kZap = KS_ENGINE_MODULE("TZAP");
constexpr ModulePath kInfo = KS_ENGINE_MODULE("TINFO");

// For the calls that check their pointer arguments before the handle.
int32_t Lookup(int32_t handle, DbtMemo** memo, ModulePath module) {
  *memo = LookUpHandle<DbtMemo>(handle, DB_KIND_DBT_MEMO, module);
  return *memo ? 0 : ErrorCode();
}

}  // namespace

KESTREL_API int32_t DBxbCreateMemo(const char* name, int32_t blocks, int32_t dialect) {
  return Guarded([&]() -> int32_t { return DbtCreate(name, blocks, dialect); });
}

KESTREL_API int32_t DBxbOpenMemo(int32_t* handle, const char* name, int32_t mode) {
  return Guarded([&]() -> int32_t { return DbtOpen(handle, name, mode); });
}

KESTREL_API int32_t DBxbCloseMemo(int32_t handle) {
  return Guarded([&]() -> int32_t { return DbtClose(handle); });
}

KESTREL_API int32_t DBxbLockMemo(int32_t handle) {
  return OnHandle<DbtMemo>(handle, DB_KIND_DBT_MEMO, kOpen,
                           [&](DbtMemo* m) -> int32_t { return DbtLockMemo(m); });
}

KESTREL_API int32_t DBxbUnLockMemo(int32_t handle) {
  return OnHandle<DbtMemo>(handle, DB_KIND_DBT_MEMO, kOpen,
                           [&](DbtMemo* m) -> int32_t { return DbtUnLockMemo(m); });
}

KESTREL_API int32_t DBxbGetMemoHeader(int32_t handle) {
  return OnHandle<DbtMemo>(handle, DB_KIND_DBT_MEMO, kOpen,
                           [&](DbtMemo* m) -> int32_t { return DbtGetMemoHeader(m); });
}

KESTREL_API int32_t DBxbGetMemoRecord(int32_t handle, uint32_t block, char** text, int32_t option) {
  return Guarded([&]() -> int32_t {
    if (!text) return KS_FAIL(kGet, DB_ERR_NULL);
    *text = nullptr;
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kGet);
    if (rc < 0) return rc;
    return DbtGetMemoRecord(m, block, text, option);
  });
}

KESTREL_API int32_t DBxbGetMemoBytes(int32_t handle, uint32_t block, char** data,
                                     uint32_t* length) {
  return Guarded([&]() -> int32_t {
    if (!data || !length) return KS_FAIL(kGet, DB_ERR_NULL);
    *data = nullptr;
    *length = 0;
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kGet);
    if (rc < 0) return rc;
    return DbtGetMemoBytes(m, block, data, length);
  });
}

KESTREL_API int32_t DBxbPutMemoRecord(int32_t handle, uint32_t* block, const char* text,
                                      int32_t mode) {
  return Guarded([&]() -> int32_t {
    if (!block || !text) return KS_FAIL(kPut, DB_ERR_NULL);
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kPut);
    if (rc < 0) return rc;
    return DbtPutMemoRecord(m, block, text, mode);
  });
}

KESTREL_API int32_t DBxbZapMemo(int32_t handle) {
  return OnHandle<DbtMemo>(handle, DB_KIND_DBT_MEMO, kZap,
                           [&](DbtMemo* m) -> int32_t { return DbtZapMemo(m); });
}

KESTREL_API int32_t DBxbGetMemoInfo(int32_t handle, DBXBMEMOINFO* info) {
  return Guarded([&]() -> int32_t {
    if (!info) return KS_FAIL(kInfo, DB_ERR_NULL);
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kInfo);
    if (rc < 0) return rc;
    return DbtGetMemoInfo(m, info);
  });
}

KESTREL_API int32_t DBxbPackMemo(int32_t table_handle, int32_t* memo_handle) {
  return Guarded([&]() -> int32_t { return PackDbt(table_handle, memo_handle); });
}
