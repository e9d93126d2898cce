// The kestrel tool's index commands: build, list keys and check, on the
// fixture table, and the checker's exit status on a damaged file.
#include <gtest/gtest.h>

#include <cstring>

#include "support/library.h"
#include "util/coding.h"

namespace kestrel::test {
namespace {

class NtxToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KESTREL_REQUIRE_TOOL();
    table_ = CopyFixture("ntx/staff.dbf", dir_);
    CopyFixture("ntx/staff.dbt", dir_);
  }
  std::string table_;
  TempDir dir_;
};

TEST_F(NtxToolTest, BuildListAndCheck) {
  std::string index = dir_.File("city.ntx");
  ProcessResult r = RunTool({"index", "build", table_, index, "CITY+NAME"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = RunTool({"check", index});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("keys:        300"), std::string::npos) << r.out;
  r = RunTool({"index", "keys", index, "--table", table_});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  auto lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 300u);
  // Keys of 35 characters (from the first record), in order.
  for (size_t i = 1; i < lines.size(); ++i) {
    std::string a = lines[i - 1].substr(lines[i - 1].find('\t') + 1);
    std::string b = lines[i].substr(lines[i].find('\t') + 1);
    EXPECT_LE(a, b) << i;
  }
  // A numeric key with decimals, unique and descending flags.
  std::string salary = dir_.File("salary.ntx");
  r = RunTool({"index", "build", table_, salary, "SALARY", "--type", "N", "--length", "10",
               "--decimals", "2", "--clipper-numeric", "--descending"});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  r = RunTool({"index", "keys", salary});
  ASSERT_EQ(r.exit_code, 0) << r.err;
  lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 300u);
  EXPECT_EQ(lines.front().substr(lines.front().find('\t') + 1), "9999999.99");
}

TEST_F(NtxToolTest, CheckFailsOnADamagedFile) {
  std::string index = dir_.File("name.ntx");
  ASSERT_EQ(RunTool({"index", "build", table_, index, "NAME", "--length", "20"}).exit_code, 0);
  const std::vector<uint8_t> good = ReadFileBytes(index);
  std::vector<uint8_t> bytes = good;
  uint32_t root = LoadLE32(&bytes[4]);
  StoreLE16(&bytes[root], 200);  // more keys than a page holds
  WriteFileBytes(index, bytes);
  ProcessResult r = RunTool({"check", index});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.out.find("exceeds the page capacity"), std::string::npos) << r.out;
  // A root that lost its count but still names a child is not an empty index.
  bytes = good;
  StoreLE16(&bytes[root], 0);
  WriteFileBytes(index, bytes);
  EXPECT_EQ(RunTool({"check", index}).exit_code, 1);
  for (const auto& args : {std::vector<std::string>{"index", "keys", index},
                           std::vector<std::string>{"index", "keys", index, "--table", table_}}) {
    r = RunTool(args);
    EXPECT_EQ(r.exit_code, 1) << r.out;
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("(-206)"), std::string::npos) << r.err;
  }
  r = RunTool({"check", dir_.File("missing.ntx")});
  EXPECT_EQ(r.exit_code, 1);
  // Sound files of other writers pass with notes; other formats are named.
  r = Tool({"check", CopyFixture("index/CUSTNAME.NTX", dir_)});
  EXPECT_EQ(r.exit_code, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("page 0: note: FOR condition: !Deleted()"), std::string::npos) << r.out;
  r = Tool({"check", CopyFixture("index/employees.CDX", dir_)});
  EXPECT_EQ(r.exit_code, 1);
  EXPECT_NE(r.err.find("a CDX file; not supported yet"), std::string::npos) << r.err;
}

// An expression the evaluator cannot evaluate is reported as such, not as
// keys that differ from their records.
TEST_F(NtxToolTest, KeysThatCannotBeMadeAreNotCalledDifferent) {
  std::string index = dir_.File("name.ntx");
  ASSERT_EQ(Tool({"index", "build", table_, index, "NAME", "--length", "20"}).exit_code, 0);
  std::vector<uint8_t> bytes = ReadFileBytes(index);
  std::memcpy(&bytes[22], "NOSUCH(NAME)", 13);  // the key expression
  WriteFileBytes(index, bytes);
  ProcessResult r = Tool({"index", "keys", index, "--table", table_});
  EXPECT_EQ(r.exit_code, 1);
  auto lines = Lines(r.out);
  ASSERT_EQ(lines.size(), 300u);
  EXPECT_NE(lines[0].find("\t(cannot make the record's key: "), std::string::npos) << lines[0];
  EXPECT_NE(r.err.find("the keys of 300 record(s) could not be made"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("differ"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace kestrel::test
