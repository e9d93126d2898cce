// Model-based random test of the .NTX engine (tests/support/index_model.h):
// character keys of 1 to 254 bytes, unique and descending indexes, and a
// binary long key, through the procedural interface.
#include "ntx_test_util.h"
#include "support/index_model.h"

namespace kestrel::test {
namespace {

class NtxUnderTest : public IndexUnderTest {
 public:
  NtxUnderTest(const std::string& path, int type, int length, int range)
      : path_(path), type_(type), length_(length), range_(range) {
    std::string expr = "NAME";
    EXPECT_EQ(DBclCreateIndex(path.c_str(), type, expr.data(), length, 0), 0);
    EXPECT_EQ(DBclOpenIndex(&h_, path.c_str(), 0), 0);
  }
  ~NtxUnderTest() override { DBclCloseIndex(h_); }

  // Four letters for the value; the rest blanks (handed over without them,
  // for the engine to pad) or a letter.  Binary: the value as a long key.
  void MakeKey(int v, std::string* full, std::string* given) override {
    if ((type_ & 0xFF) == 4) {
      char k[5];
      DBclLongToKey(k, v - range_ / 2);
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
    return (type_ & 0xFF) == 4 ? std::string(4, '\0') : std::string(length_, '!');
  }
  std::string KeyAboveAll() override {
    return (type_ & 0xFF) == 4 ? std::string(4, '\xff') : std::string(length_, '~');
  }
  int32_t Add(const std::string& k, uint32_t rec) override {
    return DBclAddKey(h_, k.data(), static_cast<int32_t>(rec));
  }
  int32_t Insert(const std::string& k, uint32_t rec) override {
    return DBclInsertKey(h_, k.data(), static_cast<int32_t>(rec));
  }
  int32_t Delete(const std::string& k, uint32_t rec) override {
    return DBclDeleteKey(h_, k.data(), static_cast<int32_t>(rec));
  }
  int32_t Go(Move move, std::string* key, uint32_t* rec) override {
    std::string buf(length_ + 1, '\0');
    int32_t r = 0;
    int32_t rc = move == kFirst  ? DBclGoFirstKey(h_, buf.data(), &r)
                 : move == kNext ? DBclGoNextKey(h_, buf.data(), &r)
                 : move == kLast ? DBclGoLastKey(h_, buf.data(), &r)
                                 : DBclGoPreviousKey(h_, buf.data(), &r);
    *key = buf.substr(0, length_);
    *rec = static_cast<uint32_t>(r);
    return rc;
  }
  int32_t Seek(int mode, const std::string& k, std::string* found, uint32_t* rec) override {
    std::string buf = k;
    buf.resize(length_ + 1, '\0');
    int32_t r = 0;
    int32_t rc = DBclKeySearch(h_, buf.data(), &r, mode);
    *found = buf.substr(0, length_);
    *rec = static_cast<uint32_t>(r);
    return rc;
  }
  int32_t SeekPair(const std::string& k, uint32_t rec, uint32_t* found) override {
    std::string buf = k;
    buf.resize(length_ + 1, '\0');
    int32_t r = static_cast<int32_t>(rec);
    int32_t rc = DBclKeySearch(h_, buf.data(), &r, 2);
    *found = static_cast<uint32_t>(r);
    return rc;
  }
  std::string Check(uint64_t* keys) override {
    ntx::CheckSummary s{};
    std::string text = NtxTest::Findings(h_, &s);
    *keys = s.keys;
    return text;
  }
  void Reopen() override {
    ASSERT_EQ(DBclCloseIndex(h_), 0);
    ASSERT_EQ(NtxTest::FileFindings(path_), "");
    ASSERT_EQ(DBclOpenIndex(&h_, path_.c_str(), 0), 0);
  }

 private:
  std::string path_;
  int type_, length_, range_;
  int32_t h_ = -1;
};

struct Config {
  ModelConfig model;
  int type;
};

class NtxModelTest : public NtxTest, public ::testing::WithParamInterface<Config> {};

TEST_P(NtxModelTest, RandomOperationsMatchModel) {
  const ModelConfig& m = GetParam().model;
  int type = GetParam().type | (m.unique ? DB_CL_UNIQUE : 0) | (m.descending ? DB_CL_DESCENDING : 0);
  NtxUnderTest ix(dir_.File(std::string(m.name) + ".ntx"), type, m.key_length, m.range);
  IndexModelRun run(m, &ix);
  run.Run();
}

// name, key length, unique, descending, range, steps, check every, seed.  The
// checker flushes and reads the whole file: after every step where the trees
// stay small, every 10 or 20 steps in the long runs.
INSTANTIATE_TEST_SUITE_P(
    Configs, NtxModelTest,
    ::testing::Values(Config{{"dup10", 10, false, false, 400, 30000, 20, 12355}, 'C'},
                      Config{{"unique10", 10, true, false, 1500, 15000, 10, 12483}, 'C'},
                      Config{{"desc10", 10, false, true, 400, 15000, 10, 12611}, 'C'},
                      Config{{"descunique50", 50, true, true, 2000, 4000, 1, 12779}, 'C'},
                      Config{{"wide254", 254, false, false, 300, 8000, 10, 12599}, 'C'},
                      Config{{"narrow1", 1, false, false, 10, 3000, 1, 12346}, 'C'},
                      Config{{"long4", 4, false, false, 5000, 15000, 10, 12349}, 4}),
    [](const ::testing::TestParamInfo<Config>& info) { return std::string(info.param.model.name); });

}  // namespace
}  // namespace kestrel::test
