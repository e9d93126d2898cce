// kestrel pack TABLE: removes the records marked deleted, keeping the old
// file as the backup (.BAK beside the table).
#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "kestrel/kestrel.h"
#include "table_text.h"

namespace kestrel::tool {
namespace {

// The backup name the library gives: the path without its extension, then
// ".BAK" (".bak" when the table's extension is in lower case).
std::string BackupName(const std::string& path) {
  size_t directory = path.find_last_of(":\\/");
  size_t start = directory == std::string::npos ? 0 : directory + 1;
  size_t dot = path.find_last_of('.');
  size_t stem = dot == std::string::npos || dot < start ? path.size() : dot;
  bool letters = false, upper = false;
  for (size_t i = stem; i < path.size(); ++i) {
    char c = path[i];
    if (c >= 'a' && c <= 'z') letters = true;
    if (c >= 'A' && c <= 'Z') letters = upper = true;
  }
  return path.substr(0, stem) + (letters && !upper ? ".bak" : ".BAK");
}

void RunPack(const std::string& path, const DialectOption& option) {
  int dialect = option.value;
  if (dialect < 0) {
    auto facts = ReadHeaderFacts(path);
    dialect = facts ? GuessDialect(facts->version) : DB_DIALECT_DBASE3;
  }
  int32_t handle = -1;
  int32_t rc = DBOpenFile(&handle, path.c_str(), dialect);
  if (rc < 0) FailWithStatus("cannot open " + path + " for packing", rc);
  int32_t before = 0;
  rc = DBGetRecordCount(handle, &before);
  if (rc < 0) {
    DBCloseFile(handle);
    FailWithStatus("cannot count the records of " + path, rc);
  }
  rc = DBPackFile(&handle);
  // A failed rename reports a positive code (0xC000 and up): anything but 0
  // and the warning about the cache size is a failure.
  if (rc != 0 && rc != DB_WARN_PARTIAL_MEMORY) {
    if (handle >= 0) DBCloseFile(handle);
    FailWithStatus("cannot pack " + path, rc);
  }
  int32_t after = 0;
  rc = DBGetRecordCount(handle, &after);
  DBCloseFile(handle);
  if (rc < 0) FailWithStatus("cannot count the records of the packed " + path, rc);
  std::cout << path << ": " << before << " records before, " << after << " after ("
            << before - after << " removed); the old file is " << BackupName(path) << "\n";
}

CommandRegistration reg{"pack", [](CLI::App& app) {
                          auto* cmd = app.add_subcommand(
                              "pack", "Remove the deleted records of a table (keeps a .BAK)");
                          auto path = std::make_shared<std::string>();
                          auto dialect = std::make_shared<DialectOption>();
                          cmd->add_option("TABLE", *path, "The .DBF file")->required();
                          AddDialectOption(cmd, dialect.get());
                          cmd->callback([path, dialect] { RunPack(*path, *dialect); });
                        }};

}  // namespace
}  // namespace kestrel::tool
