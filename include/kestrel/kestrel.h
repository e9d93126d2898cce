/*
 * KESTREL procedural C interface.
 *
 * Every function returns a status code: 0 for success, 201..212 for warnings
 * (the operation was done; the code says something worth knowing), negative
 * values for errors.  The last status is kept library-wide and can be read with
 * DBGetErrorCode and turned into text with DBGetErrorStr.
 *
 * Threads: the library keeps its state process-wide (handle table, error code,
 * evaluator, lock buffer, default date style) and takes no locks of its own.
 * Callers must serialise their calls into the library, one at a time.
 *
 * This header compiles as C99 and as C++.
 */
#ifndef KESTREL_KESTREL_H
#define KESTREL_KESTREL_H

#include "kestrel/kestrel_check.h"
#include "kestrel/kestrel_dbase.h"
#include "kestrel/kestrel_datetime.h"
#include "kestrel/kestrel_expr.h"
#include "kestrel/kestrel_foxpro.h"
#include "kestrel/kestrel_frame.h"
#include "kestrel/kestrel_memo.h"
#include "kestrel/kestrel_ntx.h"
#include "kestrel/kestrel_table.h"

#endif
