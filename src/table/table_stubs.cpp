// Placeholder entry points while the table engine is being written; each one
// is removed as its real implementation lands.
#include "kestrel/kestrel_table.h"

extern "C" {
KESTREL_API int32_t DBCreateFile(const char *name, int32_t field_count, DBFIELD *fields, int32_t dialect) {
  (void)name;
  (void)field_count;
  (void)fields;
  (void)dialect;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBOpenFile(int32_t *handle, const char *name, int32_t mode) {
  (void)handle;
  (void)name;
  (void)mode;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBCloseFile(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBFlushFile(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetFileHeader(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetFileInfo(int32_t handle, DBFILEINFO *info) {
  (void)handle;
  (void)info;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetFileDescription(int32_t handle, int32_t *widest, DBFIELD *fields) {
  (void)handle;
  (void)widest;
  (void)fields;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetFieldDescription(int32_t handle, int32_t field, DBFIELD *description) {
  (void)handle;
  (void)field;
  (void)description;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetLastUpdate(int32_t handle, char *buffer, int32_t date_style) {
  (void)handle;
  (void)buffer;
  (void)date_style;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBSetProductionIndex(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBSetFieldIndexed(int32_t handle, int32_t field) {
  (void)handle;
  (void)field;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetRecord(int32_t handle, int32_t recno) {
  (void)handle;
  (void)recno;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetRecordToBuffer(int32_t handle, void *buffer, int32_t recno) {
  (void)handle;
  (void)buffer;
  (void)recno;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBPutRecord(int32_t handle, int32_t *recno, int32_t mode) {
  (void)handle;
  (void)recno;
  (void)mode;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBPutRecordFromBuffer(int32_t handle, const void *buffer, int32_t *recno, int32_t mode) {
  (void)handle;
  (void)buffer;
  (void)recno;
  (void)mode;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBMarkRecordInActive(int32_t handle, int32_t recno) {
  (void)handle;
  (void)recno;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBMarkRecordActive(int32_t handle, int32_t recno) {
  (void)handle;
  (void)recno;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBIsRecordDeleted(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetRecordCount(int32_t handle, int32_t *count) {
  (void)handle;
  (void)count;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetRecordNumber(int32_t handle, int32_t *recno) {
  (void)handle;
  (void)recno;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetRecordInfo(int32_t handle, DBRECORDINFO *info) {
  (void)handle;
  (void)info;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBClearBuffer(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBSetBufferAddress(int32_t handle, void *address) {
  (void)handle;
  (void)address;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBIsBeginningOfFile(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBIsEndOfFile(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetSetCacheSize(int32_t handle, int32_t *records, int32_t op) {
  (void)handle;
  (void)records;
  (void)op;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetFieldData(int32_t handle, int32_t field, void *value) {
  (void)handle;
  (void)field;
  (void)value;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetNamedData(int32_t handle, const char *name, void *value) {
  (void)handle;
  (void)name;
  (void)value;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetStrField(int32_t handle, int32_t field, char *buffer) {
  (void)handle;
  (void)field;
  (void)buffer;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetNamedStr(int32_t handle, const char *name, char *buffer) {
  (void)handle;
  (void)name;
  (void)buffer;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetFieldBinary(int32_t handle, int32_t field, void *buffer) {
  (void)handle;
  (void)field;
  (void)buffer;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetNamedBinary(int32_t handle, const char *name, void *buffer) {
  (void)handle;
  (void)name;
  (void)buffer;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBPutFieldData(int32_t handle, int32_t field, const void *value) {
  (void)handle;
  (void)field;
  (void)value;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBPutNamedData(int32_t handle, const char *name, const void *value) {
  (void)handle;
  (void)name;
  (void)value;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBPutStrField(int32_t handle, int32_t field, const char *text) {
  (void)handle;
  (void)field;
  (void)text;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBPutNamedStr(int32_t handle, const char *name, const char *text) {
  (void)handle;
  (void)name;
  (void)text;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBPutFieldBinary(int32_t handle, int32_t field, const void *bytes) {
  (void)handle;
  (void)field;
  (void)bytes;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBPutNamedBinary(int32_t handle, const char *name, const void *bytes) {
  (void)handle;
  (void)name;
  (void)bytes;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetFieldNumber(int32_t handle, int32_t *number, const char *name) {
  (void)handle;
  (void)number;
  (void)name;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetFieldName(int32_t handle, char *buffer, int32_t field) {
  (void)handle;
  (void)buffer;
  (void)field;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBIsFieldBlank(int32_t handle, int32_t field) {
  (void)handle;
  (void)field;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBIsNamedBlank(int32_t handle, const char *name) {
  (void)handle;
  (void)name;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBLockFile(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBLockHeader(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBLockRecord(int32_t handle, int32_t recno) {
  (void)handle;
  (void)recno;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBUnLockRecord(int32_t handle, int32_t recno) {
  (void)handle;
  (void)recno;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBUnLockHeader(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBUnLockAll(int32_t handle) {
  (void)handle;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBIsRecordLocked(int32_t handle, int32_t recno) {
  (void)handle;
  (void)recno;
  return DB_ERR_INVALID_COMMAND;
}
KESTREL_API int32_t DBGetLockInfo(int32_t handle, DBLOCKINFO **locks, int32_t *count) {
  (void)handle;
  (void)locks;
  (void)count;
  return DB_ERR_INVALID_COMMAND;
}
}
