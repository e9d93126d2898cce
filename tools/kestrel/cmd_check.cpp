// kestrel check INDEX: runs the index invariant checker over a file and
// lists every broken rule; the exit status is 1 when there is any.
#include <iostream>
#include <memory>
#include <string>

#include "command.h"
#include "index/clipper/ntx_check.h"
#include "kestrel/kestrel.h"

namespace kestrel::tool {
namespace {

void RunCheck(const std::string& path, bool quiet) {
  Vec<ntx::CheckFinding> findings;
  ntx::CheckSummary summary{};
  int32_t rc = ntx::CheckIndexFile(path.c_str(), &findings, &summary);
  if (rc < 0) FailWithStatus("cannot check " + path, rc);
  if (!quiet) {
    std::cout << "index:       " << path << "\n"
              << "key length:  " << summary.key_length << (summary.unique ? ", unique" : "")
              << (summary.descending ? ", descending" : "") << "\n"
              << "keys:        " << summary.keys << "\n"
              << "depth:       " << summary.depth << "\n"
              << "tree pages:  " << summary.tree_pages << "\n"
              << "free pages:  " << summary.free_pages << "\n";
  }
  for (const auto& f : findings) {
    std::cout << "page " << f.page << ": " << f.text << " (" << f.code << ")\n";
  }
  if (!findings.empty()) {
    std::cerr << "kestrel: " << path << ": " << findings.size() << " finding(s)\n";
    throw CLI::RuntimeError(1);
  }
  if (!quiet) std::cout << "ok\n";
}

struct CheckOptions {
  std::string path;
  bool quiet = false;
};

CommandRegistration reg{"check", [](CLI::App& app) {
                          auto* cmd = app.add_subcommand(
                              "check", "Check an .NTX index file against the format's rules");
                          auto options = std::make_shared<CheckOptions>();
                          cmd->add_option("INDEX", options->path, "Index file")->required();
                          cmd->add_flag("-q,--quiet", options->quiet, "Print only the findings");
                          cmd->callback([options] { RunCheck(options->path, options->quiet); });
                        }};

}  // namespace
}  // namespace kestrel::tool
