// The .NDX engine through its procedural interface: key conversions, file
// creation and the open's checks, the search modes on one-level and deeper
// trees, the scan flag, percentages, split shape and the update rules.
#include <cmath>
#include <cstring>
#include <filesystem>

#include "dbase_test_util.h"
#include "runtime/memory.h"
#include "util/coding.h"

namespace kestrel::test {
namespace {

std::string Hex(const char* bytes, int n) {
  std::string out;
  char b[4];
  for (int i = 0; i < n; ++i) {
    std::snprintf(b, sizeof b, "%02X", static_cast<uint8_t>(bytes[i]));
    out += b;
  }
  return out;
}

TEST_F(DbaseTest, DecimalKeysAndTheirDeliberateReadBack) {
  struct Case {
    double value;
    const char* key;
    double back;
  } cases[] = {
      {0, "2E0100000000000000000000", 0},      {1, "350110000000000000000000", 1},
      {-1, "358110000000000000000000", -1},    {123.456, "370112345600000000000000", 123.456},
      {-0.5, "348150000000000000000000", -0.5}, {0.05, "330150000000000000000000", 0.5},
      {0.005, "320150000000000000000000", 0.05},
  };
  for (const Case& c : cases) {
    char key[12];
    ASSERT_EQ(DBd4NumericToKey(key, c.value), 0);
    EXPECT_EQ(Hex(key, 12), c.key) << c.value;
    double back = 99;
    ASSERT_EQ(DBd4KeyToNumeric(&back, key), 0);
    EXPECT_DOUBLE_EQ(back, c.back) << c.value;
  }
  // More integer digits than the key holds stay inside its 12 bytes.
  char big[16];
  std::memset(big, 0x55, sizeof big);
  ASSERT_EQ(DBd4NumericToKey(big, 1e300), 0);
  EXPECT_EQ(static_cast<uint8_t>(big[12]), 0x55);
  EXPECT_EQ(DBd4NumericToKey(nullptr, 1), DB_ERR_NULL);
}

TEST_F(DbaseTest, DateKeysKeepTheWholeYearRule) {
  struct Case {
    const char* text;
    double day;
  } cases[] = {{"20030101", 2452641}, {"20000301", 2451605}, {"19000301", 2415079},
               {"21001231", 2488434}, {"00040101", 1722506}};
  for (const Case& c : cases) {
    char key[8];
    ASSERT_EQ(DBd3DateToKey(key, c.text, 15), 0);
    EXPECT_EQ(LoadDouble(reinterpret_cast<uint8_t*>(key)), c.day) << c.text;
    char back[DB_DATE_STR_SIZE] = {};
    ASSERT_EQ(DBd4KeyToDate(back, 15, key), 0);
    EXPECT_STREQ(back, c.text);
  }
  // Every 31 December of 1..2400 reads back (the inverse's "day 0" case).
  for (int year = 1; year <= 2400; ++year) {
    char text[16], key[8], back[DB_DATE_STR_SIZE] = {};
    std::snprintf(text, sizeof text, "%04d1231", year);
    ASSERT_EQ(DBd3DateToKey(key, text, 15), 0);
    ASSERT_EQ(DBd3KeyToDate(back, 15, key), 0);
    ASSERT_STREQ(back, text);
  }
  char key[8];
  ASSERT_EQ(DBd4DateToKey(key, "", 15), 0);
  EXPECT_EQ(Hex(key, 8), "7DC39425AD49B254");
  char back[DB_DATE_STR_SIZE] = {};
  ASSERT_EQ(DBd4KeyToDate(back, 15, key), 0);
  EXPECT_STREQ(back, "        ");
  EXPECT_EQ(DBd4DateToKey(key, "20031345", 15), DB_ERR_INVALID_DATE);
}

TEST_F(DbaseTest, CreateWritesTheHeaderAndOpenChecksIt) {
  std::string path = dir_.File("c.ndx");
  char expr[] = "last name + first";
  ASSERT_EQ(DBd3CreateIndex(path.c_str(), 'c', expr, 78), 0);
  std::vector<uint8_t> b = ReadFileBytes(path);
  ASSERT_EQ(b.size(), 1024u);
  EXPECT_EQ(LoadLE32(&b[0]), 1u);
  EXPECT_EQ(LoadLE32(&b[4]), 2u);
  EXPECT_EQ(LoadLE16(&b[12]), 78);
  EXPECT_EQ(LoadLE16(&b[18]), 88);  // key rounded up to 4, plus 8
  EXPECT_EQ(LoadLE16(&b[14]), 504 / 88);
  EXPECT_STREQ(reinterpret_cast<char*>(&b[24]), "LASTNAME+FIRST");
  char e2[] = "D";
  ASSERT_EQ(DBd3CreateIndex(path.c_str(), 'D' | DB_D4_UNIQUE, e2, 0), 0);
  b = ReadFileBytes(path);
  EXPECT_EQ(LoadLE16(&b[12]), 8);
  EXPECT_EQ(LoadLE16(&b[18]), 16);
  EXPECT_EQ(LoadLE16(&b[14]), 31);
  EXPECT_EQ(LoadLE16(&b[16]), 1);
  EXPECT_EQ(b[23], 1);
  char e3[] = "X";
  EXPECT_EQ(DBd3CreateIndex(path.c_str(), 'F', e3, 8), DB_ERR_KEY_TYPE);
  EXPECT_EQ(DBd3CreateIndex(path.c_str(), 'C', e3, 255), DB_ERR_KEY_LENGTH);
  EXPECT_EQ(DBd3CreateIndex(path.c_str(), 'C', e3, 250), DB_ERR_MIN_KEYS);
  std::string long_expr(221, 'A');
  EXPECT_EQ(DBd3CreateIndex(path.c_str(), 'C', long_expr.data(), 8), DB_ERR_BAD_EXPRESSION);

  // The open's checks, each on a copy of a sound file with one field broken.
  char e4[] = "NAME";
  ASSERT_EQ(DBd3CreateIndex(path.c_str(), 'C', e4, 10), 0);
  std::vector<uint8_t> good = ReadFileBytes(path);
  int32_t h = -1;
  EXPECT_EQ(DBd3OpenIndex(&h, path.c_str(), 3), DB_ERR_VERSION);
  EXPECT_EQ(h, -1);
  struct Break {
    int offset, width;
    uint32_t value;
    int32_t code;
  } breaks[] = {{12, 2, 0, DB_ERR_KEY_LENGTH},  {0, 4, 2, DB_ERR_ROOT_PAGE},
                {0, 4, 0, DB_ERR_ROOT_PAGE},    {18, 2, 17, DB_ERR_ITEM_LENGTH},
                {14, 2, 40, DB_ERR_MAX_KEYS},   {16, 2, 9, DB_ERR_KEY_TYPE},
                {18, 2, 18, 0},                 {4, 4, 3, DB_WARN_FILE_LENGTH}};
  for (const Break& k : breaks) {
    std::vector<uint8_t> bad = good;
    if (k.width == 2)
      StoreLE16(&bad[k.offset], static_cast<uint16_t>(k.value));
    else
      StoreLE32(&bad[k.offset], k.value);
    WriteFileBytes(path, bad);
    EXPECT_EQ(DBd3OpenIndex(&h, path.c_str(), 0), k.code) << k.offset;
    if (k.code >= 0) {
      EXPECT_EQ(DBd3CloseIndex(h), 0);
    }
  }
}

// Keys A.., C.., E.. with records; the table of every search mode.
TEST_F(DbaseTest, SearchModesOnOneLevelAndDeeperTrees) {
  for (int length : {8, 100}) {  // 100-byte keys: four keys a page, three levels
    SCOPED_TRACE(length);
    int32_t h = CreateNdx("s" + std::to_string(length) + ".ndx", 'C', length);
    std::vector<std::string> keys;
    for (int i = 0; i < 20; ++i) keys.push_back(std::string(1, 'B' + 2 * (i / 2)) + "X");
    for (size_t i = 0; i < keys.size(); ++i) ASSERT_EQ(DBd3AddKey(h, keys[i].c_str(), i + 1), 0);
    index::CheckSummary s{};
    ASSERT_EQ(Faults(h, &s), "");
    EXPECT_EQ(s.depth, length == 8 ? 1u : 3u);
    struct Row {
      const char* key;
      int mode;
      int32_t rc;
      char found;
      int32_t record;
    } rows[] = {
        {"DX", 1, 0, 'D', 3},   {"D", 1, 0, 'D', 3},    {"C", 1, 204, 'B', 2},
        {"A", 1, 203, 'B', 1},  {"Z", 1, 204, 'T', 20}, {"DX", 11, 0, 'B', 2},
        {"B", 11, 204, 'B', 1}, {"Z", 11, 0, 'T', 20},  {"D", 12, 0, 'D', 3},
        {"C", 12, 0, 'B', 2},   {"A", 12, 204, 'B', 1}, {"C", 13, 204, 'B', 2},
        {"D", 13, 0, 'D', 3},   {"A", 13, 204, 'B', 1}, {"C", 14, 0, 'D', 3},
        {"D", 14, 0, 'D', 3},   {"Z", 14, 204, 'T', 20}, {"D", 15, 0, 'F', 5},
        {"DX", 15, 0, 'F', 5},  {"T", 15, 204, 'T', 20},
    };
    for (const Row& r : rows) {
      std::string buf(length + 1, '\0');
      std::memcpy(buf.data(), r.key, std::strlen(r.key));
      int32_t rec = 0;
      EXPECT_EQ(DBd4KeySearch(h, buf.data(), &rec, r.mode), r.rc) << r.key << " " << r.mode;
      EXPECT_EQ(buf[0], r.found) << r.key << " " << r.mode;
      EXPECT_EQ(rec, r.record) << r.key << " " << r.mode;
    }
    // Mode 2 finds a pair, passes over the same key with other records.
    std::string buf = "FX";
    buf.resize(length + 1, '\0');
    int32_t rec = 6;
    EXPECT_EQ(DBd3KeySearch(h, buf.data(), &rec, 2), 0);
    EXPECT_EQ(rec, 6);
    rec = 7;
    buf = "FX";
    buf.resize(length + 1, '\0');
    EXPECT_EQ(DBd3KeySearch(h, buf.data(), &rec, 2), DB_WARN_KEY_NOT_FOUND);
    EXPECT_EQ(buf[0], 'H');
    buf = "ZZ";
    buf.resize(length + 1, '\0');
    EXPECT_EQ(DBd3KeySearch(h, buf.data(), &rec, 2), DB_WARN_NO_MORE_KEYS);

    // The scan flag: equal keys, then 204 at the first key that differs.
    buf = "H";
    buf.resize(length + 1, '\0');
    ASSERT_EQ(DBd3KeySearch(h, buf.data(), &rec, 1 | DB_D4_REMEMBER), 0);
    EXPECT_EQ(DBd3GoNextKey(h, buf.data(), &rec), 0);
    EXPECT_EQ(DBd3GoNextKey(h, buf.data(), &rec), DB_WARN_KEY_NOT_FOUND);
    EXPECT_EQ(buf[0], 'J');
    EXPECT_EQ(DBd3GoNextKey(h, buf.data(), &rec), 0);  // the flag is gone
    // The ends.
    ASSERT_EQ(DBd3GoLastKey(h, buf.data(), &rec), 0);
    EXPECT_EQ(DBd3GoNextKey(h, buf.data(), &rec), DB_WARN_NO_MORE_KEYS);
    ASSERT_EQ(DBd3GoFirstKey(h, buf.data(), &rec), 0);
    EXPECT_EQ(DBd3GoPreviousKey(h, buf.data(), &rec), DB_WARN_NO_MORE_KEYS);
    EXPECT_EQ(DBd3GetCurrentKey(h, buf.data(), &rec), 0);
    EXPECT_EQ(rec, 1);
    ASSERT_EQ(DBd3CloseIndex(h), 0);
  }
}

TEST_F(DbaseTest, PercentagesOnOneLeaf) {
  int32_t h = CreateNdx("p.ndx", 'C', 4);
  char key[5] = {};
  int32_t rec = 0, percent = -1;
  EXPECT_EQ(DBd3GetKeyPercent(h, &percent, "A", 0), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBd3GetKeyAtPercent(h, 50, key, &rec), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBd3GoFirstKey(h, key, &rec), DB_WARN_FILE_EMPTY);
  EXPECT_EQ(DBd3GetCurrentKey(h, key, &rec), DB_WARN_FILE_EMPTY);
  for (int i = 0; i < 10; ++i) {
    char k[2] = {static_cast<char>('A' + i), 0};
    ASSERT_EQ(DBd3AddKey(h, k, i + 1), 0);
  }
  ASSERT_EQ(DBd3GetKeyPercent(h, &percent, "A", 0), 0);
  EXPECT_EQ(percent, 0);
  ASSERT_EQ(DBd3GetKeyPercent(h, &percent, "J", 10), 0);
  EXPECT_EQ(percent, 90);
  ASSERT_EQ(DBd3GetKeyAtPercent(h, 100, key, &rec), 0);
  EXPECT_EQ(rec, 10);
  ASSERT_EQ(DBd3GetKeyAtPercent(h, 50, key, &rec), 0);
  EXPECT_EQ(rec, 6);
  int32_t size = 2;
  EXPECT_EQ(DBd3GetSetCacheSize(h, &size, 0), DB_ERR_INVALID_COMMAND);
  size = 20;
  EXPECT_EQ(DBd3GetSetCacheSize(h, &size, 0), 0);
  EXPECT_EQ(DBd3GetSetCacheSize(h, &size, 1), 0);
  EXPECT_EQ(size, 20);
  EXPECT_EQ(DBd3GetSetCacheSize(h, &size, 5), DB_ERR_INVALID_COMMAND);
}

TEST_F(DbaseTest, UpdatesSplitAndKeepPairs) {
  // 40-byte keys: ten keys a page.
  int32_t h = CreateNdx("u.ndx", 'C', 40);
  for (int i = 0; i < 11; ++i) {
    char k[3] = {static_cast<char>('A' + i), 0};
    ASSERT_EQ(DBd3AddKey(h, k, i + 1), 0);
    char got[41] = {};
    int32_t rec = 0;
    ASSERT_EQ(DBd3GetCurrentKey(h, got, &rec), 0);  // on the added key
    EXPECT_EQ(rec, i + 1);
  }
  ASSERT_EQ(DBd3FlushIndex(h), 0);
  std::vector<uint8_t> b = ReadFileBytes(dir_.File("u.ndx"));
  ASSERT_EQ(b.size(), 4u * 512);
  EXPECT_EQ(LoadLE32(&b[0]), 3u);  // the new root
  const uint8_t* left = &b[2 * 512];
  const uint8_t* right = &b[1 * 512];
  const uint8_t* root = &b[3 * 512];
  EXPECT_EQ(LoadLE32(left), 6u);
  EXPECT_EQ(LoadLE32(right), 5u);
  EXPECT_EQ(LoadLE32(root), 1u);
  EXPECT_EQ(LoadLE32(root + 4), 2u);       // child: the left page
  EXPECT_EQ(LoadLE32(root + 8), 0u);       // interior records are 0
  EXPECT_EQ(root[12], 'F');                // the left page's sixth key
  EXPECT_EQ(LoadLE32(root + 4 + 48), 1u);  // then the old page
  // A key stored blank-padded is found by its text; pairs and uniqueness.
  EXPECT_EQ(DBd3AddKey(h, "A", 1), 0);
  EXPECT_EQ(DBd3InsertKey(h, "A", 1), DB_WARN_EXISTS);
  EXPECT_EQ(DBd3InsertKey(h, "A", 99), 0);
  KeyList all = Walk(h, 40);
  ASSERT_EQ(all.size(), 13u);
  EXPECT_EQ(all[0].second, 1u);
  EXPECT_EQ(all[1].second, 1u);
  EXPECT_EQ(all[2].second, 99u);
  EXPECT_EQ(all[0].first, "A" + std::string(39, ' '));
  EXPECT_EQ(DBd3DeleteKey(h, "Q", 1), DB_WARN_KEY_NOT_FOUND);
  EXPECT_EQ(DBd3DeleteKey(h, "A", 5), DB_WARN_KEY_NOT_FOUND);
  EXPECT_EQ(DBd3DeleteKey(h, "A", 99), 0);
  char got[41] = {};
  int32_t rec = 0;
  ASSERT_EQ(DBd3GetCurrentKey(h, got, &rec), 0);  // on the key that followed
  EXPECT_EQ(got[0], 'B');
  EXPECT_EQ(Faults(h), "");
  ASSERT_EQ(DBd3ZapIndex(h), 0);
  EXPECT_EQ(ReadFileBytes(dir_.File("u.ndx")).size(), 1024u);
  EXPECT_EQ(DBd3GoFirstKey(h, got, &rec), DB_WARN_FILE_EMPTY);
  ASSERT_EQ(DBd3AddKey(h, "Z", 1), 0);
  EXPECT_EQ(DBd3DeleteKey(h, "Z", 1), DB_WARN_FILE_EMPTY);
  ASSERT_EQ(DBd3CloseIndex(h), 0);

  int32_t u = CreateNdx("unique.ndx", 'C' | DB_D4_UNIQUE, 8);
  EXPECT_EQ(DBd3AddKey(u, "K", 1), 0);
  EXPECT_EQ(DBd3AddKey(u, "K", 2), DB_WARN_EXISTS);
  ASSERT_EQ(DBd3CloseIndex(u), 0);

  // Read-only, and shared without a lock.
  std::string path = dir_.File("u.ndx");
  ASSERT_EQ(DBd3OpenIndex(&h, path.c_str(), DB_OPEN_READONLY), 0);
  EXPECT_EQ(DBd3AddKey(h, "A", 1), DB_ERR_READ_ONLY);
  EXPECT_EQ(DBd3FlushIndex(h), DB_ERR_READ_ONLY);
  ASSERT_EQ(DBd3CloseIndex(h), 0);
  ASSERT_EQ(DBd3OpenIndex(&h, path.c_str(), DB_OPEN_SHARED), 0);
  EXPECT_EQ(DBd3AddKey(h, "A", 1), DB_ERR_MUST_LOCK);
  ASSERT_EQ(DBd3LockIndex(h), 0);
  EXPECT_EQ(DBd3AddKey(h, "A", 1), 0);
  ASSERT_EQ(DBd3UnLockIndex(h), 0);
  ASSERT_EQ(DBd3CloseIndex(h), 0);
  ASSERT_EQ(DBd3OpenIndex(&h, path.c_str(), DB_OPEN_AUTOLOCK), 0);
  EXPECT_EQ(DBd3AddKey(h, "B", 2), 0);
  EXPECT_EQ(Walk(h, 40).size(), 2u);
  DBD4INDEXINFO info{};
  ASSERT_EQ(DBd4GetIndexInfo(h, &info), 0);
  EXPECT_EQ(info.key_length, 40);
  EXPECT_EQ(info.key_type, 'C');
  EXPECT_STREQ(info.expression, "NAME");
  EXPECT_EQ(info.state & 2, 2);
  EXPECT_EQ(DBd4GoFirstKey(h | (1 << 16), got, &rec), DB_ERR_TAG_HANDLE);
  ASSERT_EQ(DBd3CloseIndex(h), 0);
  EXPECT_EQ(DBd3AddKey(h, "A", 1), DB_ERR_INVALID_HANDLE);
}

TEST_F(DbaseTest, MakeKeyFromRecords) {
  std::string table = dir_.File("t.dbf");
  DBFIELD fields[3] = {};
  std::strcpy(fields[0].name, "NAME");
  fields[0].type = 'C';
  fields[0].length = 10;
  std::strcpy(fields[1].name, "BORN");
  fields[1].type = 'D';
  fields[1].length = 8;
  std::strcpy(fields[2].name, "MEMO");
  fields[2].type = 'M';
  fields[2].length = 10;
  ASSERT_EQ(DBCreateFile(table.c_str(), 3, fields, DB_DIALECT_DBASE3), 0);
  int32_t t = -1;
  ASSERT_EQ(DBOpenFile(&t, table.c_str(), DB_DIALECT_DBASE3), 0);
  ASSERT_EQ(DBPutNamedData(t, "NAME", "smith"), 0);
  ASSERT_EQ(DBPutNamedStr(t, "BORN", "20030101"), 0);
  int32_t d = CreateNdx("born.ndx", 'D', 8, "BORN");
  char* key = nullptr;
  ASSERT_EQ(DBd3MakeKey(d, t, &key), 0);  // the century of the field, whatever the style
  EXPECT_EQ(LoadDouble(reinterpret_cast<uint8_t*>(key)), 2452641.0);
  DBFreeMemory(key);
  int32_t c = CreateNdx("name.ndx", 'C', 12, "NAME");
  ASSERT_EQ(DBd4MakeKey(c, t, &key), 0);
  EXPECT_STREQ(key, "smith       ");
  DBFreeMemory(key);
  int32_t m = CreateNdx("memo.ndx", 'C', 10, "MEMO");
  EXPECT_EQ(DBd3MakeKey(m, t, &key), DB_ERR_BAD_EXPRESSION);
  EXPECT_EQ(key, nullptr);
}

// The nth allocation failing, for every n: a build returns -203 and leaves
// the old file exactly as it was (and nothing behind); an open with a split
// and a merge returns -203 and leaves the file as it was or sound.
TEST_F(DbaseTest, AllocationFailuresLeaveSoundFiles) {
  std::string table = dir_.File("f.dbf");
  DBFIELD field{};
  std::strcpy(field.name, "NAME");
  field.type = 'C';
  field.length = 40;
  ASSERT_EQ(DBCreateFile(table.c_str(), 1, &field, DB_DIALECT_DBASE3), 0);
  int32_t t = -1;
  ASSERT_EQ(DBOpenFile(&t, table.c_str(), DB_DIALECT_DBASE3), 0);
  for (int r = 1; r <= 200; ++r) {
    char name[16];
    std::snprintf(name, sizeof name, "N%03d", (r * 7919) % 500);
    ASSERT_EQ(DBPutStrField(t, 0, name), 0);
    int32_t recno = 0;
    ASSERT_EQ(DBPutRecord(t, &recno, DB_RECORD_APPEND), 0);
  }
  std::string path = dir_.File("f.ndx");
  char e[] = "NAME";
  ASSERT_EQ(DBd3CreateIndex(path.c_str(), 'C', e, 40), 0);
  const std::vector<uint8_t> empty = ReadFileBytes(path);
  bool completed = false;
  int failed = 0;
  for (long n = 1; n < 2000 && !completed; ++n) {
    SCOPED_TRACE(n);
    long live = kestrel::testing::LiveAllocations();
    char expr[] = "NAME";
    kestrel::testing::FailAllocation(n);
    int32_t rc = DBd3BuildIndex(t, path.c_str(), 'C', expr, 40);
    kestrel::testing::FailAllocation(0);
    ASSERT_TRUE(rc == 0 || rc == DB_ERR_MEMORY) << rc;
    completed = rc == 0;
    failed += rc == DB_ERR_MEMORY;
    EXPECT_EQ(kestrel::testing::LiveAllocations(), live);
    if (!completed) {
      ASSERT_EQ(ReadFileBytes(path), empty);
    }
    for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
      ASSERT_NE(entry.path().extension().string(), ".TMP") << entry.path();
    }
  }
  ASSERT_TRUE(completed);
  EXPECT_GT(failed, 10);
  ASSERT_EQ(FileFaults(path), "");
  const std::vector<uint8_t> built = ReadFileBytes(path);
  failed = 0;
  // 40-byte keys, ten a page: adding splits, deleting merges.
  completed = false;
  for (long n = 1; n < 200 && !completed; ++n) {
    SCOPED_TRACE(n);
    WriteFileBytes(path, built);
    int32_t h = -1;
    kestrel::testing::FailAllocation(n);
    int32_t rc = DBd3OpenIndex(&h, path.c_str(), 0);
    for (int i = 0; rc == 0 && i < 30; ++i) rc = DBd3AddKey(h, "N250", 1000 + i);
    for (int i = 0; rc == 0 && i < 120; ++i) {
      char k[41] = {};
      int32_t rec = 0;
      rc = DBd3GoFirstKey(h, k, &rec);
      if (rc == 0) rc = DBd3DeleteKey(h, k, rec);
    }
    kestrel::testing::FailAllocation(0);
    ASSERT_TRUE(rc == 0 || rc == DB_ERR_MEMORY) << rc;
    completed = rc == 0;
    failed += rc == DB_ERR_MEMORY;
    if (h >= 0) {
      ASSERT_EQ(DBd3CloseIndex(h), 0);
    }
    if (completed) {
      EXPECT_EQ(FileFaults(path), "");
    } else {
      EXPECT_EQ(ReadFileBytes(path), built);
    }
  }
  ASSERT_TRUE(completed);
  EXPECT_GT(failed, 0);
}

}  // namespace
}  // namespace kestrel::test
