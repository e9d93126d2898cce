// Exported entry points of the dBASE index engine: check the handle and the
// arguments, run the engine, leave the status in the library error code.
// The DBd3... and DBd4... forms of an operation are one entry into the same
// code.
#include <cstring>

#include "index/dbase/dbase_index.h"
#include "kestrel/kestrel_dbase.h"
#include "runtime/boundary.h"
#include "util/coding.h"

using namespace kestrel;
using namespace kestrel::dbase;

namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("MOPEN");
constexpr ModulePath kCache = KS_ENGINE_MODULE("MTBFRSZ");
constexpr ModulePath kZap = KS_ENGINE_MODULE("MZAP");
constexpr ModulePath kSearch = KS_ENGINE_MODULE("MKSEARCH");
constexpr ModulePath kPercent = KS_ENGINE_MODULE("MKPERC");
constexpr ModulePath kAdd = KS_ENGINE_MODULE("MKADD");
constexpr ModulePath kDelete = KS_ENGINE_MODULE("MKDEL");
constexpr ModulePath kNumber = KS_ENGINE_MODULE("MKNUM");
constexpr ModulePath kDate = KS_ENGINE_MODULE("MKDATE");
constexpr ModulePath kMake = KS_ENGINE_MODULE("MKMAKE");
constexpr ModulePath kInfo = KS_ENGINE_MODULE("MINFO");
constexpr ModulePath kExpr = KS_ENGINE_MODULE("MTEXPR");

constexpr int32_t kInfoReadOnly = 1;
constexpr int32_t kInfoShared = 2;
constexpr int32_t kInfoWriteThrough = 4;

int32_t Finish(int32_t rc) { return Record(rc); }

// Runs body on the index a handle names, with the error code reset.
template <class Body>
int32_t OnIndex(int32_t handle, ModulePath module, Body&& body) {
  return Guarded([&]() -> int32_t {
    DbaseIndex* ix = nullptr;
    int32_t rc = SelectIndex(handle, &ix, module);
    if (rc < 0) return rc;
    Record(0);
    return Finish(body(ix));
  });
}

// Runs body on the tag a handle names.
template <class Body>
int32_t OnTag(int32_t handle, ModulePath module, Body&& body) {
  return Guarded([&]() -> int32_t {
    DbaseIndex* ix = nullptr;
    Tag* t = nullptr;
    int32_t rc = SelectTag(handle, &ix, &t, module);
    if (rc < 0) return rc;
    Record(0);
    return Finish(body(ix, t));
  });
}

template <class T>
int32_t ToKey(char* key, T value) {
  return Guarded([&]() -> int32_t {
    if (!key) return KS_FAIL(kNumber, DB_ERR_NULL);
    std::memcpy(key, &value, sizeof value);
    return Succeed();
  });
}

template <class T>
int32_t FromKey(T* value, const char* key) {
  return Guarded([&]() -> int32_t {
    if (!value || !key) return KS_FAIL(kNumber, DB_ERR_NULL);
    std::memcpy(value, key, sizeof *value);
    return Succeed();
  });
}

int32_t Search(int32_t h, char* key, int32_t* record, int32_t mode) {
  return OnTag(h, kSearch, [&](DbaseIndex* ix, Tag* t) { return KeySearch(ix, t, key, record, mode); });
}
int32_t Go(int32_t h, int32_t code, char* key, int32_t* record) {
  return OnTag(h, kSearch, [&](DbaseIndex* ix, Tag* t) { return Move(ix, t, code, key, record); });
}
int32_t Current(int32_t h, char* key, int32_t* record) {
  return OnTag(h, kSearch,
               [&](DbaseIndex* ix, Tag* t) { return GetCurrentKey(ix, t, key, record); });
}
int32_t Percent(int32_t h, int32_t* percent, const char* key, int32_t record) {
  return OnTag(h, kPercent,
               [&](DbaseIndex* ix, Tag* t) { return KeyPercent(ix, t, percent, key, record); });
}
int32_t AtPercent(int32_t h, int32_t percent, char* key, int32_t* record) {
  return OnTag(h, kPercent,
               [&](DbaseIndex* ix, Tag* t) { return KeyAtPercent(ix, t, percent, key, record); });
}
int32_t Add(int32_t h, const char* key, int32_t record, bool insert) {
  return OnTag(h, kAdd, [&](DbaseIndex* ix, Tag* t) {
    return AddKey(ix, t, key, static_cast<uint32_t>(record), insert);
  });
}
int32_t Remove(int32_t h, const char* key, int32_t record) {
  return OnTag(h, kDelete, [&](DbaseIndex* ix, Tag* t) {
    return DeleteKey(ix, t, key, static_cast<uint32_t>(record));
  });
}
int32_t Lock(int32_t h) { return OnIndex(h, kOpen, [&](DbaseIndex* ix) { return LockIndex(ix); }); }
int32_t Unlock(int32_t h) {
  return OnIndex(h, kOpen, [&](DbaseIndex* ix) { return UnlockIndex(ix); });
}
int32_t Flush(int32_t h) {
  return OnIndex(h, kOpen, [&](DbaseIndex* ix) { return FlushIndex(ix, true); });
}
int32_t Header(int32_t h) {
  return OnIndex(h, kOpen, [&](DbaseIndex* ix) -> int32_t {
    if (!IsShared(ix)) return 0;
    return RereadHeader(ix);
  });
}
int32_t Cache(int32_t h, int32_t* count, int32_t operation) {
  return OnIndex(h, kCache, [&](DbaseIndex* ix) { return CacheSize(ix, count, operation); });
}
int32_t Make(int32_t h, int32_t table, char** key) {
  return Guarded([&]() -> int32_t {
    if (!key) return KS_FAIL(kMake, DB_ERR_NULL);
    *key = nullptr;
    DbaseIndex* ix = nullptr;
    Tag* t = nullptr;
    int32_t rc = SelectTag(h, &ix, &t, kMake);
    if (rc < 0) return rc;
    Record(0);
    return Finish(MakeKey(ix, t, table, key));
  });
}
int32_t Info(int32_t h, DBD4INDEXINFO* info) {
  return Guarded([&]() -> int32_t {
    DbaseIndex* ix = nullptr;
    Tag* t = nullptr;
    int32_t rc = SelectTag(h, &ix, &t, kInfo);
    if (rc < 0) return rc;
    if (!info) return KS_FAIL(kInfo, DB_ERR_NULL);
    std::memset(info, 0, sizeof *info);
    std::strncpy(info->file_name, ix->file_name, sizeof info->file_name - 1);
    if (ix->state & kStateReadOnly) info->state |= kInfoReadOnly;
    if (ix->state & kStateShared) info->state |= kInfoShared;
    if (ix->state & kStateWriteThrough) info->state |= kInfoWriteThrough;
    info->key_length = t->layout.key_length;
    info->key_type = t->key_class == kClassCharacter ? 'C' : t->key_class == kClassDouble ? 'N' : t->key_class;
    info->key_flags = t->flags;
    info->lock_state = ix->lock_state;
    size_t n = strnlen(t->expression, 254);
    info->expression_length = static_cast<int32_t>(std::strlen(t->expression));
    std::memcpy(info->expression, t->expression, n);
    info->blocks_per_page = static_cast<int32_t>(ix->page_size / kBlockSize);
    info->tags_in_use = 1;
    return Succeed();
  });
}
int32_t Expression(int32_t h, char* text) {
  return Guarded([&]() -> int32_t {
    DbaseIndex* ix = nullptr;
    Tag* t = nullptr;
    int32_t rc = SelectTag(h, &ix, &t, kExpr);
    if (rc < 0) return rc;
    if (!text) return KS_FAIL(kExpr, DB_ERR_NULL);
    size_t n = strnlen(t->expression, 255);
    std::memcpy(text, t->expression, n);
    text[n] = '\0';
    return Succeed();
  });
}
int32_t NdxNumberToKey(char* key, double value) { return ToKey(key, value); }
int32_t DateKey(char* key, const char* date, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!key || !date) return KS_FAIL(kDate, DB_ERR_NULL);
    Record(0);
    return Finish(DateToKey(reinterpret_cast<uint8_t*>(key), date, style));
  });
}
int32_t KeyDate(char* date, int32_t style, const char* key) {
  return Guarded([&]() -> int32_t {
    if (!key || !date) return KS_FAIL(kDate, DB_ERR_NULL);
    Record(0);
    return Finish(KeyToDate(date, style, reinterpret_cast<const uint8_t*>(key)));
  });
}

}  // namespace

extern "C" {

KESTREL_API int32_t DBd3CreateIndex(const char* filename, int32_t keyType, char* keyExpression,
                                    int32_t keyLength) {
  return Guarded([&]() -> int32_t {
    Record(0);
    return Finish(CreateNdx(filename, keyType, keyExpression, keyLength));
  });
}
KESTREL_API int32_t DBd3OpenIndex(int32_t* handle, const char* filename, int32_t openMode) {
  return Guarded([&]() -> int32_t { return OpenIndex(handle, filename, openMode, kKindNdx); });
}
KESTREL_API int32_t DBd3CloseIndex(int32_t handle) {
  return Guarded([&]() -> int32_t { return CloseIndex(handle); });
}
KESTREL_API int32_t DBd4CloseIndex(int32_t handle) { return DBd3CloseIndex(handle); }
KESTREL_API int32_t DBd3LockIndex(int32_t handle) { return Lock(handle); }
KESTREL_API int32_t DBd4LockIndex(int32_t handle) { return Lock(handle); }
KESTREL_API int32_t DBd3UnLockIndex(int32_t handle) { return Unlock(handle); }
KESTREL_API int32_t DBd4UnLockIndex(int32_t handle) { return Unlock(handle); }
KESTREL_API int32_t DBd3FlushIndex(int32_t handle) { return Flush(handle); }
KESTREL_API int32_t DBd4FlushIndex(int32_t handle) { return Flush(handle); }
KESTREL_API int32_t DBd3GetIndexHeader(int32_t handle) { return Header(handle); }
KESTREL_API int32_t DBd4GetIndexHeader(int32_t handle) { return Header(handle); }
KESTREL_API int32_t DBd3GetSetCacheSize(int32_t handle, int32_t* count, int32_t operation) {
  return Cache(handle, count, operation);
}
KESTREL_API int32_t DBd4GetSetCacheSize(int32_t handle, int32_t* count, int32_t operation) {
  return Cache(handle, count, operation);
}
KESTREL_API int32_t DBd3ZapIndex(int32_t handle) {
  return OnTag(handle, kZap, [&](DbaseIndex* ix, Tag* t) { return ZapIndex(ix, t); });
}

KESTREL_API int32_t DBd3BuildIndex(int32_t table, const char* filename, int32_t keyType,
                                   char* keyExpression, int32_t keyLength) {
  return Guarded([&]() -> int32_t {
    Record(0);
    return BuildNdx(table, filename, keyType, keyExpression, keyLength);
  });
}

KESTREL_API int32_t DBd3KeySearch(int32_t h, char* key, int32_t* record, int32_t mode) {
  return Search(h, key, record, mode);
}
KESTREL_API int32_t DBd4KeySearch(int32_t h, char* key, int32_t* record, int32_t mode) {
  return Search(h, key, record, mode);
}
KESTREL_API int32_t DBd3GoFirstKey(int32_t h, char* key, int32_t* record) {
  return Go(h, index::kMoveFirst, key, record);
}
KESTREL_API int32_t DBd4GoFirstKey(int32_t h, char* key, int32_t* record) {
  return Go(h, index::kMoveFirst, key, record);
}
KESTREL_API int32_t DBd3GoLastKey(int32_t h, char* key, int32_t* record) {
  return Go(h, index::kMoveLast, key, record);
}
KESTREL_API int32_t DBd4GoLastKey(int32_t h, char* key, int32_t* record) {
  return Go(h, index::kMoveLast, key, record);
}
KESTREL_API int32_t DBd3GoNextKey(int32_t h, char* key, int32_t* record) {
  return Go(h, index::kMoveNext, key, record);
}
KESTREL_API int32_t DBd4GoNextKey(int32_t h, char* key, int32_t* record) {
  return Go(h, index::kMoveNext, key, record);
}
KESTREL_API int32_t DBd3GoPreviousKey(int32_t h, char* key, int32_t* record) {
  return Go(h, index::kMovePrevious, key, record);
}
KESTREL_API int32_t DBd4GoPreviousKey(int32_t h, char* key, int32_t* record) {
  return Go(h, index::kMovePrevious, key, record);
}
KESTREL_API int32_t DBd3GetCurrentKey(int32_t h, char* key, int32_t* record) {
  return Current(h, key, record);
}
KESTREL_API int32_t DBd4GetCurrentKey(int32_t h, char* key, int32_t* record) {
  return Current(h, key, record);
}
KESTREL_API int32_t DBd3GetKeyPercent(int32_t h, int32_t* percent, const char* key,
                                      int32_t record) {
  return Percent(h, percent, key, record);
}
KESTREL_API int32_t DBd4GetKeyPercent(int32_t h, int32_t* percent, const char* key,
                                      int32_t record) {
  return Percent(h, percent, key, record);
}
KESTREL_API int32_t DBd3GetKeyAtPercent(int32_t h, int32_t percent, char* key, int32_t* record) {
  return AtPercent(h, percent, key, record);
}
KESTREL_API int32_t DBd4GetKeyAtPercent(int32_t h, int32_t percent, char* key, int32_t* record) {
  return AtPercent(h, percent, key, record);
}

KESTREL_API int32_t DBd3AddKey(int32_t h, const char* key, int32_t record) {
  return Add(h, key, record, false);
}
KESTREL_API int32_t DBd4AddKey(int32_t h, const char* key, int32_t record) {
  return Add(h, key, record, false);
}
KESTREL_API int32_t DBd3InsertKey(int32_t h, const char* key, int32_t record) {
  return Add(h, key, record, true);
}
KESTREL_API int32_t DBd4InsertKey(int32_t h, const char* key, int32_t record) {
  return Add(h, key, record, true);
}
KESTREL_API int32_t DBd3DeleteKey(int32_t h, const char* key, int32_t record) {
  return Remove(h, key, record);
}
KESTREL_API int32_t DBd4DeleteKey(int32_t h, const char* key, int32_t record) {
  return Remove(h, key, record);
}

KESTREL_API int32_t DBd4NumericToKey(char* key, double value) {
  return Guarded([&]() -> int32_t {
    if (!key) return KS_FAIL(kNumber, DB_ERR_NULL);
    DecimalToKey(value, reinterpret_cast<uint8_t*>(key));
    return Succeed();
  });
}
KESTREL_API int32_t DBd4KeyToNumeric(double* value, const char* key) {
  return Guarded([&]() -> int32_t {
    if (!value || !key) return KS_FAIL(kNumber, DB_ERR_NULL);
    *value = KeyToDecimal(reinterpret_cast<const uint8_t*>(key));
    return Succeed();
  });
}
KESTREL_API int32_t DBd3NumericToKey(char* key, double value) { return NdxNumberToKey(key, value); }
KESTREL_API int32_t DBd3KeyToNumeric(double* value, const char* key) { return FromKey(value, key); }
KESTREL_API int32_t DBd4DoubleToKey(char* key, double value) { return ToKey(key, value); }
KESTREL_API int32_t DBd4KeyToDouble(double* value, const char* key) { return FromKey(value, key); }
KESTREL_API int32_t DBd4FloatToKey(char* key, float value) { return ToKey(key, value); }
KESTREL_API int32_t DBd4KeyToFloat(float* value, const char* key) { return FromKey(value, key); }
KESTREL_API int32_t DBd4LongToKey(char* key, int32_t value) { return ToKey(key, value); }
KESTREL_API int32_t DBd4KeyToLong(int32_t* value, const char* key) { return FromKey(value, key); }
KESTREL_API int32_t DBd4UnsignedLongToKey(char* key, uint32_t value) { return ToKey(key, value); }
KESTREL_API int32_t DBd4KeyToUnsignedLong(uint32_t* value, const char* key) {
  return FromKey(value, key);
}
KESTREL_API int32_t DBd4ShortToKey(char* key, int16_t value) { return ToKey(key, value); }
KESTREL_API int32_t DBd4KeyToShort(int16_t* value, const char* key) { return FromKey(value, key); }
KESTREL_API int32_t DBd4UnsignedShortToKey(char* key, uint16_t value) { return ToKey(key, value); }
KESTREL_API int32_t DBd4KeyToUnsignedShort(uint16_t* value, const char* key) {
  return FromKey(value, key);
}
KESTREL_API int32_t DBd4DateToKey(char* key, const char* date, int32_t style) {
  return DateKey(key, date, style);
}
KESTREL_API int32_t DBd3DateToKey(char* key, const char* date, int32_t style) {
  return DateKey(key, date, style);
}
KESTREL_API int32_t DBd4KeyToDate(char* date, int32_t style, const char* key) {
  return KeyDate(date, style, key);
}
KESTREL_API int32_t DBd3KeyToDate(char* date, int32_t style, const char* key) {
  return KeyDate(date, style, key);
}
KESTREL_API int32_t DBd4MakeKey(int32_t handle, int32_t table, char** key) {
  return Make(handle, table, key);
}
KESTREL_API int32_t DBd3MakeKey(int32_t handle, int32_t table, char** key) {
  return Make(handle, table, key);
}
KESTREL_API int32_t DBd3GetIndexInfo(int32_t handle, DBD4INDEXINFO* info) {
  return Info(handle, info);
}
KESTREL_API int32_t DBd4GetIndexInfo(int32_t handle, DBD4INDEXINFO* info) {
  return Info(handle, info);
}
KESTREL_API int32_t DBd3GetIndexKeyExpr(int32_t handle, char* text) {
  return Expression(handle, text);
}
KESTREL_API int32_t DBd4GetIndexKeyExpr(int32_t handle, char* text) {
  return Expression(handle, text);
}

}  // extern "C"
