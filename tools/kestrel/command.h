// Subcommand registry of the kestrel tool.
//
// Each command lives in its own cmd_*.cpp and registers itself with a static
// CommandRegistration, so adding a command touches no other file:
//
//     static kestrel::tool::CommandRegistration reg{"version", [](CLI::App& app) {
//       auto* cmd = app.add_subcommand("version", "Print the library version");
//       cmd->callback([] { ... });
//     }};
//
// A command that fails throws CLI::RuntimeError(exit_code) after printing
// its message to stderr.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

namespace kestrel::tool {

struct CommandSetup {
  std::string name;
  std::function<void(CLI::App&)> setup;
};

std::vector<CommandSetup>& Commands();

struct CommandRegistration {
  CommandRegistration(std::string name, std::function<void(CLI::App&)> setup) {
    Commands().push_back({std::move(name), std::move(setup)});
  }
};

// Prints "kestrel: <what>: <message of code> (<code>)" to stderr and throws
// CLI::RuntimeError with exit status 1.
[[noreturn]] void FailWithStatus(const std::string& what, int code);

}  // namespace kestrel::tool
