// .NTX engine benchmarks over a table of 1,000,000 records: index builds for
// a C(10) and an N(12,2) key, random seeks (a quarter of them misses), a full
// walk, and single-record updates with the index open (delete the old key,
// replace the record, add the new key).
#include <benchmark/benchmark.h>

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

// The name of record r: 10 characters, every value appearing once for the
// even numbers below 2 * kRecords, so that odd numbers miss.
void NameOf(uint32_t value, char* out) { std::snprintf(out, 11, "N%09u", value); }

uint32_t ValueOf(int32_t recno) {
  // A fixed permutation of the records: order in the index differs from record order.
  return static_cast<uint32_t>((static_cast<uint64_t>(recno) * 7919u) % kRecords) * 2u;
}

class Fixture {
 public:
  static Fixture& Get() {
    static Fixture f;
    return f;
  }
  const std::string& dir() const { return dir_; }
  int32_t table() const { return table_; }

 private:
  Fixture() {
    DBInitialize(64, 0);
    char pattern[] = "/tmp/kestrel-bench-ntx-XXXXXX";
    dir_ = mkdtemp(pattern);
    DBFIELD fields[2] = {};
    std::strcpy(fields[0].name, "NAME");
    fields[0].type = 'C';
    fields[0].length = 10;
    std::strcpy(fields[1].name, "AMOUNT");
    fields[1].type = 'N';
    fields[1].length = 12;
    fields[1].decimals = 2;
    std::string path = dir_ + "/big.dbf";
    DBCreateFile(path.c_str(), 2, fields, DB_DIALECT_CLIPPER);
    DBOpenFile(&table_, path.c_str(), DB_DIALECT_CLIPPER);
    for (int32_t r = 1; r <= kRecords; ++r) {
      char name[11], amount[16];
      NameOf(ValueOf(r), name);
      std::snprintf(amount, sizeof amount, "%.2f", (ValueOf(r) % 100000000) / 100.0);
      DBPutStrField(table_, 0, name);
      DBPutStrField(table_, 1, amount);
      int32_t recno = 0;
      DBPutRecord(table_, &recno, DB_RECORD_APPEND);
    }
    DBFlushFile(table_);
  }
  ~Fixture() {
    DBCloseFile(table_);
    DBTerminate();
    std::filesystem::remove_all(dir_);
  }
  std::string dir_;
  int32_t table_ = -1;
};

void BM_BuildCharacter(benchmark::State& state) {
  Fixture& f = Fixture::Get();
  std::string path = f.dir() + "/name.ntx";
  for (auto _ : state) {
    char expr[] = "NAME";
    if (DBclBuildIndex(f.table(), path.c_str(), 'C', expr, 10, 0) < 0) state.SkipWithError("build");
  }
  state.counters["keys/s"] =
      benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_BuildCharacter)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_BuildNumeric(benchmark::State& state) {
  Fixture& f = Fixture::Get();
  std::string path = f.dir() + "/amount.ntx";
  for (auto _ : state) {
    char expr[] = "AMOUNT";
    if (DBclBuildIndex(f.table(), path.c_str(), 'N', expr, 12, 2) < 0) state.SkipWithError("build");
  }
  state.counters["keys/s"] =
      benchmark::Counter(kRecords, benchmark::Counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_BuildNumeric)->Unit(benchmark::kMillisecond)->Iterations(3);

int32_t OpenName() {
  Fixture& f = Fixture::Get();
  std::string path = f.dir() + "/name.ntx";
  if (!std::filesystem::exists(path)) {
    char expr[] = "NAME";
    DBclBuildIndex(f.table(), path.c_str(), 'C', expr, 10, 0);
  }
  int32_t h = -1;
  DBclOpenIndex(&h, path.c_str(), 0);
  return h;
}

void BM_Seek(benchmark::State& state) {
  int32_t h = OpenName();
  int32_t cache = static_cast<int32_t>(state.range(0));
  DBclGetSetCacheSize(h, &cache, 0);
  std::mt19937 rng(1);
  std::vector<std::string> keys(100000);
  for (size_t i = 0; i < keys.size(); ++i) {
    char k[11];
    uint32_t v = static_cast<uint32_t>(rng() % kRecords) * 2u + (i % 4 == 3 ? 1u : 0u);
    NameOf(v, k);
    keys[i] = k;
  }
  int64_t found = 0;
  for (auto _ : state) {
    for (const auto& k : keys) {
      char key[11];
      std::memcpy(key, k.c_str(), 11);
      int32_t rec = 0;
      found += DBclKeySearch(h, key, &rec, 1) == 0;
    }
  }
  state.counters["seeks/s"] = benchmark::Counter(static_cast<double>(keys.size()),
                                                 benchmark::Counter::kIsIterationInvariantRate);
  state.counters["hit%"] =
      100.0 * static_cast<double>(found) /
      (static_cast<double>(keys.size()) * static_cast<double>(state.iterations()));
  DBclCloseIndex(h);
}
BENCHMARK(BM_Seek)->Arg(10)->Arg(64)->Unit(benchmark::kMillisecond);

void BM_Walk(benchmark::State& state) {
  int32_t h = OpenName();
  int64_t keys = 0;
  for (auto _ : state) {
    char key[11];
    int32_t rec = 0;
    keys = 0;
    for (int32_t rc = DBclGoFirstKey(h, key, &rec); rc == 0; rc = DBclGoNextKey(h, key, &rec)) {
      ++keys;
    }
  }
  if (keys != kRecords) state.SkipWithError("walk missed keys");
  state.counters["keys/s"] =
      benchmark::Counter(static_cast<double>(keys), benchmark::Counter::kIsIterationInvariantRate);
  DBclCloseIndex(h);
}
BENCHMARK(BM_Walk)->Unit(benchmark::kMillisecond);

void BM_Update(benchmark::State& state) {
  Fixture& f = Fixture::Get();
  int32_t h = OpenName();
  int32_t cache = static_cast<int32_t>(state.range(0));
  DBclGetSetCacheSize(h, &cache, 0);
  std::mt19937 rng(2);
  constexpr int kUpdates = 100000;
  uint32_t next = 1;
  for (auto _ : state) {
    for (int i = 0; i < kUpdates; ++i) {
      int32_t r = static_cast<int32_t>(rng() % kRecords) + 1;
      if (DBGetRecord(f.table(), r) < 0) state.SkipWithError("read");
      char* old_key = nullptr;
      DBclMakeKey(f.table(), h, &old_key);
      if (DBclDeleteKey(h, old_key, r) != 0) state.SkipWithError("delete");
      DBFreeMemory(old_key);
      char name[11];
      NameOf((next++ * 2654435761u) % (2u * kRecords), name);
      DBPutStrField(f.table(), 0, name);
      int32_t recno = r;
      if (DBPutRecord(f.table(), &recno, DB_RECORD_REPLACE) < 0) state.SkipWithError("write");
      char* new_key = nullptr;
      DBclMakeKey(f.table(), h, &new_key);
      if (DBclAddKey(h, new_key, r) != 0) state.SkipWithError("add");
      DBFreeMemory(new_key);
    }
  }
  state.counters["updates/s"] =
      benchmark::Counter(kUpdates, benchmark::Counter::kIsIterationInvariantRate);
  DBclCloseIndex(h);
}
BENCHMARK(BM_Update)->Arg(10)->Arg(64)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

BENCHMARK_MAIN();
