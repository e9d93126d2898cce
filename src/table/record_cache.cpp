// The record cache of a buffered table: one window of consecutive records,
// read from the file in one call and written back in one call.
//
// Capacity: 8 records when 8 x record length lies in 512..16384 bytes, else
// 512 / record length (short records) or 16384 / record length (long ones).
// When the window is not full it ends at the last record of the file, so an
// append goes into the next free slot.
//
// Write-back of an exclusive table writes only the window when a dirty window
// is replaced; the header (count, date, deleted-record chain) and the end
// marker follow at the next flush or close, since no other program can look
// at the file in between.  A shared table writes them with every window.
//
// Only the records changed in the window are written back (one write per run
// of changed slots; a byte per slot after the records marks them): another
// process may have changed the window's other records under its own locks
// since they were read, and their old copies here must not overwrite that.
#include <algorithm>
#include <cstring>

#include "runtime/boundary.h"
#include "table/table_control.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDopen = KS_ENGINE_MODULE("DOPEN");
constexpr ModulePath kDbfrsz = KS_ENGINE_MODULE("DBFRSZ");

// Writes the end-of-file marker after the last record: one 0x1A byte, or in
// dialect 7 a whole record of them.
int32_t WriteEndMarker(TableControl* t) {
  static const uint8_t kMarks[256] = {
#define KS_EOF16 \
  0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A, 0x1A
      KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16,
      KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16, KS_EOF16,
#undef KS_EOF16
  };
  uint32_t length = t->RecordLength();
  uint64_t at = t->HeaderLength() + static_cast<uint64_t>(t->RecordCount()) * length;
  uint32_t total = 1;
  if (t->dialect == 7) {
    if (length == 0) return 0;
    total = length;
  }
  while (total > 0) {
    uint32_t n = std::min<uint32_t>(total, sizeof kMarks);
    int32_t rc = FileWriteAt(t->file, at, kMarks, n, t->write_through);
    if (rc < 0) return rc;
    at += n;
    total -= n;
  }
  return 0;
}
}  // namespace

namespace {
// The change map: one byte per cache slot, after the cached records; 1 marks
// a slot changed since the last write-back (dirty_from..dirty_to bound them).
uint8_t* ChangeMap(TableControl* t) {
  return t->cache + static_cast<size_t>(t->cache_capacity) * t->RecordLength();
}

void ClearChanges(TableControl* t) {
  if (t->cache && t->dirty_to > t->dirty_from) {
    std::memset(ChangeMap(t) + t->dirty_from, 0, static_cast<size_t>(t->dirty_to - t->dirty_from));
  }
  t->dirty_from = t->dirty_to = 0;
}
}  // namespace

int32_t DefaultCacheCapacity(uint32_t record_length) { return CacheCapacityFor(record_length); }

bool AllocateCache(TableControl* t, int32_t capacity) {
  uint64_t bytes = static_cast<uint64_t>(capacity) * t->RecordLength();
  if (bytes == 0) bytes = 1;
  // One change byte per slot follows the records (see ChangeMap).
  void* block = MemAlloc(bytes + static_cast<uint64_t>(capacity));
  if (!block) return false;
  MemFree(t->cache);
  t->cache = static_cast<uint8_t*>(block);
  t->cache_bytes = static_cast<uint32_t>(bytes);
  t->cache_capacity = capacity;
  t->dirty_from = t->dirty_to = 0;  // the new block's change map is all zero
  ResetCache(t);
  return true;
}

// Below a few pages a view saves nothing.
constexpr uint64_t kMinViewBytes = 4 * 4096;

void MapView(TableControl* t) {
  UnmapView(t);
  uint64_t size = 0;
  if (t->Shared() || !t->Buffered() || FileSize(t->file, &size) < 0) return;
  if (size < kMinViewBytes) return;
  FileMapView(t->file, size, &t->view);
  if (t->view) t->view_size = size;
}

// A table that has grown well past its view since it was mapped (appends)
// is mapped again, so that reading what it appended needs no system calls
// either.  Growth by a quarter at least keeps the remaps few.
void GrowView(TableControl* t, uint64_t needed) {
  if (t->Shared() || !t->Buffered()) return;
  uint64_t size = 0;
  if (FileSize(t->file, &size) < 0 || size < needed) return;
  if (size < kMinViewBytes || size < t->view_size + t->view_size / 4) return;
  MapView(t);
}

void UnmapView(TableControl* t) {
  FileUnmapView(t->view, t->view_size);
  t->view = nullptr;
  t->view_size = 0;
}

void ResetCache(TableControl* t) {
  t->cache_first = 0;
  t->cache_count = 0;
  t->dirty = 0;
  ClearChanges(t);
}

void MarkSlotChanged(TableControl* t, uint32_t slot) {
  int32_t s = static_cast<int32_t>(slot);
  if (s < 0 || s >= t->cache_capacity) return;
  ChangeMap(t)[s] = 1;
  if (t->dirty_to <= t->dirty_from) {
    t->dirty_from = s;
    t->dirty_to = s + 1;
    return;
  }
  t->dirty_from = std::min(t->dirty_from, s);
  t->dirty_to = std::max(t->dirty_to, s + 1);
}

uint8_t* CachedRecord(TableControl* t, uint32_t n) {
  if (t->cache_count == 0 || t->cache_first == 0) return nullptr;
  uint32_t first = static_cast<uint32_t>(t->cache_first);
  if (n < first || n - first >= static_cast<uint32_t>(t->cache_count)) return nullptr;
  return t->cache + static_cast<size_t>(n - first) * t->RecordLength();
}

int32_t LoadWindow(TableControl* t, uint32_t n) {
  if (CachedRecord(t, n)) return 0;
  if (t->dirty) {
    int32_t rc = WriteBack(t, t->Shared(), false);
    if (rc < 0) return KS_PASS(kDopen, rc);
  }
  uint32_t count = t->RecordCount();
  if (n < 1 || n > count) return KS_FAIL(kDopen, DB_ERR_SEEK);
  uint32_t length = t->RecordLength();
  uint32_t records = std::min<uint32_t>(static_cast<uint32_t>(t->cache_capacity), count - n + 1);
  uint64_t at = t->RecordOffset(n);
  ResetCache(t);
  size_t bytes = static_cast<size_t>(records) * length;
  int32_t rc = 0;
  if (at + bytes > t->view_size) GrowView(t, at + bytes);
  if (t->view && at + bytes <= t->view_size) {
    // The view shows the file as it is now, the library's own writes included.
    std::memcpy(t->cache, t->view + at, bytes);
  } else {
    rc = FileReadAt(t->file, at, t->cache, bytes);
  }
  if (rc < 0) {
    // The header may promise more records than the file holds: keep the
    // whole records that are there; record n itself must be one of them.
    uint64_t size = 0;
    Succeed();
    if (FileSize(t->file, &size) < 0 || length == 0 || size < at + length) {
      return KS_FAIL(kDopen, DB_ERR_READ);
    }
    records = static_cast<uint32_t>(std::min<uint64_t>(records, (size - at) / length));
    rc = FileReadAt(t->file, at, t->cache, static_cast<size_t>(records) * length);
    if (rc < 0) return KS_FAIL(kDopen, rc);
  }
  t->cache_first = static_cast<int32_t>(n);
  t->cache_count = static_cast<int32_t>(records);
  return 0;
}

int32_t WriteBack(TableControl* t, bool header, bool sync) {
  int32_t rc = 0;
  if (t->dirty && t->cache_count > 0 && t->cache_first > 0) {
    // Only the changed slots go out, one write per run of them: in a shared
    // table the others may be older than what other processes wrote since
    // the window was read.
    const uint8_t* changed = ChangeMap(t);
    int32_t end = std::min(t->dirty_to, t->cache_count);
    for (int32_t from = t->dirty_from; from < end;) {
      if (!changed[from]) {
        ++from;
        continue;
      }
      int32_t to = from + 1;
      while (to < end && changed[to]) ++to;
      size_t bytes = static_cast<size_t>(to - from) * t->RecordLength();
      uint32_t first = static_cast<uint32_t>(t->cache_first + from);
      rc = FileWriteAt(t->file, t->RecordOffset(first),
                       t->cache + static_cast<size_t>(from) * t->RecordLength(), bytes, 0);
      if (rc < 0) return KS_FAIL(kDopen, rc);
      from = to;
    }
  }
  t->dirty = 0;
  ClearChanges(t);
  if (header && t->pending) {
    bool appended = (t->pending & kPendingAppend) != 0;
    rc = WriteHeader(t, appended);
    if (rc < 0) return KS_PASS(kDopen, rc);
    if (appended) {
      rc = WriteEndMarker(t);
      if (rc < 0) return KS_FAIL(kDopen, rc);
    }
    t->pending = 0;
  }
  if (sync) {
    rc = FileFlush(t->file);
    if (rc < 0) return KS_PASS(kDopen, rc);
  }
  return 0;
}

int32_t WriteEndOfFile(TableControl* t) { return WriteEndMarker(t); }

int32_t SetCacheCapacity(TableControl* t, int32_t* records) {
  if (t->dirty) {
    int32_t rc = WriteBack(t, t->Shared(), false);
    if (rc < 0) return KS_PASS(kDbfrsz, rc);
  }
  int32_t wanted = *records < 1 ? 1 : *records;
  uint64_t bytes = static_cast<uint64_t>(wanted) * t->RecordLength();
  void* block = bytes <= 0x7FFFFFFFu ? MemRealloc(t->cache, (bytes ? bytes : 1) + wanted) : nullptr;
  if (!block) {
    *records = t->cache_capacity;
    return Record(DB_WARN_PARTIAL_MEMORY);
  }
  t->cache = static_cast<uint8_t*>(block);
  t->cache_bytes = static_cast<uint32_t>(bytes);
  t->cache_capacity = wanted;
  // Written back above: no slot is changed (the map moved with the size).
  std::memset(ChangeMap(t), 0, static_cast<size_t>(wanted));
  t->dirty_from = t->dirty_to = 0;
  if (t->cache_count > wanted) t->cache_count = wanted;
  *records = wanted;
  return 0;
}

}  // namespace kestrel::table
