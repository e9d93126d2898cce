// The clock, read through the C library's reentrant local-time conversion.
#include <ctime>

#include "datetime/clock.h"

namespace kestrel {

bool ReadLocalClock(LocalTime* now) {
  const std::time_t t = std::time(nullptr);
  if (t == static_cast<std::time_t>(-1)) return false;
  std::tm tm{};
  if (!localtime_r(&t, &tm)) return false;
  now->year = tm.tm_year + 1900;
  now->month = tm.tm_mon + 1;
  now->day = tm.tm_mday;
  now->weekday = tm.tm_wday;
  now->hours = tm.tm_hour;
  now->minutes = tm.tm_min;
  now->seconds = tm.tm_sec > 59 ? 59 : tm.tm_sec;
  return true;
}

}  // namespace kestrel
