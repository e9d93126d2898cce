/* KESTREL procedural interface: table.  Included by kestrel/kestrel.h. */
#ifndef KESTREL_TABLE_H
#define KESTREL_TABLE_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

KESTREL_EXTERN_C_END

#endif
