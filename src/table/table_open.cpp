// Opening, flushing and closing a table (module DOPEN).
//
// An open reads the 32-byte header and the field descriptors and checks them
// against the dialect before anything else is trusted: the header length
// (low five bits 0, 1 or 2), the update date, the production index flag, the
// descriptor names and types, and that the field lengths add up to the
// record length.  Any failure closes the file, frees the slot and leaves the
// caller's handle at -1.
#include <cstring>

#include "runtime/boundary.h"
#include "table/table_control.h"
#include "util/coding.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDopen = KS_ENGINE_MODULE("DOPEN");

// Decodes and checks the descriptors (raw, n x 32 bytes) into t->fields.
int32_t ReadDescriptors(TableControl* t, const uint8_t* raw, uint32_t n) {
  auto* fields = static_cast<FieldInfo*>(MemAlloc(sizeof(FieldInfo) * n));
  if (!fields) return KS_FAIL(kDopen, DB_ERR_MEMORY);
  t->fields = fields;
  t->field_count = static_cast<uint16_t>(n);
  uint8_t version = t->header[kHdrVersion];
  uint32_t offset = 1;
  uint32_t widest = 0;
  for (uint32_t i = 0; i < n; ++i) {
    FieldDescriptor d;
    if (!d.DecodeFrom({raw + i * kDescriptorSize, kDescriptorSize})) {
      return KS_FAIL(kDopen, DB_ERR_FIELD_NAME);
    }
    FieldInfo& f = fields[i];
    // Names are kept byte for byte: in a double-byte code page the second
    // byte of a character can look like an ASCII letter.
    std::memcpy(f.name, d.name, d.name_length);
    f.name_length = d.name_length;
    f.type = UpperAscii(d.type);
    f.decimals = d.decimals;
    f.indexed = d.indexed;
    f.length = d.length;
    if (f.type == 'C') f.length += static_cast<uint32_t>(d.decimals) << 8;
    f.offset = offset;
    offset += f.length;
    if (f.length > widest) widest = f.length;
    if (!KnownFieldType(f.type) && !IsMemoType(f.type, t->dialect)) {
      return KS_FAIL(kDopen, DB_ERR_FIELD_TYPE);
    }
    if (f.type == 'N' || f.type == 'F') f.max_magnitude = MaxMagnitude(f.length, f.decimals);
    if (IsMemoType(f.type, t->dialect)) {
      bool ok = HasFoxMemoVersion(t->dialect) ? version == kVersionFoxMemo
                                              : (version & kVersionMemoBit) != 0;
      if (!ok) return KS_FAIL(kDopen, DB_ERR_VERSION);
      t->has_memo = 1;
    }
  }
  if (offset != t->RecordLength()) return KS_FAIL(kDopen, DB_ERR_RECORD_LENGTH);
  t->widest = static_cast<uint16_t>(widest > 0xFFFF ? 0xFFFF : widest);
  return 0;
}

// Steps 2..8 of an open, on a control block that already holds a slot.
int32_t OpenInto(TableControl* t, const char* name, int32_t mode) {
  mode = NormaliseOpenSwitches(mode);
  int dialect = mode & 0xFF;
  t->dialect = static_cast<uint8_t>(dialect);
  int32_t rc = FileOpen(&t->file, name, mode, &t->attributes);
  if (rc < 0) {
    t->file = kNoFile;
    return KS_PASS(kDopen, rc);
  }
  if (mode & DB_OPEN_WRITETHROUGH) {
    t->write_through = 1;
    t->attributes |= kAttrUnbuffered;
  }
  if (mode & DB_OPEN_UNBUFFERED) t->attributes |= kAttrUnbuffered;
  if (t->Shared()) {
    t->attributes |= kAttrStaleCount;
    if (mode & DB_OPEN_AUTOLOCK) t->attributes |= kAttrAutoLock;
    if (mode & DB_OPEN_MULTILOCK) t->attributes |= kAttrMultiLock;
  }
  if (mode & DB_OPEN_REUSE) t->attributes |= kAttrReuse;

  rc = FileReadAt(t->file, 0, t->header, kHeaderSize);
  if (rc < 0) return KS_FAIL(kDopen, rc);
  if (dialect >= kDialectCount) return KS_FAIL(kDopen, DB_ERR_INVALID_COMMAND);
  if (!VersionAccepted(dialect, t->header[kHdrVersion])) return KS_FAIL(kDopen, DB_ERR_VERSION);
  if (dialect == 0) t->dialect = 1;

  TableHeader header;
  bool dated = header.DecodeFrom(t->header);
  uint32_t header_length = header.header_length;
  uint32_t tail = header_length & 0x1F;
  if (tail > 2) return KS_FAIL(kDopen, DB_ERR_HEADER_LENGTH);
  if (!dated) return KS_FAIL(kDopen, DB_ERR_CHANGE_DATE);
  if ((t->dialect == 2 || t->dialect == 8) && header.production > 1) {
    return KS_FAIL(kDopen, DB_ERR_MDX_FLAG);
  }
  // A table needs at least one field; a header too short for one is damaged.
  if (header_length < 2 * kDescriptorSize) return KS_FAIL(kDopen, DB_ERR_HEADER_LENGTH);
  uint32_t slots = (header_length - kHeaderSize) / kDescriptorSize;
  Buffer raw;
  if (!raw.Allocate(static_cast<size_t>(slots) * kDescriptorSize)) {
    return KS_FAIL(kDopen, DB_ERR_MEMORY);
  }
  rc = FileReadAt(t->file, kHeaderSize, raw.data(), raw.size());
  if (rc < 0) return KS_FAIL(kDopen, rc);
  uint32_t n = slots;
  if (raw[(slots - 1) * kDescriptorSize] == kTerminator) {
    // The last slot is a 32-byte terminator block.
    --n;
    t->dialect = 9;
  }
  if (n == 0) return KS_FAIL(kDopen, DB_ERR_HEADER_LENGTH);
  if (t->RecordLength() == 0) return KS_FAIL(kDopen, DB_ERR_RECORD_LENGTH);
  if (t->RecordLength() < 5) t->attributes &= ~kAttrReuse;

  if (t->Buffered() && !AllocateCache(t, DefaultCacheCapacity(t->RecordLength()))) {
    return KS_FAIL(kDopen, DB_ERR_MEMORY);
  }
  t->record = static_cast<uint8_t*>(MemAlloc(t->RecordLength()));
  if (!t->record) return KS_FAIL(kDopen, DB_ERR_MEMORY);
  t->owns_record = 1;
  std::memset(t->record, ' ', t->RecordLength());

  rc = ReadDescriptors(t, raw.data(), n);
  if (rc < 0) return rc;

  size_t name_length = std::strlen(name);
  t->file_name = static_cast<char*>(MemAlloc(name_length + 1));
  if (!t->file_name) return KS_FAIL(kDopen, DB_ERR_MEMORY);
  std::memcpy(t->file_name, name, name_length + 1);
  MapView(t);
  return 0;
}
}  // namespace

void Discard(int32_t handle, TableControl* t) {
  if (t->file != kNoFile) {
    if (t->Shared()) CleanUp([&] { return UnlockAllRegions(t); });
    UnmapView(t);
    FileClose(t->file);
    t->file = kNoFile;
  }
  ReleaseHandle(handle);
}

int32_t OpenTable(int32_t* handle, const char* name, int32_t mode) {
  TableControl* t = nullptr;
  int32_t rc = AllocateHandle<TableControl>(handle, DB_KIND_TABLE, &t);
  if (rc < 0) return KS_PASS(kDopen, rc);
  RegisterCloseRoutine(DB_KIND_TABLE, &CloseTableHandle);
  t->file = kNoFile;
  rc = OpenInto(t, name, mode);
  if (rc < 0) {
    Discard(*handle, t);
    *handle = -1;
    return Record(rc);
  }
  return Succeed();
}

int32_t FlushTable(TableControl* t) {
  if (t->attributes & kAttrReadOnly) return KS_FAIL(kDopen, DB_ERR_READ_ONLY);
  Succeed();
  int32_t rc = 0;
  if (!t->Buffered()) {
    rc = FileFlush(t->file);
  } else {
    rc = WriteBack(t, true, true);
    // A shared table forgets its window so that the next read sees what
    // other processes wrote.
    if (rc >= 0 && t->Shared()) ResetCache(t);
  }
  if (rc < 0) return KS_PASS(kDopen, rc);
  return 0;
}

int32_t CloseTable(int32_t handle, TableControl* t) {
  Succeed();
  int32_t rc = 0;
  if (t->Buffered() && !(t->attributes & kAttrReadOnly)) rc = WriteBack(t, true, true);
  Discard(handle, t);
  if (rc < 0) return KS_PASS(kDopen, rc);
  return 0;
}

int32_t CloseTableHandle(int32_t handle) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDopen);
    if (!t) return ErrorCode();
    return CloseTable(handle, t);
  });
}

}  // namespace kestrel::table
