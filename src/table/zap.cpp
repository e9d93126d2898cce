// Zapping a table: every record goes, in place (module DZAP).
//
// The record count at header offset 4 becomes 0 (written and flushed at once)
// and the file is cut right after the header terminator; the end-of-file
// marker is not rewritten, the next append writes a new one.  The record
// cache, the pending writes and the current record are forgotten.  A table
// that reuses deleted records also gets an empty deleted-record chain
// (header bytes 16..19), since every record the chain named is gone.
//
// A shared table must hold the file lock, or take it by itself when it was
// opened with automatic locking (and then release all its locks at the end).
#include "runtime/auto_lock.h"
#include "table/table_control.h"
#include "util/coding.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDzap = KS_ENGINE_MODULE("DZAP");

int32_t Cut(TableControl* t) {
  uint8_t zero[4] = {};
  int32_t rc = FileWriteAt(t->file, kHdrRecordCount, zero, sizeof zero, 1);
  if (rc < 0) return KS_FAIL(kDzap, rc);
  t->SetRecordCount(0);
  if ((t->attributes & kAttrReuse) && t->ChainHead() != 0) {
    rc = FileWriteAt(t->file, kHdrChainHead, zero, sizeof zero, 1);
    if (rc < 0) return KS_FAIL(kDzap, rc);
    t->SetChainHead(0);
  }
  // The view must not reach past the end of the cut file.
  UnmapView(t);
  rc = FileTruncate(t->file, t->HeaderLength());
  if (rc < 0) return KS_PASS(kDzap, rc);
  ResetCache(t);
  t->pending = 0;
  t->current = 0;
  return 0;
}
}  // namespace

int32_t ZapTable(TableControl* t) {
  if (t->attributes & kAttrReadOnly) return KS_FAIL(kDzap, DB_ERR_READ_ONLY);
  Succeed();
  AutoLock lock([t] { return UnlockAllRegions(t); });
  if (t->Shared() && t->lock_state != kLockFile) {
    if (!(t->attributes & kAttrAutoLock)) return KS_FAIL(kDzap, DB_ERR_MUST_LOCK);
    int32_t rc = LockFileRegion(t);
    if (rc < 0) return KS_PASS(kDzap, rc);
    lock.Hold();
  }
  int32_t rc = lock.Release(Cut(t));
  if (rc < 0) return KS_PASS(kDzap, rc);
  return Succeed();
}

}  // namespace kestrel::table
