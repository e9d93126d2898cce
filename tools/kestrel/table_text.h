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
  uint32_t record_count = 0;   // bytes 4..7, as the header claims it
  uint8_t code_page = 0;       // byte 29
};

// Reads the 32-byte header; nullopt when the file cannot be read or is shorter.
std::optional<TableHeaderFacts> ReadHeaderFacts(const std::string& path);

// The dialect a version byte suggests: 0x8B dBASE IV (2), 0xF5 FoxPro (8),
// everything else dBASE III (1) - the engine refuses what it cannot open.
int GuessDialect(uint8_t version);

// Why a table the engine refused is not read, when the tool can tell: the
// format of a newer or older family ("a Visual FoxPro table (0x30)") or a
// field type no dialect here has ("field ID has type '+' (autoincrement)").
// "" when the file looks like one of the dialects.
std::string DescribeUnsupportedTable(const std::string& path);

// Whole records a table file of `file_size` bytes holds after its header.
uint32_t RecordsInFile(uint64_t file_size, uint32_t header_length, uint32_t record_length);

// Prints "kestrel: <message>" to stderr and throws CLI::RuntimeError(1).
[[noreturn]] void FailWithMessage(const std::string& message);
// Prints "kestrel: warning: <message>" to stderr.
void Warn(const std::string& message);

// Adds the common "--dialect N" option to a command.
struct DialectOption {
  int value = -1;  // -1: guess from the version byte
};
void AddDialectOption(CLI::App* cmd, DialectOption* option);

// A table opened read-only and shared; closes on destruction. Open() prints the
// library message and throws (exit status 1) on failure.
//
// record_count() is the number of records the commands read: the header's
// count, or fewer when the file is too short to hold that many (the tool
// warns then, and short_file() is true), never more than the 2^31 - 1
// records a record number can name.
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
  uint32_t header_record_count() const { return header_record_count_; }
  bool short_file() const { return short_file_; }
  int dialect() const { return dialect_; }

 private:
  int32_t handle_ = -1;
  int dialect_ = 0;
  std::vector<DBFIELD> fields_;
  int32_t record_length_ = 0;
  int32_t record_count_ = 0;
  uint32_t header_record_count_ = 0;
  bool short_file_ = false;
};

// "C", "N", ... for letter types, "binary 4" style names for binary codes.
std::string FieldTypeName(int32_t type);

// A field value converted by the engine, in a neutral form the output
// formats render. Blank fields have kind kNull.
struct FieldValue {
  enum Kind { kNull, kText, kDigits, kBytes, kNumber, kInteger, kBool } kind = kNull;
  std::string text;     // kText: bytes as stored (C, raw binary as hex) or ISO date;
                        // kDigits: a stored number as normalised decimal text;
                        // kBytes: binary memo data
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

// The stored text of an N or F field as a number in its shortest exact
// form: blanks, a plus sign and leading zeros dropped, "0" before a bare
// point ("-.5" gives "-0.5"), the digits after the point kept as stored.
// nullopt when the text is not a decimal number.
std::optional<std::string> NormaliseNumber(const std::string& stored);

// Each byte as the code point of the same value, encoded as UTF-8.
std::string Latin1ToUtf8(const std::string& bytes);

}  // namespace kestrel::tool
