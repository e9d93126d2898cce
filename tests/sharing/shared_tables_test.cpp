// Shared tables through two handles of one process (their byte-range locks
// conflict like two processes' do): the lock rule of writes, automatic
// locking, the record count other writers change, and the cache a flush drops.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "kestrel/kestrel.h"
#include "support/temp_dir.h"

namespace kestrel::test {
namespace {

class SharedTablesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    DBErrorLog(0, nullptr);
    DBSetLockRetryCount(0);
    ASSERT_EQ(DBInitialize(25, 0), 0);
  }
  void TearDown() override { DBTerminate(); }

  std::string Make(int dialect, int records) {
    std::string path = dir_.File("S" + std::to_string(dialect) + ".DBF");
    DBFIELD f{};
    std::strcpy(f.name, "TEXT");
    f.type = 'C';
    f.length = 8;
    EXPECT_EQ(DBCreateFile(path.c_str(), 1, &f, dialect), 0);
    int32_t h = OpenAs(path, dialect);
    for (int i = 1; i <= records; ++i) Append(h, "r" + std::to_string(i));
    DBCloseFile(h);
    return path;
  }
  int32_t OpenAs(const std::string& path, int32_t mode) {
    int32_t h = -1;
    EXPECT_EQ(DBOpenFile(&h, path.c_str(), mode), 0);
    return h;
  }
  int32_t Append(int32_t h, const std::string& text) {
    DBPutStrField(h, 0, text.c_str());
    int32_t r = 0;
    EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), 0);
    return r;
  }
  std::string Read(int32_t h, int32_t r) {
    char text[16] = {};
    EXPECT_GE(DBGetRecord(h, r), 0);
    DBGetStrField(h, 0, text);
    std::string s = text;
    return s.erase(s.find_last_not_of(' ') + 1);
  }
  int32_t Count(int32_t h) {
    int32_t n = -1;
    EXPECT_EQ(DBGetRecordCount(h, &n), 0);
    return n;
  }
  TempDir dir_;
};

TEST_F(SharedTablesTest, WritesNeedALockUnlessAutomaticLockingIsOn) {
  for (int dialect : {1, 2, 6, 8}) {
    SCOPED_TRACE(dialect);
    std::string path = Make(dialect, 3);
    int32_t a = OpenAs(path, dialect | DB_OPEN_SHARED);
    int32_t b = OpenAs(path, dialect | DB_OPEN_AUTOLOCK);
    int32_t r = 0;
    DBPutStrField(a, 0, "x");
    EXPECT_EQ(DBPutRecord(a, &r, DB_RECORD_APPEND), DB_ERR_MUST_LOCK);
    r = 2;
    EXPECT_EQ(DBPutRecord(a, &r, DB_RECORD_REPLACE), DB_ERR_MUST_LOCK);
    EXPECT_EQ(DBMarkRecordInActive(a, 2), DB_ERR_MUST_LOCK);

    // Automatic locking: each write takes and drops its own lock.
    EXPECT_EQ(Append(b, "auto"), 4);
    DBPutStrField(b, 0, "auto2");
    r = 2;
    ASSERT_EQ(DBPutRecord(b, &r, DB_RECORD_REPLACE), 0);
    ASSERT_EQ(DBMarkRecordInActive(b, 3), 0);
    DBFILEINFO info{};
    DBGetFileInfo(b, &info);
    EXPECT_EQ(info.lock_count, 0);
    EXPECT_EQ(info.attributes & 7u, 6u);  // 0x800 brought sharing and write-through

    // The other handle sees the new count and the new record.
    EXPECT_EQ(Count(a), 4);
    EXPECT_EQ(Read(a, 4), "auto");
    EXPECT_EQ(Read(a, 2), "auto2");
    EXPECT_EQ(DBGetRecord(a, 3), DB_WARN_RECORD_DELETED);

    // A record the other handle holds cannot be written automatically.
    ASSERT_EQ(DBLockRecord(a, 1), 0);
    r = 1;
    EXPECT_EQ(DBPutRecord(b, &r, DB_RECORD_REPLACE), DB_ERR_LOCK_RETRIES);
    // The file region covers the record regions in the dBASE III and Clipper
    // layouts only; dBASE IV and FoxPro keep them apart.
    bool covers = dialect == 1 || dialect == 6;
    EXPECT_EQ(DBLockFile(b), covers ? DB_ERR_LOCK_RETRIES : 0);
    ASSERT_EQ(DBUnLockAll(b), 0);
    ASSERT_EQ(DBUnLockAll(a), 0);
    ASSERT_EQ(DBPutRecord(b, &r, DB_RECORD_REPLACE), 0);
    // With the file lock held, a's writes need no record lock.
    ASSERT_EQ(DBLockFile(a), 0);
    EXPECT_EQ(DBLockHeader(b), DB_ERR_LOCK_RETRIES);
    r = 1;
    DBPutStrField(a, 0, "mine");
    ASSERT_EQ(DBPutRecord(a, &r, DB_RECORD_REPLACE), 0);
    EXPECT_EQ(Append(a, "five"), 5);
    ASSERT_EQ(DBFlushFile(a), 0);
    ASSERT_EQ(DBUnLockAll(a), 0);
    EXPECT_EQ(Read(b, 1), "mine");
    EXPECT_EQ(Count(b), 5);
    DBCloseFile(a);
    DBCloseFile(b);
  }
}

TEST_F(SharedTablesTest, BufferedSharedTablesSeeOtherWritersAfterAFlush) {
  std::string path = Make(1, 20);
  int32_t a = OpenAs(path, 1 | DB_OPEN_SHARED);
  int32_t b = OpenAs(path, 1 | DB_OPEN_SHARED);
  EXPECT_EQ(Read(a, 2), "r2");  // record 2 now sits in a's cache window
  ASSERT_EQ(DBLockRecord(b, 2), 0);
  DBPutStrField(b, 0, "new");
  int32_t r = 2;
  ASSERT_EQ(DBPutRecord(b, &r, DB_RECORD_REPLACE), 0);
  ASSERT_EQ(DBFlushFile(b), 0);
  ASSERT_EQ(DBUnLockAll(b), 0);
  EXPECT_EQ(Read(a, 2), "r2");  // still the cached copy
  ASSERT_EQ(DBFlushFile(a), 0);
  EXPECT_EQ(Read(a, 2), "new");

  // Appends under a header lock stay in b's cache until written, yet b
  // still counts and reads them, and a sees them after b's flush.
  ASSERT_EQ(DBLockHeader(b), 0);
  EXPECT_EQ(Append(b, "c21"), 21);
  EXPECT_EQ(Append(b, "c22"), 22);
  EXPECT_EQ(Count(b), 22);
  EXPECT_EQ(Read(b, 22), "c22");
  EXPECT_EQ(Count(a), 20);
  ASSERT_EQ(DBFlushFile(b), 0);
  ASSERT_EQ(DBUnLockHeader(b), 0);
  EXPECT_EQ(Count(a), 22);
  EXPECT_EQ(Read(a, 21), "c21");
  DBCloseFile(a);
  DBCloseFile(b);
  std::vector<uint8_t> bytes = ReadFileBytes(path);
  EXPECT_EQ(bytes.size(), 65u + 22 * 9 + 1);
  EXPECT_EQ(bytes[4], 22);
}

// A replace in a shared table stamps the date but writes no header byte it
// does not own: neither the count nor a flag another handle set meanwhile.
TEST_F(SharedTablesTest, ReplacesLeaveOtherHandlesHeaderChangesAlone) {
  std::string path = Make(8, 3);
  int32_t a = OpenAs(path, 8 | DB_OPEN_AUTOLOCK);
  int32_t b = OpenAs(path, 8 | DB_OPEN_SHARED);
  EXPECT_EQ(Count(a), 3);
  ASSERT_EQ(DBSetProductionIndex(b), 0);
  ASSERT_EQ(DBLockHeader(b), 0);
  EXPECT_EQ(Append(b, "four"), 4);
  ASSERT_EQ(DBFlushFile(b), 0);
  ASSERT_EQ(DBUnLockHeader(b), 0);
  std::vector<uint8_t> before = ReadFileBytes(path);
  before[1] = 0;  // the date is a's to stamp
  DBPutStrField(a, 0, "new");
  int32_t r = 1;
  ASSERT_EQ(DBPutRecord(a, &r, DB_RECORD_REPLACE), 0);
  std::vector<uint8_t> after = ReadFileBytes(path);
  after[1] = 0;
  EXPECT_EQ(std::vector<uint8_t>(after.begin(), after.begin() + 32),
            std::vector<uint8_t>(before.begin(), before.begin() + 32));
  EXPECT_EQ(after[28], 1);
  EXPECT_EQ(after[4], 4);
  EXPECT_EQ(Read(b, 1), "new");
  DBCloseFile(a);
  DBCloseFile(b);
}

TEST_F(SharedTablesTest, ClipperCountsWholeRecordsInTheFile) {
  std::string path = Make(6, 4);
  std::vector<uint8_t> bytes = ReadFileBytes(path);
  bytes[4] = 2;  // a header count the Clipper dialect does not trust
  WriteFileBytes(path, bytes);
  int32_t a = OpenAs(path, 6 | DB_OPEN_SHARED);
  EXPECT_EQ(Count(a), 4);
  DBCloseFile(a);
  a = OpenAs(path, 6);
  EXPECT_EQ(Count(a), 2);
  DBCloseFile(a);
}

}  // namespace
}  // namespace kestrel::test
