// Times of day: printing and strict parsing.
#include "datetime/time_text.h"

#include <cstdio>
#include <cstring>

#include "datetime/date_styles.h"
#include "kestrel/kestrel_frame.h"

namespace kestrel {
namespace {

constexpr size_t kLongLength = 8;   // hh:mm:ss
constexpr size_t kShortLength = 4;  // hhmm
constexpr size_t kTimeBufferSize = 9;

}  // namespace

bool IsValidTime3(int32_t hours, int32_t minutes, int32_t seconds) {
  return hours >= 0 && hours <= 23 && minutes >= 0 && minutes <= 59 && seconds >= 0 &&
         seconds <= 59;
}

int32_t FormatTime(char* buffer, int32_t style, int32_t hours, int32_t minutes, int32_t seconds) {
  if (!IsValidTime3(hours, minutes, seconds)) return DB_ERR_INVALID_TIME;
  if (style == kTimeStyleLong) {
    std::snprintf(buffer, kTimeBufferSize, "%02d:%02d:%02d", hours, minutes, seconds);
  } else if (style == kTimeStyleShort) {
    std::snprintf(buffer, kTimeBufferSize, "%02d%02d", hours, minutes);
  } else {
    return DB_ERR_INVALID_COMMAND;
  }
  return 0;
}

int32_t ParseTime(const char* text, int32_t style, int32_t* hours, int32_t* minutes,
                  int32_t* seconds) {
  *hours = *minutes = *seconds = 0;
  if (style != kTimeStyleLong && style != kTimeStyleShort) return DB_ERR_INVALID_COMMAND;
  const size_t want = style == kTimeStyleLong ? kLongLength : kShortLength;
  if (strnlen(text, want + 1) != want) return DB_ERR_INVALID_TIME;

  const int32_t h = ReadDecimal(text, text + 2);
  const int32_t m = ReadDecimal(text + (style == kTimeStyleLong ? 3 : 2),
                                text + (style == kTimeStyleLong ? 5 : 4));
  const int32_t s = style == kTimeStyleLong ? ReadDecimal(text + 6, text + 8) : 0;

  // The numbers printed back must give the very same text.
  char again[16];
  if (style == kTimeStyleLong) {
    std::snprintf(again, sizeof again, "%02d:%02d:%02d", h, m, s);
  } else {
    std::snprintf(again, sizeof again, "%02d%02d", h, m);
  }
  if (std::strcmp(again, text) != 0) return DB_ERR_INVALID_TIME;
  if (!IsValidTime3(h, m, s)) return DB_ERR_INVALID_TIME;
  *hours = h;
  *minutes = m;
  *seconds = s;
  return 0;
}

}  // namespace kestrel
