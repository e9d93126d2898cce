/* KESTREL procedural interface: ntx.  Included by kestrel/kestrel.h. */
#ifndef KESTREL_NTX_H
#define KESTREL_NTX_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

KESTREL_EXTERN_C_END

#endif
