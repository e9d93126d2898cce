// Shared pieces of the table commands: dialect choice, the open table and
// field values in text form.
#include "table_text.h"

#include <cstdio>
#include <cstring>
#include <fstream>

namespace kestrel::tool {

namespace {

// Offsets of the table header facts the tool shows.
constexpr size_t kHeaderSize = 32;
constexpr size_t kVersionOffset = 0;
constexpr size_t kHeaderLengthOffset = 8;
constexpr size_t kRecordLengthOffset = 10;
constexpr size_t kCodePageOffset = 29;

uint16_t Load16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

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
  facts.header_length = Load16(header + kHeaderLengthOffset);
  facts.record_length = Load16(header + kRecordLengthOffset);
  facts.code_page = header[kCodePageOffset];
  return facts;
}

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
  if (rc < 0) FailToOpen(path, mode, rc);
  DBRECORDINFO info{};
  rc = DBGetRecordInfo(handle_, &info);
  if (rc >= 0) {
    record_length_ = info.record_length;
    fields_.resize(static_cast<size_t>(info.field_count));
    int32_t widest = 0;
    if (!fields_.empty()) rc = DBGetFileDescription(handle_, &widest, fields_.data());
  }
  if (rc >= 0) rc = DBGetRecordCount(handle_, &record_count_);
  if (rc < 0) {
    DBCloseFile(handle_);
    FailWithStatus("cannot describe " + path, rc);
  }
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
    case 'M': {
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
