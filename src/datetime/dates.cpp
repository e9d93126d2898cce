// The date conversions shared by the engines and the exported date calls
// (modules DATE and DATEW32).
#include "datetime/dates.h"

#include "datetime/calendar.h"
#include "datetime/clock.h"
#include "datetime/date_styles.h"
#include "runtime/status.h"

namespace kestrel {
namespace {
constexpr ModulePath kDate = KS_ENGINE_MODULE("DATE");
constexpr ModulePath kDateClock = KS_PLATFORM_MODULE("DATEW32");

// Turns a parser or printer result into the reported status.
int32_t Report(int line, int32_t rc) {
  if (rc == DB_WARN_FILE_EMPTY) return Record(rc);
  if (rc < 0) return Fail(kDate, line, rc);
  return rc;
}
}  // namespace

int32_t DateToText(char* buffer, int32_t style, int32_t year, int32_t month, int32_t day) {
  if (!IsValidDate3(year, month, day)) return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
  return Report(__LINE__, FormatDate(buffer, style, year, month, day));
}

int32_t TextToDate(int32_t* year, int32_t* month, int32_t* day, const char* text, int32_t style) {
  return Report(__LINE__, ParseDate(text, style, year, month, day));
}

int32_t ConvertDateText(char* buffer, int32_t to_style, const char* text, int32_t from_style) {
  buffer[0] = '\0';
  int32_t y, m, d;
  const int32_t rc = ReadDateFor(text, from_style, &y, &m, &d);
  if (rc != 0) return rc;  // a blank date converts to an empty text
  return Report(__LINE__, FormatDate(buffer, to_style, y, m, d));
}

int32_t Today(int32_t* year, int32_t* month, int32_t* day, int32_t* weekday) {
  LocalTime now;
  if (!ReadLocalClock(&now)) return KS_FAIL(kDateClock, DB_ERR_INVALID_DATE);
  *year = now.year;
  *month = now.month;
  *day = now.day;
  *weekday = now.weekday;
  return 0;
}

int32_t TodayToText(char* buffer, int32_t style) {
  int32_t y = 0, m = 0, d = 0, w = 0;
  const int32_t rc = Today(&y, &m, &d, &w);
  if (rc < 0) return KS_PASS(kDate, rc);
  return Report(__LINE__, FormatDate(buffer, style, y, m, d));
}

int32_t DayNumberToText(char* buffer, int32_t style, int32_t day_number) {
  if (!IsValidLongDate(day_number)) return KS_FAIL(kDate, DB_ERR_INVALID_DATE);
  int32_t y, m, d;
  DayNumberToDate(day_number, &y, &m, &d);
  return Report(__LINE__, FormatDate(buffer, style, y, m, d));
}

int32_t ReadDateFor(const char* text, int32_t style, int32_t* year, int32_t* month, int32_t* day) {
  if (!text) {
    *year = *month = *day = 0;
    return KS_FAIL(kDate, DB_ERR_NULL);
  }
  const int32_t rc = TextToDate(year, month, day, text, style);
  return rc < 0 ? KS_PASS(kDate, rc) : rc;
}

}  // namespace kestrel
