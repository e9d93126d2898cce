// Exported entry points of the evaluator (module EVAL) and the keyword
// registry (module EVALX): argument checks, then the engine in src/expr.
#include "expr/evaluate.h"
#include "expr/parse_entries.h"
#include "kestrel/kestrel_expr.h"
#include "runtime/boundary.h"
#include "runtime/status.h"

using namespace kestrel;

namespace {

constexpr ModulePath kEval = KS_ENGINE_MODULE("EVAL");

char ToUpperAscii(char c) { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

}  // namespace

extern "C" {

KESTREL_API int32_t DBEvaluateStr(int32_t table, char* expression, DBEXPRVALUE* result) {
  return Guarded([&]() -> int32_t {
    if (!expression || !result) return KS_FAIL(kEval, DB_ERR_NULL);
    // The caller's text is changed on purpose: blanks go (wherever they
    // stand, literals included) and letters become upper case.
    char* to = expression;
    for (const char* from = expression; *from; ++from) {
      if (*from != ' ') *to++ = ToUpperAscii(*from);
    }
    *to = '\0';
    int32_t rc = EvaluateKeyExpression(table, expression, result);
    if (rc < 0) return KS_PASS(kEval, rc);
    return rc;
  });
}

KESTREL_API int32_t DBProcessTable(void) {
  return Guarded([&]() -> int32_t { return expr::ProcessTableForKeyword(); });
}

KESTREL_API int32_t DBGetValue(uint16_t* number) {
  return Guarded([&]() -> int32_t { return expr::GetValueForKeyword(number); });
}

KESTREL_API int32_t DBAddParseEntry(const char* name, ParseEntryCallback callback) {
  return Guarded([&]() -> int32_t { return expr::AddParseEntry(name, callback); });
}

KESTREL_API int32_t DBDeleteParseEntry(const char* name) {
  return Guarded([&]() -> int32_t { return expr::DeleteParseEntry(name); });
}

KESTREL_API int32_t DBGetEntryStr(char* buffer, int32_t index) {
  return Guarded([&]() -> int32_t { return expr::GetEntryName(buffer, index); });
}

KESTREL_API int32_t DBGetTableInfo(int16_t* count, int32_t* maxLength) {
  return Guarded([&]() -> int32_t { return expr::GetRegistryInfo(count, maxLength); });
}

}  // extern "C"
