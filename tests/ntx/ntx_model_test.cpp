// Model-based random test: thousands of adds, inserts and deletes against an
// ordered multimap, with the invariant checker run along the way, full walks in
// both directions and searches in every mode compared with the model.
#include <cstring>
#include <functional>
#include <map>
#include <random>
#include <set>

#include "ntx_test_util.h"

namespace kestrel::test {
namespace {

struct ByteLess {
  bool descending;
  bool operator()(const std::string& a, const std::string& b) const {
    return descending ? b < a : a < b;  // std::string compares as unsigned bytes
  }
};

using Model = std::multimap<std::string, uint32_t, ByteLess>;

struct Config {
  const char* name;
  int type;    // 'C' or a binary type
  int length;  // key length
  int flags;   // DB_CL_UNIQUE / DB_CL_DESCENDING
  int range;   // distinct key values
  int operations;
};

class ModelRun {
 public:
  ModelRun(const Config& c, int32_t handle, uint32_t seed)
      : c_(c), h_(handle), rng_(seed), model_(ByteLess{(c.flags & DB_CL_DESCENDING) != 0}) {}

  // A key value for v: its full padded bytes, and the text handed to the
  // engine (shorter when the key ends in blanks, to exercise the padding).
  void MakeKey(int v, std::string* full, std::string* given) {
    if (c_.type == 4) {
      char k[5];
      DBclLongToKey(k, v - c_.range / 2);
      *full = std::string(k, 4);
      *given = *full;
      return;
    }
    std::string s;
    int digits = c_.length < 4 ? c_.length : 4;
    int x = v;
    for (int i = 0; i < digits; ++i) {
      s.insert(s.begin(), static_cast<char>('A' + x % 10));
      x /= 10;
    }
    std::string rest(c_.length - digits, v % 3 == 0 ? ' ' : static_cast<char>('a' + v % 26));
    *full = s + rest;
    *given = v % 3 == 0 ? s : *full;
  }

  int32_t Add(const std::string& given, uint32_t rec, bool insert) {
    return insert ? DBclInsertKey(h_, given.data(), static_cast<int32_t>(rec))
                  : DBclAddKey(h_, given.data(), static_cast<int32_t>(rec));
  }

  bool ModelHas(const std::string& key, uint32_t rec) {
    auto [lo, hi] = model_.equal_range(key);
    for (auto it = lo; it != hi; ++it)
      if (it->second == rec) return true;
    return false;
  }

  void Step() {
    std::uniform_int_distribution<int> pick(0, 99);
    int what = pick(rng_);
    bool unique = (c_.flags & DB_CL_UNIQUE) != 0;
    std::string full, given;
    if (what < 60 || model_.empty()) {
      bool insert = what < 15;
      int v = std::uniform_int_distribution<int>(0, c_.range - 1)(rng_);
      MakeKey(v, &full, &given);
      uint32_t rec;
      if (insert && !model_.empty() && what < 5) {
        auto it = std::next(model_.begin(), Random(model_.size()));
        full = it->first;
        given = full;
        rec = it->second;
      } else {
        rec = next_record_++;
      }
      int32_t rc = Add(given, rec, insert);
      bool exists = unique ? model_.count(full) > 0 : (insert && ModelHas(full, rec));
      if (exists) {
        ASSERT_EQ(rc, DB_WARN_EXISTS) << c_.name;
      } else {
        ASSERT_EQ(rc, 0) << c_.name;
        model_.emplace(full, rec);
      }
    } else if (what < 93) {
      auto it = std::next(model_.begin(), Random(model_.size()));
      std::string key = it->first;
      uint32_t rec = it->second;
      ASSERT_EQ(DBclDeleteKey(h_, key.data(), static_cast<int32_t>(rec)), 0) << c_.name;
      if (unique) {
        model_.erase(model_.find(key));
      } else {
        model_.erase(it);
      }
    } else {
      int v = std::uniform_int_distribution<int>(0, c_.range - 1)(rng_);
      MakeKey(v, &full, &given);
      uint32_t rec = next_record_ + 1000;  // never used
      if (unique && model_.count(full)) return;
      int32_t rc = DBclDeleteKey(h_, given.data(), static_cast<int32_t>(rec));
      ASSERT_EQ(rc, model_.empty() ? DB_WARN_FILE_EMPTY : DB_WARN_KEY_NOT_FOUND) << c_.name;
    }
  }

  size_t Random(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }

  void CompareWalks() {
    KeyList expected(model_.begin(), model_.end());
    KeyList forward = NtxTest::Walk(h_, c_.length);
    ASSERT_EQ(forward.size(), expected.size()) << c_.name;
    ASSERT_TRUE(forward == expected) << c_.name;
    KeyList backward = NtxTest::WalkBack(h_, c_.length);
    std::reverse(backward.begin(), backward.end());
    ASSERT_TRUE(backward == expected) << c_.name;
  }

  // The expected result of a search: status and the entry it stops on.
  struct Expect {
    int32_t rc;
    Model::const_iterator at;
  };

  Expect AscendingExpect(int mode, const std::string& k) {
    auto lb = model_.lower_bound(k), ub = model_.upper_bound(k);
    bool found = lb != model_.end() && lb->first == k;
    auto last = std::prev(model_.end());
    switch (mode) {
      case 1:
        if (found) return {0, lb};
        if (lb != model_.begin()) return {DB_WARN_KEY_NOT_FOUND, std::prev(lb)};
        return {DB_WARN_NO_MORE_KEYS, model_.begin()};
      case 13:
        if (found) return {0, lb};
        if (lb != model_.begin()) return {DB_WARN_KEY_NOT_FOUND, std::prev(lb)};
        return {DB_WARN_KEY_NOT_FOUND, model_.begin()};
      case 12:
        if (found) return {0, lb};
        if (lb != model_.begin()) return {0, std::prev(lb)};
        return {DB_WARN_KEY_NOT_FOUND, model_.begin()};
      case 11:
        if (lb != model_.begin()) return {0, std::prev(lb)};
        return {DB_WARN_KEY_NOT_FOUND, model_.begin()};
      case 14:
        if (lb != model_.end()) return {0, lb};
        return {DB_WARN_KEY_NOT_FOUND, last};
      default:  // 15
        if (ub != model_.end()) return {0, ub};
        return {DB_WARN_KEY_NOT_FOUND, last};
    }
  }

  // Descending indexes: expectations by value over the distinct keys.
  std::pair<int32_t, std::string> DescendingExpect(int mode, const std::string& k) {
    std::set<std::string> keys;
    for (const auto& e : model_) keys.insert(e.first);
    auto lb = keys.lower_bound(k), ub = keys.upper_bound(k);
    bool found = lb != keys.end() && *lb == k;
    bool below = lb != keys.begin();
    std::string smallest = *keys.begin(), largest = *keys.rbegin();
    switch (mode) {
      case 1:
      case 13:
        if (found) return {0, k};
        if (below) return {DB_WARN_KEY_NOT_FOUND, *std::prev(lb)};
        return {DB_WARN_KEY_NOT_FOUND, smallest};
      case 12:
        if (found) return {0, k};
        if (below) return {0, *std::prev(lb)};
        return {DB_WARN_KEY_NOT_FOUND, smallest};
      case 11:
        if (below) return {0, *std::prev(lb)};
        return {DB_WARN_KEY_NOT_FOUND, smallest};
      case 14:
        if (lb != keys.end()) return {0, *lb};
        return {DB_WARN_KEY_NOT_FOUND, largest};
      default:
        if (ub != keys.end()) return {0, *ub};
        return {DB_WARN_KEY_NOT_FOUND, largest};
    }
  }

  void CompareSearches(int count) {
    if (model_.empty()) return;
    const int modes[] = {1, 11, 12, 13, 14, 15};
    for (int i = 0; i < count; ++i) {
      std::string full, given;
      // Keys from the model, and values just outside its range.
      int v = std::uniform_int_distribution<int>(-2, c_.range + 1)(rng_);
      if (v < 0 || v >= c_.range) {
        if (c_.type == 4) {
          MakeKey(v < 0 ? 0 : c_.range - 1, &full, &given);
          full = std::string(4, v < 0 ? '\0' : '\xff');
        } else {
          full = std::string(c_.length, v < 0 ? '!' : '~');
        }
      } else {
        MakeKey(v, &full, &given);
      }
      int mode = modes[Random(6)];
      std::string buf = full;
      buf.resize(c_.length + 1, '\0');
      int32_t rec = 0;
      int32_t rc = DBclKeySearch(h_, buf.data(), &rec, mode);
      std::string got(buf.data(), c_.length);
      if (c_.flags & DB_CL_DESCENDING) {
        auto [want_rc, want_key] = DescendingExpect(mode, full);
        ASSERT_EQ(rc, want_rc) << c_.name << " mode " << mode;
        ASSERT_EQ(got, want_key) << c_.name << " mode " << mode;
      } else {
        Expect e = AscendingExpect(mode, full);
        ASSERT_EQ(rc, e.rc) << c_.name << " mode " << mode;
        ASSERT_EQ(got, e.at->first) << c_.name << " mode " << mode;
        ASSERT_EQ(static_cast<uint32_t>(rec), e.at->second) << c_.name << " mode " << mode;
      }
      // Mode 2 finds the exact pair.
      auto it = std::next(model_.begin(), Random(model_.size()));
      buf = it->first;
      buf.resize(c_.length + 1, '\0');
      rec = static_cast<int32_t>(it->second);
      ASSERT_EQ(DBclKeySearch(h_, buf.data(), &rec, 2), 0) << c_.name;
      ASSERT_EQ(static_cast<uint32_t>(rec), it->second);
    }
  }

  const Model& model() const { return model_; }

 private:
  Config c_;
  int32_t h_;
  std::mt19937 rng_;
  Model model_;
  uint32_t next_record_ = 1;
};

class NtxModelTest : public NtxTest, public ::testing::WithParamInterface<Config> {};

TEST_P(NtxModelTest, RandomOperationsMatchModel) {
  const Config& c = GetParam();
  int32_t h = CreateOpen(std::string(c.name) + ".ntx", c.type | c.flags, c.length);
  ASSERT_GE(h, 0);
  ModelRun run(c, h, 12345u + c.length + c.flags);
  for (int i = 1; i <= c.operations; ++i) {
    ASSERT_NO_FATAL_FAILURE(run.Step()) << "operation " << i;
    if (i % 300 == 0) {
      ASSERT_EQ(Findings(h), "") << c.name << " after operation " << i;
      ASSERT_NO_FATAL_FAILURE(run.CompareSearches(10));
    }
    if (i % 1500 == 0) {
      ASSERT_NO_FATAL_FAILURE(run.CompareWalks());
    }
  }
  ntx::CheckSummary summary{};
  ASSERT_EQ(Findings(h, &summary), "");
  EXPECT_EQ(summary.keys, run.model().size());
  ASSERT_NO_FATAL_FAILURE(run.CompareWalks());
  ASSERT_NO_FATAL_FAILURE(run.CompareSearches(200));
  // Reopened from disk, the index holds the same keys.
  ASSERT_EQ(DBclCloseIndex(h), 0);
  std::string path = dir_.File(std::string(c.name) + ".ntx");
  ASSERT_EQ(FileFindings(path), "");
  ASSERT_EQ(DBclOpenIndex(&h, path.c_str(), 0), 0);
  KeyList expected(run.model().begin(), run.model().end());
  EXPECT_TRUE(Walk(h, c.length) == expected);
  // Emptying key by key leaves a valid empty index.
  for (const auto& e : expected) {
    ASSERT_EQ(DBclDeleteKey(h, e.first.data(), static_cast<int32_t>(e.second)), 0);
  }
  ASSERT_EQ(Findings(h, &summary), "");
  EXPECT_EQ(summary.keys, 0u);
  EXPECT_EQ(summary.depth, 1u);
  char key[300];
  int32_t rec = 0;
  EXPECT_EQ(DBclGoFirstKey(h, key, &rec), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBclCloseIndex(h), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Configs, NtxModelTest,
    ::testing::Values(Config{"dup10", 'C', 10, 0, 400, 30000},
                      Config{"unique10", 'C', 10, DB_CL_UNIQUE, 1500, 15000},
                      Config{"desc10", 'C', 10, DB_CL_DESCENDING, 400, 15000},
                      Config{"descunique50", 'C', 50, DB_CL_DESCENDING | DB_CL_UNIQUE, 2000, 4000},
                      Config{"wide254", 'C', 254, 0, 300, 8000},
                      Config{"narrow1", 'C', 1, 0, 10, 3000},
                      Config{"long4", 4, 4, 0, 5000, 15000}),
    [](const ::testing::TestParamInfo<Config>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kestrel::test
