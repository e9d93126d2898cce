// kestrel dump TABLE: every record with its deletion flag, as CSV or as JSON
// lines, each value converted by the engine.
#include <cmath>
#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "command.h"
#include "kestrel/kestrel.h"
#include "memo_text.h"
#include "table_text.h"

namespace kestrel::tool {
namespace {

struct DumpOptions {
  std::string path;
  std::string format = "csv";
  DialectOption dialect;
  ValueOptions values;
};

std::string FormatNumber(const FieldValue& value) {
  char text[64];
  if (value.decimals >= 0) {
    std::snprintf(text, sizeof text, "%.*f", value.decimals, value.number);
  } else {
    std::snprintf(text, sizeof text, "%.17g", value.number);
  }
  return text;
}

// RFC 4180 quoting: only when the text holds a separator, quote or line break.
std::string CsvField(const std::string& text) {
  if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
  std::string out = "\"";
  for (char c : text) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

std::string CsvValue(const FieldValue& value) {
  switch (value.kind) {
    case FieldValue::kNull:
      return "";
    case FieldValue::kText:
      return CsvField(value.text);
    case FieldValue::kNumber:
      return FormatNumber(value);
    case FieldValue::kInteger:
      return std::to_string(value.integer);
    case FieldValue::kBool:
      return value.flag ? "T" : "F";
  }
  return "";
}

nlohmann::ordered_json JsonValue(const FieldValue& value) {
  switch (value.kind) {
    case FieldValue::kNull:
      return nullptr;
    case FieldValue::kText:
      return Latin1ToUtf8(value.text);
    case FieldValue::kNumber:
      // Whole numbers print as integers while they fit one (N fields reach 20 digits).
      if (value.decimals == 0 && std::fabs(value.number) < 9.0e18) {
        return static_cast<int64_t>(value.number);
      }
      return value.number;
    case FieldValue::kInteger:
      return value.integer;
    case FieldValue::kBool:
      return value.flag;
  }
  return nullptr;
}

void RunDump(const DumpOptions& options) {
  OpenTable table(options.path, options.dialect.value);
  SetUpDateStyle();
  const bool csv = options.format == "csv";
  const auto& fields = table.fields();
  // Memo fields show their text when the table's memo file is there, else
  // their block numbers.
  MemoReader memos;
  for (const DBFIELD& field : fields) {
    if ((field.type & 0xFF) == 'M') {
      memos.Open(options.path, table.dialect());
      break;
    }
  }
  auto value_of = [&](size_t i) {
    FieldValue value = ReadFieldValue(table, static_cast<int>(i), options.values);
    if ((fields[i].type & 0xFF) == 'M' && memos.is_open()) {
      std::string text;
      int32_t rc = memos.ReadField(table.handle(), static_cast<int32_t>(i), &text);
      if (rc < 0) FailWithStatus("memo of field " + std::string(fields[i].name), rc);
      value.kind = text.empty() ? FieldValue::kNull : FieldValue::kText;
      value.text = text;
    }
    return value;
  };
  std::ios::sync_with_stdio(false);
  if (csv) {
    std::cout << "recno,deleted";
    for (const DBFIELD& field : fields) std::cout << ',' << CsvField(field.name);
    std::cout << '\n';
  }
  for (int32_t recno = 1; recno <= table.record_count(); ++recno) {
    int32_t rc = DBGetRecord(table.handle(), recno);
    if (rc < 0) FailWithStatus("record " + std::to_string(recno), rc);
    const bool deleted = rc == DB_WARN_RECORD_DELETED;
    if (csv) {
      std::cout << recno << ',' << (deleted ? "true" : "false");
      for (size_t i = 0; i < fields.size(); ++i) {
        std::cout << ',' << CsvValue(value_of(i));
      }
      std::cout << '\n';
    } else {
      nlohmann::ordered_json values = nlohmann::ordered_json::object();
      for (size_t i = 0; i < fields.size(); ++i) {
        values[Latin1ToUtf8(fields[i].name)] = JsonValue(value_of(i));
      }
      nlohmann::ordered_json line = {{"recno", recno}, {"deleted", deleted}, {"fields", values}};
      std::cout << line.dump() << '\n';
    }
  }
  std::cout.flush();
}

CommandRegistration reg{
    "dump", [](CLI::App& app) {
      auto* cmd = app.add_subcommand("dump", "Print every record of a table as CSV or JSON lines");
      auto options = std::make_shared<DumpOptions>();
      cmd->add_option("TABLE", options->path, "The .DBF file")->required();
      cmd->add_option("--format", options->format, "Output format: csv (default) or json")
          ->check(CLI::IsMember({"csv", "json"}));
      cmd->add_flag("--keep-blanks", options->values.keep_blanks,
                    "Keep the trailing blanks of character fields");
      AddDialectOption(cmd, &options->dialect);
      cmd->callback([options] { RunDump(*options); });
    }};

}  // namespace
}  // namespace kestrel::tool
