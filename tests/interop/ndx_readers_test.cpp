// .NDX files that this library builds and updates, read by independent
// readers (Perl XBase, Xbase64): they must walk the same keys with the same
// records in the same order.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kestrel/kestrel.h"
#include "support/interop.h"
#include "support/temp_dir.h"

namespace kestrel::test {
namespace {

using Walked = std::vector<std::pair<int32_t, std::string>>;  // record, key

std::string Hex(const char* bytes, int length) {
  std::string out;
  char b[3];
  for (int i = 0; i < length; ++i) {
    std::snprintf(b, sizeof b, "%02x", static_cast<unsigned char>(bytes[i]));
    out += b;
  }
  return out;
}

// Our walk: keys as hex, or (numeric) as the number Perl prints.
Walked OurWalk(const std::string& path, bool number_text) {
  Walked out;
  int32_t h = -1;
  EXPECT_EQ(DBd3OpenIndex(&h, path.c_str(), DB_OPEN_READONLY), 0);
  DBD4INDEXINFO info{};
  DBd3GetIndexInfo(h, &info);
  std::string key(info.key_length + 1, '\0');
  int32_t rec = 0;
  for (int32_t rc = DBd3GoFirstKey(h, key.data(), &rec); rc == 0;
       rc = DBd3GoNextKey(h, key.data(), &rec)) {
    if (number_text) {
      double v;
      std::memcpy(&v, key.data(), 8);
      char text[40];
      std::snprintf(text, sizeof text, "%.17g", v);
      out.emplace_back(rec, text);
    } else {
      out.emplace_back(rec, Hex(key.data(), info.key_length));
    }
  }
  DBd3CloseIndex(h);
  return out;
}

Walked ParseWalk(const std::string& text) {
  Walked out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    size_t tab = line.find('\t');
    if (tab == std::string::npos) continue;
    out.emplace_back(std::stoi(line.substr(0, tab)), line.substr(tab + 1));
  }
  return out;
}

class NdxReadersTest : public ::testing::Test {
 protected:
  static constexpr int kRecords = 3000;
  void SetUp() override {
    ASSERT_EQ(DBInitialize(64, 0), 0);
    DBFIELD fields[2] = {};
    std::strcpy(fields[0].name, "NAME");
    fields[0].type = 'C';
    fields[0].length = 12;
    std::strcpy(fields[1].name, "AMOUNT");
    fields[1].type = 'N';
    fields[1].length = 10;
    fields[1].decimals = 2;
    table_path_ = dir_.File("people.dbf");
    ASSERT_EQ(DBCreateFile(table_path_.c_str(), 2, fields, DB_DIALECT_DBASE3), 0);
    ASSERT_EQ(DBOpenFile(&table_, table_path_.c_str(), DB_DIALECT_DBASE3), 0);
    std::mt19937 rng(11);
    for (int r = 1; r <= kRecords; ++r) {
      char name[16], amount[16];
      std::snprintf(name, sizeof name, "N%04u", static_cast<unsigned>(rng() % 900));
      std::snprintf(amount, sizeof amount, "%.2f",
                    static_cast<double>(rng() % 2000000) / 100.0 - 5000.0);
      ASSERT_EQ(DBPutStrField(table_, 0, name), 0);
      ASSERT_EQ(DBPutStrField(table_, 1, amount), 0);
      int32_t recno = 0;
      ASSERT_EQ(DBPutRecord(table_, &recno, DB_RECORD_APPEND), 0);
    }
    ASSERT_EQ(DBFlushFile(table_), 0);
  }
  void TearDown() override {
    if (table_ >= 0) DBCloseFile(table_);
    DBTerminate();
  }

  // Builds the index, then changes a third of its keys through the engine.
  std::string BuildAndUpdate(const char* name, int type, const char* expression, int length) {
    std::string path = dir_.File(name);
    std::string expr = expression;
    EXPECT_EQ(DBd3BuildIndex(table_, path.c_str(), type, expr.data(), length), 0);
    int32_t h = -1;
    EXPECT_EQ(DBd3OpenIndex(&h, path.c_str(), 0), 0);
    std::mt19937 rng(5);
    std::string key(length + 1, '\0');
    int32_t rec = 0;
    for (int i = 0; i < kRecords / 3; ++i) {
      EXPECT_EQ(DBd3GetKeyAtPercent(h, static_cast<int32_t>(rng() % 101), key.data(), &rec), 0);
      EXPECT_EQ(DBd3DeleteKey(h, key.data(), rec), 0);
      if (type == 'C') {
        std::snprintf(key.data(), key.size(), "M%04u", static_cast<unsigned>(rng() % 700));
      } else {
        EXPECT_EQ(DBd3NumericToKey(key.data(), static_cast<double>(rng() % 30000) - 9000.5), 0);
      }
      EXPECT_EQ(DBd3AddKey(h, key.data(), rec), 0);
    }
    EXPECT_EQ(DBd3CloseIndex(h), 0);
    return path;
  }

  TempDir dir_;
  std::string table_path_;
  int32_t table_ = -1;
};

TEST_F(NdxReadersTest, PerlXBaseWalksBuiltAndUpdatedFiles) {
  KESTREL_REQUIRE_CHECKER(Checker::kPerlXBase);
  struct Case {
    const char* file;
    int type;
    const char* expression;
    int length;
  } cases[] = {{"name.ndx", 'C', "NAME", 12}, {"amount.ndx", 'N', "AMOUNT", 8},
               {"name10.ndx", 'C', "NAME", 10}};
  for (const Case& c : cases) {
    std::string path = BuildAndUpdate(c.file, c.type, c.expression, c.length);
    Walked ours = OurWalk(path, c.type == 'N');
    ASSERT_EQ(ours.size(), static_cast<size_t>(kRecords)) << c.file;
    ProcessResult r = RunProcess({kPerl, InteropScript("ndx_walk_xbase.pl"), path,
                                  c.type == 'N' ? "N" : "C"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(ParseWalk(r.out) == ours) << c.file;
  }
}

// Xbase64 places the items of a page at key length + 8 bytes whatever the
// header says, so it reads files whose keys are a multiple of 4 bytes long
// (the item length written here is the key rounded up to 4, plus 8).
TEST_F(NdxReadersTest, Xbase64WalksBuiltAndUpdatedFiles) {
  KESTREL_REQUIRE_CHECKER(Checker::kXbase64);
  if (std::strlen(kXbase64NdxWalker) == 0) GTEST_SKIP() << "the NDX walker was not built";
  for (int type : {'C', 'N'}) {
    std::string path = BuildAndUpdate(type == 'C' ? "x_name.ndx" : "x_amount.ndx", type,
                                      type == 'C' ? "NAME" : "AMOUNT", type == 'C' ? 12 : 8);
    Walked ours = OurWalk(path, false);
    ProcessResult r = RunProcess({kXbase64NdxWalker, "walk", table_path_, path});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    EXPECT_TRUE(ParseWalk(r.out) == ours) << path;
  }
}

}  // namespace
}  // namespace kestrel::test
