// NDX files written by dBASE III and III+: walked in the order an
// independent reader gives, searched, changed in copies (and still sound),
// and rebuilt from their tables into the same pages.
#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "dbase_test_util.h"
#include "util/coding.h"

namespace kestrel::test {
namespace {

using Json = nlohmann::json;

struct Fixture {
  const char* name;   // tests/fixtures/dbase/<name>.ndx
  const char* table;  // its table
  int type;           // key type for a rebuild
  int length;
  bool bulk_built;    // written by a bulk build (page shape compared)
};

const Fixture kFixtures[] = {
    {"ndx-num", "ndx-num.dbf", 'N', 8, true},
    {"ndx-date", "ndx-date.dbf", 'D', 8, true},
    {"ndx-char", "ndx-char.dbf", 'C', 78, false},
    {"test_ix", "test_ix.DBF", 'C', 99, false},
};

// The key as the expected file writes it, from the key bytes read here.
bool SameKey(const std::string& key, int type, const Json& want) {
  if (type == 'C') {
    std::string k = key;
    while (!k.empty() && (k.back() == ' ' || k.back() == '\0')) k.pop_back();
    return k == want.get<std::string>();
  }
  double v = LoadDouble(reinterpret_cast<const uint8_t*>(key.data()));
  if (type == 'D') return v == want["jd"].get<double>();
  return v == want.get<double>();
}

class NdxFixtureTest : public DbaseTest, public ::testing::WithParamInterface<Fixture> {};

TEST_P(NdxFixtureTest, WalkSeekChangeAndRebuild) {
  const Fixture& f = GetParam();
  std::string ndx = std::string(f.name) + (std::string(f.name) == "test_ix" ? ".NDX" : ".ndx");
  std::string path = CopyFixture("dbase/" + ndx, dir_);
  Json expected = Json::parse(ReadFileText(std::string(KESTREL_TEST_FIXTURES) + "/dbase/" + ndx +
                                           ".expected.json"));
  const Json& entries = expected["entries"];
  EXPECT_EQ(FileFaults(path), "");
  int32_t h = -1;
  ASSERT_EQ(DBd3OpenIndex(&h, path.c_str(), 0), 0);
  KeyList walk = Walk(h, f.length);
  ASSERT_EQ(walk.size(), entries.size());
  for (size_t i = 0; i < walk.size(); ++i) {
    ASSERT_TRUE(SameKey(walk[i].first, f.type, entries[i][0])) << i;
    ASSERT_EQ(walk[i].second, entries[i][1].get<uint32_t>()) << i;
  }
  // Each distinct key is found on its first record.
  for (size_t i = 0; i < walk.size(); ++i) {
    if (i > 0 && walk[i].first == walk[i - 1].first) continue;
    std::string buf = walk[i].first;
    buf.push_back('\0');
    int32_t rec = 0;
    ASSERT_EQ(DBd3KeySearch(h, buf.data(), &rec, 1), 0) << i;
    EXPECT_EQ(static_cast<uint32_t>(rec), walk[i].second) << i;
  }
  // Every other pair out and back in: a re-added pair follows the keys
  // equal to it.
  KeyList kept, again;
  for (size_t i = 0; i < walk.size(); ++i) {
    if (i % 2 == 0) {
      ASSERT_EQ(DBd3DeleteKey(h, walk[i].first.c_str(), walk[i].second), 0) << i;
      again.push_back(walk[i]);
    } else {
      kept.push_back(walk[i]);
    }
  }
  ASSERT_EQ(Faults(h), "");
  EXPECT_TRUE(Walk(h, f.length) == kept);
  for (const auto& e : again) ASSERT_EQ(DBd3AddKey(h, e.first.c_str(), e.second), 0);
  KeyList model = kept;
  model.insert(model.end(), again.begin(), again.end());
  auto before = [&](const std::pair<std::string, uint32_t>& a,
                    const std::pair<std::string, uint32_t>& b) {
    if (f.type == 'C') return a.first < b.first;
    return LoadDouble(reinterpret_cast<const uint8_t*>(a.first.data())) <
           LoadDouble(reinterpret_cast<const uint8_t*>(b.first.data()));
  };
  std::stable_sort(model.begin(), model.end(), before);
  ASSERT_EQ(Faults(h), "");
  EXPECT_TRUE(Walk(h, f.length) == model);
  ASSERT_EQ(DBd3CloseIndex(h), 0);

  // A rebuild from the table: the same keys in the same order, and for the
  // bulk-built files the same pages.
  std::string table = CopyFixture(std::string("dbase/") + f.table, dir_);
  int32_t t = -1;
  ASSERT_EQ(DBOpenFile(&t, table.c_str(), 0), 0);
  std::string built = dir_.File("built.ndx");
  char expr[64];
  std::snprintf(expr, sizeof expr, "%s", expected["key_expr"].get<std::string>().c_str());
  ASSERT_EQ(DBd3BuildIndex(t, built.c_str(), f.type, expr, f.length), 0);
  ASSERT_EQ(FileFaults(built), "");
  ASSERT_EQ(DBd3OpenIndex(&h, built.c_str(), 0), 0);
  EXPECT_TRUE(Walk(h, f.length) == walk);
  ASSERT_EQ(DBd3CloseIndex(h), 0);
  ASSERT_EQ(DBCloseFile(t), 0);
  if (f.bulk_built) {
    std::vector<uint8_t> theirs = ReadFileBytes(CopyFixture("dbase/" + ndx, dir_, "theirs.ndx"));
    std::vector<uint8_t> ours = ReadFileBytes(built);
    ASSERT_EQ(ours.size(), theirs.size());
    EXPECT_EQ(LoadLE32(&ours[0]), LoadLE32(&theirs[0]));  // the root, last
    for (size_t page = 512; page < ours.size(); page += 512) {
      int n = LoadLE16(&ours[page]);
      ASSERT_EQ(n, LoadLE16(&theirs[page])) << page;
      // The items in use (and the child of item n).
      size_t used = 4 + 16 * static_cast<size_t>(n) + 4;
      EXPECT_TRUE(std::equal(ours.begin() + page, ours.begin() + page + used, theirs.begin() + page))
          << page;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Files, NdxFixtureTest, ::testing::ValuesIn(kFixtures),
                         [](const ::testing::TestParamInfo<Fixture>& info) {
                           std::string n = info.param.name;
                           std::replace(n.begin(), n.end(), '-', '_');
                           return n;
                         });

}  // namespace
}  // namespace kestrel::test
