// The failure convention shared by the whole library.
//
// A failing operation records its status as the library error code, appends a
// line to the error log (module path, source line, code) and returns the code.
// One call does all three, so a failure path is one line:
//
//     if (n < 0) return KS_FAIL(kModule, DB_ERR_BAD_DATA);
//
// Each source file declares the module paths it reports under as constants:
//
//     constexpr ModulePath kModule = KS_ENGINE_MODULE("DOPEN");
//
// Successful operations either leave the code as it was (Ok()) or reset it
// (Succeed()), as each operation documents.
#pragma once

#include <cstdint>

#include "kestrel/kestrel_frame.h"

namespace kestrel {

// The module path written to the error log: "..\C_ALL\NAME" for engine
// modules, "..\C_WIN32\NAME" for the platform modules.
struct ModulePath {
  const char* path;
};

// Sets the library error code, logs (module, line, code) and returns code.
int32_t Fail(ModulePath module, int line, int32_t code);
// Sets the library error code without a log line and returns it.
int32_t FailQuiet(int32_t code);
// Writes a log line only (for failures passed on from an inner call).
void LogError(ModulePath module, int line, int32_t code);
// Current library error code.
int32_t ErrorCode();
// Stores the code and returns it.
int32_t SetErrorCode(int32_t code);
// Resets the code to 0 and returns 0.
inline int32_t Succeed() { return SetErrorCode(0); }
// Returns the current code unchanged (the "success leaves the code" rule).
inline int32_t Ok() { return ErrorCode(); }
// The fixed message for a status code.
const char* MessageFor(int32_t code);

}  // namespace kestrel

#define KS_FAIL(module, code) ::kestrel::Fail((module), __LINE__, (code))
// Passes on an inner failure: logs it again under this module and returns it.
#define KS_PASS(module, code) (::kestrel::LogError((module), __LINE__, (code)), (code))

// Module path literals.
// clang-format off
#define KS_ENGINE_MODULE(name) ::kestrel::ModulePath{"..\\C_ALL\\" name}
#define KS_PLATFORM_MODULE(name) ::kestrel::ModulePath{"..\\C_WIN32\\" name}
// clang-format on
