// Shared tables through two handles of one process: a replace leaves the
// header bytes another handle changed alone, and the Clipper dialect counts
// the records in the file rather than trusting the header.
#include "sharing_support.h"

namespace kestrel::test {
namespace {

class SharedTablesTest : public SharingTest {};

// A replace in a shared table stamps the date but writes no header byte it
// does not own: neither the count nor a flag another handle set meanwhile.
TEST_F(SharedTablesTest, ReplacesLeaveOtherHandlesHeaderChangesAlone) {
  std::string path = Make("H.DBF", 3, {}, 8);
  int32_t a = Open(path, 8 | DB_OPEN_AUTOLOCK);
  int32_t b = Open(path, 8 | DB_OPEN_SHARED);
  EXPECT_EQ(Count(a), 3);
  ASSERT_EQ(DBSetProductionIndex(b), 0);
  ASSERT_EQ(DBLockHeader(b), 0);
  EXPECT_EQ(Append(b, "four"), 4);
  ASSERT_EQ(DBFlushFile(b), 0);
  ASSERT_EQ(DBUnLockHeader(b), 0);
  std::vector<uint8_t> before = ReadFileBytes(path);
  ASSERT_EQ(Replace(a, 1, "new"), 0);
  std::vector<uint8_t> after = ReadFileBytes(path);
  before[1] = after[1] = 0;  // the date is a's to stamp
  EXPECT_TRUE(std::equal(after.begin(), after.begin() + 32, before.begin()));
  EXPECT_EQ(after[28], 1);
  EXPECT_EQ(after[4], 4);
  EXPECT_EQ(Text(b, 1), "new");
  DBCloseFile(a);
  DBCloseFile(b);
}

TEST_F(SharedTablesTest, ClipperCountsWholeRecordsInTheFile) {
  std::string path = Make("C.DBF", 4, {}, 6);
  std::vector<uint8_t> bytes = ReadFileBytes(path);
  bytes[4] = 2;  // a header count the Clipper dialect does not trust
  WriteFileBytes(path, bytes);
  int32_t a = Open(path, 6 | DB_OPEN_SHARED);
  EXPECT_EQ(Count(a), 4);
  DBCloseFile(a);
  a = Open(path, 6);
  EXPECT_EQ(Count(a), 2);
  DBCloseFile(a);
}

}  // namespace
}  // namespace kestrel::test
