/* KESTREL procedural interface: datetime.  Included by kestrel/kestrel.h. */
#ifndef KESTREL_DATETIME_H
#define KESTREL_DATETIME_H

#include "kestrel/kestrel_frame.h"

KESTREL_EXTERN_C_BEGIN

KESTREL_EXTERN_C_END

#endif
