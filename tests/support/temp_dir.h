// Test support: a temporary directory removed with everything in it, and
// small file helpers.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrel::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  // path()/name
  std::string File(const std::string& name) const;
  // The names in the directory, sorted.
  std::vector<std::string> Listing() const;

 private:
  std::string path_;
};

std::vector<uint8_t> ReadFileBytes(const std::string& path);
void WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes);
std::string ReadFileText(const std::string& path);
// The memos a fixture's expectation file lists (tests/fixtures/memo/*.tsv):
// one line per memo with the record number, the block and the text in hex.
struct ExpectedMemo {
  int recno;
  uint32_t block;
  std::string text;
};
std::vector<ExpectedMemo> ReadExpectedMemos(const std::string& relative);
// Copies a file from tests/fixtures (relative path) into dir; returns the new path.
std::string CopyFixture(const std::string& relative, const TempDir& dir,
                        const std::string& as = "");

}  // namespace kestrel::test
