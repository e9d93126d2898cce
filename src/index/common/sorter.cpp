// The bulk-build sorter (see sorter.h).
#include "index/common/sorter.h"

#include <algorithm>
#include <cstring>

#include "runtime/file_services.h"
#include "runtime/library_state.h"
#include "util/coding.h"

namespace kestrel::index {
namespace {

constexpr uint64_t kDefaultSortBudget = 128ull << 20;
constexpr size_t kRunReadChunk = 64 * 1024;
constexpr uint64_t kProgressStep = 1 << 16;
constexpr size_t kPrefetchAhead = 16;
constexpr char kSortFilePrefix[] = "STKS";
constexpr char kSortFileSuffix[] = ".TMP";

uint64_t g_sort_budget = 0;

void ResetSortBudget() { g_sort_budget = 0; }

uint64_t PrefixWord(const uint8_t* key, int from, int length) {
  uint64_t p = 0;
  for (int b = from; b < from + 8; ++b) p = (p << 8) | (b < length ? key[b] : 0);
  return p;
}

template <class Key>
inline unsigned DigitOf(const Key& k, int d) {
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
template <class Key, class Before>
void BucketSort(Key* keys, Key* spare, size_t n, int d, int limit, bool covered,
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
    std::memcpy(keys, spare, n * sizeof(Key));
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

}  // namespace

int32_t ReportProgress(const BuildProgress* progress, int32_t phase, uint64_t done,
                       uint64_t total) {
  if (!progress || !progress->report) return 0;
  int32_t rc = progress->report(progress->context, phase, done, total);
  return rc < 0 ? rc : 0;
}

// Orders the merge heap so that the reader with the smallest entry is on top.
struct Sorter::HeapGreater {
  const Sorter* s;
  bool operator()(uint32_t a, uint32_t b) const { return s->ReaderBefore(b, a); }
};

uint64_t BuildSortBudget() { return g_sort_budget; }

void SetBuildSortBudget(uint64_t bytes) {
  OnTerminate(&ResetSortBudget);
  g_sort_budget = bytes;
}

Sorter::Sorter(const SortOrder& order, const char* near_file, uint64_t budget, ModulePath module)
    : order_(order), entry_size_(order.key_length + 4), budget_(budget), module_(module) {
  const char* slash = near_file ? std::strrchr(near_file, '/') : nullptr;
  if (slash) folder_.assign(near_file, slash + 1);
}

Sorter::~Sorter() {
  // Removing the sort files must not replace the build's own status.
  int32_t code = ErrorCode();
  for (size_t i = 0; i < files_.size(); ++i) {
    if (files_[i] != kNoFile) FileClose(files_[i]);
    FileDelete(names_[i].data());
  }
  Record(code);
}

size_t Sorter::spilled_runs() const { return files_.size(); }

uint32_t Sorter::RecordOf(const uint8_t* entry) const {
  return LoadBE32(entry + order_.key_length);
}

int Sorter::Compare(const uint8_t* a, const uint8_t* b) const {
  int c = std::memcmp(a, b, order_.key_length);
  if (c != 0) return order_.descending ? -c : c;
  uint32_t ra = LoadBE32(a + order_.key_length);
  uint32_t rb = LoadBE32(b + order_.key_length);
  return ra < rb ? -1 : ra > rb ? 1 : 0;
}

// Sorts the n entries of the run in run_ (in record order) by key, then
// record, into sorted_.
void Sorter::SortRun(uint32_t n) {
  const uint8_t* entries = run_.data();
  const int length = order_.key_length;
  const size_t size = entry_size_;
  sorted_.resize(n);
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t* e = entries + static_cast<size_t>(i) * size;
    uint64_t high = PrefixWord(e, 0, length);
    uint64_t low = PrefixWord(e, 8, length);
    if (order_.descending) {
      high = ~high;
      low = ~low;
    }
    sorted_[i] = SortKey{high, low, i};
  }
  // Keys of up to 16 bytes are all in the prefix: equal prefixes are equal
  // keys, and entry order is record order.
  const bool covered = length <= 16;
  auto before = [&](const SortKey& a, const SortKey& b) {
    if (a.high != b.high) return a.high < b.high;
    if (a.low != b.low) return a.low < b.low;
    if (covered) return a.index < b.index;
    return Compare(entries + a.index * size, entries + b.index * size) < 0;
  };
  Vec<SortKey> spare(n);
  int limit = length < 16 ? length : 16;
  BucketSort(sorted_.data(), spare.data(), n, 0, limit, covered, before);
}

// Writes the n entries of the sorted run, in their sorted order, to a new
// sort file.
int32_t Sorter::Spill(uint64_t n) {
  Vec<uint8_t> bytes(n * entry_size_);
  for (uint64_t i = 0; i < n; ++i) {
    std::memcpy(bytes.data() + i * entry_size_,
                run_.data() + static_cast<size_t>(sorted_[i].index) * entry_size_, entry_size_);
  }
  Vec<char> prefix(folder_);
  prefix.insert(prefix.end(), kSortFilePrefix, kSortFilePrefix + sizeof kSortFilePrefix);
  Vec<char> name(prefix.size() + sizeof kSortFileSuffix + 32, '\0');
  FileHandle file = kNoFile;
  Succeed();
  int32_t rc =
      FileCreateUnique(&file, prefix.data(), kSortFileSuffix, &sequence_, name.data(), name.size());
  if (rc < 0) return KS_PASS(module_, rc);
  files_.push_back(file);
  names_.push_back(std::move(name));
  counts_.push_back(n);
  rc = FileWriteAt(file, 0, bytes.data(), bytes.size(), 0);
  if (rc < 0) return KS_FAIL(module_, rc);
  return 0;
}

int32_t Sorter::Sort(KeySource& source, const BuildProgress* progress) {
  const uint32_t records = source.count();
  const int length = order_.key_length;
  if (length < 1 || length > kMaxBuildKeyLength) return KS_FAIL(module_, DB_ERR_KEY_LENGTH);
  uint64_t budget = budget_ ? budget_ : kDefaultSortBudget;
  uint64_t run_capacity = budget / entry_size_;
  if (run_capacity < 2) run_capacity = 2;
  if (run_capacity > records) run_capacity = records > 0 ? records : 1;
  if (!run_.Allocate(run_capacity * entry_size_)) return KS_FAIL(module_, DB_ERR_MEMORY);
  uint64_t in_run = 0;
  int32_t status = 0;
  int32_t rc = 0;
  uint8_t key[kMaxBuildKeyLength + 1];
  for (uint32_t recno = 1; recno <= records && rc >= 0; ++recno) {
    rc = source.KeyOf(recno, key);
    if (rc < 0) break;
    if (rc > 0) status = rc;
    uint8_t* e = run_.data() + in_run * entry_size_;
    std::memcpy(e, key, length);
    StoreBE32(e + length, recno);
    if (++in_run == run_capacity && recno < records) {
      SortRun(static_cast<uint32_t>(in_run));
      rc = Spill(in_run);
      in_run = 0;
    }
    if (rc >= 0 && (recno % kProgressStep == 0 || recno == records)) {
      int32_t stop = ReportProgress(progress, kPhaseReading, recno, records);
      if (stop < 0) rc = stop;
    }
  }
  if (rc >= 0 && in_run > 0) {
    SortRun(static_cast<uint32_t>(in_run));
    if (!files_.empty()) rc = Spill(in_run);
  }
  if (rc < 0) return rc;
  count_ = records;
  if (order_.unique && count_ > 0) {
    // Only the first record of each key is given: count what remains.
    rc = Rewind();
    uint64_t distinct = 0;
    for (const uint8_t* e = Next(&rc); e && rc >= 0; e = Next(&rc)) {
      if (++distinct % kProgressStep == 0 && !files_.empty()) {
        int32_t stop = ReportProgress(progress, kPhaseMerging, distinct, records);
        if (stop < 0) rc = stop;
      }
    }
    if (rc < 0) return rc;
    count_ = distinct;
  }
  if (!files_.empty() && count_ > 0) {
    rc = ReportProgress(progress, kPhaseMerging, count_, count_);
    if (rc < 0) return rc;
  }
  return status;
}

int32_t Sorter::Fill(size_t i) {
  Reader& r = readers_[i];
  size_t capacity = r.buffer.size() / entry_size_;
  size_t n = r.left < capacity ? static_cast<size_t>(r.left) : capacity;
  r.have = n;
  r.pos = 0;
  if (n == 0) return 0;
  int32_t rc = FileReadAt(files_[i], r.offset, r.buffer.data(), n * entry_size_);
  if (rc < 0) return KS_FAIL(module_, DB_ERR_READ);
  r.offset += n * entry_size_;
  r.left -= n;
  return 0;
}

bool Sorter::ReaderBefore(uint32_t a, uint32_t b) const {
  const Reader& ra = readers_[a];
  const Reader& rb = readers_[b];
  return Compare(ra.buffer.data() + ra.pos * entry_size_, rb.buffer.data() + rb.pos * entry_size_) <
         0;
}

int32_t Sorter::Rewind() {
  next_ = 0;
  have_last_ = false;
  if (files_.empty()) return 0;
  size_t r = files_.size();
  readers_.assign(r, Reader{});
  for (size_t i = 0; i < r; ++i) {
    readers_[i].buffer.assign(kRunReadChunk / entry_size_ * entry_size_, 0);
    readers_[i].left = counts_[i];
    int32_t rc = Fill(i);
    if (rc < 0) return rc;
  }
  heap_.clear();
  for (size_t i = 0; i < r; ++i) {
    if (readers_[i].have > 0) heap_.push_back(static_cast<uint32_t>(i));
  }
  std::make_heap(heap_.begin(), heap_.end(), HeapGreater{this});
  return 0;
}

const uint8_t* Sorter::NextEntry(int32_t* rc) {
  *rc = 0;
  if (files_.empty()) {
    if (next_ >= sorted_.size()) return nullptr;
    // The entries are taken in sorted order, all over the run: ask for the
    // ones a little ahead early.
    if (next_ + kPrefetchAhead < sorted_.size()) {
      __builtin_prefetch(run_.data() +
                         static_cast<size_t>(sorted_[next_ + kPrefetchAhead].index) * entry_size_);
    }
    return run_.data() + static_cast<size_t>(sorted_[next_++].index) * entry_size_;
  }
  if (heap_.empty()) return nullptr;
  std::pop_heap(heap_.begin(), heap_.end(), HeapGreater{this});
  uint32_t i = heap_.back();
  Reader& r = readers_[i];
  std::memcpy(current_, r.buffer.data() + r.pos * entry_size_, entry_size_);
  if (++r.pos == r.have) {
    *rc = Fill(i);
    if (*rc < 0) return nullptr;
  }
  if (r.pos < r.have) {
    std::push_heap(heap_.begin(), heap_.end(), HeapGreater{this});
  } else {
    heap_.pop_back();
  }
  return current_;
}

const uint8_t* Sorter::Next(int32_t* rc) {
  const uint8_t* e = NextEntry(rc);
  if (!order_.unique) return e;
  while (e && have_last_ && std::memcmp(e, last_, order_.key_length) == 0) e = NextEntry(rc);
  if (e) {
    std::memcpy(last_, e, order_.key_length);
    have_last_ = true;
  }
  return e;
}

}  // namespace kestrel::index
