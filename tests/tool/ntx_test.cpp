// The kestrel tool's index commands: build, list keys and check, on the
// fixture table, and the checker's exit status on a damaged file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>
#include <string>
#include <vector>

#include <cstring>

#include "support/library.h"
#include "util/coding.h"

namespace kestrel::test {
namespace {

class NtxToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KESTREL_REQUIRE_TOOL();
    table_ = CopyFixture("ntx/staff.dbf", dir_);
    CopyFixture("ntx/staff.dbt", dir_);
  }
  std::vector<std::string> Listing() const { return dir_.Listing(); }
  std::string table_;
  TempDir dir_;
};

TEST_F(NtxToolTest, BuildListAndCheck) {
  std::string index = dir_.File("city.ntx");
  ProcessResult r = RunTool({"index", "build", table_, index, "CITY+NAME"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = RunTool({"check", index});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("keys:        300"), std::string::npos) << r.out;
  r = RunTool({"index", "keys", index, "--table", table_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 300u);
  // Keys of 35 characters (from the first record), in order.
  for (size_t i = 1; i < lines.size(); ++i) {
    std::string a = lines[i - 1].substr(lines[i - 1].find('\t') + 1);
    std::string b = lines[i].substr(lines[i].find('\t') + 1);
    EXPECT_LE(a, b) << i;
  }
  // A numeric key with decimals, unique and descending flags.
  std::string salary = dir_.File("salary.ntx");
  r = RunTool({"index", "build", table_, salary, "SALARY", "--type", "N", "--length", "10",
               "--decimals", "2", "--clipper-numeric", "--descending"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = RunTool({"index", "keys", salary});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 300u);
  EXPECT_EQ(lines.front().substr(lines.front().find('\t') + 1), "9999999.99");
}

// The same commands on .NDX files: a character key and a unique numeric key.
TEST_F(NtxToolTest, NdxBuildListAndCheck) {
  std::string index = dir_.File("city.ndx");
  ProcessResult r = RunTool({"index", "build", table_, index, "CITY+NAME"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = RunTool({"check", index});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("keys:        300"), std::string::npos) << r.out;
  r = RunTool({"index", "keys", index, "--table", table_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 300u);
  for (size_t i = 1; i < lines.size(); ++i) {
    EXPECT_LE(lines[i - 1].substr(lines[i - 1].find('\t') + 1),
              lines[i].substr(lines[i].find('\t') + 1))
        << i;
  }
  std::string salary = dir_.File("SALARY.NDX");
  r = RunTool({"index", "build", table_, salary, "SALARY", "--type", "N", "--unique"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = RunTool({"index", "keys", salary, "--table", table_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_FALSE(Lines(r.out).empty());
  EXPECT_EQ(RunTool({"check", salary}).exit_code, 0);
  EXPECT_NE(RunTool({"index", "build", table_, salary, "SALARY", "--descending"}).exit_code, 0);
}

TEST_F(NtxToolTest, CheckFailsOnADamagedFile) {
  std::string index = dir_.File("name.ntx");
  ASSERT_EQ(RunTool({"index", "build", table_, index, "NAME", "--length", "20"}).exit_code, 0);
  const std::vector<uint8_t> good = ReadFileBytes(index);
  std::vector<uint8_t> bytes = good;
  uint32_t root = LoadLE32(&bytes[4]);
  StoreLE16(&bytes[root], 200);  // more keys than a page holds
  WriteFileBytes(index, bytes);
  ProcessResult r = RunTool({"check", index});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("exceeds the page capacity"), std::string::npos) << r.out;
  // A root that lost its count but still names a child is not an empty index.
  bytes = good;
  StoreLE16(&bytes[root], 0);
  WriteFileBytes(index, bytes);
  EXPECT_EQ(RunTool({"check", index}).exit_code, 1);
  for (const auto& args : {std::vector<std::string>{"index", "keys", index},
                           std::vector<std::string>{"index", "keys", index, "--table", table_}}) {
    r = RunTool(args);
    EXPECT_EQ(r.exit_code, 1) << r.out;
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("(-206)"), std::string::npos) << r.err;
  }
  r = RunTool({"check", dir_.File("missing.ntx")});
  EXPECT_EQ(r.exit_code, 1);
  // Sound files of other writers pass with notes; other formats are named.
  r = RunTool({"check", CopyFixture("index/CUSTNAME.NTX", dir_)});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("page 0: note: FOR condition: !Deleted()"), std::string::npos) << r.out;
  r = RunTool({"check", CopyFixture("index/employees.CDX", dir_)});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("format:      CDX"), std::string::npos) << r.out;
  r = RunTool({"check", CopyFixture("index/dBEST.MDX", dir_)});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("an MDX file; not supported yet"), std::string::npos) << r.err;
}

// An expression the evaluator cannot evaluate is reported as such, not as
// keys that differ from their records.
TEST_F(NtxToolTest, KeysThatCannotBeMadeAreNotCalledDifferent) {
  std::string index = dir_.File("name.ntx");
  ASSERT_EQ(RunTool({"index", "build", table_, index, "NAME", "--length", "20"}).exit_code, 0);
  std::vector<uint8_t> bytes = ReadFileBytes(index);
  std::memcpy(&bytes[22], "NOSUCH(NAME)", 13);  // the key expression
  WriteFileBytes(index, bytes);
  ProcessResult r = RunTool({"index", "keys", index, "--table", table_});
  EXPECT_EQ(r.exit_code, 1);
  auto lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 300u);
  EXPECT_NE(lines[0].find("\t(cannot make the record's key: "), std::string::npos) << lines[0];
  EXPECT_NE(r.err.find("the keys of 300 record(s) could not be made"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("differ"), std::string::npos) << r.err;
}

// A rebuild the tool cannot finish (a key longer than asked for, a table cut
// short) leaves the index as it was and no work file.
TEST_F(NtxToolTest, FailedRebuildKeepsTheOldIndex) {
  std::string index = dir_.File("name.ntx");
  ASSERT_EQ(RunTool({"index", "build", table_, index, "NAME", "--length", "20"}).exit_code, 0);
  const std::vector<uint8_t> old = ReadFileBytes(index);
  std::string cut = dir_.File("cut.dbf");
  std::vector<uint8_t> table = ReadFileBytes(table_);
  table.resize(table.size() - 68 * 50);  // fifty records short
  WriteFileBytes(cut, table);
  const std::vector<std::string> listing = Listing();
  for (const auto& args : {std::vector<std::string>{"index", "build", table_, index, "NAME",
                                                    "--length", "5"},
                           std::vector<std::string>{"index", "build", cut, index, "NAME"}}) {
    ProcessResult r = RunTool(args);
    EXPECT_EQ(r.exit_code, 1) << args[2] << r.out << r.err;
    EXPECT_TRUE(ReadFileBytes(index) == old) << args[2];
    EXPECT_EQ(Listing(), listing) << args[2];
  }
  EXPECT_EQ(RunTool({"check", index}).exit_code, 0);
}

// An interrupted rebuild (SIGINT while the tool writes its work file) stops,
// removes its work files and leaves the old index byte for byte; the tool
// dies of the signal.
TEST_F(NtxToolTest, InterruptedRebuildKeepsTheOldIndex) {
  ASSERT_EQ(DBInitialize(64, 0), 0);
  DBFIELD field = Field("NAME", 'C', 10);
  std::string big = dir_.File("big.dbf");
  std::string index = dir_.File("big.ntx");
  int32_t t = -1;
  ASSERT_EQ(DBCreateFile(big.c_str(), 1, &field, DB_DIALECT_CLIPPER), 0);
  ASSERT_EQ(DBOpenFile(&t, big.c_str(), DB_DIALECT_CLIPPER), 0);
  for (uint32_t r = 1; r <= 250000; ++r) {
    char name[16];
    std::snprintf(name, sizeof name, "N%09u", (r * 7919u) % 250000u);
    ASSERT_EQ(DBPutStrField(t, 0, name), 0);
    AppendRecord(t);
  }
  std::string expr = "NAME";
  ASSERT_EQ(DBclBuildIndex(t, index.c_str(), 'C' | DB_CL_DESCENDING, expr.data(), 10, 0), 0);
  ASSERT_EQ(DBCloseFile(t), 0);
  DBTerminate();
  const std::vector<uint8_t> old = ReadFileBytes(index);
  const std::vector<std::string> listing = Listing();

  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
    execl(ToolPath().c_str(), ToolPath().c_str(), "index", "build", big.c_str(), index.c_str(), "NAME",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  // Interrupt as soon as the work file is there.
  bool seen = false;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!seen && std::chrono::steady_clock::now() < deadline) {
    for (const std::string& name : Listing()) {
      if (name.size() > 4 && name.compare(name.size() - 4, 4, ".TMP") == 0) seen = true;
    }
    if (!seen) std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  kill(child, SIGINT);
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(seen) << "no work file appeared";
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << status;
  EXPECT_TRUE(ReadFileBytes(index) == old);
  EXPECT_EQ(Listing(), listing);
}

}  // namespace
}  // namespace kestrel::test
