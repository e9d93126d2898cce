// The time conversions shared by the exported time calls (modules TIME and
// TIMEW32).
#include "datetime/times.h"

#include "datetime/clock.h"
#include "datetime/time_text.h"
#include "runtime/status.h"

namespace kestrel {
namespace {
constexpr ModulePath kTime = KS_ENGINE_MODULE("TIME");
constexpr ModulePath kTimeClock = KS_PLATFORM_MODULE("TIMEW32");
}  // namespace

int32_t TimeNow(int32_t* hours, int32_t* minutes, int32_t* seconds, int32_t* hundredths) {
  LocalTime now;
  if (!ReadLocalClock(&now)) return KS_FAIL(kTimeClock, DB_ERR_INVALID_TIME);
  *hours = now.hours;
  *minutes = now.minutes;
  *seconds = now.seconds;
  *hundredths = 0;
  return 0;
}

int32_t TimeToText(char* buffer, int32_t style, int32_t hours, int32_t minutes, int32_t seconds) {
  buffer[0] = '\0';
  const int32_t rc = FormatTime(buffer, style, hours, minutes, seconds);
  return rc < 0 ? KS_FAIL(kTime, rc) : rc;
}

int32_t TextToTime(int32_t* hours, int32_t* minutes, int32_t* seconds, const char* text,
                   int32_t style) {
  if (!text) {
    *hours = *minutes = *seconds = 0;
    return KS_FAIL(kTime, DB_ERR_NULL);
  }
  const int32_t rc = ParseTime(text, style, hours, minutes, seconds);
  return rc < 0 ? KS_FAIL(kTime, rc) : rc;
}

int32_t ReadSecondsFor(const char* text, int32_t style, int32_t* seconds) {
  int32_t h, m, s;
  const int32_t rc = TextToTime(&h, &m, &s, text, style);
  if (rc < 0) return KS_PASS(kTime, rc);
  *seconds = 3600 * h + 60 * m + s;
  return 0;
}

}  // namespace kestrel
