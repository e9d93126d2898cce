/* KESTREL procedural interface: memo.  Included by kestrel/kestrel.h. */
#ifndef KESTREL_MEMO_H
#define KESTREL_MEMO_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

KESTREL_EXTERN_C_END

#endif
