// .NTX files written by another program of the dialect: walks give that
// program's order, seeks its records, the keys made from the table match the
// stored ones, our own builds of the same expressions walk the same way, and
// changes to copies keep the files valid.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ntx/ntx_test_util.h"

namespace kestrel::test {
namespace {

struct Seek {
  std::string text;
  std::string mode;  // exact, soft or last
  bool found;
  bool eof;
  int32_t recno;
};

struct Expected {
  std::vector<int32_t> walk;
  std::vector<Seek> seeks;
};

std::string FromHex(const std::string& hex) {
  std::string out;
  if (hex == "-") return out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::strtol(hex.substr(i, 2).c_str(), nullptr, 16));
  }
  return out;
}

Expected ReadExpected(const std::string& name) {
  Expected e;
  std::ifstream in(std::string(KESTREL_TEST_FIXTURES) + "/ntx/" + name + ".order.tsv");
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> parts;
    std::stringstream ss(line);
    std::string part;
    while (std::getline(ss, part, '\t')) parts.push_back(part);
    if (parts.size() == 2 && parts[0] == "W") e.walk.push_back(std::stoi(parts[1]));
    if (parts.size() == 6 && parts[0] == "S") {
      e.seeks.push_back(
          Seek{FromHex(parts[1]), parts[2], parts[3] == "1", parts[4] == "1", std::stoi(parts[5])});
    }
  }
  return e;
}

struct IndexCase {
  const char* name;
  char type;  // key type of the expression
  const char* expression;
  int length;
  int decimals;
  int flags;
};

const IndexCase kIndexes[] = {
    {"sname", 'C', "NAME", 20, 0, 0},
    {"scitynm", 'C', "City + Name", 35, 0, 0},
    {"sage", 'N', "AGE", 3, 0, 0},
    {"ssalary", 'N', "SALARY", 10, 2, 0},
    {"shired", 'D', "HIRED", 8, 0, 0},
    {"scityu", 'C', "CITY", 15, 0, DB_CL_UNIQUE},
    {"snamed", 'C', "NAME", 20, 0, DB_CL_DESCENDING},
    {"scityage", 'C', "CITY+STR(AGE,3)", 18, 0, 0},
};
constexpr int32_t kRecords = 300;

class NtxFixtureTest : public NtxTest, public ::testing::WithParamInterface<IndexCase> {
 protected:
  void SetUp() override {
    NtxTest::SetUp();
    // Dates reach the keys through the default style: a four-digit one.
    ASSERT_EQ(DBSetDefaultDateStyle(3), 0);
    table_path_ = CopyFixture("ntx/staff.dbf", dir_);
    CopyFixture("ntx/staff.dbt", dir_);
    index_path_ = CopyFixture(std::string("ntx/") + GetParam().name + ".ntx", dir_);
    ASSERT_EQ(DBOpenFile(&table_, table_path_.c_str(), DB_DIALECT_CLIPPER | DB_OPEN_READONLY), 0);
    expected_ = ReadExpected(GetParam().name);
    if (!(GetParam().flags & DB_CL_UNIQUE)) {
      ASSERT_EQ(expected_.walk.size(), static_cast<size_t>(kRecords));
    }
  }

  int32_t Open(const std::string& path, int32_t mode = 0) {
    int32_t h = -1;
    EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), mode), 0);
    // Other programs of the dialect store numeric keys with their decimals.
    EXPECT_EQ(DBclSetNumericKeyForm(h, DB_CL_NUMERIC_WITH_DECIMALS, nullptr), 0);
    return h;
  }
  KeyList Walk(int32_t h) { return NtxTest::Walk(h, GetParam().length); }
  std::vector<int32_t> Records(int32_t h) {
    std::vector<int32_t> out;
    for (const auto& e : Walk(h)) out.push_back(static_cast<int32_t>(e.second));
    return out;
  }

  // The search key for a seek text: character and date texts as they are,
  // numbers converted by the index.
  std::string SearchKey(int32_t h, const std::string& text) {
    if (GetParam().type == 'D' && text.empty()) return std::string(8, ' ');
    if (GetParam().type != 'N') return text;
    char key[32];
    DBclNumericToKey(h, key, std::strtod(text.c_str(), nullptr));
    return key;
  }

  std::string table_path_, index_path_;
  int32_t table_ = -1;
  Expected expected_;
};

TEST_P(NtxFixtureTest, WalkMatchesTheWritingProgram) {
  EXPECT_EQ(FileFindings(index_path_), "");
  int32_t h = Open(index_path_, DB_OPEN_READONLY);
  EXPECT_EQ(Records(h), expected_.walk);
  DBCLINDEXINFO info{};
  ASSERT_EQ(DBclGetIndexInfo(h, &info), 0);
  EXPECT_EQ(info.key_length, GetParam().length);
  EXPECT_EQ(info.decimals, GetParam().decimals);
  EXPECT_EQ(info.key_flags, GetParam().flags);
  // Every stored key is the key made from its record.
  for (const auto& [key, rec] : Walk(h)) {
    ASSERT_GE(DBGetRecord(table_, static_cast<int32_t>(rec)), 0);
    char* made = nullptr;
    ASSERT_GE(DBclMakeKey(table_, h, &made), 0) << rec;
    EXPECT_EQ(std::string(made, GetParam().length), key) << "record " << rec;
    DBFreeMemory(made);
  }
  DBclCloseIndex(h);
}

TEST_P(NtxFixtureTest, SeeksFindTheWritingProgramsRecords) {
  int32_t h = Open(index_path_, DB_OPEN_READONLY);
  bool descending = (GetParam().flags & DB_CL_DESCENDING) != 0;
  int len = GetParam().length;
  for (const Seek& s : expected_.seeks) {
    std::string sought = SearchKey(h, s.text);
    size_t compare = std::min<size_t>(sought.size(), len);
    std::string key = sought;
    key.resize(len + 1, '\0');
    int32_t rec = 0;
    int32_t rc;
    bool found = false, eof = false;
    if (s.mode == "soft") {
      rc = DBclKeySearch(h, key.data(), &rec, descending ? 12 : 14);
      eof = rc != 0;
      found = !eof && std::memcmp(key.data(), sought.data(), compare) == 0;
    } else {
      rc = DBclKeySearch(h, key.data(), &rec, 1);
      found = rc == 0;
      eof = !found;
      if (found && s.mode == "last") {
        std::string next = key;
        int32_t next_rec = 0;
        while (DBclGoNextKey(h, next.data(), &next_rec) == 0 &&
               std::memcmp(next.data(), sought.data(), compare) == 0) {
          rec = next_rec;
        }
      }
    }
    if (eof) rec = kRecords + 1;
    EXPECT_EQ(found, s.found) << GetParam().name << " " << s.mode << " [" << s.text << "]";
    EXPECT_EQ(eof, s.eof) << GetParam().name << " " << s.mode << " [" << s.text << "]";
    EXPECT_EQ(rec, s.recno) << GetParam().name << " " << s.mode << " [" << s.text << "]";
  }
  DBclCloseIndex(h);
}

// Our build of the same expression holds the same keys in the same order.
// Equal keys are in record order in a fresh build, while the other program's
// files keep changed records at the end of their group, so the records are
// compared per group of equal keys (and not at all for a unique index, whose
// first record of a key depends on the order of the changes).
TEST_P(NtxFixtureTest, OurBuildWalksTheSameWay) {
  const IndexCase& c = GetParam();
  std::string path = dir_.File("rebuilt.ntx");
  std::string expr = c.expression;
  int32_t type = c.type | c.flags | (c.type == 'N' ? DB_CL_BUILD_WITH_DECIMALS : 0);
  ASSERT_GE(DBclBuildIndex(table_, path.c_str(), type, expr.data(), c.length, c.decimals), 0);
  EXPECT_EQ(FileFindings(path), "");
  int32_t theirs = Open(index_path_, DB_OPEN_READONLY);
  int32_t ours = Open(path);
  auto a = Walk(ours), b = Walk(theirs);
  ASSERT_EQ(a.size(), b.size());
  auto grouped = [](KeyList v) {
    std::stable_sort(v.begin(), v.end());  // records sorted within equal keys
    return v;
  };
  for (size_t i = 0; i < a.size(); ++i) ASSERT_EQ(a[i].first, b[i].first) << i;
  if (!(c.flags & DB_CL_UNIQUE)) {
    EXPECT_TRUE(grouped(a) == grouped(b));
  }
  DBclCloseIndex(ours);
  DBclCloseIndex(theirs);
}

TEST_P(NtxFixtureTest, ChangedCopiesStayValid) {
  int32_t h = Open(index_path_);
  auto keys = Walk(h);
  // Take out every third key, then put them back in reverse order.
  KeyList removed;
  for (size_t i = 0; i < keys.size(); i += 3) {
    ASSERT_EQ(DBclDeleteKey(h, keys[i].first.c_str(), static_cast<int32_t>(keys[i].second)), 0);
    removed.push_back(keys[i]);
  }
  EXPECT_EQ(Findings(h), "");
  EXPECT_EQ(Walk(h).size(), keys.size() - removed.size());
  for (auto it = removed.rbegin(); it != removed.rend(); ++it) {
    ASSERT_EQ(DBclInsertKey(h, it->first.c_str(), static_cast<int32_t>(it->second)), 0);
  }
  ASSERT_EQ(DBclCloseIndex(h), 0);
  EXPECT_EQ(FileFindings(index_path_), "");
  h = Open(index_path_);
  auto again = Walk(h);
  ASSERT_EQ(again.size(), keys.size());
  // The same keys in the same key order (equal keys may change places).
  for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(again[i].first, keys[i].first) << i;
  DBclCloseIndex(h);
}

INSTANTIATE_TEST_SUITE_P(Harbour, NtxFixtureTest, ::testing::ValuesIn(kIndexes),
                         [](const ::testing::TestParamInfo<IndexCase>& info) {
                           return std::string(info.param.name);
                         });

// Indexes of real applications whose expressions name fields through an
// alias (FIELD->, or the work area's alias, which is the table's name when
// the table is opened under it): the key made from each record is the key
// the application stored, and an alias naming another table is refused.
TEST(NtxAliasFixtureTest, KeysMadeThroughAnAliasEqualTheStoredKeys) {
  struct Case {
    const char* table;   // fixture, copied as `as`
    const char* as;
    const char* index;   // fixture
    int32_t date_style;  // the application's date format
  };
  const Case cases[] = {
      {"harbour_test.dbf", "test.dbf", "harbour_test1.ntx", 3},  // FIELD->LAST
      {"fluxo-caixa-clipper_ABERTAS.DBF", "ABT.DBF", "fluxo-caixa-clipper_ABERTAS.NTX", 3},
      {"fluxo-caixa-clipper_CLIFOR.DBF", "cli.dbf", "fluxo-caixa-clipper_CLICOD.NTX", 3},
      {"fluxo-caixa-clipper_PAGAS.DBF", "Pag.Dbf", "fluxo-caixa-clipper_PGDTA.NTX", 9},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.index);
    TempDir dir;
    ASSERT_EQ(DBInitialize(64, 0), 0);
    ASSERT_EQ(DBSetDefaultDateStyle(c.date_style), 0);
    std::string index = CopyFixture(std::string("ntx/realworld/") + c.index, dir);
    for (const std::string& name : {std::string(c.as), std::string("OTHER.DBF")}) {
      std::string table_path = CopyFixture(std::string("ntx/realworld/") + c.table, dir, name);
      int32_t table = -1, h = -1;
      ASSERT_EQ(DBOpenFile(&table, table_path.c_str(), DB_DIALECT_CLIPPER | DB_OPEN_READONLY), 0);
      ASSERT_EQ(DBclOpenIndex(&h, index.c_str(), DB_OPEN_READONLY), 0);
      DBCLINDEXINFO info{};
      ASSERT_EQ(DBclGetIndexInfo(h, &info), 0);
      std::string key(info.key_length + 1, '\0');
      int32_t rec = 0, keys = 0;
      for (int32_t rc = DBclGoFirstKey(h, key.data(), &rec); rc == 0;
           rc = DBclGoNextKey(h, key.data(), &rec), ++keys) {
        ASSERT_GE(DBGetRecord(table, rec), 0);
        char* made = nullptr;
        int32_t made_rc = DBclMakeKey(table, h, &made);
        if (name == "OTHER.DBF" && std::string(c.index) != "harbour_test1.ntx") {
          EXPECT_EQ(made_rc, DB_ERR_BAD_EXPRESSION) << rec;
        } else {
          ASSERT_GE(made_rc, 0) << rec;
          EXPECT_EQ(std::string(made, info.key_length), key.substr(0, info.key_length)) << rec;
        }
        DBFreeMemory(made);
      }
      EXPECT_GT(keys, 2);
      DBclCloseIndex(h);
      DBCloseFile(table);
    }
    DBTerminate();
  }
}

}  // namespace
}  // namespace kestrel::test
