// The checker and damaged files: every kind of broken page gives an error
// status from the engine and a fault from the checker, never a crash or a
// hang; sound files that other programs made unusual get notes and warnings,
// not faults; files of other index formats are named, not checked as NTX.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <functional>
#include <tuple>

#include "index/clipper/ntx_format.h"
#include "ntx_test_util.h"
#include "util/coding.h"

namespace kestrel::test {
namespace {

using Bytes = std::vector<uint8_t>;

class NtxCheckTest : public NtxTest {
 protected:
  // An index of 600 keys (C(10): 50 per page, three levels), closed.
  void SetUp() override {
    NtxTest::SetUp();
    path_ = dir_.File("d.ntx");
    int32_t h = CreateOpen("d.ntx", 'C', 10);
    for (int i = 0; i < 600; ++i) ASSERT_EQ(DBclAddKey(h, Key(i).c_str(), i + 1), 0);
    ASSERT_EQ(DBclCloseIndex(h), 0);
    good_ = ReadFileBytes(path_);
    root_ = LoadLE32(&good_[ntx::kHdrRoot]);
  }

  static std::string Key(int i) {
    char k[11];
    std::snprintf(k, sizeof k, "K%04d", (i * 7919) % 600);
    return k;
  }
  static uint32_t Entry(uint32_t page, int i) { return page + ntx::kPageTable + 2 * i; }
  static uint32_t ItemOffset(const Bytes& b, uint32_t page, int i) {
    return page + LoadLE16(&b[Entry(page, i)]);
  }
  static uint32_t Child(const Bytes& b, uint32_t page, int i) {
    return LoadLE32(&b[ItemOffset(b, page, i)]);
  }
  uint32_t FirstLeaf() const {
    uint32_t page = root_;
    while (Child(good_, page, 0) != 0) page = Child(good_, page, 0);
    return page;
  }

  // Writes the damaged bytes, then opens, walks, searches in every mode, adds
  // and deletes: the first error.  Every call must answer with a status.
  int32_t Exercise(const Bytes& bytes) {
    WriteFileBytes(path_, bytes);
    int32_t h = 99;
    int32_t rc = DBclOpenIndex(&h, path_.c_str(), 0);
    if (rc < 0) {
      EXPECT_EQ(h, -1);
      return rc;
    }
    int32_t first_error = 0;
    auto note = [&](int32_t status) {
      EXPECT_TRUE(status == 0 || (status >= 201 && status <= 212) ||
                  (status <= -201 && status >= -280))
          << status;
      if (status < 0 && first_error == 0) first_error = status;
      return status;
    };
    char key[300] = {};
    int32_t rec = 0;
    int steps = 0;
    for (rc = DBclGoFirstKey(h, key, &rec); rc == 0 && steps < 10000; ++steps) {
      rc = note(DBclGoNextKey(h, key, &rec));
    }
    note(rc);
    for (int mode : {1, 2, 11, 12, 13, 14, 15}) {
      std::memset(key, 0, sizeof key);
      std::strcpy(key, "K0300");
      note(DBclKeySearch(h, key, &rec, mode));
    }
    for (int i = 0; i < 100 && first_error == 0; ++i) {
      note(DBclAddKey(h, "NEW", 1000 + i));
      if (i % 2) note(DBclDeleteKey(h, "NEW", 1000 + i));
    }
    note(DBclCloseIndex(h));
    return first_error;
  }

  std::string path_;
  Bytes good_;
  uint32_t root_ = 0;
};

// Each damage: what the engine reports first (any of the codes; none listed:
// not exercised) and what the checker says.
TEST_F(NtxCheckTest, DamagedPagesGiveErrorsAndFaults) {
  uint32_t leaf = FirstLeaf();
  struct Damage {
    const char* name;
    std::function<void(Bytes&)> apply;
    std::vector<int32_t> engine;
    const char* finding;
  } cases[] = {
      {"key length 0", [](Bytes& b) { StoreLE16(&b[14], 0); }, {DB_ERR_KEY_LENGTH},
       "key length 0 outside"},
      {"item size", [](Bytes& b) { StoreLE16(&b[12], 17); }, {DB_ERR_ITEM_LENGTH}, "item size 17"},
      {"maximum items", [](Bytes& b) { StoreLE16(&b[18], 48); }, {DB_ERR_MAX_KEYS},
       "maximum items 48"},
      {"half page", [](Bytes& b) { StoreLE16(&b[20], 20); }, {DB_ERR_MIN_KEYS}, "half page 20"},
      {"root 0", [](Bytes& b) { StoreLE32(&b[4], 0); }, {DB_ERR_ROOT_PAGE}, "root offset 0"},
      {"root at the end", [](Bytes& b) { StoreLE32(&b[4], static_cast<uint32_t>(b.size())); },
       {DB_ERR_ROOT_PAGE}, "root offset"},
      {"expression not terminated", [](Bytes& b) { std::memset(&b[22], 'A', 256); },
       {DB_ERR_BAD_EXPRESSION}, "not terminated"},
      {"shorter than a header", [](Bytes& b) { b.resize(100); }, {DB_ERR_READ},
       "shorter than a header"},
      {"child outside the file",
       [&](Bytes& b) { StoreLE32(&b[ItemOffset(b, root_, 1)], 0x7FFFFC00u); },
       {DB_ERR_SEEK},
       "outside the file"},
      {"child off a page boundary",
       [&](Bytes& b) { StoreLE32(&b[ItemOffset(b, root_, 0)], root_ + 17); },
       {DB_ERR_SEEK},
       "not on a page boundary"},
      {"count above the capacity", [&](Bytes& b) { StoreLE16(&b[leaf], 60); },
       {DB_ERR_CORRUPTED}, "exceeds the page capacity"},
      {"offset table outside the page", [&](Bytes& b) { StoreLE16(&b[Entry(leaf, 3)], 1020); },
       {DB_ERR_CORRUPTED}, "points outside"},
      {"two entries naming one item",
       [&](Bytes& b) { StoreLE16(&b[Entry(leaf, 1)], LoadLE16(&b[Entry(leaf, 0)])); },
       {}, "not a permutation"},
      {"a child pointing at its parent: a loop downwards",
       [&](Bytes& b) { StoreLE32(&b[ItemOffset(b, root_, 0)], root_); },
       {DB_ERR_CORRUPTED}, "reached twice"},
      // Two keys of one leaf swapped: out of order, and not mistaken for a
      // national collation (digits are in code order in every collation).
      {"keys swapped",
       [&](Bytes& b) {
         uint8_t* a = &b[ItemOffset(b, leaf, 2) + ntx::kItemKey];
         uint8_t* c = &b[ItemOffset(b, leaf, 7) + ntx::kItemKey];
         for (int i = 0; i < 10; ++i) std::swap(a[i], c[i]);
       },
       {}, "is out of order"},
      {"file cut short", [&](Bytes& b) { b.resize(b.size() - 1024 - 512); },
       {DB_ERR_SEEK, DB_ERR_READ, DB_ERR_ROOT_PAGE}, "not a multiple of 1024"},
  };
  for (const Damage& d : cases) {
    Bytes bad = good_;
    d.apply(bad);
    WriteFileBytes(path_, bad);
    EXPECT_NE(FileFindings(path_).find(d.finding), std::string::npos)
        << d.name << ":\n" << FileFindings(path_);
    if (!d.engine.empty()) {
      int32_t rc = Exercise(bad);
      EXPECT_NE(std::find(d.engine.begin(), d.engine.end(), rc), d.engine.end())
          << d.name << ": " << rc;
    }
  }
}

TEST_F(NtxCheckTest, PageThatLostItsCount) {
  // Each reader must call these files corrupt, not empty or shorter.
  auto zero_root = good_;
  StoreLE16(&zero_root[root_], 0);  // the root still names its first child
  auto cut_root = good_;
  int n = LoadLE16(&good_[root_]);
  StoreLE16(&cut_root[root_], static_cast<uint16_t>(n + 1));  // the item after the last child
  auto cut_leaf = good_;
  StoreLE32(&cut_leaf[ItemOffset(cut_leaf, root_, n)], 0);  // the last child link lost
  struct Case {
    const char* what;
    const std::vector<uint8_t>& bytes;
    const char* finding;
  } cases[] = {
      {"root count 0", zero_root, "empty root page with a child"},
      {"root count past its children", cut_root, "unlike item 0"},
      {"root's last child lost", cut_leaf, "unlike item 0"},
  };
  for (const Case& c : cases) {
    WriteFileBytes(path_, c.bytes);
    EXPECT_NE(FileFindings(path_).find(c.finding), std::string::npos) << c.what;
    int32_t h = -1;
    ASSERT_EQ(DBclOpenIndex(&h, path_.c_str(), 0), 0) << c.what;
    char key[11] = "K0300";
    int32_t rec = 0, percent = 0;
    EXPECT_EQ(DBclGoFirstKey(h, key, &rec), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclGoLastKey(h, key, &rec), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclGoNextKey(h, key, &rec), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclGoPreviousKey(h, key, &rec), DB_ERR_CORRUPTED) << c.what;
    for (int mode : {1, 2, 11, 12, 13, 14, 15}) {
      std::strcpy(key, "K0300");
      EXPECT_EQ(DBclKeySearch(h, key, &rec, mode), DB_ERR_CORRUPTED) << c.what << mode;
    }
    EXPECT_EQ(DBclGetKeyPercent(h, &percent, "K0300", 0), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclGetKeyAtPercent(h, 50, key, &rec), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclAddKey(h, "NEW", 1000), DB_ERR_CORRUPTED) << c.what;
    EXPECT_EQ(DBclDeleteKey(h, "K0300", 1), DB_ERR_CORRUPTED) << c.what;
    DBclCloseIndex(h);
  }
}

TEST_F(NtxCheckTest, FreeListLoops) {
  // Free pages come from deleting most keys (merges release pages).
  int32_t h = -1;
  ASSERT_EQ(DBclOpenIndex(&h, path_.c_str(), 0), 0);
  for (int i = 0; i < 500; ++i) ASSERT_EQ(DBclDeleteKey(h, Key(i).c_str(), i + 1), 0);
  ASSERT_EQ(DBclCloseIndex(h), 0);
  auto freed = ReadFileBytes(path_);
  ntx::CheckSummary s{};
  ASSERT_EQ(FileFindings(path_, &s), "");
  ASSERT_GE(s.free_pages, 2u);
  uint32_t head = LoadLE32(&freed[ntx::kHdrFreeList]);
  uint32_t next = Child(freed, head, 0);
  ASSERT_NE(next, 0u);
  // A loop of two pages: the checker reports it.
  auto bad = freed;
  StoreLE32(&bad[ItemOffset(bad, next, 0)], head);
  WriteFileBytes(path_, bad);
  EXPECT_NE(FileFindings(path_).find("free list loops"), std::string::npos);
  // A page that links to itself: taking it gives an error, not a loop.
  bad = freed;
  StoreLE32(&bad[ItemOffset(bad, head, 0)], head);
  EXPECT_EQ(Exercise(bad), DB_ERR_CORRUPTED);
}

struct Checked {
  int32_t rc = 0;
  DBCHECKSUMMARY summary{};
  std::string text;  // every finding, one per line
};

Checked CheckThroughTheInterface(const std::string& path) {
  Checked c;
  c.rc = DBCheckIndex(
      path.c_str(),
      [](void* context, const DBCHECKFINDING* f) {
        *static_cast<std::string*>(context) += std::to_string(f->severity) + " " + f->text + "\n";
      },
      &c.text, &c.summary);
  return c;
}

// Files other programs wrote: sound NTX, CDX and NDX files with what those
// programs add, and index files of other formats, which are named and not
// checked yet.
TEST_F(NtxCheckTest, RealFilesGetTheRightVerdict) {
  struct Case {
    const char* file;
    int32_t rc;
    int32_t format;
    uint32_t warnings;
    const char* text;
  } cases[] = {
      {"CUSTNAME.NTX", 0, DB_INDEX_NTX, 0, "0 FOR condition: !Deleted()"},
      {"CUSTNAME.NTX", 0, DB_INDEX_NTX, 0, "0 tag name: CUSTNAME"},
      {"TEST1ANSI1.NTX", 0, DB_INDEX_NTX, 1, "1 94 key(s) out of byte order"},
      {"employees.CDX", 0, DB_INDEX_CDX, 0, "0 tag LASTNAME: 3 keys"},
      {"dBEST.MDX", DB_WARN_NOT_SUPPORTED, DB_INDEX_MDX, 0, ""},
      {"test_ix.NDX", 0, DB_INDEX_NDX, 0, ""},
  };
  for (const Case& c : cases) {
    Checked got = CheckThroughTheInterface(CopyFixture(std::string("index/") + c.file, dir_));
    EXPECT_EQ(got.rc, c.rc) << c.file;
    EXPECT_EQ(got.summary.format, c.format) << c.file;
    EXPECT_EQ(got.summary.faults, 0u) << c.file << ":\n" << got.text;
    EXPECT_EQ(got.summary.warnings, c.warnings) << c.file << ":\n" << got.text;
    EXPECT_NE(got.text.find(c.text), std::string::npos) << c.file << ":\n" << got.text;
  }
  // Formats without a file here: headers made from their layouts.
  Bytes nsx(1024, 0);
  nsx[0] = 0x69;
  Bytes idx(1024, 0);
  StoreLE32(&idx[0], 512);
  StoreLE32(&idx[4], 0xFFFFFFFFu);
  StoreLE32(&idx[8], 1024);
  StoreLE16(&idx[12], 10);
  std::memcpy(&idx[16], "NAME", 4);
  idx[512] = 3;  // an empty root leaf without siblings
  StoreLE32(&idx[516], 0xFFFFFFFFu);
  StoreLE32(&idx[520], 0xFFFFFFFFu);
  for (auto [bytes, format, rc] : {std::tuple{nsx, DB_INDEX_NSX, DB_WARN_NOT_SUPPORTED},
                                   std::tuple{idx, DB_INDEX_IDX, 0}}) {
    WriteFileBytes(dir_.File("other.idx"), bytes);
    Checked got = CheckThroughTheInterface(dir_.File("other.idx"));
    EXPECT_EQ(got.rc, rc);
    EXPECT_EQ(got.summary.format, format);
    EXPECT_EQ(got.summary.faults, 0u) << got.text;
  }
  // A damaged NTX header fits no format: checked as NTX, with its faults.
  Bytes bad = good_;
  StoreLE16(&bad[0], 9);
  WriteFileBytes(path_, bad);
  Checked got = CheckThroughTheInterface(path_);
  EXPECT_EQ(got.rc, 0);
  EXPECT_EQ(got.summary.format, DB_INDEX_UNKNOWN);
  EXPECT_EQ(got.summary.faults, 1u) << got.text;
  EXPECT_EQ(got.summary.keys, 600u);
  EXPECT_EQ(DBCheckIndex(path_.c_str(), nullptr, nullptr, nullptr), DB_ERR_NULL);
  EXPECT_EQ(DBCheckIndex(dir_.File("missing.ntx").c_str(), nullptr, nullptr, &got.summary),
            DB_ERR_OPEN);
}

// Inputs kept from fuzzing the page reader: whatever the file holds, the
// checker and every call return (statuses, no crash, no hang).
TEST_F(NtxCheckTest, FuzzFoundInputsGiveStatuses) {
  std::filesystem::path dir = std::filesystem::path(KESTREL_TEST_FIXTURES) / "ntx" / "fuzz";
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    Bytes bytes = ReadFileBytes(entry.path().string());
    WriteFileBytes(path_, bytes);
    FileFindings(path_);
    Exercise(bytes);
    ++files;
  }
  EXPECT_GE(files, 20);
}

}  // namespace
}  // namespace kestrel::test
