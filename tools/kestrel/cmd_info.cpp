// kestrel info TABLE: the header facts and field list of a table.
#include <cstdio>
#include <iomanip>
#include <iostream>
#include <string>

#include "command.h"
#include "kestrel/kestrel.h"
#include "table_text.h"

namespace kestrel::tool {
namespace {

const char* DialectName(int dialect) {
  switch (dialect) {
    case DB_DIALECT_DEFAULT:
    case DB_DIALECT_DBASE3:
      return "dBASE III";
    case DB_DIALECT_DBASE4:
      return "dBASE IV";
    case DB_DIALECT_FOXBASE:
      return "FoxBase";
    case DB_DIALECT_FOX_F5:
      return "FoxPro version byte, dBASE limits";
    case DB_DIALECT_CLIPPER5:
      return "Clipper, count from file size";
    case DB_DIALECT_CLIPPER:
      return "Clipper";
    case DB_DIALECT_EOF_RECORD:
      return "end-of-file record";
    case DB_DIALECT_FOXPRO:
      return "FoxPro";
    case DB_DIALECT_TERMBLOCK:
      return "header terminator block";
    default:
      return "unknown";
  }
}

void RunInfo(const std::string& path, const DialectOption& dialect) {
  auto facts = ReadHeaderFacts(path);
  OpenTable table(path, dialect.value);
  DBFILEINFO info{};
  int32_t rc = DBGetFileInfo(table.handle(), &info);
  if (rc < 0) FailWithStatus("cannot describe " + path, rc);
  char updated[DB_DATE_STR_SIZE + 1] = {};
  rc = DBGetLastUpdate(table.handle(), updated, DB_DATE_ENSI4);
  std::string last_update = rc < 0 ? "(invalid)" : updated;
  for (char& c : last_update) {
    if (c == '.') c = '-';
  }

  char version[8];
  std::snprintf(version, sizeof version, "0x%02X", facts ? facts->version : 0);
  std::cout << "table:            " << path << "\n";
  std::cout << "dialect:          " << info.dialect << " (" << DialectName(info.dialect) << ")"
            << (dialect.value < 0 ? ", guessed from the version byte" : "") << "\n";
  std::cout << "version byte:     " << version << "\n";
  std::cout << "last update:      " << last_update << "\n";
  std::cout << "records:          " << table.header_record_count();
  if (table.short_file()) std::cout << " (readable: " << table.record_count() << ")";
  std::cout << "\n";
  std::cout << "header length:    " << (facts ? facts->header_length : 0) << "\n";
  std::cout << "record length:    " << table.record_length() << "\n";
  std::cout << "memo field:       " << (info.has_memo ? "yes" : "no") << "\n";
  std::cout << "production index: " << (info.production_index ? "yes" : "no") << "\n";
  std::cout << "fields:           " << table.fields().size() << "\n";
  std::cout << "    #  name        type       length  decimals  offset\n";
  int offset = 1;  // the deletion flag comes first
  int number = 1;
  for (const DBFIELD& field : table.fields()) {
    const int type = field.type & 0xFF;
    // Byte 17 of a C field is the high byte of its length, not decimals.
    const int decimals = type == 'C' ? 0 : field.decimals;
    std::cout << std::setw(5) << number++ << "  " << std::left << std::setw(10) << field.name
              << "  " << std::setw(9) << FieldTypeName(field.type) << std::right << std::setw(7)
              << field.length << std::setw(10) << decimals << std::setw(8) << offset << "\n";
    offset += field.length;
  }
}

CommandRegistration reg{"info", [](CLI::App& app) {
                          auto* cmd =
                              app.add_subcommand("info", "Show a table's header and fields");
                          auto path = std::make_shared<std::string>();
                          auto dialect = std::make_shared<DialectOption>();
                          cmd->add_option("TABLE", *path, "The .DBF file")->required();
                          AddDialectOption(cmd, dialect.get());
                          cmd->callback([path, dialect] { RunInfo(*path, *dialect); });
                        }};

}  // namespace
}  // namespace kestrel::tool
