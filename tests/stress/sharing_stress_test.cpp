// Long runs of many processes on one shared table (label stress, outside the
// default run): on the real disk, where automatic locking flushes every
// write, and in memory with more writers and far more records, with heavy
// contention for few records in the update runs.
#include <cstdio>

#include "sharing/stress_workload.h"

namespace kestrel::test {
namespace {

class SharingStressTest : public SharingTest {};

// What an independent reader (python3-dbfread) makes of a table: the number
// of active records and the sum of the SEQ field, or "" when it is missing.
std::string ReadWithDbfread(const std::string& path) {
  ProcessResult r = RunProcess({kPython, "-c",
                                "import sys, dbfread; t = list(dbfread.DBF(sys.argv[1])); "
                                "print(len(t), sum(int(r['SEQ']) for r in t))",
                                path});
  return r.exit_code == 0 ? r.out : "";
}

TEST_F(SharingStressTest, AppendsOnDisk) {
  // dir_ is on the disk of the temporary directory (TMPDIR or /tmp).
  std::string path = dir_.File("DISK.DBF");
  stress::AppendResult r = stress::RunAppends(path, 1, 4, 5000);
  std::printf("disk appends: %d records by 4 writers in %.1f s (%.0f/s); reader checked %ld\n",
              r.final_count, r.seconds, r.final_count / r.seconds, r.reads);
  // Another program reads the same records: 4 x (1 + ... + 5000).
  std::string other = ReadWithDbfread(path);
  if (other.empty()) GTEST_SKIP() << "python3-dbfread not available";
  EXPECT_EQ(other, "20000 50010000\n");
}

TEST_F(SharingStressTest, UpdatesOnDisk) {
  stress::ReplaceResult r = stress::RunReplaces(dir_.File("DISKUPD.DBF"), 1, 4, 2500, 100);
  std::printf("disk updates: %ld increments by 4 writers in %.1f s (%.0f/s)\n", r.increments,
              r.seconds, r.increments / r.seconds);
}

TEST_F(SharingStressTest, EightWritersAppendAQuarterMillionRecords) {
  for (int32_t dialect : {2, 6, 8 | DB_CREATE_PRODUCTION_INDEX}) {
    SCOPED_TRACE(dialect);
    auto dir = stress::MemoryTempDir();
    stress::AppendResult r = stress::RunAppends(dir->File("MANY.DBF"), dialect, 8, 31250);
    std::printf("dialect 0x%x appends: %d records by 8 writers in %.1f s (%.0f/s); reader %ld\n",
                dialect, r.final_count, r.seconds, r.final_count / r.seconds, r.reads);
  }
}

TEST_F(SharingStressTest, EightWritersFightOverTwentyRecords) {
  for (int32_t dialect : {1, 5, 8 | DB_CREATE_PRODUCTION_INDEX}) {
    SCOPED_TRACE(dialect);
    auto dir = stress::MemoryTempDir();
    stress::ReplaceResult r = stress::RunReplaces(dir->File("FIGHT.DBF"), dialect, 8, 20000, 20);
    std::printf("dialect 0x%x updates: %ld increments by 8 writers in %.1f s (%.0f/s)\n", dialect,
                r.increments, r.seconds, r.increments / r.seconds);
  }
}

}  // namespace
}  // namespace kestrel::test
