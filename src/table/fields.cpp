// Field access by number and by name (modules DFGET, DFPUT, DFNAM2NO,
// DFTEST).  Fields live in the record buffer of the current record; a put
// changes only the buffer, DBPutRecord brings it to the file.
#include <cstring>

#include "runtime/boundary.h"
#include "table/field_convert.h"
#include "table/table_control.h"

using namespace kestrel;
using namespace kestrel::table;

namespace {
constexpr ModulePath kDfget = KS_ENGINE_MODULE("DFGET");
constexpr ModulePath kDfput = KS_ENGINE_MODULE("DFPUT");
constexpr ModulePath kDfnam2no = KS_ENGINE_MODULE("DFNAM2NO");
constexpr ModulePath kDftest = KS_ENGINE_MODULE("DFTEST");

// Compares a field name with a caller's name, ignoring the case of ASCII
// letters, without copying either.
bool SameName(const FieldInfo& f, const char* name) {
  uint32_t i = 0;
  for (; i < f.name_length; ++i) {
    uint8_t c = static_cast<uint8_t>(name[i]);
    if (c == 0 || UpperAscii(c) != static_cast<uint8_t>(f.name[i])) return false;
  }
  return name[i] == '\0';
}

// The field number of `name`, or -1 after logging -228 (or -221).
int32_t FindField(const TableControl* t, const char* name, ModulePath module) {
  if (!name) {
    KS_FAIL(module, DB_ERR_NULL);
    return -1;
  }
  for (uint32_t i = 0; i < t->field_count; ++i) {
    if (SameName(t->fields[i], name)) return static_cast<int32_t>(i);
  }
  KS_FAIL(kDfnam2no, DB_ERR_FIELD_NAME);
  if (module.path != kDfnam2no.path) KS_PASS(module, DB_ERR_FIELD_NAME);
  return -1;
}

// The field of a by-number call, or nullptr with the error logged.
const FieldInfo* ByNumber(int32_t handle, int32_t field, ModulePath module, TableControl** t) {
  *t = LookUpField(handle, field, module);
  return *t ? &(*t)->fields[field] : nullptr;
}

const FieldInfo* ByName(int32_t handle, const char* name, ModulePath module, TableControl** t) {
  *t = LookUp(handle, module);
  if (!*t) return nullptr;
  int32_t field = FindField(*t, name, module);
  return field < 0 ? nullptr : &(*t)->fields[field];
}

// Reports a conversion's outcome: warnings and 0 become the library code;
// errors are passed on (already logged by the converter).
int32_t Report(int32_t rc, ModulePath module) {
  if (rc < 0) return KS_PASS(module, SetErrorCode(rc));
  return SetErrorCode(rc);
}

template <class Lookup>
int32_t Get(Lookup lookup, void* out, bool as_text) {
  return Guarded([&]() -> int32_t {
    TableControl* t = nullptr;
    const FieldInfo* f = lookup(&t);
    if (!f) return ErrorCode();
    if (!out) return KS_FAIL(kDfget, DB_ERR_NULL);
    int32_t rc = as_text ? GetText(t, *f, static_cast<char*>(out)) : GetValue(t, *f, out);
    return Report(rc, kDfget);
  });
}

template <class Lookup>
int32_t Put(Lookup lookup, const void* in, bool as_text) {
  return Guarded([&]() -> int32_t {
    TableControl* t = nullptr;
    const FieldInfo* f = lookup(&t);
    if (!f) return ErrorCode();
    if (!in) return KS_FAIL(kDfput, DB_ERR_NULL);
    SetErrorCode(0);
    int32_t rc = as_text ? PutText(t, *f, static_cast<const char*>(in)) : PutValue(t, *f, in);
    return Report(rc, kDfput);
  });
}

template <class Lookup>
int32_t GetRaw(Lookup lookup, void* out) {
  return Guarded([&]() -> int32_t {
    TableControl* t = nullptr;
    const FieldInfo* f = lookup(&t);
    if (!f) return ErrorCode();
    if (!out) return KS_FAIL(kDfget, DB_ERR_NULL);
    std::memcpy(out, t->record + f->offset, f->length);
    return Succeed();
  });
}

template <class Lookup>
int32_t PutRaw(Lookup lookup, const void* in) {
  return Guarded([&]() -> int32_t {
    TableControl* t = nullptr;
    const FieldInfo* f = lookup(&t);
    if (!f) return ErrorCode();
    if (!in) return KS_FAIL(kDfput, DB_ERR_NULL);
    std::memcpy(t->record + f->offset, in, f->length);
    return Succeed();
  });
}

template <class Lookup>
int32_t Blank(Lookup lookup) {
  return Guarded([&]() -> int32_t {
    TableControl* t = nullptr;
    const FieldInfo* f = lookup(&t);
    if (!f) return ErrorCode();
    if (FieldBlank(t, *f)) return SetErrorCode(DB_WARN_FIELD_EMPTY);
    return ErrorCode();
  });
}

auto Numbered(int32_t handle, int32_t field, ModulePath module) {
  return [=](TableControl** t) { return ByNumber(handle, field, module, t); };
}
auto Named(int32_t handle, const char* name, ModulePath module) {
  return [=](TableControl** t) { return ByName(handle, name, module, t); };
}
}  // namespace

extern "C" KESTREL_API int32_t DBGetFieldData(int32_t handle, int32_t field, void* value) {
  return Get(Numbered(handle, field, kDfget), value, false);
}
extern "C" KESTREL_API int32_t DBGetNamedData(int32_t handle, const char* name, void* value) {
  return Get(Named(handle, name, kDfget), value, false);
}
extern "C" KESTREL_API int32_t DBGetStrField(int32_t handle, int32_t field, char* buffer) {
  return Get(Numbered(handle, field, kDfget), buffer, true);
}
extern "C" KESTREL_API int32_t DBGetNamedStr(int32_t handle, const char* name, char* buffer) {
  return Get(Named(handle, name, kDfget), buffer, true);
}
extern "C" KESTREL_API int32_t DBGetFieldBinary(int32_t handle, int32_t field, void* buffer) {
  return GetRaw(Numbered(handle, field, kDfget), buffer);
}
extern "C" KESTREL_API int32_t DBGetNamedBinary(int32_t handle, const char* name, void* buffer) {
  return GetRaw(Named(handle, name, kDfget), buffer);
}
extern "C" KESTREL_API int32_t DBPutFieldData(int32_t handle, int32_t field, const void* value) {
  return Put(Numbered(handle, field, kDfput), value, false);
}
extern "C" KESTREL_API int32_t DBPutNamedData(int32_t handle, const char* name, const void* value) {
  return Put(Named(handle, name, kDfput), value, false);
}
extern "C" KESTREL_API int32_t DBPutStrField(int32_t handle, int32_t field, const char* text) {
  return Put(Numbered(handle, field, kDfput), text, true);
}
extern "C" KESTREL_API int32_t DBPutNamedStr(int32_t handle, const char* name, const char* text) {
  return Put(Named(handle, name, kDfput), text, true);
}
extern "C" KESTREL_API int32_t DBPutFieldBinary(int32_t handle, int32_t field, const void* bytes) {
  return PutRaw(Numbered(handle, field, kDfput), bytes);
}
extern "C" KESTREL_API int32_t DBPutNamedBinary(int32_t handle, const char* name,
                                                const void* bytes) {
  return PutRaw(Named(handle, name, kDfput), bytes);
}
extern "C" KESTREL_API int32_t DBIsFieldBlank(int32_t handle, int32_t field) {
  return Blank(Numbered(handle, field, kDftest));
}
extern "C" KESTREL_API int32_t DBIsNamedBlank(int32_t handle, const char* name) {
  return Blank(Named(handle, name, kDftest));
}

extern "C" KESTREL_API int32_t DBGetFieldNumber(int32_t handle, int32_t* number, const char* name) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDfnam2no);
    if (!t) return ErrorCode();
    if (!number || !name) return KS_FAIL(kDfnam2no, DB_ERR_NULL);
    int32_t field = FindField(t, name, kDfnam2no);
    if (field < 0) return ErrorCode();
    *number = field;
    return Succeed();
  });
}

extern "C" KESTREL_API int32_t DBGetFieldName(int32_t handle, char* buffer, int32_t field) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUpField(handle, field, kDfnam2no);
    if (!t) return ErrorCode();
    if (!buffer) return KS_FAIL(kDfnam2no, DB_ERR_NULL);
    const FieldInfo& f = t->fields[field];
    std::memcpy(buffer, f.name, f.name_length);
    buffer[f.name_length] = '\0';
    return Succeed();
  });
}
