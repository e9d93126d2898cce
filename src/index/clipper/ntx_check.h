// The .NTX invariant checker: walks a file and reports every rule it breaks.
//
// Rules: header fields consistent (key length, item size, page capacity, half
// page, root and free-list offsets, expression terminated); every tree page
// reached once; counts at most the page capacity and, below the root, at least
// half a page; item offset tables naming distinct, non-overlapping items inside
// the page; every leaf at the same depth; keys in order (strictly for a unique
// index) over the whole walk; the free list free of loops and apart from the
// tree; no page left unreachable.  Headers that some writers of the format
// extend (a FOR condition from offset 282, a tag name from offset 538) are
// noted, not faulted.
//
// The framework (index/common/checker.h) does the findings, page marks, free
// list and key order; this file supplies the page reader and the page rules.
#pragma once

#include <cstdint>

#include "index/common/checker.h"
#include "runtime/memory.h"

namespace kestrel::ntx {

using CheckFinding = index::CheckFinding;
using CheckSummary = index::CheckSummary;

// Checks an open file of `length` bytes (the framework's FileChecker).
int32_t CheckOpenFile(FileHandle file, uint64_t length, Vec<CheckFinding>* findings,
                      CheckSummary* summary);

// Checks the file as an .NTX file, whatever its header says.  Returns 0 when
// it could be read at all (the findings tell whether it is sound), or the
// open / read error.
int32_t CheckIndexFile(const char* path, Vec<CheckFinding>* findings, CheckSummary* summary);

// Checks the file of an open index handle, after flushing its changed pages
// (read-only indexes are checked as they are on disk).
int32_t CheckIndexHandle(int32_t handle, Vec<CheckFinding>* findings, CheckSummary* summary);

}  // namespace kestrel::ntx
