// Times of day as text: style 1 "hh:mm:ss", style 2 "hhmm".
//
// Parsing is strict: the text must have exactly the style's length and read
// back identically when printed again, so "9:05:00" or "09:5:00" are refused
// rather than guessed at.  Both routines report through their return value
// only (0, -212 for a bad style, -216 for a bad time); the exported calls log.
#pragma once

#include <cstdint>

namespace kestrel {

inline constexpr int32_t kTimeStyleLong = 1;   // hh:mm:ss
inline constexpr int32_t kTimeStyleShort = 2;  // hhmm

bool IsValidTime3(int32_t hours, int32_t minutes, int32_t seconds);

// buffer holds at least 9 bytes.  Checks the time first, then the style.
int32_t FormatTime(char* buffer, int32_t style, int32_t hours, int32_t minutes, int32_t seconds);

// Stores the parsed time (zeros unless 0 is returned).
int32_t ParseTime(const char* text, int32_t style, int32_t* hours, int32_t* minutes,
                  int32_t* seconds);

}  // namespace kestrel
