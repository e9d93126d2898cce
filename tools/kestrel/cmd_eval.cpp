// kestrel eval TABLE RECNO EXPRESSION: evaluates a key expression for one
// record and prints the result's type, length and value.
//
//   $ kestrel eval staff.dbf 3 "name+dtoc(hired,1)"
//   type:   C
//   length: 18
//   value:  "SMITH     20030715"
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "command.h"
#include "kestrel/kestrel.h"
#include "table_text.h"

namespace kestrel::tool {
namespace {

struct EvalOptions {
  std::string table;
  int32_t recno = 0;
  std::string expression;
  DialectOption dialect;
  int date_style = 0;  // 0: the library's default
};

std::string TypeName(int16_t type) {
  if (type >= 'A' && type <= 'Z') return std::string(1, static_cast<char>(type));
  switch (type) {
    case DB_FTYPE_DOUBLE:
      return "1 (double)";
    case DB_FTYPE_FLOAT:
      return "2 (float)";
    case DB_FTYPE_ULONG:
      return "3 (unsigned 32-bit)";
    case DB_FTYPE_LONG:
      return "4 (signed 32-bit)";
    case DB_FTYPE_USHORT:
      return "5 (unsigned 16-bit)";
    case DB_FTYPE_SHORT:
      return "6 (signed 16-bit)";
    default:
      return std::to_string(type);
  }
}

std::string Hex(const uint8_t* bytes, size_t length) {
  std::string out;
  char two[4];
  for (size_t i = 0; i < length; ++i) {
    std::snprintf(two, sizeof two, i ? " %02X" : "%02X", bytes[i]);
    out += two;
  }
  return out;
}

// The value in the form its type suggests.
std::string ValueText(const DBEXPRVALUE& value) {
  const auto* bytes = static_cast<const uint8_t*>(value.value);
  size_t length = value.length > 0 ? static_cast<size_t>(value.length) : 0;
  std::ostringstream out;
  auto load = [&](auto sample) {
    decltype(sample) v{};
    if (length >= sizeof v) std::memcpy(&v, bytes, sizeof v);
    return v;
  };
  switch (value.type) {
    case 'C':
    case 'D':
      return "\"" + Latin1ToUtf8(std::string(reinterpret_cast<const char*>(bytes), length)) + "\"";
    case 'N':
    case 'F':
    case DB_FTYPE_DOUBLE: {
      char text[64];
      std::snprintf(text, sizeof text, "%.15g", load(0.0));
      return text;
    }
    case DB_FTYPE_FLOAT: {
      char text[64];
      std::snprintf(text, sizeof text, "%.7g", static_cast<double>(load(0.0f)));
      return text;
    }
    case DB_FTYPE_ULONG:
      out << load(uint32_t{0});
      return out.str();
    case DB_FTYPE_LONG:
      out << load(int32_t{0});
      return out.str();
    case DB_FTYPE_USHORT:
      out << load(uint16_t{0});
      return out.str();
    case DB_FTYPE_SHORT:
      out << load(int16_t{0});
      return out.str();
    case 'L':
      return length >= 1 && bytes[0] ? "true" : "false";
    case 'M':
      out << "memo block " << load(uint32_t{0});
      return out.str();
    default:
      return Hex(bytes, length);
  }
}

void RunEval(const EvalOptions& options) {
  if (options.date_style != 0) {
    int32_t rc = DBSetDefaultDateStyle(options.date_style);
    if (rc < 0) FailWithStatus("invalid date style", rc);
  } else {
    // Dates print as mm/dd/yyyy unless asked otherwise.
    DBSetDefaultDateStyle(DB_DATE_GREGORIAN4);
  }
  OpenTable table(options.table, options.dialect.value);
  int32_t rc = DBGetRecord(table.handle(), options.recno);
  if (rc < 0) FailWithStatus("cannot read record " + std::to_string(options.recno), rc);
  std::vector<char> text(options.expression.begin(), options.expression.end());
  text.push_back('\0');
  DBEXPRVALUE value{};
  rc = DBEvaluateStr(table.handle(), text.data(), &value);
  if (rc < 0) FailWithStatus("cannot evaluate " + std::string(text.data()), rc);
  std::cout << "type:   " << TypeName(value.type) << "\n";
  std::cout << "length: " << value.length << "\n";
  std::cout << "value:  " << ValueText(value) << "\n";
  DBFreeMemory(value.value);
}

CommandRegistration reg{
    "eval", [](CLI::App& app) {
      auto options = std::make_shared<EvalOptions>();
      auto* cmd = app.add_subcommand("eval", "Evaluate a key expression for one record");
      cmd->add_option("table", options->table, "Table file (.DBF)")->required();
      cmd->add_option("recno", options->recno, "Record number (1-based)")->required();
      cmd->add_option("expression", options->expression, "Key expression, e.g. NAME+DTOC(HIRED,1)")
          ->required();
      cmd->add_option("--date-style", options->date_style,
                      "Default date style for D values (2..19; default 3, mm/dd/yyyy)");
      AddDialectOption(cmd, &options->dialect);
      cmd->callback([options] { RunEval(*options); });
    }};

}  // namespace
}  // namespace kestrel::tool
