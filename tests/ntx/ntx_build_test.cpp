// Index builds from real tables: order, fill, unique and descending builds,
// builds through temporary sort files, numeric keys in both forms, keys made
// for single records agreeing with the build, the shared sorter against a
// model, failed and stopped builds keeping the old index, and two builds in
// one folder at once.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>

#include "index/clipper/ntx_index.h"
#include "index/common/sorter.h"
#include "ntx_test_util.h"
#include "runtime/library_state.h"
#include "support/child.h"

namespace kestrel::test {
namespace {

class NtxBuildTest : public NtxTest {
 protected:
  void SetUp() override {
    NtxTest::SetUp();
    DBFIELD fields[2] = {Field("NAME", 'C', 12), Field("AMOUNT", 'N', 10, 2)};
    table_path_ = dir_.File("people.dbf");
    ASSERT_EQ(DBCreateFile(table_path_.c_str(), 2, fields, DB_DIALECT_CLIPPER), 0);
    ASSERT_EQ(DBOpenFile(&table_, table_path_.c_str(), DB_DIALECT_CLIPPER), 0);
    std::mt19937 rng(7);
    for (int r = 1; r <= kRecords; ++r) {
      char name[16], amount[16];
      std::snprintf(name, sizeof name, "N%04u", static_cast<unsigned>(rng() % 900));
      double value = static_cast<double>(rng() % 2000000) / 100.0 - (r % 7 == 0 ? 10000.0 : 0.0);
      std::snprintf(amount, sizeof amount, "%.2f", value);
      names_.emplace_back(std::string(name) + std::string(12 - std::strlen(name), ' '));
      amounts_.push_back(std::strtod(amount, nullptr));
      ASSERT_EQ(DBPutStrField(table_, 0, name), 0);
      ASSERT_EQ(DBPutStrField(table_, 1, amount), 0);
      ASSERT_EQ(AppendRecord(table_), r);
    }
    for (int r = 5; r <= kRecords; r += 97) ASSERT_EQ(DBMarkRecordInActive(table_, r), 0);
  }
  void TearDown() override {
    index::SetBuildSortBudget(0);
    if (table_ >= 0) DBCloseFile(table_);
    NtxTest::TearDown();
  }

  // Builds and opens an index; returns the handle.
  int32_t Build(const std::string& name, int32_t type, const char* expression, int32_t length,
                int32_t decimals = 0) {
    std::string path = dir_.File(name);
    std::string expr = expression;
    EXPECT_GE(DBclBuildIndex(table_, path.c_str(), type, expr.data(), length, decimals), 0);
    EXPECT_EQ(FileFindings(path), "") << name;
    int32_t h = -1;
    EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), 0), 0);
    return h;
  }

  std::vector<std::string> Listing() const { return dir_.Listing(); }

  static constexpr int kRecords = 3000;
  std::string table_path_;
  int32_t table_ = -1;
  std::vector<std::string> names_;
  std::vector<double> amounts_;
};

TEST_F(NtxBuildTest, BuildsEveryRecordInKeyThenRecordOrder) {
  int32_t h = Build("name.ntx", 'C', "name", 12);
  KeyList expected;
  for (int r = 1; r <= kRecords; ++r) expected.emplace_back(names_[r - 1], r);
  std::stable_sort(expected.begin(), expected.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  EXPECT_TRUE(Walk(h, 12) == expected);
  ntx::CheckSummary s{};
  EXPECT_EQ(Findings(h, &s), "");
  EXPECT_EQ(s.keys, static_cast<uint64_t>(kRecords));
  // Pages are filled: close to the fewest pages that can hold the keys.
  EXPECT_LE(s.tree_pages, kRecords / 44 + 5u);  // 44 keys per page
  // Keys made for single records are the built keys; the index stays valid
  // as records change.
  for (int r : {1, 77, kRecords}) {
    ASSERT_GE(DBGetRecord(table_, r), 0);
    char* key = nullptr;
    ASSERT_EQ(DBclMakeKey(table_, h, &key), 0);
    EXPECT_EQ(std::string(key), names_[r - 1]);
    ASSERT_EQ(DBclDeleteKey(h, key, r), 0);
    DBFreeMemory(key);
  }
  for (int r : {1, 77, kRecords}) ASSERT_EQ(DBclAddKey(h, "ZZZ", r), 0);
  EXPECT_EQ(Findings(h), "");
  EXPECT_EQ(DBclCloseIndex(h), 0);
}

TEST_F(NtxBuildTest, UniqueAndDescendingBuilds) {
  int32_t u = Build("u.ntx", 'C' | DB_CL_UNIQUE, "NAME", 12);
  std::map<std::string, int> first;
  for (int r = kRecords; r >= 1; --r) first[names_[r - 1]] = r;
  KeyList expected(first.begin(), first.end());
  EXPECT_TRUE(Walk(u, 12) == expected);

  int32_t d = Build("d.ntx", 'C' | DB_CL_DESCENDING, "NAME", 12);
  KeyList desc;
  for (int r = 1; r <= kRecords; ++r) desc.emplace_back(names_[r - 1], r);
  std::stable_sort(desc.begin(), desc.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  EXPECT_TRUE(Walk(d, 12) == desc);
  char key[13] = "N0450";
  int32_t rec = 0;
  EXPECT_EQ(DBclKeySearch(d, key, &rec, 14), 0);
}

TEST_F(NtxBuildTest, TemporarySortFilesGiveTheSameIndex) {
  std::string expr = "NAME";
  std::string memory = dir_.File("m.ntx");
  ASSERT_EQ(DBclBuildIndex(table_, memory.c_str(), 'C', expr.data(), 12, 0), 0);
  index::SetBuildSortBudget(16 * 100);  // runs of 100 keys: 30 sort files
  // Files that happen to have the names this process would try first (left
  // by an earlier process with the same id) are passed over, not reused.
  std::string pid = std::to_string(getpid());
  const std::vector<std::string> strays = {"STKS" + pid + "_0.TMP", "s.ntx." + pid + "_0.TMP"};
  for (const std::string& name : strays) WriteFileBytes(dir_.File(name), {'k', 'e', 'e', 'p'});
  std::string spilled = dir_.File("s.ntx");
  ASSERT_EQ(DBclBuildIndex(table_, spilled.c_str(), 'C', expr.data(), 12, 0), 0);
  EXPECT_TRUE(ReadFileBytes(memory) == ReadFileBytes(spilled));
  for (const std::string& name : strays) {
    EXPECT_TRUE(ReadFileBytes(dir_.File(name)) == (std::vector<uint8_t>{'k', 'e', 'e', 'p'}));
    std::filesystem::remove(dir_.File(name));
  }
  std::string unique = dir_.File("su.ntx");
  ASSERT_EQ(DBclBuildIndex(table_, unique.c_str(), 'C' | DB_CL_UNIQUE, expr.data(), 12, 0), 0);
  EXPECT_EQ(FileFindings(unique), "");
  EXPECT_EQ(Listing(), (std::vector<std::string>{"m.ntx", "people.dbf", "s.ntx", "su.ntx"}));
}

// A build that fails or is stopped, at any phase, in memory or through sort
// files, leaves the index it was rebuilding byte for byte and nothing else
// behind.
TEST_F(NtxBuildTest, FailedOrStoppedBuildKeepsTheOldIndex) {
  std::string path = dir_.File("name.ntx");
  std::string expr = "NAME";
  ASSERT_EQ(DBclBuildIndex(table_, path.c_str(), 'C', expr.data(), 12, 0), 0);
  const std::vector<uint8_t> old = ReadFileBytes(path);
  const std::vector<std::string> listing = Listing();
  struct Stop {
    int32_t phase;
    uint64_t after;  // stop at the first report at or past this
  };
  struct Case {
    const char* what;
    const char* expression;
    int32_t type, length;
    uint64_t budget;
    Stop stop;
    int32_t expected;
  } cases[] = {
      {"key too long for the index", "NAME", 'C', 8, 0, {0, 0}, DB_ERR_KEY_LENGTH},
      {"expression that is no key", "NAME+AMOUNT", 'C', 12, 0, {0, 0}, 0},
      {"stopped while reading", "NAME", 'C', 12, 16 * 100, {DB_CL_BUILD_READING, 0}, -212},
      {"stopped while merging", "NAME", 'C' | DB_CL_UNIQUE, 12, 16 * 100,
       {DB_CL_BUILD_MERGING, 0}, -212},
      {"stopped while writing", "AMOUNT", 'N', 10, 0, {DB_CL_BUILD_WRITING, 1000}, -212},
      {"stopped writing from sort files", "NAME", 'C', 12, 16 * 100,
       {DB_CL_BUILD_WRITING, 1000}, -212},
  };
  for (const Case& c : cases) {
    index::SetBuildSortBudget(c.budget);
    std::string e = c.expression;
    auto stop = [](void* context, int32_t phase, uint64_t done, uint64_t) -> int32_t {
      const Stop* s = static_cast<const Stop*>(context);
      return phase == s->phase && done >= s->after ? -212 : 0;
    };
    Stop at = c.stop;
    int32_t rc = DBclBuildIndexWithProgress(table_, path.c_str(), c.type, e.data(), c.length, 0,
                                            stop, &at);
    if (c.expected != 0) {
      EXPECT_EQ(rc, c.expected) << c.what;
    } else {
      EXPECT_LT(rc, 0) << c.what;
    }
    EXPECT_TRUE(ReadFileBytes(path) == old) << c.what;
    EXPECT_EQ(Listing(), listing) << c.what;
  }
  // A build that completes replaces the old index.
  index::SetBuildSortBudget(16 * 100);
  ASSERT_EQ(DBclBuildIndex(table_, path.c_str(), 'C' | DB_CL_DESCENDING, expr.data(), 12, 0), 0);
  EXPECT_FALSE(ReadFileBytes(path) == old);
  EXPECT_EQ(FileFindings(path), "");
  EXPECT_EQ(Listing(), listing);
  // An index someone holds open exclusively is not replaced.
  int32_t h = -1;
  ASSERT_EQ(DBclOpenIndex(&h, path.c_str(), 0), 0);
  const std::vector<uint8_t> held = ReadFileBytes(path);
  EXPECT_EQ(DBclBuildIndex(table_, path.c_str(), 'C', expr.data(), 12, 0), DB_ERR_OPEN);
  EXPECT_EQ(DBclCloseIndex(h), 0);
  EXPECT_TRUE(ReadFileBytes(path) == held);
  EXPECT_EQ(Listing(), listing);
}

// Two processes building in one folder at once, both through sort files: each
// waits, once all but its last run are on disk, until the other has written
// its runs too, so that sort files sharing a name would be overwritten.  Both
// indexes must come out as a build alone makes them.
TEST_F(NtxBuildTest, TwoBuildsInOneFolderAtOnce) {
  struct Build {
    const char* name;
    int32_t type;
    std::vector<uint8_t> alone;
  } builds[2] = {{"a.ntx", 'C', {}}, {"b.ntx", 'C' | DB_CL_DESCENDING, {}}};
  for (Build& b : builds) {
    std::string expr = "NAME";
    std::string path = dir_.File(std::string("alone-") + b.name);
    ASSERT_EQ(DBclBuildIndex(table_, path.c_str(), b.type, expr.data(), 12, 0), 0);
    b.alone = ReadFileBytes(path);
  }
  ASSERT_EQ(DBCloseFile(table_), 0);
  table_ = -1;
  {
    // Each child: its own table handle, small runs, and the meeting point at
    // the end of its reading phase.
    Signal a_read, b_read;
    Signal* mine[2][2] = {{&a_read, &b_read}, {&b_read, &a_read}};  // send, wait
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < 2; ++i) {
      children.push_back(std::make_unique<Child>([&, i](ChildChecks& checks) {
        int32_t t = -1;
        const int32_t mode = DB_DIALECT_CLIPPER | DB_OPEN_READONLY | DB_OPEN_SHARED;
        CHILD_EQ(checks, DBOpenFile(&t, table_path_.c_str(), mode), 0);
        index::SetBuildSortBudget(16 * 100);
        auto meet = [](void* context, int32_t phase, uint64_t done, uint64_t total) -> int32_t {
          auto* signals = static_cast<Signal**>(context);
          if (phase == DB_CL_BUILD_READING && done == total) {
            signals[0]->Send();
            if (!signals[1]->Wait()) return -212;
          }
          return 0;
        };
        std::string expr = "NAME";
        CHILD_EQ(checks,
                 DBclBuildIndexWithProgress(t, dir_.File(builds[i].name).c_str(), builds[i].type,
                                            expr.data(), 12, 0, meet, mine[i]),
                 0);
      }));
    }
  }
  for (const Build& b : builds) {
    EXPECT_TRUE(ReadFileBytes(dir_.File(b.name)) == b.alone) << b.name;
  }
  EXPECT_EQ(Listing(), (std::vector<std::string>{"a.ntx", "alone-a.ntx", "alone-b.ntx", "b.ntx",
                                                 "people.dbf"}));
}

// The shared sorter on its own, against a stable sort of the same entries:
// short and long keys (the bucket sort covers 16 bytes), few and many equal
// keys, in memory and through sort files, every order.
TEST(IndexSorter, SortsLikeAStableSort) {
  ASSERT_EQ(DBInitialize(64, 0), 0);
  TempDir dir;
  std::string near = dir.File("x.idx");
  class Keys : public index::KeySource {
   public:
    std::vector<std::string> keys;
    uint32_t count() const override { return static_cast<uint32_t>(keys.size()); }
    int32_t KeyOf(uint32_t record, uint8_t* key) override {
      std::memcpy(key, keys[record - 1].data(), keys[record - 1].size());
      return record == 3 ? 206 : 0;  // a warning passes through
    }
  };
  std::mt19937 rng(5);
  for (int length : {1, 7, 16, 17, 40, 256}) {
    for (int alphabet : {2, 200}) {
      Keys source;
      for (int i = 0; i < 2500; ++i) {
        std::string k(length, 'a');
        for (char& c : k) c = static_cast<char>(rng() % alphabet);
        source.keys.push_back(k);
      }
      for (uint64_t budget : {uint64_t{0}, static_cast<uint64_t>((length + 4) * 300)}) {
        for (int flags = 0; flags < 4; ++flags) {
          bool descending = flags & 1, unique = flags & 2;
          std::vector<std::pair<std::string, uint32_t>> model;
          for (uint32_t r = 1; r <= source.keys.size(); ++r) model.emplace_back(source.keys[r - 1], r);
          std::stable_sort(model.begin(), model.end(), [&](const auto& a, const auto& b) {
            return descending ? b.first < a.first : a.first < b.first;
          });
          if (unique) {
            model.erase(std::unique(model.begin(), model.end(),
                                    [](const auto& a, const auto& b) { return a.first == b.first; }),
                        model.end());
          }
          index::Sorter sorter({length, descending, unique}, near.c_str(), budget,
                               KS_ENGINE_MODULE("TEST"));
          ASSERT_EQ(sorter.Sort(source, nullptr), 206);
          EXPECT_EQ(sorter.spilled_runs() > 0, budget > 0);
          ASSERT_EQ(sorter.count(), model.size());
          for (int pass = 0; pass < 2; ++pass) {  // the stream can be read again
            ASSERT_EQ(sorter.Rewind(), 0);
            int32_t rc = 0;
            size_t i = 0;
            for (const uint8_t* e = sorter.Next(&rc); e; e = sorter.Next(&rc), ++i) {
              ASSERT_LT(i, model.size());
              ASSERT_EQ(std::string(reinterpret_cast<const char*>(e), length), model[i].first)
                  << length << '/' << alphabet << '/' << flags << '/' << budget << ' ' << i;
              ASSERT_EQ(sorter.RecordOf(e), model[i].second);
            }
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(i, model.size());
          }
        }
      }
    }
  }
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
  DBTerminate();
}

TEST_F(NtxBuildTest, NumericKeysInBothForms) {
  int32_t plain = Build("amount.ntx", 'N', "AMOUNT", 10, 2);
  KeyList walk = Walk(plain, 10);
  ASSERT_EQ(walk.size(), static_cast<size_t>(kRecords));
  // Integer digits only: every built key is the record's value converted.
  for (const auto& [key, rec] : walk) {
    char made[12];
    ASSERT_GE(DBclNumericToKey(plain, made, amounts_[rec - 1]), 0);
    ASSERT_EQ(key, std::string(made)) << rec;
  }
  int32_t full = Build("amountd.ntx", 'N' | DB_CL_BUILD_WITH_DECIMALS, "AMOUNT", 10, 2);
  walk = Walk(full, 10);
  ASSERT_EQ(walk.size(), static_cast<size_t>(kRecords));
  EXPECT_EQ(walk.back().first[7], '.');
  double previous = -1;
  for (const auto& [key, rec] : walk) {
    double value = amounts_[rec - 1];
    double back = 0;
    ASSERT_EQ(DBclKeyToNumeric(&back, key.c_str()), 0);
    EXPECT_DOUBLE_EQ(back, value);
    if (value >= 0) {
      EXPECT_LE(previous, value);
      previous = value;
    }
  }
  // The open index made with the default form converts in the integer form;
  // the switch changes it for this handle.
  char key[12];
  EXPECT_EQ(DBclNumericToKey(full, key, 12.5), 0);
  EXPECT_STREQ(key, "0000000012");
  ASSERT_EQ(DBclSetNumericKeyForm(full, DB_CL_NUMERIC_WITH_DECIMALS, nullptr), 0);
  EXPECT_EQ(DBclNumericToKey(full, key, 12.5), 0);
  EXPECT_STREQ(key, "0000012.50");
  ASSERT_EQ(DBGetRecord(table_, 3), 0);
  char* made = nullptr;
  ASSERT_GE(DBclMakeKey(table_, full, &made), 0);
  double value = 0;
  ASSERT_EQ(DBclKeyToNumeric(&value, made), 0);
  EXPECT_DOUBLE_EQ(value, amounts_[2]);
  DBFreeMemory(made);
}

// One-digit numeric keys: some 150 records share each key, so whole sort
// buckets are equal keys; they must come out in record order, ascending or
// descending alike.
TEST_F(NtxBuildTest, ManyEqualKeysKeepRecordOrder) {
  for (int32_t flags : {0, DB_CL_DESCENDING}) {
    int32_t h = Build(flags ? "digitd.ntx" : "digit.ntx", 'N' | flags, "AMOUNT", 1);
    KeyList walk = Walk(h, 1);
    ASSERT_EQ(walk.size(), static_cast<size_t>(kRecords));
    for (size_t i = 1; i < walk.size(); ++i) {
      const auto& [key, rec] = walk[i];
      const auto& [before, before_rec] = walk[i - 1];
      if (key == before) {
        ASSERT_LT(before_rec, rec) << i;
      } else {
        ASSERT_TRUE(flags ? before > key : before < key) << i;
      }
    }
    EXPECT_EQ(DBclCloseIndex(h), 0);
  }
}

// A random stored number: mostly what programs write (right-aligned digits
// with a point), some near the rounding places, some malformed.
std::string RandomNumberText(std::mt19937& rng, int width) {
  auto digits = [&](int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += static_cast<char>('0' + rng() % 10);
    return out;
  };
  std::string body;
  if (rng() % 2) body += '-';
  body += digits(static_cast<int>(rng() % 16));
  if (rng() % 4) {
    body += '.';
    static const char* const kTails[] = {"5", "50", "49999", "9999999", "0000", "95"};
    body += rng() % 5 ? digits(static_cast<int>(rng() % 11)) : kTails[rng() % 6];
  }
  if (rng() % 10 == 0 && !body.empty()) {
    static const char kNoise[] = " +-.e9x";
    body[rng() % body.size()] = kNoise[rng() % (sizeof kNoise - 1)];
  }
  if (static_cast<int>(body.size()) > width) body.resize(width);
  int pad = width - static_cast<int>(body.size());
  return rng() % 8 ? std::string(pad, ' ') + body : body + std::string(pad, ' ');
}

// Keys made straight from stored digits must be the bytes the conversion
// through the double gives, for every text the shortcut accepts; and it must
// accept most of what programs write, or the build gains nothing.
TEST(NtxNumericText, DigitKeysEqualTheDoubleConversion) {
  std::mt19937 rng(2026);
  int accepted = 0;
  constexpr int kCases = 400000;
  for (int i = 0; i < kCases; ++i) {
    int width = 1 + static_cast<int>(rng() % 24);
    std::string text = RandomNumberText(rng, width);
    int key_length = 1 + static_cast<int>(rng() % 24);
    int decimals = static_cast<int>(rng() % 11);
    int32_t form = static_cast<int32_t>(rng() % 2);
    char fast[32], slow[32];
    int32_t status = -1;
    if (!ntx::NumericTextToKey(text.data(), width, key_length, decimals, form, fast, &status)) {
      continue;
    }
    ++accepted;
    int32_t expected =
        ntx::NumericToKey(std::strtod(text.c_str(), nullptr), key_length, decimals, form, slow);
    ASSERT_EQ(std::string(fast), std::string(slow)) << '"' << text << "\" length " << key_length
                                                    << " decimals " << decimals << " form " << form;
    ASSERT_EQ(status, expected) << '"' << text << '"';
  }
  EXPECT_GT(accepted, kCases / 4);
}

// A build reading the numeric field directly and one going through the
// evaluator (forced by registering a keyword) write the same bytes, also for
// texts the shortcut leaves to the evaluator.
TEST_F(NtxBuildTest, DirectNumericBuildEqualsEvaluatedBuild) {
  DBFIELD field = Field("VALUE", 'N', 16, 4);
  std::string path = dir_.File("numbers.dbf");
  ASSERT_EQ(DBCreateFile(path.c_str(), 1, &field, DB_DIALECT_CLIPPER), 0);
  int32_t t = -1;
  ASSERT_EQ(DBOpenFile(&t, path.c_str(), DB_DIALECT_CLIPPER), 0);
  std::mt19937 rng(11);
  const char* const kSpecial[] = {"           -0.00", "                ", "           1e3  ",
                                  "  99999999999.99", "          +12.50", "-123456789012.34"};
  for (int r = 0; r < 4000; ++r) {
    // (A number too large for a double makes the whole build fail: kept out.)
    std::string text = r < 6 ? kSpecial[r] : RandomNumberText(rng, 16);
    while (std::isinf(std::strtod(text.c_str(), nullptr))) text = RandomNumberText(rng, 16);
    ASSERT_EQ(DBPutFieldBinary(t, 0, text.data()), 0);
    AppendRecord(t);
  }
  struct Form {
    int32_t type, length, decimals;
  } forms[] = {{'N', 12, 2},
               {'N', 6, 0},
               {'N', 19, 4},
               {'N' | DB_CL_BUILD_WITH_DECIMALS, 14, 4},
               {'N' | DB_CL_BUILD_WITH_DECIMALS, 10, 2},
               {'N' | DB_CL_BUILD_WITH_DECIMALS, 5, 2},
               {'C', 16, 0}};
  for (const Form& f : forms) {
    std::string direct = dir_.File("direct.ntx"), evaluated = dir_.File("evaluated.ntx");
    std::string expr = "VALUE";
    int32_t rc_direct =
        DBclBuildIndex(t, direct.c_str(), f.type, expr.data(), f.length, f.decimals);
    ASSERT_EQ(DBAddParseEntry("NOSUCHWORD", [](DBEXPRVALUE*) -> int32_t { return 0; }), 0);
    int32_t rc_evaluated =
        DBclBuildIndex(t, evaluated.c_str(), f.type, expr.data(), f.length, f.decimals);
    ASSERT_EQ(DBDeleteParseEntry("NOSUCHWORD"), 0);
    EXPECT_EQ(rc_direct, rc_evaluated) << f.length << '/' << f.decimals;
    EXPECT_GE(rc_direct, 0);
    EXPECT_TRUE(ReadFileBytes(direct) == ReadFileBytes(evaluated)) << f.length << '/' << f.decimals;
    EXPECT_EQ(FileFindings(direct), "");
  }
  DBCloseFile(t);
}

TEST_F(NtxBuildTest, BadArgumentsAndExpressions) {
  std::string path = dir_.File("bad.ntx");
  std::string expr = "NAME";
  EXPECT_EQ(DBclBuildIndex(table_ + 1, path.c_str(), 'C', expr.data(), 12, 0),
            DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(DBclBuildIndex(table_, nullptr, 'C', expr.data(), 12, 0), DB_ERR_NULL);
  EXPECT_EQ(DBclBuildIndex(table_, path.c_str(), 'Q', expr.data(), 12, 0), DB_ERR_KEY_TYPE);
  std::string bad = "NAME+AMOUNT";  // a character and a numeric value: not a key
  EXPECT_LT(DBclBuildIndex(table_, path.c_str(), 'C', bad.data(), 12, 0), 0);
  // A key too long for the index, and a value of the wrong type.
  EXPECT_EQ(DBclBuildIndex(table_, path.c_str(), 'C', expr.data(), 8, 0), DB_ERR_KEY_LENGTH);
  EXPECT_EQ(DBclBuildIndex(table_, path.c_str(), 4, expr.data(), 4, 0), DB_ERR_KEY_TYPE);
  int32_t h = Build("ok.ntx", 'C', "NAME", 12);
  char* key = reinterpret_cast<char*>(1);
  EXPECT_EQ(DBclMakeKey(table_, h + 1, &key), DB_ERR_INVALID_HANDLE);
  EXPECT_EQ(key, nullptr);
}

}  // namespace
}  // namespace kestrel::test
