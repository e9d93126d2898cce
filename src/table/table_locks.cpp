// Table locks of shared tables (module DOPEN; DLINFO for DBGetLockInfo).
//
// The regions are markers placed where each dialect's own programs place
// them, mostly beyond the end of any real file (r record number, H header
// length, L record length, C record count, P production index flag):
//
//   dialect            record r                      header              file
//   2                  (r + 1) ^ 0xEFFFFFFF, 1       0xEFFFFFFE, 1       0xEFFFFFFE, 2
//   3, 4, 8 with P     0x7FFFFFFE - r, 1             0x7FFFFFFE, 1       2133447831 - C, C +
//   14035816 3, 4, 8 without P  (H + (r-1)L) | 0x40000000, 1  0x40000000, 1       0x40000000, 1 5,
//   6               1000000000 + r, 1             1000000000, 1       1000000000, 1000000000 0, 1,
//   7, 9         H + (r-1)L, L                 4, 4                0, 0x7FFFFFFF
//
// The library-wide lock buffer (file_services.h) is the only record of which
// regions this table holds.
#include "table/table_control.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDopen = KS_ENGINE_MODULE("DOPEN");

constexpr uint32_t kDbase4Base = 0xEFFFFFFEu;
constexpr uint32_t kFoxIndexedBase = 0x7FFFFFFEu;
constexpr uint32_t kFoxFileBase = 2133447831u;
constexpr uint32_t kFoxFileExtra = 14035816u;
constexpr uint32_t kFoxPlainBit = 0x40000000u;
constexpr uint32_t kClipperBase = 1000000000u;
constexpr uint32_t kDbase3FileLength = 0x7FFFFFFFu;

bool FoxIndexed(const TableControl* t) { return t->header[kHdrProduction] != 0; }

int32_t Lock(TableControl* t, Region region) {
  return FileLock(t->file, 0, region.offset, region.length);
}
int32_t Unlock(TableControl* t, Region region) {
  return FileLock(t->file, 1, region.offset, region.length);
}
}  // namespace

Region RecordRegion(const TableControl* t, uint32_t r) {
  uint32_t at = t->HeaderLength() + (r - 1) * t->RecordLength();
  switch (t->dialect) {
    case 2:
      return {(r + 1) ^ 0xEFFFFFFFu, 1};
    case 3:
    case 4:
    case 8:
      if (FoxIndexed(t)) return {kFoxIndexedBase - r, 1};
      return {at | kFoxPlainBit, 1};
    case 5:
    case 6:
      return {kClipperBase + r, 1};
    default:
      return {at, t->RecordLength()};
  }
}

Region HeaderRegion(const TableControl* t) {
  switch (t->dialect) {
    case 2:
      return {kDbase4Base, 1};
    case 3:
    case 4:
    case 8:
      return FoxIndexed(t) ? Region{kFoxIndexedBase, 1} : Region{kFoxPlainBit, 1};
    case 5:
    case 6:
      return {kClipperBase, 1};
    default:
      return {4, 4};
  }
}

Region FileRegion(const TableControl* t) {
  switch (t->dialect) {
    case 2:
      return {kDbase4Base, 2};
    case 3:
    case 4:
    case 8:
      if (FoxIndexed(t)) {
        uint32_t c = t->RecordCount();
        return {kFoxFileBase - c, c + kFoxFileExtra};
      }
      return {kFoxPlainBit, 1};
    case 5:
    case 6:
      return {kClipperBase, kClipperBase};
    default:
      return {0, kDbase3FileLength};
  }
}

bool RecordLocked(const TableControl* t, uint32_t r) {
  Region region = RecordRegion(t, r);
  return IsRegionLocked(t->file, region.offset, region.length) != 0;
}

int32_t UnlockAllRegions(TableControl* t) {
  LibraryState& s = State();
  for (int guard = s.lock_count; guard >= 0; --guard) {
    int found = -1;
    for (int i = 0; i < s.lock_count; ++i) {
      if (s.locks[i].file == t->file) {
        found = i;
        break;
      }
    }
    if (found < 0) break;
    Region region{s.locks[found].offset, s.locks[found].length};
    int32_t rc = Unlock(t, region);
    if (rc < 0) return KS_PASS(kDopen, rc);
  }
  if (t->lock_state == kLockFile || (t->lock_state & kLockHeader)) t->attributes |= kAttrStaleCount;
  t->lock_state = 0;
  t->lock_count = 0;
  return 0;
}

int32_t LockFileRegion(TableControl* t) {
  if (t->lock_state == kLockFile) return 0;
  if (t->lock_count > 0 || t->lock_state != 0) {
    int32_t rc = UnlockAllRegions(t);
    if (rc < 0) return KS_PASS(kDopen, rc);
  }
  int32_t rc = Lock(t, FileRegion(t));
  if (rc < 0) return KS_PASS(kDopen, rc);
  t->lock_state = kLockFile;
  ++t->lock_count;
  rc = RefreshRecordCount(t);
  if (rc < 0) return KS_PASS(kDopen, rc);
  t->attributes &= ~kAttrStaleCount;
  return 0;
}

int32_t LockHeaderRegion(TableControl* t) {
  if (t->lock_state == kLockFile || (t->lock_state & kLockHeader)) return 0;
  int32_t rc = Lock(t, HeaderRegion(t));
  if (rc < 0) return KS_PASS(kDopen, rc);
  t->lock_state |= kLockHeader;
  ++t->lock_count;
  rc = RefreshRecordCount(t);
  if (rc < 0) return KS_PASS(kDopen, rc);
  t->attributes &= ~kAttrStaleCount;
  return 0;
}

int32_t LockRecordRegion(TableControl* t, uint32_t r) {
  if (!(t->attributes & kAttrMultiLock) && t->lock_count > 0) {
    int32_t rc = UnlockAllRegions(t);
    if (rc < 0) return KS_PASS(kDopen, rc);
  }
  if (t->lock_state == kLockFile) return 0;
  if (RecordLocked(t, r)) return 0;
  int32_t rc = Lock(t, RecordRegion(t, r));
  if (rc < 0) return KS_PASS(kDopen, rc);
  t->lock_state |= kLockRecords;
  ++t->lock_count;
  return 0;
}

int32_t UnlockRecordRegion(TableControl* t, uint32_t r) {
  if (!(t->lock_state & kLockRecords) || !RecordLocked(t, r)) return 0;
  int32_t rc = Unlock(t, RecordRegion(t, r));
  if (rc < 0) return KS_PASS(kDopen, rc);
  --t->lock_count;
  t->lock_state &= ~kLockRecords;
  if (t->lock_count >= 2 || (t->lock_count == 1 && !(t->lock_state & kLockHeader))) {
    t->lock_state |= kLockRecords;
  }
  return 0;
}

int32_t UnlockHeaderRegion(TableControl* t) {
  if (!(t->lock_state & kLockHeader)) return 0;
  int32_t rc = Unlock(t, HeaderRegion(t));
  if (rc < 0) return KS_PASS(kDopen, rc);
  t->lock_state &= ~kLockHeader;
  t->attributes |= kAttrStaleCount;
  --t->lock_count;
  return 0;
}

namespace {
constexpr ModulePath kDlinfo = KS_ENGINE_MODULE("DLINFO");

// Runs op on a shared table; an unshared table succeeds at once.
template <class Op>
int32_t OnShared(TableControl* t, Op op) {
  Succeed();
  if (!t->Shared()) return 0;
  int32_t rc = op(t);
  if (rc < 0) return KS_PASS(kDopen, rc);
  return 0;
}

// Decodes one held region of this table back into a lock kind and record.
DBLOCKINFO Decode(const TableControl* t, const LockEntry& e) {
  Region header = HeaderRegion(t);
  uint32_t h = t->HeaderLength();
  uint32_t l = t->RecordLength() ? t->RecordLength() : 1;
  switch (t->dialect) {
    case 2:
      if (e.offset == 0xEFFFFFFEu && e.length == 2) return {DB_LOCK_FILE, 0};
      if (e.offset == header.offset && e.length == 1) return {DB_LOCK_HEADER, 0};
      return {DB_LOCK_RECORD, static_cast<int32_t>((e.offset ^ 0xEFFFFFFFu) - 1)};
    case 3:
    case 4:
    case 8:
      if (t->header[kHdrProduction] != 0) {
        if (e.offset == header.offset && e.length == 1) return {DB_LOCK_HEADER, 0};
        if (e.length >= 14035816u && e.offset + e.length == 0x7FFFFFFFu) return {DB_LOCK_FILE, 0};
        return {DB_LOCK_RECORD, static_cast<int32_t>(0x7FFFFFFEu - e.offset)};
      }
      if (e.offset == 0x40000000u && e.length == 1) {
        // The header and file regions are one here.
        return {t->lock_count == 1 ? DB_LOCK_FILE : DB_LOCK_HEADER, 0};
      }
      return {DB_LOCK_RECORD, static_cast<int32_t>(((e.offset & ~0x40000000u) - h) / l + 1)};
    case 5:
    case 6:
      if (e.offset == 1000000000u && e.length == 1) return {DB_LOCK_HEADER, 0};
      if (e.offset == 1000000000u && e.length == 1000000000u) return {DB_LOCK_FILE, 0};
      return {DB_LOCK_RECORD, static_cast<int32_t>(e.offset - 1000000000u)};
    default:
      if (e.offset == 4 && e.length == 4) return {DB_LOCK_HEADER, 0};
      if (e.offset == 0 && e.length == 0x7FFFFFFFu) return {DB_LOCK_FILE, 0};
      return {DB_LOCK_RECORD, static_cast<int32_t>((e.offset - h) / l + 1)};
  }
}
}  // namespace

int32_t LockTable(TableControl* t) { return OnShared(t, LockFileRegion); }

int32_t LockHeader(TableControl* t) { return OnShared(t, LockHeaderRegion); }

int32_t LockRecord(TableControl* t, int32_t recno) {
  return OnShared(
      t, [recno](TableControl* c) { return LockRecordRegion(c, static_cast<uint32_t>(recno)); });
}

int32_t UnlockRecord(TableControl* t, int32_t recno) {
  return OnShared(
      t, [recno](TableControl* c) { return UnlockRecordRegion(c, static_cast<uint32_t>(recno)); });
}

int32_t UnlockHeader(TableControl* t) { return OnShared(t, UnlockHeaderRegion); }

int32_t UnlockAll(TableControl* t) { return OnShared(t, UnlockAllRegions); }

int32_t IsRecordLocked(TableControl* t, int32_t recno) {
  if (!t->Shared()) return ErrorCode();
  return Record(RecordLocked(t, static_cast<uint32_t>(recno)) ? 1 : 0);
}

int32_t GetLockInfo(TableControl* t, DBLOCKINFO** locks, int32_t* count) {
  Succeed();
  *count = t->lock_count;
  if (t->lock_count <= 0) return 0;
  auto* out = static_cast<DBLOCKINFO*>(MemAlloc(sizeof(DBLOCKINFO) * t->lock_count));
  if (!out) return KS_FAIL(kDlinfo, DB_ERR_MEMORY);
  const LibraryState& s = State();
  int32_t filled = 0;
  for (int i = 0; i < s.lock_count && filled < t->lock_count; ++i) {
    if (s.locks[i].file == t->file) out[filled++] = Decode(t, s.locks[i]);
  }
  *locks = out;
  return 0;
}

}  // namespace kestrel::table
