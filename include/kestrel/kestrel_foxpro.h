/* KESTREL procedural interface: FoxPro indexes (.IDX, .CDX).  Included by
 * kestrel/kestrel.h.
 *
 * An uncompressed or compact .IDX file holds one key; a compound .CDX file
 * holds named tags.  Open files are named by handles of kind
 * DB_KIND_FOX_INDEX.  A tag handle is the file handle in its low 16 bits and
 * the tag's slot (from 1, stable while the tag is open) in its high 16 bits;
 * an .IDX handle is its own tag, a .CDX handle names no tag.  Key buffers
 * that receive keys must hold key length + 1 bytes.  Keys compare as
 * unsigned bytes; equal keys are kept in record order, in descending tags
 * too.  The DBfb... functions are the same operations as their DBfp...
 * twins.  After an open a tag's key type is unknown ('?', keys decoded with
 * a zero pad): DBfpSetDefaultKeyType or DBfpMakeKey sets it. */
#ifndef KESTREL_FOXPRO_H
#define KESTREL_FOXPRO_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

/* Search modes of DBfpKeySearch (as DBclKeySearch's); add DB_FP_REMEMBER to
 * report, while walking on, the first key that differs from the one found.
 * A descending tag answers in its own order. */
#define DB_FP_SEEK_FIRST 1        /* first key equal, else the key before (204) */
#define DB_FP_SEEK_RECORD 2       /* the key with this record */
#define DB_FP_SEEK_BELOW 11       /* the last key below */
#define DB_FP_SEEK_EQUAL_BELOW 12 /* first key equal, else the last key below */
#define DB_FP_SEEK_BEFORE 13      /* first key equal, else the key before (204) */
#define DB_FP_SEEK_EQUAL_ABOVE 14 /* first key equal or above */
#define DB_FP_SEEK_ABOVE 15       /* first key above */
#define DB_FP_REMEMBER 64

/* Options of DBFPTAGINFO and flags of DBFPINDEXINFO. */
#define DB_FP_UNIQUE 0x80
#define DB_FP_DESCENDING 0x100
#define DB_FP_COMPACT 0x400
#define DB_FP_COMPOUND_TAG 0x800

/* The record filled by DBfpGetTagInfo (and listed by DBfpGetAllTagInfo). */
typedef struct DBFPTAGINFO {
  char name[12];        /* tag name, NUL-terminated ("" for an .IDX file) */
  int32_t key_length;   /* key bytes */
  int32_t key_type;     /* 'C', 'D', 'L', 'N', 1..6, or '?' while unknown */
  int32_t options;      /* DB_FP_UNIQUE, DB_FP_DESCENDING, DB_FP_COMPACT, DB_FP_COMPOUND_TAG */
  int32_t reserved;     /* left as the caller had it */
  char expression[256]; /* the key expression, NUL-terminated */
} DBFPTAGINFO;

/* The record filled by DBfpGetIndexInfo and DBfbGetIndexInfo. */
typedef struct DBFPINDEXINFO {
  char file_name[80];        /* the name given to the open */
  int32_t state;             /* 1 read only, 2 shared, 4 write-through; other bits kept */
  int32_t key_length;        /* key bytes (0 for a .CDX file's own handle) */
  int32_t key_type;          /* as DBFPTAGINFO (0 for a .CDX file's own handle) */
  int32_t key_flags;         /* DB_FP_UNIQUE, DB_FP_DESCENDING */
  int32_t lock_state;        /* 4 while this process holds the index lock */
  int32_t expression_length; /* length of the key expression */
  char expression[255];      /* the key expression, NUL-terminated */
  int32_t kind;              /* 8 compact, 3 uncompressed */
} DBFPINDEXINFO;

/* ---- Files and tags ------------------------------------------------------ */
/* openMode: DB_OPEN_* switches; the low byte must be 0, 3, 4 or 8 (-218). */
KESTREL_API int32_t DBfpOpenIndex(int32_t* handle, const char* filename, int32_t openMode);
KESTREL_API int32_t DBfpCloseIndex(int32_t handle);
/* number counts from 1 in directory (name) order; -250 outside 1..tags. */
KESTREL_API int32_t DBfpOpenTag(int32_t* tag, int32_t handle, int32_t number);
/* The name is compared without case; -250 when no tag has it, -257 when the
 * tag is open already. */
KESTREL_API int32_t DBfpOpenNamedTag(int32_t* tag, int32_t handle, const char* name);
KESTREL_API int32_t DBfpCloseTag(int32_t tag);
/* type: 'C', 'D', 'L', 'N' or 1..6 (lower case accepted); -222 otherwise. */
KESTREL_API int32_t DBfpSetDefaultKeyType(int32_t tag, int32_t type);
KESTREL_API int32_t DBfpLockIndex(int32_t handle);
KESTREL_API int32_t DBfpUnLockIndex(int32_t handle);
KESTREL_API int32_t DBfpFlushIndex(int32_t handle);
/* Rereads the header of a shared index. */
KESTREL_API int32_t DBfpGetIndexHeader(int32_t handle);
/* operation 1: *count receives the buffers; 0: sets them (at least 4). */
KESTREL_API int32_t DBfpGetSetCacheSize(int32_t handle, int32_t* count, int32_t operation);

/* ---- Search and navigation ----------------------------------------------- */
KESTREL_API int32_t DBfpKeySearch(int32_t tag, char* key, int32_t* record, int32_t mode);
KESTREL_API int32_t DBfpGoFirstKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfpGoLastKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfpGoNextKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfpGoPreviousKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfpGetCurrentKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfpGetKeyPercent(int32_t tag, int32_t* percent, const char* key,
                                      int32_t record);
KESTREL_API int32_t DBfpGetKeyAtPercent(int32_t tag, int32_t percent, char* key,
                                        int32_t* record);
/* The first record from *record on whose key for the tag equals key; 204
 * past the last record. */
KESTREL_API int32_t DBfpGetRecordNumber(int32_t table, int32_t* record, int32_t tag,
                                        const char* key);

/* ---- Keys ---------------------------------------------------------------- *
 * Key buffers written, each with a zero after the key: double and date keys
 * 9 bytes, float and long keys 5, short keys 3 (DBfpShortToKey writes 4
 * bytes for a negative value, so give it 4 or more).  DBfpKeyToDate writes
 * DB_DATE_STR_SIZE bytes. */
KESTREL_API int32_t DBfpNumericToKey(char* key, double value);
KESTREL_API int32_t DBfpKeyToNumeric(double* value, const char* key);
KESTREL_API int32_t DBfpDoubleToKey(char* key, double value);
KESTREL_API int32_t DBfpKeyToDouble(double* value, const char* key);
KESTREL_API int32_t DBfpFloatToKey(char* key, float value);
KESTREL_API int32_t DBfpKeyToFloat(float* value, const char* key);
KESTREL_API int32_t DBfpLongToKey(char* key, int32_t value);
KESTREL_API int32_t DBfpKeyToLong(int32_t* value, const char* key);
KESTREL_API int32_t DBfpUnsignedLongToKey(char* key, uint32_t value);
KESTREL_API int32_t DBfpKeyToUnsignedLong(uint32_t* value, const char* key);
KESTREL_API int32_t DBfpShortToKey(char* key, int16_t value);
KESTREL_API int32_t DBfpKeyToShort(int16_t* value, const char* key);
KESTREL_API int32_t DBfpUnsignedShortToKey(char* key, uint16_t value);
KESTREL_API int32_t DBfpKeyToUnsignedShort(uint16_t* value, const char* key);
KESTREL_API int32_t DBfpDateToKey(char* key, const char* date, int32_t style);
KESTREL_API int32_t DBfpKeyToDate(char* date, int32_t style, const char* key);
/* The key of the table's current record; *key is allocated by the library
 * (free it with DBFreeMemory), NULL on failure.  A date field's key keeps
 * its stored century. */
KESTREL_API int32_t DBfpMakeKey(int32_t table, int32_t tag, char** key);

/* ---- Information --------------------------------------------------------- */
KESTREL_API int32_t DBfpGetIndexKeyExpr(int32_t tag, char* text);
KESTREL_API int32_t DBfpGetIndexInfo(int32_t handle, DBFPINDEXINFO* info);
KESTREL_API int32_t DBfpGetTagInfo(int32_t tag, DBFPTAGINFO* info);
/* Every tag of the file (an .IDX file: its one key); *list is allocated by
 * the library (free it with DBFreeMemory), NULL when *count is 0. */
KESTREL_API int32_t DBfpGetAllTagInfo(int32_t handle, DBFPTAGINFO** list, int32_t* count);

/* ---- The same operations under their DBfb names ---------------------------- */
KESTREL_API int32_t DBfbOpenIndex(int32_t* handle, const char* filename, int32_t openMode);
KESTREL_API int32_t DBfbCloseIndex(int32_t handle);
KESTREL_API int32_t DBfbSetDefaultKeyType(int32_t tag, int32_t type);
KESTREL_API int32_t DBfbLockIndex(int32_t handle);
KESTREL_API int32_t DBfbUnLockIndex(int32_t handle);
KESTREL_API int32_t DBfbFlushIndex(int32_t handle);
KESTREL_API int32_t DBfbGetIndexHeader(int32_t handle);
KESTREL_API int32_t DBfbGetSetCacheSize(int32_t handle, int32_t* count, int32_t operation);
KESTREL_API int32_t DBfbKeySearch(int32_t tag, char* key, int32_t* record, int32_t mode);
KESTREL_API int32_t DBfbGoFirstKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfbGoLastKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfbGoNextKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfbGoPreviousKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfbGetCurrentKey(int32_t tag, char* key, int32_t* record);
KESTREL_API int32_t DBfbGetKeyPercent(int32_t tag, int32_t* percent, const char* key,
                                      int32_t record);
KESTREL_API int32_t DBfbGetKeyAtPercent(int32_t tag, int32_t percent, char* key,
                                        int32_t* record);
KESTREL_API int32_t DBfbGetRecordNumber(int32_t table, int32_t* record, int32_t tag,
                                        const char* key);
KESTREL_API int32_t DBfbNumericToKey(char* key, double value);
KESTREL_API int32_t DBfbKeyToNumeric(double* value, const char* key);
KESTREL_API int32_t DBfbDateToKey(char* key, const char* date, int32_t style);
KESTREL_API int32_t DBfbKeyToDate(char* date, int32_t style, const char* key);
KESTREL_API int32_t DBfbMakeKey(int32_t table, int32_t tag, char** key);
KESTREL_API int32_t DBfbGetIndexKeyExpr(int32_t tag, char* text);
KESTREL_API int32_t DBfbGetIndexInfo(int32_t tag, DBFPINDEXINFO* info);

KESTREL_EXTERN_C_END

#endif /* KESTREL_FOXPRO_H */
