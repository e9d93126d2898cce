/* KESTREL procedural interface: tables (.DBF files), records, fields and
 * table locks.  Included by kestrel/kestrel.h.
 *
 * Every function returns a status code (0, a warning 201..212, or a negative
 * error; see kestrel_frame.h) and sets the library error code on failure.
 * Tables are named by the int32_t handles that DBOpenFile hands out.  The
 * library keeps process-wide state and no in-process locks: callers make one
 * call at a time. */
#ifndef KESTREL_TABLE_H
#define KESTREL_TABLE_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

/* ---- Table dialects: the low byte of the open mode and the create dialect. */
#define DB_DIALECT_DEFAULT 0    /* dBASE III rules, 0x03 even with memos; opened as 1 */
#define DB_DIALECT_DBASE3 1     /* dBASE III */
#define DB_DIALECT_DBASE4 2     /* dBASE IV (memo version 0x8B, production MDX, 20-digit N, F) */
#define DB_DIALECT_FOXBASE 3    /* FoxBase */
#define DB_DIALECT_FOX_F5 4     /* FoxPro rules (memo version 0xF5), dBASE field limits */
#define DB_DIALECT_CLIPPER5 5   /* Clipper locking and counting, 1023 fields */
#define DB_DIALECT_CLIPPER 6    /* Clipper (C fields up to 2048, records up to 8192) */
#define DB_DIALECT_EOF_RECORD 7 /* appends end the file with a whole record of 0x1A bytes */
#define DB_DIALECT_FOXPRO 8     /* FoxPro (memo version 0xF5, production CDX) */
#define DB_DIALECT_TERMBLOCK 9  /* header ends with a 32-byte terminator block */

/* Create-dialect bit: the table has a production index (header byte 28 = 1). */
#define DB_CREATE_PRODUCTION_INDEX 0x200

/* DBPutRecord / DBPutRecordFromBuffer modes. */
#define DB_RECORD_APPEND 0
#define DB_RECORD_REPLACE 256

/* DBGetSetCacheSize operations. */
#define DB_CACHE_SET 0
#define DB_CACHE_GET 1

/* Native (binary) field and key type codes; letters 'C', 'D', 'L', 'N', 'F',
 * 'M' are the text types. */
#define DB_FTYPE_DOUBLE 1 /* 8-byte IEEE double */
#define DB_FTYPE_FLOAT 2  /* 4-byte IEEE float */
#define DB_FTYPE_ULONG 3  /* unsigned 32-bit */
#define DB_FTYPE_LONG 4   /* signed 32-bit */
#define DB_FTYPE_USHORT 5 /* unsigned 16-bit */
#define DB_FTYPE_SHORT 6  /* signed 16-bit */

/* Lock state bits (DBFILEINFO.lock_state) and lock kinds (DBLOCKINFO.kind). */
#define DB_LOCK_RECORD 1
#define DB_LOCK_HEADER 2
#define DB_LOCK_FILE 4

/* A field description: given to DBCreateFile, returned by
 * DBGetFileDescription and DBGetFieldDescription. */
typedef struct DBFIELD {
  char name[12];    /* zero-terminated name, 1..10 characters */
  int32_t type;     /* low byte: type letter or binary code; DBCreateFile reads
                       bit 0 of the second byte as the dBASE IV indexed flag */
  int32_t length;   /* full length (C fields may exceed 255) */
  int32_t decimals; /* decimal count (N, F) */
} DBFIELD;

/* What DBGetFileInfo reports about an open table. */
typedef struct DBFILEINFO {
  uint32_t attributes;      /* bit 0 read-only, bit 1 unbuffered, bit 2 shared;
                               other bits are the caller's and kept */
  char name[80];            /* the file name given to DBOpenFile */
  int32_t dialect;          /* dialect code 1..9 */
  int32_t has_memo;         /* 1 when a field of type M exists */
  int32_t production_index; /* header byte 28 */
  int32_t reserved14;       /* header byte 14 */
  int32_t reserved15;       /* header byte 15 */
  int32_t lock_state;       /* DB_LOCK_* bits held */
  int32_t lock_count;       /* number of locks held */
} DBFILEINFO;

/* What DBGetRecordInfo reports: the record buffer address is pointer-sized. */
typedef struct DBRECORDINFO {
  int32_t record_length; /* bytes, deletion flag included */
  int32_t field_count;   /* number of fields */
  void* record_buffer;   /* the table's current record buffer */
} DBRECORDINFO;

/* One held lock as DBGetLockInfo reports it. */
typedef struct DBLOCKINFO {
  int32_t kind;   /* DB_LOCK_RECORD, DB_LOCK_HEADER or DB_LOCK_FILE */
  int32_t record; /* the record number for a record lock, else 0 */
} DBLOCKINFO;

/* ---- Create, open, close, describe -------------------------------------- */
KESTREL_API int32_t DBCreateFile(const char* name, int32_t field_count, DBFIELD* fields,
                                 int32_t dialect);
KESTREL_API int32_t DBOpenFile(int32_t* handle, const char* name, int32_t mode);
KESTREL_API int32_t DBCloseFile(int32_t handle);
KESTREL_API int32_t DBFlushFile(int32_t handle);
KESTREL_API int32_t DBGetFileHeader(int32_t handle);
KESTREL_API int32_t DBGetFileInfo(int32_t handle, DBFILEINFO* info);
/* fields: room for one DBFIELD per field (DBGetRecordInfo gives the count). */
KESTREL_API int32_t DBGetFileDescription(int32_t handle, int32_t* widest, DBFIELD* fields);
KESTREL_API int32_t DBGetFieldDescription(int32_t handle, int32_t field, DBFIELD* description);
/* buffer: DB_DATE_STR_SIZE bytes (the date in date_style and a zero). */
KESTREL_API int32_t DBGetLastUpdate(int32_t handle, char* buffer, int32_t date_style);
KESTREL_API int32_t DBSetProductionIndex(int32_t handle);
KESTREL_API int32_t DBSetFieldIndexed(int32_t handle, int32_t field);

/* ---- Records ------------------------------------------------------------ */
KESTREL_API int32_t DBGetRecord(int32_t handle, int32_t recno);
/* buffer: the record length (DBGetRecordInfo), deletion flag included. */
KESTREL_API int32_t DBGetRecordToBuffer(int32_t handle, void* buffer, int32_t recno);
KESTREL_API int32_t DBPutRecord(int32_t handle, int32_t* recno, int32_t mode);
KESTREL_API int32_t DBPutRecordFromBuffer(int32_t handle, const void* buffer, int32_t* recno,
                                          int32_t mode);
KESTREL_API int32_t DBMarkRecordInActive(int32_t handle, int32_t recno);
KESTREL_API int32_t DBMarkRecordActive(int32_t handle, int32_t recno);
KESTREL_API int32_t DBIsRecordDeleted(int32_t handle);
/* The record count of the header, unsigned 32-bit as the file holds it (a
 * damaged header may claim more records than the file has; record numbers
 * above 2^31 - 1 cannot be read through the int32_t record calls). */
KESTREL_API int32_t DBGetRecordCount(int32_t handle, uint32_t* count);
KESTREL_API int32_t DBGetRecordNumber(int32_t handle, int32_t* recno);
KESTREL_API int32_t DBGetRecordInfo(int32_t handle, DBRECORDINFO* info);
KESTREL_API int32_t DBClearBuffer(int32_t handle);
KESTREL_API int32_t DBSetBufferAddress(int32_t handle, void* address);
KESTREL_API int32_t DBIsBeginningOfFile(int32_t handle);
KESTREL_API int32_t DBIsEndOfFile(int32_t handle);
KESTREL_API int32_t DBGetSetCacheSize(int32_t handle, int32_t* records, int32_t op);

/* ---- Fields (0-based field numbers, or names ignoring case) ------------- */
/* The buffers the gets fill, by the field's type and length (DBFIELD):
 *   DBGetFieldData, DBGetNamedData (converted by type):
 *     C            length + 1 bytes (the text, space-padded, and a zero)
 *     D            DB_DATE_STR_SIZE bytes (the date in the default style)
 *     N, F         a double (8 bytes)
 *     L            1 byte (1 true, 0 false; unchanged for other letters)
 *     M            a uint32_t (the block number)
 *     binary 1     8 bytes;  2, 3, 4: 4 bytes;  5, 6: 2 bytes
 *     other codes  nothing is written
 *   DBGetStrField, DBGetNamedStr (any type, as stored): length + 1 bytes.
 *   DBGetFieldBinary, DBGetNamedBinary (raw bytes, no zero): length bytes.
 * A buffer of the widest field's length (DBGetFileDescription) + 1 bytes, and
 * at least DB_DATE_STR_SIZE, suits every field. */
KESTREL_API int32_t DBGetFieldData(int32_t handle, int32_t field, void* value);
KESTREL_API int32_t DBGetNamedData(int32_t handle, const char* name, void* value);
KESTREL_API int32_t DBGetStrField(int32_t handle, int32_t field, char* buffer);
KESTREL_API int32_t DBGetNamedStr(int32_t handle, const char* name, char* buffer);
KESTREL_API int32_t DBGetFieldBinary(int32_t handle, int32_t field, void* buffer);
KESTREL_API int32_t DBGetNamedBinary(int32_t handle, const char* name, void* buffer);
KESTREL_API int32_t DBPutFieldData(int32_t handle, int32_t field, const void* value);
KESTREL_API int32_t DBPutNamedData(int32_t handle, const char* name, const void* value);
KESTREL_API int32_t DBPutStrField(int32_t handle, int32_t field, const char* text);
KESTREL_API int32_t DBPutNamedStr(int32_t handle, const char* name, const char* text);
KESTREL_API int32_t DBPutFieldBinary(int32_t handle, int32_t field, const void* bytes);
KESTREL_API int32_t DBPutNamedBinary(int32_t handle, const char* name, const void* bytes);
KESTREL_API int32_t DBGetFieldNumber(int32_t handle, int32_t* number, const char* name);
/* buffer: 11 bytes (a name of at most 10 characters and a zero). */
KESTREL_API int32_t DBGetFieldName(int32_t handle, char* buffer, int32_t field);
KESTREL_API int32_t DBIsFieldBlank(int32_t handle, int32_t field);
KESTREL_API int32_t DBIsNamedBlank(int32_t handle, const char* name);

/* ---- Table locks (act only on tables opened shared) --------------------- */
KESTREL_API int32_t DBLockFile(int32_t handle);
KESTREL_API int32_t DBLockHeader(int32_t handle);
KESTREL_API int32_t DBLockRecord(int32_t handle, int32_t recno);
KESTREL_API int32_t DBUnLockRecord(int32_t handle, int32_t recno);
KESTREL_API int32_t DBUnLockHeader(int32_t handle);
KESTREL_API int32_t DBUnLockAll(int32_t handle);
KESTREL_API int32_t DBIsRecordLocked(int32_t handle, int32_t recno);
/* *locks receives an array from DBAllocateMemory (free it with DBFreeMemory);
 * untouched when no lock is held. */
KESTREL_API int32_t DBGetLockInfo(int32_t handle, DBLOCKINFO** locks, int32_t* count);

/* ---- Pack and zap ------------------------------------------------------- */
KESTREL_API int32_t DBZapFile(int32_t handle);
/* The table is closed and reopened: *handle receives the new handle. */
KESTREL_API int32_t DBPackFile(int32_t* handle);

KESTREL_EXTERN_C_END

#endif
