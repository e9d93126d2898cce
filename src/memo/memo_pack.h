// Packing memo files: a memo file is rewritten with only the memos that the
// active records of its table point to, in record order, and the table's
// memo fields are rewritten with the new block numbers.
//
// Steps (both formats):
//   1. Copy: for every record whose deletion flag is a blank, for every memo
//      field (type 'M', 10 characters) holding a block number other than 0,
//      the memo is read from the old file and appended to a work file in the
//      memo file's directory named n + the memo extension (n = 0, 1, ...,
//      the first name not taken).  Records marked deleted keep their block
//      numbers.  Nothing is changed yet; a failure deletes the work file.
//   2. Swap: the old file becomes the backup (the memo name with ".BKT"; an
//      older backup is deleted), the work file takes the memo file's name,
//      and it is reopened with the old switches into the caller's handle.
//   3. Rewrite: the changed records get their new block numbers ("%10lu")
//      and are written back, then the table is flushed.
// A shared table holds its file lock for the whole pack.
#pragma once

#include <cstdint>

namespace kestrel::memo {

int32_t PackDbt(int32_t table, int32_t* memo_handle);
int32_t PackFpt(int32_t table, int32_t* memo_handle);

}  // namespace kestrel::memo
