// The IDX and CDX invariant checker: walks a file and reports every rule it
// breaks.
//
// Rules, for the single tag of an IDX file and for the tag directory and
// every tag of a CDX file: header fields (key length, options, expressions
// inside the pool, root inside the file); every node reached once and
// decoding inside its bounds (compact leaves: widths inside the field,
// duplicate and trailing counts inside the key, fragments inside the
// free-space bound, the free-space count exact); every leaf of a tag at one
// depth; keys in order over the walk, equal keys by ascending record
// (strictly increasing keys in a unique tag); every interior entry equal to
// the last key (and record) of its child; sibling links agreeing both ways
// at every level; the free list free of loops and apart from the trees; tag
// headers where the directory says; no node left unreachable.
//
// The framework (index/common/checker.h) does the findings, node marks, free
// list and key order; this file supplies the node reader and the rules.
#pragma once

#include <cstdint>

#include "index/common/checker.h"
#include "runtime/memory.h"

namespace kestrel::foxpro {

// Checks an open IDX or CDX file of `length` bytes (the framework's
// FileChecker).
int32_t CheckOpenFile(FileHandle file, uint64_t length, Vec<index::CheckFinding>* findings,
                      index::CheckSummary* summary);

}  // namespace kestrel::foxpro
