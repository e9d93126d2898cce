// Record access: reading records into the record buffer, replacing,
// appending and marking them, counting them (modules DRGET, DRPUT, DRSTAT,
// DSIZE, DEOF, DBFRSZ).
//
// Deleted-record reuse: when a table is opened with the reuse switch, the
// deleted records form a chain.  Header bytes 16..19 hold the most recently
// deleted record; bytes 1..4 of each deleted record hold the next one (0 ends
// the chain).  An append takes the head first, so records come back last in,
// first out.
#include <cstring>

#include "runtime/auto_lock.h"
#include "table/field_convert.h"
#include "table/table_control.h"
#include "util/coding.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDrget = KS_ENGINE_MODULE("DRGET");
constexpr ModulePath kDrput = KS_ENGINE_MODULE("DRPUT");
constexpr ModulePath kDrstat = KS_ENGINE_MODULE("DRSTAT");
}  // namespace

int32_t ReadRecord(TableControl* t, uint32_t n) {
  uint32_t length = t->RecordLength();
  if (!t->Buffered()) {
    int32_t rc = FileReadAt(t->file, t->RecordOffset(n), t->record, length);
    if (rc < 0) return KS_FAIL(kDrget, rc);
  } else {
    const uint8_t* slot = CachedRecord(t, n);
    if (!slot) {
      int32_t rc = LoadWindow(t, n);
      if (rc < 0) return KS_PASS(kDrget, rc);
      slot = CachedRecord(t, n);
    }
    std::memcpy(t->record, slot, length);
  }
  t->current = static_cast<int32_t>(n);
  return t->record[0] != kActiveFlag ? DB_WARN_RECORD_DELETED : 0;
}

int32_t WriteRecord(TableControl* t, uint32_t n) {
  uint32_t length = t->RecordLength();
  if (!t->Buffered()) {
    int32_t rc = FileWriteAt(t->file, t->RecordOffset(n), t->record, length, t->write_through);
    if (rc < 0) return KS_FAIL(kDrput, rc);
    rc = WriteHeader(t, false);
    if (rc < 0) return KS_PASS(kDrput, rc);
    return 0;
  }
  int32_t rc = LoadWindow(t, n);
  if (rc < 0) return KS_PASS(kDrput, rc);
  std::memcpy(CachedRecord(t, n), t->record, length);
  MarkSlotChanged(t, n - static_cast<uint32_t>(t->cache_first));
  t->dirty |= kPendingReplace;
  t->pending |= kPendingReplace;
  return 0;
}

namespace {
// The chain link stored in bytes 1..4 of record r (cache first, else file).
int32_t ReadLink(TableControl* t, uint32_t r, uint32_t* link) {
  if (const uint8_t* slot = CachedRecord(t, r)) {
    *link = LoadLE32(slot + 1);
    return 0;
  }
  uint8_t bytes[4];
  int32_t rc = FileReadAt(t->file, t->RecordOffset(r) + 1, bytes, sizeof bytes);
  if (rc < 0) return KS_FAIL(kDrstat, rc);
  *link = LoadLE32(bytes);
  return 0;
}

int32_t WriteLink(TableControl* t, uint32_t r, uint32_t link) {
  if (uint8_t* slot = CachedRecord(t, r)) {
    StoreLE32(slot + 1, link);
    MarkSlotChanged(t, r - static_cast<uint32_t>(t->cache_first));
    t->dirty |= kPendingReplace;
    t->pending |= kPendingReplace;
    return 0;
  }
  uint8_t bytes[4];
  StoreLE32(bytes, link);
  int32_t rc = FileWriteAt(t->file, t->RecordOffset(r) + 1, bytes, sizeof bytes, t->write_through);
  if (rc < 0) return KS_FAIL(kDrstat, rc);
  return 0;
}

// Takes record r out of the deleted-record chain.
int32_t Unlink(TableControl* t, uint32_t r) {
  uint32_t own = LoadLE32(t->record + 1);
  uint32_t head = t->ChainHead();
  if (head == r) {
    t->SetChainHead(own);
    return 0;
  }
  // Walk from the head to the record that links to r; a damaged chain can
  // neither loop nor point outside the table.
  uint32_t count = t->RecordCount();
  uint32_t at = head;
  for (uint32_t steps = 0; at >= 1 && at <= count && steps <= count; ++steps) {
    uint32_t link = 0;
    int32_t rc = ReadLink(t, at, &link);
    if (rc < 0) return rc;
    if (link == r) return WriteLink(t, at, own);
    at = link;
  }
  return 0;
}
}  // namespace

int32_t AppendRecord(TableControl* t, int32_t* recno) {
  t->record[0] = kActiveFlag;
  uint32_t head = t->ChainHead();
  if ((t->attributes & kAttrReuse) && head != 0) {
    if (head > t->RecordCount()) return KS_FAIL(kDrput, DB_ERR_CORRUPTED);
    uint32_t next = 0;
    int32_t rc = ReadLink(t, head, &next);
    if (rc < 0) return KS_PASS(kDrput, rc);
    t->SetChainHead(next);
    t->current = static_cast<int32_t>(head);
    rc = WriteRecord(t, head);
    if (rc < 0) {
      t->SetChainHead(head);
      return KS_PASS(kDrput, rc);
    }
    *recno = static_cast<int32_t>(head);
    return 0;
  }
  uint32_t old_count = t->RecordCount();
  uint32_t n = old_count + 1;
  if (n > 0x7FFFFFFFu) return KS_FAIL(kDrput, DB_ERR_SEEK);
  uint32_t length = t->RecordLength();
  if (!t->Buffered()) {
    int32_t rc = FileWriteAt(t->file, t->RecordOffset(n), t->record, length, t->write_through);
    if (rc < 0) return KS_FAIL(kDrput, rc);
    t->SetRecordCount(n);
    rc = WriteEndOfFile(t);
    if (rc >= 0) rc = WriteHeader(t, true);
    if (rc < 0) {
      t->SetRecordCount(old_count);
      return KS_FAIL(kDrput, rc);
    }
  } else {
    bool fits = t->cache_count > 0 && t->cache_count < t->cache_capacity &&
                static_cast<uint32_t>(t->cache_first + t->cache_count) == n;
    if (!fits) {
      if (t->dirty) {
        int32_t rc = WriteBack(t, t->Shared(), false);
        if (rc < 0) return KS_PASS(kDrput, rc);
      }
      ResetCache(t);
      t->cache_first = static_cast<int32_t>(n);
    }
    std::memcpy(t->cache + static_cast<size_t>(t->cache_count) * length, t->record, length);
    MarkSlotChanged(t, static_cast<uint32_t>(t->cache_count));
    ++t->cache_count;
    t->SetRecordCount(n);
    t->dirty = kPendingAppend | kPendingReplace;
    t->pending |= kPendingAppend;
  }
  t->current = static_cast<int32_t>(n);
  *recno = static_cast<int32_t>(n);
  return 0;
}

namespace {
constexpr ModulePath kDeof = KS_ENGINE_MODULE("DEOF");
constexpr ModulePath kDsize = KS_ENGINE_MODULE("DSIZE");
constexpr ModulePath kDbfrsz = KS_ENGINE_MODULE("DBFRSZ");

// Runs a write of record r under the table's lock rule: a shared table must
// hold the record's lock or the file lock; with automatic locking the record
// is locked for the write and released after it.
template <class Write>
int32_t UnderRecordLock(TableControl* t, uint32_t r, ModulePath module, Write write) {
  if (!t->Shared() || t->lock_state == kLockFile || RecordLocked(t, r)) return write();
  if (!(t->attributes & kAttrAutoLock)) return KS_FAIL(module, DB_ERR_MUST_LOCK);
  AutoLock lock([t, r] { return UnlockRecordRegion(t, r); });
  int32_t rc = LockRecordRegion(t, r);
  if (rc < 0) return KS_PASS(module, rc);
  lock.Hold();
  return lock.Release(write());
}

int32_t Unpack(TableControl* t, uint8_t* out) {
  out[0] = t->record[0];
  uint8_t* slot = out + 1;
  for (uint32_t i = 0; i < t->field_count; ++i) {
    const FieldInfo& f = t->fields[i];
    int32_t rc = GetValue(t, f, slot);
    if (rc < 0) return KS_PASS(kDrget, rc);
    slot += UnpackedSize(f);
  }
  return 0;
}

int32_t Pack(TableControl* t, const uint8_t* in) {
  t->record[0] = in[0];
  const uint8_t* slot = in + 1;
  for (uint32_t i = 0; i < t->field_count; ++i) {
    const FieldInfo& f = t->fields[i];
    int32_t rc = PutValue(t, f, slot);
    if (rc < 0) return KS_PASS(kDrput, rc);
    slot += UnpackedSize(f);
  }
  return 0;
}
}  // namespace

int32_t GetRecord(TableControl* t, void* buffer, int32_t recno) {
  Succeed();
  if (t->Shared()) {
    int32_t rc = RefreshRecordCount(t);
    if (rc < 0) return KS_PASS(kDrget, rc);
  }
  if (recno < 1 || static_cast<uint32_t>(recno) > t->RecordCount()) {
    return KS_FAIL(kDrget, DB_ERR_SEEK);
  }
  int32_t rc = ReadRecord(t, static_cast<uint32_t>(recno));
  if (rc < 0) return KS_PASS(kDrget, rc);
  if (buffer) {
    int32_t urc = Unpack(t, static_cast<uint8_t*>(buffer));
    if (urc < 0) return Record(urc);
  }
  return Record(rc);
}

int32_t PutRecord(TableControl* t, const void* buffer, int32_t* recno, int32_t mode) {
  if (t->attributes & kAttrReadOnly) return KS_FAIL(kDrput, DB_ERR_READ_ONLY);
  Succeed();
  if (buffer) {
    int32_t rc = Pack(t, static_cast<const uint8_t*>(buffer));
    if (rc < 0) return Record(rc);
  }
  int32_t rc = 0;
  if (mode == DB_RECORD_APPEND) {
    if (t->Shared() && !(t->lock_state & (kLockFile | kLockHeader))) {
      if (!(t->attributes & kAttrAutoLock)) return KS_FAIL(kDrput, DB_ERR_MUST_LOCK);
      AutoLock lock([t] { return UnlockHeaderRegion(t); });
      rc = LockHeaderRegion(t);
      if (rc < 0) return KS_PASS(kDrput, rc);
      lock.Hold();
      rc = lock.Release(AppendRecord(t, recno));
    } else {
      rc = AppendRecord(t, recno);
    }
  } else if (mode == DB_RECORD_REPLACE) {
    t->current = *recno;
    if (*recno < 1) return KS_FAIL(kDrput, DB_ERR_SEEK);
    rc = RefreshIfStale(t);
    if (rc < 0) return KS_PASS(kDrput, rc);
    // A replacement names an existing record: one past the end is refused
    // rather than written into the gap after the last record.
    uint32_t r = static_cast<uint32_t>(*recno);
    if (r > t->RecordCount()) return KS_FAIL(kDrput, DB_ERR_SEEK);
    rc = UnderRecordLock(t, r, kDrput, [&]() { return WriteRecord(t, r); });
  } else {
    return KS_FAIL(kDrput, DB_ERR_INVALID_COMMAND);
  }
  if (rc < 0) return KS_PASS(kDrput, rc);
  return 0;
}

int32_t MarkRecord(TableControl* t, int32_t recno, uint8_t mark) {
  if (t->attributes & kAttrReadOnly) return KS_FAIL(kDrstat, DB_ERR_READ_ONLY);
  Succeed();
  int32_t rc = RefreshIfStale(t);
  if (rc < 0) return KS_PASS(kDrstat, rc);
  if (recno < 1 || static_cast<uint32_t>(recno) > t->RecordCount()) {
    return KS_FAIL(kDrstat, DB_ERR_SEEK);
  }
  uint32_t r = static_cast<uint32_t>(recno);
  rc = UnderRecordLock(t, r, kDrstat, [&]() -> int32_t {
    int32_t read = ReadRecord(t, r);
    if (read < 0) return KS_PASS(kDrstat, read);
    bool reuse = (t->attributes & kAttrReuse) != 0;
    if (t->record[0] == mark) return (reuse && mark == kActiveFlag) ? DB_WARN_KEY_NOT_FOUND : 0;
    if (reuse) {
      if (mark == kDeletedFlag) {
        StoreLE32(t->record + 1, t->ChainHead());
        t->SetChainHead(r);
      } else {
        int32_t u = Unlink(t, r);
        if (u < 0) return KS_PASS(kDrstat, u);
      }
    }
    t->record[0] = mark;
    t->pending |= kPendingMark;
    int32_t w = WriteRecord(t, r);
    if (w < 0) return KS_PASS(kDrstat, w);
    return 0;
  });
  return Record(rc);
}

int32_t IsRecordDeleted(TableControl* t) {
  if (t->record[0] == kDeletedFlag) return Record(DB_WARN_RECORD_DELETED);
  return ErrorCode();
}

int32_t GetRecordCount(TableControl* t, uint32_t* count) {
  Succeed();
  int32_t rc = RefreshIfStale(t);
  if (rc < 0) return KS_PASS(kDsize, rc);
  *count = t->RecordCount();
  return 0;
}

int32_t GetRecordInfo(TableControl* t, DBRECORDINFO* info) {
  info->record_length = static_cast<int32_t>(t->RecordLength());
  info->field_count = t->field_count;
  info->record_buffer = t->record;
  return Succeed();
}

int32_t ClearRecordBuffer(TableControl* t) {
  std::memset(t->record, ' ', t->RecordLength());
  return Succeed();
}

int32_t SetRecordBuffer(TableControl* t, void* address) {
  if (t->owns_record) MemFree(t->record);
  t->record = static_cast<uint8_t*>(address);
  t->owns_record = 0;
  return Succeed();
}

int32_t AtFirstRecord(const TableControl* t) { return t->current < 2 ? 1 : 0; }

int32_t AtLastRecord(TableControl* t) {
  int32_t rc = RefreshIfStale(t);
  if (rc < 0) return KS_PASS(kDeof, rc);
  return static_cast<uint32_t>(t->current) == t->RecordCount() ? 1 : 0;
}

int32_t CacheSize(TableControl* t, int32_t* records, int32_t op) {
  Succeed();
  if (!t->Buffered()) {
    *records = 0;
    return 0;
  }
  if (op == DB_CACHE_SET) return SetCacheCapacity(t, records);
  if (op == DB_CACHE_GET) {
    *records = t->cache_capacity;
    return 0;
  }
  return KS_FAIL(kDbfrsz, DB_ERR_INVALID_COMMAND);
}

}  // namespace kestrel::table
