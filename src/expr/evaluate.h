// The evaluator's entry point for the index engines.
//
// An index engine computes a record's key by evaluating its stored key
// expression against the table's current record buffer and converting the
// typed value into its own key bytes.
#pragma once

#include <cstdint>

#include "kestrel/kestrel_expr.h"

namespace kestrel {

// Evaluates expression (already free of blanks and upper-cased, as stored in
// an index header) for the current record of table.  On success *out holds a
// buffer from the library allocator that the caller owns and frees with
// MemFree / DBFreeMemory, and the result is 0.  On failure out->value is
// nullptr, nothing is held, and the negative code is returned (also left in
// the library error code): -213 bad table handle, -207 bad expression, -203
// out of memory, or the code of a failed field read.
int32_t EvaluateKeyExpression(int32_t table, const char* expression, DBEXPRVALUE* out);

namespace expr {
// DBProcessTable and DBGetValue: the calls a keyword callback makes to read
// its arguments while an evaluation runs.
int32_t ProcessTableForKeyword();
int32_t GetValueForKeyword(uint16_t* number);
}  // namespace expr

}  // namespace kestrel
