// kestrel version: the library's version text and the tool's release.
#include <iostream>

#include "command.h"
#include "kestrel/kestrel.h"

namespace {

kestrel::tool::CommandRegistration reg{
    "version", [](CLI::App& app) {
      auto* cmd = app.add_subcommand("version", "Print the library version");
      cmd->callback([] {
        char text[32] = {};
        DBGetVersion(text);
        std::cout << "kestrel " << KESTREL_TOOL_VERSION << " (engine " << text << ")\n";
      });
    }};

}  // namespace
