// The build's work file (see work_file.h).
#include "index/common/work_file.h"

#include <cstring>

#include "runtime/file_services.h"

namespace kestrel::index {
namespace {
constexpr char kWorkSuffix[] = ".TMP";
}  // namespace

WorkFile::~WorkFile() {
  if (pending_) {
    // A failure here must not replace the build's own status.
    int32_t code = ErrorCode();
    FileDelete(name_.data());
    Record(code);
  }
}

int32_t WorkFile::Create(const char* target) {
  target_ = target;
  size_t length = std::strlen(target);
  Vec<char> prefix(target, target + length);
  prefix.push_back('.');
  prefix.push_back('\0');
  name_.assign(prefix.size() + sizeof kWorkSuffix + 32, '\0');
  FileHandle file = kNoFile;
  uint32_t sequence = 0;
  Succeed();
  int32_t rc =
      FileCreateUnique(&file, prefix.data(), kWorkSuffix, &sequence, name_.data(), name_.size());
  if (rc < 0) {
    name_.clear();
    return KS_PASS(module_, rc);
  }
  FileClose(file);
  pending_ = true;
  return 0;
}

int32_t WorkFile::Replace() {
  Succeed();
  int32_t rc = FileReplace(target_, name_.data());
  if (rc < 0) return KS_PASS(module_, rc);
  pending_ = false;
  return 0;
}

}  // namespace kestrel::index
