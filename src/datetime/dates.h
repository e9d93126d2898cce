// The date conversions other engines use (tables for date fields and the
// update date, the evaluator for date keys), reporting as the exported date
// calls do: a failure is logged under DATE (DATEW32 for the clock), a blank
// date is the warning 202, stored as the library code without a log line,
// and success leaves the library code as it was.
#pragma once

#include <cstdint>

namespace kestrel {

// Prints year/month/day in the style; -216 for an invalid date.
int32_t DateToText(char* buffer, int32_t style, int32_t year, int32_t month, int32_t day);
// Reads a date text in the style into year/month/day (zeros unless 0).
int32_t TextToDate(int32_t* year, int32_t* month, int32_t* day, const char* text, int32_t style);
// Re-prints a date text from one style in another ("" for a blank date).
int32_t ConvertDateText(char* buffer, int32_t to_style, const char* text, int32_t from_style);
// Today's local date and weekday (0 = Sunday).
int32_t Today(int32_t* year, int32_t* month, int32_t* day, int32_t* weekday);
// Today's date printed in the style.
int32_t TodayToText(char* buffer, int32_t style);
// Prints a day number's date in the style; -216 for a day number out of range.
int32_t DayNumberToText(char* buffer, int32_t style, int32_t day_number);
// Reads a date text for a call built on the parser: a missing text is -221 with
// the date zeroed, and a failure is logged where it is found and once more
// here, so the log shows the composite call as well.
int32_t ReadDateFor(const char* text, int32_t style, int32_t* year, int32_t* month, int32_t* day);

}  // namespace kestrel
