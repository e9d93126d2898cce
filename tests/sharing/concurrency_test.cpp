// Several processes on one shared table at once, in every dialect family
// (the short runs; longer ones are in the stress tests): appends with
// automatic locking while another process reads, and read-modify-write
// updates under record locks.
#include "stress_workload.h"

namespace kestrel::test {
namespace {

// Create dialect (0x200: production index flag, which moves the FoxPro regions).
class ConcurrencyTest : public SharingTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(ConcurrencyTest, FourWritersAppendWhileAReaderWatches) {
  auto dir = stress::MemoryTempDir();
  stress::AppendResult r = stress::RunAppends(dir->File("APPEND.DBF"), GetParam(), 4, 5000);
  std::printf(
      "dialect 0x%x appends: %d records by 4 writers in %.2f s (%.0f/s); reader checked %ld\n",
      GetParam(), r.final_count, r.seconds, r.final_count / r.seconds, r.reads);
  EXPECT_GT(r.reads, 0);
}

TEST_P(ConcurrencyTest, NoUpdateIsLostUnderRecordLocks) {
  auto dir = stress::MemoryTempDir();
  stress::ReplaceResult r = stress::RunReplaces(dir->File("COUNTER.DBF"), GetParam(), 4, 2500, 100);
  std::printf("dialect 0x%x replaces: %ld increments by 4 writers in %.2f s (%.0f/s)\n", GetParam(),
              r.increments, r.seconds, r.increments / r.seconds);
}

INSTANTIATE_TEST_SUITE_P(Dialects, ConcurrencyTest,
                         ::testing::Values(1, 2, 3, 3 | DB_CREATE_PRODUCTION_INDEX, 5, 6, 7,
                                           8 | DB_CREATE_PRODUCTION_INDEX, 9));

}  // namespace
}  // namespace kestrel::test
