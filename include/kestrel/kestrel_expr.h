/* KESTREL procedural interface: the key-expression evaluator and user
 * keywords.  Included by kestrel/kestrel.h. */
#ifndef KESTREL_EXPR_H
#define KESTREL_EXPR_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

/* A typed evaluation result.  The value buffer comes from DBAllocateMemory and
 * belongs to the receiver, who frees it with DBFreeMemory. */
typedef struct DBEXPRVALUE {
  void *value;    /* the value buffer */
  int16_t type;   /* type code: 'C', 'D', 'N', 'F', 'L', 'M' or 1..6 */
  int16_t length; /* text length for 'C' and 'D', buffer size otherwise */
} DBEXPRVALUE;

/* A user keyword's evaluator: receives the current-value record to fill. */
typedef int32_t (*ParseEntryCallback)(DBEXPRVALUE *current);

KESTREL_EXTERN_C_END

#endif
