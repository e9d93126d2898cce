// Exported FPT memo functions (DBfp...Memo...): argument and handle checks
// and the lock discipline of shared files around memo/fpt_memo.h.
#include <cstring>

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

int32_t Lookup(int32_t handle, FptMemo** memo, ModulePath module) {
  *memo = LookUpHandle<FptMemo>(handle, DB_KIND_FPT_MEMO, module);
  return *memo ? 0 : ErrorCode();
}

template <class Body>
int32_t UnderWriteLock(FptMemo& m, ModulePath module, Body&& body) {
  return memo::UnderWriteLock(m, module, FptLock, FptUnlock, body);
}

int32_t Refresh(FptMemo& m, ModulePath module) {
  return RefreshUnlessLocked(m, module, FptReadHeader);
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
  return Guarded([&]() -> int32_t {
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kOpen);
    if (rc < 0) return rc;
    Succeed();
    rc = FptLock(*m);
    if (rc < 0) return KS_PASS(kOpen, rc);
    return 0;
  });
}

KESTREL_API int32_t DBfpUnLockMemo(int32_t handle) {
  return Guarded([&]() -> int32_t {
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kOpen);
    if (rc < 0) return rc;
    Succeed();
    rc = FptUnlock(*m);
    if (rc < 0) return KS_PASS(kOpen, rc);
    return 0;
  });
}

KESTREL_API int32_t DBfpGetMemoHeader(int32_t handle, DBFPMEMOHEADER* header) {
  return Guarded([&]() -> int32_t {
    if (!header) return KS_FAIL(kInfo, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kInfo);
    if (rc < 0) return rc;
    Succeed();
    rc = Refresh(*m, kInfo);
    if (rc < 0) return rc;
    header->next_free = m->next_free;
    header->block_size = m->block_size;
    return 0;
  });
}

KESTREL_API int32_t DBfpGetMemoInfo(int32_t handle, DBFPMEMOINFO* info) {
  return Guarded([&]() -> int32_t {
    if (!info) return KS_FAIL(kInfo, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kInfo);
    if (rc < 0) return rc;
    Succeed();
    rc = Refresh(*m, kInfo);
    if (rc < 0) return rc;
    CopyNameField(info->file_name, sizeof info->file_name, NameOf(m->name));
    info->attributes = static_cast<int32_t>(m->attributes);
    info->locked = m->locked ? 1 : 0;
    info->next_free = m->next_free;
    info->block_size = m->block_size;
    info->read_block = m->read_block;
    info->read_remaining = m->read_remaining;
    info->write_block = m->write_block;
    info->write_remaining = m->write_remaining;
    return 0;
  });
}

KESTREL_API int32_t DBfpGetMemoType(int32_t handle, uint32_t block, uint32_t* length,
                                    int32_t* type) {
  return Guarded([&]() -> int32_t {
    if (!length || !type) return KS_FAIL(kRecordInfo, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kRecordInfo);
    if (rc < 0) return rc;
    Succeed();
    rc = Refresh(*m, kRecordInfo);
    if (rc < 0) return rc;
    uint32_t word = 0;
    rc = FptMemoHeader(*m, block, &word, length);
    if (rc < 0) return KS_PASS(kRecordInfo, rc);
    *type = word == kFptTypeText ? DB_FPT_TYPE_TEXT : DB_FPT_TYPE_PICTURE;
    return 0;
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
    Succeed();
    rc = Refresh(*m, kGet);
    if (rc < 0) return rc;
    uint32_t count = 0;
    rc = FptRead(*m, block, max_length, (options & DB_FPT_PIECES) != 0, m->read_buffer,
                 (options & DB_FPT_KEEP_BUFFER) != 0, &count);
    if (rc < 0) return KS_PASS(kGet, rc);
    *buffer = reinterpret_cast<char*>(m->read_buffer.data());
    return rc;
  });
}

KESTREL_API int32_t DBfpGetMemoToBuffer(int32_t handle, uint32_t block, char* buffer,
                                        uint32_t max_length, int32_t options) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kGet, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kGet);
    if (rc < 0) return rc;
    Succeed();
    rc = Refresh(*m, kGet);
    if (rc < 0) return rc;
    Buffer piece;
    uint32_t count = 0;
    rc = FptRead(*m, block, max_length, (options & DB_FPT_PIECES) != 0, piece, false, &count);
    if (rc < 0) return KS_PASS(kGet, rc);
    std::memcpy(buffer, piece.data(), count);
    if (count < max_length) buffer[count] = 0;
    return rc;
  });
}

KESTREL_API int32_t DBfpPutMemoRecord(int32_t handle, uint32_t* block, const void* data,
                                      uint32_t length, uint32_t total_length, int32_t options) {
  return Guarded([&]() -> int32_t {
    if (!block || !data) return KS_FAIL(kPut, DB_ERR_NULL);
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kPut);
    if (rc < 0) return rc;
    if (length == 0) return KS_FAIL(kPut, DB_ERR_BAD_DATA);
    if (m->attributes & kAttrReadOnly) return KS_FAIL(kPut, DB_ERR_READ_ONLY);
    int32_t placement = options & ~(DB_FPT_PICTURE | DB_FPT_PIECES);
    if (placement != DB_MEMO_APPEND && placement != DB_MEMO_REPLACE) {
      return KS_FAIL(kPut, DB_ERR_INVALID_COMMAND);
    }
    uint32_t type = (options & DB_FPT_PICTURE) ? kFptTypePicture : kFptTypeText;
    Succeed();
    return UnderWriteLock(*m, kPut, [&]() -> int32_t {
      int32_t r = FptWrite(*m, block, static_cast<const uint8_t*>(data), length, total_length, type,
                           placement == DB_MEMO_REPLACE, (options & DB_FPT_PIECES) != 0);
      if (r < 0) return KS_PASS(kPut, r);
      return 0;
    });
  });
}

KESTREL_API int32_t DBfpZapMemo(int32_t handle) {
  return Guarded([&]() -> int32_t {
    FptMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kZap);
    if (rc < 0) return rc;
    if (m->attributes & kAttrReadOnly) return KS_FAIL(kZap, DB_ERR_READ_ONLY);
    Succeed();
    return UnderWriteLock(*m, kZap, [&]() -> int32_t {
      int32_t r = FptZap(*m);
      if (r < 0) return KS_PASS(kZap, r);
      return 0;
    });
  });
}

KESTREL_API int32_t DBfpPackMemo(int32_t table_handle, int32_t* memo_handle) {
  return Guarded([&]() -> int32_t { return PackFpt(table_handle, memo_handle); });
}
