// The .NTX calls one by one: create and open checks, searches and moves,
// insertion edge cases, key conversions, cache size, zap, sharing.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "index/clipper/ntx_format.h"
#include "ntx_test_util.h"
#include "runtime/memory.h"
#include "util/coding.h"

namespace kestrel::test {
namespace {

std::string Pad(const std::string& s, size_t n) { return s + std::string(n - s.size(), ' '); }

class NtxApiTest : public NtxTest {
 protected:
  // An ascending C(10) index holding the given names with records 1, 2, ...
  int32_t Names(const std::vector<std::string>& names, int32_t flags = 0) {
    int32_t h = CreateOpen("names.ntx", 'C' | flags, 10);
    for (size_t i = 0; i < names.size(); ++i) {
      EXPECT_EQ(DBclAddKey(h, names[i].c_str(), static_cast<int32_t>(i + 1)), 0);
    }
    return h;
  }
};

TEST_F(NtxApiTest, CreateChecksArgumentsAndWritesTheHeader) {
  std::string path = dir_.File("a.ntx");
  char expr[] = "UPPER( NAME )";
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 'C', expr, 20, 0), 0);
  EXPECT_STREQ(expr, "UPPER(NAME)");
  char lower[] = "upper( name )";
  ASSERT_EQ(DBclCreateIndex(dir_.File("b.ntx").c_str(), 'C', lower, 20, 0), 0);
  EXPECT_STREQ(lower, "upper(name)");  // blanks go, the letters stay as given
  EXPECT_STREQ(reinterpret_cast<const char*>(&ReadFileBytes(dir_.File("b.ntx"))[22]),
               "UPPER(NAME)");
  auto bytes = ReadFileBytes(path);
  ASSERT_EQ(bytes.size(), 2048u);
  EXPECT_EQ(LoadLE16(&bytes[0]), 6);
  EXPECT_EQ(LoadLE16(&bytes[2]), 1);
  EXPECT_EQ(LoadLE32(&bytes[4]), 1024u);
  EXPECT_EQ(LoadLE16(&bytes[12]), 28);
  EXPECT_EQ(LoadLE16(&bytes[18]), 32);
  EXPECT_EQ(LoadLE16(&bytes[20]), 16);
  EXPECT_STREQ(reinterpret_cast<const char*>(&bytes[22]), "UPPER(NAME)");
  EXPECT_EQ(LoadLE16(&bytes[1024 + 2]), 2 * (32 + 2));  // first slot after the table

  char e2[] = "X";
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 'x', e2, 10, 0), DB_ERR_KEY_TYPE);
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 0, e2, 10, 0), DB_ERR_KEY_TYPE);
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 'c', e2, 10, 0), 0);  // lower case counts
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 'C', e2, 255, 0), DB_ERR_KEY_LENGTH);
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 'N', e2, 20, 0), DB_ERR_KEY_LENGTH);
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 'N', e2, 19, 15), 0);
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 'N', e2, 10, 9), DB_ERR_DECIMALS);
  EXPECT_EQ(DBclCreateIndex(nullptr, 'C', e2, 10, 0), DB_ERR_NULL);
  std::string long_expr(300, 'A');
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 'C', long_expr.data(), 10, 0), DB_ERR_BAD_EXPRESSION);

  // Key length 254: two items per page, half page 1; descending signature 7.
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 'C' | DB_CL_DESCENDING | DB_CL_UNIQUE, e2, 254, 0), 0);
  bytes = ReadFileBytes(path);
  EXPECT_EQ(LoadLE16(&bytes[0]), 7);
  EXPECT_EQ(LoadLE16(&bytes[18]), 2);
  EXPECT_EQ(LoadLE16(&bytes[20]), 1);
  EXPECT_EQ(bytes[278], 1);
  EXPECT_EQ(bytes[280], 1);
  // Binary keys take the length of their type.
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 1, e2, 99, 3), 0);
  bytes = ReadFileBytes(path);
  EXPECT_EQ(LoadLE16(&bytes[14]), 8);
  EXPECT_EQ(LoadLE16(&bytes[282]), 1);
}

TEST_F(NtxApiTest, OpenRejectsDamagedHeaders) {
  std::string path = dir_.File("h.ntx");
  char e[] = "NAME";
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 'C', e, 10, 0), 0);
  auto good = ReadFileBytes(path);
  auto try_open = [&](std::vector<uint8_t> bytes) {
    WriteFileBytes(path, bytes);
    int32_t h = 99;
    int32_t rc = DBclOpenIndex(&h, path.c_str(), 0);
    if (rc >= 0) {
      DBclCloseIndex(h);
    } else {
      EXPECT_EQ(h, -1);
    }
    return rc;
  };
  auto bad = good;
  StoreLE16(&bad[14], 0);
  EXPECT_EQ(try_open(bad), DB_ERR_KEY_LENGTH);
  bad = good;
  StoreLE16(&bad[12], 17);
  EXPECT_EQ(try_open(bad), DB_ERR_ITEM_LENGTH);
  bad = good;
  StoreLE32(&bad[4], 0);
  EXPECT_EQ(try_open(bad), DB_ERR_ROOT_PAGE);
  bad = good;
  StoreLE32(&bad[4], 2048);  // the end of the file
  EXPECT_EQ(try_open(bad), DB_ERR_ROOT_PAGE);
  bad = good;
  StoreLE16(&bad[18], 48);
  EXPECT_EQ(try_open(bad), DB_ERR_MAX_KEYS);
  bad = good;
  StoreLE16(&bad[20], 20);
  EXPECT_EQ(try_open(bad), DB_ERR_MIN_KEYS);
  bad = good;
  std::memset(&bad[22], 'A', 256);
  EXPECT_EQ(try_open(bad), DB_ERR_BAD_EXPRESSION);
  bad = good;
  bad.resize(100);
  EXPECT_EQ(try_open(bad), DB_ERR_READ);
  bad = good;
  bad.resize(2100);
  EXPECT_EQ(try_open(bad), DB_WARN_FILE_LENGTH);
  EXPECT_EQ(try_open(good), 0);
  int32_t h = 0;
  EXPECT_EQ(DBclOpenIndex(&h, dir_.File("missing.ntx").c_str(), 0), DB_ERR_OPEN);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), 0x07), DB_ERR_VERSION);
  EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), 0x05), 0);
  EXPECT_EQ(DBclCloseIndex(h), 0);
  EXPECT_EQ(DBclCloseIndex(h), DB_ERR_INVALID_HANDLE);
  // A failed open leaves nothing allocated.
  long live = testing::LiveAllocations();
  for (int n = 1; n <= 20; ++n) {
    testing::FailAllocation(n);
    int32_t rc = DBclOpenIndex(&h, path.c_str(), 0);
    testing::FailAllocation(0);
    if (rc == 0) {
      DBclCloseIndex(h);
    } else {
      EXPECT_EQ(rc, DB_ERR_MEMORY);
      EXPECT_EQ(h, -1);
    }
    EXPECT_EQ(testing::LiveAllocations(), live) << n;
  }
}

TEST_F(NtxApiTest, EmptyIndexAndEndsOfTheWalk) {
  int32_t h = CreateOpen("e.ntx", 'C', 10);
  char key[11] = "X";
  int32_t rec = 0;
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 1), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBclGoFirstKey(h, key, &rec), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBclGoLastKey(h, key, &rec), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBclDeleteKey(h, "X", 1), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBclGetCurrentKey(h, key, &rec), DB_WARN_KEY_NOT_FOUND);
  EXPECT_EQ(DBclKeySearch(h, nullptr, &rec, 1), DB_ERR_NULL);
  EXPECT_EQ(DBclKeySearch(h + 1, key, &rec, 1), DB_ERR_INVALID_HANDLE);
  for (const char* n : {"B", "A", "C"}) ASSERT_EQ(DBclAddKey(h, n, n[0]), 0);
  EXPECT_EQ(DBclGoLastKey(h, key, &rec), 0);
  EXPECT_EQ(rec, 'C');
  EXPECT_EQ(DBclGoNextKey(h, key, &rec), DB_WARN_NO_MORE_KEYS);
  EXPECT_EQ(rec, 'C');
  EXPECT_EQ(DBclGetCurrentKey(h, key, &rec), 0);
  EXPECT_EQ(rec, 'C');
  EXPECT_EQ(DBclGoFirstKey(h, key, &rec), 0);
  EXPECT_EQ(std::string(key), Pad("A", 10));
  EXPECT_EQ(DBclGoPreviousKey(h, key, &rec), DB_WARN_NO_MORE_KEYS);
  EXPECT_EQ(rec, 'A');
}

TEST_F(NtxApiTest, SearchModesOnNames) {
  int32_t h = Names({"JONES", "SMALL", "SMITH", "ADAMS", "SMITH", "TAYLOR"});
  char key[11];
  int32_t rec = 0;
  // A prefix finds the first name that begins with it.
  for (int mode : {1, 12, 13, 14}) {
    std::strcpy(key, "SM");
    EXPECT_EQ(DBclKeySearch(h, key, &rec, mode), 0) << mode;
    EXPECT_EQ(std::string(key), Pad("SMALL", 10)) << mode;
  }
  std::strcpy(key, "SMITH");
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 1), 0);
  EXPECT_EQ(rec, 3);  // the first of the equal keys
  std::strcpy(key, "SMITH");
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 15), 0);
  EXPECT_EQ(std::string(key), Pad("TAYLOR", 10));
  std::strcpy(key, "SMITH");
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 11), 0);
  EXPECT_EQ(std::string(key), Pad("SMALL", 10));
  std::strcpy(key, "BROWN");
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 1), DB_WARN_KEY_NOT_FOUND);
  EXPECT_EQ(std::string(key), Pad("ADAMS", 10));
  std::strcpy(key, "AARON");
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 1), DB_WARN_NO_MORE_KEYS);
  std::strcpy(key, "ZZ");
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 14), DB_WARN_KEY_NOT_FOUND);
  EXPECT_EQ(std::string(key), Pad("TAYLOR", 10));
  // Mode 2: the key with a given record.
  std::strcpy(key, Pad("SMITH", 10).c_str());
  rec = 5;
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 2), 0);
  EXPECT_EQ(rec, 5);
  std::strcpy(key, Pad("SMITH", 10).c_str());
  rec = 4;
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 2), DB_WARN_KEY_NOT_FOUND);
  // It compares the whole key: a shorter text is padded, never a prefix.
  std::strcpy(key, "SM");
  rec = 3;
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 2), DB_WARN_KEY_NOT_FOUND);
  std::strcpy(key, "SMITH");
  rec = 5;
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 2), 0);
  EXPECT_EQ(rec, 5);
  // With the remember bit, walking on reports the first different key.
  std::strcpy(key, "SMITH");
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 1 | DB_CL_REMEMBER), 0);
  EXPECT_EQ(DBclGoNextKey(h, key, &rec), 0);
  EXPECT_EQ(rec, 5);
  EXPECT_EQ(DBclGoNextKey(h, key, &rec), DB_WARN_KEY_NOT_FOUND);
  EXPECT_EQ(std::string(key), Pad("TAYLOR", 10));
  EXPECT_EQ(DBclGoPreviousKey(h, key, &rec), 0);  // the flag is gone
}

TEST_F(NtxApiTest, DescendingModeTable) {
  int32_t h = Names({"A", "B", "C", "D", "E"}, DB_CL_DESCENDING);
  struct Case {
    const char* key;
    int mode;
    int32_t rc;
    const char* stops;
  } cases[] = {
      {"C", 1, 0, "C"},
      {"CC", 1, DB_WARN_KEY_NOT_FOUND, "C"},
      {"CC", 14, 0, "D"},
      {"C", 15, 0, "D"},
      {"C", 11, 0, "B"},
      {"Z", 14, DB_WARN_KEY_NOT_FOUND, "E"},
      {"0", 14, 0, "A"},
      {"Z", 11, 0, "E"},
      {"0", 11, DB_WARN_KEY_NOT_FOUND, "A"},
      {"CC", 12, 0, "C"},
  };
  for (const Case& c : cases) {
    char key[11];
    std::strcpy(key, c.key);
    int32_t rec = 0;
    EXPECT_EQ(DBclKeySearch(h, key, &rec, c.mode), c.rc) << c.key << " mode " << c.mode;
    EXPECT_EQ(std::string(key), Pad(c.stops, 10)) << c.key << " mode " << c.mode;
  }
  KeyList walk = Walk(h, 10);
  ASSERT_EQ(walk.size(), 5u);
  EXPECT_EQ(walk.front().first, Pad("E", 10));
}

TEST_F(NtxApiTest, InsertionEdgeCases) {
  int32_t u = CreateOpen("u.ntx", 'C' | DB_CL_UNIQUE, 10);
  EXPECT_EQ(DBclAddKey(u, "K", 1), 0);
  EXPECT_EQ(DBclAddKey(u, "K", 2), DB_WARN_EXISTS);
  EXPECT_EQ(DBclAddKey(u, "KA", 3), 0);
  // A shorter text deletes the first key that begins with it.
  EXPECT_EQ(DBclDeleteKey(u, "K", 99), 0);
  KeyList left = Walk(u, 10);
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].second, 3u);

  int32_t h = CreateOpen("d.ntx", 'C', 10);
  EXPECT_EQ(DBclInsertKey(h, "K", 1), 0);
  EXPECT_EQ(DBclInsertKey(h, "K", 1), DB_WARN_EXISTS);
  EXPECT_EQ(DBclAddKey(h, "K", 1), 0);
  EXPECT_EQ(DBclDeleteKey(h, "K", 7), DB_WARN_KEY_NOT_FOUND);
  EXPECT_EQ(Walk(h, 10).size(), 2u);
  EXPECT_EQ(DBclAddKey(h, nullptr, 1), DB_ERR_NULL);
  // Keys longer than the key length are cut to it.
  EXPECT_EQ(DBclAddKey(h, "ABCDEFGHIJKLMNOP", 5), 0);
  EXPECT_EQ(Walk(h, 10)[0].first, "ABCDEFGHIJ");
}

TEST_F(NtxApiTest, RootSplitGivesTwoHalfPages) {
  int32_t h = CreateOpen("s.ntx", 'C', 10);  // 50 keys per page, half 25
  for (int i = 0; i < 51; ++i) {
    char k[11];
    std::snprintf(k, sizeof k, "K%03d", i);
    ASSERT_EQ(DBclAddKey(h, k, i + 1), 0);
  }
  ntx::CheckSummary s{};
  ASSERT_EQ(Findings(h, &s), "");
  EXPECT_EQ(s.depth, 2u);
  EXPECT_EQ(s.tree_pages, 3u);
  ASSERT_EQ(DBclCloseIndex(h), 0);
  auto bytes = ReadFileBytes(dir_.File("s.ntx"));
  uint32_t root = LoadLE32(&bytes[4]);
  EXPECT_EQ(LoadLE16(&bytes[root]), 1);
  for (int i = 0; i < 2; ++i) {
    uint32_t item = LoadLE16(&bytes[root + 2 + 2 * i]);
    uint32_t child = LoadLE32(&bytes[root + item]);
    EXPECT_EQ(LoadLE16(&bytes[child]), 25);
  }
  EXPECT_EQ(LoadLE16(&bytes[2]), 2);  // one flush at the close
}

TEST_F(NtxApiTest, PercentPositions) {
  int32_t h = CreateOpen("p.ntx", 'C', 10);
  for (int i = 0; i < 1000; ++i) {
    char k[11];
    std::snprintf(k, sizeof k, "K%04d", i);
    ASSERT_EQ(DBclAddKey(h, k, i + 1), 0);
  }
  char key[11];
  int32_t rec = 0;
  EXPECT_EQ(DBclGetKeyAtPercent(h, 0, key, &rec), 0);
  EXPECT_EQ(rec, 1);
  EXPECT_EQ(DBclGetKeyAtPercent(h, 100, key, &rec), 0);
  EXPECT_EQ(rec, 1000);
  EXPECT_EQ(DBclGetKeyAtPercent(h, 50, key, &rec), 0);
  EXPECT_NEAR(rec, 500, 60);
  int32_t pct = -1;
  EXPECT_EQ(DBclGetKeyPercent(h, &pct, "K0250", 0), 0);
  EXPECT_NEAR(pct, 25, 5);
  EXPECT_EQ(DBclGetKeyPercent(h, &pct, "K0000", 0), 0);
  EXPECT_EQ(pct, 0);
  EXPECT_EQ(DBclGetKeyPercent(h, nullptr, "K", 0), DB_ERR_NULL);
}

TEST_F(NtxApiTest, NumericKeys) {
  int32_t h5 = CreateOpen("n5.ntx", 'N', 5, 0, "AGE");
  char key[40];
  auto num = [&](int32_t h, double v) {
    EXPECT_GE(DBclNumericToKey(h, key, v), 0);
    return std::string(key);
  };
  EXPECT_EQ(num(h5, 123), "00123");
  EXPECT_EQ(num(h5, 123.5), "00123");
  EXPECT_EQ(num(h5, 123.51), "00124");
  EXPECT_EQ(num(h5, -123), ",,+*)");
  double back = 0;
  ASSERT_EQ(DBclKeyToNumeric(&back, ",,+*)"), 0);
  EXPECT_EQ(back, -123);
  ASSERT_EQ(DBclKeyToNumeric(&back, "00124"), 0);
  EXPECT_EQ(back, 124);
  int32_t h3 = CreateOpen("n3.ntx", 'N', 3, 0, "AGE");
  EXPECT_EQ(DBclNumericToKey(h3, key, 999.7), DB_WARN_ROUNDED);
  EXPECT_STREQ(key, "000");
  int32_t h6 = CreateOpen("n6.ntx", 'N', 6, 2, "PRICE");
  EXPECT_EQ(num(h6, 12.9999), "000013");
  EXPECT_EQ(num(h6, 12.5), "000012");
  // The digits-point-decimals form, switched on for one open index.
  int32_t h8 = CreateOpen("n8.ntx", 'N', 8, 2, "PRICE");
  int32_t previous = -1;
  ASSERT_EQ(DBclSetNumericKeyForm(h8, DB_CL_NUMERIC_WITH_DECIMALS, &previous), 0);
  EXPECT_EQ(previous, DB_CL_NUMERIC_INTEGER_DIGITS);
  EXPECT_EQ(num(h8, 12.5), "00012.50");
  EXPECT_EQ(num(h8, -123), ",,+*).,,");
  EXPECT_EQ(num(h8, 0.125), "00000.13");
  ASSERT_EQ(DBclKeyToNumeric(&back, ",,+*).,,"), 0);
  EXPECT_EQ(back, -123);
  ASSERT_EQ(DBclKeyToNumeric(&back, "00012.50"), 0);
  EXPECT_EQ(back, 12.5);
  EXPECT_EQ(DBclSetNumericKeyForm(h8, 7, nullptr), DB_ERR_INVALID_COMMAND);
  // Byte order follows value order for non-negative values and among
  // negative ones.
  std::string a = num(h8, -50), b = num(h8, -5), c = num(h8, 0), d = num(h8, 7.25);
  EXPECT_LT(a, b);
  EXPECT_LT(b, c);
  EXPECT_LT(c, d);
}

TEST_F(NtxApiTest, BinaryAndDateKeys) {
  char key[9];
  ASSERT_EQ(DBclLongToKey(key, -1), 0);
  EXPECT_EQ(std::string(key, 4), std::string(4, '\0'));
  ASSERT_EQ(DBclLongToKey(key, 0), 0);
  EXPECT_EQ(std::string(key, 4), std::string("\x80\0\0\0", 4));
  int32_t l = 0;
  ASSERT_EQ(DBclLongToKey(key, -123456), 0);
  ASSERT_EQ(DBclKeyToLong(&l, key), 0);
  EXPECT_EQ(l, -123456);
  std::string prev;
  for (double v : {-1e9, -2.5, -0.0, 0.0, 1e-9, 3.25, 1e300}) {
    ASSERT_EQ(DBclDoubleToKey(key, v), 0);
    std::string now(key, 8);
    if (!prev.empty()) {
      EXPECT_LE(prev, now) << v;
    }
    prev = now;
    double back = 0;
    ASSERT_EQ(DBclKeyToDouble(&back, key), 0);
    EXPECT_EQ(back, v);
  }
  float f = 0;
  ASSERT_EQ(DBclFloatToKey(key, -7.5f), 0);
  ASSERT_EQ(DBclKeyToFloat(&f, key), 0);
  EXPECT_EQ(f, -7.5f);
  uint16_t us = 0;
  ASSERT_EQ(DBclUnsignedShortToKey(key, 0x1234), 0);
  EXPECT_EQ(static_cast<uint8_t>(key[0]), 0x12);
  ASSERT_EQ(DBclKeyToUnsignedShort(&us, key), 0);
  EXPECT_EQ(us, 0x1234);
  int16_t s = 0;
  ASSERT_EQ(DBclShortToKey(key, -300), 0);
  ASSERT_EQ(DBclKeyToShort(&s, key), 0);
  EXPECT_EQ(s, -300);
  uint32_t ul = 0;
  ASSERT_EQ(DBclUnsignedLongToKey(key, 0xDEADBEEF), 0);
  ASSERT_EQ(DBclKeyToUnsignedLong(&ul, key), 0);
  EXPECT_EQ(ul, 0xDEADBEEFu);

  char date[16];
  ASSERT_EQ(DBclDateToKey(date, "01/15/2024", 3), 0);
  EXPECT_STREQ(date, "20240115");
  ASSERT_EQ(DBclDateToKey(date, "", 3), 0);
  EXPECT_STREQ(date, "        ");
  ASSERT_EQ(DBclKeyToDate(date, 7, "20240115"), 0);
  EXPECT_STREQ(date, "15.01.2024");
  ASSERT_EQ(DBclKeyToDate(date, 7, "        "), 0);
  EXPECT_STREQ(date, "        ");
}

TEST_F(NtxApiTest, InformationAndCacheSize) {
  int32_t h = CreateOpen("i.ntx", 'C' | DB_CL_UNIQUE, 12, 0, "descend(name)");
  DBCLINDEXINFO info{};
  info.state = 0x100;
  ASSERT_EQ(DBclGetIndexInfo(h, &info), 0);
  EXPECT_EQ(info.key_length, 12);
  EXPECT_EQ(info.key_type, '?');
  EXPECT_EQ(info.key_flags, 128 | 256);
  EXPECT_EQ(info.state, 0x100);
  EXPECT_STREQ(info.expression, "DESCEND(NAME)");
  EXPECT_EQ(info.expression_length, 13);
  char text[256];
  ASSERT_EQ(DBclGetIndexKeyExpr(h, text), 0);
  EXPECT_STREQ(text, "DESCEND(NAME)");

  int32_t count = 0;
  ASSERT_EQ(DBclGetSetCacheSize(h, &count, 1), 0);
  EXPECT_EQ(count, 10);
  count = 2;
  EXPECT_EQ(DBclGetSetCacheSize(h, &count, 0), DB_ERR_INVALID_COMMAND);
  EXPECT_EQ(DBclGetSetCacheSize(h, &count, 5), DB_ERR_INVALID_COMMAND);
  count = 50;
  ASSERT_EQ(DBclGetSetCacheSize(h, &count, 0), 0);
  EXPECT_EQ(count, 50);
  count = 3;
  ASSERT_EQ(DBclGetSetCacheSize(h, &count, 0), 0);
  for (int i = 0; i < 300; ++i)
    ASSERT_EQ(DBclAddKey(h, std::to_string(i * 7919 % 1000).c_str(), i + 1), 0);
  EXPECT_EQ(Findings(h), "");
  // Memory runs short while growing: a partial result with the count held.
  count = 60;
  testing::FailAllocation(20);
  EXPECT_EQ(DBclGetSetCacheSize(h, &count, 0), DB_WARN_PARTIAL_MEMORY);
  testing::FailAllocation(0);
  EXPECT_EQ(count, 3 + 18);
  EXPECT_EQ(Walk(h, 12).size(), 300u);
}

TEST_F(NtxApiTest, ZapAndReadOnly) {
  int32_t h = CreateOpen("z.ntx", 'C', 10);
  for (int i = 0; i < 500; ++i) ASSERT_EQ(DBclAddKey(h, std::to_string(i).c_str(), i + 1), 0);
  ASSERT_EQ(DBclZapIndex(h), 0);
  char key[11];
  int32_t rec = 0;
  EXPECT_EQ(DBclGoFirstKey(h, key, &rec), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(ReadFileBytes(dir_.File("z.ntx")).size(), 2048u);
  EXPECT_EQ(DBclAddKey(h, "AFTER", 1), 0);
  ASSERT_EQ(DBclCloseIndex(h), 0);
  EXPECT_EQ(FileFindings(dir_.File("z.ntx")), "");
  ASSERT_EQ(DBclOpenIndex(&h, dir_.File("z.ntx").c_str(), DB_OPEN_READONLY), 0);
  EXPECT_EQ(DBclAddKey(h, "X", 2), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBclZapIndex(h), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBclFlushIndex(h), DB_ERR_READ_ONLY);
  EXPECT_EQ(Walk(h, 10).size(), 1u);
  ASSERT_EQ(DBclCloseIndex(h), 0);
  // Shared without the update switch: changes need the lock.
  ASSERT_EQ(DBclOpenIndex(&h, dir_.File("z.ntx").c_str(), DB_OPEN_SHARED), 0);
  EXPECT_EQ(DBclAddKey(h, "X", 2), DB_ERR_MUST_LOCK);
  EXPECT_EQ(DBclZapIndex(h), DB_ERR_MUST_LOCK);
  ASSERT_EQ(DBclLockIndex(h), 0);
  EXPECT_EQ(DBclAddKey(h, "X", 2), 0);
  ASSERT_EQ(DBclFlushIndex(h), 0);
  ASSERT_EQ(DBclUnLockIndex(h), 0);
  EXPECT_EQ(Walk(h, 10).size(), 2u);
  ASSERT_EQ(DBclCloseIndex(h), 0);
}

// Two handles on one shared index opened for multi-user update: one walks
// while the other adds and deletes keys; the walker finds its place again
// from its remembered key and record.
TEST_F(NtxApiTest, SharedWriteThroughRepositioning) {
  int32_t a = CreateOpen("w.ntx", 'C', 10);
  for (int i = 0; i < 200; i += 2) {
    char k[11];
    std::snprintf(k, sizeof k, "K%04d", i);
    ASSERT_EQ(DBclAddKey(a, k, i + 1), 0);
  }
  ASSERT_EQ(DBclCloseIndex(a), 0);
  std::string path = dir_.File("w.ntx");
  int32_t b = -1;
  ASSERT_EQ(DBclOpenIndex(&a, path.c_str(), DB_OPEN_AUTOLOCK), 0);
  ASSERT_EQ(DBclOpenIndex(&b, path.c_str(), DB_OPEN_AUTOLOCK), 0);
  char key[11];
  int32_t rec = 0;
  ASSERT_EQ(DBclGoFirstKey(a, key, &rec), 0);
  int seen = 1;
  for (int i = 1; i < 200; i += 2) {
    char k[11];
    std::snprintf(k, sizeof k, "K%04d", i);
    ASSERT_EQ(DBclAddKey(b, k, i + 1), 0);  // lands right after a's position
    ASSERT_EQ(DBclGoNextKey(a, key, &rec), 0);
    EXPECT_EQ(rec, i + 1);
    ++seen;
    if (i + 1 < 200) {
      ASSERT_EQ(DBclGoNextKey(a, key, &rec), 0);
      EXPECT_EQ(rec, i + 2);
      ++seen;
    }
  }
  EXPECT_EQ(seen, 200);
  EXPECT_EQ(DBclGoNextKey(a, key, &rec), DB_WARN_NO_MORE_KEYS);
  // The key under a's position goes away: next reports it.
  ASSERT_EQ(DBclGoFirstKey(a, key, &rec), 0);
  ASSERT_EQ(DBclDeleteKey(b, key, rec), 0);
  EXPECT_EQ(DBclGoNextKey(a, key, &rec), DB_WARN_KEY_NOT_FOUND);
  ASSERT_EQ(DBclCloseIndex(b), 0);
  ASSERT_EQ(DBclCloseIndex(a), 0);
  EXPECT_EQ(FileFindings(path), "");
}

// A second process holds the index lock: this one cannot take it until the
// other lets go, and then sees the other's changes.
TEST_F(NtxApiTest, LockHeldByAnotherProcess) {
  int32_t h = CreateOpen("l.ntx", 'C', 10);
  ASSERT_EQ(DBclAddKey(h, "FIRST", 1), 0);
  ASSERT_EQ(DBclCloseIndex(h), 0);
  std::string path = dir_.File("l.ntx");
  int to_child[2], to_parent[2];
  ASSERT_EQ(pipe(to_child), 0);
  ASSERT_EQ(pipe(to_parent), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    DBInitialize(16, 0);
    int32_t c = -1;
    char go = 0;
    if (DBclOpenIndex(&c, path.c_str(), DB_OPEN_SHARED) != 0 || DBclLockIndex(c) != 0) _exit(2);
    DBclAddKey(c, "SECOND", 2);
    DBclFlushIndex(c);
    if (write(to_parent[1], "L", 1) != 1) _exit(3);
    if (read(to_child[0], &go, 1) != 1) _exit(4);
    DBclUnLockIndex(c);
    DBclCloseIndex(c);
    if (write(to_parent[1], "U", 1) != 1) _exit(5);
    _exit(0);
  }
  char msg = 0;
  ASSERT_EQ(read(to_parent[0], &msg, 1), 1);
  ASSERT_EQ(DBclOpenIndex(&h, path.c_str(), DB_OPEN_SHARED), 0);
  DBSetLockRetryCount(3);
  EXPECT_LT(DBclLockIndex(h), 0);
  ASSERT_EQ(write(to_child[1], "G", 1), 1);
  ASSERT_EQ(read(to_parent[0], &msg, 1), 1);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  ASSERT_EQ(DBclLockIndex(h), 0);
  EXPECT_EQ(Walk(h, 10).size(), 2u);
  ASSERT_EQ(DBclUnLockIndex(h), 0);
  ASSERT_EQ(DBclCloseIndex(h), 0);
}

}  // namespace
}  // namespace kestrel::test

namespace kestrel::test {
namespace {

// A whole life of an index, and every allocation that fails along the way,
// gives back all the memory it took.
TEST_F(NtxApiTest, NothingLeaksWhenAllocationsFail) {
  std::string path = dir_.File("leak.ntx");
  char expr[] = "NAME";
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 'C', expr, 10, 0), 0);
  long live = testing::LiveAllocations();
  for (int n = 0; n <= 60; n += (n < 20 ? 1 : 7)) {
    if (n > 0) testing::FailAllocation(n);
    int32_t h = -1;
    if (DBclOpenIndex(&h, path.c_str(), 0) == 0) {
      int32_t count = 40;
      DBclGetSetCacheSize(h, &count, 0);
      for (int i = 0; i < 300; ++i) DBclAddKey(h, std::to_string(i * 31 % 300).c_str(), i + 1);
      for (int i = 0; i < 300; i += 2)
        DBclDeleteKey(h, std::to_string(i * 31 % 300).c_str(), i + 1);
      DBclCloseIndex(h);
    }
    testing::FailAllocation(0);
    EXPECT_EQ(testing::LiveAllocations(), live) << n;
  }
  EXPECT_EQ(FileFindings(path), "");
}

}  // namespace
}  // namespace kestrel::test
