// kestrel memo TABLE FIELD RECNO: one memo, printed raw: every byte of it,
// at any length.
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "kestrel/kestrel.h"
#include "memo_text.h"
#include "table_text.h"

namespace kestrel::tool {
namespace {

struct MemoOptions {
  std::string table;
  std::string field;
  int32_t recno = 0;
  DialectOption dialect;
  bool soft_breaks = true;
};

// A field given by name (any case) or by its 0-based number.
int32_t ResolveField(const OpenTable& table, const std::string& field) {
  int32_t number = -1;
  if (DBGetFieldNumber(table.handle(), &number, field.c_str()) >= 0 && number >= 0) return number;
  char* end = nullptr;
  long n = std::strtol(field.c_str(), &end, 10);
  if (!field.empty() && *end == '\0' && n >= 0 && n < static_cast<long>(table.fields().size())) {
    return static_cast<int32_t>(n);
  }
  FailWithStatus("field " + field, DB_ERR_FIELD_COUNT);
}

void RunMemo(const MemoOptions& options) {
  OpenTable table(options.table, options.dialect.value);
  int32_t field = ResolveField(table, options.field);
  if (!IsMemoField(table.fields()[field].type)) {
    FailWithStatus("field " + options.field + " is not a memo field", DB_ERR_FIELD_TYPE);
  }
  int32_t rc = DBGetRecord(table.handle(), options.recno);
  if (rc < 0) FailWithStatus("record " + std::to_string(options.recno), rc);
  MemoReader memos;
  rc = memos.Open(options.table, table.dialect());
  if (rc < 0) FailWithStatus("memo file of " + options.table, rc);
  std::string text;
  rc = memos.ReadField(table.handle(), field, &text);
  if (rc < 0) FailWithStatus("memo of record " + std::to_string(options.recno), rc);
  if (!options.soft_breaks) {
    std::string kept;
    for (size_t i = 0; i < text.size(); ++i) {
      if (static_cast<unsigned char>(text[i]) == 0x8D) {
        ++i;
        continue;
      }
      kept += text[i];
    }
    text.swap(kept);
  }
  std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
  std::cout.flush();
}

CommandRegistration reg{
    "memo", [](CLI::App& app) {
      auto* cmd = app.add_subcommand("memo", "Print the memo of one record's memo field, raw");
      auto options = std::make_shared<MemoOptions>();
      cmd->add_option("TABLE", options->table, "The .DBF file")->required();
      cmd->add_option("FIELD", options->field, "Memo field name or 0-based number")->required();
      cmd->add_option("RECNO", options->recno, "Record number (from 1)")->required();
      cmd->add_flag("!--no-soft-breaks", options->soft_breaks,
                    "Remove soft line breaks (0x8D and the byte after it)");
      AddDialectOption(cmd, &options->dialect);
      cmd->callback([options] { RunMemo(*options); });
    }};

}  // namespace
}  // namespace kestrel::tool
