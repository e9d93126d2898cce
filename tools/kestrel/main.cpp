// The kestrel command-line tool: inspect, convert and check xBase files.
#include <algorithm>
#include <iostream>

#include "command.h"
#include "kestrel/kestrel.h"

namespace kestrel::tool {

std::vector<CommandSetup>& Commands() {
  static std::vector<CommandSetup> commands;
  return commands;
}

void FailWithStatus(const std::string& what, int code) {
  DBSetErrorCode(code);
  std::cerr << "kestrel: " << what << ": " << DBGetErrorStr() << " (" << code << ")\n";
  throw CLI::RuntimeError(1);
}

}  // namespace kestrel::tool

int main(int argc, char** argv) {
  CLI::App app{"kestrel - read, write, index and check xBase tables"};
  app.require_subcommand(1);
  auto& commands = kestrel::tool::Commands();
  std::sort(commands.begin(), commands.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  for (auto& c : commands) c.setup(app);
  if (DBInitialize(260, 0) < 0) {
    std::cerr << "kestrel: cannot initialise the library\n";
    return 1;
  }
  int status = 0;
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    status = app.exit(e);
  }
  DBTerminate();
  return status;
}
