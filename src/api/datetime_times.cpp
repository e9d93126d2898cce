// Exported time calls: the clock's time of day and times as text.
//
// Success returns 0 and leaves the library error code as it was.
#include <cstdlib>

#include "datetime/times.h"
#include "kestrel/kestrel_datetime.h"
#include "runtime/boundary.h"
#include "runtime/status.h"

using namespace kestrel;

namespace {

constexpr ModulePath kTime = KS_ENGINE_MODULE("TIME");
constexpr ModulePath kTimeClock = KS_PLATFORM_MODULE("TIMEW32");

}  // namespace

extern "C" {

KESTREL_API int32_t DBGetTime3(int32_t* hours, int32_t* minutes, int32_t* seconds,
                               int32_t* hundredths) {
  return Guarded([&]() -> int32_t {
    if (!hours || !minutes || !seconds || !hundredths) return KS_FAIL(kTimeClock, DB_ERR_NULL);
    return TimeNow(hours, minutes, seconds, hundredths);
  });
}

KESTREL_API int32_t DBTime3ToStr(char* buffer, int32_t style, int32_t hours, int32_t minutes,
                                 int32_t seconds) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kTime, DB_ERR_NULL);
    return TimeToText(buffer, style, hours, minutes, seconds);
  });
}

KESTREL_API int32_t DBStrTimeTo3(int32_t* hours, int32_t* minutes, int32_t* seconds,
                                 const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!hours || !minutes || !seconds) return KS_FAIL(kTime, DB_ERR_NULL);
    return TextToTime(hours, minutes, seconds, string, style);
  });
}

KESTREL_API int32_t DBIsValidTimeStr(const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    int32_t seconds = 0;
    return ReadSecondsFor(string, style, &seconds);
  });
}

KESTREL_API int32_t DBGetTimeStr(char* buffer, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kTime, DB_ERR_NULL);
    buffer[0] = '\0';
    int32_t h, m, s, hundredths;
    const int32_t rc = TimeNow(&h, &m, &s, &hundredths);
    if (rc < 0) return KS_PASS(kTime, rc);
    return TimeToText(buffer, style, h, m, s);
  });
}

KESTREL_API int32_t DBSecondsBetweenStr(int32_t* seconds, const char* string1, int32_t style1,
                                        const char* string2, int32_t style2) {
  return Guarded([&]() -> int32_t {
    if (!seconds) return KS_FAIL(kTime, DB_ERR_NULL);
    *seconds = 0;
    int32_t first = 0, second = 0;
    int32_t rc = ReadSecondsFor(string1, style1, &first);
    if (rc < 0) return rc;
    rc = ReadSecondsFor(string2, style2, &second);
    if (rc < 0) return rc;
    *seconds = std::abs(first - second);
    return 0;
  });
}

}  // extern "C"
