/* KESTREL procedural interface: dBASE indexes (.NDX).  Included by
 * kestrel/kestrel.h.
 *
 * An .NDX file holds one key expression and one B-tree of 512-byte pages.
 * Open files are named by handles of kind DB_KIND_DBASE_INDEX; the DBd3...
 * and DBd4... forms of one operation run the same code (an .NDX handle is its
 * own single tag).  Key buffers that receive keys must hold key length + 1
 * bytes.  The library keeps its state process-wide and has no locks of its
 * own: callers make one call at a time. */
#ifndef KESTREL_DBASE_H
#define KESTREL_DBASE_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

/* Key type flag of DBd3CreateIndex, added to the type letter. */
#define DB_D4_UNIQUE 128 /* one key per value */

/* Search modes of DBd3KeySearch / DBd4KeySearch; add DB_D4_REMEMBER to
 * report, while walking on with the next and previous moves, the first key
 * that differs (204).  All answers are in the order of the index. */
#define DB_D4_SEEK_FIRST 1        /* first key equal, else the key before (204; 203 none) */
#define DB_D4_SEEK_RECORD 2       /* the key with this record */
#define DB_D4_SEEK_BELOW 11       /* the last key below */
#define DB_D4_SEEK_EQUAL_BELOW 12 /* first key equal, else the last key below */
#define DB_D4_SEEK_BEFORE 13      /* first key equal, else the key before (204) */
#define DB_D4_SEEK_EQUAL_ABOVE 14 /* first key equal or above */
#define DB_D4_SEEK_ABOVE 15       /* first key above */
#define DB_D4_REMEMBER 64

/* The record filled by DBd3GetIndexInfo / DBd4GetIndexInfo. */
typedef struct DBD4INDEXINFO {
  char file_name[80];        /* the name given to the open */
  int32_t state;             /* 1 read only, 2 shared, 4 unbuffered or write-through */
  int32_t key_length;        /* key bytes */
  int32_t key_type;          /* 'C', 'N' (number or date), or the raw class 2..6 */
  int32_t key_flags;         /* 128 unique */
  int32_t lock_state;        /* 4 while this process holds the index lock */
  int32_t expression_length; /* length of the key expression */
  char expression[255];      /* the key expression, NUL-terminated */
  int32_t blocks_per_page;   /* 1 for an .NDX file */
  int32_t tags_in_use;       /* 1 for an .NDX file */
} DBD4INDEXINFO;

/* ---- Files ----------------------------------------------------------- */
/* keyType: 'C', 'N', 'D' or a raw type 1..6 (lower-case letters count as
 * upper case), plus DB_D4_UNIQUE.  keyLength counts for 'C' keys only.  The
 * expression is changed in place: blanks removed. */
KESTREL_API int32_t DBd3CreateIndex(const char* filename, int32_t keyType, char* keyExpression,
                                    int32_t keyLength);
/* openMode: the open switches; its low byte 0, 1, 2 or 7. */
KESTREL_API int32_t DBd3OpenIndex(int32_t* handle, const char* filename, int32_t openMode);
KESTREL_API int32_t DBd3CloseIndex(int32_t handle);
KESTREL_API int32_t DBd4CloseIndex(int32_t handle);
KESTREL_API int32_t DBd3LockIndex(int32_t handle);
KESTREL_API int32_t DBd4LockIndex(int32_t handle);
KESTREL_API int32_t DBd3UnLockIndex(int32_t handle);
KESTREL_API int32_t DBd4UnLockIndex(int32_t handle);
KESTREL_API int32_t DBd3FlushIndex(int32_t handle);
KESTREL_API int32_t DBd4FlushIndex(int32_t handle);
KESTREL_API int32_t DBd3GetIndexHeader(int32_t handle);
KESTREL_API int32_t DBd4GetIndexHeader(int32_t handle);
/* operation 1: *count receives the page buffers; 0: sets them to *count. */
KESTREL_API int32_t DBd3GetSetCacheSize(int32_t handle, int32_t* count, int32_t operation);
KESTREL_API int32_t DBd4GetSetCacheSize(int32_t handle, int32_t* count, int32_t operation);
/* Empties the index and leaves it open: root page 1, file of 1024 bytes. */
KESTREL_API int32_t DBd3ZapIndex(int32_t handle);
/* Creates the .NDX file as DBd3CreateIndex does and fills it with the key of
 * every record of the table (deleted ones too; a unique index keeps the
 * lowest record of each key), then closes it.  Leaves are packed full and the
 * root is the last page.  The index is written to a work file beside filename
 * ("<filename>.<process id>_<n>.TMP", and temporary sort files
 * "STKS<process id>_<n>.TMP" for large tables) that replaces an existing file
 * of that name only when the new index is complete. */
KESTREL_API int32_t DBd3BuildIndex(int32_t table, const char* filename, int32_t keyType,
                                   char* keyExpression, int32_t keyLength);

/* ---- Search and navigation ------------------------------------------- */
KESTREL_API int32_t DBd3KeySearch(int32_t handle, char* key, int32_t* record, int32_t mode);
KESTREL_API int32_t DBd4KeySearch(int32_t handle, char* key, int32_t* record, int32_t mode);
KESTREL_API int32_t DBd3GoFirstKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBd4GoFirstKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBd3GoLastKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBd4GoLastKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBd3GoNextKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBd4GoNextKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBd3GoPreviousKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBd4GoPreviousKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBd3GetCurrentKey(int32_t handle, char* key, int32_t* record);
KESTREL_API int32_t DBd4GetCurrentKey(int32_t handle, char* key, int32_t* record);
/* record 0: the position of the key alone. */
KESTREL_API int32_t DBd3GetKeyPercent(int32_t handle, int32_t* percent, const char* key,
                                      int32_t record);
KESTREL_API int32_t DBd4GetKeyPercent(int32_t handle, int32_t* percent, const char* key,
                                      int32_t record);
KESTREL_API int32_t DBd3GetKeyAtPercent(int32_t handle, int32_t percent, char* key,
                                        int32_t* record);
KESTREL_API int32_t DBd4GetKeyAtPercent(int32_t handle, int32_t percent, char* key,
                                        int32_t* record);

/* ---- Insertion and deletion ------------------------------------------ */
KESTREL_API int32_t DBd3AddKey(int32_t handle, const char* key, int32_t record);
KESTREL_API int32_t DBd4AddKey(int32_t handle, const char* key, int32_t record);
KESTREL_API int32_t DBd3InsertKey(int32_t handle, const char* key, int32_t record);
KESTREL_API int32_t DBd4InsertKey(int32_t handle, const char* key, int32_t record);
KESTREL_API int32_t DBd3DeleteKey(int32_t handle, const char* key, int32_t record);
KESTREL_API int32_t DBd4DeleteKey(int32_t handle, const char* key, int32_t record);

/* ---- Keys -------------------------------------------------------------
 * Key buffers written: DBd4NumericToKey 12 bytes; DBd3NumericToKey,
 * DBd4DoubleToKey and the date keys 8; DBd4FloatToKey, DBd4LongToKey,
 * DBd4UnsignedLongToKey 4; DBd4ShortToKey, DBd4UnsignedShortToKey 2.
 * DBd4KeyToDate writes DB_DATE_STR_SIZE bytes. */
KESTREL_API int32_t DBd4NumericToKey(char* key, double value);
KESTREL_API int32_t DBd4KeyToNumeric(double* value, const char* key);
KESTREL_API int32_t DBd3NumericToKey(char* key, double value);
KESTREL_API int32_t DBd3KeyToNumeric(double* value, const char* key);
KESTREL_API int32_t DBd4DoubleToKey(char* key, double value);
KESTREL_API int32_t DBd4KeyToDouble(double* value, const char* key);
KESTREL_API int32_t DBd4FloatToKey(char* key, float value);
KESTREL_API int32_t DBd4KeyToFloat(float* value, const char* key);
KESTREL_API int32_t DBd4LongToKey(char* key, int32_t value);
KESTREL_API int32_t DBd4KeyToLong(int32_t* value, const char* key);
KESTREL_API int32_t DBd4UnsignedLongToKey(char* key, uint32_t value);
KESTREL_API int32_t DBd4KeyToUnsignedLong(uint32_t* value, const char* key);
KESTREL_API int32_t DBd4ShortToKey(char* key, int16_t value);
KESTREL_API int32_t DBd4KeyToShort(int16_t* value, const char* key);
KESTREL_API int32_t DBd4UnsignedShortToKey(char* key, uint16_t value);
KESTREL_API int32_t DBd4KeyToUnsignedShort(uint16_t* value, const char* key);
/* An empty date gives the blank-date key (1.0E100). */
KESTREL_API int32_t DBd4DateToKey(char* key, const char* date, int32_t style);
KESTREL_API int32_t DBd3DateToKey(char* key, const char* date, int32_t style);
KESTREL_API int32_t DBd4KeyToDate(char* date, int32_t style, const char* key);
KESTREL_API int32_t DBd3KeyToDate(char* date, int32_t style, const char* key);
/* The key of the table's current record; *key is freed with DBFreeMemory.
 * A date field on its own is keyed from its stored yyyymmdd (its century is
 * kept); other dates are read in the default date style. */
KESTREL_API int32_t DBd4MakeKey(int32_t handle, int32_t table, char** key);
KESTREL_API int32_t DBd3MakeKey(int32_t handle, int32_t table, char** key);

/* ---- Information ------------------------------------------------------ */
KESTREL_API int32_t DBd3GetIndexInfo(int32_t handle, DBD4INDEXINFO* info);
KESTREL_API int32_t DBd4GetIndexInfo(int32_t handle, DBD4INDEXINFO* info);
/* text: 256 bytes (the expression, at most 220 characters, and a zero). */
KESTREL_API int32_t DBd3GetIndexKeyExpr(int32_t handle, char* text);
KESTREL_API int32_t DBd4GetIndexKeyExpr(int32_t handle, char* text);

KESTREL_EXTERN_C_END

#endif
