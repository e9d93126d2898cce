// Exported entry points of the .NTX engine: check the handle and the
// arguments, run the engine, leave the status in the library error code.
#include <cstring>

#include "index/clipper/ntx_build.h"
#include "index/clipper/ntx_index.h"
#include "kestrel/kestrel_ntx.h"
#include "runtime/boundary.h"

using namespace kestrel;
using namespace kestrel::ntx;

namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("COPEN");
constexpr ModulePath kCache = KS_ENGINE_MODULE("CBFRSZ");
constexpr ModulePath kZap = KS_ENGINE_MODULE("CZAP");
constexpr ModulePath kSearch = KS_ENGINE_MODULE("CKSEARCH");
constexpr ModulePath kPercent = KS_ENGINE_MODULE("CKPERC");
constexpr ModulePath kAdd = KS_ENGINE_MODULE("CKADD");
constexpr ModulePath kDelete = KS_ENGINE_MODULE("CKDEL");
constexpr ModulePath kNumber = KS_ENGINE_MODULE("CKNUM");
constexpr ModulePath kDate = KS_ENGINE_MODULE("CKDATE");
constexpr ModulePath kMake = KS_ENGINE_MODULE("CKMAKE");
constexpr ModulePath kInfo = KS_ENGINE_MODULE("CINFO");
constexpr ModulePath kExpr = KS_ENGINE_MODULE("CEXPR");

// Runs body on the selected index with the error code reset.
template <class Body>
int32_t OnIndex(int32_t handle, ModulePath module, Body&& body) {
  return Guarded([&]() -> int32_t {
    NtxIndex* ix = nullptr;
    int32_t rc = SelectIndex(handle, &ix, module);
    if (rc < 0) return rc;
    Succeed();
    return Record(body(ix));
  });
}

template <class T>
int32_t ToKey(char* key, T value, int type) {
  return Guarded([&]() -> int32_t {
    if (!key) return KS_FAIL(kNumber, DB_ERR_NULL);
    BinaryToKey(type, &value, reinterpret_cast<uint8_t*>(key));
    key[table::BinaryTypeSize(type)] = '\0';
    return Succeed();
  });
}

template <class T>
int32_t FromKey(T* value, const char* key, int type) {
  return Guarded([&]() -> int32_t {
    if (!value || !key) return KS_FAIL(kNumber, DB_ERR_NULL);
    KeyToBinary(type, reinterpret_cast<const uint8_t*>(key), value);
    return Succeed();
  });
}

}  // namespace

extern "C" {

KESTREL_API int32_t DBclCreateIndex(const char* filename, int32_t keyType, char* keyExpression,
                                    int32_t keyLength, int32_t decimals) {
  return Guarded([&]() -> int32_t {
    Succeed();
    return Record(CreateIndex(filename, keyType, keyExpression, keyLength, decimals));
  });
}

KESTREL_API int32_t DBclOpenIndex(int32_t* handle, const char* filename, int32_t openMode) {
  return Guarded([&]() -> int32_t { return OpenIndex(handle, filename, openMode); });
}

KESTREL_API int32_t DBclCloseIndex(int32_t handle) {
  return Guarded([&]() -> int32_t { return CloseIndex(handle); });
}

KESTREL_API int32_t DBclLockIndex(int32_t handle) {
  return OnIndex(handle, kOpen, [&](NtxIndex* ix) { return LockIndex(ix); });
}

KESTREL_API int32_t DBclUnLockIndex(int32_t handle) {
  return OnIndex(handle, kOpen, [&](NtxIndex* ix) { return UnlockIndex(ix); });
}

KESTREL_API int32_t DBclFlushIndex(int32_t handle) {
  return OnIndex(handle, kOpen, [&](NtxIndex* ix) { return FlushIndex(ix, true); });
}

KESTREL_API int32_t DBclGetIndexHeader(int32_t handle) {
  return OnIndex(handle, kOpen, [&](NtxIndex* ix) -> int32_t {
    if (!IsShared(ix)) return 0;
    return RereadHeader(ix);
  });
}

KESTREL_API int32_t DBclGetSetCacheSize(int32_t handle, int32_t* count, int32_t operation) {
  return OnIndex(handle, kCache, [&](NtxIndex* ix) { return CacheSize(ix, count, operation); });
}

KESTREL_API int32_t DBclZapIndex(int32_t handle) {
  return OnIndex(handle, kZap, [&](NtxIndex* ix) { return ZapIndex(ix); });
}

KESTREL_API int32_t DBclBuildIndex(int32_t table, const char* filename, int32_t keyType,
                                   char* keyExpression, int32_t keyLength, int32_t decimals) {
  return Guarded([&]() -> int32_t {
    Succeed();
    return BuildIndex(table, filename, keyType, keyExpression, keyLength, decimals, nullptr);
  });
}

KESTREL_API int32_t DBclBuildIndexWithProgress(int32_t table, const char* filename, int32_t keyType,
                                               char* keyExpression, int32_t keyLength,
                                               int32_t decimals, DBCLBUILDPROGRESS progress,
                                               void* context) {
  return Guarded([&]() -> int32_t {
    Succeed();
    kestrel::index::BuildProgress report{progress, context};
    return BuildIndex(table, filename, keyType, keyExpression, keyLength, decimals,
                      progress ? &report : nullptr);
  });
}

KESTREL_API int32_t DBclKeySearch(int32_t handle, char* key, int32_t* record, int32_t mode) {
  return OnIndex(handle, kSearch, [&](NtxIndex* ix) { return KeySearch(ix, key, record, mode); });
}

KESTREL_API int32_t DBclGoFirstKey(int32_t handle, char* key, int32_t* record) {
  return OnIndex(handle, kSearch,
                 [&](NtxIndex* ix) { return Move(ix, index::kMoveFirst, key, record); });
}

KESTREL_API int32_t DBclGoLastKey(int32_t handle, char* key, int32_t* record) {
  return OnIndex(handle, kSearch,
                 [&](NtxIndex* ix) { return Move(ix, index::kMoveLast, key, record); });
}

KESTREL_API int32_t DBclGoNextKey(int32_t handle, char* key, int32_t* record) {
  return OnIndex(handle, kSearch,
                 [&](NtxIndex* ix) { return Move(ix, index::kMoveNext, key, record); });
}

KESTREL_API int32_t DBclGoPreviousKey(int32_t handle, char* key, int32_t* record) {
  return OnIndex(handle, kSearch,
                 [&](NtxIndex* ix) { return Move(ix, index::kMovePrevious, key, record); });
}

KESTREL_API int32_t DBclGetCurrentKey(int32_t handle, char* key, int32_t* record) {
  return OnIndex(handle, kSearch, [&](NtxIndex* ix) { return GetCurrentKey(ix, key, record); });
}

KESTREL_API int32_t DBclGetKeyPercent(int32_t handle, int32_t* percent, const char* key,
                                      int32_t record) {
  return OnIndex(handle, kPercent,
                 [&](NtxIndex* ix) { return KeyPercent(ix, percent, key, record); });
}

KESTREL_API int32_t DBclGetKeyAtPercent(int32_t handle, int32_t percent, char* key,
                                        int32_t* record) {
  return OnIndex(handle, kPercent,
                 [&](NtxIndex* ix) { return KeyAtPercent(ix, percent, key, record); });
}

KESTREL_API int32_t DBclAddKey(int32_t handle, const char* key, int32_t record) {
  return OnIndex(handle, kAdd, [&](NtxIndex* ix) {
    return AddKey(ix, key, static_cast<uint32_t>(record), false);
  });
}

KESTREL_API int32_t DBclInsertKey(int32_t handle, const char* key, int32_t record) {
  return OnIndex(handle, kAdd, [&](NtxIndex* ix) {
    return AddKey(ix, key, static_cast<uint32_t>(record), true);
  });
}

KESTREL_API int32_t DBclDeleteKey(int32_t handle, const char* key, int32_t record) {
  return OnIndex(handle, kDelete,
                 [&](NtxIndex* ix) { return DeleteKey(ix, key, static_cast<uint32_t>(record)); });
}

KESTREL_API int32_t DBclNumericToKey(int32_t handle, char* key, double value) {
  return OnIndex(handle, kNumber, [&](NtxIndex* ix) -> int32_t {
    if (!key) return KS_FAIL(kNumber, DB_ERR_NULL);
    int32_t rc = NumericToKey(value, ix->key->key_length, ix->key->decimals, ix->numeric_form, key);
    if (rc < 0) return KS_FAIL(kNumber, rc);
    return rc;
  });
}

KESTREL_API int32_t DBclKeyToNumeric(double* value, const char* key) {
  return Guarded([&]() -> int32_t {
    if (!value || !key) return KS_FAIL(kNumber, DB_ERR_NULL);
    *value = KeyToNumeric(key);
    return Succeed();
  });
}

KESTREL_API int32_t DBclDateToKey(char* key, const char* date, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!key || !date) return KS_FAIL(kDate, DB_ERR_NULL);
    return DateToKey(key, date, style);
  });
}

KESTREL_API int32_t DBclKeyToDate(char* date, int32_t style, const char* key) {
  return Guarded([&]() -> int32_t {
    if (!key || !date) return KS_FAIL(kDate, DB_ERR_NULL);
    return KeyToDate(date, style, key);
  });
}

KESTREL_API int32_t DBclDoubleToKey(char* key, double value) { return ToKey(key, value, 1); }
KESTREL_API int32_t DBclFloatToKey(char* key, float value) { return ToKey(key, value, 2); }
KESTREL_API int32_t DBclUnsignedLongToKey(char* key, uint32_t value) {
  return ToKey(key, value, 3);
}
KESTREL_API int32_t DBclLongToKey(char* key, int32_t value) { return ToKey(key, value, 4); }
KESTREL_API int32_t DBclUnsignedShortToKey(char* key, uint16_t value) {
  return ToKey(key, value, 5);
}
KESTREL_API int32_t DBclShortToKey(char* key, int16_t value) { return ToKey(key, value, 6); }
KESTREL_API int32_t DBclKeyToDouble(double* value, const char* key) {
  return FromKey(value, key, 1);
}
KESTREL_API int32_t DBclKeyToFloat(float* value, const char* key) { return FromKey(value, key, 2); }
KESTREL_API int32_t DBclKeyToUnsignedLong(uint32_t* value, const char* key) {
  return FromKey(value, key, 3);
}
KESTREL_API int32_t DBclKeyToLong(int32_t* value, const char* key) {
  return FromKey(value, key, 4);
}
KESTREL_API int32_t DBclKeyToUnsignedShort(uint16_t* value, const char* key) {
  return FromKey(value, key, 5);
}
KESTREL_API int32_t DBclKeyToShort(int16_t* value, const char* key) {
  return FromKey(value, key, 6);
}

KESTREL_API int32_t DBclMakeKey(int32_t table, int32_t handle, char** key) {
  return Guarded([&]() -> int32_t {
    if (!key) return KS_FAIL(kMake, DB_ERR_NULL);
    *key = nullptr;
    NtxIndex* ix = nullptr;
    int32_t rc = SelectIndex(handle, &ix, kMake);
    if (rc < 0) return rc;
    Succeed();
    return Record(MakeKey(table, ix, key));
  });
}

KESTREL_API int32_t DBclSetNumericKeyForm(int32_t handle, int32_t form, int32_t* previous) {
  return OnIndex(handle, kNumber, [&](NtxIndex* ix) -> int32_t {
    if (form != kNumericIntegerDigits && form != kNumericWithDecimals) {
      return KS_FAIL(kNumber, DB_ERR_INVALID_COMMAND);
    }
    if (previous) *previous = ix->numeric_form;
    ix->numeric_form = form;
    return 0;
  });
}

KESTREL_API int32_t DBclGetIndexInfo(int32_t handle, DBCLINDEXINFO* info) {
  return OnIndex(handle, kInfo, [&](NtxIndex* ix) -> int32_t {
    if (!info) return KS_FAIL(kInfo, DB_ERR_NULL);
    return GetIndexInfo(ix, info);
  });
}

KESTREL_API int32_t DBclGetIndexKeyExpr(int32_t handle, char* text) {
  return OnIndex(handle, kExpr, [&](NtxIndex* ix) -> int32_t {
    if (!text) return KS_FAIL(kExpr, DB_ERR_NULL);
    std::strcpy(text, ix->key->expression);
    return 0;
  });
}

}  // extern "C"
