// The DBT operations behind the exported DBxb... calls, once the handle and
// the pointer arguments are checked: the read and write rules of shared
// files, option checks and soft line wrapping around the engine of
// dbt_memo.cpp.  Each returns what its exported call returns.
#include <cstdint>
#include <cstring>

#include "kestrel/kestrel_memo.h"
#include "memo/dbt_memo.h"
#include "memo/memo_common.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel::memo {
namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("TOPEN");
constexpr ModulePath kGet = KS_ENGINE_MODULE("TRGET");
constexpr ModulePath kPut = KS_ENGINE_MODULE("TRPUT");
constexpr ModulePath kZap = KS_ENGINE_MODULE("TZAP");
constexpr ModulePath kInfo = KS_ENGINE_MODULE("TINFO");
constexpr int32_t kMinSoftLength = 10;
constexpr int32_t kMaxSoftLength = 132;
constexpr int32_t kClipperDialect = 6;

template <class Body>
int32_t UnderWriteLock(DbtMemo& m, ModulePath module, Body&& body) {
  return memo::UnderWriteLock(m, module, DbtLock, DbtUnlock, body);
}

}  // namespace

int32_t DbtLockMemo(DbtMemo* m) {
  Succeed();
  int32_t rc = DbtLock(*m);
  if (rc < 0) return KS_PASS(kOpen, rc);
  return 0;
}

int32_t DbtUnLockMemo(DbtMemo* m) {
  Succeed();
  int32_t rc = DbtUnlock(*m);
  if (rc < 0) return KS_PASS(kOpen, rc);
  return 0;
}

int32_t DbtGetMemoHeader(DbtMemo* m) {
  Succeed();
  if (!(m->attributes & kAttrShared)) return 0;
  int32_t rc = DbtReadHeader(*m);
  if (rc < 0) return KS_PASS(kOpen, rc);
  return 0;
}

int32_t DbtGetMemoBytes(DbtMemo* m, uint32_t block, char** data, uint32_t* length) {
  Succeed();
  int32_t rc = RefreshUnlessLocked(*m, kGet, DbtReadHeader);
  if (rc < 0) return rc;
  uint8_t* bytes = nullptr;
  size_t n = 0;
  rc = DbtRead(*m, block, &bytes, &n, true);
  if (rc < 0) return KS_PASS(kGet, rc);
  if (n > UINT32_MAX) {
    MemFree(bytes);
    return KS_FAIL(kGet, DB_ERR_FIELD_LENGTH);
  }
  *length = static_cast<uint32_t>(n);
  *data = reinterpret_cast<char*>(bytes);
  return 0;
}

int32_t DbtGetMemoRecord(DbtMemo* m, uint32_t block, char** text, int32_t option) {
  if (option != DB_MEMO_RAW && option != DB_MEMO_NO_SOFT_BREAKS) {
    return KS_FAIL(kGet, DB_ERR_INVALID_COMMAND);
  }
  Succeed();
  int32_t rc = RefreshUnlessLocked(*m, kGet, DbtReadHeader);
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
}

int32_t DbtPutMemoRecord(DbtMemo* m, uint32_t* block, const char* text, int32_t mode) {
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
}

int32_t DbtZapMemo(DbtMemo* m) {
  if (m->attributes & kAttrReadOnly) return KS_FAIL(kZap, DB_ERR_READ_ONLY);
  Succeed();
  return UnderWriteLock(*m, kZap, [&]() -> int32_t {
    int32_t r = DbtZap(*m);
    if (r < 0) return KS_PASS(kZap, r);
    return 0;
  });
}

int32_t DbtGetMemoInfo(DbtMemo* m, DBXBMEMOINFO* info) {
  Succeed();
  int32_t rc = RefreshUnlessLocked(*m, kInfo, DbtReadHeader);
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
}

}  // namespace kestrel::memo
