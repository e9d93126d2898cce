// Fuzz target for the FoxPro index reader: the input is an IDX or CDX file.
// It is checked, its tag directory listed, every tag opened, walked both
// ways, searched in every mode and positioned by percentage; a damaged file
// must give error statuses, never a crash, a hang or an out-of-bounds access.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "index/common/checker.h"
#include "index/foxpro/fox_check.h"
#include "kestrel/kestrel.h"

namespace {

constexpr int kMaxSteps = 5000;

const std::string& FilePath() {
  static const std::string path = "/tmp/fuzz_fox_" + std::to_string(getpid()) + ".cdx";
  return path;
}

void Exercise(int32_t tag) {
  char key[300];
  int32_t rec = 0;
  int steps = 0;
  for (int32_t rc = DBfpGoFirstKey(tag, key, &rec); rc == 0 && steps < kMaxSteps; ++steps)
    rc = DBfpGoNextKey(tag, key, &rec);
  steps = 0;
  for (int32_t rc = DBfpGoLastKey(tag, key, &rec); rc == 0 && steps < kMaxSteps; ++steps)
    rc = DBfpGoPreviousKey(tag, key, &rec);
  const char* probes[] = {"", "A", "M", "ZZZZ", "0"};
  for (int mode : {1, 2, 11, 12, 13, 14, 15, 1 | 64}) {
    for (const char* p : probes) {
      std::memset(key, 0, sizeof key);
      std::snprintf(key, sizeof key, "%s", p);
      rec = 1;
      DBfpKeySearch(tag, key, &rec, mode);
      DBfpGoNextKey(tag, key, &rec);
    }
  }
  int32_t percent = 0;
  char probe[300] = "M";
  DBfpGetKeyPercent(tag, &percent, probe, 3);
  DBfpGetKeyAtPercent(tag, 50, key, &rec);
  DBfpGetCurrentKey(tag, key, &rec);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool initialised = false;
  if (!initialised) {
    DBInitialize(40, 0);
    initialised = true;
  }
  const std::string& path = FilePath();
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  kestrel::Vec<kestrel::index::CheckFinding> findings;
  kestrel::index::CheckSummary summary{};
  kestrel::index::CheckFileWith(path.c_str(), &kestrel::foxpro::CheckOpenFile, &findings,
                                &summary);
  int32_t ix = -1;
  if (DBfpOpenIndex(&ix, path.c_str(), DB_OPEN_READONLY) == 0) {
    DBFPTAGINFO* list = nullptr;
    int32_t count = 0;
    if (DBfpGetAllTagInfo(ix, &list, &count) == 0) DBFreeMemory(list);
    if (count == 0) {
      DBfpSetDefaultKeyType(ix, 'C');
      Exercise(ix);
    }
    for (int32_t n = 1; n <= count && n <= 64; ++n) {
      int32_t tag = -1;
      if (DBfpOpenTag(&tag, ix, n) != 0) continue;
      DBfpSetDefaultKeyType(tag, n % 2 ? 'C' : 'N');
      Exercise(tag);
      DBfpCloseTag(tag);
    }
    DBfpCloseIndex(ix);
  }
  return 0;
}
