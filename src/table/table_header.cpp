// The header of an open table: re-reading the record count that other
// processes may have changed, and writing the header back with today's date.
#include "datetime/dates.h"
#include "runtime/auto_lock.h"
#include "table/table_control.h"
#include "util/coding.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDopen = KS_ENGINE_MODULE("DOPEN");
}  // namespace

int32_t RefreshRecordCount(TableControl* t) {
  if (!t->Shared()) return 0;
  uint32_t count = 0;
  if (IsClipperFamily(t->dialect)) {
    // These programs do not trust the header count of a shared file: the
    // number of whole records in the file is the count.
    uint64_t size = 0;
    int32_t rc = FileSize(t->file, &size);
    if (rc < 0) return KS_PASS(kDopen, rc);
    uint32_t length = t->RecordLength();
    uint64_t body = size > t->HeaderLength() ? size - t->HeaderLength() : 0;
    count = length ? static_cast<uint32_t>(body / length) : 0;
  } else {
    uint8_t bytes[4];
    int32_t rc = FileReadAt(t->file, kHdrRecordCount, bytes, sizeof bytes);
    if (rc < 0) return KS_FAIL(kDopen, rc);
    count = LoadLE32(bytes);
  }
  // Records this handle appended and has not written yet stay counted.
  if ((t->pending & kPendingAppend) && t->RecordCount() > count) count = t->RecordCount();
  t->SetRecordCount(count);
  return 0;
}

int32_t RefreshIfStale(TableControl* t) {
  if (!(t->attributes & kAttrStaleCount)) return 0;
  return RefreshRecordCount(t);
}

int32_t WriteHeader(TableControl* t, bool own_count) {
  AutoLock lock([t] { return UnlockHeaderRegion(t); });
  uint32_t mine = t->RecordCount();
  if (t->Shared() && t->lock_count == 0) {
    int32_t rc = LockHeaderRegion(t);
    if (rc < 0) return KS_PASS(kDopen, rc);
    lock.Hold();
    // Taking the lock re-read the count; an append being written keeps its own.
    if (own_count && mine > t->RecordCount()) t->SetRecordCount(mine);
  }
  int32_t year = 0, month = 0, day = 0, weekday = 0;
  Succeed();  // the clock reports the current code on success
  int32_t rc = Today(&year, &month, &day, &weekday);
  if (rc >= 0) {
    t->header[kHdrYear] = static_cast<uint8_t>(year % 100);
    t->header[kHdrMonth] = static_cast<uint8_t>(month);
    t->header[kHdrDay] = static_cast<uint8_t>(day);
    if (t->Shared() && !own_count) {
      // The count belongs to whoever appends under the header lock: a
      // shared table that did not append writes only the version and date
      // (and the deleted-record chain it keeps), never an older count over
      // another process's.
      rc = FileWriteAt(t->file, 0, t->header, kHdrRecordCount, t->write_through);
      if (rc >= 0 && (t->attributes & kAttrReuse)) {
        rc = FileWriteAt(t->file, kHdrChainHead, t->header + kHdrChainHead, 4, t->write_through);
      }
    } else {
      rc = FileWriteAt(t->file, 0, t->header, kHeaderSize, t->write_through);
    }
  }
  rc = lock.Release(rc);
  if (rc < 0) return KS_FAIL(kDopen, rc);
  return 0;
}

int32_t ReadFileHeader(TableControl* t) {
  Succeed();
  int32_t rc = RefreshRecordCount(t);
  if (rc < 0) return KS_PASS(kDopen, rc);
  return 0;
}

}  // namespace kestrel::table
