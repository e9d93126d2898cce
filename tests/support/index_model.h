// Model-based random test of an index engine: random adds, inserts and deletes
// against an ordered multimap, the format's invariant checker after every step,
// and walks in both directions and seeks in every mode compared with the model.
//
// An engine's test supplies an IndexUnderTest (a handful of calls onto its
// interface: add, insert, delete, seek, first/next/last/previous, check) and
// a list of configurations; RunIndexModel does the rest.  A failure names the
// configuration, the seed and the step, and the seed can be set with the
// environment variable KESTREL_MODEL_SEED to replay or to explore.
//
// The step mix: 5% re-insert a pair already present (must be refused with
// 211), 10% insert a new pair, 45% add a new pair (a unique index refuses
// a key it holds, with 211), 33% delete a pair present, 7% delete a pair not
// present (204, or 202 when empty).
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <map>
#include <random>
#include <tuple>
#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kestrel/kestrel_frame.h"

namespace kestrel::test {

// Keys compare as unsigned bytes (or by the engine's typed order when one is
// given), reversed for a descending index.
using KeyCompare = int (*)(const std::string& a, const std::string& b);
struct ByteOrder {
  bool descending;
  KeyCompare compare = nullptr;
  bool operator()(const std::string& a, const std::string& b) const {
    if (compare) return descending ? compare(b, a) < 0 : compare(a, b) < 0;
    return descending ? b < a : a < b;  // std::string compares as unsigned bytes
  }
};

using IndexModel = std::multimap<std::string, uint32_t, ByteOrder>;

struct ModelConfig {
  const char* name;
  int key_length;
  bool unique;
  bool descending;
  int range;        // distinct key values
  int operations;   // steps
  int check_every;  // steps between invariant checks (1: after every step)
  uint32_t seed;
  // The engine's key order when its keys do not sort as bytes.
  KeyCompare compare = nullptr;
  // Seeks of a descending index answer in the index's own order ("below" is
  // "before in the walk"), not in value terms.
  bool seek_in_index_order = false;
};

// Search modes every engine of the family answers the same way (the
// ascending meaning; a descending index reads "below" as "after").
enum SeekMode : int {
  kSeekFirst = 1,        // first equal, else the key before (204; 203 when none)
  kSeekBelow = 11,       // the last key below
  kSeekEqualBelow = 12,  // first equal, else the last key below
  kSeekBefore = 13,      // first equal, else the key before (204)
  kSeekEqualAbove = 14,  // first equal or above
  kSeekAbove = 15,       // first above
};

// The engine under test: one open index.
class IndexUnderTest {
 public:
  virtual ~IndexUnderTest() = default;
  // The full key bytes for value v (0 <= v < range, or just outside it for
  // seeks), and the text handed to the engine (shorter when the engine pads).
  virtual void MakeKey(int v, std::string* full, std::string* given) = 0;
  virtual int32_t Add(const std::string& given, uint32_t record) = 0;
  virtual int32_t Insert(const std::string& given, uint32_t record) = 0;
  virtual int32_t Delete(const std::string& key, uint32_t record) = 0;
  // Moves: first, next, last, previous; the key and record of the new position.
  enum Move { kFirst, kNext, kLast, kPrevious };
  virtual int32_t Go(Move move, std::string* key, uint32_t* record) = 0;
  // A seek: the status and the key and record where it stopped.
  virtual int32_t Seek(int mode, const std::string& key, std::string* found,
                       uint32_t* record) = 0;
  // The seek that finds an exact key and record (0 when found, with the
  // record it stopped on).
  virtual int32_t SeekPair(const std::string& key, uint32_t record, uint32_t* found) = 0;
  // The invariant checker's faults as text ("" when the index is sound) and
  // the number of keys it counted.
  virtual std::string Check(uint64_t* keys) = 0;
  // A key just below or above every key of the model, for seeks off the ends.
  virtual std::string KeyBelowAll() = 0;
  virtual std::string KeyAboveAll() = 0;
  // Closes and opens the index again (the keys must have reached the file).
  virtual void Reopen() {}
  // The status of a delete that removes the last key (an engine may report
  // the now empty index).
  virtual int32_t EmptiedStatus() const { return 0; }
};

class IndexModelRun {
 public:
  IndexModelRun(const ModelConfig& c, IndexUnderTest* index)
      : c_(c), ix_(index), seed_(SeedFor(c)), rng_(seed_), model_(ByteOrder{c.descending, c.compare}) {}

  // The configuration's seed, or KESTREL_MODEL_SEED when set.
  static uint32_t SeedFor(const ModelConfig& c) {
    const char* env = std::getenv("KESTREL_MODEL_SEED");
    return env && *env ? static_cast<uint32_t>(std::strtoul(env, nullptr, 10)) : c.seed;
  }

  std::string Where() const {
    return std::string(c_.name) + ", seed " + std::to_string(seed_) + ", step " +
           std::to_string(step_);
  }

  // Runs every step, with the checks along the way; then reopens the index,
  // compares it again and empties it key by key.
  void Run() {
    for (step_ = 1; step_ <= c_.operations; ++step_) {
      ASSERT_NO_FATAL_FAILURE(Step());
      if (step_ % c_.check_every == 0) {
        ASSERT_NO_FATAL_FAILURE(Check());
      }
      if (step_ % 300 == 0) {
        ASSERT_NO_FATAL_FAILURE(CompareSeeks(10));
      }
      if (step_ % 1500 == 0) {
        ASSERT_NO_FATAL_FAILURE(CompareWalks());
      }
    }
    ASSERT_NO_FATAL_FAILURE(Check());
    ASSERT_NO_FATAL_FAILURE(CompareWalks());
    ASSERT_NO_FATAL_FAILURE(CompareSeeks(200));
    ix_->Reopen();
    ASSERT_NO_FATAL_FAILURE(Check());
    ASSERT_NO_FATAL_FAILURE(CompareWalks());
    for (auto it = model_.begin(); it != model_.end(); it = model_.erase(it)) {
      ASSERT_EQ(ix_->Delete(it->first, it->second), model_.size() == 1 ? ix_->EmptiedStatus() : 0)
          << Where() << ", emptying";
    }
    ASSERT_NO_FATAL_FAILURE(Check());
    std::string key;
    uint32_t rec = 0;
    ASSERT_EQ(ix_->Go(IndexUnderTest::kFirst, &key, &rec), DB_WARN_FILE_EMPTY) << Where();
  }

  void Check() {
    uint64_t keys = 0;
    ASSERT_EQ(ix_->Check(&keys), "") << Where();
    ASSERT_EQ(keys, model_.size()) << Where();
  }

  void Step() {
    int what = Pick(100);
    std::string full, given;
    if (what < 60 || model_.empty()) {
      bool insert = what < 15;
      ix_->MakeKey(Pick(c_.range), &full, &given);
      uint32_t rec;
      if (insert && !model_.empty() && what < 5) {
        auto it = std::next(model_.begin(), Pick(model_.size()));
        full = given = it->first;
        rec = it->second;
      } else {
        rec = next_record_++;
      }
      int32_t rc = insert ? ix_->Insert(given, rec) : ix_->Add(given, rec);
      bool exists = c_.unique ? model_.count(full) > 0 : (insert && Has(full, rec));
      if (exists) {
        ASSERT_EQ(rc, DB_WARN_EXISTS) << Where();
      } else {
        ASSERT_EQ(rc, 0) << Where();
        model_.emplace(full, rec);
      }
    } else if (what < 93) {
      auto it = std::next(model_.begin(), Pick(model_.size()));
      ASSERT_EQ(ix_->Delete(it->first, it->second), model_.size() == 1 ? ix_->EmptiedStatus() : 0)
          << Where();
      // A unique index deletes the key whatever record it is given.
      model_.erase(c_.unique ? model_.find(it->first) : it);
    } else {
      ix_->MakeKey(Pick(c_.range), &full, &given);
      if (c_.unique && model_.count(full)) return;
      int32_t rc = ix_->Delete(given, next_record_ + 1000);  // a record never used
      ASSERT_EQ(rc, model_.empty() ? DB_WARN_FILE_EMPTY : DB_WARN_KEY_NOT_FOUND) << Where();
    }
  }

  void CompareWalks() {
    std::vector<std::pair<std::string, uint32_t>> expected(model_.begin(), model_.end());
    ASSERT_TRUE(Walk(IndexUnderTest::kFirst, IndexUnderTest::kNext) == expected) << Where();
    auto backward = Walk(IndexUnderTest::kLast, IndexUnderTest::kPrevious);
    std::reverse(backward.begin(), backward.end());
    ASSERT_TRUE(backward == expected) << Where();
  }

  void CompareSeeks(int count) {
    if (model_.empty()) return;
    static const int kModes[] = {kSeekFirst,      kSeekBelow,      kSeekEqualBelow,
                                 kSeekBefore,     kSeekEqualAbove, kSeekAbove};
    for (int i = 0; i < count; ++i) {
      // Keys of the model's range, and keys beyond both of its ends.
      int v = static_cast<int>(Pick(c_.range + 4)) - 2;
      std::string full, given;
      if (v < 0) {
        full = ix_->KeyBelowAll();
      } else if (v >= c_.range) {
        full = ix_->KeyAboveAll();
      } else {
        ix_->MakeKey(v, &full, &given);
      }
      int mode = kModes[Pick(6)];
      std::string found;
      uint32_t rec = 0;
      int32_t rc = ix_->Seek(mode, full, &found, &rec);
      auto [want_rc, want_key, want_rec] = Expect(mode, full);
      ASSERT_EQ(rc, want_rc) << Where() << ", mode " << mode;
      ASSERT_EQ(found, want_key) << Where() << ", mode " << mode;
      // Among equal keys a descending index may stop on any of them.
      if (!c_.descending || c_.seek_in_index_order) {
        ASSERT_EQ(rec, want_rec) << Where() << ", mode " << mode;
      }
      auto it = std::next(model_.begin(), Pick(model_.size()));
      uint32_t found_rec = 0;
      ASSERT_EQ(ix_->SeekPair(it->first, it->second, &found_rec), 0) << Where();
      ASSERT_EQ(found_rec, it->second) << Where();
    }
  }

  const IndexModel& model() const { return model_; }

 private:
  size_t Pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }

  bool Has(const std::string& key, uint32_t rec) const {
    auto [lo, hi] = model_.equal_range(key);
    for (auto it = lo; it != hi; ++it)
      if (it->second == rec) return true;
    return false;
  }

  std::vector<std::pair<std::string, uint32_t>> Walk(IndexUnderTest::Move start,
                                                     IndexUnderTest::Move step) {
    std::vector<std::pair<std::string, uint32_t>> out;
    std::string key;
    uint32_t rec = 0;
    int32_t rc = ix_->Go(start, &key, &rec);
    while (rc == 0 && out.size() <= model_.size()) {
      out.emplace_back(key, rec);
      rc = ix_->Go(step, &key, &rec);
    }
    EXPECT_TRUE(rc == DB_WARN_NO_MORE_KEYS || rc == DB_WARN_FILE_EMPTY) << rc << " " << Where();
    return out;
  }

  // The status, key and record a seek must give.  Ascending: over the model
  // itself.  Descending: over its distinct keys in ascending byte order, the
  // modes reading "the key before" as the next lower value.
  std::tuple<int32_t, std::string, uint32_t> Expect(int mode, const std::string& k) {
    if (!c_.descending || c_.seek_in_index_order) {
      auto lb = model_.lower_bound(k), ub = model_.upper_bound(k);
      bool found = lb != model_.end() && !model_.key_comp()(k, lb->first);
      auto below = lb == model_.begin() ? model_.end() : std::prev(lb);
      auto last = std::prev(model_.end());
      auto at = [](int32_t rc, IndexModel::const_iterator it) {
        return std::make_tuple(rc, it->first, it->second);
      };
      switch (mode) {
        case kSeekFirst:
          if (found) return at(0, lb);
          if (below != model_.end()) return at(DB_WARN_KEY_NOT_FOUND, below);
          return at(DB_WARN_NO_MORE_KEYS, model_.begin());
        case kSeekBefore:
          if (found) return at(0, lb);
          return at(DB_WARN_KEY_NOT_FOUND, below != model_.end() ? below : model_.begin());
        case kSeekEqualBelow:
          if (found) return at(0, lb);
          if (below != model_.end()) return at(0, below);
          return at(DB_WARN_KEY_NOT_FOUND, model_.begin());
        case kSeekBelow:
          if (below != model_.end()) return at(0, below);
          return at(DB_WARN_KEY_NOT_FOUND, model_.begin());
        case kSeekEqualAbove:
          return lb != model_.end() ? at(0, lb) : at(DB_WARN_KEY_NOT_FOUND, last);
        default:
          return ub != model_.end() ? at(0, ub) : at(DB_WARN_KEY_NOT_FOUND, last);
      }
    }
    std::set<std::string> keys;
    for (const auto& e : model_) keys.insert(e.first);
    auto lb = keys.lower_bound(k), ub = keys.upper_bound(k);
    bool found = lb != keys.end() && *lb == k;
    bool below = lb != keys.begin();
    const std::string& smallest = *keys.begin();
    const std::string& largest = *keys.rbegin();
    auto at = [](int32_t rc, const std::string& key) { return std::make_tuple(rc, key, 0u); };
    switch (mode) {
      case kSeekFirst:
      case kSeekBefore:
        if (found) return at(0, k);
        return at(DB_WARN_KEY_NOT_FOUND, below ? *std::prev(lb) : smallest);
      case kSeekEqualBelow:
        if (found) return at(0, k);
        return below ? at(0, *std::prev(lb)) : at(DB_WARN_KEY_NOT_FOUND, smallest);
      case kSeekBelow:
        return below ? at(0, *std::prev(lb)) : at(DB_WARN_KEY_NOT_FOUND, smallest);
      case kSeekEqualAbove:
        return lb != keys.end() ? at(0, *lb) : at(DB_WARN_KEY_NOT_FOUND, largest);
      default:
        return ub != keys.end() ? at(0, *ub) : at(DB_WARN_KEY_NOT_FOUND, largest);
    }
  }

  ModelConfig c_;
  IndexUnderTest* ix_;
  uint32_t seed_;
  std::mt19937 rng_;
  IndexModel model_;
  uint32_t next_record_ = 1;
  int step_ = 0;
};

}  // namespace kestrel::test
