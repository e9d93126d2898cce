// Fuzz target for the .NDX reader: the input is an index file.  It is
// checked, opened, walked both ways, searched, and changed by insertions and
// deletions that split and merge pages; a damaged file must give error
// statuses, never a crash, a hang or an out-of-bounds access.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "index/common/checker.h"
#include "index/dbase/dbase_check.h"
#include "kestrel/kestrel.h"

namespace {

constexpr int kMaxSteps = 5000;

const std::string& FilePath() {
  static const std::string path = "/tmp/fuzz_ndx_" + std::to_string(getpid()) + ".ndx";
  return path;
}

void Exercise(int32_t h) {
  char key[300];
  int32_t rec = 0;
  int steps = 0;
  for (int32_t rc = DBd3GoFirstKey(h, key, &rec); rc == 0 && steps < kMaxSteps; ++steps) {
    rc = DBd3GoNextKey(h, key, &rec);
  }
  steps = 0;
  for (int32_t rc = DBd3GoLastKey(h, key, &rec); rc == 0 && steps < kMaxSteps; ++steps) {
    rc = DBd3GoPreviousKey(h, key, &rec);
  }
  // Key arguments are key length bytes for binary keys: every probe is a
  // buffer as long as the longest key.
  const char* probes[] = {"", "A", "M", "ZZZZ", "0", "\x7f"};
  for (int mode : {1, 2, 11, 12, 13, 14, 15, 1 | 64}) {
    for (const char* p : probes) {
      std::memset(key, 0, sizeof key);
      std::snprintf(key, sizeof key, "%s", p);
      rec = 1;
      DBd3KeySearch(h, key, &rec, mode);
      DBd3GoNextKey(h, key, &rec);
    }
  }
  int32_t percent = 0;
  char probe[300] = "M";
  DBd3GetKeyPercent(h, &percent, probe, 0);
  DBd3GetKeyAtPercent(h, 50, key, &rec);
  DBd3GetCurrentKey(h, key, &rec);
  for (int i = 0; i < 60; ++i) {
    char k[300] = {};
    std::snprintf(k, 8, "K%03d", (i * 37) % 100);
    DBd3AddKey(h, k, i + 1);
    if (i % 3 == 0) DBd3DeleteKey(h, k, i + 1);
  }
  for (int i = 0; i < 60; i += 2) {
    char k[300] = {};
    std::snprintf(k, 8, "K%03d", (i * 37) % 100);
    DBd3DeleteKey(h, k, i + 1);
  }
  DBd3FlushIndex(h);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool started = DBInitialize(32, 0) == 0;
  if (!started) return 0;
  FILE* f = std::fopen(FilePath().c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

  kestrel::Vec<kestrel::index::CheckFinding> findings;
  kestrel::index::CheckSummary summary{};
  kestrel::index::CheckFileWith(FilePath().c_str(), &kestrel::dbase::CheckNdxFile, &findings,
                                &summary);

  int32_t h = -1;
  if (DBd3OpenIndex(&h, FilePath().c_str(), 0) >= 0) {
    Exercise(h);
    DBd3CloseIndex(h);
  }
  std::remove(FilePath().c_str());
  return 0;
}
