// Many processes on one shared table: the workloads of the concurrency
// tests (a short run in test_sharing, longer runs in test_stress).
//
// Every record carries who wrote it and a checksum, so a record that was
// lost, written twice, torn or overwritten is found:
//
//   WRITER N(2)   the writing process (0 for records written before the run)
//   SEQ    N(6)   its sequence number within that writer
//   PAYLOAD C(24) text derived from writer and sequence
//   COUNTER N(8)  incremented under record locks by the replace run
//   CHECK  N(10)  checksum over writer, sequence and counter
//
// The append run: `writers` processes each append `per_writer` records with
// automatic locking while one more process keeps reading random records
// (each must be whole) and watches the count only grow.  The replace run:
// `writers` processes each increment a known sequence of records
// read-modify-write under record locks; afterwards every counter must be the
// number of increments it was given (no update lost).
#pragma once

#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <set>

#include "sharing/sharing_support.h"

namespace kestrel::test::stress {

enum FieldNo { kWriter, kSeq, kPayload, kCounter, kCheck };

inline uint32_t Mix(uint32_t x) {
  x = (x ^ (x >> 16)) * 0x7FEB352Du;
  x = (x ^ (x >> 15)) * 0x846CA68Bu;
  return x ^ (x >> 16);
}

inline std::string Payload(int writer, int seq) {
  uint32_t state = Mix(static_cast<uint32_t>(writer) * 1000003u + static_cast<uint32_t>(seq));
  std::string text(8 + state % 17, ' ');  // 8..24 characters
  for (char& c : text) {
    state = Mix(state + 1);
    c = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"[state % 62];
  }
  return text;
}

inline int32_t Checksum(int writer, int seq, int counter) {
  uint32_t h = Mix(Mix(static_cast<uint32_t>(writer) * 7919u + static_cast<uint32_t>(seq)) ^
                   static_cast<uint32_t>(counter));
  return static_cast<int32_t>(h % 1000000000u);
}

// One record as read back from the record buffer.
struct Row {
  int writer = -1, seq = -1, counter = -1, check = -1;
  std::string payload;
  bool Intact() const {
    return check == Checksum(writer, seq, counter) && payload == Payload(writer, seq);
  }
};

inline Row ReadRow(int32_t h) {
  auto get = [h](int field) {
    char text[32] = {};
    if (DBGetStrField(h, field, text) < 0) return std::string("?");
    std::string s = text;
    return s.erase(s.find_last_not_of(' ') + 1);
  };
  auto number = [&](int field) { return std::atoi(get(field).c_str()); };
  return {number(kWriter), number(kSeq), number(kCounter), number(kCheck), get(kPayload)};
}

// Fills the record buffer of h with a whole row.
inline bool FillRow(int32_t h, int writer, int seq, int counter) {
  bool ok = DBClearBuffer(h) >= 0;
  const std::string values[] = {std::to_string(writer), std::to_string(seq), Payload(writer, seq),
                                std::to_string(counter),
                                std::to_string(Checksum(writer, seq, counter))};
  for (int field = kWriter; field <= kCheck; ++field) {
    ok = ok && DBPutStrField(h, field, values[field].c_str()) >= 0;
  }
  return ok;
}

inline void CreateTable(const std::string& path, int32_t dialect) {
  DBFIELD fields[] = {Field("WRITER", 'N', 2), Field("SEQ", 'N', 6), Field("PAYLOAD", 'C', 24),
                      Field("COUNTER", 'N', 8), Field("CHECK", 'N', 10)};
  EXPECT_EQ(DBCreateFile(path.c_str(), 5, fields, dialect), 0);
}

// A temporary directory in memory (tmpfs) when the machine has one: with
// automatic locking every write is flushed to the disk, which costs
// milliseconds on a real disk and nothing on tmpfs; the locks are the same.
inline std::unique_ptr<TempDir> MemoryTempDir() {
  const char* old = std::getenv("TMPDIR");
  std::string saved = old ? old : "";
  if (::access("/dev/shm", W_OK) == 0) ::setenv("TMPDIR", "/dev/shm", 1);
  auto dir = std::make_unique<TempDir>();
  old ? ::setenv("TMPDIR", saved.c_str(), 1) : ::unsetenv("TMPDIR");
  return dir;
}

inline double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

struct AppendResult {
  double seconds = 0;  // wall time of the whole run
  long reads = 0;      // records the reader checked while the writers ran
  int32_t final_count = 0;
};

// Runs the append run on a new table at path and checks the outcome with
// gtest assertions.
inline AppendResult RunAppends(const std::string& path, int32_t dialect, int writers,
                               int per_writer) {
  AppendResult result;
  CreateTable(path, dialect);
  const int32_t total = writers * per_writer, kind = dialect & 0xFF;
  auto start = std::chrono::steady_clock::now();
  // Shared with the reader: the parent sets `done` once the writers are gone
  // (so that a reader whose count never gets there stops too); the reader
  // leaves the number of its reads.
  struct Shared {
    std::atomic<int> done;
    std::atomic<long> reads;
  };
  void* memory =
      ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    ADD_FAILURE() << "mmap";
    return result;
  }
  auto* shared = new (memory) Shared{{0}, {0}};
  std::vector<std::unique_ptr<Child>> writer_processes;
  for (int w = 1; w <= writers; ++w) {
    writer_processes.push_back(std::make_unique<Child>([&, w](ChildChecks& checks) {
      int32_t h = -1;
      CHILD_EQ(checks, DBOpenFile(&h, path.c_str(), kind | DB_OPEN_AUTOLOCK), 0);
      for (int seq = 1; seq <= per_writer; ++seq) {
        int32_t recno = 0;
        CHILD_CHECK(checks, FillRow(h, w, seq, 0));
        int32_t rc = LockPatiently([&] { return DBPutRecord(h, &recno, DB_RECORD_APPEND); });
        if (rc != 0) return checks.Check(false, __LINE__, "append: " + std::to_string(rc));
      }
      CHILD_EQ(checks, DBCloseFile(h), 0);
    }));
  }
  // The reader: random records among those counted so far, each must be
  // whole; the count never goes down.
  Child reader([&](ChildChecks& checks) {
    int32_t h = -1, count = 0, last = 0;
    CHILD_EQ(checks, DBOpenFile(&h, path.c_str(), kind | DB_OPEN_SHARED | DB_OPEN_READONLY), 0);
    long reads = 0, bad = 0;
    for (uint32_t state = 12345; last < total;) {
      bool done = shared->done != 0;
      uint32_t n = 0;
      if (DBGetFileHeader(h) < 0 || DBGetRecordCount(h, &n) < 0) ++bad;
      count = static_cast<int32_t>(n);
      if (count < last) ++bad;
      last = std::max(last, count);
      if (count > 0) {
        state = Mix(state + 1);
        int32_t r = static_cast<int32_t>(state % static_cast<uint32_t>(count)) + 1;
        if (DBGetRecord(h, r) != 0 || !ReadRow(h).Intact()) ++bad;
        ++reads;
      }
      if (reads % 32 == 0) ::sched_yield();  // let the writers on as well
      if (done || bad > 0) break;
    }
    CHILD_EQ(checks, bad, 0L);
    CHILD_EQ(checks, last, total);
    shared->reads = reads;
  });
  for (auto& child : writer_processes) child->Join();
  shared->done = 1;
  reader.Join();
  result.reads = shared->reads;
  ::munmap(memory, sizeof(Shared));
  result.seconds = SecondsSince(start);

  // Every record once, whole, each writer's in the order it wrote them, in
  // a file that ends where it should.
  int32_t h = -1;
  EXPECT_EQ(DBOpenFile(&h, path.c_str(), kind), 0);
  uint32_t final_count = 0;
  EXPECT_EQ(DBGetRecordCount(h, &final_count), 0);
  result.final_count = static_cast<int32_t>(final_count);
  EXPECT_EQ(result.final_count, total);
  std::set<std::pair<int, int>> seen;
  std::vector<int> last_seq(static_cast<size_t>(writers) + 1, 0);
  long damaged = 0, out_of_order = 0;
  for (int32_t r = 1; r <= result.final_count; ++r) {
    Row row = DBGetRecord(h, r) == 0 ? ReadRow(h) : Row{};
    if (!row.Intact() || row.writer < 1 || row.writer > writers) {
      ++damaged;
      continue;
    }
    seen.insert({row.writer, row.seq});
    out_of_order += row.seq <= last_seq[static_cast<size_t>(row.writer)];
    last_seq[static_cast<size_t>(row.writer)] = row.seq;
  }
  EXPECT_EQ(damaged, 0);
  EXPECT_EQ(out_of_order, 0);
  EXPECT_EQ(seen.size(), static_cast<size_t>(total));  // with the count: none twice
  DBRECORDINFO info{};
  EXPECT_EQ(DBGetRecordInfo(h, &info), 0);
  EXPECT_EQ(DBCloseFile(h), 0);
  std::vector<uint8_t> bytes = ReadFileBytes(path);
  uint64_t header = bytes.size() > 10 ? bytes[8] | bytes[9] << 8 : bytes.size();
  uint64_t end = header + static_cast<uint64_t>(total) * info.record_length;
  EXPECT_TRUE(bytes.size() > end && bytes[end] == 0x1A) << bytes.size() << " " << end;
  return result;
}

struct ReplaceResult {
  double seconds = 0;
  long increments = 0;
};

// The record that writer w increments at its step i (1-based records).
inline int32_t Target(int w, int i, int records) {
  uint32_t h = Mix(static_cast<uint32_t>(w) * 7919u + static_cast<uint32_t>(i));
  return static_cast<int32_t>(h % static_cast<uint32_t>(records)) + 1;
}

// The replace run on a new table of `records` records.  Odd writers open the
// table with automatic locking (unbuffered), even ones shared and buffered,
// dropping their cache after taking a lock and writing it back before
// letting go, as a buffered shared table must.
inline ReplaceResult RunReplaces(const std::string& path, int32_t dialect, int writers,
                                 int per_writer, int records) {
  ReplaceResult result;
  CreateTable(path, dialect);
  const int32_t kind = dialect & 0xFF;
  int32_t h = -1;
  EXPECT_EQ(DBOpenFile(&h, path.c_str(), kind), 0);
  for (int32_t r = 1, recno = 0; r <= records; ++r) {
    EXPECT_TRUE(FillRow(h, 0, r, 0) && DBPutRecord(h, &recno, DB_RECORD_APPEND) == 0);
  }
  EXPECT_EQ(DBCloseFile(h), 0);

  auto start = std::chrono::steady_clock::now();
  std::vector<std::unique_ptr<Child>> writer_processes;
  for (int w = 1; w <= writers; ++w) {
    writer_processes.push_back(std::make_unique<Child>([&, w](ChildChecks& checks) {
      bool buffered = w % 2 == 0;
      int32_t c = -1;
      CHILD_EQ(checks,
               DBOpenFile(&c, path.c_str(), kind | (buffered ? DB_OPEN_SHARED : DB_OPEN_AUTOLOCK)),
               0);
      for (int i = 1; i <= per_writer; ++i) {
        int32_t r = Target(w, i, records);
        int32_t rc = LockPatiently([&] { return DBLockRecord(c, r); });
        if (rc != 0) return checks.Check(false, __LINE__, "lock: " + std::to_string(rc));
        if (buffered) CHILD_EQ(checks, DBFlushFile(c), 0);  // forget the old window
        Row row = DBGetRecord(c, r) == 0 ? ReadRow(c) : Row{};
        if (!row.Intact() || row.seq != r) {
          return checks.Check(false, __LINE__, "record " + std::to_string(r) + " damaged");
        }
        CHILD_CHECK(checks, FillRow(c, row.writer, row.seq, row.counter + 1));
        CHILD_EQ(checks, DBPutRecord(c, &r, DB_RECORD_REPLACE), 0);
        if (buffered) CHILD_EQ(checks, DBFlushFile(c), 0);  // written before the unlock
        CHILD_EQ(checks, DBUnLockRecord(c, r), 0);
      }
      CHILD_EQ(checks, DBCloseFile(c), 0);
    }));
  }
  for (auto& child : writer_processes) child->Join();
  result.seconds = SecondsSince(start);

  std::vector<int> expected(static_cast<size_t>(records) + 1, 0);
  for (int w = 1; w <= writers; ++w) {
    for (int i = 1; i <= per_writer; ++i) ++expected[static_cast<size_t>(Target(w, i, records))];
  }
  EXPECT_EQ(DBOpenFile(&h, path.c_str(), kind), 0);
  uint32_t stored = 0;
  EXPECT_EQ(DBGetRecordCount(h, &stored), 0);
  const int32_t count = static_cast<int32_t>(stored);
  EXPECT_EQ(count, records);
  long lost = 0, damaged = 0;
  for (int32_t r = 1; r <= count; ++r) {
    Row row = DBGetRecord(h, r) == 0 ? ReadRow(h) : Row{};
    damaged += !row.Intact() || row.writer != 0 || row.seq != r;
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
