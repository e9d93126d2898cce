/* KESTREL procedural interface: Clipper indexes (.NTX).  Included by
 * kestrel/kestrel.h.
 *
 * An .NTX file holds one key expression and one B-tree of 1024-byte pages.
 * Open files are named by handles of kind DB_KIND_NTX_INDEX.  Key buffers that
 * receive keys must hold key length + 1 bytes.  The library keeps its state
 * process-wide and has no locks of its own: callers make one call at a time. */
#ifndef KESTREL_NTX_H
#define KESTREL_NTX_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

/* Key type flags of DBclCreateIndex / DBclBuildIndex, added to the type. */
#define DB_CL_UNIQUE 128     /* one key per value */
#define DB_CL_DESCENDING 256 /* keys in reverse order */
/* DBclBuildIndex only: build numeric keys in the digits-point-decimals form
 * (see DBclSetNumericKeyForm). */
#define DB_CL_BUILD_WITH_DECIMALS 0x10000

/* Search modes of DBclKeySearch; add DB_CL_REMEMBER to report, while walking
 * on with DBclGoNextKey / DBclGoPreviousKey, the first key that differs. */
#define DB_CL_SEEK_FIRST 1        /* first key equal, else the key before (204) */
#define DB_CL_SEEK_RECORD 2       /* the key with this record */
#define DB_CL_SEEK_BELOW 11       /* the last key below */
#define DB_CL_SEEK_EQUAL_BELOW 12 /* first key equal, else the last key below */
#define DB_CL_SEEK_BEFORE 13      /* first key equal, else the key before (204) */
#define DB_CL_SEEK_EQUAL_ABOVE 14 /* first key equal or above */
#define DB_CL_SEEK_ABOVE 15       /* first key above */
#define DB_CL_REMEMBER 64

/* Numeric key forms (DBclSetNumericKeyForm). */
#define DB_CL_NUMERIC_INTEGER_DIGITS 0 /* key length integer digits (default) */
#define DB_CL_NUMERIC_WITH_DECIMALS 1  /* digits, point and decimals */

/* The record filled by DBclGetIndexInfo. */
typedef struct DBCLINDEXINFO {
  char file_name[80];        /* the name given to the open */
  int32_t state;             /* 1 read only, 2 shared, 4 write-through; other bits kept */
  int32_t key_length;        /* key bytes */
  int32_t key_type;          /* always 63 ('?') */
  int32_t key_flags;         /* 128 unique, 256 descending */
  int32_t decimals;          /* decimal places */
  int32_t lock_state;        /* 4 while this process holds the index lock */
  int32_t expression_length; /* length of the key expression */
  char expression[255];      /* the key expression, NUL-terminated */
} DBCLINDEXINFO;

/* ---- Files ----------------------------------------------------------- */
/* keyType: 'C', 'D', 'N' or a binary type 1..6, plus DB_CL_UNIQUE and
 * DB_CL_DESCENDING.  The expression is changed in place: blanks removed. */
KESTREL_API int32_t DBclCreateIndex(const char* filename, int32_t keyType, char* keyExpression,
                                    int32_t keyLength, int32_t decimals);
KESTREL_API int32_t DBclOpenIndex(int32_t* handle, const char* filename, int32_t openMode);
KESTREL_API int32_t DBclCloseIndex(int32_t handle);
KESTREL_API int32_t DBclLockIndex(int32_t handle);
KESTREL_API int32_t DBclUnLockIndex(int32_t handle);
KESTREL_API int32_t DBclFlushIndex(int32_t handle);
KESTREL_API int32_t DBclGetIndexHeader(int32_t handle);
/* operation 1: *count receives the page buffers; 0: sets them to *count. */
KESTREL_API int32_t DBclGetSetCacheSize(int32_t handle, int32_t* count, int32_t operation);
KESTREL_API int32_t DBclZapIndex(int32_t handle);
/* Creates the index file and fills it with the key of every record of the
 * table (deleted ones too).  keyType as for DBclCreateIndex, plus
 * DB_CL_BUILD_WITH_DECIMALS.  The index is written to a work file beside
 * filename ("<filename>.<process id>_<n>.TMP", and temporary sort files
 * "STKS<process id>_<n>.TMP" for large tables) that replaces an existing
 * file of that name only when the new index is complete: a build that fails
 * leaves the existing file as it was and removes its work files. */
KESTREL_API int32_t DBclBuildIndex(int32_t table, const char* filename, int32_t keyType,
                                   char* keyExpression, int32_t keyLength, int32_t decimals);
/* Phases reported to a DBCLBUILDPROGRESS callback. */
#define DB_CL_BUILD_READING 1 /* done keys made, of total records */
#define DB_CL_BUILD_MERGING 2 /* done keys merged from the sort files, of total */
#define DB_CL_BUILD_WRITING 3 /* done keys written into pages, of total keys */
/* Called now and then during a build (at least every 65,536 records or 256
 * pages): returns 0 to go on, or a negative status to stop the build, which
 * then returns that status as a failed build does. */
typedef int32_t (*DBCLBUILDPROGRESS)(void* context, int32_t phase, uint64_t done,
                                     uint64_t total);
/* DBclBuildIndex reporting its progress to progress (may be NULL) with
 * context.  A caller that wants to stop a build on a signal sets a flag in
 * its handler and returns a negative status from the callback. */
KESTREL_API int32_t DBclBuildIndexWithProgress(int32_t table, const char* filename,
                                               int32_t keyType, char* keyExpression,
                                               int32_t keyLength, int32_t decimals,
                                               DBCLBUILDPROGRESS progress, void* context);

/* ---- Search and navigation -------------------------------------------
 * key: key length + 1 bytes (DBCLINDEXINFO.key_length); a key found is
 * written there with a zero after it. */
KESTREL_API int32_t DBclKeySearch(int32_t handle, char* key, int32_t* record, int32_t mode);
KESTREL_API int32_t DBclGoFirstKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBclGoLastKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBclGoNextKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBclGoPreviousKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBclGetCurrentKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBclGetKeyPercent(int32_t handle, int32_t* percent, const char* key,
                                      int32_t record);
KESTREL_API int32_t DBclGetKeyAtPercent(int32_t handle, int32_t percent, char* key,
                                        int32_t* record);

/* ---- Insertion and deletion ------------------------------------------ */
KESTREL_API int32_t DBclAddKey(int32_t handle, const char* key, int32_t record);
KESTREL_API int32_t DBclInsertKey(int32_t handle, const char* key, int32_t record);
KESTREL_API int32_t DBclDeleteKey(int32_t handle, const char* key, int32_t record);

/* ---- Keys -------------------------------------------------------------
 * The key buffers written, each with a zero after the key: DBclNumericToKey
 * the index's key length + 1 bytes; DBclDateToKey 9; DBclDoubleToKey 9;
 * DBclFloatToKey, DBclLongToKey, DBclUnsignedLongToKey 5; DBclShortToKey,
 * DBclUnsignedShortToKey 3.  DBclKeyToDate writes DB_DATE_STR_SIZE bytes. */
KESTREL_API int32_t DBclNumericToKey(int32_t handle, char* key, double value);
KESTREL_API int32_t DBclKeyToNumeric(double* value, const char* key);
KESTREL_API int32_t DBclDateToKey(char* key, const char* date, int32_t style);
KESTREL_API int32_t DBclKeyToDate(char* date, int32_t style, const char* key);
KESTREL_API int32_t DBclDoubleToKey(char* key, double value);
KESTREL_API int32_t DBclFloatToKey(char* key, float value);
KESTREL_API int32_t DBclLongToKey(char* key, int32_t value);
KESTREL_API int32_t DBclUnsignedLongToKey(char* key, uint32_t value);
KESTREL_API int32_t DBclShortToKey(char* key, int16_t value);
KESTREL_API int32_t DBclUnsignedShortToKey(char* key, uint16_t value);
KESTREL_API int32_t DBclKeyToDouble(double* value, const char* key);
KESTREL_API int32_t DBclKeyToFloat(float* value, const char* key);
KESTREL_API int32_t DBclKeyToLong(int32_t* value, const char* key);
KESTREL_API int32_t DBclKeyToUnsignedLong(uint32_t* value, const char* key);
KESTREL_API int32_t DBclKeyToShort(int16_t* value, const char* key);
KESTREL_API int32_t DBclKeyToUnsignedShort(uint16_t* value, const char* key);
/* The key of the table's current record; *key is freed with DBFreeMemory. */
KESTREL_API int32_t DBclMakeKey(int32_t table, int32_t handle, char** key);
/* Chooses how this open index makes numeric keys: DB_CL_NUMERIC_INTEGER_DIGITS
 * (the default: key length integer digits) or DB_CL_NUMERIC_WITH_DECIMALS
 * (digits, point and decimals, as other programs of the dialect store them).
 * *previous (may be NULL) receives the form that was set. */
KESTREL_API int32_t DBclSetNumericKeyForm(int32_t handle, int32_t form, int32_t* previous);

/* ---- Information ------------------------------------------------------ */
KESTREL_API int32_t DBclGetIndexInfo(int32_t handle, DBCLINDEXINFO* info);
/* text: 256 bytes (the expression, at most 255 characters, and a zero). */
KESTREL_API int32_t DBclGetIndexKeyExpr(int32_t handle, char* text);

KESTREL_EXTERN_C_END

#endif
