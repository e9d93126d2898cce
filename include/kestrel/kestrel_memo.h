/* KESTREL procedural interface: memo files.  Included by kestrel/kestrel.h.
 *
 * Two families:
 *   DBxb...  .DBT memo files of the dBASE III, dBASE IV, FoxBase and Clipper
 *            dialects (handle kind 3).  Dialect 2 (dBASE IV) uses block
 *            headers and a free-block chain; dialects 1, 3, 5, 6 and 7 use the
 *            plain layout of 512-byte blocks and 0x1A-terminated texts.
 *   DBfp...  .FPT memo files of FoxPro (handle kind 4): typed memos (text or
 *            picture) with a length, in blocks of a size chosen at creation.
 *
 * Block numbers are unsigned 32-bit; a memo field of a table holds the
 * number of the memo's first block.  Every call returns a status code (see
 * kestrel_frame.h).  The library has no threads of its own and no locks
 * inside the process: callers make one call at a time. */
#ifndef KESTREL_MEMO_H
#define KESTREL_MEMO_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

/* Length of the file-name fields of the information records below. */
#define DB_MEMO_NAME_SIZE 260

/* Attribute bits reported by DBxbGetMemoInfo / DBfpGetMemoInfo. */
#define DB_MEMO_ATTR_READONLY 0x01     /* opened for reading only */
#define DB_MEMO_ATTR_UNBUFFERED 0x02   /* always set: memo files are not cached */
#define DB_MEMO_ATTR_SHARED 0x04       /* opened shared */
#define DB_MEMO_ATTR_AUTOLOCK 0x08     /* locks itself around each write (0x800) */
#define DB_MEMO_ATTR_WRITETHROUGH 0x10 /* every write is flushed to disk (0x200) */

/* ---- DBT memo files ------------------------------------------------------ */

/* DBxbGetMemoRecord options. */
#define DB_MEMO_RAW 0              /* the text as stored */
#define DB_MEMO_NO_SOFT_BREAKS 256 /* soft line breaks (0x8D + next byte) removed */

/* DBxbPutMemoRecord mode: low byte the soft line length (0, or 10..132),
 * plus DB_MEMO_APPEND or DB_MEMO_REPLACE. */
#define DB_MEMO_APPEND 0
#define DB_MEMO_REPLACE 256

typedef struct DBXBMEMOINFO {
  char file_name[DB_MEMO_NAME_SIZE]; /* as given to DBxbOpenMemo (truncated, terminated) */
  int32_t dialect;                   /* 1, 2, 3, 5, 6 or 7 */
  int32_t block_size;                /* 512, or the dBASE IV block size */
  uint32_t block_count;              /* blocks in the file, a partial last one included */
  uint32_t next_free;                /* header word 0: next block to append (plain) or
                                        head of the free chain (dBASE IV) */
  int32_t attributes;                /* DB_MEMO_ATTR_* */
  int32_t locked;                    /* 1 while this handle holds the memo lock */
  uint32_t free_blocks;              /* dBASE IV: blocks on the free chain; else 0 */
  uint32_t free_runs;                /* dBASE IV: runs on the free chain; else 0 */
} DBXBMEMOINFO;

/* Creates a memo file (replacing one of that name) and closes it.  blocks
 * 1..32 is the dBASE IV block size in 512-byte units (ignored by the plain
 * layout); dialect 1..7. */
KESTREL_API int32_t DBxbCreateMemo(const char* name, int32_t blocks, int32_t dialect);
/* Opens a memo file; the low byte of mode is the dialect (0 = 1), the other
 * bits the open switch word (0x100, 0x200, 0x400, 0x800). */
KESTREL_API int32_t DBxbOpenMemo(int32_t* handle, const char* name, int32_t mode);
KESTREL_API int32_t DBxbCloseMemo(int32_t handle);
/* Memo lock of a shared file; nothing to do for an exclusive one. */
KESTREL_API int32_t DBxbLockMemo(int32_t handle);
KESTREL_API int32_t DBxbUnLockMemo(int32_t handle);
/* Re-reads the header (next free block, file length) of a shared file. */
KESTREL_API int32_t DBxbGetMemoHeader(int32_t handle);
/* Which read gives what:
 *   DBxbGetMemoRecord  a text: zero-terminated, so it ends at the first zero
 *                      byte for a caller that looks for the end (strlen); a
 *                      plain memo longer than 128 blocks (64 KB) is -229.
 *   DBxbGetMemoBytes   the memo's bytes, whatever their values, and their
 *                      length, at any length the file holds.  Plain layout:
 *                      the bytes up to the first 0x1A (that layout cannot
 *                      hold the byte 0x1A); dBASE IV layout: the length its
 *                      block header gives.  Soft line breaks are kept.
 * Both return a new buffer (free it with DBFreeMemory) with a zero after
 * the data; on failure the pointer is NULL (and the length 0).
 *
 * Reads the memo at block into a new buffer; *text is NULL on failure. */
KESTREL_API int32_t DBxbGetMemoRecord(int32_t handle, uint32_t block, char** text, int32_t option);
/* Reads the memo at block whole: *data receives *length bytes (and a zero
 * after them). */
KESTREL_API int32_t DBxbGetMemoBytes(int32_t handle, uint32_t block, char** data, uint32_t* length);
/* Writes a zero-terminated text; *block is the memo to replace (mode
 * DB_MEMO_REPLACE; 0 appends) and receives the memo's block number. */
KESTREL_API int32_t DBxbPutMemoRecord(int32_t handle, uint32_t* block, const char* text,
                                      int32_t mode);
/* Rewrites the memo file of a table keeping only the memos that active
 * records point to, and rewrites their block numbers in the table.  The old
 * file is kept with the extension ".BKT"; *memo_handle receives the handle
 * of the reopened memo file. */
KESTREL_API int32_t DBxbPackMemo(int32_t table_handle, int32_t* memo_handle);
/* Empties the memo file: a new header and nothing else. */
KESTREL_API int32_t DBxbZapMemo(int32_t handle);
KESTREL_API int32_t DBxbGetMemoInfo(int32_t handle, DBXBMEMOINFO* info);

/* ---- FPT memo files ------------------------------------------------------ */

/* DBfpGetMemoRecord / DBfpGetMemoToBuffer options. */
#define DB_FPT_KEEP_BUFFER 0x004 /* reuse the library buffer of the previous get */
#define DB_FPT_PIECES 0x400      /* read or write a memo in several calls */
/* DBfpPutMemoRecord options: placement DB_MEMO_APPEND or DB_MEMO_REPLACE, plus: */
#define DB_FPT_PICTURE 0x200 /* write a picture (binary) memo, type word 0 */
/* Type reported by DBfpGetMemoType. */
#define DB_FPT_TYPE_TEXT 0
#define DB_FPT_TYPE_PICTURE 512

typedef struct DBFPMEMOHEADER {
  uint32_t next_free;  /* block where the next appended memo starts */
  uint32_t block_size; /* bytes per block */
} DBFPMEMOHEADER;

typedef struct DBFPMEMOINFO {
  char file_name[DB_MEMO_NAME_SIZE]; /* as given to DBfpOpenMemo (truncated, terminated) */
  int32_t attributes;                /* DB_MEMO_ATTR_* */
  int32_t locked;                    /* 1 while this handle holds the memo lock */
  uint32_t next_free;                /* header: next free block */
  uint32_t block_size;               /* header: block size in bytes */
  uint32_t read_block;               /* memo being read in pieces (0 = none) */
  uint32_t read_remaining;           /* its bytes not yet read */
  uint32_t write_block;              /* memo being written in pieces (0 = none) */
  uint32_t write_remaining;          /* its bytes not yet written */
} DBFPMEMOINFO;

/* Creates an FPT file and closes it.  block_code 1..32: that many times 512
 * bytes; 33..511: the block size in bytes. */
KESTREL_API int32_t DBfpCreateMemo(const char* name, int32_t block_code);
/* Opens an FPT file; the low byte of switches must be 0, 4 or 8. */
KESTREL_API int32_t DBfpOpenMemo(int32_t* handle, const char* name, int32_t switches);
KESTREL_API int32_t DBfpCloseMemo(int32_t handle);
KESTREL_API int32_t DBfpLockMemo(int32_t handle);
KESTREL_API int32_t DBfpUnLockMemo(int32_t handle);
KESTREL_API int32_t DBfpGetMemoHeader(int32_t handle, DBFPMEMOHEADER* header);
KESTREL_API int32_t DBfpGetMemoInfo(int32_t handle, DBFPMEMOINFO* info);
/* Length of the memo's data and its type (DB_FPT_TYPE_TEXT or _PICTURE). */
KESTREL_API int32_t DBfpGetMemoType(int32_t handle, uint32_t block, uint32_t* length,
                                    int32_t* type);
/* Which read gives what:
 *   DBfpGetMemoType      the length and type of a memo, no data.
 *   DBfpGetMemoRecord    at most max_length bytes in a library buffer that
 *                        the next get replaces (the caller keeps the length).
 *   DBfpGetMemoToBuffer  the same into the caller's buffer.
 *   DBfpGetMemoBytes     the whole memo, its length and type in one call, in
 *                        a new buffer the caller owns (free it with
 *                        DBFreeMemory), a zero after the data.  Text and
 *                        picture memos alike: any byte values.
 * Reads at most max_length bytes of the memo into a library buffer that
 * stays valid until the next get or the close; the data is followed by a
 * zero.  With DB_FPT_PIECES the read continues after the previous piece of
 * the same memo; the result is 1 while bytes remain. */
KESTREL_API int32_t DBfpGetMemoRecord(int32_t handle, uint32_t block, char** buffer,
                                      uint32_t max_length, int32_t options);
/* The whole memo: *data receives *length bytes in a new buffer (free it with
 * DBFreeMemory; NULL on failure) and *type, unless type is NULL, its type
 * (DB_FPT_TYPE_TEXT or _PICTURE).  A piecewise read under way is kept. */
KESTREL_API int32_t DBfpGetMemoBytes(int32_t handle, uint32_t block, char** data, uint32_t* length,
                                     int32_t* type);
/* The same into the caller's buffer of max_length bytes; a zero follows the
 * data when there is room for it. */
KESTREL_API int32_t DBfpGetMemoToBuffer(int32_t handle, uint32_t block, char* buffer,
                                        uint32_t max_length, int32_t options);
/* Writes length bytes of data.  With DB_FPT_PIECES, total_length is the
 * length of the whole memo: the first piece places the memo and writes its
 * header, later pieces (same *block) follow on. */
KESTREL_API int32_t DBfpPutMemoRecord(int32_t handle, uint32_t* block, const void* data,
                                      uint32_t length, uint32_t total_length, int32_t options);
KESTREL_API int32_t DBfpZapMemo(int32_t handle);
/* As DBxbPackMemo, for a FoxPro table and its FPT file. */
KESTREL_API int32_t DBfpPackMemo(int32_t table_handle, int32_t* memo_handle);

KESTREL_EXTERN_C_END

#endif
