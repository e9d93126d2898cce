// Packing a table: the records marked deleted are removed by rebuilding the
// file (module DPACK).
//
// The active records are copied, in order, into a work table created beside
// the original with the same fields and dialect; then the original becomes
// the backup and the work table takes its name:
//
//   ORDERS.DBF  --copy active records-->  0.DBF      (work table, same directory)
//   ORDERS.DBF  --rename-->               ORDERS.BAK (an older backup is deleted first)
//   0.DBF       --rename-->               ORDERS.DBF (reopened in the mode, with the
//                                                     cache size and record buffer it had)
//
// Names: the directory is everything up to the last ':', '\' or '/'; the
// extension starts at the last '.' of the base name.  The backup is the path
// without its extension followed by ".BAK"; the work table is the directory
// followed by the first number from 0 up whose "<n>.DBF" is free.  Both new
// extensions follow the letter case of the table's own extension ("orders.dbf"
// gives "orders.bak" and "0.dbf").
//
// What a failure leaves behind, step by step (the caller's handle says which):
//   - before the original is closed: the table is open and unchanged, the
//     handle still valid, and a work table that was started is deleted;
//   - renaming the original to the backup fails: the work table is deleted
//     and the original reopened under its name (a new handle);
//   - renaming the work table to the table's name fails: the backup is
//     renamed back and reopened when possible; otherwise the old data is in
//     the backup, the packed data in the work table and the handle is -1;
//   - reopening fails: the packed table is in place, the old one in the
//     backup, and the handle is -1.
#include <cstdio>
#include <cstring>
#include <utility>

#include "table/table_control.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDpack = KS_ENGINE_MODULE("DPACK");

// Bytes a scan window covers (the source cache is set to this many bytes'
// worth of records while the copy runs).
constexpr uint32_t kScanBytes = 16384;

// A zero-terminated name in library memory.
class Name {
 public:
  // The first a_length characters of a, then b, then c.
  bool Assign(const char* a, size_t a_length, const char* b, const char* c = "") {
    size_t b_length = std::strlen(b);
    size_t c_length = std::strlen(c);
    if (!text_.Allocate(a_length + b_length + c_length + 1)) return false;
    std::memcpy(text_.data(), a, a_length);
    std::memcpy(text_.data() + a_length, b, b_length);
    std::memcpy(text_.data() + a_length + b_length, c, c_length);
    return true;
  }
  const char* c_str() const { return reinterpret_cast<const char*>(text_.data()); }

 private:
  Buffer text_;
};

// The parts of a table's file name that the backup and work names are made of.
struct NameParts {
  size_t directory_length;  // up to and including the last ':', '\' or '/'
  size_t stem_length;       // the whole name without the extension
  bool lower_case;          // the extension is written in lower case
};

NameParts SplitName(const char* name) {
  size_t length = std::strlen(name);
  NameParts parts{0, length, false};
  for (size_t i = 0; i < length; ++i) {
    if (name[i] == ':' || name[i] == '\\' || name[i] == '/') parts.directory_length = i + 1;
  }
  for (size_t i = length; i > parts.directory_length; --i) {
    if (name[i - 1] == '.') {
      parts.stem_length = i - 1;
      break;
    }
  }
  // The new extensions take the case of the table's own: lower case when it
  // has letters and none of them is upper case.
  bool letters = false, upper = false;
  for (size_t i = parts.stem_length; i < length; ++i) {
    char c = name[i];
    if (c >= 'a' && c <= 'z') letters = true;
    if (c >= 'A' && c <= 'Z') letters = upper = true;
  }
  parts.lower_case = letters && !upper;
  return parts;
}

// A work-table name nobody uses: a file that exists, or that someone else has
// open (FileExists answers 0 then, but a shared open still gets through), is
// skipped, and so is the table's own name.
int32_t ChooseWorkName(const char* table, const NameParts& parts, Name* work) {
  const char* extension = parts.lower_case ? ".dbf" : ".DBF";
  char number[16];
  for (uint32_t n = 0; n < 100000; ++n) {
    std::snprintf(number, sizeof number, "%u", n);
    Name full;
    if (!full.Assign(table, parts.directory_length, number, extension)) {
      return KS_FAIL(kDpack, DB_ERR_MEMORY);
    }
    if (std::strcmp(full.c_str(), table) == 0 || FileExists(full.c_str())) continue;
    FileHandle probe = kNoFile;
    uint32_t attributes = 0;
    int32_t before = ErrorCode();
    bool open_elsewhere =
        FileOpen(&probe, full.c_str(), kModeReadOnly | kModeShared, &attributes) >= 0;
    if (open_elsewhere) FileClose(probe);
    Record(before);
    if (open_elsewhere) continue;
    *work = std::move(full);
    return 0;
  }
  return KS_FAIL(kDpack, DB_ERR_OPEN);
}

// The open mode that gives a table the attributes it has now.
int32_t ModeOf(const TableControl* t) {
  int32_t mode = t->dialect;
  if (t->Shared()) mode |= kModeShared;
  if (t->attributes & kAttrAutoLock) mode |= DB_OPEN_AUTOLOCK;
  if (t->write_through) {
    mode |= DB_OPEN_WRITETHROUGH;
  } else if (!t->Buffered()) {
    mode |= DB_OPEN_UNBUFFERED;
  }
  if (t->attributes & kAttrMultiLock) mode |= DB_OPEN_MULTILOCK;
  if (t->attributes & kAttrReuse) mode |= DB_OPEN_REUSE;
  return mode;
}

// Creates the work table with the source's fields, dialect and production
// index flag (and, in dBASE IV, the fields' production-tag flags).
int32_t CreateWorkTable(const TableControl* t, const char* work) {
  Buffer memory;
  if (!memory.Allocate(sizeof(DBFIELD) * t->field_count)) return KS_FAIL(kDpack, DB_ERR_MEMORY);
  auto* fields = reinterpret_cast<DBFIELD*>(memory.data());
  for (uint32_t i = 0; i < t->field_count; ++i) {
    const FieldInfo& f = t->fields[i];
    std::memcpy(fields[i].name, f.name, f.name_length);
    fields[i].type = f.type | (f.indexed & 1) << 8;
    fields[i].length = static_cast<int32_t>(f.length);
    fields[i].decimals = f.type == 'C' ? 0 : f.decimals;
  }
  int32_t dialect = t->dialect;
  if (t->header[kHdrProduction] != 0) dialect |= kProductionRequest;
  int32_t rc = CreateTable(work, t->field_count, fields, dialect, true);
  if (rc < 0) return KS_PASS(kDpack, rc);
  // Creating sets the lengths some types must have (a date 8 bytes, a
  // logical 1, ...).  A damaged descriptor with another length opens, but
  // its records cannot be copied byte for byte into that layout.
  for (uint32_t i = 0; i < t->field_count; ++i) {
    if (static_cast<uint32_t>(fields[i].length) != t->fields[i].length) {
      CleanUp([&] { return FileDelete(work); });
      return KS_FAIL(kDpack, DB_ERR_RECORD_LENGTH);
    }
  }
  return 0;
}

// Copies the active records of the source, window by window, onto the end
// of the (empty) work table.
int32_t CopyActiveRecords(TableControl* t, TableControl* w) {
  uint32_t length = t->RecordLength();
  int32_t window = static_cast<int32_t>(kScanBytes / length);
  if (window < 1) window = 1;
  if (t->Buffered()) {
    int32_t records = window;
    int32_t rc = SetCacheCapacity(t, &records);
    if (rc < 0) return KS_PASS(kDpack, rc);
  } else if (!AllocateCache(t, window)) {
    // An unbuffered table gets a scan window of its own for the copy; the
    // table is closed right after, which frees it.
    return KS_FAIL(kDpack, DB_ERR_MEMORY);
  }
  int32_t records = window;
  int32_t rc = SetCacheCapacity(w, &records);
  if (rc < 0) return KS_PASS(kDpack, rc);
  Succeed();
  ResetCache(t);
  uint32_t count = t->RecordCount();
  for (uint32_t n = 1; n <= count;) {
    rc = LoadWindow(t, n);
    if (rc < 0) return KS_PASS(kDpack, rc);
    uint32_t cached = static_cast<uint32_t>(t->cache_count);
    for (uint32_t i = 0; i < cached; ++i) {
      const uint8_t* record = t->cache + static_cast<size_t>(i) * length;
      if (record[0] != kActiveFlag) continue;
      std::memcpy(w->record, record, length);
      int32_t recno = 0;
      rc = AppendRecord(w, &recno);
      if (rc < 0) return KS_PASS(kDpack, rc);
    }
    n += cached;
  }
  ResetCache(t);
  return 0;
}

// Opens the work table, copies into it and closes it; a work table that
// could not be completed is deleted.
int32_t BuildWorkTable(TableControl* t, const char* work) {
  int32_t rc = CreateWorkTable(t, work);
  if (rc < 0) return rc;
  int32_t wh = -1;
  rc = OpenTable(&wh, work, t->dialect);
  if (rc >= 0) {
    Succeed();
    TableControl* w = LookUp(wh, kDpack);
    rc = w ? CopyActiveRecords(t, w) : ErrorCode();
    int32_t crc = CleanUp([&] { return w ? CloseTable(wh, w) : 0; });
    if (rc >= 0 && crc < 0) rc = crc;
  }
  if (rc < 0) {
    CleanUp([&] { return FileDelete(work); });
    return KS_PASS(kDpack, rc);
  }
  return 0;
}

// What the reopened table gets back: its open mode, its cache capacity and
// the caller's record buffer (nullptr when the library owned it).
struct Setup {
  int32_t mode;
  int32_t capacity;
  void* caller_buffer;
};

// Reopens `name` into *handle as it was set up before.
int32_t Reopen(int32_t* handle, const char* name, const Setup& setup) {
  int32_t rc = OpenTable(handle, name, setup.mode);
  if (rc < 0) return KS_PASS(kDpack, rc);
  TableControl* t = LookUp(*handle, kDpack);
  if (!t) return ErrorCode();
  if (setup.caller_buffer) {
    rc = SetRecordBuffer(t, setup.caller_buffer);
    if (rc < 0) return KS_PASS(kDpack, rc);
  }
  int32_t capacity = setup.capacity;
  if (capacity > 0) {
    Succeed();
    rc = CacheSize(t, &capacity, DB_CACHE_SET);
    if (rc < 0) return KS_PASS(kDpack, rc);
    return rc;  // 0, or the warning 209 when the old capacity could not be had
  }
  return 0;
}

}  // namespace

int32_t PackTable(int32_t* handle, TableControl* t) {
  if (t->attributes & kAttrReadOnly) return KS_FAIL(kDpack, DB_ERR_READ_ONLY);
  Succeed();
  if (t->Buffered()) {
    int32_t rc = WriteBack(t, true, true);
    if (rc < 0) return KS_PASS(kDpack, rc);
  }
  if (t->Shared()) {
    int32_t rc = LockFileRegion(t);
    if (rc < 0) return KS_PASS(kDpack, rc);
  }

  // Everything that is needed after the source is closed is copied now.
  NameParts parts = SplitName(t->file_name);
  Name table, backup, work;
  int32_t rc = 0;
  if (!table.Assign(t->file_name, std::strlen(t->file_name), "") ||
      !backup.Assign(t->file_name, parts.stem_length, parts.lower_case ? ".bak" : ".BAK")) {
    rc = KS_FAIL(kDpack, DB_ERR_MEMORY);
  } else if (std::strcmp(backup.c_str(), table.c_str()) == 0) {
    // A table whose name is its own backup name cannot be packed this way:
    // the backup step would delete the table.
    rc = KS_FAIL(kDpack, DB_ERR_INVALID_FILENAME);
  } else {
    rc = ChooseWorkName(table.c_str(), parts, &work);
  }
  int32_t capacity = t->Buffered() ? t->cache_capacity : 0;
  Setup setup{ModeOf(t), capacity, t->owns_record ? nullptr : t->record};
  if (rc >= 0) rc = BuildWorkTable(t, work.c_str());
  if (t->Shared()) {
    int32_t urc = CleanUp([&] { return UnlockAllRegions(t); });
    if (rc >= 0 && urc < 0) rc = urc;
  }
  if (rc < 0) {
    if (t->Buffered()) {
      // The scan may have changed the window; the caller keeps the table
      // with the capacity it chose.
      CleanUp([&] { return SetCacheCapacity(t, &capacity); });
    }
    return Record(rc);
  }

  Succeed();
  rc = CloseTable(*handle, t);
  *handle = -1;
  if (rc < 0) {
    CleanUp([&] { return FileDelete(work.c_str()); });
    return KS_PASS(kDpack, rc);
  }

  Succeed();
  FileDelete(backup.c_str());  // a missing backup is only a warning
  Succeed();
  rc = FileRename(backup.c_str(), table.c_str());
  if (rc != 0) {
    // The original never moved: give it back to the caller as it was.
    int32_t failed = KS_PASS(kDpack, rc);
    CleanUp([&] { return FileDelete(work.c_str()); });
    CleanUp([&] { return Reopen(handle, table.c_str(), setup); });
    return Record(failed);
  }
  Succeed();
  rc = FileRename(table.c_str(), work.c_str());
  if (rc != 0) {
    int32_t failed = KS_PASS(kDpack, rc);
    Succeed();
    if (FileRename(table.c_str(), backup.c_str()) == 0) {
      CleanUp([&] { return FileDelete(work.c_str()); });
      CleanUp([&] { return Reopen(handle, table.c_str(), setup); });
    }
    return Record(failed);
  }
  Succeed();
  rc = Reopen(handle, table.c_str(), setup);
  if (rc < 0) return KS_PASS(kDpack, rc);
  return Record(rc);
}

}  // namespace kestrel::table
