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
  bool memo_blocks = false;  // memo fields as block numbers, memo file unread
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

std::string Base64(const std::string& bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t n = static_cast<uint8_t>(bytes[i]) << 16 | static_cast<uint8_t>(bytes[i + 1]) << 8 |
                 static_cast<uint8_t>(bytes[i + 2]);
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  if (i < bytes.size()) {
    uint32_t n = static_cast<uint8_t>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) n |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    out += kAlphabet[n >> 18];
    out += kAlphabet[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(n >> 6) & 63] : '=';
    out += '=';
  }
  return out;
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
    case FieldValue::kBytes:
      return CsvField(value.text);
    case FieldValue::kDigits:
      return value.text;
    case FieldValue::kNumber:
      return FormatNumber(value);
    case FieldValue::kInteger:
      return std::to_string(value.integer);
    case FieldValue::kBool:
      return value.flag ? "T" : "F";
  }
  return "";
}

// The JSON text of a value.  Numbers stored as text are written from their
// digits, so that no digit is lost to a double on the way.
std::string JsonValue(const FieldValue& value) {
  switch (value.kind) {
    case FieldValue::kNull:
      return "null";
    case FieldValue::kText:
      return nlohmann::json(Latin1ToUtf8(value.text)).dump();
    case FieldValue::kBytes:
      return nlohmann::json{{"base64", Base64(value.text)}}.dump();
    case FieldValue::kDigits:
      return value.text;
    case FieldValue::kNumber:
      if (!std::isfinite(value.number)) return "null";
      return nlohmann::json(value.number).dump();
    case FieldValue::kInteger:
      return std::to_string(value.integer);
    case FieldValue::kBool:
      return value.flag ? "true" : "false";
  }
  return "null";
}

void RunDump(const DumpOptions& options) {
  OpenTable table(options.path, options.dialect.value);
  SetUpDateStyle();
  const bool csv = options.format == "csv";
  const auto& fields = table.fields();
  // Memo fields show their memo; without the memo file (or with one the
  // table cannot read) that is an error as soon as a record points into it,
  // unless block numbers were asked for.
  MemoReader memos;
  int32_t memo_status = 0;
  bool has_memo_fields = false;
  for (const DBFIELD& field : fields) has_memo_fields = has_memo_fields || IsMemoField(field.type);
  if (has_memo_fields && !options.memo_blocks) {
    memo_status = memos.Open(options.path, table.dialect());
  }
  auto value_of = [&](size_t i) {
    FieldValue value = ReadFieldValue(table, static_cast<int>(i), options.values);
    if (!IsMemoField(fields[i].type) || options.memo_blocks || value.kind == FieldValue::kNull) {
      return value;
    }
    const std::string field_name = fields[i].name;
    if (!memos.is_open()) {
      if (memos.path().empty()) {
        FailWithMessage(options.path + ": field " + field_name +
                        " points into a memo file that is not there (looked for " +
                        FindMemoFileNames(options.path, table.dialect()) +
                        "); --memo-blocks prints the block numbers");
      }
      std::cerr << "kestrel: the memo file " << memos.path() << " cannot be read with "
                << options.path << "; --memo-blocks prints the block numbers\n";
      FailWithStatus("memo file " + memos.path(), memo_status);
    }
    std::string bytes;
    bool picture = false;
    int32_t rc = memos.ReadField(table.handle(), static_cast<int32_t>(i), &bytes, &picture);
    if (rc < 0) FailWithStatus("memo of field " + field_name, rc);
    value.kind = bytes.empty()                                  ? FieldValue::kNull
                 : IsBinaryMemo(bytes, picture, fields[i].type) ? FieldValue::kBytes
                                                                : FieldValue::kText;
    value.text = std::move(bytes);
    return value;
  };
  std::ios::sync_with_stdio(false);
  if (csv) {
    std::cout << "recno,deleted";
    for (const DBFIELD& field : fields) std::cout << ',' << CsvField(field.name);
    std::cout << '\n';
  }
  // Each row is built whole before any of it is written, so that a failure
  // in the middle of a record leaves no half row behind.
  std::string row;
  for (int32_t recno = 1; recno <= table.record_count(); ++recno) {
    int32_t rc = DBGetRecord(table.handle(), recno);
    if (rc < 0) {
      std::cout.flush();
      FailWithStatus("record " + std::to_string(recno), rc);
    }
    const bool deleted = rc == DB_WARN_RECORD_DELETED;
    row.clear();
    try {
      if (csv) {
        row += std::to_string(recno) + (deleted ? ",true" : ",false");
        for (size_t i = 0; i < fields.size(); ++i) row += ',' + CsvValue(value_of(i));
      } else {
        row += "{\"recno\":" + std::to_string(recno) +
               (deleted ? ",\"deleted\":true" : ",\"deleted\":false") + ",\"fields\":{";
        for (size_t i = 0; i < fields.size(); ++i) {
          if (i > 0) row += ',';
          row += nlohmann::json(Latin1ToUtf8(fields[i].name)).dump() + ':' + JsonValue(value_of(i));
        }
        row += "}}";
      }
    } catch (...) {
      std::cout.flush();  // the rows before this one stay whole
      throw;
    }
    row += '\n';
    std::cout << row;
  }
  std::cout.flush();
  if (table.short_file()) {
    FailWithMessage(options.path + ": only " + std::to_string(table.record_count()) + " of the " +
                    std::to_string(table.header_record_count()) +
                    " records the header claims were dumped");
  }
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
      cmd->add_flag("--memo-blocks", options->memo_blocks,
                    "Print memo fields as their block numbers and leave the memo file unread");
      AddDialectOption(cmd, &options->dialect);
      cmd->callback([options] { RunDump(*options); });
    }};

}  // namespace
}  // namespace kestrel::tool
