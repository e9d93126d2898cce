// Table lock regions as another process sees them: a forked child probes
// with plain fcntl(F_GETLK) and must find exactly the byte ranges each
// dialect's programs use while this process holds a record, the header or
// the file, and find them free again after the unlock; the lock bookkeeping
// reports the same.
#include <functional>

#include "sharing_support.h"

namespace kestrel::test {
namespace {

struct Region {
  uint64_t offset, length;
};

struct Case {
  int32_t dialect;  // with the production index flag where it moves the regions
  int records;
  int32_t record;  // the record locked
  Region record_region, header_region, file_region;
};

std::vector<Case> Cases() {
  const int32_t kIndexed = DB_CREATE_PRODUCTION_INDEX;
  std::vector<Case> cases;
  // dBASE III: the record's bytes (header 97, or 128 in dialect 9; records
  // of 29), the record count and everything from byte 0.
  for (int32_t d : {1, 7, 9}) {
    uint64_t header = d == 9 ? 128 : 97;
    cases.push_back({d, 5, 3, {header + 2 * 29, 29}, {4, 4}, {0, 0x7FFFFFFF}});
  }
  cases.push_back({2, 3, 3, {(3 + 1) ^ 0xEFFFFFFFu, 1}, {0xEFFFFFFEu, 1}, {0xEFFFFFFEu, 2}});
  // FoxPro: counted down from 0x7FFFFFFE with a production index (the file
  // region depends on the record count), one bit above the bytes without.
  for (int32_t d : {3, 4, 8}) {
    cases.push_back({d | kIndexed,
                     100,
                     7,
                     {0x7FFFFFFEu - 7, 1},
                     {0x7FFFFFFEu, 1},
                     {2133447831u - 100, 100 + 14035816u}});
    cases.push_back({d, 10, 2, {(97 + 29) | 0x40000000u, 1}, {0x40000000u, 1}, {0x40000000u, 1}});
  }
  for (int32_t d : {5, 6}) {
    cases.push_back({d, 6, 5, {1000000005u, 1}, {1000000000u, 1}, {1000000000u, 1000000000u}});
  }
  return cases;
}

class LockRegionsTest : public SharingTest {};

TEST_F(LockRegionsTest, AnotherProcessSeesExactlyTheRegionsOfEachDialect) {
  for (const Case& c : Cases()) {
    SCOPED_TRACE(c.dialect);
    std::string path = Make("L.DBF", c.records, {}, c.dialect);
    int32_t h = Open(path, (c.dialect & 0xFF) | DB_OPEN_SHARED);
    const std::function<int32_t()> lock[] = {[&] { return DBLockRecord(h, c.record); },
                                             [&] { return DBLockHeader(h); },
                                             [&] { return DBLockFile(h); }};
    const Region regions[] = {c.record_region, c.header_region, c.file_region};
    const std::pair<int32_t, int32_t> held[] = {
        {DB_LOCK_RECORD, c.record}, {DB_LOCK_HEADER, 0}, {DB_LOCK_FILE, 0}};
    // FoxPro without an index has one region for header and file: a header
    // lock alone cannot be told from the file lock.
    bool one_region = c.header_region.offset == c.file_region.offset;
    for (int k = 0; k < 3; ++k) {
      SCOPED_TRACE(k);
      ASSERT_EQ(lock[k](), 0);
      ExpectRegion(path, regions[k].offset, regions[k].length, true);
      if (k != 1 || !one_region) {
        EXPECT_EQ(Held(h), (std::vector<std::pair<int32_t, int32_t>>{held[k]}));
      }
      ASSERT_EQ(DBUnLockAll(h), 0);
      ExpectRegion(path, regions[k].offset, regions[k].length, false);
      EXPECT_TRUE(Held(h).empty());
    }
    ASSERT_EQ(DBCloseFile(h), 0);
  }
}

TEST_F(LockRegionsTest, OneRecordLockAtATimeUnlessSeveralAreAsked) {
  std::string path = Make("C.DBF", 10, {}, 6);
  int32_t h = Open(path, 6 | DB_OPEN_SHARED);
  ASSERT_EQ(DBLockRecord(h, 7), 0);
  ASSERT_EQ(DBLockRecord(h, 8), 0);  // gives up 7
  EXPECT_EQ(DBIsRecordLocked(h, 7), 0);
  EXPECT_EQ(DBIsRecordLocked(h, 8), 1);
  ExpectRegion(path, 1000000007u, 1, false);
  ExpectRegion(path, 1000000008u, 1, true);
  EXPECT_EQ(LockState(h), std::make_pair(DB_LOCK_RECORD, 1));
  ASSERT_EQ(DBCloseFile(h), 0);
  ExpectRegion(path, 1000000008u, 1, false);  // closing let it go

  h = Open(path, 6 | DB_OPEN_SHARED | DB_OPEN_MULTILOCK);
  ASSERT_EQ(DBLockRecord(h, 7), 0);
  ASSERT_EQ(DBLockRecord(h, 8), 0);
  ASSERT_EQ(DBLockHeader(h), 0);
  EXPECT_EQ(DBUnLockRecord(h, 3), 0);  // not held: changes nothing
  EXPECT_EQ(LockState(h), std::make_pair(DB_LOCK_RECORD | DB_LOCK_HEADER, 3));
  EXPECT_EQ(Held(h), (std::vector<std::pair<int32_t, int32_t>>{
                         {DB_LOCK_RECORD, 7}, {DB_LOCK_RECORD, 8}, {DB_LOCK_HEADER, 0}}));
  ASSERT_EQ(DBUnLockRecord(h, 7), 0);
  ExpectRegion(path, 1000000007u, 1, false);
  ExpectRegion(path, 1000000008u, 1, true);
  EXPECT_EQ(LockState(h), std::make_pair(DB_LOCK_RECORD | DB_LOCK_HEADER, 2));
  ASSERT_EQ(DBUnLockHeader(h), 0);
  EXPECT_EQ(DBUnLockHeader(h), 0);  // no longer held
  EXPECT_EQ(LockState(h), std::make_pair(DB_LOCK_RECORD, 1));
  ASSERT_EQ(DBUnLockRecord(h, 8), 0);
  EXPECT_EQ(LockState(h), std::make_pair(0, 0));
  EXPECT_EQ(LocksUsed(), 0);
  ASSERT_EQ(DBCloseFile(h), 0);
}

TEST_F(LockRegionsTest, UnsharedTablesTakeNoLocks) {
  std::string path = Make("U.DBF", 3);
  int32_t h = Open(path, 1);
  for (int32_t rc : {DBLockFile(h), DBLockHeader(h), DBLockRecord(h, 2), DBUnLockRecord(h, 2),
                     DBUnLockHeader(h), DBUnLockAll(h)}) {
    EXPECT_EQ(rc, 0);
  }
  EXPECT_EQ(LockState(h), std::make_pair(0, 0));
  EXPECT_EQ(LocksUsed(), 0);
  ExpectRegion(path, 0, 0x7FFFFFFF, false);
  // No lock info, and the caller's pointer is left alone.
  DBLOCKINFO sentinel{};
  DBLOCKINFO* locks = &sentinel;
  int32_t count = -1;
  EXPECT_EQ(DBGetLockInfo(h, &locks, &count), 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(locks, &sentinel);
  EXPECT_EQ(Replace(h, 2, "free"), 0);  // writes need no lock
  ASSERT_EQ(DBCloseFile(h), 0);
}

}  // namespace
}  // namespace kestrel::test
