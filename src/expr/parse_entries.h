// The keyword registry (module EVALX): user keywords that extend the
// evaluator's grammar, each with the callback that evaluates it.
//
// The registry is one process-wide array owned by this file, kept sorted
// by name so that the evaluator can find the keyword at the parse position by
// binary search.  It is created with room for 20 entries by the first
// addition, grows by 10 entries when full and is freed when its last entry is
// deleted (and by DBTerminate).
#pragma once

#include <cstdint>

#include "kestrel/kestrel_expr.h"

namespace kestrel::expr {

// A user keyword of the evaluator.
struct ParseEntry {
  char* name;                   // heap copy, exactly name_length bytes, no terminator
  ParseEntryCallback callback;  // evaluates the keyword
  int32_t name_length;
};

// The keyword registry: kept sorted by name.
struct ParseEntryTable {
  ParseEntry* entries = nullptr;
  int16_t count = 0;
  int16_t capacity = 0;
};

// The registry itself (one per process).
const ParseEntryTable& Registry();
// Number of keywords registered now.
inline int32_t KeywordCount() { return Registry().count; }
// Frees every keyword of the registry and the registry itself.
void FreeParseEntries();

// The index of the keyword that text begins with, or -1.  A keyword matches
// when its name's bytes equal the text's first bytes; the text must be
// NUL-terminated (it is never read past its terminator).
int32_t FindParseEntry(const char* text);

int32_t AddParseEntry(const char* name, ParseEntryCallback callback);
int32_t DeleteParseEntry(const char* name);
int32_t GetEntryName(char* buffer, int32_t index);
int32_t GetRegistryInfo(int16_t* count, int32_t* max_length);

}  // namespace kestrel::expr
