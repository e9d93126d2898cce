// Building an .NTX index from a table: every record's key (deleted records
// included) sorted by the shared sorter (index/common/sorter.h), written
// bottom-up as full pages with the last page of each level balanced against
// its left neighbour, into a work file that replaces the index only when
// complete.
#pragma once

#include <cstdint>

#include "index/common/sorter.h"

namespace kestrel::ntx {

// key_type as DBclCreateIndex takes it, plus 0x10000 for numeric keys with
// decimals.  progress may be null; a negative status from it stops the
// build, which then returns that status and leaves the old index as it was.
int32_t BuildIndex(int32_t table, const char* file_name, int32_t key_type, char* expression,
                   int32_t key_length, int32_t decimals, const index::BuildProgress* progress);

}  // namespace kestrel::ntx
