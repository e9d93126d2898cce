// The .NTX invariant checker: walks a file and reports every rule it breaks.
//
// Rules: header fields consistent (key length, item size, page capacity, half
// page, root and free-list offsets, expression terminated); every tree page
// reached once; counts at most the page capacity and, below the root, at least
// half a page; item offset tables naming distinct, non-overlapping items inside
// the page; every leaf at the same depth; keys in order (strictly for a unique
// index) over the whole walk; the free list free of loops and apart from the
// tree; no page left unreachable.
//
// The checker reads the file itself, through the file services, so it sees
// what another program would see: flush an open index first.
#pragma once

#include <cstdint>

#include "runtime/memory.h"

namespace kestrel::ntx {

struct CheckFinding {
  uint32_t page;   // page offset the finding is about (0: the header)
  int32_t code;    // the status an engine would report (-206, -225, ...)
  char text[160];  // what is wrong, in words
};

struct CheckSummary {
  uint64_t keys;        // keys in the tree
  uint32_t depth;       // levels from the root to the leaves
  uint32_t tree_pages;  // pages in the tree
  uint32_t free_pages;  // pages on the free list
  uint16_t key_length;
  bool unique;
  bool descending;
};

// Checks the file.  Returns 0 when it could be read at all (the findings tell
// whether it is sound), or the open / read error.
int32_t CheckIndexFile(const char* path, Vec<CheckFinding>* findings, CheckSummary* summary);

// Checks the file of an open index handle, after flushing its changed pages
// (read-only indexes are checked as they are on disk).
int32_t CheckIndexHandle(int32_t handle, Vec<CheckFinding>* findings, CheckSummary* summary);

}  // namespace kestrel::ntx
