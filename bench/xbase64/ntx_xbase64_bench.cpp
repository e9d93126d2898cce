// The .NTX work of bench/bench_ntx.cpp done by Xbase64 3.1.2 (libxbase64),
// to put the engine's figures next to another program's, over the same table
// of NAME C(10) and AMOUNT N(12,2) records.
//
// Xbase64's index code only works where a long is 4 bytes, so this program is
// built for 32-bit x86 (cmake/Xbase64.cmake); it cannot link the engine and
// writes its table itself, with the values bench_ntx gives its records.
//
// Xbase64 3.1.2 does not keep an NTX tree sound once a page splits, so its
// own builds and updates are timed and then checked (with `kestrel check`),
// and the seeks and the walk run on an index that the kestrel tool builds
// over the same table.  Times are the process's CPU time (the machine is
// shared), the lowest of the runs.
//
// Usage: ntx_xbase64_bench [RECORDS [RUNS]]   (default 1000000 records, 3 runs)
#include <xbase64/xbase64.h>

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace {

int32_t g_records = 1000000;
const char* const kTool = KESTREL_TOOL_PATH;

// As in bench_ntx: every value appears once for the even numbers below
// 2 * records, so odd numbers miss; records are a fixed permutation of them.
void NameOf(uint32_t value, char* out) {
  char text[16];
  std::snprintf(text, sizeof text, "N%09u", value % 1000000000u);
  std::memcpy(out, text, 11);
}
uint32_t ValueOf(int32_t recno) {
  return static_cast<uint32_t>((static_cast<uint64_t>(recno) * 7919u) %
                               static_cast<uint64_t>(g_records)) *
         2u;
}

double CpuSeconds() {
  timespec ts;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
double WallSeconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void PutLe(unsigned char* p, uint32_t v, int bytes) {
  for (int i = 0; i < bytes; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}

// The table bench_ntx makes, written directly.
bool WriteTable(const std::string& path) {
  constexpr int kRecordLength = 1 + 10 + 12;
  constexpr int kHeaderLength = 32 + 2 * 32 + 1;
  unsigned char header[kHeaderLength] = {};
  header[0] = 0x03;
  header[1] = 126;
  header[2] = 11;
  header[3] = 21;
  PutLe(header + 4, static_cast<uint32_t>(g_records), 4);
  PutLe(header + 8, kHeaderLength, 2);
  PutLe(header + 10, kRecordLength, 2);
  const struct {
    const char* name;
    char type;
    int length, decimals;
  } fields[2] = {{"NAME", 'C', 10, 0}, {"AMOUNT", 'N', 12, 2}};
  for (int i = 0; i < 2; ++i) {
    unsigned char* d = header + 32 + 32 * i;
    std::memcpy(d, fields[i].name, std::strlen(fields[i].name));
    d[11] = static_cast<unsigned char>(fields[i].type);
    d[16] = static_cast<unsigned char>(fields[i].length);
    d[17] = static_cast<unsigned char>(fields[i].decimals);
  }
  header[kHeaderLength - 1] = 0x0D;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  std::fwrite(header, 1, sizeof header, f);
  char record[kRecordLength + 16];
  for (int32_t r = 1; r <= g_records; ++r) {
    uint32_t v = ValueOf(r);
    record[0] = ' ';
    NameOf(v, record + 1);
    std::snprintf(record + 11, 16, "%12.2f", (v % 100000000) / 100.0);
    std::fwrite(record, 1, kRecordLength, f);
  }
  std::fputc(0x1A, f);
  return std::fclose(f) == 0;
}

// Runs a kestrel tool command quietly; true when it exits with 0.
bool Tool(const std::string& arguments) {
  std::string command = std::string("'") + kTool + "' " + arguments + " >/dev/null 2>&1";
  return std::system(command.c_str()) == 0;
}

std::string Verdict(const std::string& index_path) {
  if (kTool[0] == '\0') return "not checked (kestrel tool not built)";
  return Tool("check '" + index_path + "'") ? "sound (kestrel check)"
                                            : "NOT A SOUND TREE (kestrel check reports findings)";
}

struct Result {
  double cpu = 1e300;
  double wall = 1e300;
};

// Runs the work `runs` times and keeps the lowest CPU and wall times.
Result Measure(int runs, const std::function<void()>& work) {
  Result best;
  for (int i = 0; i < runs; ++i) {
    double c0 = CpuSeconds(), w0 = WallSeconds();
    work();
    best.cpu = std::min(best.cpu, CpuSeconds() - c0);
    best.wall = std::min(best.wall, WallSeconds() - w0);
  }
  return best;
}

void Report(const char* name, const Result& r, double units, const char* per) {
  std::printf("%-36s cpu %10.1f ms  wall %10.1f ms  %11.0f %s/s (cpu)\n", name, r.cpu * 1e3,
              r.wall * 1e3, units / r.cpu, per);
  std::fflush(stdout);
}

void Build(xbDbf& table, const std::string& path, const char* expression, const char* name,
           int runs) {
  int failures = 0;
  Result r = Measure(runs, [&] {
    xbNtx index(&table);
    if (index.CreateIndex(path.c_str(), expression, XB_NOT_UNIQUE, 1) != XB_NO_ERROR ||
        index.ReIndex() != XB_NO_ERROR) {
      ++failures;
    }
    index.CloseIndex();
  });
  Report(name, r, g_records, "keys");
  std::printf("  %s; result: %s\n", failures ? "Xbase64 reported errors" : "no error reported",
              Verdict(path).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) g_records = std::atoi(argv[1]);
  int runs = argc > 2 ? std::atoi(argv[2]) : 3;
  if (g_records < 1000 || g_records > 400000000 || runs < 1) {
    std::fprintf(stderr, "usage: %s [RECORDS (1000 or more) [RUNS]]\n", argv[0]);
    return 2;
  }
  char pattern[] = "/tmp/kestrel-bench-xbase64-XXXXXX";
  if (mkdtemp(pattern) == nullptr) return 1;
  std::string dir = pattern;
  std::string table_path = dir + "/big.dbf";
  if (!WriteTable(table_path)) return 1;
  std::printf("Xbase64 %s (32-bit), %d records, lowest CPU time of %d run(s)\n", PACKAGE_VERSION,
              g_records, runs);

  xbXBase xbase;
  xbDbf table(&xbase);
  if (table.OpenDatabase(table_path.c_str()) != XB_NO_ERROR) return 1;
  table.AutoLockOff();  // one process, as with the engine's exclusive open

  Build(table, dir + "/xname.ntx", "NAME", "build, C(10) key", runs);
  Build(table, dir + "/xamount.ntx", "AMOUNT", "build, N(12,2) key", runs);

  // Seeks, walk and updates on a sound index of the same table.
  std::string name_path = dir + "/name.ntx";
  if (kTool[0] == '\0' ||
      !Tool("index build '" + table_path + "' '" + name_path + "' NAME --type C --length 10")) {
    std::printf("seeks, walk and updates skipped: no kestrel tool to build the index with\n");
    return 0;
  }
  xbNtx index(&table);
  if (index.OpenIndex(name_path.c_str()) != XB_NO_ERROR) return 1;

  std::mt19937 rng(1);
  std::vector<std::string> keys(100000);
  for (size_t i = 0; i < keys.size(); ++i) {
    char k[11];
    NameOf(static_cast<uint32_t>(rng() % static_cast<uint32_t>(g_records)) * 2u +
               (i % 4 == 3 ? 1u : 0u),
           k);
    keys[i] = std::string(k, 10);
  }
  int64_t found = 0;
  Report("100,000 seeks, a quarter missing",
         Measure(runs,
                 [&] {
                   found = 0;
                   for (const auto& k : keys) found += index.FindKey(k.c_str()) == XB_FOUND;
                 }),
         static_cast<double>(keys.size()), "seeks");
  std::printf("  found %.1f%% (75%% expected)\n",
              100.0 * static_cast<double>(found) / static_cast<double>(keys.size()));

  int64_t walked = 0;
  Result walk = Measure(runs, [&] {
    walked = 0;
    for (int rc = index.GetFirstKey(); rc == XB_NO_ERROR; rc = index.GetNextKey()) ++walked;
  });
  Report("full walk, first + next", walk, static_cast<double>(walked), "keys");
  std::printf("  keys walked %lld of %d (the keys of branch pages are stepped over)\n",
              static_cast<long long>(walked), g_records);

  std::mt19937 update_rng(2);
  uint32_t next = 1;
  int done = 0;
  int failure = XB_NO_ERROR;
  constexpr int kUpdates = 100000;
  Result updates = Measure(1, [&] {
    for (; done < kUpdates; ++done) {
      int32_t r = static_cast<int32_t>(update_rng() % static_cast<uint32_t>(g_records)) + 1;
      char name[11];
      NameOf((next++ * 2654435761u) % (2u * static_cast<uint32_t>(g_records)), name);
      if ((failure = table.GetRecord(static_cast<xbULong>(r))) != XB_NO_ERROR ||
          (failure = table.PutField(static_cast<xbShort>(0), name)) != XB_NO_ERROR ||
          (failure = table.PutRecord(static_cast<xbULong>(r))) != XB_NO_ERROR) {
        break;
      }
    }
  });
  Report("100,000 updates", updates, done, "updates");
  index.CloseIndex();
  if (done < kUpdates) {
    std::printf("  stopped after %d updates: %s\n", done, xbXBase::GetErrorMessage(failure));
  }
  std::printf("  index afterwards: %s\n", Verdict(name_path).c_str());
  table.CloseDatabase();
  if (std::getenv("KESTREL_BENCH_KEEP") == nullptr) {
    std::filesystem::remove_all(dir);
  } else {
    std::printf("files kept in %s\n", dir.c_str());
  }
  return 0;
}
