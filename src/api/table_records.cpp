// Exported record functions (modules DRGET, DRPUT, DRSTAT, DSIZE, DRNUM,
// DRINFO, DRCLEAR, DRBFR, DBOF, DEOF, DBFRSZ): handle and argument checks,
// then the record engine of table/table_control.h.
#include "runtime/boundary.h"
#include "table/table_control.h"

using namespace kestrel;
using namespace kestrel::table;

namespace {
constexpr ModulePath kDrget = KS_ENGINE_MODULE("DRGET");
constexpr ModulePath kDrput = KS_ENGINE_MODULE("DRPUT");
constexpr ModulePath kDrstat = KS_ENGINE_MODULE("DRSTAT");
constexpr ModulePath kDrnum = KS_ENGINE_MODULE("DRNUM");
constexpr ModulePath kDrinfo = KS_ENGINE_MODULE("DRINFO");
constexpr ModulePath kDrclear = KS_ENGINE_MODULE("DRCLEAR");
constexpr ModulePath kDrbfr = KS_ENGINE_MODULE("DRBFR");
constexpr ModulePath kDsize = KS_ENGINE_MODULE("DSIZE");
constexpr ModulePath kDeof = KS_ENGINE_MODULE("DEOF");
constexpr ModulePath kDbof = KS_ENGINE_MODULE("DBOF");
constexpr ModulePath kDbfrsz = KS_ENGINE_MODULE("DBFRSZ");

int32_t Mark(int32_t handle, int32_t recno, uint8_t mark) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDrstat);
    if (!t) return ErrorCode();
    return MarkRecord(t, recno, mark);
  });
}
}  // namespace

namespace {
// Record reads and writes through the caller's buffer or the table's own
// (buffer null).
int32_t GetInto(int32_t handle, void* buffer, int32_t recno) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDrget);
    if (!t) return ErrorCode();
    return GetRecord(t, buffer, recno);
  });
}

int32_t PutFrom(int32_t handle, const void* buffer, int32_t* recno, int32_t mode) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDrput);
    if (!t) return ErrorCode();
    if (!recno) return KS_FAIL(kDrput, DB_ERR_NULL);
    return PutRecord(t, buffer, recno, mode);
  });
}
}  // namespace

extern "C" KESTREL_API int32_t DBGetRecordToBuffer(int32_t handle, void* buffer, int32_t recno) {
  return GetInto(handle, buffer, recno);
}

extern "C" KESTREL_API int32_t DBGetRecord(int32_t handle, int32_t recno) {
  return GetInto(handle, nullptr, recno);
}

extern "C" KESTREL_API int32_t DBPutRecordFromBuffer(int32_t handle, const void* buffer,
                                                     int32_t* recno, int32_t mode) {
  return PutFrom(handle, buffer, recno, mode);
}

extern "C" KESTREL_API int32_t DBPutRecord(int32_t handle, int32_t* recno, int32_t mode) {
  return PutFrom(handle, nullptr, recno, mode);
}

extern "C" KESTREL_API int32_t DBMarkRecordInActive(int32_t handle, int32_t recno) {
  return Mark(handle, recno, kDeletedFlag);
}

extern "C" KESTREL_API int32_t DBMarkRecordActive(int32_t handle, int32_t recno) {
  return Mark(handle, recno, kActiveFlag);
}

extern "C" KESTREL_API int32_t DBIsRecordDeleted(int32_t handle) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDrstat);
    if (!t) return ErrorCode();
    return IsRecordDeleted(t);
  });
}

extern "C" KESTREL_API int32_t DBGetRecordCount(int32_t handle, uint32_t* count) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDsize);
    if (!t) return ErrorCode();
    if (!count) return KS_FAIL(kDsize, DB_ERR_NULL);
    return GetRecordCount(t, count);
  });
}

extern "C" KESTREL_API int32_t DBGetRecordNumber(int32_t handle, int32_t* recno) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDrnum);
    if (!t) return ErrorCode();
    if (!recno) return KS_FAIL(kDrnum, DB_ERR_NULL);
    *recno = t->current;
    return Succeed();
  });
}

extern "C" KESTREL_API int32_t DBGetRecordInfo(int32_t handle, DBRECORDINFO* info) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDrinfo);
    if (!t) return ErrorCode();
    if (!info) return KS_FAIL(kDrinfo, DB_ERR_NULL);
    return GetRecordInfo(t, info);
  });
}

extern "C" KESTREL_API int32_t DBClearBuffer(int32_t handle) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDrclear);
    if (!t) return ErrorCode();
    return ClearRecordBuffer(t);
  });
}

extern "C" KESTREL_API int32_t DBSetBufferAddress(int32_t handle, void* address) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDrbfr);
    if (!t) return ErrorCode();
    if (!address) return KS_FAIL(kDrbfr, DB_ERR_NULL);
    return SetRecordBuffer(t, address);
  });
}

extern "C" KESTREL_API int32_t DBIsBeginningOfFile(int32_t handle) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDbof);
    if (!t) return ErrorCode();
    return AtFirstRecord(t);
  });
}

extern "C" KESTREL_API int32_t DBIsEndOfFile(int32_t handle) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDeof);
    if (!t) return ErrorCode();
    return AtLastRecord(t);
  });
}

extern "C" KESTREL_API int32_t DBGetSetCacheSize(int32_t handle, int32_t* records, int32_t op) {
  return Guarded([&]() -> int32_t {
    TableControl* t = LookUp(handle, kDbfrsz);
    if (!t) return ErrorCode();
    if (!records) return KS_FAIL(kDbfrsz, DB_ERR_NULL);
    return CacheSize(t, records, op);
  });
}
