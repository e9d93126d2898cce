// kestrel pack TABLE [--index FILE...]: removes the records marked deleted,
// keeping the old file as the backup (.BAK beside the table).
//
// Packing renumbers the records, so every index of the table is stale
// afterwards.  With --index the named .NTX files are rebuilt from the packed
// table with their own key expression, type, length and flags; without it
// the tool names the .NTX files beside the table whose key expressions name
// the table's fields, so nobody goes on using them unknowingly.
#include <algorithm>
#include <cctype>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "key_names.h"
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

// What an existing index was built with.
struct IndexRecipe {
  std::string expression;
  int32_t length = 0;
  int32_t decimals = 0;
  int32_t flags = 0;           // unique, descending
  bool stored_point = false;   // numeric keys written with point and decimals
};

// Reads the recipe of an .NTX file (opened read-only and shared).
int32_t ReadRecipe(const std::string& path, IndexRecipe* recipe) {
  int32_t h = -1;
  int32_t rc = DBclOpenIndex(&h, path.c_str(), DB_OPEN_READONLY | DB_OPEN_SHARED);
  if (rc < 0) return rc;
  DBCLINDEXINFO info{};
  rc = DBclGetIndexInfo(h, &info);
  if (rc >= 0) {
    recipe->expression = info.expression;
    recipe->length = info.key_length;
    recipe->decimals = info.decimals;
    recipe->flags = info.key_flags & (DB_CL_UNIQUE | DB_CL_DESCENDING);
    // The numeric form shows in the keys: a point means digits, point and
    // decimals.
    std::string key(static_cast<size_t>(info.key_length) + 1, '\0');
    int32_t record = 0;
    if (DBclGoFirstKey(h, key.data(), &record) == 0) {
      recipe->stored_point = key.find('.') != std::string::npos;
    } else {
      recipe->stored_point = info.decimals > 0;
    }
  }
  DBclCloseIndex(h);
  return rc < 0 ? rc : 0;
}

// The key type of the expression's value on the first record ('C' when the
// table is empty, which makes no keys anyway).
int32_t KeyType(int32_t table, const std::string& expression) {
  uint32_t count = 0;
  if (DBGetRecordCount(table, &count) < 0 || count < 1 || DBGetRecord(table, 1) < 0) return 'C';
  std::string text = expression;
  DBEXPRVALUE value{};
  if (DBEvaluateStr(table, text.data(), &value) < 0) return 'C';
  DBFreeMemory(value.value);
  switch (value.type) {
    case 'N':
    case 'F':
      return 'N';
    case 'D':
      return 'D';
    default:
      return value.type >= 1 && value.type <= 6 ? value.type : 'C';
  }
}

void Rebuild(int32_t table, const std::string& path) {
  IndexRecipe r;
  int32_t rc = ReadRecipe(path, &r);
  if (rc < 0) FailWithStatus("cannot read the index " + path + " to rebuild it", rc);
  int32_t saved_style = 0;
  char name[DB_DATE_NAME_SIZE] = {};
  DBGetDefaultDateStyle(&saved_style, name);
  DBSetDefaultDateStyle(DB_DATE_DBASE);  // date keys as yyyymmdd, as `index build` makes them
  int32_t type = KeyType(table, r.expression);
  int32_t key_type = type | r.flags | (type == 'N' && r.stored_point ? DB_CL_BUILD_WITH_DECIMALS : 0);
  std::string expression = r.expression;
  rc = DBclBuildIndex(table, path.c_str(), key_type, expression.data(), r.length, r.decimals);
  DBSetDefaultDateStyle(saved_style);
  if (rc < 0) FailWithStatus("the table is packed, but rebuilding " + path + " failed", rc);
  std::cout << "rebuilt " << path << ": key " << r.expression << ", length " << r.length << "\n";
}

// The .NTX files beside the table whose key expressions name only fields of
// the table (at least one).
std::vector<std::string> StaleIndexes(int32_t table, const std::string& table_path) {
  namespace fs = std::filesystem;
  std::vector<std::string> stale;
  fs::path folder = fs::path(table_path).parent_path();
  std::error_code ec;
  fs::directory_iterator it(folder.empty() ? fs::path(".") : folder, ec);
  if (ec) return stale;
  std::vector<std::string> candidates;
  for (const auto& entry : it) {
    std::string extension = entry.path().extension().string();
    for (char& c : extension) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (extension == ".NTX" && entry.is_regular_file(ec)) {
      candidates.push_back((folder / entry.path().filename()).string());
    }
  }
  std::sort(candidates.begin(), candidates.end());
  for (const std::string& path : candidates) {
    IndexRecipe r;
    if (ReadRecipe(path, &r) < 0) continue;
    std::vector<KeyName> names = NamesOf(r.expression);
    bool ours = !names.empty();
    for (const KeyName& n : names) ours = ours && NamesField(table, table_path, n);
    if (ours) stale.push_back(path + " (key " + r.expression + ")");
  }
  return stale;
}

struct PackOptions {
  std::string path;
  std::vector<std::string> indexes;
  DialectOption dialect;
};

void RunPack(const PackOptions& o) {
  const std::string& path = o.path;
  int dialect = o.dialect.value;
  if (dialect < 0) {
    auto facts = ReadHeaderFacts(path);
    dialect = facts ? GuessDialect(facts->version) : DB_DIALECT_DBASE3;
  }
  int32_t handle = -1;
  int32_t rc = DBOpenFile(&handle, path.c_str(), dialect);
  if (rc < 0) FailToOpen(path, dialect, rc);
  uint32_t before = 0;
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
  uint32_t after = 0;
  rc = DBGetRecordCount(handle, &after);
  if (rc < 0) {
    DBCloseFile(handle);
    FailWithStatus("cannot count the records of the packed " + path, rc);
  }
  std::cout << path << ": " << before << " records before, " << after << " after ("
            << before - after << " removed); the old file is " << BackupName(path) << "\n";
  struct Closer {
    int32_t handle;
    ~Closer() { DBCloseFile(handle); }
  } closer{handle};
  for (const std::string& index : o.indexes) Rebuild(handle, index);
  if (!o.indexes.empty()) return;
  std::vector<std::string> stale = StaleIndexes(handle, path);
  if (stale.empty()) return;
  std::cerr << "kestrel: warning: the records are renumbered; these indexes name fields of " << path
            << " and are now stale (rebuild them with --index, or kestrel index build):\n";
  for (const std::string& s : stale) std::cerr << "  " << s << "\n";
}

CommandRegistration reg{"pack", [](CLI::App& app) {
                          auto* cmd = app.add_subcommand(
                              "pack", "Remove the deleted records of a table (keeps a .BAK)");
                          auto o = std::make_shared<PackOptions>();
                          cmd->add_option("TABLE", o->path, "The .DBF file")->required();
                          cmd->add_option("--index", o->indexes,
                                          "Rebuild these .NTX files of the table after packing");
                          AddDialectOption(cmd, &o->dialect);
                          cmd->callback([o] { RunPack(*o); });
                        }};

}  // namespace
}  // namespace kestrel::tool
