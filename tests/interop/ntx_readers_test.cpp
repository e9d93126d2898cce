// .NTX files that this library builds and updates, read by independent
// readers (Perl XBase, Xbase64): they must walk the same keys with the same
// records in the same order.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/library.h"

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

// Lines of "record<TAB>key-hex[<TAB>extra]"; the third column, when there is
// one, goes to `extra`.
Walked ParseWalk(const std::string& text, std::vector<std::string>* extra = nullptr) {
  Walked out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    size_t tab = line.find('\t');
    if (tab == std::string::npos) continue;
    size_t tab2 = line.find('\t', tab + 1);
    out.emplace_back(std::stoi(line.substr(0, tab)), line.substr(tab + 1, tab2 - tab - 1));
    if (extra != nullptr) extra->push_back(tab2 == std::string::npos ? "" : line.substr(tab2 + 1));
  }
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
  return ParseWalk(r.out);
}

// Xbase64 reads the index in two ways (tests/interop/xbase64): its own walk,
// which visits the keys of leaf pages only (it steps over the keys that
// branch pages hold, on files of the other programs of the dialect as well),
// and an in-order descent through the pages as its page reader decodes them,
// which gives every key.  The descent must equal our walk, and Xbase64's walk
// must equal our walk less the keys the descent found in branch pages.  Xbase64 has no descending
// NTX: it walks such a file in stored order, which is what is compared.  It opens an index only
// through its table and needs the record of every key.
void ExpectXbase64ReadsAsWe(const std::string& table, const std::string& index, const char* what) {
  Walked ours = OurWalk(index);
  ProcessResult tree = RunProcess({kXbase64Walker, "tree", table, index});
  ASSERT_EQ(tree.exit_code, 0) << what << ": " << tree.err;
  std::vector<std::string> kinds;
  Walked descent = ParseWalk(tree.out, &kinds);
  EXPECT_EQ(descent.size(), ours.size()) << what;
  EXPECT_TRUE(descent == ours) << what << ": the page-by-page descent differs from our walk";

  ProcessResult walk = RunProcess({kXbase64Walker, "walk", table, index});
  ASSERT_EQ(walk.exit_code, 0) << what << ": " << walk.err;
  Walked leaf_keys;  // ours, less the keys the descent found in branch pages
  for (size_t i = 0; i < ours.size() && i < kinds.size(); ++i) {
    if (kinds[i] == "leaf") leaf_keys.push_back(ours[i]);
  }
  EXPECT_TRUE(ParseWalk(walk.out) == leaf_keys) << what << ": Xbase64's walk differs";
}

struct Build {
  const char* name;
  int32_t type;
  const char* expression;
  int length, decimals;
};
constexpr Build kBuilds[] = {
    {"name.ntx", 'C', "NAME", 20, 0},
    {"named.ntx", 'C' | DB_CL_DESCENDING, "NAME", 20, 0},
    {"cityu.ntx", 'C' | DB_CL_UNIQUE, "CITY", 15, 0},
    {"citynm.ntx", 'C', "CITY+NAME", 35, 0},
    {"salary.ntx", 'N' | DB_CL_BUILD_WITH_DECIMALS, "SALARY", 10, 2},
    {"hired.ntx", 'D', "HIRED", 8, 0},
};

// A run of 6000 adds and deletes of keys "K00000".."K02999" (60% adds) on a
// new index of C(12) keys, which splits, borrows and merges pages many times.
// Record i is the record given to the key added at step i; `names` (when
// given) receives that key for each record number, "" for delete steps.
// Returns the number of keys left.
size_t SplitMergeRun(const std::string& path, int flags, std::vector<std::string>* names) {
  char expr[] = "NAME";
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 'C' | flags, expr, 12, 0), 0);
  int32_t h = -1;
  EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), 0), 0);
  std::mt19937 rng(99);
  std::vector<std::pair<std::string, int32_t>> live;
  for (int i = 1; i <= 6000; ++i) {
    if (live.empty() || rng() % 100 < 60) {
      char k[16];
      std::snprintf(k, sizeof k, "K%05u", static_cast<unsigned>(rng() % 3000));
      EXPECT_EQ(DBclAddKey(h, k, i), 0);
      live.emplace_back(k, i);
      if (names != nullptr) names->push_back(k);
    } else {
      size_t at = rng() % live.size();
      EXPECT_EQ(DBclDeleteKey(h, live[at].first.c_str(), live[at].second), 0);
      live.erase(live.begin() + static_cast<long>(at));
      if (names != nullptr) names->push_back("");
    }
  }
  EXPECT_EQ(DBclCloseIndex(h), 0);
  return live.size();
}

class NtxReadersTest : public LibraryTestOf<64> {
 protected:
  void SetUp() override {
    LibraryTestOf<64>::SetUp();
    ASSERT_EQ(DBSetDefaultDateStyle(15), 0);
    table_path_ = CopyFixture("ntx/staff.dbf", dir_);
    CopyFixture("ntx/staff.dbt", dir_);
    ASSERT_EQ(DBOpenFile(&table_, table_path_.c_str(), DB_DIALECT_CLIPPER | DB_OPEN_READONLY), 0);
  }
  std::string BuildIndex(const Build& b) {
    std::string path = dir_.File(b.name);
    std::string expr = b.expression;
    EXPECT_GE(DBclBuildIndex(table_, path.c_str(), b.type, expr.data(), b.length, b.decimals), 0)
        << b.name;
    return path;
  }
  std::string table_path_;
  int32_t table_ = -1;
};

TEST_F(NtxReadersTest, PerlReadsOurBuildsInOurOrder) {
  KESTREL_REQUIRE_CHECKER(Checker::kPerlXBase);
  for (const Build& b : kBuilds) {
    std::string path = BuildIndex(b);
    Walked ours = OurWalk(path);
    EXPECT_EQ(ours.size(), b.type & DB_CL_UNIQUE ? ours.size() : 300u) << b.name;
    EXPECT_TRUE(PerlWalk(path) == ours) << b.name;
  }
}

TEST_F(NtxReadersTest, PerlReadsIndexesAfterManySplitsAndMerges) {
  KESTREL_REQUIRE_CHECKER(Checker::kPerlXBase);
  for (int flags : {0, DB_CL_DESCENDING}) {
    std::string path = dir_.File(flags ? "upd_desc.ntx" : "upd.ntx");
    size_t live = SplitMergeRun(path, flags, nullptr);
    Walked ours = OurWalk(path);
    EXPECT_EQ(ours.size(), live);
    EXPECT_TRUE(PerlWalk(path) == ours);
  }
}

TEST_F(NtxReadersTest, Xbase64ReadsOurBuildsInOurOrder) {
  KESTREL_REQUIRE_CHECKER(Checker::kXbase64);
  for (const Build& b : kBuilds) {
    std::string path = BuildIndex(b);
    ExpectXbase64ReadsAsWe(table_path_, path, b.name);
  }
}

TEST_F(NtxReadersTest, Xbase64ReadsIndexesAfterManySplitsAndMerges) {
  KESTREL_REQUIRE_CHECKER(Checker::kXbase64);
  for (int flags : {0, DB_CL_DESCENDING}) {
    std::string path = dir_.File(flags ? "upd_desc.ntx" : "upd.ntx");
    std::vector<std::string> names;
    SplitMergeRun(path, flags, &names);
    // The table Xbase64 opens the index through: record i holds the key added at step i.
    std::string table = dir_.File(flags ? "upd_desc.dbf" : "upd.dbf");
    DBFIELD field = Field("NAME", 'C', 12);
    ASSERT_EQ(DBCreateFile(table.c_str(), 1, &field, DB_DIALECT_CLIPPER), 0);
    int32_t t = -1;
    ASSERT_EQ(DBOpenFile(&t, table.c_str(), DB_DIALECT_CLIPPER), 0);
    for (const std::string& name : names) {
      ASSERT_EQ(DBPutStrField(t, 0, name.c_str()), 0);
      int32_t recno = 0;
      ASSERT_GE(DBPutRecord(t, &recno, DB_RECORD_APPEND), 0);
    }
    ASSERT_EQ(DBCloseFile(t), 0);
    ExpectXbase64ReadsAsWe(table, path, flags ? "descending" : "ascending");
  }
}

}  // namespace
}  // namespace kestrel::test
