// kestrel check INDEX: recognises the index file's format, runs its checker
// and lists every finding.  The exit status is 1 when a rule of the format is
// broken, or when the file is an index of a format that cannot be checked yet;
// notes and warnings alone leave it 0.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "kestrel/kestrel.h"

namespace kestrel::tool {
namespace {

void PrintFinding(const DBCHECKFINDING* f) {
  std::cout << "page " << f->page << ": ";
  if (f->severity == DB_CHECK_NOTE) {
    std::cout << "note: " << f->text << "\n";
  } else if (f->severity == DB_CHECK_WARNING) {
    std::cout << "warning: " << f->text << "\n";
  } else {
    std::cout << f->text << " (" << f->code << ")\n";
  }
}

void RunCheck(const std::string& path, bool quiet) {
  DBCHECKSUMMARY summary{};
  // The summary is printed first: collect the findings, then print.
  std::vector<DBCHECKFINDING> findings;
  int32_t rc = DBCheckIndex(
      path.c_str(),
      [](void* context, const DBCHECKFINDING* f) {
        static_cast<std::vector<DBCHECKFINDING>*>(context)->push_back(*f);
      },
      &findings, &summary);
  if (rc < 0) FailWithStatus("cannot check " + path, rc);
  if (rc == DB_WARN_NOT_SUPPORTED) {
    // "an MDX file", "a CDX file": the article goes by the first letter's name.
    bool vowel = std::string("AEFHILMNORSX").find(summary.format_name[0]) != std::string::npos;
    std::cerr << "kestrel: " << path << ": " << (vowel ? "an " : "a ") << summary.format_name
              << " file; not supported yet\n";
    throw CLI::RuntimeError(1);
  }
  if (!quiet) {
    std::cout << "index:       " << path << "\n";
    if (summary.format == DB_INDEX_UNKNOWN) {
      std::cout << "format:      unknown (checked as NTX)\n";
    } else {
      std::cout << "format:      " << summary.format_name << "\n";
    }
    std::cout << "key length:  " << summary.key_length
              << ((summary.flags & DB_CHECK_UNIQUE) ? ", unique" : "")
              << ((summary.flags & DB_CHECK_DESCENDING) ? ", descending" : "") << "\n"
              << "keys:        " << summary.keys << "\n"
              << "depth:       " << summary.depth << "\n"
              << "tree pages:  " << summary.tree_pages << "\n"
              << "free pages:  " << summary.free_pages << "\n";
  }
  for (const auto& f : findings) {
    if (!quiet || f.severity != DB_CHECK_NOTE) PrintFinding(&f);
  }
  if (summary.faults) {
    std::cerr << "kestrel: " << path << ": " << summary.faults << " finding(s)\n";
    throw CLI::RuntimeError(1);
  }
  if (!quiet) std::cout << "ok\n";
}

struct CheckOptions {
  std::string path;
  bool quiet = false;
};

CommandRegistration reg{
    "check", [](CLI::App& app) {
      auto* cmd = app.add_subcommand(
          "check", "Check an index file against its format's rules (NTX, IDX, CDX; others are named)");
      auto options = std::make_shared<CheckOptions>();
      cmd->add_option("INDEX", options->path, "Index file")->required();
      cmd->add_flag("-q,--quiet", options->quiet, "Print only the warnings and faults");
      cmd->callback([options] { RunCheck(options->path, options->quiet); });
    }};

}  // namespace
}  // namespace kestrel::tool
