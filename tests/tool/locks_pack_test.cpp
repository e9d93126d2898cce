// The "kestrel locks" and "kestrel pack" commands, run as separate processes
// against tables this process holds locks on.  Skipped when the tool has not
// been built in this tree.
#include <cstdio>
#include <filesystem>

#include "sharing/sharing_support.h"

namespace kestrel::test {
namespace {

struct ToolRun {
  std::string out;
  int status = -1;
};

ToolRun RunTool(const std::string& arguments) {
  std::string command = std::string(KESTREL_TOOL_PATH) + " " + arguments + " 2>/dev/null";
  ToolRun run;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return run;
  char chunk[256];
  size_t n;
  while ((n = std::fread(chunk, 1, sizeof chunk, pipe)) > 0) run.out.append(chunk, n);
  int status = ::pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

class LockToolTest : public SharingTest {
 protected:
  void SetUp() override {
    if (std::string(KESTREL_TOOL_PATH).empty() || ::access(KESTREL_TOOL_PATH, X_OK) != 0) {
      GTEST_SKIP() << "kestrel tool not built";
    }
    SharingTest::SetUp();
  }
  static bool Has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
  }
};

TEST_F(LockToolTest, ShowsTheRegionsThisProcessHoldsWithItsPid) {
  std::string path = Make("CLIP.DBF", 10, {}, 6);
  int32_t h = Open(path, 6 | DB_OPEN_SHARED | DB_OPEN_MULTILOCK);
  ASSERT_EQ(DBLockRecord(h, 5), 0);
  ASSERT_EQ(DBLockHeader(h), 0);
  std::string pid = std::to_string(::getpid());
  ToolRun run = RunTool("locks " + path + " --dialect 6");
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(Has(run.out, "dialect 6, 10 records")) << run.out;
  EXPECT_TRUE(
      Has(run.out, "record 5 (1000000005 +1): held, write lock 1000000005 +1 by pid " + pid))
      << run.out;
  EXPECT_TRUE(Has(run.out, "header (1000000000 +1): held")) << run.out;
  // The file region starts at the header byte: it overlaps the header lock,
  // which is shown once.
  EXPECT_FALSE(Has(run.out, "file (")) << run.out;
  EXPECT_TRUE(Has(run.out, "1 more regions overlap locks shown above")) << run.out;
  EXPECT_FALSE(Has(run.out, "record 4 ")) << run.out;
  EXPECT_TRUE(Has(run.out, "3 of 12 regions held")) << run.out;

  run = RunTool("locks " + path + " --dialect 6 --records 6..8");
  EXPECT_FALSE(Has(run.out, "record 5")) << run.out;
  EXPECT_TRUE(Has(run.out, "2 of 5 regions held")) << run.out;

  ASSERT_EQ(DBUnLockAll(h), 0);
  run = RunTool("locks " + path + " --dialect 6");
  EXPECT_TRUE(Has(run.out, "no region is held (12 probed)")) << run.out;
  EXPECT_EQ(DBCloseFile(h), 0);

  EXPECT_EQ(RunTool("locks " + path + " --records 9..3").status, 2);
  EXPECT_EQ(RunTool("locks " + dir_.File("MISSING.DBF")).status, 1);
}

TEST_F(LockToolTest, RecordsInsideAFileLockAreCountedNotListed) {
  std::string path = Make("D3.DBF", 10);
  int32_t h = Open(path, 1 | DB_OPEN_SHARED);
  ASSERT_EQ(DBLockFile(h), 0);
  ToolRun run = RunTool("locks " + path);
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(Has(run.out, "file (0 +2147483647): held, write lock 0 +2147483647")) << run.out;
  EXPECT_TRUE(Has(run.out, "10 more regions overlap locks shown above")) << run.out;
  EXPECT_TRUE(Has(run.out, "12 of 12 regions held")) << run.out;
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(LockToolTest, PackKeepsTheBackupAndCountsTheRecords) {
  std::string path = Make("P.DBF", 6, {2, 6});
  std::vector<uint8_t> original = ReadFileBytes(path);
  ToolRun run = RunTool("pack " + path);
  int32_t h = -1;
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, path + ": 6 records before, 4 after (2 removed); the old file is " +
                         dir_.File("P.BAK") + "\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("P.BAK")), original);
  h = Open(path, 1);
  EXPECT_EQ(Count(h), 4);
  EXPECT_EQ(Text(h, 2), "r3");
  EXPECT_EQ(DBCloseFile(h), 0);

  // A table someone else has open cannot be packed; nothing changes.
  h = Open(path, 1 | DB_OPEN_SHARED);
  EXPECT_EQ(RunTool("pack " + path).status, 1);
  EXPECT_EQ(DBCloseFile(h), 0);
  // Nor one whose backup cannot be replaced.
  std::filesystem::remove(dir_.File("P.BAK"));
  std::filesystem::create_directory(dir_.File("P.BAK"));
  EXPECT_EQ(RunTool("pack " + path).status, 1);
  h = Open(path, 1);
  EXPECT_EQ(Count(h), 4);
  EXPECT_EQ(DBCloseFile(h), 0);
}

}  // namespace
}  // namespace kestrel::test
