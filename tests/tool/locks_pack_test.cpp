// The "kestrel locks" and "kestrel pack" commands, run as separate processes
// against tables this process holds locks on.  Skipped when the tool has not
// been built in this tree.
#include <filesystem>

#include "sharing/sharing_support.h"

namespace kestrel::test {
namespace {

// The tool with arguments separated by blanks.
ProcessResult Tool(const std::string& arguments) {
  std::vector<std::string> args;
  std::istringstream in(arguments);
  for (std::string a; in >> a;) args.push_back(a);
  return RunTool(args);
}

class LockToolTest : public SharingTest {
 protected:
  void SetUp() override {
    KESTREL_REQUIRE_TOOL();
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
  ProcessResult run = Tool("locks " + path + " --dialect 6");
  EXPECT_EQ(run.exit_code, 0);
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

  run = Tool("locks " + path + " --dialect 6 --records 6..8");
  EXPECT_FALSE(Has(run.out, "record 5")) << run.out;
  EXPECT_TRUE(Has(run.out, "2 of 5 regions held")) << run.out;

  ASSERT_EQ(DBUnLockAll(h), 0);
  run = Tool("locks " + path + " --dialect 6");
  EXPECT_TRUE(Has(run.out, "no region is held (12 probed)")) << run.out;
  EXPECT_EQ(DBCloseFile(h), 0);

  EXPECT_EQ(Tool("locks " + path + " --records 9..3").exit_code, 2);
  EXPECT_EQ(Tool("locks " + dir_.File("MISSING.DBF")).exit_code, 1);
}

TEST_F(LockToolTest, RecordsInsideAFileLockAreCountedNotListed) {
  std::string path = Make("D3.DBF", 10);
  int32_t h = Open(path, 1 | DB_OPEN_SHARED);
  ASSERT_EQ(DBLockFile(h), 0);
  ProcessResult run = Tool("locks " + path);
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_TRUE(Has(run.out, "file (0 +2147483647): held, write lock 0 +2147483647")) << run.out;
  EXPECT_TRUE(Has(run.out, "10 more regions overlap locks shown above")) << run.out;
  EXPECT_TRUE(Has(run.out, "12 of 12 regions held")) << run.out;
  EXPECT_EQ(DBCloseFile(h), 0);
}

TEST_F(LockToolTest, PackKeepsTheBackupAndCountsTheRecords) {
  std::string path = Make("P.DBF", 6, {2, 6});
  std::vector<uint8_t> original = ReadFileBytes(path);
  ProcessResult run = Tool("pack " + path);
  int32_t h = -1;
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, path + ": 6 records before, 4 after (2 removed); the old file is " +
                         dir_.File("P.BAK") + "\n");
  EXPECT_EQ(ReadFileBytes(dir_.File("P.BAK")), original);
  h = Open(path, 1);
  EXPECT_EQ(Count(h), 4);
  EXPECT_EQ(Text(h, 2), "r3");
  EXPECT_EQ(DBCloseFile(h), 0);

  // A table someone else has open cannot be packed; nothing changes.
  h = Open(path, 1 | DB_OPEN_SHARED);
  EXPECT_EQ(Tool("pack " + path).exit_code, 1);
  EXPECT_EQ(DBCloseFile(h), 0);
  // Nor one whose backup cannot be replaced.
  std::filesystem::remove(dir_.File("P.BAK"));
  std::filesystem::create_directory(dir_.File("P.BAK"));
  EXPECT_EQ(Tool("pack " + path).exit_code, 1);
  h = Open(path, 1);
  EXPECT_EQ(Count(h), 4);
  EXPECT_EQ(DBCloseFile(h), 0);
}

}  // namespace
}  // namespace kestrel::test
