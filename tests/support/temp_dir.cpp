#include "support/temp_dir.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace kestrel::test {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/kestrel-test-XXXXXX";
  std::vector<char> buf(pattern.begin(), pattern.end());
  buf.push_back('\0');
  if (!::mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::File(const std::string& name) const { return path_ + "/" + name; }

std::vector<std::string> TempDir::Listing() const {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<uint8_t> ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

std::string ReadFileText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string CopyFixture(const std::string& relative, const TempDir& dir, const std::string& as) {
  std::filesystem::path src = std::filesystem::path(KESTREL_TEST_FIXTURES) / relative;
  std::string dest = dir.File(as.empty() ? src.filename().string() : as);
  std::filesystem::copy_file(src, dest, std::filesystem::copy_options::overwrite_existing);
  std::filesystem::permissions(
      dest, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write,
      std::filesystem::perm_options::add);
  return dest;
}

std::vector<ExpectedMemo> ReadExpectedMemos(const std::string& relative) {
  std::vector<ExpectedMemo> out;
  std::ifstream in(std::string(KESTREL_TEST_FIXTURES) + "/" + relative);
  for (std::string line; std::getline(in, line);) {
    std::istringstream fields(line);
    ExpectedMemo memo{0, 0, {}};
    std::string hex;
    fields >> memo.recno >> memo.block >> hex;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
      memo.text.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    out.push_back(std::move(memo));
  }
  return out;
}

}  // namespace kestrel::test
