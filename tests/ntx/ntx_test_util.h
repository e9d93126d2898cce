// Shared helpers of the .NTX tests: a fixture with a started library and a
// temporary directory, index creation, full walks and the invariant checker.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "index/clipper/ntx_check.h"
#include "kestrel/kestrel.h"
#include "support/library.h"

namespace kestrel::test {

using KeyList = std::vector<std::pair<std::string, uint32_t>>;

class NtxTest : public LibraryTestOf<64> {
 public:
  // Creates an index and opens it; returns the handle.
  int32_t CreateOpen(const std::string& name, int32_t type, int32_t length, int32_t decimals = 0,
                     const char* expression = "NAME", int32_t mode = 0) {
    std::string path = dir_.File(name);
    std::string expr = expression;
    EXPECT_EQ(DBclCreateIndex(path.c_str(), type, expr.data(), length, decimals), 0);
    int32_t h = -1;
    EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), mode), 0);
    return h;
  }

  // Every key in index order, read with first / next.
  static KeyList Walk(int32_t h, int key_length) {
    KeyList out;
    std::string key(key_length + 1, '\0');
    int32_t rec = 0;
    int32_t rc = DBclGoFirstKey(h, key.data(), &rec);
    while (rc == 0) {
      out.emplace_back(std::string(key.data(), key_length), static_cast<uint32_t>(rec));
      rc = DBclGoNextKey(h, key.data(), &rec);
    }
    EXPECT_TRUE(rc == DB_WARN_NO_MORE_KEYS || rc == DB_WARN_FILE_EMPTY) << rc;
    return out;
  }

  // Findings of the checker on an open index (Findings) or a file
  // (FileFindings), one per line; empty when the index is sound.
  static std::string Findings(int32_t h, ntx::CheckSummary* summary = nullptr) {
    Vec<ntx::CheckFinding> findings;
    ntx::CheckSummary s{};
    return Text(ntx::CheckIndexHandle(h, &findings, summary ? summary : &s), findings);
  }
  static std::string FileFindings(const std::string& path, ntx::CheckSummary* summary = nullptr) {
    Vec<ntx::CheckFinding> findings;
    ntx::CheckSummary s{};
    return Text(ntx::CheckIndexFile(path.c_str(), &findings, summary ? summary : &s), findings);
  }
  static std::string Text(int32_t rc, const Vec<ntx::CheckFinding>& findings) {
    std::string text = rc < 0 ? "check failed " + std::to_string(rc) + "\n" : "";
    for (const auto& f : findings) text += std::to_string(f.page) + ": " + f.text + "\n";
    return text;
  }
};

}  // namespace kestrel::test
