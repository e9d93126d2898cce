// Record access: the cache capacity rules, append / replace / read round
// trips through real files (checked against an in-memory model), the end
// markers, the deleted-record chain and the caller's record buffer.
#include <algorithm>
#include <map>
#include <random>
#include <tuple>

#include "table_fixture.h"

namespace kestrel::test {
namespace {

class RecordsTest : public TableTest {
 protected:
  // A table with one character field of `length` bytes (record length + 1).
  int32_t OpenText(const std::string& name, int32_t length, int32_t mode, int dialect = 1) {
    path_ = Create(name, {Field("TEXT", 'C', length)}, dialect);
    return Open(path_, mode | dialect);
  }
  int32_t Append(int32_t h, const std::string& text) {
    EXPECT_EQ(DBPutStrField(h, 0, text.c_str()), 0);
    int32_t r = 0;
    EXPECT_EQ(DBPutRecord(h, &r, DB_RECORD_APPEND), 0);
    return r;
  }
  std::string Read(int32_t h, int32_t r) {
    char text[300] = {};
    int32_t rc = DBGetRecord(h, r);
    EXPECT_TRUE(rc == 0 || rc == DB_WARN_RECORD_DELETED) << rc;
    DBGetStrField(h, 0, text);
    std::string s = text;
    s.erase(s.find_last_not_of(' ') + 1);
    return s;
  }
  std::string path_;
};

TEST_F(RecordsTest, CacheCapacityFollowsTheRecordLengthAndTheCaller) {
  // 8 x record length between 512 and 16384: 8; below: 512 / length; above:
  // 16384 / length; none unbuffered.
  struct {
    int32_t field, mode, capacity;
  } cases[] = {{9, 1, 51},   {63, 1, 8},   {99, 1, 8},  {2047, 6, 8},
               {2048, 6, 7}, {3999, 6, 4}, {1, 1, 256}, {9, 1 | DB_OPEN_UNBUFFERED, 0}};
  for (const auto& c : cases) {
    std::vector<DBFIELD> fields = {Field("A", 'C', std::min(c.field, 2048))};
    if (c.field > 2048) fields.push_back(Field("B", 'C', c.field - 2048));
    int32_t h = Open(Create("CAP.DBF", fields, c.mode & 0xFF), c.mode), records = -1;
    EXPECT_EQ(R(DBGetSetCacheSize(h, &records, DB_CACHE_GET), records), R(0, c.capacity))
        << "record length " << c.field + 1;
    DBCloseFile(h);
  }

  // Setting clamps to 1, warns on a shortage and keeps the old size.
  int32_t h = OpenText("C.DBF", 99, 0);
  for (int i = 0; i < 40; ++i) Append(h, "r" + std::to_string(i + 1));
  int32_t records = 0;
  EXPECT_EQ(R(DBGetSetCacheSize(h, &records, DB_CACHE_SET), records), "0 1");
  records = 100;
  ASSERT_EQ(DBGetSetCacheSize(h, &records, DB_CACHE_SET), 0);
  EXPECT_EQ(Read(h, 3), "r3");
  EXPECT_EQ(Read(h, 40), "r40");
  kestrel::testing::FailAllocation(1);
  records = 500;
  EXPECT_EQ(R(DBGetSetCacheSize(h, &records, DB_CACHE_SET), records), "209 100");
  EXPECT_EQ(DBGetSetCacheSize(h, &records, 2), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(DBGetSetCacheSize(h, nullptr, DB_CACHE_GET), DB_ERR_NULL);
  records = 3;
  ASSERT_EQ(DBGetSetCacheSize(h, &records, DB_CACHE_SET), 0);
  for (int i = 1; i <= 40; ++i) EXPECT_EQ(Read(h, i), "r" + std::to_string(i));
  DBCloseFile(h);
  ExpectNothingOpen();
}

// Random appends, replaces, reads, flushes and cache resizes against a model
// of the records, in buffered and unbuffered tables.  Every round ends with a
// reopen, and a buffered table large enough is then read through a view of
// its file: appends run past the view, replaces land inside it, and a zap
// cuts the file under it.  At the end the file is checked byte by byte.
TEST_F(RecordsTest, RandomOperationsMatchAModel) {
  for (int32_t mode : {0, DB_OPEN_UNBUFFERED}) {
    SCOPED_TRACE(mode);
    int32_t h = OpenText(mode ? "RU.DBF" : "RB.DBF", 99, mode);
    std::vector<std::string> model;
    std::mt19937 rng(42 + mode);
    for (int round = 0; round < 4; ++round) {
      for (int step = 0; step < 800; ++step) {
        const int op = static_cast<int>(rng() % 10);
        if (op < 4 || model.empty()) {
          std::string text = "a" + std::to_string(rng());
          ASSERT_EQ(Append(h, text), static_cast<int32_t>(model.size() + 1));
          model.push_back(text);
          continue;
        }
        int32_t r = static_cast<int32_t>(rng() % model.size()) + 1;
        if (op < 6) {
          std::string text = "p" + std::to_string(rng());
          ASSERT_EQ(DBPutStrField(h, 0, text.c_str()), 0);
          ASSERT_EQ(DBPutRecord(h, &r, DB_RECORD_REPLACE), 0);
          model[r - 1] = text;
        } else if (op < 9) {
          ASSERT_EQ(Read(h, r), model[r - 1]) << "record " << r << " round " << round;
          int32_t current = 0;
          DBGetRecordNumber(h, &current);
          EXPECT_EQ(current, r);
        } else if (rng() % 2) {
          ASSERT_EQ(DBFlushFile(h), 0);
        } else if (!mode) {
          int32_t records = static_cast<int32_t>(rng() % 20) + 1;
          ASSERT_EQ(DBGetSetCacheSize(h, &records, DB_CACHE_SET), 0);
        }
      }
      if (round == 2) {
        ASSERT_EQ(DBZapFile(h), 0);
        model.assign(1, "after zap");
        ASSERT_EQ(Append(h, model[0]), 1);
      }
      ASSERT_EQ(DBCloseFile(h), 0);
      h = Open(path_, 1 | mode);
      for (size_t i = 0; i < model.size(); ++i) ASSERT_EQ(Read(h, i + 1), model[i]) << i;
    }
    uint32_t count = 0;
    ASSERT_EQ(DBGetRecordCount(h, &count), 0);
    EXPECT_EQ(count, model.size());
    ASSERT_EQ(DBCloseFile(h), 0);

    std::vector<uint8_t> b = ReadFileBytes(path_);
    const size_t header = 65, length = 100;
    ASSERT_EQ(b.size(), header + length * model.size() + 1);
    EXPECT_EQ(b.back(), 0x1A);
    EXPECT_EQ(b[4] | (b[5] << 8), static_cast<int>(model.size() & 0xFFFF));
    for (size_t i = 0; i < model.size(); ++i) {
      std::string stored(reinterpret_cast<const char*>(&b[header + i * length]), length);
      ASSERT_EQ(stored, " " + model[i] + std::string(99 - model[i].size(), ' ')) << i;
    }
  }
  ExpectNothingOpen();
}

TEST_F(RecordsTest, ReadBoundsFlagsAndPosition) {
  int32_t h = OpenText("B.DBF", 4, 0);
  EXPECT_EQ(DBIsBeginningOfFile(h), 1);
  for (int i = 0; i < 3; ++i) Append(h, "x");
  int32_t r = 0;
  for (int32_t bad : {0, 4, -1}) {
    EXPECT_EQ(DBGetRecord(h, bad), DB_ERR_SEEK) << bad;
    EXPECT_EQ(DBMarkRecordInActive(h, bad), DB_ERR_SEEK) << bad;
    EXPECT_EQ(DBPutRecord(h, &(r = bad), DB_RECORD_REPLACE), DB_ERR_SEEK) << bad;
  }
  EXPECT_EQ(DBPutRecord(h, &(r = 1), 1), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(DBPutRecord(h, nullptr, DB_RECORD_APPEND), DB_ERR_NULL);
  for (auto [record, bof, eof] : {std::tuple{3, 0, 1}, {2, 0, 0}, {1, 1, 0}}) {
    ASSERT_EQ(DBGetRecord(h, record), 0);
    EXPECT_EQ(DBIsBeginningOfFile(h), bof) << record;
    EXPECT_EQ(DBIsEndOfFile(h), eof) << record;
  }

  // A flag other than a space reads with 201, but only '*' is "deleted".
  DBRECORDINFO info{};
  DBGetRecordInfo(h, &info);
  static_cast<char*>(info.record_buffer)[0] = 'X';
  ASSERT_EQ(DBPutRecord(h, &(r = 2), DB_RECORD_REPLACE), 0);
  EXPECT_EQ(DBGetRecord(h, 2), DB_WARN_RECORD_DELETED);
  DBSetErrorCode(0);
  EXPECT_EQ(DBIsRecordDeleted(h), 0);
  ASSERT_EQ(DBMarkRecordInActive(h, 1), 0);
  EXPECT_EQ(DBGetRecord(h, 1), DB_WARN_RECORD_DELETED);
  EXPECT_EQ(DBIsRecordDeleted(h), DB_WARN_RECORD_DELETED);
  ASSERT_EQ(DBMarkRecordActive(h, 1), 0);
  EXPECT_EQ(DBGetRecord(h, 1), 0);
  EXPECT_EQ(DBMarkRecordActive(h, 1), 0);  // without reuse no warning
  DBCloseFile(h);
  std::vector<uint8_t> b = ReadFileBytes(path_);
  EXPECT_EQ(b[65 + 5], 'X');
  EXPECT_EQ(b[65], ' ');
}

TEST_F(RecordsTest, EndMarkersOfEachDialectAndWriteMode) {
  for (int32_t mode : {0, DB_OPEN_UNBUFFERED, DB_OPEN_WRITETHROUGH}) {
    for (int dialect : {1, 7}) {
      SCOPED_TRACE(std::to_string(mode) + "/" + std::to_string(dialect));
      int32_t h = OpenText("E.DBF", 4, mode, dialect);
      Append(h, "abcd");
      Append(h, "efgh");
      ASSERT_EQ(DBCloseFile(h), 0);
      std::vector<uint8_t> b = ReadFileBytes(path_);
      size_t end = 65 + 2 * 5;
      ASSERT_EQ(b.size(), dialect == 7 ? end + 5 : end + 1);
      for (size_t i = end; i < b.size(); ++i) EXPECT_EQ(b[i], 0x1A);
      EXPECT_EQ(b[4], 2);
    }
  }
}

// Random deletes, recalls and appends with reuse on, against a model of the
// chain (a list, most recently deleted first); a small cache makes the links
// come from both the cache and the file.  After a reopen the chain goes on.
TEST_F(RecordsTest, ReuseChainFollowsAModel) {
  for (int32_t mode : {DB_OPEN_REUSE, DB_OPEN_REUSE | DB_OPEN_UNBUFFERED}) {
    SCOPED_TRACE(mode);
    int32_t h = OpenText(mode & DB_OPEN_UNBUFFERED ? "CU.DBF" : "CB.DBF", 10, mode);
    int32_t records = 3;
    if (!(mode & DB_OPEN_UNBUFFERED)) {
      ASSERT_EQ(DBGetSetCacheSize(h, &records, DB_CACHE_SET), 0);
    }
    std::vector<int32_t> chain;           // most recently deleted first
    std::map<int32_t, std::string> live;  // active records and their text
    int32_t count = 0;
    std::mt19937 rng(99 + mode);
    for (int step = 0; step < 2000; ++step) {
      if (step == 1000) {  // the chain head lives on in the header
        ASSERT_EQ(DBCloseFile(h), 0);
        h = Open(path_, 1 | mode);
      }
      int op = static_cast<int>(rng() % 3);
      if (op == 0 || count == 0) {
        std::string text = "v" + std::to_string(step);
        int32_t expected = chain.empty() ? count + 1 : chain.front();
        ASSERT_EQ(Append(h, text), expected) << step;
        if (chain.empty()) {
          ++count;
        } else {
          chain.erase(chain.begin());
        }
        live[expected] = text;
      } else {
        int32_t r = static_cast<int32_t>(rng() % count) + 1;
        bool deleted = std::find(chain.begin(), chain.end(), r) != chain.end();
        if (op == 1) {
          ASSERT_EQ(DBMarkRecordInActive(h, r), 0);
          if (!deleted) {
            chain.insert(chain.begin(), r);
            live.erase(r);
          }
        } else {
          ASSERT_EQ(DBMarkRecordActive(h, r), deleted ? 0 : DB_WARN_KEY_NOT_FOUND);
          if (deleted) chain.erase(std::find(chain.begin(), chain.end(), r));
        }
      }
      if (step % 50 == 0) {
        for (const auto& [r, text] : live) ASSERT_EQ(Read(h, r), text) << r;
      }
    }
    ASSERT_EQ(DBCloseFile(h), 0);
    // Without the switch deleted records stay where they are.
    h = Open(path_, 1 | (mode & DB_OPEN_UNBUFFERED));
    ASSERT_EQ(DBMarkRecordInActive(h, 1), 0);
    EXPECT_EQ(Append(h, "plain"), count + 1);
    ASSERT_EQ(DBCloseFile(h), 0);
  }
  ExpectNothingOpen();
}

TEST_F(RecordsTest, CallersRecordBufferAndUnpackedRecords) {
  std::vector<DBFIELD> fields = {Field("NAME", 'C', 6), Field("QTY", 'N', 7, 2), Field("DAY", 'D'),
                                 Field("OK", 'L'),      Field("MEMO", 'M'),      Field("I32", 4)};
  std::string path = Create("UNP.DBF", fields, 1);
  int32_t h = Open(path, 1);
  DBSetDefaultDateStyle(DB_DATE_GREGORIAN4);
  // Unpacked: flag, C 6+1, D 11, N 8, L 1, M 4, I32 4.
  std::vector<uint8_t> in(1 + 7 + 8 + 11 + 1 + 4 + 4, 0), out(in.size(), 0xEE);
  in[0] = ' ';
  std::memcpy(&in[1], "widget", 7);
  double qty = 12.5;
  std::memcpy(&in[8], &qty, 8);
  std::memcpy(&in[16], "03/15/2004", 11);
  in[27] = 1;
  uint32_t block = 77;
  std::memcpy(&in[28], &block, 4);
  int32_t i32 = -5;
  std::memcpy(&in[32], &i32, 4);
  int32_t r = 0;
  ASSERT_EQ(DBPutRecordFromBuffer(h, in.data(), &r, DB_RECORD_APPEND), 0);
  ASSERT_EQ(DBGetRecordToBuffer(h, out.data(), r), 0);
  EXPECT_EQ(in, out);
  DBRECORDINFO info{};
  DBGetRecordInfo(h, &info);
  const char* stored = static_cast<const char*>(info.record_buffer);
  EXPECT_EQ(std::string(stored, 33), " widget  12.5020040315T        77");
  EXPECT_EQ(std::memcmp(stored + 33, &i32, 4), 0);
  // The caller's memory becomes the record buffer.
  std::vector<char> mine(info.record_length, '#');
  ASSERT_EQ(DBSetBufferAddress(h, mine.data()), 0);
  ASSERT_EQ(DBGetRecord(h, 1), 0);
  EXPECT_EQ(std::string(mine.data() + 1, 6), "widget");
  ASSERT_EQ(DBClearBuffer(h), 0);
  EXPECT_EQ(std::string(mine.data(), 7), "       ");
  EXPECT_EQ(DBSetBufferAddress(h, nullptr), DB_ERR_NULL);
  ASSERT_EQ(DBCloseFile(h), 0);
  EXPECT_EQ(mine[0], ' ');  // still ours, not freed
  ExpectNothingOpen();
}

}  // namespace
}  // namespace kestrel::test
