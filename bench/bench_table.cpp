// Table engine speed: appends, sequential and random record reads, field
// conversions, and the effect of larger record cache windows, on a table of
// 1,000,000 records of 100 bytes (NAME C10, CITY C20, AMOUNT N12.2, QTY N8,
// DAY D, FLAG L, NOTE C40). For scale, the same file is also read by
// python3-dbfread in the same run (BM_DbfreadFullRead).
//
//   bench_table --benchmark_counters_tabular=true
//
// Items per second is records (or field conversions) per second.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"

namespace {

constexpr int32_t kRecords = 1000000;
constexpr int kRandomReads = 100000;
constexpr int kFieldCount = 7;

DBFIELD Field(const char* name, char type, int32_t length, int32_t decimals) {
  DBFIELD f{};
  std::snprintf(f.name, sizeof f.name, "%s", name);
  f.type = type;
  f.length = length;
  f.decimals = decimals;
  return f;
}

std::vector<DBFIELD> Layout() {
  return {Field("NAME", 'C', 10, 0), Field("CITY", 'C', 20, 0), Field("AMOUNT", 'N', 12, 2),
          Field("QTY", 'N', 8, 0),   Field("DAY", 'D', 8, 0),   Field("FLAG", 'L', 1, 0),
          Field("NOTE", 'C', 40, 0)};
}

// Caller-side values, prepared once so that the loops time the engine's
// conversions and not the benchmark's own formatting.
struct RowValues {
  char name[16];
  char city[24];
  char day[12];
  double amount;
  double qty;
  uint8_t flag;
};

const std::vector<RowValues>& ValuePool() {
  static const std::vector<RowValues> pool = [] {
    std::vector<RowValues> rows(4096);
    for (size_t i = 0; i < rows.size(); ++i) {
      RowValues& r = rows[i];
      std::snprintf(r.name, sizeof r.name, "N%08zu", i * 7919);
      std::snprintf(r.city, sizeof r.city, "City %zu", i % 997);
      std::snprintf(r.day, sizeof r.day, "%04d%02d%02d", 1990 + static_cast<int>(i % 30),
                    1 + static_cast<int>(i % 12), 1 + static_cast<int>(i % 28));
      r.amount = static_cast<double>(i * 7919 % 1000000) / 100.0;
      r.qty = static_cast<double>(i * 31 % 99999);
      r.flag = static_cast<uint8_t>(i & 1);
    }
    return rows;
  }();
  return pool;
}

// Puts one record's values into the record buffer through the conversions.
void FillRecord(int32_t handle, int64_t i) {
  const RowValues& r = ValuePool()[static_cast<size_t>(i) & 4095];
  DBPutFieldData(handle, 0, r.name);
  DBPutFieldData(handle, 1, r.city);
  DBPutFieldData(handle, 2, &r.amount);
  DBPutFieldData(handle, 3, &r.qty);
  DBPutFieldData(handle, 4, r.day);
  DBPutFieldData(handle, 5, &r.flag);
  DBPutFieldData(handle, 6, "a note of moderate length");
}

std::string TempPath(const char* name) {
  const char* base = std::getenv("TMPDIR");
  return std::string(base && *base ? base : "/tmp") + "/kestrel-bench-" +
         std::to_string(::getpid()) + "-" + name;
}

// The 1,000,000-record table, built once per process.
class Table {
 public:
  static Table& Get() {
    static Table table;
    return table;
  }
  const std::string& path() const { return path_; }
  ~Table() { std::filesystem::remove(path_); }

 private:
  Table() : path_(TempPath("big.dbf")) {
    std::vector<DBFIELD> fields = Layout();
    if (DBCreateFile(path_.c_str(), kFieldCount, fields.data(), DB_DIALECT_DBASE3) != 0) {
      std::fprintf(stderr, "cannot create %s\n", path_.c_str());
      std::exit(1);
    }
    int32_t h = -1;
    DBOpenFile(&h, path_.c_str(), DB_DIALECT_DBASE3);
    for (int64_t i = 0; i < kRecords; ++i) {
      FillRecord(h, i);
      int32_t recno = 0;
      DBPutRecord(h, &recno, DB_RECORD_APPEND);
    }
    DBCloseFile(h);
  }
  std::string path_;
};

// An open handle on the big table, with the record cache set to `records`
// (0 keeps the default).
class OpenBig {
 public:
  explicit OpenBig(int32_t cache_records, int32_t mode = DB_DIALECT_DBASE3 | DB_OPEN_READONLY) {
    DBOpenFile(&handle_, Table::Get().path().c_str(), mode);
    if (cache_records > 0) DBGetSetCacheSize(handle_, &cache_records, DB_CACHE_SET);
  }
  ~OpenBig() { DBCloseFile(handle_); }
  int32_t handle() const { return handle_; }

 private:
  int32_t handle_ = -1;
};

// Every field of the current record converted to its native form.
struct Values {
  char name[11];
  char city[21];
  double amount;
  double qty;
  char day[12];
  uint8_t flag;
  char note[41];
};

inline void ConvertAll(int32_t h, Values* v) {
  DBGetFieldData(h, 0, v->name);
  DBGetFieldData(h, 1, v->city);
  DBGetFieldData(h, 2, &v->amount);
  DBGetFieldData(h, 3, &v->qty);
  DBGetFieldData(h, 4, v->day);
  DBGetFieldData(h, 5, &v->flag);
  DBGetFieldData(h, 6, v->note);
}

// Appends with the record buffer filled through the field conversions.
void BM_AppendWithFieldPuts(benchmark::State& state) {
  const std::string path = TempPath("append.dbf");
  std::vector<DBFIELD> fields = Layout();
  DBCreateFile(path.c_str(), kFieldCount, fields.data(), DB_DIALECT_DBASE3);
  int32_t h = -1;
  DBOpenFile(&h, path.c_str(), DB_DIALECT_DBASE3);
  int64_t i = 0;
  for (auto _ : state) {
    FillRecord(h, i++);
    int32_t recno = 0;
    if (DBPutRecord(h, &recno, DB_RECORD_APPEND) != 0) state.SkipWithError("append failed");
  }
  DBCloseFile(h);
  std::filesystem::remove(path);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AppendWithFieldPuts)->Iterations(kRecords)->Unit(benchmark::kMillisecond);

// Appends of an already filled record buffer: the record path alone.
void BM_AppendRecord(benchmark::State& state) {
  const std::string path = TempPath("append2.dbf");
  std::vector<DBFIELD> fields = Layout();
  DBCreateFile(path.c_str(), kFieldCount, fields.data(), DB_DIALECT_DBASE3);
  int32_t h = -1;
  DBOpenFile(&h, path.c_str(), DB_DIALECT_DBASE3);
  FillRecord(h, 12345);
  for (auto _ : state) {
    int32_t recno = 0;
    if (DBPutRecord(h, &recno, DB_RECORD_APPEND) != 0) state.SkipWithError("append failed");
  }
  DBCloseFile(h);
  std::filesystem::remove(path);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AppendRecord)->Iterations(kRecords)->Unit(benchmark::kMillisecond);

// Every record read in order with every field converted; Arg = cache records
// (0 = the default window, 8 records of 100 bytes).
void BM_SequentialFullRead(benchmark::State& state) {
  OpenBig table(static_cast<int32_t>(state.range(0)));
  const int32_t h = table.handle();
  Values v;
  int32_t recno = 0;
  for (auto _ : state) {
    if (++recno > kRecords) recno = 1;
    if (DBGetRecord(h, recno) < 0) state.SkipWithError("read failed");
    ConvertAll(h, &v);
    benchmark::DoNotOptimize(v);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SequentialFullRead)
    ->Arg(0)
    ->Arg(64)
    ->Arg(512)
    ->Iterations(kRecords)
    ->Unit(benchmark::kMillisecond);

// Sequential reads of the record alone (no field conversion).
void BM_SequentialRecordRead(benchmark::State& state) {
  OpenBig table(static_cast<int32_t>(state.range(0)));
  const int32_t h = table.handle();
  int32_t recno = 0;
  for (auto _ : state) {
    if (++recno > kRecords) recno = 1;
    if (DBGetRecord(h, recno) < 0) state.SkipWithError("read failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SequentialRecordRead)
    ->Arg(0)
    ->Arg(512)
    ->Iterations(kRecords)
    ->Unit(benchmark::kMillisecond);

// 100,000 reads of records chosen at random (fixed seed); Arg = cache records.
void BM_RandomRead(benchmark::State& state) {
  OpenBig table(static_cast<int32_t>(state.range(0)));
  const int32_t h = table.handle();
  std::mt19937 rng(20240115);
  std::uniform_int_distribution<int32_t> pick(1, kRecords);
  DBGetRecord(h, 1);  // with a window as large as the table, load it once up front
  std::vector<int32_t> order(kRandomReads);
  for (auto& n : order) n = pick(rng);
  size_t i = 0;
  for (auto _ : state) {
    if (DBGetRecord(h, order[i]) < 0) state.SkipWithError("read failed");
    if (++i == order.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RandomRead)
    ->Arg(0)
    ->Arg(1)
    ->Arg(512)
    ->Arg(kRecords)  // the whole table in one window (100 MB)
    ->Iterations(kRandomReads)
    ->Unit(benchmark::kMillisecond);

// The same random reads on an unbuffered table (one system call each).
void BM_RandomReadUnbuffered(benchmark::State& state) {
  OpenBig table(0, DB_DIALECT_DBASE3 | DB_OPEN_READONLY | DB_OPEN_UNBUFFERED);
  const int32_t h = table.handle();
  std::mt19937 rng(20240115);
  std::uniform_int_distribution<int32_t> pick(1, kRecords);
  for (auto _ : state) {
    if (DBGetRecord(h, pick(rng)) < 0) state.SkipWithError("read failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RandomReadUnbuffered)->Iterations(kRandomReads)->Unit(benchmark::kMillisecond);

// The seven field conversions of one record, without record reads.
void BM_FieldGetAll(benchmark::State& state) {
  OpenBig table(0);
  const int32_t h = table.handle();
  DBGetRecord(h, 4321);
  Values v;
  for (auto _ : state) {
    ConvertAll(h, &v);
    benchmark::DoNotOptimize(v);
  }
  state.SetItemsProcessed(state.iterations() * kFieldCount);
}
BENCHMARK(BM_FieldGetAll);

void BM_FieldPutAll(benchmark::State& state) {
  OpenBig table(0);
  const int32_t h = table.handle();
  DBGetRecord(h, 4321);
  int64_t i = 0;
  for (auto _ : state) FillRecord(h, i++);
  state.SetItemsProcessed(state.iterations() * kFieldCount);
}
BENCHMARK(BM_FieldPutAll);

// One conversion per type, to see which one costs.
void BM_FieldGetOne(benchmark::State& state) {
  OpenBig table(0);
  const int32_t h = table.handle();
  DBGetRecord(h, 4321);
  const int field = static_cast<int>(state.range(0));
  alignas(8) char buffer[64];
  for (auto _ : state) {
    DBGetFieldData(h, field, buffer);
    benchmark::DoNotOptimize(buffer);
  }
  static const char* kNames[] = {"C10", "C20", "N12.2", "N8", "D", "L", "C40"};
  state.SetLabel(kNames[field]);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FieldGetOne)->DenseRange(0, kFieldCount - 1);

// python3-dbfread reading every record of the same file, timed inside the
// interpreter as process CPU time (start-up excluded), like the engine
// figures, which are CPU time too on a shared machine. Items per second.
void BM_DbfreadFullRead(benchmark::State& state) {
  const std::string script =
      "import sys, time, dbfread\n"
      "t = time.process_time(); n = 0\n"
      "for r in dbfread.DBF(sys.argv[1], encoding='latin-1'):\n"
      "    n += 1\n"
      "print(n, time.process_time() - t)\n";
  const std::string script_path = TempPath("dbfread.py");
  FILE* f = std::fopen(script_path.c_str(), "w");
  if (f == nullptr) {
    state.SkipWithError("cannot write the script");
    return;
  }
  std::fputs(script.c_str(), f);
  std::fclose(f);
  const std::string command = "/usr/bin/python3 " + script_path + " " + Table::Get().path();
  long records = 0;
  for (auto _ : state) {
    FILE* p = ::popen(command.c_str(), "r");
    double seconds = 0;
    if (p == nullptr || std::fscanf(p, "%ld %lf", &records, &seconds) != 2) {
      if (p) ::pclose(p);
      state.SkipWithError("python3-dbfread did not run");
      break;
    }
    ::pclose(p);
    state.SetIterationTime(seconds);
  }
  std::filesystem::remove(script_path);
  state.SetItemsProcessed(state.iterations() * records);
}
BENCHMARK(BM_DbfreadFullRead)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  if (DBInitialize(64, 0) < 0) return 1;
  DBSetDefaultDateStyle(DB_DATE_DBASE);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  DBTerminate();
  return 0;
}
