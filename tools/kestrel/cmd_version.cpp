// kestrel version: the library's version text and the tool's release (the
// same as "kestrel --version").
#include <iostream>

#include "command.h"

namespace {

kestrel::tool::CommandRegistration reg{
    "version", [](CLI::App& app) {
      auto* cmd = app.add_subcommand("version", "Print the library version");
      cmd->callback([] { std::cout << kestrel::tool::VersionText() << "\n"; });
    }};

}  // namespace
