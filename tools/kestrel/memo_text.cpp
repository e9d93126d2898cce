// Memo text for the table commands (memo_text.h).
#include "memo_text.h"

#include <cctype>
#include <filesystem>
#include <vector>

#include "kestrel/kestrel.h"

namespace kestrel::tool {
namespace {

std::string WithExtension(const std::string& path, const std::string& upper_ext, bool lower) {
  size_t slash = path.find_last_of("/\\:");
  size_t dot = path.find_last_of('.');
  std::string stem = (dot == std::string::npos || (slash != std::string::npos && dot < slash))
                         ? path
                         : path.substr(0, dot);
  std::string ext = upper_ext;
  if (lower) {
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return stem + ext;
}

bool LowerCaseExtension(const std::string& path) {
  size_t slash = path.find_last_of("/\\:");
  size_t dot = path.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return false;
  bool lower = false;
  for (size_t i = dot + 1; i < path.size(); ++i) {
    if (std::isupper(static_cast<unsigned char>(path[i]))) return false;
    if (std::islower(static_cast<unsigned char>(path[i]))) lower = true;
  }
  return lower;
}

bool IsFptDialect(int dialect) { return dialect == 4 || dialect == 8; }

}  // namespace

namespace {
std::vector<std::string> MemoFileCandidates(const std::string& table_path, int dialect) {
  bool lower = LowerCaseExtension(table_path);
  std::vector<std::string> exts;
  if (IsFptDialect(dialect)) {
    exts = {".FPT"};
  } else if (dialect == 3) {
    exts = {".FBT", ".DBT"};
  } else {
    exts = {".DBT"};
  }
  std::vector<std::string> names;
  for (const std::string& ext : exts) {
    for (bool case_ : {lower, !lower}) names.push_back(WithExtension(table_path, ext, case_));
  }
  return names;
}
}  // namespace

std::string FindMemoFile(const std::string& table_path, int dialect) {
  for (const std::string& candidate : MemoFileCandidates(table_path, dialect)) {
    std::error_code ec;
    if (std::filesystem::is_regular_file(candidate, ec)) return candidate;
  }
  return "";
}

std::string FindMemoFileNames(const std::string& table_path, int dialect) {
  std::string out;
  for (const std::string& candidate : MemoFileCandidates(table_path, dialect)) {
    out += (out.empty() ? "" : ", ") + candidate;
  }
  return out;
}

MemoReader::~MemoReader() {
  if (handle_ < 0) return;
  if (fpt_) {
    DBfpCloseMemo(handle_);
  } else {
    DBxbCloseMemo(handle_);
  }
}

int32_t MemoReader::Open(const std::string& table_path, int dialect) {
  path_ = FindMemoFile(table_path, dialect);
  if (path_.empty()) return DBSetErrorCode(DB_ERR_NOT_FOUND);
  fpt_ = IsFptDialect(dialect);
  const int32_t switches = DB_OPEN_READONLY | DB_OPEN_SHARED;
  if (fpt_) return DBfpOpenMemo(&handle_, path_.c_str(), switches);
  // The DBT layouts: dBASE IV (2) has block headers, the others are plain.
  int memo_dialect = dialect == 2 ? 2 : (dialect == 0 || dialect >= 8 ? 1 : dialect);
  if (memo_dialect == 4) memo_dialect = 1;
  return DBxbOpenMemo(&handle_, path_.c_str(), switches | memo_dialect);
}

int32_t MemoReader::Read(uint32_t block, std::string* bytes, bool* picture) {
  bytes->clear();
  if (picture) *picture = false;
  if (block == 0) return 0;
  if (handle_ < 0) return DBSetErrorCode(DB_ERR_INVALID_HANDLE);
  char* data = nullptr;
  uint32_t length = 0;
  int32_t type = DB_FPT_TYPE_TEXT;
  int32_t rc = fpt_ ? DBfpGetMemoBytes(handle_, block, &data, &length, &type)
                    : DBxbGetMemoBytes(handle_, block, &data, &length);
  if (rc < 0) return rc;
  bytes->assign(data, length);
  DBFreeMemory(data);
  if (picture) *picture = type == DB_FPT_TYPE_PICTURE;
  return 0;
}

int32_t MemoReader::ReadField(int32_t table_handle, int32_t field, std::string* bytes,
                              bool* picture) {
  bytes->clear();
  if (picture) *picture = false;
  uint32_t block = 0;
  int32_t rc = DBGetFieldData(table_handle, field, &block);
  if (rc < 0) return rc;
  if (rc == DB_WARN_FIELD_EMPTY) return 0;
  return Read(block, bytes, picture);
}

bool IsMemoField(int32_t type) { return (type & 0xFF) == 'M' || (type & 0xFF) == 'G'; }

bool IsBinaryMemo(const std::string& bytes, bool picture, int32_t field_type) {
  return picture || (field_type & 0xFF) == 'G' || bytes.find('\0') != std::string::npos;
}

}  // namespace kestrel::tool
