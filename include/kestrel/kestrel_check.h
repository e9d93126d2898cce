/* KESTREL procedural interface: checking an index file against the rules of
 * its format.  Included by kestrel/kestrel.h.
 *
 * DBCheckIndex recognises which kind of index file it is given (NTX, NDX,
 * MDX, IDX, CDX, NSX) by its header, walks it and reports every finding to
 * the caller: notes on how the file was made, warnings about sound files that
 * this library would not have written so, and faults (broken rules of the
 * format).  The file is opened read-only and shared and never changed; an
 * index the caller has open for update should be flushed first. */
#ifndef KESTREL_CHECK_H
#define KESTREL_CHECK_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

/* Severity of a finding. */
#define DB_CHECK_NOTE 0    /* how the file was made: a FOR condition, a tag name */
#define DB_CHECK_WARNING 1 /* sound, but not as this library orders or writes it */
#define DB_CHECK_FAULT 2   /* a rule of the format is broken */

/* Index formats, by their headers. */
#define DB_INDEX_UNKNOWN 0 /* no format's header fits: checked as an NTX file */
#define DB_INDEX_NTX 1
#define DB_INDEX_NDX 2
#define DB_INDEX_MDX 3
#define DB_INDEX_IDX 4
#define DB_INDEX_CDX 5
#define DB_INDEX_NSX 6

/* Index flags in DBCHECKSUMMARY.flags. */
#define DB_CHECK_UNIQUE 128
#define DB_CHECK_DESCENDING 256

typedef struct DBCHECKFINDING {
  int32_t severity; /* DB_CHECK_NOTE, DB_CHECK_WARNING or DB_CHECK_FAULT */
  uint32_t page;    /* byte offset of the page it is about; 0 for the header */
  int32_t code;     /* the status an engine would report for it; 0 for notes */
  char text[160];   /* what was found, in words, NUL-terminated */
} DBCHECKFINDING;

typedef struct DBCHECKSUMMARY {
  int32_t format;        /* DB_INDEX_... recognised from the header */
  char format_name[8];   /* "NTX", "CDX", ..., "unknown" */
  uint64_t keys;         /* keys in the tree */
  uint32_t depth;        /* levels from the root to the leaves */
  uint32_t tree_pages;   /* pages in the tree */
  uint32_t free_pages;   /* pages on the free list */
  int32_t key_length;    /* key bytes */
  int32_t flags;         /* DB_CHECK_UNIQUE, DB_CHECK_DESCENDING */
  uint32_t notes;        /* findings of each severity */
  uint32_t warnings;
  uint32_t faults;
} DBCHECKSUMMARY;

/* Receives one finding; the finding lives until the callback returns. */
typedef void (*DBCHECKREPORT)(void* context, const DBCHECKFINDING* finding);

/* Checks the index file `filename`.  Each finding goes to report (which may
 * be NULL) with context, in the order found; summary (required) receives the
 * format, the shape of the tree and the count of findings of each severity.
 * Returns 0 when the file was checked (summary->faults says whether it is
 * sound), 210 (DB_WARN_NOT_SUPPORTED) when it is an index of a format this
 * library cannot check yet (summary->format names it; no findings), -221
 * for a NULL filename or summary, or the error that opening or reading the
 * file gave. */
KESTREL_API int32_t DBCheckIndex(const char* filename, DBCHECKREPORT report, void* context,
                                 DBCHECKSUMMARY* summary);

KESTREL_EXTERN_C_END

#endif
