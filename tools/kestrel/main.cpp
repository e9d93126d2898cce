// The kestrel command-line tool: inspect, convert and check xBase files.
//
// Exit status: 0 success, 1 the command failed (the message says why), 2 the
// command line is wrong (unknown command or option, missing or malformed
// argument).  "--help", "help COMMAND" and "--version" exit 0.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>

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
  throw CLI::RuntimeError(kExitFailure);
}

std::string OpenFailureReason(const std::string& path, int32_t mode) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) {
    switch (errno) {
      case ENOENT: {
        std::filesystem::path folder = std::filesystem::path(path).parent_path();
        std::error_code ec;
        if (!folder.empty() && !std::filesystem::is_directory(folder, ec)) {
          return "the folder " + folder.string() + " does not exist";
        }
        return "no such file";
      }
      case ENOTDIR:
        return "a part of the path is not a folder";
      case EACCES:
        return "permission denied (a folder of the path cannot be searched)";
      default:
        return std::strerror(errno);
    }
  }
  if (S_ISDIR(st.st_mode)) return "it is a folder, not a file";
  const bool read_only = (mode & DB_OPEN_READONLY) != 0;
  int fd = ::open(path.c_str(), (read_only ? O_RDONLY : O_RDWR) | O_CLOEXEC);
  if (fd < 0) {
    int error = errno;
    if (error == EACCES || error == EPERM) {
      return read_only ? "permission denied" : "permission denied (no write permission)";
    }
    return std::strerror(error);
  }
  // The library keeps others out with a whole-file lock: shared opens share
  // it, any other open wants it alone.
  const bool shared = (mode & DB_OPEN_SHARED) != 0;
  int rc = ::flock(fd, (shared ? LOCK_SH : LOCK_EX) | LOCK_NB);
  int error = errno;
  ::close(fd);
  if (rc != 0 && error == EWOULDBLOCK) {
    return shared ? "another process has it open exclusively"
                  : "another process has it open";
  }
  return "";
}

void FailToOpen(const std::string& path, int32_t mode, int code) {
  // Whatever the library's code, a file the system would not open is the
  // cause (a folder opens, but fails at the first read).
  std::string reason = OpenFailureReason(path, mode);
  DBSetErrorCode(code);
  std::cerr << "kestrel: cannot open " << path << ": " << DBGetErrorStr() << " (" << code << ")"
            << (reason.empty() ? "" : ": " + reason) << "\n";
  throw CLI::RuntimeError(kExitFailure);
}

void FailUsage(const std::string& message) {
  std::cerr << "kestrel: " << message << "\n";
  throw CLI::RuntimeError(kExitUsage);
}

std::string VersionText() {
  char text[32] = {};
  DBGetVersion(text);
  return std::string("kestrel ") + KESTREL_TOOL_VERSION + " (engine " + text + ")";
}

namespace {

constexpr const char* kExitStatusText =
    "Exit status: 0 success, 1 the command failed, 2 a bad command line.";

// Examples shown under each command's help; every line runs as shown from
// the top of the source tree, on the sample files in data/ (the tests run
// them all, in a copy of data/).
const std::map<std::string, std::vector<std::string>>& Examples() {
  static const std::map<std::string, std::vector<std::string>> examples = {
      {"", {"kestrel info data/staff.dbf", "kestrel dump --format json data/staff.dbf",
            "kestrel help index build"}},
      {"info", {"kestrel info data/plain.dbf"}},
      {"dump", {"kestrel dump data/plain.dbf", "kestrel dump --format json data/staff.dbf"}},
      {"memo", {"kestrel memo data/plain.dbf NOTES 3"}},
      {"eval", {"kestrel eval data/staff.dbf 3 \"name+dtoc(hired,1)\""}},
      {"index",
       {"kestrel index build data/staff.dbf data/city.ntx \"CITY+NAME\"",
        "kestrel index keys data/sname.ntx --table data/staff.dbf"}},
      {"check", {"kestrel check data/sname.ntx"}},
      {"pack", {"kestrel pack data/staff.dbf --index data/sname.ntx data/sage.ntx"}},
      {"locks", {"kestrel locks data/staff.dbf --records 1..10"}},
      {"date", {"kestrel date 12/31/03 --from 2 --to 15", "kestrel date --styles"}},
      {"version", {"kestrel version"}},
      {"help", {"kestrel help index build"}},
  };
  return examples;
}

std::string ExamplesFooter(const std::string& command) {
  std::string text;
  auto it = Examples().find(command);
  if (it != Examples().end()) {
    text = "Examples:\n";
    for (const auto& line : it->second) text += "  " + line + "\n";
    text += "\n";
  }
  return text + kExitStatusText;
}

bool Visible(CLI::App* command) { return !command->get_group().empty(); }

// The tool's own help screen (App::help would show the running command's).
std::string TopHelp(CLI::App& app) {
  return app.get_formatter()->make_help(&app, app.get_name(), CLI::AppFormatMode::Normal);
}

// The roff text of one help screen: preformatted, with the characters roff
// would take for requests or escapes made harmless.
std::string RoffVerbatim(const std::string& text) {
  std::string out = ".nf\n";
  bool line_start = true;
  for (char c : text) {
    if (line_start && (c == '.' || c == '\'')) out += "\\&";
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else {
      out += c;
    }
    line_start = c == '\n';
  }
  if (!line_start) out += '\n';
  return out + ".fi\n";
}

// The manual page, made from the same help screens the tool prints.
void PrintManual(CLI::App& app, std::ostream& out) {
  out << ".TH KESTREL 1 \"\" \"kestrel " KESTREL_TOOL_VERSION "\" \"User Commands\"\n"
      << ".SH NAME\nkestrel \\- read, write, index and check xBase tables\n"
      << ".SH SYNOPSIS\n.B kestrel\n.I COMMAND\n[\\fIOPTIONS\\fR] [\\fIARGUMENTS\\fR]\n"
      << ".SH DESCRIPTION\n"
      << RoffVerbatim(TopHelp(app))
      << ".SH COMMANDS\n";
  for (CLI::App* command : app.get_subcommands(Visible)) {
    out << ".SS " << command->get_name() << "\n" << RoffVerbatim(command->help("kestrel"));
    for (CLI::App* sub : command->get_subcommands(Visible)) {
      out << RoffVerbatim(sub->help("kestrel " + command->get_name()));
    }
  }
  out << ".SH EXIT STATUS\n0 success, 1 the command failed (the message on standard error says "
         "why), 2 a bad command line.\n"
      << ".SH SEE ALSO\nThe documentation installed with the library (docs/tool.md).\n";
}

void AddHelpAndManual(CLI::App& app) {
  auto* help = app.add_subcommand("help", "Show the help of a command");
  auto words = std::make_shared<std::vector<std::string>>();
  help->add_option("COMMAND", *words, "The command (and subcommand), e.g. index build");
  help->callback([&app, words] {
    CLI::App* at = &app;
    std::string prefix;
    for (const std::string& word : *words) {
      CLI::App* next = nullptr;
      try {
        next = at->get_subcommand(word);
      } catch (const CLI::OptionNotFound&) {
      }
      if (!next || next->get_group().empty()) {
        FailUsage("no command '" + word + "'; 'kestrel --help' lists them");
      }
      prefix = prefix.empty() ? at->get_name() : prefix + " " + at->get_name();
      at = next;
    }
    std::cout << (at == &app ? TopHelp(app) : at->help(prefix));
  });

  // Hidden: writes the manual page (made at build time).
  auto* manual = app.add_subcommand("manual", "");
  manual->group("");
  manual->callback([&app] { PrintManual(app, std::cout); });
}

}  // namespace
}  // namespace kestrel::tool

int main(int argc, char** argv) {
  using namespace kestrel::tool;
  CLI::App app{"kestrel - read, write, index and check xBase tables"};
  app.name("kestrel");
  app.require_subcommand(1);
  app.set_version_flag("-V,--version", VersionText());
  auto& commands = Commands();
  std::sort(commands.begin(), commands.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  for (auto& c : commands) c.setup(app);
  AddHelpAndManual(app);
  // Footers last: a subcommand takes its parent's footer when it is made.
  app.footer(ExamplesFooter(""));
  for (CLI::App* command : app.get_subcommands(Visible)) {
    command->footer(ExamplesFooter(command->get_name()));
    for (CLI::App* sub : command->get_subcommands(Visible)) {
      sub->footer(ExamplesFooter(command->get_name()));
    }
  }
  if (DBInitialize(260, 0) < 0) {
    std::cerr << "kestrel: cannot initialise the library\n";
    return kExitFailure;
  }
  int status = kExitSuccess;
  try {
    app.parse(argc, argv);
  } catch (const CLI::RuntimeError& e) {
    status = e.get_exit_code();
  } catch (const CLI::ParseError& e) {
    // Help and version exit 0; every other parse error is a bad command line.
    status = app.exit(e);
    if (status != kExitSuccess) status = kExitUsage;
  }
  DBTerminate();
  return status;
}
