// The clock: the current local date and time.
#pragma once

#include <cstdint>

namespace kestrel {

struct LocalTime {
  int32_t year;     // e.g. 2026
  int32_t month;    // 1..12
  int32_t day;      // 1..31
  int32_t weekday;  // 0 = Sunday
  int32_t hours;    // 0..23
  int32_t minutes;  // 0..59
  int32_t seconds;  // 0..59 (a leap second reads as 59)
};

// Reads the local time now; false when the system cannot tell.
bool ReadLocalClock(LocalTime* now);

}  // namespace kestrel
