// The time conversions behind the exported time calls, reporting as they do:
// a failure is logged under TIME (TIMEW32 for the clock) and success leaves
// the library code as it was.
#pragma once

#include <cstdint>

namespace kestrel {

// The local time of day; hundredths are always 0 (the clock reads seconds).
int32_t TimeNow(int32_t* hours, int32_t* minutes, int32_t* seconds, int32_t* hundredths);
// Prints a time in the style; -217 for an invalid time.
int32_t TimeToText(char* buffer, int32_t style, int32_t hours, int32_t minutes, int32_t seconds);
// Reads a time text in the style (zeros unless 0); a missing text is -221.
int32_t TextToTime(int32_t* hours, int32_t* minutes, int32_t* seconds, const char* text,
                   int32_t style);
// Seconds since midnight of a time text, for calls built on the parser: a
// failure is logged where it is found and once more here.
int32_t ReadSecondsFor(const char* text, int32_t style, int32_t* seconds);

}  // namespace kestrel
