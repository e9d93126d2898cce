// kestrel index build TABLE INDEX EXPRESSION: builds an .NTX index (or an
// .NDX index, by the file's extension) from a table, showing progress on a
// terminal for long .NTX builds.  An interrupt
// (SIGINT, SIGTERM, SIGHUP) stops the build at its next progress report: the
// library removes its work files and the old index stays as it was; the
// tool then dies of the same signal.
// kestrel index keys INDEX [--table TABLE]: the keys in index order with
// their record numbers; with the table, keys that no longer match their
// record's key are marked, and keys whose record's key cannot be made here
// (an expression the evaluator cannot evaluate) are marked as such, apart.
#include <unistd.h>

#include <strings.h>

#include <csignal>
#include <iterator>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "key_names.h"
#include "kestrel/kestrel.h"
#include "table_text.h"

namespace kestrel::tool {
namespace {

constexpr int32_t kProgressThreshold = 100000;

// An .NDX file is named by its extension, in either case; anything else is
// an .NTX file.
bool IsNdx(const std::string& path) {
  return path.size() > 4 && strcasecmp(path.c_str() + path.size() - 4, ".ndx") == 0;
}

// The calls that read an index, for the two families the tool lists.
struct IndexCalls {
  int32_t (*open)(int32_t*, const char*, int32_t);
  int32_t (*close)(int32_t);
  int32_t (*first)(int32_t, char*, int32_t*);
  int32_t (*next)(int32_t, char*, int32_t*);
  int32_t (*make_key)(int32_t table, int32_t index, char** key);
  int32_t (*key_length)(int32_t index);
};

int32_t NtxKeyLength(int32_t h) {
  DBCLINDEXINFO info{};
  DBclGetIndexInfo(h, &info);
  return info.key_length;
}
int32_t NdxKeyLength(int32_t h) {
  DBD4INDEXINFO info{};
  DBd3GetIndexInfo(h, &info);
  return info.key_length;
}
int32_t NdxMakeKey(int32_t table, int32_t index, char** key) {
  return DBd3MakeKey(index, table, key);
}

const IndexCalls kNtxCalls = {&DBclOpenIndex,  &DBclCloseIndex, &DBclGoFirstKey,
                              &DBclGoNextKey,  &DBclMakeKey,    &NtxKeyLength};
const IndexCalls kNdxCalls = {&DBd3OpenIndex,  &DBd3CloseIndex, &DBd3GoFirstKey,
                              &DBd3GoNextKey,  &NdxMakeKey,     &NdxKeyLength};

struct BuildOptions {
  std::string table;
  std::string index;
  std::string expression;
  int32_t length = 0;
  int32_t decimals = 0;
  std::string type = "C";
  bool unique = false;
  bool descending = false;
  bool with_decimals = false;
  bool force = false;
  DialectOption dialect;
};

struct Progress {
  bool show = false;
  int last_phase = 0;
  uint64_t last_percent = 101;
};

// The signal that asked the build to stop (0: none).
volatile sig_atomic_t stop_signal = 0;

void OnStopSignal(int signal) { stop_signal = signal; }

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

// Catches the stop signals for the build's lifetime; the old handlers come
// back afterwards.
class StopSignals {
 public:
  StopSignals() {
    struct sigaction sa {};
    sa.sa_handler = &OnStopSignal;
    sigemptyset(&sa.sa_mask);
    for (size_t i = 0; i < std::size(kStopSignals); ++i) {
      sigaction(kStopSignals[i], &sa, &saved_[i]);
    }
  }
  ~StopSignals() {
    for (size_t i = 0; i < std::size(kStopSignals); ++i) {
      sigaction(kStopSignals[i], &saved_[i], nullptr);
    }
  }

 private:
  struct sigaction saved_[std::size(kStopSignals)] = {};
};

int32_t ShowProgress(void* context, int32_t phase, uint64_t done, uint64_t total) {
  if (stop_signal != 0) return DB_ERR_INVALID_COMMAND;
  auto* p = static_cast<Progress*>(context);
  if (!p->show || total == 0) return 0;
  uint64_t percent = done * 100 / total;
  if (phase == p->last_phase && percent == p->last_percent) return 0;
  p->last_phase = phase;
  p->last_percent = percent;
  const char* what = phase == DB_CL_BUILD_READING   ? "reading keys"
                     : phase == DB_CL_BUILD_MERGING ? "merging runs"
                                                    : "writing pages";
  std::fprintf(stderr, "\r%-14s %3llu%%  (%llu of %llu)", what,
               static_cast<unsigned long long>(percent), static_cast<unsigned long long>(done),
               static_cast<unsigned long long>(total));
  std::fflush(stderr);
  return 0;
}

// A word of the expression that is not a field is read by the evaluator as
// that text, the same for every record: an index of such keys is useless,
// so the build is refused unless forced.
void RefuseUnknownNames(int32_t table, const std::string& path, const std::string& expression,
                        bool force) {
  std::string unknown;
  for (const KeyName& name : NamesOf(expression)) {
    if (!NamesField(table, path, name)) unknown += (unknown.empty() ? "" : ", ") + name.Text();
  }
  if (unknown.empty()) return;
  std::cerr << "kestrel: warning: " << unknown << " in the key expression is not a field of "
            << path << "; the evaluator takes it as that text, the same for every record\n";
  if (!force) {
    std::cerr << "kestrel: not building; correct the expression, or give --force to build it "
                 "anyway\n";
    throw CLI::RuntimeError(kExitFailure);
  }
}

void RunBuild(const BuildOptions& o) {
  DBSetDefaultDateStyle(15);  // date keys from four-digit years
  OpenTable table(o.table, o.dialect.value);
  RefuseUnknownNames(table.handle(), o.table, o.expression, o.force);
  int32_t type = o.type.empty() ? 'C' : static_cast<unsigned char>(o.type[0]);
  if (o.type.size() == 1 && o.type[0] >= '1' && o.type[0] <= '6') type = o.type[0] - '0';
  int32_t length = o.length;
  if (length == 0 && (type == 'C' || type == 'c') && table.record_count() > 0) {
    // The key length of a character key: the length of the first record's value.
    std::string expr = o.expression;
    DBEXPRVALUE v{};
    if (DBGetRecord(table.handle(), 1) >= 0 &&
        DBEvaluateStr(table.handle(), expr.data(), &v) >= 0) {
      length = v.length;
      DBFreeMemory(v.value);
    }
  }
  if (length == 0) length = (type == 'N' || type == 'n') ? 10 : 8;
  if (IsNdx(o.index)) {
    if (o.descending || o.with_decimals || o.decimals != 0) {
      std::cerr << "kestrel: an .NDX index has no descending order and keeps numbers as "
                   "doubles: --descending, --decimals and --clipper-numeric do not apply\n";
      throw CLI::RuntimeError(kExitFailure);
    }
    if (o.unique) type |= DB_D4_UNIQUE;
    std::string expr = o.expression;
    int32_t rc = DBd3BuildIndex(table.handle(), o.index.c_str(), type, expr.data(), length);
    if (rc < 0) FailWithStatus("cannot build " + o.index, rc);
    std::cout << "built " << o.index << ": " << table.record_count() << " records, key " << expr
              << "\n";
    return;
  }
  if (o.unique) type |= DB_CL_UNIQUE;
  if (o.descending) type |= DB_CL_DESCENDING;
  if (o.with_decimals) type |= DB_CL_BUILD_WITH_DECIMALS;
  Progress progress;
  progress.show = isatty(2) && table.record_count() >= kProgressThreshold;
  std::string expr = o.expression;
  int32_t rc = 0;
  {
    StopSignals catching;
    rc = DBclBuildIndexWithProgress(table.handle(), o.index.c_str(), type, expr.data(), length,
                                    o.decimals, &ShowProgress, &progress);
  }
  if (progress.show) std::fprintf(stderr, "\n");
  if (rc < 0 && stop_signal != 0) {
    // Stopped: the old index (if any) is untouched.  Die of the signal, as
    // a program interrupted is expected to.
    std::fprintf(stderr, "kestrel: build of %s interrupted; nothing was changed\n",
                 o.index.c_str());
    int signal = stop_signal;
    std::signal(signal, SIG_DFL);
    std::raise(signal);
  }
  if (rc < 0) FailWithStatus("cannot build " + o.index, rc);
  std::cout << "built " << o.index << ": " << table.record_count() << " records, key " << expr
            << ", length " << length << "\n";
}

struct KeysOptions {
  std::string index;
  std::string table;
  DialectOption dialect;
};

std::string Printable(const char* key, int length) {
  bool text = true;
  for (int i = 0; i < length; ++i) {
    unsigned char c = static_cast<unsigned char>(key[i]);
    if (c < 0x20 || c == 0x7F) text = false;
  }
  if (text) return Latin1ToUtf8(std::string(key, length));
  std::string hex;
  char b[4];
  for (int i = 0; i < length; ++i) {
    std::snprintf(b, sizeof b, "%02X", static_cast<unsigned char>(key[i]));
    hex += b;
  }
  return "0x" + hex;
}

// How a key compares with the key its record makes now.
struct KeyCheck {
  uint64_t differ = 0;      // keys unlike their record's key, or of no record
  uint64_t unmade = 0;      // keys whose record's key could not be made
  int32_t first_error = 0;  // the status of the first that could not be made
};

// The verdict on one key, as the text appended to its line ("" when same).
std::string CompareWithRecord(const IndexCalls& calls, OpenTable& table, int32_t index,
                              int32_t rec, const char* key, int key_length, KeyCheck* check) {
  if (rec < 1 || rec > table.record_count()) {
    ++check->differ;
    return "\t(record not in the table)";
  }
  char* made = nullptr;
  int32_t rc = DBGetRecord(table.handle(), rec);
  if (rc >= 0) rc = calls.make_key(table.handle(), index, &made);
  if (rc < 0) {
    // Not a fault of the data: the record's key cannot be made here (an
    // expression the evaluator does not know, a record that cannot be read).
    if (made) DBFreeMemory(made);
    if (check->unmade++ == 0) check->first_error = rc;
    DBSetErrorCode(rc);
    return std::string("\t(cannot make the record's key: ") + DBGetErrorStr() + " (" +
           std::to_string(rc) + "))";
  }
  bool same = std::string(made, key_length) == std::string(key, key_length);
  DBFreeMemory(made);
  if (same) return "";
  ++check->differ;
  return "\t(record's key differs)";
}

void RunKeys(const KeysOptions& o) {
  DBSetDefaultDateStyle(15);
  const IndexCalls& calls = IsNdx(o.index) ? kNdxCalls : kNtxCalls;
  int32_t h = -1;
  int32_t rc = calls.open(&h, o.index.c_str(), DB_OPEN_READONLY | DB_OPEN_SHARED);
  if (rc < 0) FailToOpen(o.index, DB_OPEN_READONLY | DB_OPEN_SHARED, rc);
  int32_t key_length = calls.key_length(h);
  std::unique_ptr<OpenTable> table;
  if (!o.table.empty()) table = std::make_unique<OpenTable>(o.table, o.dialect.value);
  std::string key(key_length + 1, '\0');
  int32_t rec = 0;
  KeyCheck check;
  rc = calls.first(h, key.data(), &rec);
  while (rc == 0) {
    std::cout << rec << '\t' << Printable(key.data(), key_length);
    if (table) std::cout << CompareWithRecord(calls, *table, h, rec, key.data(), key_length, &check);
    std::cout << '\n';
    rc = calls.next(h, key.data(), &rec);
  }
  calls.close(h);
  if (rc < 0) FailWithStatus("cannot read " + o.index, rc);
  if (check.unmade) {
    DBSetErrorCode(check.first_error);
    std::cerr << "kestrel: the keys of " << check.unmade << " record(s) could not be made: "
              << DBGetErrorStr() << " (" << check.first_error << ")\n";
  }
  if (check.differ) {
    std::cerr << "kestrel: " << check.differ << " key(s) differ from their records\n";
  }
  if (check.unmade || check.differ) throw CLI::RuntimeError(1);
}

CommandRegistration reg{
    "index", [](CLI::App& app) {
      auto* cmd = app.add_subcommand("index", "Build and list .NTX and .NDX indexes");
      cmd->require_subcommand(1);
      auto* build = cmd->add_subcommand(
          "build", "Build an .NTX index (an .NDX index for a file ending in .ndx) from a table");
      auto b = std::make_shared<BuildOptions>();
      build->add_option("TABLE", b->table, "The .DBF file")->required();
      build->add_option("INDEX", b->index, "The .NTX or .NDX file to write")->required();
      build->add_option("EXPRESSION", b->expression, "Key expression")->required();
      build->add_option("--length", b->length, "Key length (default: from the first record)");
      build->add_option("--decimals", b->decimals, "Decimal places of a numeric key");
      build->add_option("--type", b->type, "Key type: C, N, D or a binary type 1..6")
          ->check(CLI::IsMember({"C", "N", "D", "c", "n", "d", "1", "2", "3", "4", "5", "6"}));
      build->add_flag("--unique", b->unique, "One key per value");
      build->add_flag("--descending", b->descending, "Keys in descending order");
      build->add_flag(
          "--clipper-numeric", b->with_decimals,
          "Numeric keys with point and decimals, as other programs of the dialect store them");
      build->add_flag("--force", b->force,
                      "Build even when the expression names something that is not a field");
      AddDialectOption(build, &b->dialect);
      build->callback([b] { RunBuild(*b); });

      auto* keys = cmd->add_subcommand("keys", "List the keys of an .NTX or .NDX index in order");
      auto k = std::make_shared<KeysOptions>();
      keys->add_option("INDEX", k->index, "The .NTX or .NDX file")->required();
      keys->add_option("--table", k->table, "Compare each key with its record's key");
      AddDialectOption(keys, &k->dialect);
      keys->callback([k] { RunKeys(*k); });
    }};

}  // namespace
}  // namespace kestrel::tool
