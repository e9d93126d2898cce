// Model-based random test of the .NDX engine (tests/support/index_model.h):
// character keys of 1 to 100 bytes (100-byte keys give four keys a page and
// deep trees), unique indexes, numbers and dates as 8-byte doubles with
// negative values, and a raw signed key, through the procedural interface.
#include <cstring>

#include "dbase_test_util.h"
#include "support/index_model.h"

namespace kestrel::test {
namespace {

int CompareDoubles(const std::string& a, const std::string& b) {
  double x, y;
  std::memcpy(&x, a.data(), 8);
  std::memcpy(&y, b.data(), 8);
  return x < y ? -1 : x > y ? 1 : 0;
}

int CompareLongs(const std::string& a, const std::string& b) {
  int32_t x, y;
  std::memcpy(&x, a.data(), 4);
  std::memcpy(&y, b.data(), 4);
  return x < y ? -1 : x > y ? 1 : 0;
}

class NdxUnderTest : public IndexUnderTest {
 public:
  NdxUnderTest(const std::string& path, int type, int length, int range)
      : path_(path), type_(type & 0x7F), range_(range) {
    length_ = type_ == 'C' ? length : type_ == 4 ? 4 : 8;
    std::string expr = "NAME";
    EXPECT_EQ(DBd3CreateIndex(path.c_str(), type, expr.data(), length), 0);
    EXPECT_EQ(DBd3OpenIndex(&h_, path.c_str(), 0), 0);
  }
  ~NdxUnderTest() override { DBd3CloseIndex(h_); }

  // Character: four letters for the value, the rest blanks (handed over
  // without them, for the engine to pad) or a letter.  Numbers: a double of
  // either sign; dates: the key of a date text; raw: a signed long.
  void MakeKey(int v, std::string* full, std::string* given) override {
    char k[9] = {};
    if (type_ == 'N') {
      EXPECT_EQ(DBd3NumericToKey(k, (v - range_ / 2) * 1.25), 0);
      *full = *given = std::string(k, 8);
      return;
    }
    if (type_ == 'D') {
      char text[16];
      std::snprintf(text, sizeof text, "%04d%02d%02d", 1790 + v / 300, 1 + v / 25 % 12, 1 + v % 25);
      EXPECT_EQ(DBd3DateToKey(k, text, 15), 0);
      *full = *given = std::string(k, 8);
      return;
    }
    if (type_ == 4) {
      EXPECT_EQ(DBd4LongToKey(k, v - range_ / 2), 0);
      *full = *given = std::string(k, 4);
      return;
    }
    std::string s;
    for (int i = 0, x = v; i < std::min(length_, 4); ++i, x /= 10) {
      s.insert(s.begin(), static_cast<char>('A' + x % 10));
    }
    *full = s + std::string(length_ - s.size(), v % 3 == 0 ? ' ' : static_cast<char>('a' + v % 26));
    *given = v % 3 == 0 ? s : *full;
  }
  std::string KeyBelowAll() override {
    char k[9] = {};
    if (type_ == 'N' || type_ == 'D') DBd3NumericToKey(k, -1e300);
    if (type_ == 4) DBd4LongToKey(k, INT32_MIN);
    return type_ == 'C' ? std::string(length_, '!') : std::string(k, length_);
  }
  std::string KeyAboveAll() override {
    char k[9] = {};
    if (type_ == 'N' || type_ == 'D') DBd3NumericToKey(k, 1e300);
    if (type_ == 4) DBd4LongToKey(k, INT32_MAX);
    return type_ == 'C' ? std::string(length_, '~') : std::string(k, length_);
  }
  int32_t Add(const std::string& k, uint32_t rec) override {
    return DBd3AddKey(h_, k.data(), static_cast<int32_t>(rec));
  }
  int32_t Insert(const std::string& k, uint32_t rec) override {
    return DBd3InsertKey(h_, k.data(), static_cast<int32_t>(rec));
  }
  int32_t Delete(const std::string& k, uint32_t rec) override {
    return DBd3DeleteKey(h_, k.data(), static_cast<int32_t>(rec));
  }
  int32_t Go(Move move, std::string* key, uint32_t* rec) override {
    std::string buf(length_ + 1, '\0');
    int32_t r = 0;
    int32_t rc = move == kFirst  ? DBd3GoFirstKey(h_, buf.data(), &r)
                 : move == kNext ? DBd3GoNextKey(h_, buf.data(), &r)
                 : move == kLast ? DBd3GoLastKey(h_, buf.data(), &r)
                                 : DBd3GoPreviousKey(h_, buf.data(), &r);
    *key = buf.substr(0, length_);
    *rec = static_cast<uint32_t>(r);
    return rc;
  }
  int32_t Seek(int mode, const std::string& k, std::string* found, uint32_t* rec) override {
    std::string buf = k;
    buf.resize(length_ + 1, '\0');
    int32_t r = 0;
    int32_t rc = DBd3KeySearch(h_, buf.data(), &r, mode);
    *found = buf.substr(0, length_);
    *rec = static_cast<uint32_t>(r);
    return rc;
  }
  int32_t SeekPair(const std::string& k, uint32_t rec, uint32_t* found) override {
    std::string buf = k;
    buf.resize(length_ + 1, '\0');
    int32_t r = static_cast<int32_t>(rec);
    int32_t rc = DBd3KeySearch(h_, buf.data(), &r, 2);
    *found = static_cast<uint32_t>(r);
    return rc;
  }
  std::string Check(uint64_t* keys) override {
    index::CheckSummary s{};
    std::string text = DbaseTest::Faults(h_, &s);
    *keys = s.keys;
    return text;
  }
  void Reopen() override {
    ASSERT_EQ(DBd3CloseIndex(h_), 0);
    ASSERT_EQ(DbaseTest::FileFaults(path_), "");
    ASSERT_EQ(DBd3OpenIndex(&h_, path_.c_str(), 0), 0);
  }
  int32_t EmptiedStatus() const override { return DB_WARN_FILE_EMPTY; }

 private:
  std::string path_;
  int type_, length_ = 0, range_;
  int32_t h_ = -1;
};

struct Config {
  ModelConfig model;
  int type;
};

class NdxModelTest : public DbaseTest, public ::testing::WithParamInterface<Config> {};

TEST_P(NdxModelTest, RandomOperationsMatchModel) {
  ModelConfig m = GetParam().model;
  int type = GetParam().type | (m.unique ? DB_D4_UNIQUE : 0);
  int letter = GetParam().type;
  if (letter == 'N' || letter == 'D') m.compare = &CompareDoubles;
  if (letter == 4) m.compare = &CompareLongs;
  NdxUnderTest ix(dir_.File(std::string(m.name) + ".ndx"), type, m.key_length, m.range);
  IndexModelRun run(m, &ix);
  run.Run();
}

// name, key length, unique, descending, range, steps, check every, seed.
INSTANTIATE_TEST_SUITE_P(
    Configs, NdxModelTest,
    ::testing::Values(Config{{"dup10", 10, false, false, 400, 20000, 20, 22355}, 'C'},
                      Config{{"unique10", 10, true, false, 1500, 10000, 10, 22483}, 'C'},
                      Config{{"long100", 100, false, false, 300, 2500, 1, 22599}, 'C'},
                      Config{{"narrow1", 1, false, false, 10, 2000, 2, 22346}, 'C'},
                      Config{{"number", 8, false, false, 2000, 10000, 10, 22777}, 'N'},
                      Config{{"date", 8, true, false, 3000, 6000, 10, 22888}, 'D'},
                      Config{{"long4", 4, false, false, 5000, 10000, 10, 22349}, 4}),
    [](const ::testing::TestParamInfo<Config>& info) { return std::string(info.param.model.name); });

}  // namespace
}  // namespace kestrel::test
