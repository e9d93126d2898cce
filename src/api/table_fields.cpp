// Exported field functions by number and by name (modules DFGET, DFPUT,
// DFNAM2NO, DFTEST): handle, field and argument checks, then the field
// engine of table/table_control.h.
#include "runtime/boundary.h"
#include "table/table_control.h"

using namespace kestrel;
using namespace kestrel::table;

namespace {
constexpr ModulePath kDfget = KS_ENGINE_MODULE("DFGET");
constexpr ModulePath kDfput = KS_ENGINE_MODULE("DFPUT");
constexpr ModulePath kDfnam2no = KS_ENGINE_MODULE("DFNAM2NO");
constexpr ModulePath kDftest = KS_ENGINE_MODULE("DFTEST");

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

// Runs op(t, field) once the field is found and `argument` is not null.
template <class Lookup, class Op>
int32_t OnField(Lookup lookup, const void* argument, ModulePath module, Op op) {
  return Guarded([&]() -> int32_t {
    TableControl* t = nullptr;
    const FieldInfo* f = lookup(&t);
    if (!f) return ErrorCode();
    if (!argument) return KS_FAIL(module, DB_ERR_NULL);
    return op(t, *f);
  });
}

auto Numbered(int32_t handle, int32_t field, ModulePath module) {
  return [=](TableControl** t) { return ByNumber(handle, field, module, t); };
}
auto Named(int32_t handle, const char* name, ModulePath module) {
  return [=](TableControl** t) { return ByName(handle, name, module, t); };
}

template <class Lookup>
int32_t Get(Lookup lookup, void* out, bool as_text) {
  return OnField(lookup, out, kDfget,
                 [&](TableControl* t, const FieldInfo& f) { return GetField(t, f, out, as_text); });
}

template <class Lookup>
int32_t Put(Lookup lookup, const void* in, bool as_text) {
  return OnField(lookup, in, kDfput,
                 [&](TableControl* t, const FieldInfo& f) { return PutField(t, f, in, as_text); });
}

template <class Lookup>
int32_t GetRaw(Lookup lookup, void* out) {
  return OnField(lookup, out, kDfget,
                 [&](TableControl* t, const FieldInfo& f) { return GetFieldBytes(t, f, out); });
}

template <class Lookup>
int32_t PutRaw(Lookup lookup, const void* in) {
  return OnField(lookup, in, kDfput,
                 [&](TableControl* t, const FieldInfo& f) { return PutFieldBytes(t, f, in); });
}

template <class Lookup>
int32_t Blank(Lookup lookup) {
  return Guarded([&]() -> int32_t {
    TableControl* t = nullptr;
    const FieldInfo* f = lookup(&t);
    if (!f) return ErrorCode();
    return IsFieldBlank(t, *f);
  });
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
    return GetFieldName(t, t->fields[field], buffer);
  });
}
