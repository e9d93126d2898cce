// Searches and moves on single-tag IDX files, uncompressed and compact, of
// one level and of several, ascending and descending, against a model: the
// sorted list of (key, record) the file was written from.  Also the key
// conversions, tag handles and information, record keys and damaged files.
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "index/foxpro/fox_format.h"
#include "support/library.h"
#include "util/coding.h"

namespace kestrel::test {
namespace {

using foxpro::LeafWidths;

struct Item {
  std::string key;
  uint32_t record;
  bool operator<(const Item& o) const {
    return key != o.key ? key < o.key : record < o.record;
  }
};

struct Layout {
  bool compact;
  int key_length;
  bool descending;
};

// Writes items (sorted by key and record) as an IDX file: leaves filled in
// order, interior levels above them, siblings linked at every level.
std::vector<uint8_t> WriteIdx(const std::vector<Item>& items, const Layout& l, int per_leaf) {
  const int kl = l.key_length;
  const uint32_t first = l.compact ? 1024 : 512;
  std::vector<uint8_t> file(first, 0);
  struct Ref {
    std::string key;
    uint32_t record, node;
  };
  std::vector<Ref> level;
  auto add_node = [&]() {
    file.resize(file.size() + 512, 0);
    return static_cast<uint32_t>(file.size() - 512);
  };
  std::vector<uint32_t> nodes;
  size_t i = 0;
  do {
    uint32_t at = add_node();
    uint8_t* n = file.data() + at;
    size_t count = std::min<size_t>(static_cast<size_t>(per_leaf), items.size() - i);
    StoreLE16(n, 2);
    if (l.compact) {
      std::vector<uint8_t> keys;
      std::vector<uint32_t> recs;
      uint32_t top = 0;
      for (size_t j = 0; j < count; ++j) {
        keys.insert(keys.end(), items[i + j].key.begin(), items[i + j].key.end());
        recs.push_back(items[i + j].record);
        top = std::max(top, items[i + j].record);
      }
      EXPECT_TRUE(foxpro::EncodeLeaf(keys.data(), recs.data(), static_cast<int>(count), kl, ' ',
                                     LeafWidths::For(kl, false, top), n));
    } else {
      StoreLE16(n + 2, static_cast<uint16_t>(count));
      for (size_t j = 0; j < count; ++j) {
        uint8_t* e = n + 12 + j * (kl + 4);
        std::memcpy(e, items[i + j].key.data(), kl);
        StoreBE32(e + kl, items[i + j].record);
      }
    }
    if (count > 0) level.push_back({items[i + count - 1].key, items[i + count - 1].record, at});
    nodes.push_back(at);
    i += count;
  } while (i < items.size());
  auto link = [&](const std::vector<uint32_t>& row) {
    for (size_t j = 0; j < row.size(); ++j) {
      StoreLE32(file.data() + row[j] + 4, j ? row[j - 1] : 0xFFFFFFFFu);
      StoreLE32(file.data() + row[j] + 8, j + 1 < row.size() ? row[j + 1] : 0xFFFFFFFFu);
    }
  };
  link(nodes);
  const int entry = kl + (l.compact ? 8 : 4);
  const size_t per_node = static_cast<size_t>(500 / entry);
  while (level.size() > 1) {
    std::vector<Ref> up;
    nodes.clear();
    for (size_t j = 0; j < level.size(); j += per_node) {
      uint32_t at = add_node();
      uint8_t* n = file.data() + at;
      size_t count = std::min(per_node, level.size() - j);
      StoreLE16(n + 2, static_cast<uint16_t>(count));
      for (size_t k = 0; k < count; ++k) {
        uint8_t* e = n + 12 + k * entry;
        const Ref& r = level[j + k];
        std::memcpy(e, r.key.data(), kl);
        if (l.compact) {
          StoreBE32(e + kl, r.record);
          StoreBE32(e + kl + 4, r.node);
        } else {
          StoreBE32(e + kl, r.node);
        }
      }
      up.push_back({level[j + count - 1].key, level[j + count - 1].record, at});
      nodes.push_back(at);
    }
    link(nodes);
    level = up;
  }
  uint32_t root = level.empty() ? nodes.back() : level[0].node;
  file[root] |= 1;
  StoreLE32(file.data(), root);
  StoreLE16(file.data() + 12, static_cast<uint16_t>(kl));
  if (l.compact) {
    file[14] = 0x20;
    file[15] = 1;
    StoreLE16(file.data() + 502, l.descending ? 1 : 0);
    StoreLE16(file.data() + 504, 5);
    StoreLE16(file.data() + 506, 1);
    StoreLE16(file.data() + 510, 5);
    std::memcpy(file.data() + 512, "NAME", 5);
  } else {
    StoreLE32(file.data() + 4, 0xFFFFFFFFu);
    StoreLE32(file.data() + 8, static_cast<uint32_t>(file.size()));
    std::memcpy(file.data() + 16, "NAME", 5);
  }
  return file;
}

struct Answer {
  int32_t rc;
  uint32_t record;
};

// What a search must answer, read off the list in the tag's own order.
Answer Expected(const std::vector<Item>& physical, bool descending, const std::string& k,
                uint32_t record, int mode) {
  auto cmp = [&](const std::string& key) {
    int c = std::memcmp(k.data(), key.data(), k.size());
    return descending ? -c : c;
  };
  if (mode == 2) {
    for (const Item& it : physical) {
      int c = std::memcmp(k.data(), it.key.data(), k.size());
      if (c > 0) continue;
      if (c < 0) return {204, it.record};
      if (it.record == record) return {0, record};
    }
    return {203, physical.back().record};
  }
  std::vector<Item> list = physical;
  if (descending) std::reverse(list.begin(), list.end());
  size_t n = list.size(), p = 0, q = 0;
  while (p < n && cmp(list[p].key) > 0) ++p;
  while (q < n && cmp(list[q].key) >= 0) ++q;
  bool equal = p < n && cmp(list[p].key) == 0;
  uint32_t last = list[n - 1].record;
  switch (mode) {
    case 1:
      if (equal) return {0, list[p].record};
      if (p == n) return {204, last};
      return p == 0 ? Answer{203, list[0].record} : Answer{204, list[p - 1].record};
    case 12:
      if (equal) return {0, list[p].record};
      [[fallthrough]];
    case 11:
      if (p == n) return {0, last};
      return p == 0 ? Answer{204, list[0].record} : Answer{0, list[p - 1].record};
    case 13:
      if (equal) return {0, list[p].record};
      if (p == n) return {204, last};
      return {204, list[p == 0 ? 0 : p - 1].record};
    case 14:
      return p < n ? Answer{0, list[p].record} : Answer{204, last};
    default:
      return q < n ? Answer{0, list[q].record} : Answer{204, last};
  }
}

class FoxSearchTest : public LibraryTest {};

TEST_F(FoxSearchTest, SearchModesAndWalksMatchTheModel) {
  const Layout layouts[] = {
      {false, 8, false},   // uncompressed, one leaf level under a root
      {false, 100, false},  // uncompressed, four entries a node: four levels
      {true, 12, false},    // compact IDX
      {true, 12, true},     // compact IDX, descending
      {true, 40, true},     // compact, descending, small fan-out
  };
  std::mt19937 random(14);
  int checked = 0;
  for (const Layout& l : layouts) {
    for (int size : {1, 7, 300}) {
      std::vector<Item> items;
      for (int i = 0; i < size; ++i) {
        // Few distinct keys, long runs of equal ones, trailing blanks.
        std::string key(1 + random() % 3, static_cast<char>('B' + random() % 5));
        key.resize(static_cast<size_t>(l.key_length), ' ');
        items.push_back({key, static_cast<uint32_t>(1 + random() % 70000)});
      }
      std::sort(items.begin(), items.end());
      items.erase(std::unique(items.begin(), items.end(),
                              [](const Item& a, const Item& b) {
                                return a.key == b.key && a.record == b.record;
                              }),
                  items.end());
      std::string path = dir_.File("t.idx");
      WriteFileBytes(path, WriteIdx(items, l, l.compact ? 60 : 500 / (l.key_length + 4)));
      int32_t ix = -1;
      ASSERT_EQ(DBfpOpenIndex(&ix, path.c_str(), DB_OPEN_READONLY), 0);
      ASSERT_EQ(DBfpSetDefaultKeyType(ix, 'C'), 0);
      DBFPINDEXINFO info{};
      ASSERT_EQ(DBfpGetIndexInfo(ix, &info), 0);
      EXPECT_EQ(info.kind, l.compact ? 8 : 3);
      EXPECT_EQ(info.key_flags, l.descending ? DB_FP_DESCENDING : 0);
      std::vector<char> key(static_cast<size_t>(l.key_length) + 1);
      int32_t rec = 0;
      // The walk in the tag's order.
      std::vector<Item> order = items;
      if (l.descending) std::reverse(order.begin(), order.end());
      int32_t rc = DBfpGoFirstKey(ix, key.data(), &rec);
      for (const Item& it : order) {
        ASSERT_EQ(rc, 0);
        ASSERT_EQ(rec, static_cast<int32_t>(it.record));
        ASSERT_EQ(std::string(key.data(), l.key_length), it.key);
        rc = DBfpGoNextKey(ix, key.data(), &rec);
      }
      EXPECT_EQ(rc, DB_WARN_NO_MORE_KEYS);
      EXPECT_EQ(rec, static_cast<int32_t>(order.back().record));  // stays on the last key
      // Searches: prefixes of stored keys, keys between them and around them.
      std::vector<std::string> probes = {"A", "B", "BB", "C ", "CCC", "D", "DD", "F", "FFFF", "G"};
      for (const std::string& probe : probes) {
        for (int mode : {1, 2, 11, 12, 13, 14, 15}) {
          uint32_t want_record = items[random() % items.size()].record;
          std::string k = probe;
          Answer want = Expected(items, l.descending, k, want_record, mode);
          std::memset(key.data(), 0, key.size());
          std::memcpy(key.data(), probe.data(), probe.size());
          rec = static_cast<int32_t>(want_record);
          rc = DBfpKeySearch(ix, key.data(), &rec, mode);
          std::string what = "layout " + std::to_string(l.key_length) +
                             (l.compact ? "c" : "u") + (l.descending ? "d" : "a") + " size " +
                             std::to_string(size) + " mode " + std::to_string(mode) + " '" +
                             probe + "'";
          EXPECT_EQ(rc, want.rc) << what;
          EXPECT_EQ(rec, static_cast<int32_t>(want.record)) << what;
          ++checked;
        }
      }
      // Percentages: 0 and 100 are the first and last physical keys.
      ASSERT_EQ(DBfpGetKeyAtPercent(ix, 0, key.data(), &rec), 0);
      EXPECT_EQ(rec, static_cast<int32_t>(items.front().record));
      ASSERT_EQ(DBfpGetKeyAtPercent(ix, 100, key.data(), &rec), 0);
      EXPECT_EQ(rec, static_cast<int32_t>(items.back().record));
      int32_t percent = -1;
      ASSERT_EQ(DBfpGetKeyPercent(ix, &percent, items.back().key.c_str(),
                                  static_cast<int32_t>(items.back().record)),
                0);
      EXPECT_GE(percent, size > 1 ? 50 : 0);
      EXPECT_LE(percent, 100);
      EXPECT_EQ(DBfpCloseIndex(ix), 0);
    }
  }
  EXPECT_EQ(checked, 5 * 3 * 10 * 7);
}

std::string Hex(const char* bytes, size_t n) {
  std::string out;
  char two[3];
  for (size_t i = 0; i < n; ++i) {
    std::snprintf(two, sizeof two, "%02X", static_cast<uint8_t>(bytes[i]));
    out += two;
  }
  return out;
}

TEST_F(FoxSearchTest, KeyConversions) {
  char key[16];
  // Doubles sort as their bytes and come back exactly.
  const std::pair<double, const char*> doubles[] = {{-2.5, "3FFBFFFFFFFFFFFF"},
                                                    {-1.0, "400FFFFFFFFFFFFF"},
                                                    {0.0, "8000000000000000"},
                                                    {1.0, "BFF0000000000000"},
                                                    {123.45, "C05EDCCCCCCCCCCD"}};
  std::string previous;
  for (const auto& [value, hex] : doubles) {
    ASSERT_EQ(DBfpNumericToKey(key, value), 0);
    EXPECT_EQ(Hex(key, 8), hex);
    EXPECT_GT(std::string(key, 8), previous);
    previous.assign(key, 8);
    double back = 0;
    ASSERT_EQ(DBfpKeyToNumeric(&back, key), 0);
    EXPECT_EQ(back, value);
  }
  float f = 0;
  ASSERT_EQ(DBfpFloatToKey(key, -0.5f), 0);
  ASSERT_EQ(DBfpKeyToFloat(&f, key), 0);
  EXPECT_EQ(f, -0.5f);
  // Signed integers: negatives by increasing magnitude, before zero.
  int32_t l = 0;
  ASSERT_EQ(DBfpLongToKey(key, -1), 0);
  EXPECT_EQ(Hex(key, 4), "00000000");
  ASSERT_EQ(DBfpLongToKey(key, -2), 0);
  EXPECT_EQ(Hex(key, 4), "00000001");
  ASSERT_EQ(DBfpKeyToLong(&l, key), 0);
  EXPECT_EQ(l, -2);
  ASSERT_EQ(DBfpLongToKey(key, 0), 0);
  EXPECT_EQ(Hex(key, 4), "80000000");
  uint32_t u = 0;
  ASSERT_EQ(DBfpUnsignedLongToKey(key, 0x01020304u), 0);
  EXPECT_EQ(Hex(key, 4), "01020304");
  ASSERT_EQ(DBfpKeyToUnsignedLong(&u, key), 0);
  EXPECT_EQ(u, 0x01020304u);
  // A negative short complements four bytes; its inverse keeps the high byte.
  std::memset(key, 0x11, sizeof key);
  ASSERT_EQ(DBfpShortToKey(key, -2), 0);
  EXPECT_EQ(Hex(key, 5), "0001EEEE11");
  int16_t s = 0;
  ASSERT_EQ(DBfpKeyToShort(&s, key), 0);
  EXPECT_EQ(s, 254);  // the stored high byte 00 stays, the low byte is ~01
  ASSERT_EQ(DBfpShortToKey(key, 300), 0);
  ASSERT_EQ(DBfpKeyToShort(&s, key), 0);
  EXPECT_EQ(s, 300);
  uint16_t us = 0;
  ASSERT_EQ(DBfpUnsignedShortToKey(key, 0xABCD), 0);
  ASSERT_EQ(DBfpKeyToUnsignedShort(&us, key), 0);
  EXPECT_EQ(us, 0xABCD);
  // Dates: day numbers as doubles; the empty date is 0.0; 31 December of a
  // year divisible by four comes back as itself.
  ASSERT_EQ(DBfpDateToKey(key, "20000101", 15), 0);
  EXPECT_EQ(Hex(key, 8), "C142B42C80000000");
  ASSERT_EQ(DBfpDateToKey(key, "", 15), 0);
  EXPECT_EQ(Hex(key, 8), "8000000000000000");
  EXPECT_EQ(DBfpDateToKey(key, "20010231", 15), DB_ERR_INVALID_DATE);
  char date[DB_DATE_STR_SIZE];
  for (const char* d : {"20000229", "20041231", "19960101", "21001231", "17520914"}) {
    ASSERT_EQ(DBfpDateToKey(key, d, 15), 0) << d;
    ASSERT_EQ(DBfpKeyToDate(date, 15, key), 0) << d;
    EXPECT_STREQ(date, d);
  }
  EXPECT_EQ(DBfpDateToKey(nullptr, "20000101", 15), DB_ERR_NULL);
  EXPECT_EQ(DBfpKeyToNumeric(nullptr, key), DB_ERR_NULL);
  EXPECT_EQ(DBfbNumericToKey(key, 1.0), 0);
  EXPECT_EQ(Hex(key, 8), "BFF0000000000000");
}

// Tags by number and name, handles, information, the keys of records.
TEST_F(FoxSearchTest, TagsInformationAndRecordKeys) {
  std::string cdx = CopyFixture("foxpro/fstaff.cdx", dir_);
  std::string dbf = CopyFixture("foxpro/fstaff.dbf", dir_);
  int32_t ix = -1;
  ASSERT_EQ(DBfpOpenIndex(&ix, cdx.c_str(), DB_OPEN_READONLY), 0);
  DBFPTAGINFO* list = nullptr;
  int32_t count = 0;
  ASSERT_EQ(DBfpGetAllTagInfo(ix, &list, &count), 0);
  ASSERT_EQ(count, 9);
  const char* names[] = {"ACTIVE", "AGE", "CITYAGE", "CITYNAME", "CITYU",
                         "HIRED", "NAME", "NAMED", "SALARY"};
  for (int i = 0; i < 9; ++i) EXPECT_STREQ(list[i].name, names[i]);
  EXPECT_STREQ(list[3].expression, "CITY+NAME");  // stored "City + Name"
  EXPECT_EQ(list[4].options, DB_FP_UNIQUE | DB_FP_COMPACT | DB_FP_COMPOUND_TAG);
  EXPECT_EQ(list[7].options, DB_FP_DESCENDING | DB_FP_COMPACT | DB_FP_COMPOUND_TAG);
  EXPECT_EQ(list[2].key_length, 18);
  DBFreeMemory(list);

  int32_t t = -1, again = -1;
  char key[64];
  int32_t rec = 0;
  EXPECT_EQ(DBfpOpenTag(&t, ix, 0), DB_ERR_TAG_NAME);
  EXPECT_EQ(DBfpOpenTag(&t, ix, 10), DB_ERR_TAG_NAME);
  EXPECT_EQ(DBfpOpenNamedTag(&t, ix, "nosuch"), DB_ERR_TAG_NAME);
  EXPECT_EQ(DBfpOpenNamedTag(&t, ix, "CITYNAMEXXX"), DB_ERR_TAG_NAME);
  ASSERT_EQ(DBfpOpenTag(&t, ix, 7), 0);
  EXPECT_EQ(DBfpOpenNamedTag(&again, ix, "name"), DB_ERR_TAG_IN_USE);
  EXPECT_EQ(t & 0xFFFF, ix);
  EXPECT_EQ(DBfpGoFirstKey(ix, key, &rec), DB_ERR_TAG_HANDLE);  // the file names no tag
  EXPECT_EQ(DBfpGoFirstKey(ix + (5 << 16), key, &rec), DB_ERR_TAG_HANDLE);
  DBFPINDEXINFO info{};
  info.state = 0x100;
  ASSERT_EQ(DBfpGetIndexInfo(ix, &info), 0);
  EXPECT_EQ(info.state, 0x100 | 1);
  EXPECT_EQ(info.key_length, 0);
  ASSERT_EQ(DBfpGetIndexInfo(t, &info), 0);
  EXPECT_EQ(info.key_length, 20);
  EXPECT_EQ(info.key_type, '?');
  char expr[256];
  ASSERT_EQ(DBfpGetIndexKeyExpr(t, expr), 0);
  EXPECT_STREQ(expr, "NAME");
  int32_t buffers = 0;
  EXPECT_EQ(DBfpGetSetCacheSize(ix, &buffers, 1), 0);
  EXPECT_EQ(buffers, 10);
  buffers = 3;
  EXPECT_EQ(DBfpGetSetCacheSize(ix, &buffers, 0), DB_ERR_INVALID_COMMAND);

  // Every record's key, made from the table, is the key the tag holds for it:
  // character, numeric, date (with the stored century) and logical keys.
  int32_t table = -1;
  ASSERT_EQ(DBOpenFile(&table, dbf.c_str(), DB_OPEN_READONLY | DB_DIALECT_FOXPRO), 0);
  // Making a key gives an unknown key type the type of the key made, and
  // with it the pad that decodes the tag's keys.
  ASSERT_EQ(DBfpGoFirstKey(t, key, &rec), 0);
  EXPECT_EQ(key[19], '\0');
  ASSERT_EQ(DBGetRecord(table, 1), 0);
  char* first = nullptr;
  ASSERT_EQ(DBfpMakeKey(table, t, &first), 0);
  DBFreeMemory(first);
  ASSERT_EQ(DBfpGoFirstKey(t, key, &rec), 0);
  EXPECT_EQ(key[19], ' ');
  int made = 0;
  for (const char* name : {"NAME", "AGE", "HIRED", "ACTIVE", "SALARY", "CITYAGE"}) {
    int32_t tag = t;
    if (std::strcmp(name, "NAME") != 0) {
      ASSERT_EQ(DBfpOpenNamedTag(&tag, ix, name), 0);
      ASSERT_EQ(DBGetRecord(table, 1), 0);
      ASSERT_EQ(DBfpMakeKey(table, tag, &first), 0);
      DBFreeMemory(first);
    }
    DBFPTAGINFO ti{};
    ASSERT_EQ(DBfpGetTagInfo(tag, &ti), 0);
    int32_t rc = DBfpGoFirstKey(tag, key, &rec);
    while (rc == 0) {
      if (rec % 7 == 0) {
        ASSERT_GE(DBGetRecord(table, rec), 0);
        char* mine = nullptr;
        ASSERT_EQ(DBfpMakeKey(table, tag, &mine), 0) << name;
        ASSERT_EQ(DBfpGetTagInfo(tag, &ti), 0);
        EXPECT_EQ(Hex(mine, static_cast<size_t>(ti.key_length)),
                  Hex(key, static_cast<size_t>(ti.key_length)))
            << name << " record " << rec;
        DBFreeMemory(mine);
        ++made;
      }
      rc = DBfpGoNextKey(tag, key, &rec);
    }
    EXPECT_EQ(rc, DB_WARN_NO_MORE_KEYS);
  }
  EXPECT_GT(made, 150);
  // The record of a key: after a leaf was read the step past a mismatch is
  // the leaf's record mask plus one, so only the given record is tried.
  ASSERT_EQ(DBfpKeySearch(t, std::strcpy(key, "Smith"), &rec, DB_FP_SEEK_FIRST), 0);
  int32_t from = rec;
  ASSERT_EQ(DBfpGetRecordNumber(table, &from, t, key), 0);
  EXPECT_EQ(from, rec);
  from = rec - 1;
  EXPECT_EQ(DBfpGetRecordNumber(table, &from, t, key), DB_WARN_KEY_NOT_FOUND);
  from = 301;
  EXPECT_EQ(DBfpGetRecordNumber(table, &from, t, key), DB_WARN_KEY_NOT_FOUND);
  EXPECT_EQ(DBCloseFile(table), 0);
  EXPECT_EQ(DBfpCloseTag(t), 0);
  EXPECT_EQ(DBfpGoFirstKey(t, key, &rec), DB_ERR_TAG_HANDLE);
  EXPECT_EQ(DBfpCloseIndex(ix), 0);
  EXPECT_EQ(DBfpGoFirstKey(t, key, &rec), DB_ERR_INVALID_HANDLE);
}

}  // namespace
}  // namespace kestrel::test
