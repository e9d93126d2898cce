// Shared pieces of the table commands (info, dump): choosing the dialect a
// table is opened with, an open table that closes itself, and the text form
// of field types and values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "command.h"
#include "kestrel/kestrel.h"

namespace kestrel::tool {

// The first bytes of a table file as the tool reads them itself, to guess
// the dialect and to show what the engine does not report.
struct TableHeaderFacts {
  uint8_t version = 0;         // byte 0
  uint16_t header_length = 0;  // bytes 8..9
  uint16_t record_length = 0;  // bytes 10..11
  uint8_t code_page = 0;       // byte 29
};

// Reads the 32-byte header; nullopt when the file cannot be read or is shorter.
std::optional<TableHeaderFacts> ReadHeaderFacts(const std::string& path);

// The dialect a version byte suggests: 0x8B dBASE IV (2), 0xF5 FoxPro (8),
// everything else dBASE III (1) - the engine refuses what it cannot open.
int GuessDialect(uint8_t version);

// Adds the common "--dialect N" option to a command.
struct DialectOption {
  int value = -1;  // -1: guess from the version byte
};
void AddDialectOption(CLI::App* cmd, DialectOption* option);

// A table opened read-only and shared; closes on destruction. Open() prints the
// library message and throws (exit status 1) on failure.
class OpenTable {
 public:
  OpenTable(const std::string& path, int dialect);
  ~OpenTable();
  OpenTable(const OpenTable&) = delete;
  OpenTable& operator=(const OpenTable&) = delete;

  int32_t handle() const { return handle_; }
  const std::vector<DBFIELD>& fields() const { return fields_; }
  int32_t record_length() const { return record_length_; }
  int32_t record_count() const { return record_count_; }
  int dialect() const { return dialect_; }

 private:
  int32_t handle_ = -1;
  int dialect_ = 0;
  std::vector<DBFIELD> fields_;
  int32_t record_length_ = 0;
  int32_t record_count_ = 0;
};

// "C", "N", ... for letter types, "binary 4" style names for binary codes.
std::string FieldTypeName(int32_t type);

// A field value converted by the engine, in a neutral form the output
// formats render. Blank fields have kind kNull.
struct FieldValue {
  enum Kind { kNull, kText, kNumber, kInteger, kBool } kind = kNull;
  std::string text;     // kText: bytes as stored (C, raw binary as hex) or ISO date
  double number = 0;    // kNumber
  int64_t integer = 0;  // kInteger
  bool flag = false;    // kBool
  int decimals = 0;     // kNumber: digits after the point to print
};

struct ValueOptions {
  bool keep_blanks = false;  // keep the trailing blanks of C fields
};

// Converts field `index` of the current record. Date fields need the
// default date style set to yyyymmdd (SetUpDateStyle). Throws on error.
FieldValue ReadFieldValue(const OpenTable& table, int index, const ValueOptions& options);
void SetUpDateStyle();

// Each byte as the code point of the same value, encoded as UTF-8.
std::string Latin1ToUtf8(const std::string& bytes);

}  // namespace kestrel::tool
