/* KESTREL procedural interface: library frame, status codes, memory, locks.
 * Included by kestrel/kestrel.h. */
#ifndef KESTREL_FRAME_H
#define KESTREL_FRAME_H

#include <stddef.h>
#include <stdint.h>

#include "kestrel/export.h"

KESTREL_EXTERN_C_BEGIN

/* ---- Status codes ------------------------------------------------------ */
#define DB_OK 0
/* Warnings: the operation completed. */
#define DB_WARN_RECORD_DELETED 201 /* record read is marked deleted */
#define DB_WARN_FILE_EMPTY 202     /* file is empty */
#define DB_WARN_NO_MORE_KEYS 203   /* no more keys */
#define DB_WARN_KEY_NOT_FOUND 204  /* could not find key in index file */
#define DB_WARN_TRUNCATED 205      /* data field truncated */
#define DB_WARN_ROUNDED 206        /* numeric field rounded */
#define DB_WARN_FILE_LENGTH 207    /* file length is incorrect */
#define DB_WARN_NOT_BUFFERED 208   /* file I/O not buffered */
#define DB_WARN_PARTIAL_MEMORY 209 /* partial memory allocation */
#define DB_WARN_NOT_SUPPORTED 210  /* function not supported */
#define DB_WARN_EXISTS 211         /* object already exists */
#define DB_WARN_FIELD_EMPTY 212    /* field is empty */
/* Errors. */
#define DB_ERR_WRITE (-201)            /* file write failure */
#define DB_ERR_READ (-202)             /* file read failure */
#define DB_ERR_MEMORY (-203)           /* memory allocation error */
#define DB_ERR_SEEK (-204)             /* file pointer reposition failed */
#define DB_ERR_NOT_FOUND (-205)        /* file not found */
#define DB_ERR_CORRUPTED (-206)        /* file corrupted */
#define DB_ERR_BAD_EXPRESSION (-207)   /* bad user specified key expression */
#define DB_ERR_NO_HANDLES (-208)       /* no handles available */
#define DB_ERR_NO_PAGES (-209)         /* no index pages loaded */
#define DB_ERR_PAGE_NOT_LOADED (-210)  /* index page was not loaded */
#define DB_ERR_CLOSE (-211)            /* file close failure */
#define DB_ERR_INVALID_COMMAND (-212)  /* invalid command */
#define DB_ERR_INVALID_HANDLE (-213)   /* invalid handle number */
#define DB_ERR_INVALID_FILENAME (-214) /* invalid filename */
#define DB_ERR_INVALID_DATE (-215)     /* invalid date */
#define DB_ERR_INVALID_TIME (-216)     /* invalid time */
#define DB_ERR_NOT_MEMO (-217)         /* file not in memo format */
#define DB_ERR_VERSION (-218)          /* invalid dBaseIII version */
#define DB_ERR_HEADER_LENGTH (-219)    /* file header length error */
#define DB_ERR_CHANGE_DATE (-220)      /* last file change date in error */
#define DB_ERR_NULL (-221)             /* parameter address NULL */
#define DB_ERR_KEY_TYPE (-222)         /* invalid key type */
#define DB_ERR_KEY_LENGTH (-223)       /* invalid key length */
#define DB_ERR_ITEM_LENGTH (-224)      /* item length incorrect */
#define DB_ERR_ROOT_PAGE (-225)        /* invalid root page */
#define DB_ERR_MAX_KEYS (-226)         /* bad maximum number of keys per page */
#define DB_ERR_FIELD_COUNT (-227)      /* invalid number of fields */
#define DB_ERR_FIELD_NAME (-228)       /* field name invalid */
#define DB_ERR_FIELD_LENGTH (-229)     /* bad field length */
#define DB_ERR_DECIMALS (-230)         /* decimal places parameter invalid */
#define DB_ERR_FIELD_TYPE (-231)       /* invalid field type */
#define DB_ERR_RECORD_LENGTH (-232)    /* invalid record length */
#define DB_ERR_BAD_DATA (-233)         /* bad data */
#define DB_ERR_SOFT_LINE (-234)        /* memo soft line length invalid */
#define DB_ERR_MDX_FLAG (-235)         /* MDX flag in DBF file invalid */
#define DB_ERR_READ_ONLY (-236)        /* file open for reading only */
#define DB_ERR_LOCK_VIOLATION (-237)   /* file locking violation */
#define DB_ERR_SHARING_OVERFLOW (-238) /* sharing buffer overflow */
#define DB_ERR_PATH_NOT_FOUND (-239)   /* path not found */
#define DB_ERR_ACCESS_DENIED (-240)    /* access to file denied */
#define DB_ERR_ACCESS_CODE (-241)      /* invalid access code */
#define DB_ERR_MUST_LOCK (-242)        /* file must be locked first */
#define DB_ERR_DISK_CHANGED (-243)     /* diskette changed */
#define DB_ERR_MIN_KEYS (-244)         /* bad minimum number of keys per page */
#define DB_ERR_FILES_OPEN (-245)       /* some files remain open */
#define DB_ERR_OPEN (-246)             /* could not open the file */
#define DB_ERR_FLUSH (-247)            /* flush to disk failure */
#define DB_ERR_TAG_HANDLE (-248)       /* invalid tag handle */
#define DB_ERR_PAGE_SIZE (-249)        /* invalid page size in blocks */
#define DB_ERR_TAG_NAME (-250)         /* invalid tag name */
#define DB_ERR_PAGE_ADDER (-251)       /* invalid page offset adder */
#define DB_ERR_TAG_TABLE_MAX (-252)    /* invalid maximum number of tag table elements */
#define DB_ERR_TAG_ELEMENT (-253)      /* bad tag table element length */
#define DB_ERR_TAG_COUNT (-254)        /* invalid tag count */
#define DB_ERR_KEY_SWITCHES (-255)     /* unknown key format switches */
#define DB_ERR_SWITCH (-256)           /* unknown switch error */
#define DB_ERR_TAG_IN_USE (-257)       /* tag in use */
#define DB_ERR_GLOBAL_LOCK (-258)      /* Windows GlobalLock error */
#define DB_ERR_TASK_LOOKUP (-259)      /* Windows Task lookup Failed */
#define DB_ERR_LOCK_OVERFLOW (-260)    /* internal lock buffer overflow */
#define DB_ERR_LOCK_UNDERFLOW (-261)   /* internal lock buffer underflow */
/* Codes without a message text. */
#define DB_ERR_LOCK_RETRIES (-279) /* a lock or unlock still failed after all retries */
#define DB_ERR_SEEK_REFUSED (-280) /* a seek was refused */

/* ---- Object kinds of the handle table ----------------------------------- */
#define DB_KIND_FREE 0
#define DB_KIND_TABLE 1       /* .DBF table */
#define DB_KIND_RESERVED2 2   /* reserved (index control block) */
#define DB_KIND_DBT_MEMO 3    /* dBASE-style memo file (.DBT) */
#define DB_KIND_FPT_MEMO 4    /* FoxPro memo file (.FPT) */
#define DB_KIND_DBASE_INDEX 5 /* dBASE index (.NDX, .MDX) */
#define DB_KIND_RESERVED6 6   /* reserved (index control block) */
#define DB_KIND_NTX_INDEX 7   /* Clipper index (.NTX) */
#define DB_KIND_FOX_INDEX 8   /* FoxPro index (.IDX, .CDX) */

/* ---- Open switch word bits ---------------------------------------------- */
#define DB_OPEN_READONLY 0x100     /* open for reading only */
#define DB_OPEN_WRITETHROUGH 0x200 /* every write goes through at once */
#define DB_OPEN_SHARED 0x400       /* let other processes open the file too */
#define DB_OPEN_AUTOLOCK 0x800     /* automatic locking for shared updates */
#define DB_OPEN_UNBUFFERED 0x1000  /* no record cache */
#define DB_OPEN_MULTILOCK 0x2000   /* several record locks at once */
#define DB_OPEN_REUSE 0x4000       /* reuse deleted records on append */

/* ---- Library frame ------------------------------------------------------
 * The library's state (handle table, error code, lock buffer, ...) is
 * process-wide and unlocked: make one call into the library at a time. */

/* Sizes the handle table (count - 5 slots, count 5..16388) and the lock buffer
 * (twice the slots); the low byte of flags is the default date style (2..5,
 * else 2); flag 0x100 raises the process's open-file limit.  Discards an
 * earlier table without closing its files and switches the error log off. */
KESTREL_API int32_t DBInitialize(int32_t count, int32_t flags);
/* Closes every open object through its close routine, in handle order, and
 * frees the tables.  Always 0. */
KESTREL_API int32_t DBTerminate(void);
/* The library error code: the status of the last failure (successes leave it
 * as it was unless a call says otherwise). */
KESTREL_API int32_t DBGetErrorCode(void);
KESTREL_API int32_t DBSetErrorCode(int32_t code);
/* The fixed message of the current code; owned by the library. */
KESTREL_API const char* DBGetErrorStr(void);
/* mode 0: logging off; 1: on, appending to the file `name` (at most 29
 * characters); any other value: on, keeping the earlier name.  Each logged
 * failure appends "module<TAB>line<TAB>code<LF>".  Returns the current code. */
KESTREL_API int32_t DBErrorLog(int32_t mode, const char* name);
/* Copies "4.00 Revision F" and its terminator (16 bytes) into buffer. */
KESTREL_API int32_t DBGetVersion(char* buffer);

/* ---- Memory: every block the library hands out comes from these. -------- */
/* Zero-filled; *pointer is null and -203 returned on failure. */
KESTREL_API int32_t DBAllocateMemory(void** pointer, uint32_t size);
/* Keeps the contents (growth is zero-filled); on failure *pointer keeps the
 * old block and -203 is returned. */
KESTREL_API int32_t DBReAllocateMemory(void** pointer, uint32_t size);
KESTREL_API int32_t DBFreeMemory(void* pointer);

/* ---- Lock buffer and retries -------------------------------------------- */
/* Attempts per lock request: count, at least one; retries follow at once. */
KESTREL_API int32_t DBSetLockRetryCount(int32_t count);
KESTREL_API int32_t DBGetLockRetryCount(int32_t* count);
/* Regions held (one entry per lock call) and the buffer's capacity. */
KESTREL_API int32_t DBGetLockCount(int32_t* used, int32_t* capacity);
/* Resizes the lock buffer; -261 below the entries in use, -203 on shortage. */
KESTREL_API int32_t DBSetLockCount(int32_t capacity);

KESTREL_EXTERN_C_END

#endif
