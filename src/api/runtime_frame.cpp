// Exported frame functions (module INITW32): library start and stop, the
// error code, its message and the error log switch, the version text.
#include "runtime/library_state.h"
#include "runtime/status.h"

using namespace kestrel;

extern "C" {

KESTREL_API int32_t DBInitialize(int32_t count, int32_t flags) { return Initialize(count, flags); }

KESTREL_API int32_t DBTerminate(void) { return Terminate(); }

KESTREL_API int32_t DBGetErrorCode(void) { return ErrorCode(); }

KESTREL_API int32_t DBSetErrorCode(int32_t code) { return Record(code); }

KESTREL_API const char* DBGetErrorStr(void) { return MessageFor(ErrorCode()); }

KESTREL_API int32_t DBErrorLog(int32_t mode, const char* name) { return SetErrorLog(mode, name); }

KESTREL_API int32_t DBGetVersion(char* buffer) { return GetVersion(buffer); }

}  // extern "C"
