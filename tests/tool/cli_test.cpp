// The kestrel tool as a user meets it: help, version and exit statuses, the
// examples its help shows, why an open failed, reading while others have the
// files open, refusing keys that would all be equal, and pack with the
// indexes it makes stale.  Each runs the built tool as a separate process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"
#include "support/interop.h"
#include "support/temp_dir.h"

namespace kestrel::test {
namespace {

namespace fs = std::filesystem;

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string(KESTREL_TOOL_PATH).empty() || ::access(KESTREL_TOOL_PATH, X_OK) != 0) {
      GTEST_SKIP() << "kestrel tool not built";
    }
  }
  // Runs the tool with a shell command line (words after "kestrel") in dir.
  ProcessResult Kestrel(const std::string& arguments) {
    return RunProcess({"/bin/sh", "-c",
                       "cd '" + dir_.path() + "' && '" KESTREL_TOOL_PATH "' " + arguments});
  }
  std::string Copy(const std::string& fixture, const std::string& as = "") {
    return CopyFixture(fixture, dir_, as);
  }
  static bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }
  TempDir dir_;
};

// 0 for help and version, 2 for every bad command line (before any file is
// touched), 1 for a command that fails.
TEST_F(CliTest, HelpVersionAndExitStatuses) {
  ProcessResult version = Kestrel("--version");
  EXPECT_EQ(version.exit_code, 0);
  EXPECT_EQ(version.out, Kestrel("version").out);
  EXPECT_TRUE(Has(version.out, "(engine 4.00 Revision F)")) << version.out;
  ProcessResult help = Kestrel("help index build");
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_TRUE(Has(help.out, "kestrel index build")) << help.out;
  EXPECT_TRUE(Has(help.out, "--force")) << help.out;
  EXPECT_EQ(Kestrel("help").out, Kestrel("--help").out);
  EXPECT_TRUE(Has(Kestrel("--help").out, "Exit status")) << Kestrel("--help").out;

  const char* usage[] = {"",
                         "nosuch",
                         "help nosuch",
                         "--bogus",
                         "dump",
                         "dump t.dbf --format xml",
                         "info t.dbf --dialect 12",
                         "locks missing.dbf --records abc",
                         "locks missing.dbf --records 9..3",
                         "eval t.dbf x NAME",
                         "index build t.dbf",
                         "date"};
  for (const char* arguments : usage) {
    ProcessResult r = Kestrel(arguments);
    EXPECT_EQ(r.exit_code, 2) << arguments << "\n" << r.err;
    EXPECT_FALSE(r.err.empty()) << arguments;
  }
  EXPECT_EQ(Kestrel("info missing.dbf").exit_code, 1);
}

// Every example line of every help screen runs, in a copy of the sample data.
TEST_F(CliTest, TheExamplesOfTheHelpWork) {
  fs::path data = fs::path(KESTREL_TEST_FIXTURES).parent_path().parent_path() / "data";
  fs::copy(data, dir_.File("data"));
  std::vector<std::string> screens = {"--help"};
  std::istringstream commands(Kestrel("--help").out);
  std::string line;
  bool in_list = false;
  while (std::getline(commands, line)) {
    if (line.rfind("Subcommands:", 0) == 0) {
      in_list = true;
    } else if (in_list && line.rfind("  ", 0) == 0) {
      screens.push_back("help " + line.substr(2, line.find(' ', 2) - 2));
    } else {
      in_list = false;
    }
  }
  ASSERT_GE(screens.size(), 10u);
  int examples = 0;
  for (const std::string& screen : screens) {
    std::istringstream text(Kestrel(screen).out);
    while (std::getline(text, line)) {
      if (line.rfind("  kestrel ", 0) != 0) continue;
      ++examples;
      ProcessResult r = Kestrel(line.substr(10));
      EXPECT_EQ(r.exit_code, 0) << screen << ": " << line << "\n" << r.err;
      EXPECT_FALSE(r.out.empty()) << line;
    }
  }
  EXPECT_GE(examples, 14);
}

// A failed open says why, as the system sees it.
TEST_F(CliTest, AFailedOpenSaysWhy) {
  std::string table = Copy("ntx/staff.dbf");
  fs::create_directory(dir_.File("folder.dbf"));
  int holder = ::open(table.c_str(), O_RDONLY);
  ASSERT_EQ(::flock(holder, LOCK_EX | LOCK_NB), 0);
  const std::pair<std::string, std::string> cases[] = {
      {"info missing.dbf", "could not open the file (-246): no such file\n"},
      {"dump nofolder/t.dbf", "could not open the file (-246): the folder nofolder does not exist"},
      {"info folder.dbf", "cannot open folder.dbf: "},
      {"info folder.dbf", "): it is a folder, not a file\n"},
      {"index keys folder.dbf", "): it is a folder, not a file\n"},
      {"info staff.dbf", "could not open the file (-246): another process has it open exclusively"},
      {"pack staff.dbf", "could not open the file (-246): another process has it open\n"},
  };
  for (const auto& [arguments, reason] : cases) {
    ProcessResult r = Kestrel(arguments);
    EXPECT_EQ(r.exit_code, 1) << arguments;
    EXPECT_TRUE(Has(r.err, reason)) << arguments << "\n" << r.err;
  }
  ::close(holder);
  if (::geteuid() != 0) {  // the superuser reads anything
    fs::permissions(table, fs::perms::none);
    EXPECT_TRUE(Has(Kestrel("info staff.dbf").err, "(-246): permission denied"));
  }
}

// The commands that only read open read-only and shared: they work while
// another process has the table, its memo and its index open shared.
TEST_F(CliTest, ReadingCommandsWorkWhileOthersHaveTheFilesOpen) {
  std::vector<int> held;
  for (const char* name : {"ntx/staff.dbf", "ntx/staff.dbt", "ntx/sname.ntx"}) {
    held.push_back(::open(Copy(name).c_str(), O_RDONLY));
    ASSERT_EQ(::flock(held.back(), LOCK_SH | LOCK_NB), 0) << name;
  }
  for (const char* arguments :
       {"info staff.dbf", "dump staff.dbf", "memo staff.dbf NOTES 3", "eval staff.dbf 1 NAME",
        "index keys sname.ntx", "index keys sname.ntx --table staff.dbf", "check sname.ntx"}) {
    ProcessResult r = Kestrel(arguments);
    EXPECT_EQ(r.exit_code, 0) << arguments << "\n" << r.err;
    EXPECT_FALSE(r.out.empty()) << arguments;
  }
  for (int fd : held) ::close(fd);
}

// A word that is neither a field nor a number would give every record the
// same key: the build is refused unless forced, and an old index stays.
TEST_F(CliTest, IndexBuildRefusesNamesThatAreNotFields) {
  Copy("ntx/staff.dbf");
  std::string index = Copy("ntx/sname.ntx");
  std::vector<uint8_t> before = ReadFileBytes(index);
  ProcessResult r = Kestrel("index build staff.dbf sname.ntx NAMEE");
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_TRUE(Has(r.err, "NAMEE in the key expression is not a field of staff.dbf")) << r.err;
  EXPECT_EQ(ReadFileBytes(index), before);
  r = Kestrel("index build staff.dbf x.ntx 'CITY+STR(AGE,3)+ABT->NAME+X'");
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_TRUE(Has(r.err, "ABT->NAME, X in the key expression")) << r.err;
  r = Kestrel("index build staff.dbf x.ntx NAMEE --force");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(Has(r.err, "warning: NAMEE")) << r.err;
  for (const char* fine : {"'field->name+\"x\"'", "'STR(staff->AGE,3,0)+DTOC(HIRED,1)'"}) {
    r = Kestrel(std::string("index build staff.dbf y.ntx ") + fine);
    EXPECT_EQ(r.exit_code, 0) << fine << "\n" << r.err;
    EXPECT_EQ(r.err, "") << fine;
  }
}

// Pack renumbers the records: the indexes of the table in its folder are
// named as stale, and --index rebuilds them so that every key is its
// record's key again.
TEST_F(CliTest, PackNamesOrRebuildsTheIndexesItMakesStale) {
  for (const char* name : {"ntx/staff.dbf", "ntx/staff.dbt", "ntx/sname.ntx", "ntx/sage.ntx",
                           "ntx/realworld/fluxo-caixa-clipper_ABERTAS.NTX"}) {
    Copy(name);
  }
  // Mark every third record deleted.
  std::vector<uint8_t> bytes = ReadFileBytes(dir_.File("staff.dbf"));
  const uint32_t header = bytes[8] | bytes[9] << 8, length = bytes[10] | bytes[11] << 8;
  for (uint32_t r = 1; r <= 300; r += 3) bytes[header + (r - 1) * length] = '*';
  int kept = 0;
  for (uint32_t r = 1; r <= 300; ++r) kept += bytes[header + (r - 1) * length] == ' ';
  ASSERT_LT(kept, 200);
  WriteFileBytes(dir_.File("staff.dbf"), bytes);
  WriteFileBytes(dir_.File("other.dbf"), bytes);
  fs::copy_file(dir_.File("staff.dbt"), dir_.File("other.dbt"));

  ProcessResult r = Kestrel("pack staff.dbf --dialect 6");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_TRUE(Has(r.out, "300 records before, " + std::to_string(kept) + " after")) << r.out;
  EXPECT_TRUE(Has(r.err, "  sage.ntx (key AGE)")) << r.err;
  EXPECT_TRUE(Has(r.err, "  sname.ntx (key NAME)")) << r.err;
  EXPECT_FALSE(Has(r.err, "ABERTAS")) << r.err;
  EXPECT_EQ(Kestrel("index keys sname.ntx --table staff.dbf --dialect 6").exit_code, 1);

  r = Kestrel("pack other.dbf --dialect 6 --index sname.ntx sage.ntx");
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  for (const char* index : {"sname.ntx", "sage.ntx"}) {
    ProcessResult keys = Kestrel(std::string("index keys ") + index + " --table other.dbf");
    EXPECT_EQ(keys.exit_code, 0) << index << "\n" << keys.err;
    EXPECT_EQ(std::count(keys.out.begin(), keys.out.end(), '\n'), kept) << index;
    EXPECT_EQ(Kestrel(std::string("check ") + index).exit_code, 0) << index;
  }
}

}  // namespace
}  // namespace kestrel::test
