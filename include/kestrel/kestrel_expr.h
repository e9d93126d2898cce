/* KESTREL procedural interface: the key-expression evaluator and user
 * keywords.  Included by kestrel/kestrel.h.
 *
 * A key expression is a short text such as NAME+STR(AMOUNT,10,2) or
 * DTOC(HIRED,1): field names, unquoted literals, the functions DTOC, LEFT,
 * RIGHT, STR and SUBSTR and the operators "+" and "-", evaluated left to right
 * without precedence against the current record of an open table.  See
 * docs/expressions.md for the grammar and its rules.
 *
 * Threads: the evaluator's working state and the keyword registry are
 * process-wide and unprotected, like the rest of the library's state; callers
 * make one call into the library at a time. */
#ifndef KESTREL_EXPR_H
#define KESTREL_EXPR_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

/* A typed evaluation result.  The value buffer comes from DBAllocateMemory and
 * belongs to the receiver, who frees it with DBFreeMemory. */
typedef struct DBEXPRVALUE {
  void* value;    /* the value buffer */
  int16_t type;   /* type code: 'C', 'D', 'N', 'F', 'L', 'M' or 1..6 */
  int16_t length; /* text length for 'C' and 'D', buffer size otherwise */
} DBEXPRVALUE;

/* A user keyword's evaluator: receives the current-value record to fill. */
typedef int32_t (*ParseEntryCallback)(DBEXPRVALUE* current);

/* ---- Evaluation ----------------------------------------------------------
 * Evaluates expression against the current record of table.  The text is
 * changed in place: every blank is removed and letters are upper-cased.  On
 * success result->value is a buffer from DBAllocateMemory that the caller
 * frees; on failure it is NULL.  Returns 0 or a negative code (-207 for a bad
 * expression, -213 for a bad table handle, -221 for a NULL argument, -203
 * when memory runs out). */
KESTREL_API int32_t DBEvaluateStr(int32_t table, char* expression, DBEXPRVALUE* result);

/* For keyword callbacks only, while an evaluation is running: evaluates one
 * expression at the parse position (an argument, up to the next "," or ")")
 * and leaves it in the current-value record, freeing the buffer that record
 * held before. */
KESTREL_API int32_t DBProcessTable(void);
/* For keyword callbacks only: steps over the separator at the parse position
 * and reads one unsigned decimal argument up to the next "," or ")".  -207
 * when there is no such delimiter or the argument is empty. */
KESTREL_API int32_t DBGetValue(uint16_t* number);

/* ---- User keywords --------------------------------------------------------
 * Names are matched against the upper-cased, blank-free text as prefixes, so
 * register them in upper case; a name may end with its own "(", in which case
 * the evaluator steps over the closing ")" after the callback returns. */
/* 211 when the name (or a registered prefix of it) is present already. */
KESTREL_API int32_t DBAddParseEntry(const char* name, ParseEntryCallback callback);
/* 204 when no keyword of exactly that name is registered. */
KESTREL_API int32_t DBDeleteParseEntry(const char* name);
/* Copies the name of keyword index (0-based, sorted order) and a terminating
 * zero into buffer (maxLength + 1 bytes, maxLength from DBGetTableInfo); 203
 * when index is not below the count. */
KESTREL_API int32_t DBGetEntryStr(char* buffer, int32_t index);
/* The number of keywords and the longest name's length; 202 (maxLength not
 * written) when there is none. */
KESTREL_API int32_t DBGetTableInfo(int16_t* count, int32_t* maxLength);

KESTREL_EXTERN_C_END

#endif
