// The .NDX invariant checker: walks a file and reports every rule it breaks.
//
// Rules: header fields consistent (key length, item length, keys per page,
// key class, root and page count, expression terminated); every tree page
// reached once and inside the file; counts that fit the page, and no page
// below the root without keys; interior pages naming a child for every key
// and after the last; every interior key equal to the greatest key of the
// subtree on its left; every leaf at the same depth; keys in the tag's typed
// order (strictly for a unique index) over the whole walk.  Pages that the
// tree no longer uses are noted (the format has no free list: merges leave
// them where they are until a build or zap).
//
// The framework (index/common/checker.h) does the findings, page marks and
// key order; this file supplies the header rules, the page reader and the
// page rules.
#pragma once

#include <cstdint>

#include "index/common/checker.h"
#include "runtime/memory.h"

namespace kestrel::dbase {

// Checks an open file of `length` bytes (the framework's FileChecker).
int32_t CheckNdxFile(FileHandle file, uint64_t length, Vec<index::CheckFinding>* findings,
                     index::CheckSummary* summary);

// Checks the file of an open index handle, after flushing its changed pages
// (read-only indexes are checked as they are on disk).
int32_t CheckIndexHandle(int32_t handle, Vec<index::CheckFinding>* findings,
                         index::CheckSummary* summary);

}  // namespace kestrel::dbase
