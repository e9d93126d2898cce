// Fuzz target: arbitrary text evaluated as a key expression against a small
// table with one field of each kind, with two user keywords registered (one
// that reads arguments).  Every input must evaluate or fail with a status;
// no crash, no out-of-bounds access, and no block left allocated.
//
//   CC=clang CXX=clang++ cmake -S . -B build-fuzz -DKESTREL_BUILD_FUZZ=ON
//   cmake --build build-fuzz --target fuzz_expr
//   build-fuzz/fuzz/fuzz_expr -max_total_time=180 fuzz/corpus/expr
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"
#include "runtime/memory.h"

namespace {

int32_t g_table = -1;

int32_t Constant(DBEXPRVALUE* current) {
  if (DBAllocateMemory(&current->value, 3) < 0) return DB_ERR_MEMORY;
  std::memcpy(current->value, "KW", 3);
  current->type = 'C';
  current->length = 2;
  return 0;
}

// PAD(expr,n): the argument's text cut or padded to n characters.
int32_t Pad(DBEXPRVALUE* current) {
  int32_t rc = DBProcessTable();
  if (rc < 0) return rc;
  uint16_t width = 0;
  rc = DBGetValue(&width);
  if (rc < 0) return rc;
  if (current->type != 'C') return DB_ERR_BAD_EXPRESSION;
  void* buffer = nullptr;
  if (DBAllocateMemory(&buffer, width + 1u) < 0) return DB_ERR_MEMORY;
  std::memset(buffer, '.', width);
  size_t keep = current->length < width ? static_cast<size_t>(current->length) : width;
  std::memcpy(buffer, current->value, keep);
  DBFreeMemory(current->value);
  current->value = buffer;
  current->length = static_cast<int16_t>(width);
  return 0;
}

DBFIELD Field(const char* name, int type, int length, int decimals = 0) {
  DBFIELD f{};
  std::strncpy(f.name, name, sizeof f.name - 1);
  f.type = type;
  f.length = length;
  f.decimals = decimals;
  return f;
}

void SetUpOnce() {
  char dir[] = "/tmp/kestrel-fuzz-expr-XXXXXX";
  if (!mkdtemp(dir)) std::abort();
  std::string path = std::string(dir) + "/t.dbf";
  DBInitialize(40, 2);
  std::vector<DBFIELD> fields = {Field("NAME", 'C', 12),  Field("AMOUNT", 'N', 10, 2),
                                 Field("HIRED", 'D', 8),  Field("OK", 'L', 1),
                                 Field("NOTES", 'M', 10), Field("Q1", 3, 4),
                                 Field("S1", 5, 2),       Field("F1", 2, 4)};
  if (DBCreateFile(path.c_str(), static_cast<int32_t>(fields.size()), fields.data(), 1) != 0) {
    std::abort();
  }
  if (DBOpenFile(&g_table, path.c_str(), 1) != 0) std::abort();
  DBPutNamedStr(g_table, "NAME", "SMITH");
  double amount = 1234.56;
  DBPutNamedData(g_table, "AMOUNT", &amount);
  DBPutNamedData(g_table, "HIRED", "07/15/03");
  uint32_t q = 7;
  DBPutNamedData(g_table, "Q1", &q);
  int32_t recno = 0;
  DBPutRecord(g_table, &recno, 0);
  DBClearBuffer(g_table);  // record 2: every field blank
  DBPutRecord(g_table, &recno, 0);
  DBAddParseEntry("KW", Constant);
  DBAddParseEntry("PAD(", Pad);
  // The file stays open for the process's life; the directory is left to
  // the system's temporary-file cleanup.
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool ready = (SetUpOnce(), true);
  (void)ready;
  if (size > 4096) return 0;
  // A leading byte 0x01 selects the blank record; 0x02 and a count make
  // that allocation of the evaluation fail.  The rest is the text.
  bool blank = size > 0 && data[0] == 0x01;
  long fail_at = size > 1 && data[0] == 0x02 ? 1 + data[1] % 8 : 0;
  size_t skip = blank ? 1 : fail_at ? 2 : 0;
  int32_t recno = blank ? 2 : 1;
  std::vector<char> text(data + skip, data + size);
  text.push_back('\0');
  DBGetRecord(g_table, recno);
  long live = kestrel::testing::LiveAllocations();
  DBEXPRVALUE value{};
  kestrel::testing::FailAllocation(fail_at);
  int32_t rc = DBEvaluateStr(g_table, text.data(), &value);
  kestrel::testing::FailAllocation(0);
  if (rc < 0) {
    if (value.value != nullptr) std::abort();
  } else {
    if (value.value == nullptr) std::abort();
    if ((value.type == 'C' || value.type == 'D') &&
        static_cast<const char*>(value.value)[value.length] != '\0') {
      std::abort();
    }
    DBFreeMemory(value.value);
  }
  if (kestrel::testing::LiveAllocations() != live) std::abort();
  return 0;
}
