// Memo file speed: 100,000 memos of mixed sizes written and then read back in
// each memo layout (DBT plain, DBT dBASE IV, FPT with 64- and 512-byte
// blocks).  Sizes run from 10 bytes to 20 KB, log-uniformly (about 2.7 KB on
// average), so short notes dominate as they do in real tables while long
// texts still take their share of the bytes.
//
//   bench_memo --benchmark_counters_tabular=true
//
// memos/s is items per second; MB/s is the memo text moved per second, both
// against wall-clock time.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"

namespace {

constexpr int kMemos = 100000;
constexpr size_t kMinSize = 10;
constexpr size_t kMaxSize = 20 * 1024;

struct Format {
  const char* name;
  bool fpt;
  int32_t dialect;  // DBT
  int32_t code;     // FPT block size code
};

const Format kFormats[] = {{"dbt_plain", false, 3, 0},
                           {"dbt_dbase4", false, 2, 0},
                           {"fpt_64", true, 0, 64},
                           {"fpt_512", true, 0, 1}};

const std::vector<size_t>& Sizes() {
  static const std::vector<size_t> sizes = [] {
    std::mt19937 rng(2024);
    std::uniform_real_distribution<double> exponent(std::log(double(kMinSize)),
                                                    std::log(double(kMaxSize)));
    std::vector<size_t> v(kMemos);
    for (size_t& s : v) s = static_cast<size_t>(std::exp(exponent(rng)));
    return v;
  }();
  return sizes;
}

const std::string& Text() {
  static const std::string text = [] {
    std::string s;
    std::mt19937 rng(7);
    const char alphabet[] = "abcdefghijklmnopqrstuvwxyz    .,\r\n";
    while (s.size() < kMaxSize) s += alphabet[rng() % (sizeof alphabet - 1)];
    return s;
  }();
  return text;
}

struct Workspace {
  std::string dir;
  Workspace() {
    char pattern[] = "/tmp/kestrel-bench-memo-XXXXXX";
    dir = mkdtemp(pattern);
    DBInitialize(40, 0);
  }
  ~Workspace() {
    DBTerminate();
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
  }
};

// Writes every memo; returns the block numbers.
std::vector<uint32_t> WriteAll(const Format& f, const std::string& path, int64_t* bytes) {
  int32_t h = -1;
  if (f.fpt) {
    DBfpCreateMemo(path.c_str(), f.code);
    DBfpOpenMemo(&h, path.c_str(), 0);
  } else {
    DBxbCreateMemo(path.c_str(), 1, f.dialect);
    DBxbOpenMemo(&h, path.c_str(), f.dialect);
  }
  std::vector<uint32_t> blocks(kMemos);
  // Zero-terminated texts for the DBT calls: one copy per distinct size is
  // too much memory, so terminate the shared text in place and restore it.
  std::string text = Text();
  *bytes = 0;
  for (int i = 0; i < kMemos; ++i) {
    size_t n = Sizes()[i];
    uint32_t b = 0;
    int32_t rc;
    if (f.fpt) {
      rc = DBfpPutMemoRecord(h, &b, text.data(), static_cast<uint32_t>(n), 0, 0);
    } else {
      char saved = text[n];
      text[n] = '\0';
      rc = DBxbPutMemoRecord(h, &b, text.c_str(), 0);
      text[n] = saved;
    }
    if (rc != 0) std::abort();
    blocks[i] = b;
    *bytes += static_cast<int64_t>(n);
  }
  if (f.fpt) {
    DBfpCloseMemo(h);
  } else {
    DBxbCloseMemo(h);
  }
  return blocks;
}

void BM_MemoWrite(benchmark::State& state) {
  const Format& f = kFormats[state.range(0)];
  Workspace ws;
  int64_t bytes = 0;
  for (auto _ : state) {
    WriteAll(f, ws.dir + (f.fpt ? "/bench.fpt" : "/bench.dbt"), &bytes);
  }
  state.SetLabel(f.name);
  state.SetItemsProcessed(state.iterations() * kMemos);
  state.SetBytesProcessed(state.iterations() * bytes);
}

void BM_MemoRead(benchmark::State& state) {
  const Format& f = kFormats[state.range(0)];
  Workspace ws;
  std::string path = ws.dir + (f.fpt ? "/bench.fpt" : "/bench.dbt");
  int64_t bytes = 0;
  std::vector<uint32_t> blocks = WriteAll(f, path, &bytes);
  int32_t h = -1;
  if (f.fpt) {
    DBfpOpenMemo(&h, path.c_str(), DB_OPEN_READONLY);
  } else {
    DBxbOpenMemo(&h, path.c_str(), f.dialect | DB_OPEN_READONLY);
  }
  for (auto _ : state) {
    int64_t seen = 0;
    for (int i = 0; i < kMemos; ++i) {
      if (f.fpt) {
        char* data = nullptr;
        if (DBfpGetMemoRecord(h, blocks[i], &data, static_cast<uint32_t>(kMaxSize), 0) != 0) {
          std::abort();
        }
        benchmark::DoNotOptimize(data);
      } else {
        char* text = nullptr;
        if (DBxbGetMemoRecord(h, blocks[i], &text, 0) != 0) std::abort();
        benchmark::DoNotOptimize(text);
        DBFreeMemory(text);
      }
      seen += static_cast<int64_t>(Sizes()[i]);
    }
    if (seen != bytes) std::abort();
  }
  if (f.fpt) {
    DBfpCloseMemo(h);
  } else {
    DBxbCloseMemo(h);
  }
  state.SetLabel(f.name);
  state.SetItemsProcessed(state.iterations() * kMemos);
  state.SetBytesProcessed(state.iterations() * bytes);
}

BENCHMARK(BM_MemoWrite)
    ->DenseRange(0, 3)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemoRead)
    ->DenseRange(0, 3)
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
