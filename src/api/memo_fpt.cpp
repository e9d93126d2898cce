// Exported FPT memo functions (DBfp...Memo...): handle and argument checks,
// then the FPT engine of memo/fpt_memo.h.
#include "kestrel/kestrel_memo.h"
#include "memo/fpt_memo.h"
#include "memo/memo_common.h"
#include "memo/memo_pack.h"
#include "runtime/boundary.h"
#include "runtime/handles.h"
#include "runtime/status.h"

using namespace kestrel;
using namespace kestrel::memo;

namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("WOPEN");
constexpr ModulePath kGet = KS_ENGINE_MODULE("WRGET");
constexpr ModulePath kPut = KS_ENGINE_MODULE("WRPUT");
constexpr ModulePath kRecordInfo = KS_ENGINE_MODULE("WRINFO");
constexpr ModulePath kInfo = KS_ENGINE_MODULE("WINFO");
constexpr ModulePath kZap = KS_ENGINE_MODULE("WZAP");

// For the calls that check their pointer arguments before the handle.
int32_t Lookup(int32_t handle, FptMemo** memo, ModulePath module) {
  *memo = LookUpHandle<FptMemo>(handle, DB_KIND_FPT_MEMO, module);
  return *memo ? 0 : ErrorCode();
}

}  // namespace

KESTREL_API int32_t DBfpCreateMemo(const char* name, int32_t block_code) {
  return Guarded([&]() -> int32_t { return FptCreate(name, block_code); });
}

KESTREL_API int32_t DBfpOpenMemo(int32_t* handle, const char* name, int32_t switches) {
  return Guarded([&]() -> int32_t { return FptOpen(handle, name, switches); });
}

KESTREL_API int32_t DBfpCloseMemo(int32_t handle) {
  return Guarded([&]() -> int32_t { return FptClose(handle); });
}

KESTREL_API int32_t DBfpLockMemo(int32_t handle) {
  return OnHandle<FptMemo>(handle, DB_KIND_FPT_MEMO, kOpen,
                           [&](FptMemo* m) -> int32_t { return FptLockMemo(m); });
}

KESTREL_API int32_t DBfpUnLockMemo(int32_t handle) {
  return OnHandle<FptMemo>(handle, DB_KIND_FPT_MEMO, kOpen,
                           [&](FptMemo* m) -> int32_t { return FptUnLockMemo(m); });
}

KESTREL_API int32_t DBfpGetMemoHeader(int32_t handle, DBFPMEMOHEADER* header) {
  return Guarded([&]() -> int32_t {
    if (!header) return KS_FAIL(kInfo, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kInfo);
    if (rc < 0) return rc;
    return FptGetMemoHeader(m, header);
  });
}

KESTREL_API int32_t DBfpGetMemoInfo(int32_t handle, DBFPMEMOINFO* info) {
  return Guarded([&]() -> int32_t {
    if (!info) return KS_FAIL(kInfo, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kInfo);
    if (rc < 0) return rc;
    return FptGetMemoInfo(m, info);
  });
}

KESTREL_API int32_t DBfpGetMemoType(int32_t handle, uint32_t block, uint32_t* length,
                                    int32_t* type) {
  return Guarded([&]() -> int32_t {
    if (!length || !type) return KS_FAIL(kRecordInfo, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kRecordInfo);
    if (rc < 0) return rc;
    return FptGetMemoType(m, block, length, type);
  });
}

KESTREL_API int32_t DBfpGetMemoRecord(int32_t handle, uint32_t block, char** buffer,
                                      uint32_t max_length, int32_t options) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kGet, DB_ERR_NULL);
    *buffer = nullptr;
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kGet);
    if (rc < 0) return rc;
    return FptGetMemoRecord(m, block, buffer, max_length, options);
  });
}

KESTREL_API int32_t DBfpGetMemoBytes(int32_t handle, uint32_t block, char** data, uint32_t* length,
                                     int32_t* type) {
  return Guarded([&]() -> int32_t {
    if (!data || !length) return KS_FAIL(kGet, DB_ERR_NULL);
    *data = nullptr;
    *length = 0;
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kGet);
    if (rc < 0) return rc;
    return FptGetMemoBytes(m, block, data, length, type);
  });
}

KESTREL_API int32_t DBfpGetMemoToBuffer(int32_t handle, uint32_t block, char* buffer,
                                        uint32_t max_length, int32_t options) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kGet, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kGet);
    if (rc < 0) return rc;
    return FptGetMemoToBuffer(m, block, buffer, max_length, options);
  });
}

KESTREL_API int32_t DBfpPutMemoRecord(int32_t handle, uint32_t* block, const void* data,
                                      uint32_t length, uint32_t total_length, int32_t options) {
  return Guarded([&]() -> int32_t {
    if (!block || !data) return KS_FAIL(kPut, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kPut);
    if (rc < 0) return rc;
    return FptPutMemoRecord(m, block, data, length, total_length, options);
  });
}

KESTREL_API int32_t DBfpZapMemo(int32_t handle) {
  return OnHandle<FptMemo>(handle, DB_KIND_FPT_MEMO, kZap,
                           [&](FptMemo* m) -> int32_t { return FptZapMemo(m); });
}

KESTREL_API int32_t DBfpPackMemo(int32_t table_handle, int32_t* memo_handle) {
  return Guarded([&]() -> int32_t { return PackFpt(table_handle, memo_handle); });
}
