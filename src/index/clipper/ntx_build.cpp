// The index build (see ntx_build.h).
//
// The shared sorter (index/common/sorter.h) gives every record's key in
// key-then-record order; this file lays the sorted stream out level by
// level: a level of n items becomes p pages holding up to the maximum each,
// with one item between neighbouring pages going up to the next level as a
// real key; the last page of a level, when it would fall below half a page,
// shares its keys with its left neighbour.  The pages go to a work file
// beside the index, which replaces the index only when it is complete.
#include "index/clipper/ntx_build.h"

#include <cstring>

#include "index/clipper/ntx_index.h"
#include "index/common/key_source.h"
#include "index/common/work_file.h"
#include "kestrel/kestrel_table.h"
#include "runtime/file_services.h"
#include "runtime/memory.h"
#include "table/table_control.h"

namespace kestrel::ntx {
namespace {

constexpr ModulePath kBuild = KS_ENGINE_MODULE("CBUILD");
constexpr int kWriteBatchPages = 128;

struct Layout {
  int key_length;
  int item_size;
  int max_items;
  int half_page;
};

// The engine's keys for the shared key source.
class NtxKeyMaker final : public index::KeyMaker {
 public:
  explicit NtxKeyMaker(NtxIndex* ix) : ix_(ix) {}
  int32_t FromValue(const DBEXPRVALUE& value, uint8_t* key) override {
    return ValueToKey(ix_, value, reinterpret_cast<char*>(key), kBuild);
  }
  // Binary keys are made from the field's value, never from its digits.
  bool TakesNumericText() const override { return ix_->key->binary_type == 0; }
  bool FromNumericText(const char* text, int length, uint8_t* key, int32_t* status) override {
    const KeyDescriptor& k = *ix_->key;
    return NumericTextToKey(text, length, k.key_length, k.decimals, ix_->numeric_form,
                            reinterpret_cast<char*>(key), status);
  }

 private:
  NtxIndex* ix_;
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
                   const index::BuildProgress* progress, uint64_t* written, uint64_t total) {
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
    if (progress && (j % 256 == 0 || j + 1 == plan.pages)) {
      rc = index::ReportProgress(progress, index::kPhaseWriting, *written, total);
      if (rc < 0) return rc;
    }
  }
  return 0;
}

// Writes the tree for the n sorted entries; *root receives the root page.
int32_t WriteTree(FileHandle file, const Layout& l, index::Sorter& sorted, uint64_t n,
                  uint32_t* root, uint64_t* end, const index::BuildProgress* progress) {
  PageWriter w(file, l);
  int32_t rc = w.Start();
  if (rc < 0) return rc;
  Vec<uint8_t> ups;
  Vec<uint8_t> level;
  uint64_t written = 0;
  auto from_stream = [&](uint8_t* item) -> int32_t {
    int32_t status = 0;
    const uint8_t* e = sorted.Next(&status);
    if (status < 0) return status;
    if (!e) return KS_FAIL(kBuild, DB_ERR_CORRUPTED);
    SetItemChild(item, 0);
    SetItemRecord(item, sorted.RecordOf(e));
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

// Fills the open, empty index from the table; 0, a warning or an error.
int32_t FillIndex(int32_t table, NtxIndex* ix, const char* file_name,
                  const index::BuildProgress* progress) {
  const KeyDescriptor& k = *ix->key;
  Layout l{k.key_length, k.item_size, k.max_items, k.half_page};
  NtxKeyMaker maker(ix);
  index::TableKeySource source(table, k.expression, maker, kBuild);
  int32_t rc = source.Start();
  if (rc < 0) return rc;
  index::Sorter sorted({k.key_length, IsDescending(ix), IsUnique(ix)}, file_name,
                       index::BuildSortBudget(), kBuild);
  int32_t status = sorted.Sort(source, progress);
  if (status < 0 || sorted.count() == 0) return status;
  rc = sorted.Rewind();
  uint32_t root = 0;
  uint64_t end = 0;
  if (rc >= 0) rc = WriteTree(ix->file, l, sorted, sorted.count(), &root, &end, progress);
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
  return rc < 0 ? rc : status;
}

}  // namespace

int32_t BuildIndex(int32_t table, const char* file_name, int32_t key_type, char* expression,
                   int32_t key_length, int32_t decimals, const index::BuildProgress* progress) {
  if (!file_name || !expression) return KS_FAIL(kBuild, DB_ERR_NULL);
  bool with_decimals = (key_type & 0x10000) != 0;
  key_type &= ~0x10000;
  // An unknown table fails before anything is written.
  if (!table::LookUp(table, kBuild)) return ErrorCode();
  int32_t rc = 0;
  // The new index is written to a work file beside the old one and moved
  // over it only when complete: a build that fails or is stopped leaves the
  // old index as it was.
  index::WorkFile work(kBuild);
  rc = work.Create(file_name);
  if (rc < 0) return rc;
  rc = CreateIndex(work.name(), key_type, expression, key_length, decimals);
  if (rc < 0) return KS_PASS(kBuild, rc);
  int32_t handle = -1;
  rc = OpenIndex(&handle, work.name(), 0);
  if (rc < 0) return KS_PASS(kBuild, rc);
  NtxIndex* ix = nullptr;
  SelectIndex(handle, &ix, kBuild);
  if (with_decimals) ix->numeric_form = kNumericWithDecimals;
  int32_t status = FillIndex(table, ix, file_name, progress);
  int32_t closed = CloseIndex(handle);  // flushes the file to disk
  if (status >= 0 && closed < 0) status = closed;
  if (status < 0) return Record(status);
  rc = work.Replace();
  if (rc < 0) return rc;
  return Record(status);
}

}  // namespace kestrel::ntx
