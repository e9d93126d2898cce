// Creating a table file (module DCREATE).
//
// The caller's field array is checked field by field (name, type, length,
// decimals, record length) and normalised in place: ASCII names and type
// letters are upper-cased and fixed-length types get their forced length and zero
// decimals written back.  The whole file image (header, descriptors,
// terminator and end marker) is then written in one call and the file closed.
#include <cstring>

#include "datetime/dates.h"
#include "table/table_control.h"
#include "util/coding.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDcreate = KS_ENGINE_MODULE("DCREATE");

// Checks one field, normalises it in the caller's array and returns its
// length through *length.
int32_t CheckField(DBFIELD* f, int dialect, bool keep_names, uint8_t* version, uint32_t* length) {
  size_t name_length = strnlen(f->name, sizeof f->name);
  if (name_length == 0 || name_length > 10) return KS_FAIL(kDcreate, DB_ERR_FIELD_NAME);
  // A name of ASCII characters is upper-cased; one with other bytes is kept
  // as given, since upper-casing byte by byte would change double-byte
  // characters whose second byte looks like a lower-case letter.
  bool ascii = !keep_names;
  for (size_t k = 0; k < name_length; ++k) ascii = ascii && static_cast<uint8_t>(f->name[k]) < 0x80;
  for (size_t k = 0; ascii && k < name_length; ++k) {
    f->name[k] = static_cast<char>(UpperAscii(static_cast<uint8_t>(f->name[k])));
  }
  uint8_t type = static_cast<uint8_t>(f->type & 0xFF);
  if (type >= 'a' && type <= 'z') {
    // A lower-case letter rewrites the whole slot, which clears the flag byte.
    type = UpperAscii(type);
    f->type = type;
  }
  if (type == 0 || type > 110 || !(KnownFieldType(type) || IsMemoType(type, dialect))) {
    return KS_FAIL(kDcreate, DB_ERR_FIELD_TYPE);
  }
  if (type == 'F' && !AllowsFloat(dialect)) return KS_FAIL(kDcreate, DB_ERR_FIELD_TYPE);
  if (type == 'C') {
    int32_t most = dialect == 6 ? 2048 : 254;
    if (f->length < 1 || f->length > most) return KS_FAIL(kDcreate, DB_ERR_FIELD_LENGTH);
    f->decimals = 0;
  } else if (type == 'N' || type == 'F') {
    bool wide = dialect == 0 ? false : AllowsFloat(dialect);
    int32_t most = wide ? 20 : 19;
    if (f->length < 1 || f->length > most) return KS_FAIL(kDcreate, DB_ERR_FIELD_LENGTH);
    if (f->decimals != 0) {
      if (f->decimals < 1 || f->decimals > f->length - 2) return KS_FAIL(kDcreate, DB_ERR_DECIMALS);
      bool narrow = dialect != 0 && !AllowsFloat(dialect);
      if (narrow && f->decimals >= 16) return KS_FAIL(kDcreate, DB_ERR_DECIMALS);
    }
  } else {
    f->length = static_cast<int32_t>(ForcedLength(type));
    f->decimals = 0;
    if (IsMemoType(type, dialect)) {
      if (dialect == 2) {
        *version |= 0x88;
      } else if (HasFoxMemoVersion(dialect)) {
        *version = kVersionFoxMemo;
      } else if (dialect != 0) {
        *version |= kVersionMemoBit;
      }
    }
  }
  *length = static_cast<uint32_t>(f->length);
  return 0;
}
}  // namespace

int32_t CreateTable(const char* name, int32_t field_count, DBFIELD* fields, int32_t dialect,
                    bool keep_names) {
  if (field_count <= 0) return KS_FAIL(kDcreate, DB_ERR_FIELD_COUNT);
  bool production = (dialect & kProductionRequest) != 0;
  dialect &= ~kProductionRequest;
  if (dialect < 0 || dialect >= kDialectCount) return KS_FAIL(kDcreate, DB_ERR_VERSION);
  if (field_count > MaxFieldCount(dialect)) return KS_FAIL(kDcreate, DB_ERR_FIELD_COUNT);

  uint8_t version = kVersionPlain;
  uint32_t record_length = 1;
  for (int32_t i = 0; i < field_count; ++i) {
    uint32_t length = 0;
    int32_t rc = CheckField(&fields[i], dialect, keep_names, &version, &length);
    if (rc < 0) return rc;
    record_length += length;
    if (record_length > MaxRecordLength(dialect)) {
      return KS_FAIL(kDcreate, DB_ERR_RECORD_LENGTH);
    }
  }

  uint32_t n = static_cast<uint32_t>(field_count);
  uint32_t header_length = dialect == 9 ? kDescriptorSize * (n + 2) : kDescriptorSize * n + 33;
  int32_t year = 0, month = 0, day = 0, weekday = 0;
  Succeed();  // the clock reports the current code on success
  int32_t rc = Today(&year, &month, &day, &weekday);
  if (rc < 0) return KS_PASS(kDcreate, rc);

  Buffer image;
  if (!image.Allocate(header_length + 1)) return KS_FAIL(kDcreate, DB_ERR_MEMORY);
  uint8_t* h = image.data();
  TableHeader header;
  header.version = version;
  header.year = static_cast<uint8_t>(year - 1900);
  header.month = static_cast<uint8_t>(month);
  header.day = static_cast<uint8_t>(day);
  header.header_length = static_cast<uint16_t>(header_length);
  header.record_length = static_cast<uint16_t>(record_length);
  header.production = production ? 1 : 0;
  header.EncodeTo({h, kHeaderSize});
  for (uint32_t i = 0; i < n; ++i) {
    const DBFIELD& f = fields[i];
    FieldDescriptor d;
    std::memcpy(d.name, f.name, strnlen(f.name, kDescNameSize));
    uint8_t type = static_cast<uint8_t>(f.type & 0xFF);
    d.type = type;
    d.length = static_cast<uint8_t>(f.length & 0xFF);
    d.decimals = type == 'C' ? static_cast<uint8_t>((f.length >> 8) & 0xFF)
                             : static_cast<uint8_t>(f.decimals);
    if (production && dialect == 2) d.indexed = (f.type >> 8) & 1;
    d.EncodeTo({h + kHeaderSize + i * kDescriptorSize, kDescriptorSize});
  }
  // Terminator (a 0x0D byte, or in dialect 9 a block starting with it),
  // then the end-of-file marker of the empty table.
  uint32_t terminator = kHeaderSize + n * kDescriptorSize;
  h[terminator] = kTerminator;
  h[header_length] = kEndOfFile;

  FileHandle file = kNoFile;
  rc = FileCreate(&file, name);
  if (rc < 0) return KS_PASS(kDcreate, rc);
  rc = FileWriteAt(file, 0, h, image.size(), 0);
  FileClose(file);
  if (rc < 0) return KS_FAIL(kDcreate, rc);
  return Succeed();
}

}  // namespace kestrel::table
