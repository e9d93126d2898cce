// Field access by number and by name (modules DFGET, DFPUT, DFNAM2NO,
// DFTEST).  Fields live in the record buffer of the current record; a put
// changes only the buffer, DBPutRecord brings it to the file.
#include <cstring>

#include "table/field_convert.h"
#include "table/table_control.h"

namespace kestrel::table {
namespace {
constexpr ModulePath kDfget = KS_ENGINE_MODULE("DFGET");
constexpr ModulePath kDfput = KS_ENGINE_MODULE("DFPUT");
constexpr ModulePath kDfnam2no = KS_ENGINE_MODULE("DFNAM2NO");

// Compares a field name with a caller's name, ignoring the case of ASCII
// letters only (other bytes compare exactly: they may belong to double-byte
// characters), without copying either.
bool SameName(const FieldInfo& f, const char* name) {
  uint32_t i = 0;
  for (; i < f.name_length; ++i) {
    uint8_t c = static_cast<uint8_t>(name[i]);
    if (c == 0 || UpperAscii(c) != UpperAscii(static_cast<uint8_t>(f.name[i]))) return false;
  }
  return name[i] == '\0';
}

}  // namespace

int32_t FieldNumberOf(const TableControl* t, const char* name) {
  for (uint32_t i = 0; i < t->field_count; ++i) {
    if (SameName(t->fields[i], name)) return static_cast<int32_t>(i);
  }
  return -1;
}

int32_t FindField(const TableControl* t, const char* name, ModulePath module) {
  if (!name) {
    KS_FAIL(module, DB_ERR_NULL);
    return -1;
  }
  int32_t field = FieldNumberOf(t, name);
  if (field >= 0) return field;
  KS_FAIL(kDfnam2no, DB_ERR_FIELD_NAME);
  if (std::strcmp(module.path, kDfnam2no.path) != 0) KS_PASS(module, DB_ERR_FIELD_NAME);
  return -1;
}

// Reports a conversion's outcome: warnings and 0 become the library code;
// errors are passed on (already logged by the converter).
namespace {
int32_t Report(int32_t rc, ModulePath module) {
  if (rc < 0) return KS_PASS(module, rc);
  return Record(rc);
}
}  // namespace

int32_t GetField(TableControl* t, const FieldInfo& f, void* out, bool as_text) {
  int32_t rc = as_text ? GetText(t, f, static_cast<char*>(out)) : GetValue(t, f, out);
  return Report(rc, kDfget);
}

int32_t PutField(TableControl* t, const FieldInfo& f, const void* in, bool as_text) {
  Succeed();
  int32_t rc = as_text ? PutText(t, f, static_cast<const char*>(in)) : PutValue(t, f, in);
  return Report(rc, kDfput);
}

int32_t GetFieldBytes(TableControl* t, const FieldInfo& f, void* out) {
  std::memcpy(out, t->record + f.offset, f.length);
  return Succeed();
}

int32_t PutFieldBytes(TableControl* t, const FieldInfo& f, const void* in) {
  std::memcpy(t->record + f.offset, in, f.length);
  return Succeed();
}

int32_t IsFieldBlank(TableControl* t, const FieldInfo& f) {
  if (FieldBlank(t, f)) return Record(DB_WARN_FIELD_EMPTY);
  return ErrorCode();
}

int32_t GetFieldName(TableControl*, const FieldInfo& f, char* buffer) {
  std::memcpy(buffer, f.name, f.name_length);
  buffer[f.name_length] = '\0';
  return Succeed();
}

}  // namespace kestrel::table
