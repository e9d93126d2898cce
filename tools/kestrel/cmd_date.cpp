// kestrel date: convert and check dates between the library's date styles.
//
//   kestrel date 12/31/03 --from 2 --to 15     prints 19031231
//   kestrel date --today --to 7                today as dd.mm.yyyy
//   kestrel date --styles                      the style numbers and names
//   kestrel date 20030101 --from 15 --details  adds the day number and weekday
//
// An invalid date prints the library's message and exits with status 1.
#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "kestrel/kestrel.h"

namespace kestrel::tool {
namespace {

struct DateOptions {
  std::string text;
  int32_t from = DB_DATE_GREGORIAN;
  int32_t to = DB_DATE_DBASE;
  bool styles = false;
  bool today = false;
  bool details = false;
};

// The name the library gives a style number ("" when it has no format).
std::string StyleName(int32_t style) {
  int32_t saved = 0;
  char name[DB_DATE_NAME_SIZE] = {};
  DBGetDefaultDateStyle(&saved, name);
  std::string result;
  if (DBSetDefaultDateStyle(style) == 0 && DBGetDefaultDateStyle(&style, name) == 0) {
    result = name;
  }
  DBSetDefaultDateStyle(saved);
  return result;
}

void ListStyles() {
  for (int32_t style = DB_DATE_STYLE_MIN; style <= DB_DATE_STYLE_MAX; ++style) {
    const std::string name = StyleName(style);
    if (name.empty()) continue;  // numbers without a format
    std::cout << (style < 10 ? " " : "") << style << "  " << name << "\n";
  }
}

void PrintDate(const char* text, int32_t long_date, bool details) {
  std::cout << text;
  if (details) {
    char weekday[DB_DATE_NAME_SIZE] = {};
    int32_t index = 0;
    if (DBLongDateToDayOfWeek(&index, long_date) == 0) DBDayOfWeek(weekday, index);
    std::cout << "  day " << long_date << "  " << weekday;
  }
  std::cout << "\n";
}

void RunDate(const DateOptions& o) {
  if (o.styles) {
    ListStyles();
    return;
  }
  char out[DB_DATE_STR_SIZE] = {};
  int32_t year = 0, month = 0, day = 0, long_date = 0;
  if (o.today) {
    int32_t weekday = 0;
    int32_t rc = DBGetDate3(&year, &month, &day, &weekday);
    if (rc < 0) FailWithStatus("cannot read the clock", rc);
    rc = DBDate3ToStr(out, o.to, year, month, day);
    if (rc < 0) FailWithStatus("cannot print today in style " + std::to_string(o.to), rc);
    DBDate3ToLong(&long_date, year, month, day);
    PrintDate(out, long_date, o.details);
    return;
  }
  if (o.text.empty() && !o.today) {
    std::cerr << "kestrel: date: give a date, --today or --styles\n";
    throw CLI::RuntimeError(2);
  }
  const std::string what = "'" + o.text + "' in style " + std::to_string(o.from);
  int32_t rc = DBStrDateTo3(&year, &month, &day, o.text.c_str(), o.from);
  if (rc == DB_WARN_FILE_EMPTY) {
    std::cerr << "kestrel: date: " << what << ": blank date\n";
    throw CLI::RuntimeError(1);
  }
  if (rc < 0) FailWithStatus(what, rc);
  rc = DBDate3ToStr(out, o.to, year, month, day);
  if (rc < 0) FailWithStatus("cannot print in style " + std::to_string(o.to), rc);
  DBDate3ToLong(&long_date, year, month, day);
  PrintDate(out, long_date, o.details);
}

CommandRegistration reg{
    "date", [](CLI::App& app) {
      auto options = std::make_shared<DateOptions>();
      auto* cmd = app.add_subcommand("date", "Convert and check dates between the date styles");
      cmd->add_option("date", options->text,
                      "The date text to convert (quote it if it has blanks)");
      cmd->add_option("--from", options->from, "Style of the given date (default 2, mm/dd/yy)");
      cmd->add_option("--to", options->to, "Style to print (default 15, yyyymmdd)");
      cmd->add_flag("--styles", options->styles, "List the style numbers and names");
      cmd->add_flag("--today", options->today, "Convert today's date");
      cmd->add_flag("--details", options->details, "Also print the day number and the weekday");
      cmd->callback([options] { RunDate(*options); });
    }};

}  // namespace
}  // namespace kestrel::tool
