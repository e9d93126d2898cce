// Exported DBT memo functions (DBxb...): argument and handle checks, the
// lock discipline of shared files and soft line wrapping around the engine
// of memo/dbt_memo.h.
#include <cstring>

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

constexpr int32_t kMinSoftLength = 10;
constexpr int32_t kMaxSoftLength = 132;
constexpr int32_t kClipperDialect = 6;

int32_t Lookup(int32_t handle, DbtMemo** memo, ModulePath module) {
  *memo = LookUpHandle<DbtMemo>(handle, DB_KIND_DBT_MEMO, module);
  return *memo ? 0 : ErrorCode();
}

template <class Body>
int32_t UnderWriteLock(DbtMemo& m, ModulePath module, Body&& body) {
  return memo::UnderWriteLock(m, module, DbtLock, DbtUnlock, body);
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
  return Guarded([&]() -> int32_t {
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kOpen);
    if (rc < 0) return rc;
    Succeed();
    rc = DbtLock(*m);
    if (rc < 0) return KS_PASS(kOpen, rc);
    return 0;
  });
}

KESTREL_API int32_t DBxbUnLockMemo(int32_t handle) {
  return Guarded([&]() -> int32_t {
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kOpen);
    if (rc < 0) return rc;
    Succeed();
    rc = DbtUnlock(*m);
    if (rc < 0) return KS_PASS(kOpen, rc);
    return 0;
  });
}

KESTREL_API int32_t DBxbGetMemoHeader(int32_t handle) {
  return Guarded([&]() -> int32_t {
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kOpen);
    if (rc < 0) return rc;
    Succeed();
    if (!(m->attributes & kAttrShared)) return 0;
    rc = DbtReadHeader(*m);
    if (rc < 0) return KS_PASS(kOpen, rc);
    return 0;
  });
}

KESTREL_API int32_t DBxbGetMemoRecord(int32_t handle, uint32_t block, char** text, int32_t option) {
  return Guarded([&]() -> int32_t {
    if (!text) return KS_FAIL(kGet, DB_ERR_NULL);
    *text = nullptr;
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kGet);
    if (rc < 0) return rc;
    if (option != DB_MEMO_RAW && option != DB_MEMO_NO_SOFT_BREAKS) {
      return KS_FAIL(kGet, DB_ERR_INVALID_COMMAND);
    }
    Succeed();
    rc = RefreshUnlessLocked(*m, kGet, DbtReadHeader);
    if (rc < 0) return rc;
    uint8_t* data = nullptr;
    size_t length = 0;
    rc = DbtRead(*m, block, &data, &length);
    if (rc < 0) return KS_PASS(kGet, rc);
    if (option == DB_MEMO_NO_SOFT_BREAKS) {
      length = RemoveSoftBreaks(data, length);
      data[length] = 0;
    }
    *text = reinterpret_cast<char*>(data);
    return 0;
  });
}

KESTREL_API int32_t DBxbPutMemoRecord(int32_t handle, uint32_t* block, const char* text,
                                      int32_t mode) {
  return Guarded([&]() -> int32_t {
    if (!block || !text) return KS_FAIL(kPut, DB_ERR_NULL);
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kPut);
    if (rc < 0) return rc;
    size_t length = std::strlen(text);
    if (length == 0) return KS_FAIL(kPut, DB_ERR_BAD_DATA);
    if (m->attributes & kAttrReadOnly) return KS_FAIL(kPut, DB_ERR_READ_ONLY);
    int32_t soft = mode & 0xFF;
    if (m->dialect == kClipperDialect) {
      soft = 0;  // Clipper memo files never carry soft line breaks
    } else if (soft != 0 && (soft < kMinSoftLength || soft > kMaxSoftLength)) {
      return KS_FAIL(kPut, DB_ERR_SOFT_LINE);
    }
    int32_t placement = mode & 0xFF00;
    if (placement != DB_MEMO_APPEND && placement != DB_MEMO_REPLACE) {
      return KS_FAIL(kPut, DB_ERR_INVALID_COMMAND);
    }
    // Replacing "no memo" (block 0) is an append.
    uint32_t replace_block = placement == DB_MEMO_REPLACE ? *block : 0;
    const uint8_t* data = reinterpret_cast<const uint8_t*>(text);
    Vec<uint8_t> wrapped;
    if (soft != 0) {
      SoftWrap(data, length, soft, wrapped);
      data = wrapped.data();
      length = wrapped.size();
    }
    Succeed();
    return UnderWriteLock(*m, kPut, [&]() -> int32_t {
      uint32_t where = 0;
      int32_t r = DbtWrite(*m, replace_block, data, length, soft != 0, &where);
      if (r < 0) return KS_PASS(kPut, r);
      *block = where;
      return 0;
    });
  });
}

KESTREL_API int32_t DBxbZapMemo(int32_t handle) {
  return Guarded([&]() -> int32_t {
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kZap);
    if (rc < 0) return rc;
    if (m->attributes & kAttrReadOnly) return KS_FAIL(kZap, DB_ERR_READ_ONLY);
    Succeed();
    return UnderWriteLock(*m, kZap, [&]() -> int32_t {
      int32_t r = DbtZap(*m);
      if (r < 0) return KS_PASS(kZap, r);
      return 0;
    });
  });
}

KESTREL_API int32_t DBxbGetMemoInfo(int32_t handle, DBXBMEMOINFO* info) {
  return Guarded([&]() -> int32_t {
    if (!info) return KS_FAIL(kInfo, DB_ERR_NULL);
    DbtMemo* m = nullptr;
    int32_t rc = Lookup(handle, &m, kInfo);
    if (rc < 0) return rc;
    Succeed();
    rc = RefreshUnlessLocked(*m, kInfo, DbtReadHeader);
    if (rc < 0) return rc;
    FreeChainStats stats{};
    rc = DbtFreeChain(*m, &stats);
    if (rc < 0) return KS_PASS(kInfo, rc);
    CopyNameField(info->file_name, sizeof info->file_name, NameOf(m->name));
    info->dialect = m->dialect;
    info->block_size = static_cast<int32_t>(m->block_size);
    info->block_count = m->block_count;
    info->next_free = m->next_free;
    info->attributes = static_cast<int32_t>(m->attributes);
    info->locked = m->locked ? 1 : 0;
    info->free_blocks = stats.blocks;
    info->free_runs = stats.runs;
    return 0;
  });
}

KESTREL_API int32_t DBxbPackMemo(int32_t table_handle, int32_t* memo_handle) {
  return Guarded([&]() -> int32_t { return PackDbt(table_handle, memo_handle); });
}
