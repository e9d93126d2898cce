// The FPT operations behind the exported DBfp...Memo... calls, once the
// handle and the pointer arguments are checked: the read and write rules of
// shared files and option checks around the engine of fpt_memo.cpp.  Each
// returns what its exported call returns.
#include <cstring>

#include "kestrel/kestrel_memo.h"
#include "memo/fpt_memo.h"
#include "memo/memo_common.h"
#include "runtime/status.h"

namespace kestrel::memo {
namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("WOPEN");
constexpr ModulePath kGet = KS_ENGINE_MODULE("WRGET");
constexpr ModulePath kPut = KS_ENGINE_MODULE("WRPUT");
constexpr ModulePath kRecordInfo = KS_ENGINE_MODULE("WRINFO");
constexpr ModulePath kInfo = KS_ENGINE_MODULE("WINFO");
constexpr ModulePath kZap = KS_ENGINE_MODULE("WZAP");

template <class Body>
int32_t UnderWriteLock(FptMemo& m, ModulePath module, Body&& body) {
  return memo::UnderWriteLock(m, module, FptLock, FptUnlock, body);
}

int32_t Refresh(FptMemo& m, ModulePath module) {
  return RefreshUnlessLocked(m, module, FptReadHeader);
}

}  // namespace

int32_t FptLockMemo(FptMemo* m) {
  Succeed();
  int32_t rc = FptLock(*m);
  if (rc < 0) return KS_PASS(kOpen, rc);
  return 0;
}

int32_t FptUnLockMemo(FptMemo* m) {
  Succeed();
  int32_t rc = FptUnlock(*m);
  if (rc < 0) return KS_PASS(kOpen, rc);
  return 0;
}

int32_t FptGetMemoHeader(FptMemo* m, DBFPMEMOHEADER* header) {
  Succeed();
  int32_t rc = Refresh(*m, kInfo);
  if (rc < 0) return rc;
  header->next_free = m->next_free;
  header->block_size = m->block_size;
  return 0;
}

int32_t FptGetMemoInfo(FptMemo* m, DBFPMEMOINFO* info) {
  Succeed();
  int32_t rc = Refresh(*m, kInfo);
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
}

int32_t FptGetMemoType(FptMemo* m, uint32_t block, uint32_t* length, int32_t* type) {
  Succeed();
  int32_t rc = Refresh(*m, kRecordInfo);
  if (rc < 0) return rc;
  uint32_t word = 0;
  rc = FptMemoHeader(*m, block, &word, length);
  if (rc < 0) return KS_PASS(kRecordInfo, rc);
  *type = word == kFptTypeText ? DB_FPT_TYPE_TEXT : DB_FPT_TYPE_PICTURE;
  return 0;
}

int32_t FptGetMemoRecord(FptMemo* m, uint32_t block, char** buffer, uint32_t max_length, int32_t options) {
  Succeed();
  int32_t rc = Refresh(*m, kGet);
  if (rc < 0) return rc;
  uint32_t count = 0;
  rc = FptRead(*m, block, max_length, (options & DB_FPT_PIECES) != 0, m->read_buffer,
               (options & DB_FPT_KEEP_BUFFER) != 0, &count);
  if (rc < 0) return KS_PASS(kGet, rc);
  *buffer = reinterpret_cast<char*>(m->read_buffer.data());
  return rc;
}

int32_t FptGetMemoBytes(FptMemo* m, uint32_t block, char** data, uint32_t* length, int32_t* type) {
  Succeed();
  int32_t rc = Refresh(*m, kGet);
  if (rc < 0) return rc;
  Buffer bytes;
  uint32_t word = 0, n = 0;
  rc = FptReadWhole(*m, block, bytes, &word, &n);
  if (rc < 0) return KS_PASS(kGet, rc);
  if (type) *type = word == kFptTypeText ? DB_FPT_TYPE_TEXT : DB_FPT_TYPE_PICTURE;
  *length = n;
  *data = reinterpret_cast<char*>(bytes.Release());
  return 0;
}

int32_t FptGetMemoToBuffer(FptMemo* m, uint32_t block, char* buffer, uint32_t max_length, int32_t options) {
  Succeed();
  int32_t rc = Refresh(*m, kGet);
  if (rc < 0) return rc;
  Buffer piece;
  uint32_t count = 0;
  rc = FptRead(*m, block, max_length, (options & DB_FPT_PIECES) != 0, piece, false, &count);
  if (rc < 0) return KS_PASS(kGet, rc);
  std::memcpy(buffer, piece.data(), count);
  if (count < max_length) buffer[count] = 0;
  return rc;
}

int32_t FptPutMemoRecord(FptMemo* m, uint32_t* block, const void* data, uint32_t length, uint32_t total_length, int32_t options) {
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
}

int32_t FptZapMemo(FptMemo* m) {
  if (m->attributes & kAttrReadOnly) return KS_FAIL(kZap, DB_ERR_READ_ONLY);
  Succeed();
  return UnderWriteLock(*m, kZap, [&]() -> int32_t {
    int32_t r = FptZap(*m);
    if (r < 0) return KS_PASS(kZap, r);
    return 0;
  });
}

}  // namespace kestrel::memo
