// Key-expression evaluation speed: the evaluator runs once per key on every
// index update, so it must be cheap.  A 1,000,000-record table with a
// character, a numeric and a date field is evaluated record by record with
// the key NAME+STR(AMOUNT,12,2)+DTOC(DAY,1).
//
//   bench_expr --benchmark_counters_tabular=true
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "expr/evaluate.h"
#include "kestrel/kestrel.h"
#include "runtime/memory.h"

namespace {

// KESTREL_BENCH_RECORDS overrides the table size (for quick runs).
int32_t RecordCount() {
  static const int32_t count = [] {
    const char* text = std::getenv("KESTREL_BENCH_RECORDS");
    long n = text ? std::strtol(text, nullptr, 10) : 0;
    return n > 0 ? static_cast<int32_t>(n) : 1000000;
  }();
  return count;
}
constexpr const char* kKey = "NAME+STR(AMOUNT,12,2)+DTOC(DAY,1)";

// The table, built once per process in a temporary directory.
class Table {
 public:
  static Table& Get() {
    static Table table;
    return table;
  }
  int32_t handle() const { return handle_; }

  ~Table() {
    DBCloseFile(handle_);
    DBTerminate();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

 private:
  Table() {
    char pattern[] = "/tmp/kestrel-bench-XXXXXX";
    if (!mkdtemp(pattern)) std::abort();
    dir_ = pattern;
    std::string path = dir_ + "/keys.dbf";
    DBInitialize(40, 3);
    DBFIELD fields[3] = {};
    std::strcpy(fields[0].name, "NAME");
    fields[0].type = 'C';
    fields[0].length = 20;
    std::strcpy(fields[1].name, "AMOUNT");
    fields[1].type = 'N';
    fields[1].length = 12;
    fields[1].decimals = 2;
    std::strcpy(fields[2].name, "DAY");
    fields[2].type = 'D';
    fields[2].length = 8;
    if (DBCreateFile(path.c_str(), 3, fields, 1) != 0) std::abort();
    if (DBOpenFile(&handle_, path.c_str(), 1) != 0) std::abort();
    char name[32];
    char day[16];
    for (int32_t i = 0; i < RecordCount(); ++i) {
      DBClearBuffer(handle_);
      std::snprintf(name, sizeof name, "CUSTOMER %07d", (i * 7919) % RecordCount());
      DBPutStrField(handle_, 0, name);
      double amount = (i % 100000) * 1.25 - 5000.0;
      DBPutFieldData(handle_, 1, &amount);
      std::snprintf(day, sizeof day, "%02d/%02d/%04d", 1 + i % 12, 1 + i % 28, 1950 + i % 70);
      DBPutFieldData(handle_, 2, day);
      int32_t recno = 0;
      if (DBPutRecord(handle_, &recno, 0) < 0) std::abort();
    }
    DBFlushFile(handle_);
    std::error_code ec;
    std::fprintf(stderr, "table: %d records, %ju bytes\n", RecordCount(),
                 static_cast<uintmax_t>(std::filesystem::file_size(path, ec)));
  }

  std::string dir_;
  int32_t handle_ = -1;
};

// Read each record and evaluate its key: what an index build does.
void BM_ReadAndEvaluateKey(benchmark::State& state) {
  int32_t table = Table::Get().handle();
  int32_t recno = 0;
  size_t bytes = 0;
  for (auto _ : state) {
    recno = recno % RecordCount() + 1;
    DBGetRecord(table, recno);
    DBEXPRVALUE value;
    if (kestrel::EvaluateKeyExpression(table, kKey, &value) != 0) {
      state.SkipWithError("evaluation failed");
      break;
    }
    bytes += static_cast<size_t>(value.length);
    kestrel::MemFree(value.value);
  }
  benchmark::DoNotOptimize(bytes);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ReadAndEvaluateKey);

// The same key on one record, repeatedly: the evaluator's own cost.
void BM_EvaluateKeySameRecord(benchmark::State& state) {
  int32_t table = Table::Get().handle();
  DBGetRecord(table, 12345);
  for (auto _ : state) {
    DBEXPRVALUE value;
    kestrel::EvaluateKeyExpression(table, kKey, &value);
    benchmark::DoNotOptimize(value.value);
    kestrel::MemFree(value.value);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EvaluateKeySameRecord);

// Through the exported call, which also removes blanks and upper-cases a
// copy of the text.
void BM_DBEvaluateStr(benchmark::State& state) {
  int32_t table = Table::Get().handle();
  int32_t recno = 0;
  char text[64];
  for (auto _ : state) {
    recno = recno % RecordCount() + 1;
    DBGetRecord(table, recno);
    std::strcpy(text, "name + str(amount,12,2) + dtoc(day,1)");
    DBEXPRVALUE value;
    DBEvaluateStr(table, text, &value);
    DBFreeMemory(value.value);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DBEvaluateStr);

// A single character field: the floor of a key evaluation.
void BM_EvaluateSingleField(benchmark::State& state) {
  int32_t table = Table::Get().handle();
  DBGetRecord(table, 777);
  for (auto _ : state) {
    DBEXPRVALUE value;
    kestrel::EvaluateKeyExpression(table, "NAME", &value);
    kestrel::MemFree(value.value);
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EvaluateSingleField);

}  // namespace

BENCHMARK_MAIN();
