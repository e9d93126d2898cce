// Memo files across programs: memos written here read back by python3-dbfread,
// python3-dbf and Perl XBase with the same text, memos those programs write
// read here with the same text, and the fixture tables of other programs read
// through the table engine as their expected dumps say.
#include <gtest/gtest.h>

#include <cstring>

#include "memo/memo_test_util.h"
#include "table_common.h"

namespace kestrel::test {
namespace {

// The memo sizes every direction uses; 0 is a record without a memo.  The
// dBASE IV sizes leave at least 8 bytes of padding in the last block, because
// python3-dbfread reads 8 bytes past the length stored in a block header.
const std::vector<size_t>& Sizes() {
  static const std::vector<size_t> sizes = {1,   100, 0,    480,  510,  511,  512,
                                            600, 0,   1000, 1022, 5000, 20000};
  return sizes;
}

std::string TextOf(size_t n, int seed) {
  if (n == 0) return "";
  static const char* kWords[] = {"alpha", "beta", "gamma", "delta", "epsilon",
                                 "zeta",  "eta",  "theta", "iota",  "kappa"};
  std::string s;
  for (int i = seed; s.size() < n; i += 7) {
    s += kWords[i % 10];
    s += (i % 9) ? " " : "\r\n";
  }
  s.resize(n - 1);
  return s + ".";
}

// Block numbers of a memo field read from the table file's own bytes (10
// digits, or a 4-byte binary number in a 4-byte field), one per record.
std::vector<uint32_t> RawMemoBlocks(const std::string& dbf, const std::string& field) {
  auto bytes = ReadFileBytes(dbf);
  std::vector<uint32_t> blocks;
  if (bytes.size() < 32) return blocks;
  uint32_t count = bytes[4] | (bytes[5] << 8) | (bytes[6] << 16) | (bytes[7] << 24);
  uint32_t header = bytes[8] | (bytes[9] << 8);
  uint32_t length = bytes[10] | (bytes[11] << 8);
  uint32_t offset = 1, width = 0, at = 0;
  for (size_t d = 32; d + 32 <= header && bytes[d] != 0x0D; d += 32) {
    std::string name(reinterpret_cast<const char*>(&bytes[d]),
                     strnlen(reinterpret_cast<const char*>(&bytes[d]), 11));
    if (name == field) {
      at = offset;
      width = bytes[d + 16];
    }
    offset += bytes[d + 16];
  }
  for (uint32_t r = 0; r < count && width > 0; ++r) {
    size_t pos = header + static_cast<size_t>(r) * length + at;
    if (pos + width > bytes.size()) break;
    uint32_t value = 0;
    if (width == 4) {
      value = bytes[pos] | (bytes[pos + 1] << 8) | (bytes[pos + 2] << 16) | (bytes[pos + 3] << 24);
    } else {
      for (uint32_t i = 0; i < width; ++i) {
        char c = static_cast<char>(bytes[pos + i]);
        if (c >= '0' && c <= '9') value = value * 10 + static_cast<uint32_t>(c - '0');
      }
    }
    blocks.push_back(value);
  }
  return blocks;
}

// A memo read whole; a failure fails the test.
std::string ReadMemo(const Layout& l, int32_t h, uint32_t block) {
  int32_t rc = 0;
  std::string text = l.Get(h, block, &rc);
  EXPECT_EQ(rc, 0) << "block " << block;
  return text;
}

class MemoInteropTest : public MemoTest {
 protected:
  // Writes a table with a NAME and a NOTE memo field through the engine;
  // returns the memo texts by record.
  std::vector<std::string> WriteTable(const Layout& l, const std::string& dbf,
                                      const std::string& memo) {
    DBFIELD fields[2] = {Field("NAME", 'C', 10), Field("NOTE", 'M')};
    EXPECT_EQ(DBCreateFile(dbf.c_str(), 2, fields, l.TableDialect()), 0);
    EXPECT_EQ(l.Create(memo), 0);
    int32_t t = Open(dbf, l.TableDialect()), m = -1;
    EXPECT_EQ(l.Open(&m, memo), 0);
    std::vector<std::string> texts;
    for (size_t i = 0; i < Sizes().size(); ++i) {
      std::string text = TextOf(Sizes()[i], static_cast<int>(i));
      EXPECT_EQ(DBClearBuffer(t), 0);
      EXPECT_EQ(DBPutStrField(t, 0, ("rec" + std::to_string(i + 1)).c_str()), 0);
      if (!text.empty()) {
        uint32_t b = 0;
        EXPECT_EQ(l.Put(m, &b, text), 0);
        EXPECT_EQ(DBPutFieldData(t, 1, &b), 0);
      }
      AppendRecord(t);
      texts.push_back(text);
    }
    // Replace two memos: one grows (moves), one shrinks (stays).
    for (int32_t r : {2, 10}) {
      EXPECT_GE(DBGetRecord(t, r), 0);
      uint32_t b = 0;
      EXPECT_EQ(DBGetFieldData(t, 1, &b), 0);
      std::string text = TextOf(r == 2 ? 3000 : 40, 100 + r);
      uint32_t nb = b;
      EXPECT_EQ(l.Put(m, &nb, text, DB_MEMO_REPLACE), 0);
      EXPECT_EQ(DBPutFieldData(t, 1, &nb), 0);
      int32_t recno = r;
      EXPECT_EQ(DBPutRecord(t, &recno, DB_RECORD_REPLACE), 0);
      texts[static_cast<size_t>(r - 1)] = text;
    }
    EXPECT_EQ(l.Close(m), 0);
    EXPECT_EQ(DBCloseFile(t), 0);
    return texts;
  }
};

const Layout kLayouts[] = {{"dbt_plain", false, 1, 1},
                           {"dbt_dbase4", false, 2, 1},
                           {"fpt_64", true, 8, 64},
                           {"fpt_512", true, 8, 1}};

class KestrelMemosRead : public MemoInteropTest,
                         public ::testing::WithParamInterface<std::tuple<Layout, Checker>> {};

TEST_P(KestrelMemosRead, ByChecker) {
  const auto& [layout, checker] = GetParam();
  KESTREL_REQUIRE_CHECKER(checker);
  if (checker == Checker::kPythonDbf && layout.TableDialect() == 2) {
    GTEST_SKIP() << "python3-dbf does not open dBASE IV tables (version byte 0x8B)";
  }
  std::string dbf = dir_.File("memos.dbf");
  std::string memo = dir_.File(layout.fpt ? "memos.fpt" : "memos.dbt");
  auto texts = WriteTable(layout, dbf, memo);
  Json got = RunChecker(ReaderCommand(checker, dbf));
  ASSERT_TRUE(got.contains("records"));
  ASSERT_EQ(got["records"].size(), texts.size());
  for (size_t i = 0; i < texts.size(); ++i) {
    const Json& v = got["records"][i]["values"]["NOTE"];
    if (texts[i].empty()) {
      EXPECT_TRUE(v.is_null()) << "record " << i + 1 << ": " << v.dump().substr(0, 80);
    } else {
      ASSERT_TRUE(v.is_string()) << "record " << i + 1;
      // Perl XBase looks for the two end marks inside one 512-byte block, so
      // it runs on into the next memo when they straddle a block boundary
      // (a text of 511 bytes, modulo 512).  The file is as the format wants
      // it; the other readers and the engine read such memos whole.
      if (checker == Checker::kPerlXBase && !layout.fpt && layout.dialect != 2 &&
          texts[i].size() % 512 == 511) {
        EXPECT_EQ(v.get<std::string>().substr(0, texts[i].size()), texts[i]);
        continue;
      }
      EXPECT_EQ(v.get<std::string>(), texts[i]) << "record " << i + 1;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Memo, KestrelMemosRead,
                         ::testing::Combine(::testing::ValuesIn(kLayouts),
                                            ::testing::Values(Checker::kDbfread,
                                                              Checker::kPythonDbf,
                                                              Checker::kPerlXBase)),
                         [](const auto& info) {
                           std::string c = CheckerName(std::get<1>(info.param));
                           for (char& ch : c) {
                             if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
                           }
                           return std::string(std::get<0>(info.param).name) + "_" + c;
                         });

// Tables written by the checkers: the memo file read here gives the texts the
// writer reports.  Tables whose version byte one of the engine's dialects
// accepts are also read through the table engine's memo fields.
struct Writer {
  const char* name;
  Checker checker;
  const char* kind;
  Layout layout;
  bool table_readable;  // Perl XBase marks dBASE IV 0x84 and FoxPro 0x85
};

class CheckerMemosRead : public MemoInteropTest, public ::testing::WithParamInterface<Writer> {};

TEST_P(CheckerMemosRead, ByKestrel) {
  const Writer& w = GetParam();
  KESTREL_REQUIRE_CHECKER(w.checker);
  const bool perl = w.checker == Checker::kPerlXBase;
  std::vector<std::string> argv = {perl ? kPerl : kPython,
                                   InteropScript(perl ? "write_xbase.pl" : "write_pydbf.py"),
                                   dir_.File(std::string(perl ? "pl_" : "py_") + w.kind + ".dbf"),
                                   w.kind, "memos"};
  Json written = RunChecker(argv);
  ASSERT_TRUE(written.contains("texts"));
  const std::string dbf = written["table"];
  const std::string memo = written["memo"];
  auto blocks = RawMemoBlocks(dbf, "NOTE");
  ASSERT_EQ(blocks.size(), written["texts"].size());
  int32_t m = -1;
  ASSERT_EQ(w.layout.Open(&m, memo, DB_OPEN_READONLY), 0);
  for (size_t i = 0; i < blocks.size(); ++i) {
    const Json& t = written["texts"][i];
    if (t.is_null()) {
      // An empty memo: no block, or (python3-dbf) a block holding nothing.
      if (blocks[i] != 0) {
        EXPECT_EQ(ReadMemo(w.layout, m, blocks[i]), "") << "record " << i + 1;
      }
      continue;
    }
    EXPECT_EQ(ReadMemo(w.layout, m, blocks[i]), t.get<std::string>()) << "record " << i + 1;
  }
  if (w.table_readable) {
    int32_t t = -1;
    ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), w.layout.TableDialect() | DB_OPEN_READONLY), 0);
    for (size_t i = 0; i < blocks.size(); ++i) {
      ASSERT_GE(DBGetRecord(t, static_cast<int32_t>(i + 1)), 0);
      uint32_t b = 0;
      int32_t rc = DBGetFieldData(t, 1, &b);
      if (written["texts"][i].is_null()) {
        EXPECT_TRUE(rc == DB_WARN_FIELD_EMPTY || b == blocks[i]) << "record " << i + 1;
      } else {
        ASSERT_EQ(rc, 0);
        EXPECT_EQ(ReadMemo(w.layout, m, b), written["texts"][i].get<std::string>());
      }
    }
    DBCloseFile(t);
  }
  w.layout.Close(m);
}

// python3-dbf gives its FoxPro tables a header length that no dialect accepts
// (-219): their memos are followed from the file.
INSTANTIATE_TEST_SUITE_P(
    Memo, CheckerMemosRead,
    ::testing::Values(Writer{"pydbf_db3", Checker::kPythonDbf, "db3", {"", false, 1, 1}, true},
                      Writer{"pydbf_fp", Checker::kPythonDbf, "fp", {"", true, 8, 0}, false},
                      Writer{"xbase_3", Checker::kPerlXBase, "3", {"", false, 1, 1}, true},
                      Writer{"xbase_4", Checker::kPerlXBase, "4", {"", false, 2, 1}, false},
                      Writer{"xbase_fpt", Checker::kPerlXBase, "fpt", {"", true, 8, 0}, false}),
    [](const auto& info) { return std::string(info.param.name); });

// The memo fixtures through the table engine: each record's memo field leads
// to the text the fixture's expected contents give.
struct FixtureCase {
  const char* table;
  const char* memo;
  const char* expected;
  Layout layout;
};

class MemoFixtures : public MemoInteropTest, public ::testing::WithParamInterface<FixtureCase> {};

TEST_P(MemoFixtures, ReadThroughTheTable) {
  const FixtureCase& c = GetParam();
  std::string dbf = CopyFixture(std::string("memo/") + c.table, dir_);
  std::string memo = CopyFixture(std::string("memo/") + c.memo, dir_);
  std::map<int, std::string> expected;
  for (const ExpectedMemo& m : ReadExpectedMemos(std::string("memo/") + c.expected)) {
    expected[m.recno] = m.text;
  }
  ASSERT_FALSE(expected.empty());
  int32_t t = -1;
  ASSERT_EQ(DBOpenFile(&t, dbf.c_str(), c.layout.TableDialect() | DB_OPEN_READONLY), 0);
  int32_t m = -1;
  ASSERT_EQ(c.layout.Open(&m, memo, DB_OPEN_READONLY), 0);
  uint32_t count = 0;
  ASSERT_EQ(DBGetRecordCount(t, &count), 0);
  int32_t field = -1;
  ASSERT_EQ(DBGetFieldNumber(t, &field, "NOTES"), 0);
  int seen = 0;
  for (int32_t r = 1; r <= static_cast<int32_t>(count); ++r) {
    ASSERT_GE(DBGetRecord(t, r), 0);
    uint32_t b = 0;
    int32_t rc = DBGetFieldData(t, field, &b);
    ASSERT_GE(rc, 0);
    auto it = expected.find(r);
    if (it == expected.end()) {
      EXPECT_EQ(rc, DB_WARN_FIELD_EMPTY) << "record " << r;
      continue;
    }
    EXPECT_EQ(ReadMemo(c.layout, m, b), it->second) << "record " << r;
    ++seen;
  }
  EXPECT_EQ(seen, static_cast<int>(expected.size()));
  c.layout.Close(m);
  DBCloseFile(t);
}

INSTANTIATE_TEST_SUITE_P(
    Memo, MemoFixtures,
    ::testing::Values(
        FixtureCase{"staff.dbf", "staff.dbt", "staff.dbt.expected.tsv", {"", false, 1, 1, 6}},
        FixtureCase{"plain.dbf", "plain.dbt", "plain.dbt.expected.tsv", {"", false, 1, 1}},
        FixtureCase{"fstaff.dbf", "fstaff.fpt", "fstaff.fpt.expected.tsv", {"", true, 8, 0}},
        FixtureCase{"fstaf512.dbf", "fstaf512.fpt", "fstaf512.fpt.expected.tsv", {"", true, 8, 0}}),
    [](const auto& info) {
      std::string n = info.param.table;
      return n.substr(0, n.find('.'));
    });

}  // namespace
}  // namespace kestrel::test
