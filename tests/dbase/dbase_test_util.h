// Shared helpers of the dBASE index tests: a fixture with a started library
// and a temporary directory, index creation, full walks and the checker.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "index/dbase/dbase_check.h"
#include "kestrel/kestrel.h"
#include "support/temp_dir.h"

namespace kestrel::test {

using KeyList = std::vector<std::pair<std::string, uint32_t>>;

class DbaseTest : public ::testing::Test {
 public:
  void SetUp() override { ASSERT_EQ(DBInitialize(64, 0), 0); }
  void TearDown() override { DBTerminate(); }

  // Creates an .NDX file and opens it; returns the handle.
  int32_t CreateNdx(const std::string& name, int32_t type, int32_t length,
                    const char* expression = "NAME", int32_t mode = 0) {
    std::string path = dir_.File(name);
    std::string expr = expression;
    EXPECT_EQ(DBd3CreateIndex(path.c_str(), type, expr.data(), length), 0);
    int32_t h = -1;
    EXPECT_EQ(DBd3OpenIndex(&h, path.c_str(), mode), 0);
    return h;
  }

  // Every key in index order, read with first / next.
  static KeyList Walk(int32_t h, int key_length) {
    KeyList out;
    std::string key(key_length + 1, '\0');
    int32_t rec = 0;
    int32_t rc = DBd4GoFirstKey(h, key.data(), &rec);
    while (rc == 0) {
      out.emplace_back(std::string(key.data(), key_length), static_cast<uint32_t>(rec));
      rc = DBd4GoNextKey(h, key.data(), &rec);
    }
    EXPECT_TRUE(rc == DB_WARN_NO_MORE_KEYS || rc == DB_WARN_FILE_EMPTY) << rc;
    return out;
  }

  // The checker's faults on an open index or a file, one per line; empty
  // when the index is sound.
  static std::string Faults(int32_t h, index::CheckSummary* summary = nullptr) {
    Vec<index::CheckFinding> findings;
    index::CheckSummary s{};
    return Text(dbase::CheckIndexHandle(h, &findings, summary ? summary : &s), findings);
  }
  static std::string FileFaults(const std::string& path, index::CheckSummary* summary = nullptr) {
    Vec<index::CheckFinding> findings;
    index::CheckSummary s{};
    return Text(index::CheckFileWith(path.c_str(), &dbase::CheckNdxFile, &findings,
                                     summary ? summary : &s),
                findings);
  }
  static std::string Text(int32_t rc, const Vec<index::CheckFinding>& findings) {
    std::string text = rc < 0 ? "check failed " + std::to_string(rc) + "\n" : "";
    for (const auto& f : findings) {
      if (f.severity == index::Severity::kFault)
        text += std::to_string(f.page) + ": " + f.text + "\n";
    }
    return text;
  }

  TempDir dir_;
};

}  // namespace kestrel::test
