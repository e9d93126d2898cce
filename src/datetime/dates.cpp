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
  if (rc == DB_WARN_FILE_EMPTY) return FailQuiet(rc);
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
  int32_t rc = text ? TextToDate(&y, &m, &d, text, from_style) : KS_FAIL(kDate, DB_ERR_NULL);
  if (rc < 0) LogError(kDate, __LINE__, rc);
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

}  // namespace kestrel
