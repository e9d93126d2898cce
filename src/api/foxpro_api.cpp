// Exported entry points of the FoxPro index engine (DBfp... and their DBfb...
// twins): check the handle and the arguments, run the engine, leave the
// status in the library error code.
#include <cstring>

#include "index/foxpro/fox_index.h"
#include "kestrel/kestrel_foxpro.h"
#include "runtime/boundary.h"

using namespace kestrel;
using namespace kestrel::foxpro;

namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("OOPEN");
constexpr ModulePath kCache = KS_ENGINE_MODULE("OTBFRSZ");
constexpr ModulePath kTagInfo = KS_ENGINE_MODULE("OTINFO");
constexpr ModulePath kSearch = KS_ENGINE_MODULE("OKSEARCH");
constexpr ModulePath kPercent = KS_ENGINE_MODULE("OKPERC");
constexpr ModulePath kRecord = KS_ENGINE_MODULE("OGETREC");
constexpr ModulePath kNumber = KS_ENGINE_MODULE("OKNUM");
constexpr ModulePath kDate = KS_ENGINE_MODULE("OKDATE");
constexpr ModulePath kMake = KS_ENGINE_MODULE("OKMAKE");
constexpr ModulePath kExpr = KS_ENGINE_MODULE("OTEXPR");
constexpr ModulePath kInfo = KS_ENGINE_MODULE("OINFO");

template <class Body>
int32_t OnIndex(int32_t handle, ModulePath module, Body&& body) {
  return Guarded([&]() -> int32_t {
    FoxIndex* ix = nullptr;
    int32_t rc = SelectIndex(handle, &ix, module);
    if (rc < 0) return rc;
    Succeed();
    return Record(body(ix));
  });
}

template <class Body>
int32_t OnTag(int32_t handle, ModulePath module, Body&& body) {
  return Guarded([&]() -> int32_t {
    FoxIndex* ix = nullptr;
    Tag* tag = nullptr;
    int32_t rc = SelectTag(handle, &ix, &tag, module);
    if (rc < 0) return rc;
    Succeed();
    return Record(body(ix, tag));
  });
}

int32_t MoveCall(int32_t handle, int32_t code, char* key, int32_t* record) {
  return OnTag(handle, kSearch, [&](FoxIndex* ix, Tag* tag) {
    if (!key || !record) return KS_FAIL(kSearch, DB_ERR_NULL);
    return Move(ix, tag, code, key, record);
  });
}

// Runs a conversion that cannot fail once its pointers are checked.
template <class Body>
int32_t Convert(const void* a, const void* b, ModulePath module, Body&& body) {
  return Guarded([&]() -> int32_t {
    if (!a || !b) return KS_FAIL(module, DB_ERR_NULL);
    body();
    return Succeed();
  });
}

uint8_t* Bytes(char* key) { return reinterpret_cast<uint8_t*>(key); }
const uint8_t* Bytes(const char* key) { return reinterpret_cast<const uint8_t*>(key); }

}  // namespace

extern "C" {

KESTREL_API int32_t DBfpOpenIndex(int32_t* handle, const char* filename, int32_t openMode) {
  return Guarded([&]() -> int32_t { return OpenIndex(handle, filename, openMode); });
}

KESTREL_API int32_t DBfpCloseIndex(int32_t handle) {
  return Guarded([&]() -> int32_t { return CloseIndex(handle); });
}

KESTREL_API int32_t DBfpOpenTag(int32_t* tag, int32_t handle, int32_t number) {
  return OnIndex(handle, kTagInfo, [&](FoxIndex* ix) {
    if (!tag) return KS_FAIL(kTagInfo, DB_ERR_NULL);
    if ((static_cast<uint32_t>(handle) >> 16) != 0) return KS_FAIL(kTagInfo, DB_ERR_TAG_HANDLE);
    return OpenTag(ix, handle, tag, number);
  });
}

KESTREL_API int32_t DBfpOpenNamedTag(int32_t* tag, int32_t handle, const char* name) {
  return OnIndex(handle, kTagInfo, [&](FoxIndex* ix) {
    if (!tag || !name) return KS_FAIL(kTagInfo, DB_ERR_NULL);
    if ((static_cast<uint32_t>(handle) >> 16) != 0) return KS_FAIL(kTagInfo, DB_ERR_TAG_HANDLE);
    return OpenNamedTag(ix, handle, tag, name);
  });
}

KESTREL_API int32_t DBfpCloseTag(int32_t tag) {
  return OnTag(tag, kTagInfo, [&](FoxIndex* ix, Tag* t) { return CloseTag(ix, t); });
}

KESTREL_API int32_t DBfpSetDefaultKeyType(int32_t tag, int32_t type) {
  return OnTag(tag, kOpen, [&](FoxIndex*, Tag* t) { return SetDefaultKeyType(t, type); });
}

KESTREL_API int32_t DBfpLockIndex(int32_t handle) {
  return OnIndex(handle, kOpen, [&](FoxIndex* ix) { return LockIndex(ix); });
}

KESTREL_API int32_t DBfpUnLockIndex(int32_t handle) {
  return OnIndex(handle, kOpen, [&](FoxIndex* ix) { return UnlockIndex(ix); });
}

KESTREL_API int32_t DBfpFlushIndex(int32_t handle) {
  return OnIndex(handle, kOpen, [&](FoxIndex* ix) { return FlushIndex(ix); });
}

KESTREL_API int32_t DBfpGetIndexHeader(int32_t handle) {
  return OnIndex(handle, kOpen, [&](FoxIndex* ix) {
    return IsShared(ix) ? RereadHeader(ix) : 0;
  });
}

KESTREL_API int32_t DBfpGetSetCacheSize(int32_t handle, int32_t* count, int32_t operation) {
  return OnIndex(handle, kCache, [&](FoxIndex* ix) {
    if (!count) return KS_FAIL(kCache, DB_ERR_NULL);
    return CacheSize(ix, count, operation);
  });
}

KESTREL_API int32_t DBfpKeySearch(int32_t tag, char* key, int32_t* record, int32_t mode) {
  return OnTag(tag, kSearch, [&](FoxIndex* ix, Tag* t) {
    if (!key || !record) return KS_FAIL(kSearch, DB_ERR_NULL);
    return KeySearch(ix, t, key, record, mode);
  });
}

KESTREL_API int32_t DBfpGoFirstKey(int32_t tag, char* key, int32_t* record) {
  return MoveCall(tag, index::kMoveFirst, key, record);
}
KESTREL_API int32_t DBfpGoLastKey(int32_t tag, char* key, int32_t* record) {
  return MoveCall(tag, index::kMoveLast, key, record);
}
KESTREL_API int32_t DBfpGoNextKey(int32_t tag, char* key, int32_t* record) {
  return MoveCall(tag, index::kMoveNext, key, record);
}
KESTREL_API int32_t DBfpGoPreviousKey(int32_t tag, char* key, int32_t* record) {
  return MoveCall(tag, index::kMovePrevious, key, record);
}

KESTREL_API int32_t DBfpGetCurrentKey(int32_t tag, char* key, int32_t* record) {
  return OnTag(tag, kSearch, [&](FoxIndex* ix, Tag* t) {
    if (!key || !record) return KS_FAIL(kSearch, DB_ERR_NULL);
    return GetCurrentKey(ix, t, key, record);
  });
}

KESTREL_API int32_t DBfpGetKeyPercent(int32_t tag, int32_t* percent, const char* key,
                                      int32_t record) {
  return OnTag(tag, kPercent, [&](FoxIndex* ix, Tag* t) {
    if (!percent || !key) return KS_FAIL(kPercent, DB_ERR_NULL);
    return KeyPercent(ix, t, percent, key, record);
  });
}

KESTREL_API int32_t DBfpGetKeyAtPercent(int32_t tag, int32_t percent, char* key,
                                        int32_t* record) {
  return OnTag(tag, kPercent, [&](FoxIndex* ix, Tag* t) {
    if (!key || !record) return KS_FAIL(kPercent, DB_ERR_NULL);
    return KeyAtPercent(ix, t, percent, key, record);
  });
}

KESTREL_API int32_t DBfpGetRecordNumber(int32_t table, int32_t* record, int32_t tag,
                                        const char* key) {
  return OnTag(tag, kRecord, [&](FoxIndex* ix, Tag* t) {
    if (!record || !key) return KS_FAIL(kRecord, DB_ERR_NULL);
    return GetRecordNumber(table, record, ix, t, key);
  });
}

KESTREL_API int32_t DBfpNumericToKey(char* key, double value) {
  return Convert(key, key, kNumber, [&] {
    DoubleToKey(value, Bytes(key));
    key[8] = '\0';
  });
}
KESTREL_API int32_t DBfpKeyToNumeric(double* value, const char* key) {
  return Convert(value, key, kNumber, [&] { *value = KeyToDouble(Bytes(key)); });
}
KESTREL_API int32_t DBfpDoubleToKey(char* key, double value) {
  return DBfpNumericToKey(key, value);
}
KESTREL_API int32_t DBfpKeyToDouble(double* value, const char* key) {
  return DBfpKeyToNumeric(value, key);
}
KESTREL_API int32_t DBfpFloatToKey(char* key, float value) {
  return Convert(key, key, kNumber, [&] {
    FloatToKey(value, Bytes(key));
    key[4] = '\0';
  });
}
KESTREL_API int32_t DBfpKeyToFloat(float* value, const char* key) {
  return Convert(value, key, kNumber, [&] { *value = KeyToFloat(Bytes(key)); });
}
KESTREL_API int32_t DBfpLongToKey(char* key, int32_t value) {
  return Convert(key, key, kNumber, [&] {
    LongToKey(value, Bytes(key));
    key[4] = '\0';
  });
}
KESTREL_API int32_t DBfpKeyToLong(int32_t* value, const char* key) {
  return Convert(value, key, kNumber, [&] { *value = KeyToLong(Bytes(key)); });
}
KESTREL_API int32_t DBfpUnsignedLongToKey(char* key, uint32_t value) {
  return Convert(key, key, kNumber, [&] {
    StoreBE32(Bytes(key), value);
    key[4] = '\0';
  });
}
KESTREL_API int32_t DBfpKeyToUnsignedLong(uint32_t* value, const char* key) {
  return Convert(value, key, kNumber, [&] { *value = LoadBE32(Bytes(key)); });
}
// A negative value's key complements the two bytes after it as well (they
// are the caller's), so the terminating zero goes only after a positive one.
KESTREL_API int32_t DBfpShortToKey(char* key, int16_t value) {
  return Convert(key, key, kNumber, [&] {
    ShortToKey(value, Bytes(key));
    if (value >= 0) key[2] = '\0';
  });
}
KESTREL_API int32_t DBfpKeyToShort(int16_t* value, const char* key) {
  return Convert(value, key, kNumber, [&] { *value = KeyToShort(Bytes(key)); });
}
KESTREL_API int32_t DBfpUnsignedShortToKey(char* key, uint16_t value) {
  return Convert(key, key, kNumber, [&] {
    StoreBE16(Bytes(key), value);
    key[2] = '\0';
  });
}
KESTREL_API int32_t DBfpKeyToUnsignedShort(uint16_t* value, const char* key) {
  return Convert(value, key, kNumber, [&] { *value = LoadBE16(Bytes(key)); });
}

KESTREL_API int32_t DBfpDateToKey(char* key, const char* date, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!key || !date) return KS_FAIL(kDate, DB_ERR_NULL);
    Succeed();
    return Record(DateToKey(key, date, style));
  });
}

KESTREL_API int32_t DBfpKeyToDate(char* date, int32_t style, const char* key) {
  return Guarded([&]() -> int32_t {
    if (!key || !date) return KS_FAIL(kDate, DB_ERR_NULL);
    Succeed();
    return Record(KeyToDate(date, style, key));
  });
}

KESTREL_API int32_t DBfpMakeKey(int32_t table, int32_t tag, char** key) {
  if (key) *key = nullptr;
  return OnTag(tag, kMake, [&](FoxIndex* ix, Tag* t) {
    if (!key) return KS_FAIL(kMake, DB_ERR_NULL);
    return MakeKey(table, ix, t, key);
  });
}

KESTREL_API int32_t DBfpGetIndexKeyExpr(int32_t tag, char* text) {
  return OnTag(tag, kExpr, [&](FoxIndex*, Tag* t) {
    if (!text) return KS_FAIL(kExpr, DB_ERR_NULL);
    std::strcpy(text, t->expression);
    return 0;
  });
}

KESTREL_API int32_t DBfpGetIndexInfo(int32_t handle, DBFPINDEXINFO* info) {
  return OnIndex(handle, kInfo, [&](FoxIndex* ix) {
    if (!info) return KS_FAIL(kInfo, DB_ERR_NULL);
    FoxIndex* same = nullptr;
    Tag* tag = nullptr;
    if (ix->single) {
      tag = ix->single;
    } else if ((static_cast<uint32_t>(handle) >> 16) != 0) {
      int32_t rc = SelectTag(handle, &same, &tag, kInfo);
      if (rc < 0) return rc;
    }
    return GetIndexInfo(ix, tag, info);
  });
}

KESTREL_API int32_t DBfpGetTagInfo(int32_t tag, DBFPTAGINFO* info) {
  return OnTag(tag, kTagInfo, [&](FoxIndex*, Tag* t) {
    if (!info) return KS_FAIL(kTagInfo, DB_ERR_NULL);
    return GetTagInfo(t, info);
  });
}

KESTREL_API int32_t DBfpGetAllTagInfo(int32_t handle, DBFPTAGINFO** list, int32_t* count) {
  if (list) *list = nullptr;
  if (count) *count = 0;
  return OnIndex(handle, kTagInfo, [&](FoxIndex* ix) -> int32_t {
    if (!list || !count) return KS_FAIL(kTagInfo, DB_ERR_NULL);
    if (!ix->compound) {
      auto* one = static_cast<DBFPTAGINFO*>(MemAlloc(sizeof(DBFPTAGINFO)));
      if (!one) return KS_FAIL(kTagInfo, DB_ERR_MEMORY);
      GetTagInfo(ix->single, one);
      *list = one;
      *count = 1;
      return 0;
    }
    DirectoryEntry* entries = nullptr;
    int32_t n = 0;
    int32_t rc = ReadDirectory(ix, &entries, &n, kTagInfo);
    if (rc < 0) return rc;
    DBFPTAGINFO* out = nullptr;
    if (n > 0) {
      out = static_cast<DBFPTAGINFO*>(MemAlloc(sizeof(DBFPTAGINFO) * static_cast<size_t>(n)));
      if (!out) rc = KS_FAIL(kTagInfo, DB_ERR_MEMORY);
    }
    for (int32_t i = 0; rc >= 0 && i < n; ++i) {
      Tag tag;
      rc = ReadTagHeader(ix, entries[i].header_offset, &tag, kTagInfo);
      if (rc < 0) break;
      std::memcpy(tag.name, entries[i].name, sizeof tag.name);
      // An open tag reports the type it was given.
      for (int s = 0; s < ix->open_tag_slots; ++s) {
        Tag* open = ix->open_tags[s];
        if (open && open->header_offset == tag.header_offset) tag.type = open->type;
      }
      GetTagInfo(&tag, &out[i]);
    }
    MemFree(entries);
    EndCall(ix);
    if (rc < 0) {
      MemFree(out);
      return rc;
    }
    *list = out;
    *count = n;
    return 0;
  });
}

// ---- DBfb twins ----

KESTREL_API int32_t DBfbOpenIndex(int32_t* handle, const char* filename, int32_t openMode) {
  return DBfpOpenIndex(handle, filename, openMode);
}
KESTREL_API int32_t DBfbCloseIndex(int32_t handle) { return DBfpCloseIndex(handle); }
KESTREL_API int32_t DBfbSetDefaultKeyType(int32_t tag, int32_t type) {
  return DBfpSetDefaultKeyType(tag, type);
}
KESTREL_API int32_t DBfbLockIndex(int32_t handle) { return DBfpLockIndex(handle); }
KESTREL_API int32_t DBfbUnLockIndex(int32_t handle) { return DBfpUnLockIndex(handle); }
KESTREL_API int32_t DBfbFlushIndex(int32_t handle) { return DBfpFlushIndex(handle); }
KESTREL_API int32_t DBfbGetIndexHeader(int32_t handle) { return DBfpGetIndexHeader(handle); }
KESTREL_API int32_t DBfbGetSetCacheSize(int32_t handle, int32_t* count, int32_t operation) {
  return DBfpGetSetCacheSize(handle, count, operation);
}
KESTREL_API int32_t DBfbKeySearch(int32_t tag, char* key, int32_t* record, int32_t mode) {
  return DBfpKeySearch(tag, key, record, mode);
}
KESTREL_API int32_t DBfbGoFirstKey(int32_t tag, char* key, int32_t* record) {
  return DBfpGoFirstKey(tag, key, record);
}
KESTREL_API int32_t DBfbGoLastKey(int32_t tag, char* key, int32_t* record) {
  return DBfpGoLastKey(tag, key, record);
}
KESTREL_API int32_t DBfbGoNextKey(int32_t tag, char* key, int32_t* record) {
  return DBfpGoNextKey(tag, key, record);
}
KESTREL_API int32_t DBfbGoPreviousKey(int32_t tag, char* key, int32_t* record) {
  return DBfpGoPreviousKey(tag, key, record);
}
KESTREL_API int32_t DBfbGetCurrentKey(int32_t tag, char* key, int32_t* record) {
  return DBfpGetCurrentKey(tag, key, record);
}
KESTREL_API int32_t DBfbGetKeyPercent(int32_t tag, int32_t* percent, const char* key,
                                      int32_t record) {
  return DBfpGetKeyPercent(tag, percent, key, record);
}
KESTREL_API int32_t DBfbGetKeyAtPercent(int32_t tag, int32_t percent, char* key,
                                        int32_t* record) {
  return DBfpGetKeyAtPercent(tag, percent, key, record);
}
KESTREL_API int32_t DBfbGetRecordNumber(int32_t table, int32_t* record, int32_t tag,
                                        const char* key) {
  return DBfpGetRecordNumber(table, record, tag, key);
}
KESTREL_API int32_t DBfbNumericToKey(char* key, double value) {
  return DBfpNumericToKey(key, value);
}
KESTREL_API int32_t DBfbKeyToNumeric(double* value, const char* key) {
  return DBfpKeyToNumeric(value, key);
}
KESTREL_API int32_t DBfbDateToKey(char* key, const char* date, int32_t style) {
  return DBfpDateToKey(key, date, style);
}
KESTREL_API int32_t DBfbKeyToDate(char* date, int32_t style, const char* key) {
  return DBfpKeyToDate(date, style, key);
}
KESTREL_API int32_t DBfbMakeKey(int32_t table, int32_t tag, char** key) {
  return DBfpMakeKey(table, tag, key);
}
KESTREL_API int32_t DBfbGetIndexKeyExpr(int32_t tag, char* text) {
  return DBfpGetIndexKeyExpr(tag, text);
}
KESTREL_API int32_t DBfbGetIndexInfo(int32_t tag, DBFPINDEXINFO* info) {
  return DBfpGetIndexInfo(tag, info);
}

}  // extern "C"
