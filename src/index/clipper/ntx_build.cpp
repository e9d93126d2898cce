// The index build (see ntx_build.h).
//
// Keys are gathered as entries of key length + 4 bytes (the key, then the
// record number big-endian) in runs that fit the sort budget.  A single run is
// sorted in memory; several runs are sorted one by one into temporary files
// named "<directory of the index>STKS<n>.TMP" and merged.  The sorted stream
// is laid out level by level: a level of n items becomes p pages holding up
// to the maximum each, with one item between neighbouring pages going up to
// the next level as a real key; the last page of a level, when it would fall
// below half a page, shares its keys with its left neighbour.
#include "index/clipper/ntx_build.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "expr/evaluate.h"
#include "expr/parse_entries.h"
#include "index/clipper/ntx_index.h"
#include "kestrel/kestrel_table.h"
#include "runtime/file_services.h"
#include "runtime/memory.h"

namespace kestrel::ntx {
namespace {

constexpr ModulePath kBuild = KS_ENGINE_MODULE("CBUILD");
constexpr uint64_t kDefaultSortBudget = 128ull << 20;
constexpr size_t kRunReadChunk = 64 * 1024;
constexpr int kWriteBatchPages = 128;
constexpr uint64_t kProgressStep = 1 << 16;
constexpr size_t kPrefetchAhead = 16;

struct Layout {
  int key_length;
  int entry_size;  // key + record number
  int item_size;
  int max_items;
  int half_page;
  bool descending;
  bool unique;
};

int CompareEntries(const Layout& l, const uint8_t* a, const uint8_t* b) {
  int c = std::memcmp(a, b, l.key_length);
  if (c != 0) return l.descending ? -c : c;
  uint32_t ra = LoadBE32(a + l.key_length);
  uint32_t rb = LoadBE32(b + l.key_length);
  return ra < rb ? -1 : ra > rb ? 1 : 0;
}

bool SameKey(const Layout& l, const uint8_t* a, const uint8_t* b) {
  return std::memcmp(a, b, l.key_length) == 0;
}

struct SortKey {
  uint64_t high;   // key bytes 0..7 as a number (inverted when descending)
  uint64_t low;    // key bytes 8..15 likewise
  uint32_t index;  // entry within the run
};

uint64_t PrefixWord(const uint8_t* key, int from, int length) {
  uint64_t p = 0;
  for (int b = from; b < from + 8; ++b) p = (p << 8) | (b < length ? key[b] : 0);
  return p;
}

inline unsigned DigitOf(const SortKey& k, int d) {
  return d < 8 ? static_cast<unsigned>(k.high >> (56 - 8 * d)) & 0xFF
               : static_cast<unsigned>(k.low >> (56 - 8 * (d - 8))) & 0xFF;
}

// Sorts n keys: distributes them by prefix byte d (skipping bytes they all
// share) and sorts each bucket the same way by the next byte, small buckets
// with the comparison.  The comparison orders keys with equal prefixes, so
// the result is the one a comparison sort gives.  Distributing keeps the
// order of keys within a bucket, which is entry order: a bucket whose keys
// lie wholly in the prefix (bytes up to limit) and agree on all of them is
// already in key-then-record order.
template <class Before>
void BucketSort(SortKey* keys, SortKey* spare, size_t n, int d, int limit, bool covered,
                const Before& before) {
  constexpr size_t kSmall = 64;
  for (; d < limit && n > kSmall; ++d) {
    size_t start[257] = {};
    for (size_t i = 0; i < n; ++i) ++start[DigitOf(keys[i], d) + 1];
    if (start[DigitOf(keys[0], d) + 1] == n) continue;  // one value at this byte
    for (int b = 0; b < 256; ++b) start[b + 1] += start[b];
    size_t fill[256];
    std::memcpy(fill, start, sizeof fill);
    for (size_t i = 0; i < n; ++i) spare[fill[DigitOf(keys[i], d)]++] = keys[i];
    std::memcpy(keys, spare, n * sizeof(SortKey));
    for (int b = 0; b < 256; ++b) {
      size_t count = start[b + 1] - start[b];
      if (count > 1) {
        BucketSort(keys + start[b], spare + start[b], count, d + 1, limit, covered, before);
      }
    }
    return;
  }
  if (d >= limit && covered) return;
  std::sort(keys, keys + n, before);
}

// Sorts the n entries of a run (in record order) by key, then record.
void SortRun(const Layout& l, const uint8_t* entries, uint32_t n, Vec<SortKey>* order) {
  order->resize(n);
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t* e = entries + static_cast<size_t>(i) * l.entry_size;
    uint64_t high = PrefixWord(e, 0, l.key_length);
    uint64_t low = PrefixWord(e, 8, l.key_length);
    if (l.descending) {
      high = ~high;
      low = ~low;
    }
    (*order)[i] = SortKey{high, low, i};
  }
  const size_t size = l.entry_size;
  // Keys of up to 16 bytes are all in the prefix: equal prefixes are equal
  // keys, and entry order is record order.
  const bool covered = l.key_length <= 16;
  auto before = [&](const SortKey& a, const SortKey& b) {
    if (a.high != b.high) return a.high < b.high;
    if (a.low != b.low) return a.low < b.low;
    if (covered) return a.index < b.index;
    return CompareEntries(l, entries + a.index * size, entries + b.index * size) < 0;
  };
  Vec<SortKey> spare(n);
  int limit = l.key_length < 16 ? l.key_length : 16;
  BucketSort(order->data(), spare.data(), n, 0, limit, covered, before);
}

// Temporary sort files, removed when the build ends however it ends.
class RunFiles {
 public:
  explicit RunFiles(const char* index_name) {
    const char* slash = std::strrchr(index_name, '/');
    size_t n = slash ? static_cast<size_t>(slash - index_name + 1) : 0;
    directory_.assign(index_name, index_name + n);
  }
  ~RunFiles() {
    for (size_t i = 0; i < files_.size(); ++i) {
      if (files_[i] != kNoFile) FileClose(files_[i]);
      FileDelete(Name(i).data());
    }
  }
  Vec<char> Name(size_t i) const {
    char tail[32];
    std::snprintf(tail, sizeof tail, "STKS%zu.TMP", i);
    Vec<char> name(directory_);
    name.insert(name.end(), tail, tail + std::strlen(tail) + 1);
    return name;
  }
  int32_t Write(const uint8_t* bytes, size_t length) {
    size_t i = files_.size();
    files_.push_back(kNoFile);
    counts_.push_back(0);
    int32_t rc = FileCreate(&files_[i], Name(i).data());
    if (rc < 0) {
      files_[i] = kNoFile;
      return KS_PASS(kBuild, rc);
    }
    rc = FileWriteAt(files_[i], 0, bytes, length, 0);
    if (rc < 0) return KS_FAIL(kBuild, rc);
    return 0;
  }
  size_t size() const { return files_.size(); }
  FileHandle file(size_t i) const { return files_[i]; }
  Vec<uint64_t>& counts() { return counts_; }

 private:
  Vec<char> directory_;
  Vec<FileHandle> files_;
  Vec<uint64_t> counts_;
};

// Writes the n entries of a sorted run, in their sorted order, to a new
// temporary sort file.
int32_t SpillRun(const Layout& l, const uint8_t* entries, const Vec<SortKey>& order, uint64_t n,
                 RunFiles* runs) {
  Vec<uint8_t> sorted(n * l.entry_size);
  for (uint64_t i = 0; i < n; ++i) {
    std::memcpy(sorted.data() + i * l.entry_size,
                entries + static_cast<size_t>(order[i].index) * l.entry_size, l.entry_size);
  }
  int32_t rc = runs->Write(sorted.data(), sorted.size());
  runs->counts().back() = n;
  return rc;
}

// The sorted entries, one at a time: from the single in-memory run, or
// merged from the run files.
class SortedStream {
 public:
  SortedStream(const Layout& l, const uint8_t* entries, const Vec<SortKey>* order, RunFiles* runs)
      : l_(l), entries_(entries), order_(order), runs_(runs) {}

  int32_t Start() {
    next_ = 0;
    if (!runs_ || runs_->size() == 0) return 0;
    size_t r = runs_->size();
    readers_.assign(r, Reader{});
    for (size_t i = 0; i < r; ++i) {
      readers_[i].buffer.assign(kRunReadChunk / l_.entry_size * l_.entry_size, 0);
      readers_[i].left = runs_->counts()[i];
      readers_[i].offset = 0;
      readers_[i].have = 0;
      readers_[i].pos = 0;
      int32_t rc = Fill(i);
      if (rc < 0) return rc;
    }
    heap_.clear();
    for (size_t i = 0; i < r; ++i) {
      if (readers_[i].have > 0) heap_.push_back(static_cast<uint32_t>(i));
    }
    std::make_heap(heap_.begin(), heap_.end(), Greater{this});
    return 0;
  }

  // The next entry, or nullptr at the end (*rc < 0 after a read error).
  const uint8_t* Next(int32_t* rc) {
    *rc = 0;
    if (!runs_ || runs_->size() == 0) {
      if (next_ >= order_->size()) return nullptr;
      // The entries are taken in sorted order, all over the run: ask for the
      // ones a little ahead early.
      if (next_ + kPrefetchAhead < order_->size()) {
        __builtin_prefetch(entries_ + static_cast<size_t>((*order_)[next_ + kPrefetchAhead].index) *
                                          l_.entry_size);
      }
      return entries_ + static_cast<size_t>((*order_)[next_++].index) * l_.entry_size;
    }
    if (heap_.empty()) return nullptr;
    std::pop_heap(heap_.begin(), heap_.end(), Greater{this});
    uint32_t i = heap_.back();
    Reader& r = readers_[i];
    std::memcpy(current_, r.buffer.data() + r.pos * l_.entry_size, l_.entry_size);
    if (++r.pos == r.have) {
      *rc = Fill(i);
      if (*rc < 0) return nullptr;
    }
    if (r.pos < r.have) {
      std::push_heap(heap_.begin(), heap_.end(), Greater{this});
    } else {
      heap_.pop_back();
    }
    return current_;
  }

 private:
  struct Reader {
    Vec<uint8_t> buffer;
    uint64_t left;    // entries not yet read from the file
    uint64_t offset;  // file offset of the next read
    size_t have;      // entries in the buffer
    size_t pos;       // next entry in the buffer
  };
  // Orders the heap so that the reader with the smallest entry is on top.
  struct Greater {
    const SortedStream* s;
    bool operator()(uint32_t a, uint32_t b) const { return s->Before(b, a); }
  };

  int32_t Fill(size_t i) {
    Reader& r = readers_[i];
    size_t capacity = r.buffer.size() / l_.entry_size;
    size_t n = r.left < capacity ? static_cast<size_t>(r.left) : capacity;
    r.have = n;
    r.pos = 0;
    if (n == 0) return 0;
    int32_t rc = FileReadAt(runs_->file(i), r.offset, r.buffer.data(), n * l_.entry_size);
    if (rc < 0) return KS_FAIL(kBuild, DB_ERR_READ);
    r.offset += n * l_.entry_size;
    r.left -= n;
    return 0;
  }

  const Layout& l_;
  const uint8_t* entries_;
  const Vec<SortKey>* order_;
  RunFiles* runs_;
  size_t next_ = 0;
  Vec<Reader> readers_;
  Vec<uint32_t> heap_;
  uint8_t current_[kMaxKeyLength + 4] = {};

 public:
  // The heap orders readers by their current entry, smallest on top.
  bool Before(uint32_t a, uint32_t b) const {
    const Reader& ra = readers_[a];
    const Reader& rb = readers_[b];
    return CompareEntries(l_, ra.buffer.data() + ra.pos * l_.entry_size,
                          rb.buffer.data() + rb.pos * l_.entry_size) < 0;
  }
};

// Pages go to the file in order from offset 1024, a batch at a time.
class PageWriter {
 public:
  PageWriter(FileHandle file, const Layout& l) : file_(file), l_(l) {}
  int32_t Start() {
    if (!batch_.Allocate(static_cast<size_t>(kWriteBatchPages) * kPageSize)) {
      return KS_FAIL(kBuild, DB_ERR_MEMORY);
    }
    return 0;
  }
  int32_t NewPage(uint8_t** page, uint32_t* offset) {
    if (used_ == kWriteBatchPages) {
      int32_t rc = Flush();
      if (rc < 0) return rc;
    }
    if (next_offset_ > 0xFFFFFFFFull - kPageSize) return KS_FAIL(kBuild, DB_ERR_WRITE);
    *page = batch_.data() + static_cast<size_t>(used_) * kPageSize;
    InitPage(*page, l_.max_items, l_.item_size);
    *offset = static_cast<uint32_t>(next_offset_);
    next_offset_ += kPageSize;
    ++used_;
    return 0;
  }
  int32_t Flush() {
    if (used_ == 0) return 0;
    int32_t rc =
        FileWriteAt(file_, batch_start_, batch_.data(), static_cast<size_t>(used_) * kPageSize, 0);
    if (rc < 0) return KS_FAIL(kBuild, rc);
    batch_start_ += static_cast<uint64_t>(used_) * kPageSize;
    used_ = 0;
    return 0;
  }
  uint64_t end() const { return next_offset_; }

 private:
  FileHandle file_;
  const Layout& l_;
  Buffer batch_;
  int used_ = 0;
  uint64_t batch_start_ = kPageSize;
  uint64_t next_offset_ = kPageSize;
};

// Keys per page for page j of p at a level of n items: full pages, the last
// two sharing their keys when the last would fall below half a page.
struct LevelPlan {
  uint64_t pages;
  uint32_t before_last;
  uint32_t last;
  LevelPlan(uint64_t n, int max, int half) {
    pages = (n + 1 + max) / (max + 1);
    if (pages == 0) pages = 1;
    uint64_t keys = n - (pages - 1);
    last = static_cast<uint32_t>(keys - (pages - 1) * max);
    before_last = static_cast<uint32_t>(max);
    if (pages >= 2 && last < static_cast<uint32_t>(half)) {
      uint32_t both = max + last;
      before_last = (both + 1) / 2;
      last = both - before_last;
    }
  }
  uint32_t Size(uint64_t j, int max) const {
    if (j + 1 == pages) return last;
    if (j + 2 == pages) return before_last;
    return static_cast<uint32_t>(max);
  }
};

// Writes one level of n items (taken with next(item)) whose last page ends
// with final_child; the items between pages go to ups with their page as
// child.  *last_page receives the level's last page (the root when p is 1).
template <class NextItem>
int32_t WriteLevel(PageWriter& w, const Layout& l, uint64_t n, uint32_t final_child,
                   NextItem&& next, Vec<uint8_t>* ups, uint32_t* last_page,
                   const BuildProgress* progress, uint64_t* written, uint64_t total) {
  LevelPlan plan(n, l.max_items, l.half_page);
  uint8_t separator[kMaxKeyLength + kItemOverhead];
  ups->clear();
  for (uint64_t j = 0; j < plan.pages; ++j) {
    uint8_t* page = nullptr;
    uint32_t offset = 0;
    int32_t rc = w.NewPage(&page, &offset);
    if (rc < 0) return rc;
    uint32_t s = plan.Size(j, l.max_items);
    for (uint32_t i = 0; i < s; ++i) {
      rc = next(Item(page, static_cast<int>(i)));
      if (rc < 0) return rc;
    }
    uint32_t last_child = final_child;
    if (j + 1 < plan.pages) {
      rc = next(separator);
      if (rc < 0) return rc;
      last_child = ItemChild(separator);
      SetItemChild(separator, offset);
      ups->insert(ups->end(), separator, separator + l.item_size);
    }
    SetItemChild(Item(page, static_cast<int>(s)), last_child);
    SetPageCount(page, static_cast<int>(s));
    *last_page = offset;
    *written += s + (j + 1 < plan.pages ? 1 : 0);
    if (progress && progress->report && (j % 256 == 0 || j + 1 == plan.pages)) {
      progress->report(progress->context, kBuildWriting, *written, total);
    }
  }
  return 0;
}

// Writes the tree for n sorted entries; *root receives the root page.
int32_t WriteTree(FileHandle file, const Layout& l, SortedStream& stream, uint64_t n,
                  uint32_t* root, uint64_t* end, const BuildProgress* progress) {
  PageWriter w(file, l);
  int32_t rc = w.Start();
  if (rc < 0) return rc;
  Vec<uint8_t> ups;
  Vec<uint8_t> level;
  uint64_t written = 0;
  const uint8_t* previous = nullptr;
  uint8_t previous_copy[kMaxKeyLength + 4];
  auto from_stream = [&](uint8_t* item) -> int32_t {
    int32_t status = 0;
    const uint8_t* e = stream.Next(&status);
    while (e && l.unique && previous && SameKey(l, e, previous)) e = stream.Next(&status);
    if (status < 0) return status;
    if (!e) return KS_FAIL(kBuild, DB_ERR_CORRUPTED);
    std::memcpy(previous_copy, e, l.entry_size);
    previous = previous_copy;
    SetItemChild(item, 0);
    SetItemRecord(item, LoadBE32(e + l.key_length));
    std::memcpy(ItemKey(item), e, l.key_length);
    return 0;
  };
  uint32_t last_page = 0;
  rc = WriteLevel(w, l, n, 0, from_stream, &ups, &last_page, progress, &written, n);
  while (rc >= 0 && !ups.empty()) {
    level.swap(ups);
    size_t count = level.size() / l.item_size;
    size_t at = 0;
    auto from_level = [&](uint8_t* item) -> int32_t {
      std::memcpy(item, level.data() + at * l.item_size, l.item_size);
      ++at;
      return 0;
    };
    rc = WriteLevel(w, l, count, last_page, from_level, &ups, &last_page, nullptr, &written, n);
  }
  if (rc >= 0) rc = w.Flush();
  if (rc < 0) return rc;
  *root = last_page;
  *end = w.end();
  return 0;
}

}  // namespace

int32_t BuildIndex(int32_t table, const char* file_name, int32_t key_type, char* expression,
                   int32_t key_length, int32_t decimals, const BuildProgress* progress) {
  if (!file_name || !expression) return KS_FAIL(kBuild, DB_ERR_NULL);
  bool with_decimals = (key_type & 0x10000) != 0;
  key_type &= ~0x10000;
  int32_t records = 0;
  int32_t rc = DBGetRecordCount(table, &records);
  if (rc < 0) return KS_PASS(kBuild, rc);
  rc = CreateIndex(file_name, key_type, expression, key_length, decimals);
  if (rc < 0) return KS_PASS(kBuild, rc);
  int32_t handle = -1;
  rc = OpenIndex(&handle, file_name, 0);
  if (rc < 0) return KS_PASS(kBuild, rc);
  NtxIndex* ix = nullptr;
  SelectIndex(handle, &ix, kBuild);
  if (with_decimals) ix->numeric_form = kNumericWithDecimals;
  const KeyDescriptor& k = *ix->key;
  Layout l{k.key_length, k.key_length + 4, k.item_size, k.max_items,
           k.half_page,  IsDescending(ix), IsUnique(ix)};

  uint64_t budget = State().ntx_sort_budget ? State().ntx_sort_budget : kDefaultSortBudget;
  uint64_t run_capacity = budget / l.entry_size;
  if (run_capacity < 2) run_capacity = 2;
  if (run_capacity > static_cast<uint64_t>(records)) run_capacity = records > 0 ? records : 1;
  Buffer run;
  if (!run.Allocate(run_capacity * l.entry_size)) {
    CloseIndex(handle);
    return KS_FAIL(kBuild, DB_ERR_MEMORY);
  }
  RunFiles runs(file_name);
  Vec<SortKey> order;
  uint64_t in_run = 0;
  int32_t status = 0;
  char key[kMaxKeyLength + 1];
  // A key that is one character or numeric field on its own (no user
  // keywords that could claim the name) is read straight from the record
  // into a buffer kept for the whole build: the same key the evaluator's
  // value would give, without parsing the expression and allocating a value
  // for every record.  Numbers are keyed from their stored digits where that
  // is exact; other texts take the evaluator's way.
  int32_t direct_field = -1;
  int direct_type = 0;
  Buffer field_text;
  if (expr::KeywordCount() == 0 && std::strpbrk(k.expression, "+-(),") == nullptr) {
    DBFIELD d{};
    int32_t f = -1;
    if (DBGetFieldNumber(table, &f, k.expression) >= 0 &&
        DBGetFieldDescription(table, f, &d) >= 0 && d.length > 0) {
      int type = d.type & 0xFF;
      bool usable = type == 'C' || ((type == 'N' || type == 'F') && k.binary_type == 0);
      if (usable && field_text.Allocate(d.length + 1u)) {
        direct_field = f;
        direct_type = type;
      }
    }
  }
  char* text = reinterpret_cast<char*>(field_text.data());
  int text_length = static_cast<int>(field_text.size()) - 1;
  // The current record's key into key: 0, a warning (> 0) or an error.
  auto record_key = [&]() -> int32_t {
    if (direct_type == 'N' || direct_type == 'F') {
      int32_t made = 0;
      int32_t got = DBGetFieldBinary(table, direct_field, text);
      if (got < 0) return KS_PASS(kBuild, got);
      if (NumericTextToKey(text, text_length, l.key_length, k.decimals, ix->numeric_form, key,
                           &made)) {
        return made;
      }
    }
    DBEXPRVALUE v{};
    int32_t got = 0;
    if (direct_type == 'C') {
      got = DBGetFieldData(table, direct_field, text);
      text[text_length] = '\0';
      v.value = text;
      v.type = 'C';
      v.length = static_cast<int16_t>(strnlen(text, text_length));
    } else {
      got = EvaluateKeyExpression(table, k.expression, &v);
    }
    if (got < 0) return KS_PASS(kBuild, got);
    got = ValueToKey(ix, v, key, kBuild);
    if (direct_type != 'C') MemFree(v.value);
    return got;
  };
  for (int32_t recno = 1; recno <= records && rc >= 0; ++recno) {
    SetErrorCode(0);
    rc = DBGetRecord(table, recno);
    if (rc < 0) {
      rc = KS_PASS(kBuild, rc);
      break;
    }
    rc = record_key();
    if (rc < 0) break;
    if (rc > 0) status = rc;
    uint8_t* e = run.data() + in_run * l.entry_size;
    std::memcpy(e, key, l.key_length);
    StoreBE32(e + l.key_length, static_cast<uint32_t>(recno));
    if (++in_run == run_capacity && recno < records) {
      SortRun(l, run.data(), static_cast<uint32_t>(in_run), &order);
      rc = SpillRun(l, run.data(), order, in_run, &runs);
      in_run = 0;
    }
    if (progress && progress->report && (recno % kProgressStep == 0 || recno == records)) {
      progress->report(progress->context, kBuildReading, recno, records);
    }
  }
  if (rc >= 0 && in_run > 0) {
    SortRun(l, run.data(), static_cast<uint32_t>(in_run), &order);
    if (runs.size() > 0) rc = SpillRun(l, run.data(), order, in_run, &runs);
  }
  uint64_t keys = static_cast<uint64_t>(records);
  SortedStream stream(l, run.data(), &order, &runs);
  if (rc >= 0 && l.unique && keys > 0) {
    // Only the first record of each key is indexed: count what remains.
    rc = stream.Start();
    uint64_t distinct = 0;
    uint8_t last[kMaxKeyLength + 4];
    bool have = false;
    for (const uint8_t* e = stream.Next(&rc); e && rc >= 0; e = stream.Next(&rc)) {
      if (!have || !SameKey(l, e, last)) ++distinct;
      std::memcpy(last, e, l.entry_size);
      have = true;
    }
    keys = distinct;
  }
  if (rc >= 0 && keys > 0) {
    if (progress && progress->report && runs.size() > 0) {
      progress->report(progress->context, kBuildSorting, keys, keys);
    }
    rc = stream.Start();
    uint32_t root = 0;
    uint64_t end = 0;
    if (rc >= 0) rc = WriteTree(ix->file, l, stream, keys, &root, &end, progress);
    if (rc >= 0) {
      ix->key->root = root;
      ix->pages.SetFileLength(end);
      ix->free_head = 0;
      rc = WriteHeaderFields(ix, 1);
    }
    if (rc >= 0) {
      rc = FileTruncate(ix->file, end);
      if (rc < 0) rc = KS_PASS(kBuild, rc);
    }
  }
  int32_t closed = CloseIndex(handle);
  if (rc >= 0 && closed < 0) rc = closed;
  if (rc < 0) return SetErrorCode(rc);
  return SetErrorCode(status);
}

}  // namespace kestrel::ntx
