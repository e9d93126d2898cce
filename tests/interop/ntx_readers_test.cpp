// .NTX files that this library builds and updates, read by an independent
// reader (Perl XBase): it must walk the same keys with the same records in
// the same order.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"
#include "support/interop.h"
#include "support/temp_dir.h"

namespace kestrel::test {
namespace {

using Walked = std::vector<std::pair<int32_t, std::string>>;  // record, key as hex

std::string Hex(const char* bytes, int length) {
  std::string out;
  char b[3];
  for (int i = 0; i < length; ++i) {
    std::snprintf(b, sizeof b, "%02x", static_cast<unsigned char>(bytes[i]));
    out += b;
  }
  return out;
}

Walked OurWalk(const std::string& path) {
  Walked out;
  int32_t h = -1;
  EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), DB_OPEN_READONLY), 0);
  DBCLINDEXINFO info{};
  DBclGetIndexInfo(h, &info);
  std::string key(info.key_length + 1, '\0');
  int32_t rec = 0;
  for (int32_t rc = DBclGoFirstKey(h, key.data(), &rec); rc == 0;
       rc = DBclGoNextKey(h, key.data(), &rec)) {
    out.emplace_back(rec, Hex(key.data(), info.key_length));
  }
  DBclCloseIndex(h);
  return out;
}

// The reader refuses the signature 7 that marks a descending index here (the
// other program of the dialect writes 6 and keeps the descending flag at
// offset 280 only), so descending files are read through a copy with
// signature 6: the tree is what is compared.
Walked PerlWalk(const std::string& path) {
  std::vector<uint8_t> bytes = ReadFileBytes(path);
  std::string readable = path;
  if (bytes.size() > 2 && bytes[0] == 7) {
    bytes[0] = 6;
    readable = path.substr(0, path.size() - 4) + "_sig6.ntx";
    WriteFileBytes(readable, bytes);
  }
  ProcessResult r = RunProcess({kPerl, InteropScript("ntx_walk_xbase.pl"), readable});
  EXPECT_EQ(r.exit_code, 0) << r.err;
  Walked out;
  std::istringstream in(r.out);
  std::string line;
  while (std::getline(in, line)) {
    size_t tab = line.find('\t');
    if (tab == std::string::npos) continue;
    out.emplace_back(std::stoi(line.substr(0, tab)), line.substr(tab + 1));
  }
  return out;
}

class NtxReadersTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(DBInitialize(64, 0), 0);
    ASSERT_EQ(DBSetDefaultDateStyle(15), 0);
    table_path_ = CopyFixture("ntx/staff.dbf", dir_);
    CopyFixture("ntx/staff.dbt", dir_);
    ASSERT_EQ(DBOpenFile(&table_, table_path_.c_str(), DB_DIALECT_CLIPPER | DB_OPEN_READONLY), 0);
  }
  void TearDown() override {
    DBCloseFile(table_);
    DBTerminate();
  }
  TempDir dir_;
  std::string table_path_;
  int32_t table_ = -1;
};

TEST_F(NtxReadersTest, PerlReadsOurBuildsInOurOrder) {
  KESTREL_REQUIRE_CHECKER(Checker::kPerlXBase);
  struct Build {
    const char* name;
    int32_t type;
    const char* expression;
    int length, decimals;
  } builds[] = {
      {"name.ntx", 'C', "NAME", 20, 0},
      {"named.ntx", 'C' | DB_CL_DESCENDING, "NAME", 20, 0},
      {"cityu.ntx", 'C' | DB_CL_UNIQUE, "CITY", 15, 0},
      {"citynm.ntx", 'C', "CITY+NAME", 35, 0},
      {"salary.ntx", 'N' | DB_CL_BUILD_WITH_DECIMALS, "SALARY", 10, 2},
      {"hired.ntx", 'D', "HIRED", 8, 0},
  };
  for (const Build& b : builds) {
    std::string path = dir_.File(b.name);
    std::string expr = b.expression;
    ASSERT_GE(DBclBuildIndex(table_, path.c_str(), b.type, expr.data(), b.length, b.decimals), 0);
    Walked ours = OurWalk(path);
    EXPECT_EQ(ours.size(), b.type & DB_CL_UNIQUE ? ours.size() : 300u) << b.name;
    EXPECT_TRUE(PerlWalk(path) == ours) << b.name;
  }
}

TEST_F(NtxReadersTest, PerlReadsIndexesAfterManySplitsAndMerges) {
  KESTREL_REQUIRE_CHECKER(Checker::kPerlXBase);
  for (int flags : {0, DB_CL_DESCENDING}) {
    std::string path = dir_.File(flags ? "upd_desc.ntx" : "upd.ntx");
    char expr[] = "NAME";
    ASSERT_EQ(DBclCreateIndex(path.c_str(), 'C' | flags, expr, 12, 0), 0);
    int32_t h = -1;
    ASSERT_EQ(DBclOpenIndex(&h, path.c_str(), 0), 0);
    std::mt19937 rng(99);
    std::vector<std::pair<std::string, int32_t>> live;
    for (int i = 1; i <= 6000; ++i) {
      if (live.empty() || rng() % 100 < 60) {
        char k[16];
        std::snprintf(k, sizeof k, "K%05u", static_cast<unsigned>(rng() % 3000));
        ASSERT_EQ(DBclAddKey(h, k, i), 0);
        live.emplace_back(k, i);
      } else {
        size_t at = rng() % live.size();
        ASSERT_EQ(DBclDeleteKey(h, live[at].first.c_str(), live[at].second), 0);
        live.erase(live.begin() + static_cast<long>(at));
      }
    }
    ASSERT_EQ(DBclCloseIndex(h), 0);
    Walked ours = OurWalk(path);
    EXPECT_EQ(ours.size(), live.size());
    EXPECT_TRUE(PerlWalk(path) == ours);
  }
}

}  // namespace
}  // namespace kestrel::test
