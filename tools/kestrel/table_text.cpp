// Shared pieces of the table commands: dialect choice, the open table and
// field values in text form.
#include "table_text.h"

#include <cctype>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <utility>

namespace kestrel::tool {

namespace {

// Offsets of the table header facts the tool shows.
constexpr size_t kHeaderSize = 32;
constexpr size_t kVersionOffset = 0;
constexpr size_t kRecordCountOffset = 4;
constexpr size_t kHeaderLengthOffset = 8;
constexpr size_t kRecordLengthOffset = 10;
constexpr size_t kCodePageOffset = 29;

uint16_t Load16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t Load32(const unsigned char* p) {
  return static_cast<uint32_t>(Load16(p)) | static_cast<uint32_t>(Load16(p + 2)) << 16;
}

std::string Hex(const unsigned char* bytes, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(n * 2);
  for (size_t i = 0; i < n; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 15];
  }
  return out;
}

[[noreturn]] void FieldFailure(const OpenTable& table, int index, int32_t rc) {
  FailWithStatus(std::string("field ") + table.fields()[index].name, rc);
}

}  // namespace

std::optional<TableHeaderFacts> ReadHeaderFacts(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char header[kHeaderSize];
  if (!in.read(reinterpret_cast<char*>(header), kHeaderSize)) return std::nullopt;
  TableHeaderFacts facts;
  facts.version = header[kVersionOffset];
  facts.record_count = Load32(header + kRecordCountOffset);
  facts.header_length = Load16(header + kHeaderLengthOffset);
  facts.record_length = Load16(header + kRecordLengthOffset);
  facts.code_page = header[kCodePageOffset];
  return facts;
}

uint32_t RecordsInFile(uint64_t file_size, uint32_t header_length, uint32_t record_length) {
  if (record_length == 0 || file_size <= header_length) return 0;
  uint64_t records = (file_size - header_length) / record_length;
  return records > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(records);
}

// Field types of other table families, with what they hold.
constexpr std::pair<unsigned char, const char*> kForeignTypes[] = {
    {'+', "autoincrement"}, {'@', "timestamp"}, {'O', "double"},           {'I', "integer"},
    {'Y', "currency"},      {'T', "datetime"},  {'B', "binary or double"}, {'V', "varchar"},
    {'Q', "varbinary"},     {'W', "blob"},      {'G', "general"},          {'P', "picture"},
    {'0', "null flags"}};

std::string DescribeUnsupportedTable(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  unsigned char header[kHeaderSize];
  if (!in.read(reinterpret_cast<char*>(header), kHeaderSize)) return "";
  const uint8_t version = header[kVersionOffset];
  const char* family = nullptr;
  switch (version) {
    case 0x02:
    case 0xFB:
      family = "a dBASE II or FoxBASE table";
      break;
    case 0x30:
    case 0x31:
    case 0x32:
      family = "a Visual FoxPro table";
      break;
    case 0x04:
    case 0x44:
    case 0x8C:
    case 0xCC:
      family = "a dBASE 7 table";
      break;
    case 0x43:
    case 0x63:
    case 0xCB:
    case 0xE3:
      family = "a dBASE IV SQL table";
      break;
    default:
      break;
  }
  char hex[8];
  std::snprintf(hex, sizeof hex, "0x%02X", version);
  if (family) return std::string(family) + " (" + hex + ")";
  // Field types of other families in a header of a known one.
  const uint16_t header_length = Load16(header + kHeaderLengthOffset);
  for (uint32_t at = kHeaderSize; at + kHeaderSize <= header_length; at += kHeaderSize) {
    unsigned char d[kHeaderSize];
    if (!in.read(reinterpret_cast<char*>(d), kHeaderSize) || d[0] == 0x0D) break;
    const unsigned char type = d[11];
    const char* meaning = nullptr;
    for (const auto& [code, name] : kForeignTypes) {
      if (code == type) meaning = name;
    }
    if (!meaning) continue;
    std::string name(reinterpret_cast<const char*>(d),
                     strnlen(reinterpret_cast<const char*>(d), 11));
    return std::string("a ") + hex + " table whose field " + name + " has type '" +
           static_cast<char>(type) + "' (" + meaning + ")";
  }
  return "";
}

void FailWithMessage(const std::string& message) {
  std::cerr << "kestrel: " << message << "\n";
  throw CLI::RuntimeError(1);
}

void Warn(const std::string& message) { std::cerr << "kestrel: warning: " << message << "\n"; }

int GuessDialect(uint8_t version) {
  switch (version) {
    case 0x8B:
      return DB_DIALECT_DBASE4;
    case 0xF5:
      return DB_DIALECT_FOXPRO;
    default:
      return DB_DIALECT_DBASE3;
  }
}

void AddDialectOption(CLI::App* cmd, DialectOption* option) {
  cmd->add_option("--dialect", option->value,
                  "Table dialect 0..9 (default: from the version byte: 0x8B dBASE IV = 2, "
                  "0xF5 FoxPro = 8, otherwise dBASE III = 1)")
      ->check(CLI::Range(0, 9));
}

OpenTable::OpenTable(const std::string& path, int dialect) : dialect_(dialect) {
  if (dialect_ < 0) {
    auto facts = ReadHeaderFacts(path);
    dialect_ = facts ? GuessDialect(facts->version) : DB_DIALECT_DBASE3;
  }
  // Read-only and shared: reading never keeps others from the table.
  const int32_t mode = dialect_ | DB_OPEN_READONLY | DB_OPEN_SHARED;
  int32_t rc = DBOpenFile(&handle_, path.c_str(), mode);
  if (rc == DB_ERR_VERSION || rc == DB_ERR_FIELD_TYPE) {
    // The engine's message names the dBASE III version whatever the file
    // is; say what the file is when the tool can tell.
    std::string what = DescribeUnsupportedTable(path);
    if (!what.empty()) {
      FailWithMessage("cannot open " + path + ": " + what + ": not supported (" +
                      std::to_string(rc) + ")");
    }
  }
  if (rc < 0) FailToOpen(path, mode, rc);
  DBRECORDINFO info{};
  rc = DBGetRecordInfo(handle_, &info);
  if (rc >= 0) {
    record_length_ = info.record_length;
    fields_.resize(static_cast<size_t>(info.field_count));
    int32_t widest = 0;
    if (!fields_.empty()) rc = DBGetFileDescription(handle_, &widest, fields_.data());
  }
  if (rc >= 0) rc = DBGetRecordCount(handle_, &header_record_count_);
  if (rc < 0) {
    DBCloseFile(handle_);
    FailWithStatus("cannot describe " + path, rc);
  }
  // A header may claim more records than the file holds (a damaged or cut
  // file): read the whole records that are there, and say so.
  uint32_t readable = header_record_count_;
  std::error_code ec;
  const uint64_t size = std::filesystem::file_size(path, ec);
  auto facts = ReadHeaderFacts(path);
  if (!ec && facts) {
    uint32_t held =
        RecordsInFile(size, facts->header_length, static_cast<uint32_t>(record_length_));
    if (held < readable) {
      short_file_ = true;
      Warn(path + ": the header claims " + std::to_string(header_record_count_) +
           " records, the file holds " + std::to_string(held) + "; reading those");
      readable = held;
    }
  }
  if (readable > static_cast<uint32_t>(INT32_MAX)) {
    short_file_ = true;
    Warn(path + ": " + std::to_string(readable) +
         " records; record numbers above 2147483647 cannot be read");
    readable = INT32_MAX;
  }
  record_count_ = static_cast<int32_t>(readable);
}

OpenTable::~OpenTable() {
  if (handle_ >= 0) DBCloseFile(handle_);
}

std::string FieldTypeName(int32_t type) {
  int code = type & 0xFF;
  if (code >= 'A' && code <= 'Z') return std::string(1, static_cast<char>(code));
  return "binary " + std::to_string(code);
}

void SetUpDateStyle() { DBSetDefaultDateStyle(DB_DATE_DBASE); }

FieldValue ReadFieldValue(const OpenTable& table, int index, const ValueOptions& options) {
  const DBFIELD& field = table.fields()[index];
  const int32_t handle = table.handle();
  const size_t length = field.length > 0 ? static_cast<size_t>(field.length) : 0;
  FieldValue value;
  int32_t rc = 0;
  switch (field.type & 0xFF) {
    case 'C': {
      std::vector<char> text(length + 1);
      rc = DBGetFieldData(handle, index, text.data());
      if (rc < 0) FieldFailure(table, index, rc);
      value.kind = FieldValue::kText;
      value.text.assign(text.data(), length);
      if (!options.keep_blanks) {
        size_t end = value.text.find_last_not_of(' ');
        value.text.erase(end == std::string::npos ? 0 : end + 1);
      }
      return value;
    }
    case 'N':
    case 'F': {
      double number = 0;
      rc = DBGetFieldData(handle, index, &number);
      if (rc < 0) FieldFailure(table, index, rc);
      if (rc == DB_WARN_FIELD_EMPTY) return value;
      // The stored digits are the value: a double keeps only about 17 of
      // the 20 an N field holds.
      std::vector<char> raw(length + 1);
      rc = DBGetStrField(handle, index, raw.data());
      if (rc < 0) FieldFailure(table, index, rc);
      if (auto digits = NormaliseNumber(std::string(raw.data(), length))) {
        value.kind = FieldValue::kDigits;
        value.text = *digits;
        return value;
      }
      // Not a decimal number: what the engine's conversion makes of it.
      value.kind = FieldValue::kNumber;
      value.number = number;
      value.decimals = field.decimals;
      return value;
    }
    case 'D': {
      char text[DB_DATE_STR_SIZE + 1] = {};
      rc = DBGetFieldData(handle, index, text);
      if (rc == DB_WARN_FIELD_EMPTY) return value;
      value.kind = FieldValue::kText;
      if (rc < 0 || std::strlen(text) != 8) {
        // Not a date the engine can read: show the stored characters.
        std::vector<char> raw(length + 1);
        rc = DBGetStrField(handle, index, raw.data());
        if (rc < 0) FieldFailure(table, index, rc);
        value.text.assign(raw.data(), length);
        return value;
      }
      value.text =
          std::string(text, 4) + "-" + std::string(text + 4, 2) + "-" + std::string(text + 6, 2);
      return value;
    }
    case 'L': {
      uint8_t flag = 2;  // stays 2 for a byte that is neither true nor false
      rc = DBGetFieldData(handle, index, &flag);
      if (rc < 0) FieldFailure(table, index, rc);
      if (rc == DB_WARN_FIELD_EMPTY || flag > 1) return value;
      value.kind = FieldValue::kBool;
      value.flag = flag == 1;
      return value;
    }
    case 'M':
    case 'G': {  // G: FoxPro general fields, memo references as M
      uint32_t block = 0;
      rc = DBGetFieldData(handle, index, &block);
      if (rc < 0) FieldFailure(table, index, rc);
      if (rc == DB_WARN_FIELD_EMPTY) return value;
      value.kind = FieldValue::kInteger;
      value.integer = block;
      return value;
    }
    default:
      break;
  }
  // Binary codes: the engine copies the raw bytes; show the native ones as
  // numbers and the others as hex.
  std::vector<unsigned char> raw(length + 8);
  rc = DBGetFieldBinary(handle, index, raw.data());
  if (rc < 0) FieldFailure(table, index, rc);
  const unsigned char* p = raw.data();
  switch (field.type & 0xFF) {
    case DB_FTYPE_DOUBLE:
      if (length == sizeof(double)) {
        std::memcpy(&value.number, p, sizeof(double));
        value.kind = FieldValue::kNumber;
        value.decimals = -1;
        return value;
      }
      break;
    case DB_FTYPE_FLOAT:
      if (length == sizeof(float)) {
        float f;
        std::memcpy(&f, p, sizeof f);
        value.number = f;
        value.kind = FieldValue::kNumber;
        value.decimals = -1;
        return value;
      }
      break;
    case DB_FTYPE_ULONG:
    case DB_FTYPE_LONG:
      if (length == 4) {
        uint32_t u = static_cast<uint32_t>(p[0] | p[1] << 8 | p[2] << 16) |
                     static_cast<uint32_t>(p[3]) << 24;
        value.integer = (field.type & 0xFF) == DB_FTYPE_LONG
                            ? static_cast<int64_t>(static_cast<int32_t>(u))
                            : static_cast<int64_t>(u);
        value.kind = FieldValue::kInteger;
        return value;
      }
      break;
    case DB_FTYPE_USHORT:
    case DB_FTYPE_SHORT:
      if (length == 2) {
        uint16_t u = Load16(p);
        value.integer = (field.type & 0xFF) == DB_FTYPE_SHORT
                            ? static_cast<int64_t>(static_cast<int16_t>(u))
                            : static_cast<int64_t>(u);
        value.kind = FieldValue::kInteger;
        return value;
      }
      break;
    default:
      break;
  }
  value.kind = FieldValue::kText;
  value.text = Hex(p, length);
  return value;
}

std::optional<std::string> NormaliseNumber(const std::string& stored) {
  size_t i = 0, end = stored.size();
  // Blanks around the number; some writers pad with zero bytes instead.
  while (i < end && (stored[i] == ' ' || stored[i] == '\0')) ++i;
  while (end > i && (stored[end - 1] == ' ' || stored[end - 1] == '\0')) --end;
  std::string out;
  if (i < end && (stored[i] == '-' || stored[i] == '+')) {
    if (stored[i] == '-') out += '-';
    ++i;
  }
  size_t int_start = i;
  while (i < end && std::isdigit(static_cast<unsigned char>(stored[i]))) ++i;
  std::string whole = stored.substr(int_start, i - int_start);
  std::string fraction;
  bool point = false;
  if (i < end && stored[i] == '.') {
    point = true;
    size_t frac_start = ++i;
    while (i < end && std::isdigit(static_cast<unsigned char>(stored[i]))) ++i;
    fraction = stored.substr(frac_start, i - frac_start);
  }
  if (whole.empty() && fraction.empty()) return std::nullopt;
  std::string exponent;
  if (i < end && (stored[i] == 'e' || stored[i] == 'E')) {
    size_t at = i++;
    if (i < end && (stored[i] == '-' || stored[i] == '+')) ++i;
    size_t digits = i;
    while (i < end && std::isdigit(static_cast<unsigned char>(stored[i]))) ++i;
    if (i == digits) return std::nullopt;
    exponent = "e" + stored.substr(at + 1, i - at - 1);
  }
  if (i != end) return std::nullopt;
  size_t zeros = whole.find_first_not_of('0');
  whole = zeros == std::string::npos ? "0" : whole.substr(zeros);
  out += whole;
  if (point && !fraction.empty()) out += "." + fraction;
  return out + exponent;
}

std::string Latin1ToUtf8(const std::string& bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (unsigned char c : bytes) {
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

}  // namespace kestrel::tool
