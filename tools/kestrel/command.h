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
// its message to stderr: kExitFailure when the work failed, kExitUsage when
// the command line is wrong (as for the parser's own errors).
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

constexpr int kExitSuccess = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// Prints "kestrel: <what>: <message of code> (<code>)" to stderr and throws
// CLI::RuntimeError with exit status 1.
[[noreturn]] void FailWithStatus(const std::string& what, int code);

// As FailWithStatus for a failed open of path with the open switch word
// mode: when the library refused the open (-246), the message adds why, as
// the system tells it (no such file, a folder, permission denied, in use by
// another process).
[[noreturn]] void FailToOpen(const std::string& path, int32_t mode, int code);

// Why the system would refuse to open path with the open switch word mode,
// "" when it would not.
std::string OpenFailureReason(const std::string& path, int32_t mode);

// Prints "kestrel: <message>" to stderr and throws CLI::RuntimeError with
// exit status 2 (a bad command line).
[[noreturn]] void FailUsage(const std::string& message);

// "kestrel <release> (engine <library version text>)".
std::string VersionText();

}  // namespace kestrel::tool
