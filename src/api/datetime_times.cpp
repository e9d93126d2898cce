// Exported time calls: the clock's time of day and times as text.
//
// Success returns 0 and leaves the library error code as it was.
#include <cstdlib>

#include "datetime/clock.h"
#include "datetime/time_text.h"
#include "kestrel/kestrel_datetime.h"
#include "runtime/boundary.h"
#include "runtime/status.h"

using namespace kestrel;

namespace {

constexpr ModulePath kTime = KS_ENGINE_MODULE("TIME");
constexpr ModulePath kTimeClock = KS_PLATFORM_MODULE("TIMEW32");

int32_t Report(int line, int32_t rc) { return rc < 0 ? Fail(kTime, line, rc) : rc; }
#define TIME_REPORT(rc) Report(__LINE__, (rc))

// Seconds since midnight of a time text, for DBSecondsBetweenStr.
int32_t SecondsOf(int line, const char* text, int32_t style, int32_t* seconds) {
  int32_t h, m, s;
  const int32_t rc = DBStrTimeTo3(&h, &m, &s, text, style);
  if (rc < 0) {
    LogError(kTime, line, rc);
    return rc;
  }
  *seconds = 3600 * h + 60 * m + s;
  return 0;
}

}  // namespace

extern "C" {

KESTREL_API int32_t DBGetTime3(int32_t* hours, int32_t* minutes, int32_t* seconds,
                               int32_t* hundredths) {
  return Guarded([&]() -> int32_t {
    if (!hours || !minutes || !seconds || !hundredths) return KS_FAIL(kTimeClock, DB_ERR_NULL);
    LocalTime now;
    if (!ReadLocalClock(&now)) return KS_FAIL(kTimeClock, DB_ERR_INVALID_TIME);
    *hours = now.hours;
    *minutes = now.minutes;
    *seconds = now.seconds;
    *hundredths = 0;
    return 0;
  });
}

KESTREL_API int32_t DBTime3ToStr(char* buffer, int32_t style, int32_t hours, int32_t minutes,
                                 int32_t seconds) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kTime, DB_ERR_NULL);
    buffer[0] = '\0';
    return TIME_REPORT(FormatTime(buffer, style, hours, minutes, seconds));
  });
}

KESTREL_API int32_t DBStrTimeTo3(int32_t* hours, int32_t* minutes, int32_t* seconds,
                                 const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!hours || !minutes || !seconds) return KS_FAIL(kTime, DB_ERR_NULL);
    if (!string) {
      *hours = *minutes = *seconds = 0;
      return KS_FAIL(kTime, DB_ERR_NULL);
    }
    return TIME_REPORT(ParseTime(string, style, hours, minutes, seconds));
  });
}

KESTREL_API int32_t DBIsValidTimeStr(const char* string, int32_t style) {
  return Guarded([&]() -> int32_t {
    int32_t h, m, s;
    const int32_t rc = DBStrTimeTo3(&h, &m, &s, string, style);
    return rc < 0 ? KS_PASS(kTime, rc) : rc;
  });
}

KESTREL_API int32_t DBGetTimeStr(char* buffer, int32_t style) {
  return Guarded([&]() -> int32_t {
    if (!buffer) return KS_FAIL(kTime, DB_ERR_NULL);
    buffer[0] = '\0';
    int32_t h, m, s, hundredths;
    const int32_t rc = DBGetTime3(&h, &m, &s, &hundredths);
    if (rc < 0) return KS_PASS(kTime, rc);
    return TIME_REPORT(FormatTime(buffer, style, h, m, s));
  });
}

KESTREL_API int32_t DBSecondsBetweenStr(int32_t* seconds, const char* string1, int32_t style1,
                                        const char* string2, int32_t style2) {
  return Guarded([&]() -> int32_t {
    if (!seconds) return KS_FAIL(kTime, DB_ERR_NULL);
    *seconds = 0;
    int32_t first = 0, second = 0;
    int32_t rc = SecondsOf(__LINE__, string1, style1, &first);
    if (rc < 0) return rc;
    rc = SecondsOf(__LINE__, string2, style2, &second);
    if (rc < 0) return rc;
    *seconds = std::abs(first - second);
    return 0;
  });
}

}  // extern "C"
