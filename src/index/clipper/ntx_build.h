// Building an .NTX index from a table: every record's key (deleted records
// included) in record order, sorted in memory up to a budget or through
// temporary sort files, written bottom-up as full pages with the last page of
// each level balanced against its left neighbour.
#pragma once

#include <cstdint>

namespace kestrel::ntx {

// Phases reported to a progress callback.
inline constexpr int kBuildReading = 1;  // keys made, of the records
inline constexpr int kBuildSorting = 2;  // keys merged from sorted runs
inline constexpr int kBuildWriting = 3;  // keys written into pages

struct BuildProgress {
  void (*report)(void* context, int phase, uint64_t done, uint64_t total);
  void* context;
};

// key_type as DBclCreateIndex takes it, plus 0x10000 for numeric keys with
// decimals.  progress may be null.
int32_t BuildIndex(int32_t table, const char* file_name, int32_t key_type, char* expression,
                   int32_t key_length, int32_t decimals, const BuildProgress* progress);

}  // namespace kestrel::ntx
