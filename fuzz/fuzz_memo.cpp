// Fuzz target for the memo readers: the input is a memo file followed by one
// byte that picks the layout (plain or dBASE IV .DBT, .FPT) and the open
// mode.  Memos at small and hostile block numbers are read in every way the
// format offers, and one is appended and one replaced; a damaged file must
// give error statuses, never a crash, a hang or an out-of-bounds access.
//
//   build-fuzz/fuzz/fuzz_memo -max_total_time=600 <corpus directory>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "kestrel/kestrel.h"

namespace {

const uint32_t kBlocks[] = {0, 1, 2, 3, 4, 5, 8, 9, 16, 17, 64, 1000, 0x7FFFFFFF, 0xFFFFFFFF};

void ExerciseDbt(int32_t h) {
  for (uint32_t block : kBlocks) {
    for (int32_t option : {0, 256}) {
      char* text = nullptr;
      DBxbGetMemoRecord(h, block, &text, option);
      if (text) DBFreeMemory(text);
    }
    char* bytes = nullptr;
    uint32_t length = 0;
    DBxbGetMemoBytes(h, block, &bytes, &length);
    if (bytes) DBFreeMemory(bytes);
  }
  DBXBMEMOINFO info{};
  DBxbGetMemoInfo(h, &info);
  uint32_t block = 0;
  DBxbPutMemoRecord(h, &block, "appended text", 0);
  block = 1;
  DBxbPutMemoRecord(h, &block, std::string(700, 'r').c_str(), DB_MEMO_REPLACE);
  DBxbGetMemoHeader(h);
}

void ExerciseFpt(int32_t h) {
  char buffer[256];
  for (uint32_t block : kBlocks) {
    uint32_t length = 0;
    int32_t type = 0;
    DBfpGetMemoType(h, block, &length, &type);
    char* data = nullptr;
    DBfpGetMemoRecord(h, block, &data, 100000, 0);
    DBfpGetMemoToBuffer(h, block, buffer, sizeof buffer, 0);
    char* bytes = nullptr;
    if (DBfpGetMemoBytes(h, block, &bytes, &length, &type) >= 0) DBFreeMemory(bytes);
    // In pieces: a bounded number of them.
    for (int piece = 0; piece < 8; ++piece) {
      if (DBfpGetMemoRecord(h, block, &data, 64, DB_FPT_PIECES) != 1) break;
    }
  }
  DBFPMEMOINFO info{};
  DBfpGetMemoInfo(h, &info);
  DBFPMEMOHEADER header{};
  DBfpGetMemoHeader(h, &header);
  uint32_t block = 0;
  const std::string text(300, 't');
  DBfpPutMemoRecord(h, &block, text.data(), static_cast<uint32_t>(text.size()), 0, 0);
  block = 8;
  DBfpPutMemoRecord(h, &block, text.data(), 100, 0, DB_MEMO_REPLACE);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool started = DBInitialize(32, 0) == 0;
  if (!started || size < 1) return 0;
  const uint8_t control = data[size - 1];
  const bool fpt = (control % 3) == 2;
  const std::string path = "/tmp/fuzz_memo_" + std::to_string(getpid()) + (fpt ? ".fpt" : ".dbt");
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size - 1, f);
  std::fclose(f);
  const int32_t shared = (control & 0x10) ? DB_OPEN_SHARED | DB_OPEN_AUTOLOCK : 0;
  int32_t h = -1;
  if (fpt) {
    if (DBfpOpenMemo(&h, path.c_str(), shared) >= 0) {
      ExerciseFpt(h);
      DBfpCloseMemo(h);
    }
  } else {
    const int32_t dialect = (control % 3) == 1 ? 2 : 1;
    if (DBxbOpenMemo(&h, path.c_str(), dialect | shared) >= 0) {
      ExerciseDbt(h);
      DBxbCloseMemo(h);
    }
  }
  std::remove(path.c_str());
  return 0;
}
