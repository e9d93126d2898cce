// Shared fixture of the table tests: the library (20 slots) with a
// temporary directory, and helpers to create tables.
#pragma once

#include "support/library.h"

namespace kestrel::test {

class TableTest : public LibraryTest {
 protected:
  TableTest() : LibraryTest(25) {}
  void SetUp() override {
    LibraryTest::SetUp();
    live_at_start_ = kestrel::testing::LiveAllocations();
  }

  // Creates `name` in the temp dir and returns its path.
  std::string Create(const std::string& name, std::vector<DBFIELD>&& fields, int32_t dialect) {
    return Create(name, fields, dialect);
  }
  // Creates from the caller's list, which the library normalises in place.
  std::string Create(const std::string& name, std::vector<DBFIELD>& fields, int32_t dialect) {
    std::string path = dir_.File(name);
    EXPECT_EQ(
        DBCreateFile(path.c_str(), static_cast<int32_t>(fields.size()), fields.data(), dialect), 0);
    return path;
  }
  // Every slot free and no library memory beyond what was live at SetUp.
  void ExpectNothingOpen() {
    EXPECT_EQ(kestrel::testing::LiveAllocations(), live_at_start_);
    uint32_t h = 0;
    EXPECT_EQ(DBGetRecordCount(0, &h), DB_ERR_INVALID_HANDLE);
  }

  long live_at_start_ = 0;
};

}  // namespace kestrel::test
