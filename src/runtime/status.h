// The one way the library fails and succeeds.
//
// Every operation reports through five helpers and nothing else:
//
//   KS_FAIL(module, code)  a failure found here: records the code as the library
//                          error code, logs (module, line, code), returns it.
//   KS_PASS(module, rc)    a callee's failure passed on: records it, logs it again
//                          under this module (so the log shows the way out), returns it.
//   Record(code)           records a code without a log line and returns it: quiet
//                          failures, warnings and results reported as the code.
//   Succeed()              records 0 and returns 0.
//   Ok()                   returns the code as it stands (success that leaves the
//                          code alone, as some operations document).
//
// A failure path is one line:
//
//     if (n < 0) return KS_FAIL(kModule, DB_ERR_BAD_DATA);
//     if (rc < 0) return KS_PASS(kModule, rc);
//
// Each source file declares the module paths it reports under as constants:
//
//     constexpr ModulePath kModule = KS_ENGINE_MODULE("DOPEN");
#pragma once

#include <cstdint>

#include "kestrel/kestrel_frame.h"

namespace kestrel {

// The module path written to the error log: "..\C_ALL\NAME" for engine
// modules, "..\C_WIN32\NAME" for the platform modules.
struct ModulePath {
  const char* path;
};

// Records the library error code, logs (module, line, code) and returns code.
int32_t Fail(ModulePath module, int line, int32_t code);
// Records code, logs it again under module (a failure passed on) and returns it.
int32_t Pass(ModulePath module, int line, int32_t code);
// Records the code without a log line and returns it.
int32_t Record(int32_t code);
// Writes a log line only (the log of a failure whose code is kept elsewhere).
void LogError(ModulePath module, int line, int32_t code);
// Current library error code.
int32_t ErrorCode();
// Records 0 and returns 0.
inline int32_t Succeed() { return Record(0); }
// Returns the current code unchanged (the "success leaves the code" rule).
inline int32_t Ok() { return ErrorCode(); }
// The fixed message for a status code.
const char* MessageFor(int32_t code);

}  // namespace kestrel

#define KS_FAIL(module, code) ::kestrel::Fail((module), __LINE__, (code))
#define KS_PASS(module, code) ::kestrel::Pass((module), __LINE__, (code))

// Module path literals.
// clang-format off
#define KS_ENGINE_MODULE(name) ::kestrel::ModulePath{"..\\C_ALL\\" name}
#define KS_PLATFORM_MODULE(name) ::kestrel::ModulePath{"..\\C_WIN32\\" name}
// clang-format on
