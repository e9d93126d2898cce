// The control block of an open table and the engine-internal calls that work
// on it.  Record access, field access, locking, pack and zap all go through
// these; the exported entry points live beside them in src/table.
#pragma once

#include <cstdint>

#include "kestrel/kestrel_table.h"
#include "runtime/file_services.h"
#include "runtime/handles.h"
#include "runtime/status.h"
#include "table/table_format.h"

namespace kestrel::table {

// Open attribute bits of a table (bits 0 and 2 are written by FileOpen).
// Bit 0 (kAttrReadOnly, 0x01) and bit 2 (kAttrShared, 0x04) come from file_services.h.
inline constexpr uint32_t kAttrUnbuffered = 0x02;  // no record cache
inline constexpr uint32_t kAttrAutoLock = 0x08;    // writes lock and unlock by themselves
inline constexpr uint32_t kAttrMultiLock = 0x10;   // several record locks at once
inline constexpr uint32_t kAttrStaleCount = 0x20;  // record count must be re-read before use
inline constexpr uint32_t kAttrReuse = 0x40;       // appends reuse deleted records

// Pending-write flags (what the next write-back must bring to the file).
inline constexpr uint8_t kPendingMark = 0x01;     // a record was marked
inline constexpr uint8_t kPendingAppend = 0x20;   // records appended: rewrite the end marker
inline constexpr uint8_t kPendingReplace = 0x40;  // a record was replaced

// Lock state values.
inline constexpr uint8_t kLockRecords = 0x01;
inline constexpr uint8_t kLockHeader = 0x02;
inline constexpr uint8_t kLockFile = 0x04;

// One field descriptor as kept in memory.
struct FieldInfo {
  char name[12];         // the name as stored, zero-terminated (1..10 characters)
  uint8_t name_length;   // characters in name
  uint8_t type;          // upper-cased type letter or binary code
  uint8_t decimals;      // descriptor byte 17 (for C: the high length byte)
  uint8_t indexed;       // descriptor byte 31 (dBASE IV production tag flag)
  uint32_t offset;       // offset within the record (the first field is at 1)
  uint32_t length;       // full length (byte 16, plus byte 17 x 256 for C)
  double max_magnitude;  // N and F: the largest value the field can hold
};

// The control block of one open table (handle kind 1).
struct TableControl : ControlBlock {
  ~TableControl() override;

  uint32_t attributes = 0;           // kAttr* bits
  FileHandle file = kNoFile;         // the open .DBF file (-1 when closed)
  int16_t write_through = 0;         // 1: every write flushes (mode 0x200)
  char* file_name = nullptr;         // the name given to DBOpenFile (library memory)
  uint8_t lock_state = 0;            // kLock* bits held
  int32_t cache_first = 0;           // record number in cache slot 0; 0 = cache empty
  uint8_t* cache = nullptr;          // cache window, cache_capacity x record length bytes
  uint8_t* record = nullptr;         // the record buffer (current record as stored)
  uint32_t cache_bytes = 0;          // size of the cache buffer
  int32_t cache_capacity = 0;        // records the cache can hold
  int32_t cache_count = 0;           // records now in the cache
  uint8_t dirty = 0;                 // non-zero: the cache holds changes not yet written
  int32_t dirty_from = 0;            // first cache slot changed since the last write-back
  int32_t dirty_to = 0;              // one past the last changed slot (from == to: none)
  uint8_t owns_record = 0;           // 1: the library allocated the record buffer
  uint8_t header[kHeaderSize] = {};  // the 32 header bytes (count, lengths, chain head ...)
  FieldInfo* fields = nullptr;       // field_count descriptors (library memory)
  uint16_t widest = 0;               // length of the widest field
  uint16_t field_count = 0;          // number of fields
  int16_t lock_count = 0;            // number of locks held
  uint8_t pending = 0;               // kPending* bits
  uint8_t dialect = 0;               // dialect code 1..9
  uint8_t has_memo = 0;              // 1 when a field of type M exists
  int32_t current = 0;               // current record number; 0 = none
  const uint8_t* view = nullptr;     // read-only view of the file (exclusive, buffered tables)
  uint64_t view_size = 0;            // bytes the view covers

  // Header accessors.
  uint32_t RecordCount() const;
  void SetRecordCount(uint32_t count);
  uint32_t HeaderLength() const;
  uint32_t RecordLength() const;
  uint32_t ChainHead() const;
  void SetChainHead(uint32_t head);
  bool Shared() const { return (attributes & kAttrShared) != 0; }
  bool Buffered() const { return (attributes & kAttrUnbuffered) == 0; }
  // Byte offset of record r (1-based) in the file.
  uint64_t RecordOffset(uint32_t r) const {
    return HeaderLength() + static_cast<uint64_t>(r - 1) * RecordLength();
  }
};

// Runs a clean-up step (an unlock after a write, the unlocks of a close) with
// the library code cleared, since the file services report a failure already
// in the code as their own; a failure that was there before is kept.
template <class Step>
int32_t CleanUp(Step step) {
  int32_t before = ErrorCode();
  Succeed();
  int32_t rc = step();
  if (before < 0) Record(before);
  return rc;
}

// ---- Handles ---------------------------------------------------------------
// The control block of a table handle, or nullptr after logging -213 under
// module.
TableControl* LookUp(int32_t handle, ModulePath module);
// As LookUp, and the field number must be valid (-227, logged under DFVER).
TableControl* LookUpField(int32_t handle, int32_t field, ModulePath module);

// ---- Open and close (table_open.cpp, table_create.cpp, pack.cpp, zap.cpp) ----
// Checks and normalises the caller's fields and writes a new empty table.
// keep_names stores every name as given (pack copies a table's names, which
// must not change); otherwise all-ASCII names are upper-cased.
int32_t CreateTable(const char* name, int32_t field_count, DBFIELD* fields, int32_t dialect,
                    bool keep_names = false);
// Opens a table into a new handle (-1 on failure).
int32_t OpenTable(int32_t* handle, const char* name, int32_t mode);
// Writes what the cache holds and flushes the file.
int32_t FlushTable(TableControl* t);
// Writes what the cache holds, closes the file and frees the slot.
int32_t CloseTable(int32_t handle, TableControl* t);
// The close routine DBTerminate calls for every table still open.
int32_t CloseTableHandle(int32_t handle);
// Removes the deleted records by rebuilding the file; *handle becomes the
// reopened table's handle (-1 when it could not be reopened).
int32_t PackTable(int32_t* handle, TableControl* t);
// Removes every record in place.
int32_t ZapTable(TableControl* t);
// Closes the file and frees the slot; writes nothing.
void Discard(int32_t handle, TableControl* t);

// ---- Header (table_header.cpp) -----------------------------------------------
// Re-reads the record count of a shared table from the file (keeping this
// handle's own unwritten appends).  Unshared tables: nothing.
int32_t RefreshRecordCount(TableControl* t);
// Refreshes the count when attribute bit 5 says it may be stale.
int32_t RefreshIfStale(TableControl* t);
// Stamps today's date (year modulo 100) into the header copy and writes the
// 32 header bytes, locking the header of a shared table that holds no lock.
// own_count: the count in memory is this handle's (an append is being
// written); otherwise a shared table re-reads the count first.
int32_t WriteHeader(TableControl* t, bool own_count);
// Re-reads the record count of a shared table (DBGetFileHeader).
int32_t ReadFileHeader(TableControl* t);

// ---- Record cache (record_cache.cpp) ------------------------------------------
// Records a cache of `capacity` records would hold by default.
int32_t DefaultCacheCapacity(uint32_t record_length);
// Allocates the cache for `capacity` records; false when out of memory.
bool AllocateCache(TableControl* t, int32_t capacity);
// Maps the file for reading when the table is held exclusively and
// buffered, so that loading a cache window is a copy instead of a system
// call; without a view windows are read from the file.
void MapView(TableControl* t);
// Drops the view (before the file is cut shorter, and on close).
void UnmapView(TableControl* t);
// Empties the cache (nothing cached, not dirty).  Does not write anything.
void ResetCache(TableControl* t);
// Notes that cache slot `slot` was changed: a write-back writes the changed
// slots only, so that records other processes changed meanwhile in the same
// window are not overwritten with the old copies held here.
void MarkSlotChanged(TableControl* t, uint32_t slot);
// Loads the window that starts at record n unless n is cached already.
int32_t LoadWindow(TableControl* t, uint32_t n);
// Pointer to record n in the cache, or nullptr when not cached.
uint8_t* CachedRecord(TableControl* t, uint32_t n);
// Writes the dirty cache window; with `header` also the header and, after
// appends, the end marker (when anything is pending); with `sync` a system
// flush at the end.  On failure the cache stays dirty so a later call retries.
int32_t WriteBack(TableControl* t, bool header, bool sync);
// Writes the end-of-file marker after the last record (dialect 7: a whole
// record of 0x1A bytes).
int32_t WriteEndOfFile(TableControl* t);
// Sets the cache capacity (op 0 of DBGetSetCacheSize); 209 when the memory
// could not be had (the old capacity stays and is stored in *records).
int32_t SetCacheCapacity(TableControl* t, int32_t* records);

// ---- Records (records.cpp) ------------------------------------------------------
// Reads record n into the record buffer and makes it current (201 when its
// flag is not a space).  The count is not checked here.
int32_t ReadRecord(TableControl* t, uint32_t n);
// Writes the record buffer as record n (cache or file).
int32_t WriteRecord(TableControl* t, uint32_t n);
// Appends the record buffer (no lock handling); *recno receives its number.
int32_t AppendRecord(TableControl* t, int32_t* recno);

// The record operations behind the exported record functions; each returns
// what its exported function returns.
int32_t GetRecord(TableControl* t, void* buffer, int32_t recno);
int32_t PutRecord(TableControl* t, const void* buffer, int32_t* recno, int32_t mode);
// Marks record recno deleted (kDeletedFlag) or active (kActiveFlag), keeping
// the deleted-record chain of a table opened for reuse.
int32_t MarkRecord(TableControl* t, int32_t recno, uint8_t mark);
int32_t IsRecordDeleted(TableControl* t);
int32_t GetRecordCount(TableControl* t, uint32_t* count);
int32_t GetRecordInfo(TableControl* t, DBRECORDINFO* info);
int32_t ClearRecordBuffer(TableControl* t);
int32_t SetRecordBuffer(TableControl* t, void* address);
int32_t AtFirstRecord(const TableControl* t);
int32_t AtLastRecord(TableControl* t);
int32_t CacheSize(TableControl* t, int32_t* records, int32_t op);

// ---- Fields (fields.cpp) ---------------------------------------------------------
// The field number of `name` (case of ASCII letters ignored), or -1 after
// logging -228 (or -221 for a null name) under DFNAM2NO and module.
int32_t FindField(const TableControl* t, const char* name, ModulePath module);
// As FindField for a name that may or may not be a field: -1 without a
// log line or a change of the library code.
int32_t FieldNumberOf(const TableControl* t, const char* name);
// Field f of the current record: as_text gives the stored text, else the
// typed value.  The outcome becomes the library code.
int32_t GetField(TableControl* t, const FieldInfo& f, void* out, bool as_text);
int32_t PutField(TableControl* t, const FieldInfo& f, const void* in, bool as_text);
// The stored bytes of field f, unconverted.
int32_t GetFieldBytes(TableControl* t, const FieldInfo& f, void* out);
int32_t PutFieldBytes(TableControl* t, const FieldInfo& f, const void* in);
// 200 when field f of the current record is blank, else the library code.
int32_t IsFieldBlank(TableControl* t, const FieldInfo& f);
// The name of field f, zero-terminated.
int32_t GetFieldName(TableControl* t, const FieldInfo& f, char* buffer);

// ---- Locks (table_locks.cpp) -------------------------------------------------------
struct Region {
  uint32_t offset;
  uint32_t length;
};
Region RecordRegion(const TableControl* t, uint32_t r);
Region HeaderRegion(const TableControl* t);
Region FileRegion(const TableControl* t);
int32_t LockFileRegion(TableControl* t);
int32_t LockHeaderRegion(TableControl* t);
int32_t LockRecordRegion(TableControl* t, uint32_t r);
int32_t UnlockRecordRegion(TableControl* t, uint32_t r);
int32_t UnlockHeaderRegion(TableControl* t);
int32_t UnlockAllRegions(TableControl* t);
bool RecordLocked(const TableControl* t, uint32_t r);
// The lock operations behind the exported lock functions: each succeeds at
// once on an unshared table and returns what its exported function returns.
int32_t LockTable(TableControl* t);
int32_t LockHeader(TableControl* t);
int32_t LockRecord(TableControl* t, int32_t recno);
int32_t UnlockRecord(TableControl* t, int32_t recno);
int32_t UnlockHeader(TableControl* t);
int32_t UnlockAll(TableControl* t);
// 1 when record recno is locked through this table (shared tables only).
int32_t IsRecordLocked(TableControl* t, int32_t recno);
// The regions this table holds, in a block the caller frees.
int32_t GetLockInfo(TableControl* t, DBLOCKINFO** locks, int32_t* count);

// ---- Description (table_info.cpp) ---------------------------------------------------
int32_t GetFileInfo(TableControl* t, DBFILEINFO* info);
int32_t GetFileDescription(TableControl* t, int32_t* widest, DBFIELD* fields);
int32_t GetFieldDescription(TableControl* t, int32_t field, DBFIELD* description);
int32_t GetLastUpdate(TableControl* t, char* buffer, int32_t date_style);
int32_t SetProductionIndex(TableControl* t);
int32_t SetFieldIndexed(TableControl* t, int32_t field);

}  // namespace kestrel::table
