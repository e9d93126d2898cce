// The .NTX calls one by one: create and open checks, searches and moves,
// insertion edge cases, key conversions, cache size, zap, sharing.
#include <cstring>
#include <string>

#include "index/clipper/ntx_format.h"
#include "ntx_test_util.h"
#include "runtime/memory.h"
#include "support/child.h"
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

// The page layout the key length calls for (item size, items per page,
// half page) is checked by the checker; here: the expression as stored, the
// flags, and the refusals.
TEST_F(NtxApiTest, CreateWritesTheHeaderAndChecksArguments) {
  std::string path = dir_.File("a.ntx");
  char expr[] = "upper( name )";
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 'C', expr, 20, 0), 0);
  EXPECT_STREQ(expr, "upper(name)");  // blanks go, the letters stay as given
  auto bytes = ReadFileBytes(path);
  ASSERT_EQ(bytes.size(), 2048u);
  EXPECT_STREQ(reinterpret_cast<const char*>(&bytes[22]), "UPPER(NAME)");
  EXPECT_EQ(LoadLE16(&bytes[0]) * 10000 + LoadLE32(&bytes[4]), 6 * 10000 + 1024);
  EXPECT_EQ(FileFindings(path), "");
  struct Case {
    int32_t type, length, decimals, rc;
  } cases[] = {{'x', 10, 0, DB_ERR_KEY_TYPE},   {0, 10, 0, DB_ERR_KEY_TYPE},
               {'c', 10, 0, 0},                 {'C', 255, 0, DB_ERR_KEY_LENGTH},
               {'N', 20, 0, DB_ERR_KEY_LENGTH}, {'N', 19, 15, 0},
               {'N', 10, 9, DB_ERR_DECIMALS}};
  for (const Case& c : cases) {
    char e[] = "X";
    EXPECT_EQ(DBclCreateIndex(path.c_str(), c.type, e, c.length, c.decimals), c.rc) << c.type;
  }
  char e2[] = "X";
  EXPECT_EQ(DBclCreateIndex(nullptr, 'C', e2, 10, 0), DB_ERR_NULL);
  std::string long_expr(300, 'A');
  EXPECT_EQ(DBclCreateIndex(path.c_str(), 'C', long_expr.data(), 10, 0), DB_ERR_BAD_EXPRESSION);
  // Key length 254 (two items per page); descending signature 7 and the
  // unique and descending flags; binary keys take the length of their type.
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 'C' | DB_CL_DESCENDING | DB_CL_UNIQUE, e2, 254, 0), 0);
  EXPECT_EQ(FileFindings(path), "");
  bytes = ReadFileBytes(path);
  EXPECT_EQ(LoadLE16(&bytes[0]), 7);
  EXPECT_EQ(bytes[278] * 10 + bytes[280], 11);
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 1, e2, 99, 3), 0);
  bytes = ReadFileBytes(path);
  EXPECT_EQ(LoadLE16(&bytes[14]), 8);
  EXPECT_EQ(LoadLE16(&bytes[282]), 1);
}

// Damaged headers are in ntx_check_test.cpp, beside the checker's findings.
TEST_F(NtxApiTest, OpenModesAndHandles) {
  std::string path = dir_.File("h.ntx");
  char e[] = "NAME";
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 'C', e, 10, 0), 0);
  auto bytes = ReadFileBytes(path);
  bytes.resize(2100);
  WriteFileBytes(path, bytes);
  int32_t h = 0;
  EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), 0), DB_WARN_FILE_LENGTH);
  EXPECT_EQ(DBclCloseIndex(h), 0);
  EXPECT_EQ(DBclOpenIndex(&h, dir_.File("missing.ntx").c_str(), 0), DB_ERR_OPEN);
  EXPECT_EQ(h, -1);
  EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), 0x07), DB_ERR_VERSION);
  EXPECT_EQ(DBclOpenIndex(&h, path.c_str(), 0x05), DB_WARN_FILE_LENGTH);
  EXPECT_EQ(DBclCloseIndex(h), 0);
  EXPECT_EQ(DBclCloseIndex(h), DB_ERR_INVALID_HANDLE);
}

TEST_F(NtxApiTest, EmptyIndexAndEndsOfTheWalk) {
  int32_t h = CreateOpen("e.ntx", 'C', 10);
  char key[11] = "X";
  int32_t rec = 0;
  EXPECT_EQ(DBclKeySearch(h, key, &rec, 1), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBclGoLastKey(h, key, &rec), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBclGetCurrentKey(h, key, &rec), DB_WARN_KEY_NOT_FOUND);
  EXPECT_EQ(DBclKeySearch(h, nullptr, &rec, 1), DB_ERR_NULL);
  EXPECT_EQ(DBclKeySearch(h + 1, key, &rec, 1), DB_ERR_INVALID_HANDLE);
  for (const char* n : {"B", "A", "C"}) ASSERT_EQ(DBclAddKey(h, n, n[0]), 0);
  // Past either end the position stays on the last key reached.
  EXPECT_EQ(DBclGoLastKey(h, key, &rec), 0);
  EXPECT_EQ(DBclGoNextKey(h, key, &rec), DB_WARN_NO_MORE_KEYS);
  EXPECT_EQ(DBclGetCurrentKey(h, key, &rec), 0);
  EXPECT_EQ(rec, 'C');
  EXPECT_EQ(DBclGoFirstKey(h, key, &rec), 0);
  EXPECT_EQ(DBclGoPreviousKey(h, key, &rec), DB_WARN_NO_MORE_KEYS);
  EXPECT_EQ(rec, 'A');
}

// What the model test does not cover: search keys shorter than the key, and
// the remember bit.
TEST_F(NtxApiTest, SearchModesOnNames) {
  int32_t h = Names({"JONES", "SMALL", "SMITH", "ADAMS", "SMITH", "TAYLOR"});
  struct Case {
    const char* key;
    int mode;
    int32_t rc;
    const char* stops;
    int32_t rec;
  } cases[] = {
      // A prefix finds the first name that begins with it.
      {"SM", 1, 0, "SMALL", 2}, {"SM", 12, 0, "SMALL", 2}, {"SM", 13, 0, "SMALL", 2},
      {"SM", 14, 0, "SMALL", 2}, {"SMITH", 1, 0, "SMITH", 3},  // the first of the equal keys
      {"SMITH", 15, 0, "TAYLOR", 6}, {"SMITH", 11, 0, "SMALL", 2},
      {"BROWN", 1, DB_WARN_KEY_NOT_FOUND, "ADAMS", 4}, {"AARON", 1, DB_WARN_NO_MORE_KEYS, "ADAMS", 4},
      {"ZZ", 14, DB_WARN_KEY_NOT_FOUND, "TAYLOR", 6},
  };
  char key[11];
  int32_t rec = 0;
  for (const Case& c : cases) {
    std::strcpy(key, c.key);
    EXPECT_EQ(DBclKeySearch(h, key, &rec, c.mode), c.rc) << c.key << " " << c.mode;
    EXPECT_EQ(std::string(key), Pad(c.stops, 10)) << c.key << " " << c.mode;
    EXPECT_EQ(rec, c.rec) << c.key << " " << c.mode;
  }
  // Mode 2: the key with a given record.
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

TEST_F(NtxApiTest, KeyConversions) {
  // Numeric keys: integer digits (rounded half down), or digits, point and
  // decimals once switched on for the index; negatives in the complement form.
  int32_t h5 = CreateOpen("n5.ntx", 'N', 5, 0, "AGE");
  int32_t h3 = CreateOpen("n3.ntx", 'N', 3, 0, "AGE");
  int32_t h6 = CreateOpen("n6.ntx", 'N', 6, 2, "PRICE");
  int32_t h8 = CreateOpen("n8.ntx", 'N', 8, 2, "PRICE");
  int32_t previous = -1;
  ASSERT_EQ(DBclSetNumericKeyForm(h8, DB_CL_NUMERIC_WITH_DECIMALS, &previous), 0);
  EXPECT_EQ(previous, DB_CL_NUMERIC_INTEGER_DIGITS);
  EXPECT_EQ(DBclSetNumericKeyForm(h8, 7, nullptr), DB_ERR_INVALID_COMMAND);
  struct Numeric {
    int32_t h;
    double value;
    const char* key;
    int32_t rc;
  } numbers[] = {{h5, 123, "00123", 0},      {h5, 123.5, "00123", 0},     {h5, 123.51, "00124", 0},
                 {h5, -123, ",,+*)", 0},     {h3, 999.7, "000", DB_WARN_ROUNDED},
                 {h6, 12.9999, "000013", 0}, {h6, 12.5, "000012", 0},     {h8, 12.5, "00012.50", 0},
                 {h8, -123, ",,+*).,,", 0},  {h8, 0.125, "00000.13", 0}};
  for (const Numeric& n : numbers) {
    char key[40];
    EXPECT_EQ(DBclNumericToKey(n.h, key, n.value), n.rc) << n.value;
    EXPECT_STREQ(key, n.key) << n.value;
    double back = 0;
    if (n.rc == 0 && n.value == static_cast<int>(n.value) && n.h != h3) {
      ASSERT_EQ(DBclKeyToNumeric(&back, key), 0);
      EXPECT_EQ(back, n.value);
    }
  }
  // Byte order follows value order among non-negative and among negative values.
  std::string last;
  for (double v : {-50.0, -5.0, 0.0, 7.25}) {
    char key[40];
    ASSERT_EQ(DBclNumericToKey(h8, key, v), 0);
    EXPECT_LT(last, key) << v;
    last = key;
  }
  // Binary keys: byte order is value order, and every type converts back.
  char key[9];
  ASSERT_EQ(DBclLongToKey(key, 0), 0);
  EXPECT_EQ(std::string(key, 4), std::string("\x80\0\0\0", 4));
  ASSERT_EQ(DBclUnsignedShortToKey(key, 0x1234), 0);
  EXPECT_EQ(static_cast<uint8_t>(key[0]), 0x12);
  std::string prev;
  for (double v : {-1e9, -2.5, -0.0, 0.0, 1e-9, 3.25, 1e300}) {
    ASSERT_EQ(DBclDoubleToKey(key, v), 0);
    EXPECT_LE(prev, std::string(key, 8)) << v;
    prev = std::string(key, 8);
    double back = 0;
    ASSERT_EQ(DBclKeyToDouble(&back, key), 0);
    EXPECT_EQ(back, v);
  }
  int32_t l = 0;
  float f = 0;
  uint16_t us = 0;
  int16_t s = 0;
  uint32_t ul = 0;
  EXPECT_TRUE(DBclLongToKey(key, -123456) == 0 && DBclKeyToLong(&l, key) == 0 && l == -123456);
  EXPECT_TRUE(DBclFloatToKey(key, -7.5f) == 0 && DBclKeyToFloat(&f, key) == 0 && f == -7.5f);
  EXPECT_TRUE(DBclKeyToUnsignedShort(&us, "\x12\x34") == 0 && us == 0x1234);
  EXPECT_TRUE(DBclShortToKey(key, -300) == 0 && DBclKeyToShort(&s, key) == 0 && s == -300);
  EXPECT_TRUE(DBclUnsignedLongToKey(key, 0xDEADBEEF) == 0 && DBclKeyToUnsignedLong(&ul, key) == 0 &&
              ul == 0xDEADBEEFu);
  // Date keys are yyyymmdd; a blank date is blanks both ways.
  char date[16];
  ASSERT_EQ(DBclDateToKey(date, "01/15/2024", 3), 0);
  EXPECT_STREQ(date, "20240115");
  ASSERT_EQ(DBclKeyToDate(date, 7, "20240115"), 0);
  EXPECT_STREQ(date, "15.01.2024");
  ASSERT_EQ(DBclDateToKey(date, "", 3), 0);
  EXPECT_STREQ(date, "        ");
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
  Signal locked, go;
  Child child([&](ChildChecks& checks) {
    int32_t c = -1;
    CHILD_EQ(checks, DBclOpenIndex(&c, path.c_str(), DB_OPEN_SHARED), 0);
    CHILD_EQ(checks, DBclLockIndex(c), 0);
    CHILD_EQ(checks, DBclAddKey(c, "SECOND", 2), 0);
    CHILD_EQ(checks, DBclFlushIndex(c), 0);
    locked.Send();
    go.Wait();
    CHILD_EQ(checks, DBclUnLockIndex(c), 0);
    CHILD_EQ(checks, DBclCloseIndex(c), 0);
  });
  ASSERT_TRUE(locked.Wait());
  ASSERT_EQ(DBclOpenIndex(&h, path.c_str(), DB_OPEN_SHARED), 0);
  DBSetLockRetryCount(3);
  EXPECT_LT(DBclLockIndex(h), 0);
  go.Send();
  child.Join();
  ASSERT_EQ(DBclLockIndex(h), 0);
  EXPECT_EQ(Walk(h, 10).size(), 2u);
  ASSERT_EQ(DBclUnLockIndex(h), 0);
  ASSERT_EQ(DBclCloseIndex(h), 0);
}

// A whole life of an index, and every allocation that fails along the way
// (from the open on), gives back all the memory it took.
TEST_F(NtxApiTest, NothingLeaksWhenAllocationsFail) {
  std::string path = dir_.File("leak.ntx");
  char expr[] = "NAME";
  ASSERT_EQ(DBclCreateIndex(path.c_str(), 'C', expr, 10, 0), 0);
  long live = testing::LiveAllocations();
  for (int n = 0; n <= 60; n += (n < 20 ? 1 : 7)) {
    if (n > 0) testing::FailAllocation(n);
    int32_t h = 99;
    int32_t rc = DBclOpenIndex(&h, path.c_str(), 0);
    EXPECT_TRUE(rc == 0 || (rc == DB_ERR_MEMORY && h == -1)) << n << ": " << rc;
    if (rc == 0) {
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
