// Fuzz target for the table reader: the input is a .DBF file followed by one
// byte that picks the dialect and the open mode.  The table is opened, every
// field of the first records is read in each form, a few records are
// written, and now and then the table is packed; a damaged file must give
// error statuses, never a crash, a hang or an out-of-bounds access.
//
//   build-fuzz/fuzz/fuzz_table -max_total_time=600 <corpus directory>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"

namespace {

constexpr int kMaxRecords = 200;

// A directory of this process's own: a pack writes its work table and
// backup beside the table.
const std::filesystem::path& Directory() {
  static const std::filesystem::path dir = [] {
    std::filesystem::path d = "/tmp/fuzz_table_" + std::to_string(getpid());
    std::filesystem::create_directories(d);
    return d;
  }();
  return dir;
}

void Exercise(int32_t h, uint8_t control) {
  DBFILEINFO file{};
  DBGetFileInfo(h, &file);
  DBRECORDINFO record{};
  if (DBGetRecordInfo(h, &record) < 0) return;
  int32_t count = record.field_count > 0 ? record.field_count : 0;
  std::vector<DBFIELD> fields(static_cast<size_t>(count) + 1);
  int32_t widest = 0;
  DBGetFileDescription(h, &widest, fields.data());
  // Room for the widest field in any form (text, date text, double).
  std::vector<char> value(70000);
  char last_update[32];
  DBGetLastUpdate(h, last_update, 1);
  uint32_t stored = 0;
  DBGetRecordCount(h, &stored);
  const int32_t records = stored > INT32_MAX ? INT32_MAX : static_cast<int32_t>(stored);
  for (int32_t r = 1; r <= records && r <= kMaxRecords; ++r) {
    if (DBGetRecord(h, r) < 0) continue;
    for (int32_t f = 0; f < count; ++f) {
      DBGetStrField(h, f, value.data());
      DBGetFieldData(h, f, value.data());
      DBIsFieldBlank(h, f);
    }
  }
  if (record.record_length > 0 && record.record_length < 70000) {
    DBGetRecordToBuffer(h, value.data(), records > 0 ? records : 1);
  }
  // A header may claim hundreds of millions of records the file does not
  // hold.  Appending then writes far out (a sparse file of that size) and a
  // pack copies every claimed record: work in proportion to the claim, not
  // a hang, and too slow for fuzzing, so such tables are only read.
  const bool modest = records <= 100000;
  DBClearBuffer(h);
  for (int32_t f = 0; f < count; ++f) DBPutStrField(h, f, "1");
  int32_t recno = 0;
  if (modest) DBPutRecord(h, &recno, DB_RECORD_APPEND);
  recno = 1;
  DBPutRecord(h, &recno, DB_RECORD_REPLACE);
  DBMarkRecordInActive(h, 1);
  DBMarkRecordActive(h, 1);
  int32_t cache = 4;
  DBGetSetCacheSize(h, &cache, 0);
  DBGetRecord(h, records > 2 ? records - 1 : 1);
  DBFlushFile(h);
  if (modest && (control & 0x80)) {
    int32_t packed = h;
    if (DBPackFile(&packed) >= 0) h = packed;
  }
  DBCloseFile(h);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool started = DBInitialize(32, 0) == 0;
  if (!started || size < 1) return 0;
  const uint8_t control = data[size - 1];
  const std::string path = (Directory() / "t.dbf").string();
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return 0;
  std::fwrite(data, 1, size - 1, f);
  std::fclose(f);
  int32_t mode = (control & 0x0F) % 10;
  if (control & 0x10) mode |= DB_OPEN_SHARED;
  if (control & 0x20) mode |= DB_OPEN_AUTOLOCK;
  int32_t h = -1;
  if (DBOpenFile(&h, path.c_str(), mode) >= 0) Exercise(h, control);
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(Directory(), ignored)) {
    std::filesystem::remove_all(entry.path(), ignored);
  }
  return 0;
}
