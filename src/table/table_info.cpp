// Describing an open table (modules DFINFO, DINFO, DLUD) and setting its
// production index marks (module DHSET).
#include <cstring>

#include "datetime/dates.h"
#include "runtime/auto_lock.h"
#include "table/table_control.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDlud = KS_ENGINE_MODULE("DLUD");
constexpr ModulePath kDhset = KS_ENGINE_MODULE("DHSET");

void Describe(const FieldInfo& f, DBFIELD* out) {
  std::memset(out->name, 0, sizeof out->name);
  std::memcpy(out->name, f.name, f.name_length);
  out->type = static_cast<int8_t>(f.type);
  out->length = static_cast<int32_t>(f.length);
  out->decimals = f.decimals;
}

// Writes `count` bytes of the header area at `offset` through at once,
// locking the header of a shared table that holds neither header nor file.
int32_t WriteHeaderBytes(TableControl* t, uint64_t offset, const uint8_t* bytes, size_t count) {
  AutoLock lock([t] { return UnlockHeaderRegion(t); });
  if (t->Shared() && !(t->lock_state & (kLockHeader | kLockFile))) {
    int32_t rc = LockHeaderRegion(t);
    if (rc < 0) return KS_PASS(kDhset, rc);
    lock.Hold();
  }
  int32_t rc = lock.Release(FileWriteAt(t->file, offset, bytes, count, 1));
  if (rc < 0) return KS_FAIL(kDhset, rc);
  return 0;
}
}  // namespace

int32_t GetFileInfo(TableControl* t, DBFILEINFO* info) {
  info->attributes = (info->attributes & ~7u) | (t->attributes & 7u);
  std::memset(info->name, 0, sizeof info->name);
  if (t->file_name) std::strncpy(info->name, t->file_name, sizeof info->name - 1);
  info->dialect = t->dialect;
  info->has_memo = t->has_memo;
  info->production_index = t->header[kHdrProduction];
  info->reserved14 = t->header[kHdrReserved14];
  info->reserved15 = t->header[kHdrReserved15];
  info->lock_state = t->lock_state;
  info->lock_count = t->lock_count;
  return Succeed();
}

int32_t GetFileDescription(TableControl* t, int32_t* widest, DBFIELD* fields) {
  for (uint32_t i = 0; i < t->field_count; ++i) Describe(t->fields[i], &fields[i]);
  *widest = t->widest;
  return Succeed();
}

int32_t GetFieldDescription(TableControl* t, int32_t field, DBFIELD* description) {
  Describe(t->fields[field], description);
  return Succeed();
}

int32_t GetLastUpdate(TableControl* t, char* buffer, int32_t date_style) {
  // The year byte is read signed: 103 (written on create in 2003) gives
  // 2003, 3 (written by a later update) gives 1903.
  int32_t year = static_cast<int8_t>(t->header[kHdrYear]) + 1900;
  Succeed();
  int32_t rc = DateToText(buffer, date_style, year, t->header[kHdrMonth], t->header[kHdrDay]);
  if (rc < 0) return KS_PASS(kDlud, rc);
  return Succeed();
}

int32_t SetProductionIndex(TableControl* t) {
  if (t->dialect != 2 && t->dialect != 8) return Record(DB_ERR_VERSION);
  if (t->attributes & kAttrReadOnly) return KS_FAIL(kDhset, DB_ERR_READ_ONLY);
  Succeed();
  const uint8_t one = 1;
  int32_t rc = WriteHeaderBytes(t, kHdrProduction, &one, 1);
  if (rc < 0) return rc;
  t->header[kHdrProduction] = 1;
  return 0;
}

int32_t SetFieldIndexed(TableControl* t, int32_t field) {
  if (t->dialect != 2 || t->header[kHdrProduction] == 0) return Record(DB_ERR_VERSION);
  if (field < 0 || field >= t->field_count) return KS_FAIL(kDhset, DB_ERR_FIELD_COUNT);
  if (t->attributes & kAttrReadOnly) return KS_FAIL(kDhset, DB_ERR_READ_ONLY);
  Succeed();
  t->fields[field].indexed = 1;
  const uint8_t one = 1;
  uint64_t at = kHeaderSize + static_cast<uint64_t>(field) * kDescriptorSize + kDescIndexed;
  return WriteHeaderBytes(t, at, &one, 1);
}

}  // namespace kestrel::table
