// Fuzz target for the .NTX reader: the input is an index file.  It is opened,
// checked, walked both ways, searched, and changed by a few insertions and
// deletions; a damaged file must give error statuses, never a crash, a hang or
// an out-of-bounds access.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "index/clipper/ntx_check.h"
#include "kestrel/kestrel.h"

namespace {

constexpr int kMaxSteps = 5000;

const std::string& FilePath() {
  static const std::string path = "/tmp/fuzz_ntx_" + std::to_string(getpid()) + ".ntx";
  return path;
}

void Exercise(int32_t h) {
  char key[300];
  int32_t rec = 0;
  int steps = 0;
  for (int32_t rc = DBclGoFirstKey(h, key, &rec); rc == 0 && steps < kMaxSteps; ++steps) {
    rc = DBclGoNextKey(h, key, &rec);
  }
  steps = 0;
  for (int32_t rc = DBclGoLastKey(h, key, &rec); rc == 0 && steps < kMaxSteps; ++steps) {
    rc = DBclGoPreviousKey(h, key, &rec);
  }
  const char* probes[] = {"", "A", "M", "ZZZZ", "0", "\x7f"};
  for (int mode : {1, 2, 11, 12, 13, 14, 15, 1 | 64}) {
    for (const char* p : probes) {
      std::memset(key, 0, sizeof key);
      std::snprintf(key, sizeof key, "%s", p);
      rec = 1;
      DBclKeySearch(h, key, &rec, mode);
      DBclGoNextKey(h, key, &rec);
    }
  }
  int32_t percent = 0;
  // Key arguments are key length bytes for binary keys: always hand over a
  // buffer as long as the longest key.
  char probe[300] = "M";
  DBclGetKeyPercent(h, &percent, probe, 0);
  DBclGetKeyAtPercent(h, 50, key, &rec);
  DBclGetCurrentKey(h, key, &rec);
  for (int i = 0; i < 40; ++i) {
    char k[300] = {};
    std::snprintf(k, 8, "K%03d", (i * 37) % 100);
    DBclAddKey(h, k, i + 1);
    if (i % 3 == 0) DBclDeleteKey(h, k, i + 1);
  }
  DBclFlushIndex(h);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool started = DBInitialize(32, 0) == 0;
  if (!started) return 0;
  FILE* f = std::fopen(FilePath().c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);

  kestrel::Vec<kestrel::ntx::CheckFinding> findings;
  kestrel::ntx::CheckSummary summary{};
  kestrel::ntx::CheckIndexFile(FilePath().c_str(), &findings, &summary);

  int32_t h = -1;
  if (DBclOpenIndex(&h, FilePath().c_str(), 0) >= 0) {
    Exercise(h);
    DBclCloseIndex(h);
  }
  std::remove(FilePath().c_str());
  return 0;
}
