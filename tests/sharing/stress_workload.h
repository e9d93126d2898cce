// Many processes on one shared table: the workloads of the concurrency
// tests (a short run in test_sharing, longer runs in test_stress).
//
// Every record carries who wrote it and a checksum over its contents, so a
// record that was lost, written twice, torn or overwritten is found:
//
//   WRITER N(2)   the writing process (0 for records written before the run)
//   SEQ    N(6)   its sequence number within that writer
//   PAYLOAD C(24) text derived from writer and sequence
//   COUNTER N(8)  incremented under record locks by the replace run
//   CHECK  N(10)  checksum over the four fields above
//
// The append run: `writers` processes each append `per_writer` records with
// automatic locking while one more process keeps reading random records
// (each must be whole) and watches the count only grow.  The replace run:
// `writers` processes each increment a known sequence of records
// read-modify-write under record locks; afterwards every counter must be the
// number of increments it was given (no update lost).
#pragma once

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "sharing/sharing_support.h"

namespace kestrel::test::stress {

enum FieldNo { kWriter = 0, kSeq = 1, kPayload = 2, kCounter = 3, kCheck = 4 };

inline std::vector<DBFIELD> Fields() {
  return {Field("WRITER", 'N', 2), Field("SEQ", 'N', 6), Field("PAYLOAD", 'C', 24),
          Field("COUNTER", 'N', 8), Field("CHECK", 'N', 10)};
}

inline uint32_t Mix(uint32_t x) {
  x ^= x >> 16;
  x *= 0x7FEB352Du;
  x ^= x >> 15;
  x *= 0x846CA68Bu;
  x ^= x >> 16;
  return x;
}

inline std::string Payload(int writer, int seq) {
  static const char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::string text;
  uint32_t state = Mix(static_cast<uint32_t>(writer) * 1000003u + static_cast<uint32_t>(seq));
  size_t length = 8 + state % 17;  // 8..24 characters
  for (size_t i = 0; i < length; ++i) {
    state = Mix(state + static_cast<uint32_t>(i));
    text.push_back(kLetters[state % (sizeof kLetters - 1)]);
  }
  return text;
}

inline int32_t Checksum(int writer, int seq, const std::string& payload, int counter) {
  uint32_t h = 2166136261u;
  auto add = [&](uint32_t v) {
    for (int i = 0; i < 4; ++i) {
      h ^= (v >> (8 * i)) & 0xFF;
      h *= 16777619u;
    }
  };
  add(static_cast<uint32_t>(writer));
  add(static_cast<uint32_t>(seq));
  for (char c : payload) add(static_cast<uint8_t>(c));
  add(static_cast<uint32_t>(counter));
  return static_cast<int32_t>(h % 1000000000u);
}

// One record as read back, and whether its checksum holds.
struct Row {
  int writer = -1;
  int seq = -1;
  std::string payload;
  int counter = -1;
  int32_t check = -1;
  bool Intact() const {
    return check == Checksum(writer, seq, payload, counter) && payload == Payload(writer, seq);
  }
};

inline int32_t GetInt(int32_t h, int field) {
  char text[32] = {};
  if (DBGetStrField(h, field, text) < 0) return -1;
  return static_cast<int32_t>(std::strtol(text, nullptr, 10));
}

// Reads the current record buffer of h into a Row.
inline Row ReadRow(int32_t h) {
  Row row;
  row.writer = GetInt(h, kWriter);
  row.seq = GetInt(h, kSeq);
  row.counter = GetInt(h, kCounter);
  row.check = GetInt(h, kCheck);
  char text[32] = {};
  DBGetStrField(h, kPayload, text);
  row.payload = text;
  row.payload.erase(row.payload.find_last_not_of(' ') + 1);
  return row;
}

// Fills the record buffer of h with a row (checksum computed).
inline bool FillRow(int32_t h, int writer, int seq, int counter) {
  std::string payload = Payload(writer, seq);
  bool ok = DBClearBuffer(h) >= 0 &&
            DBPutStrField(h, kWriter, std::to_string(writer).c_str()) >= 0 &&
            DBPutStrField(h, kSeq, std::to_string(seq).c_str()) >= 0 &&
            DBPutStrField(h, kPayload, payload.c_str()) >= 0 &&
            DBPutStrField(h, kCounter, std::to_string(counter).c_str()) >= 0 &&
            DBPutStrField(h, kCheck,
                          std::to_string(Checksum(writer, seq, payload, counter)).c_str()) >= 0;
  return ok;
}

// A temporary directory in memory (tmpfs) when the machine has one: with
// automatic locking every write is flushed to the disk, which costs
// milliseconds on a real disk and nothing on tmpfs; the locks are the same.
inline std::unique_ptr<TempDir> MemoryTempDir() {
  const char* old = std::getenv("TMPDIR");
  std::string saved = old ? old : "";
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 1);
  auto dir = std::make_unique<TempDir>();
  if (old) {
    ::setenv("TMPDIR", saved.c_str(), 1);
  } else {
    ::unsetenv("TMPDIR");
  }
  return dir;
}

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct AppendResult {
  double seconds = 0;  // wall time of the whole run
  long reads = 0;      // records the reader checked while the writers ran
  long bad_reads = 0;  // reads of a record that was not whole
  int32_t final_count = 0;
};

// Runs the append run on a new table at path (dialect as given) and checks
// the outcome with gtest assertions.
inline AppendResult RunAppends(const std::string& path, int32_t dialect, int writers,
                               int per_writer) {
  AppendResult result;
  std::vector<DBFIELD> fields = Fields();
  EXPECT_EQ(DBCreateFile(path.c_str(), static_cast<int32_t>(fields.size()), fields.data(), dialect),
            0);
  const int total = writers * per_writer;
  auto start = std::chrono::steady_clock::now();
  Signal reader_stats;
  // Set by the parent once the writers are gone, so that a reader whose
  // count never gets there (a writer failed) stops too.
  void* shared = ::mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    ADD_FAILURE() << "mmap";
    return result;
  }
  auto* writers_done = new (shared) std::atomic<int>(0);
  std::vector<std::unique_ptr<Child>> children;
  for (int w = 1; w <= writers; ++w) {
    children.push_back(std::make_unique<Child>([&, w](ChildChecks& checks) {
      int32_t h = -1;
      CHILD_EQ(checks, DBOpenFile(&h, path.c_str(), (dialect & 0xFF) | DB_OPEN_AUTOLOCK), 0);
      for (int seq = 1; seq <= per_writer; ++seq) {
        CHILD_CHECK(checks, FillRow(h, w, seq, 0));
        int32_t recno = 0;
        int32_t rc = LockPatiently([&] { return DBPutRecord(h, &recno, DB_RECORD_APPEND); });
        if (rc != 0) {
          checks.Check(false, __LINE__, "append failed: " + std::to_string(rc));
          break;
        }
      }
      CHILD_EQ(checks, DBCloseFile(h), 0);
    }));
  }
  // The reader: random records among those counted so far, each must be
  // whole; the count never goes down.
  std::unique_ptr<Child> reader = std::make_unique<Child>([&](ChildChecks& checks) {
    int32_t h = -1;
    CHILD_EQ(checks,
             DBOpenFile(&h, path.c_str(), (dialect & 0xFF) | DB_OPEN_SHARED | DB_OPEN_READONLY), 0);
    long reads = 0, bad = 0;
    int32_t last = 0;
    uint32_t state = 12345;
    for (;;) {
      bool done = writers_done->load() != 0;
      int32_t count = 0;
      if (DBGetFileHeader(h) < 0 || DBGetRecordCount(h, &count) < 0) {
        ++bad;
        break;
      }
      if (count < last) ++bad;
      last = count;
      if (count > 0) {
        state = Mix(state + 1);
        int32_t r = static_cast<int32_t>(state % static_cast<uint32_t>(count)) + 1;
        if (DBGetRecord(h, r) != 0 || !ReadRow(h).Intact()) ++bad;
        ++reads;
      }
      if (reads % 32 == 0) ::sched_yield();  // let the writers on as well
      if (count >= total || done) break;
    }
    checks.Equal(bad, 0L, __LINE__, "torn or failed reads");
    checks.Equal(last, total, __LINE__, "count seen by the reader");
    std::string stats = std::to_string(reads);
    for (char c : stats) reader_stats.Send(c);
    reader_stats.Send('\n');
    DBCloseFile(h);
  });
  for (auto& child : children) child->Join();
  writers_done->store(1);
  std::string stats;
  for (char c = reader_stats.Wait(); c != '\n' && c != 0; c = reader_stats.Wait()) stats += c;
  reader->Join();
  ::munmap(shared, sizeof(std::atomic<int>));
  result.seconds = SecondsSince(start);
  result.reads = stats.empty() ? 0 : std::stol(stats);

  // Every record once, whole, in a file that ends where it should.
  int32_t h = -1;
  EXPECT_EQ(DBOpenFile(&h, path.c_str(), dialect & 0xFF), 0);
  EXPECT_EQ(DBGetRecordCount(h, &result.final_count), 0);
  EXPECT_EQ(result.final_count, total);
  std::set<std::pair<int, int>> seen;
  long damaged = 0, doubles = 0;
  std::vector<int> last_seq(static_cast<size_t>(writers) + 1, 0);
  long out_of_order = 0;
  for (int32_t r = 1; r <= result.final_count; ++r) {
    if (DBGetRecord(h, r) != 0) {
      ++damaged;
      continue;
    }
    Row row = ReadRow(h);
    if (!row.Intact() || row.writer < 1 || row.writer > writers || row.seq < 1 ||
        row.seq > per_writer) {
      ++damaged;
      continue;
    }
    if (!seen.insert({row.writer, row.seq}).second) ++doubles;
    // Each writer's records appear in the order it wrote them.
    if (row.seq <= last_seq[static_cast<size_t>(row.writer)]) ++out_of_order;
    last_seq[static_cast<size_t>(row.writer)] = row.seq;
  }
  EXPECT_EQ(damaged, 0);
  EXPECT_EQ(doubles, 0);
  EXPECT_EQ(out_of_order, 0);
  EXPECT_EQ(seen.size(), static_cast<size_t>(total));
  DBRECORDINFO info{};
  EXPECT_EQ(DBGetRecordInfo(h, &info), 0);
  EXPECT_EQ(DBCloseFile(h), 0);
  std::vector<uint8_t> bytes = ReadFileBytes(path);
  uint32_t header_length = bytes.size() > 10 ? bytes[8] | bytes[9] << 8 : 0;
  uint64_t end = header_length + static_cast<uint64_t>(total) * info.record_length;
  EXPECT_GE(bytes.size(), end + 1);
  if (bytes.size() > end) {
    EXPECT_EQ(bytes[end], 0x1A);
  }
  return result;
}

struct ReplaceResult {
  double seconds = 0;
  long increments = 0;
};

// The record that writer w increments at its step i (1-based records).
inline int32_t Target(int w, int i, int records) {
  return static_cast<int32_t>(Mix(static_cast<uint32_t>(w) * 7919u + static_cast<uint32_t>(i)) %
                              static_cast<uint32_t>(records)) +
         1;
}

// The replace run on a new table of `records` records.  Odd writers open the
// table with automatic locking (unbuffered), even ones shared and buffered,
// dropping their cache after taking a lock and writing it back before
// letting go, as a buffered shared table must.
inline ReplaceResult RunReplaces(const std::string& path, int32_t dialect, int writers,
                                 int per_writer, int records) {
  ReplaceResult result;
  std::vector<DBFIELD> fields = Fields();
  EXPECT_EQ(DBCreateFile(path.c_str(), static_cast<int32_t>(fields.size()), fields.data(), dialect),
            0);
  int32_t h = -1;
  EXPECT_EQ(DBOpenFile(&h, path.c_str(), dialect & 0xFF), 0);
  for (int r = 1; r <= records; ++r) {
    EXPECT_TRUE(FillRow(h, 0, r, 0));
    int32_t recno = 0;
    EXPECT_EQ(DBPutRecord(h, &recno, DB_RECORD_APPEND), 0);
  }
  EXPECT_EQ(DBCloseFile(h), 0);

  auto start = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<Child>> children;
  for (int w = 1; w <= writers; ++w) {
    children.push_back(std::make_unique<Child>([&, w](ChildChecks& checks) {
      bool buffered = w % 2 == 0;
      int32_t mode = (dialect & 0xFF) | (buffered ? DB_OPEN_SHARED : DB_OPEN_AUTOLOCK);
      int32_t c = -1;
      CHILD_EQ(checks, DBOpenFile(&c, path.c_str(), mode), 0);
      for (int i = 1; i <= per_writer; ++i) {
        int32_t r = Target(w, i, records);
        int32_t rc = LockPatiently([&] { return DBLockRecord(c, r); });
        if (rc != 0) {
          checks.Check(false, __LINE__, "lock failed: " + std::to_string(rc));
          break;
        }
        if (buffered) CHILD_EQ(checks, DBFlushFile(c), 0);  // forget the old window
        CHILD_EQ(checks, DBGetRecord(c, r), 0);
        Row row = ReadRow(c);
        if (!row.Intact() || row.seq != r) {
          checks.Check(false, __LINE__, "record " + std::to_string(r) + " damaged");
          break;
        }
        CHILD_CHECK(checks, FillRow(c, row.writer, row.seq, row.counter + 1));
        CHILD_EQ(checks, DBPutRecord(c, &r, DB_RECORD_REPLACE), 0);
        if (buffered) CHILD_EQ(checks, DBFlushFile(c), 0);  // written before the unlock
        CHILD_EQ(checks, DBUnLockRecord(c, r), 0);
      }
      CHILD_EQ(checks, DBCloseFile(c), 0);
    }));
  }
  for (auto& child : children) child->Join();
  result.seconds = SecondsSince(start);

  std::vector<int> expected(static_cast<size_t>(records) + 1, 0);
  for (int w = 1; w <= writers; ++w) {
    for (int i = 1; i <= per_writer; ++i) ++expected[static_cast<size_t>(Target(w, i, records))];
  }
  EXPECT_EQ(DBOpenFile(&h, path.c_str(), dialect & 0xFF), 0);
  int32_t count = 0;
  EXPECT_EQ(DBGetRecordCount(h, &count), 0);
  EXPECT_EQ(count, records);
  long lost = 0, damaged = 0;
  for (int32_t r = 1; r <= count; ++r) {
    EXPECT_EQ(DBGetRecord(h, r), 0);
    Row row = ReadRow(h);
    if (!row.Intact() || row.writer != 0 || row.seq != r) ++damaged;
    lost += expected[static_cast<size_t>(r)] - row.counter;
    result.increments += row.counter;
  }
  EXPECT_EQ(damaged, 0);
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(result.increments, static_cast<long>(writers) * per_writer);
  EXPECT_EQ(DBCloseFile(h), 0);
  return result;
}

}  // namespace kestrel::test::stress
