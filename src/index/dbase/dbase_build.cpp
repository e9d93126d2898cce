// The index build: every record's key (deleted records too) through the
// shared sorter, then the tree written bottom-up.
//
// Layout of a built tree: leaves filled to the maximum keys a page holds, in
// key-then-record order, the last leaf taking the rest; each level above
// holds up to the maximum keys (one more child), key i the greatest key of
// child i, item n only the child of the last subtree; a level whose last page
// would get one child takes one from its left neighbour.  Pages are written
// in that order from page 1 on, so the root is the last page of the file.
//
// The sorter orders bytes; typed keys (numbers and dates) go through it in
// their sortable form and come back before they are written.  The file is
// written beside the index it replaces and moved over it only when complete.
#include <cstring>

#include "index/common/key_source.h"
#include "index/common/sorter.h"
#include "index/common/work_file.h"
#include "index/dbase/dbase_index.h"
#include "runtime/file_services.h"

namespace kestrel::dbase {
namespace {

constexpr ModulePath kBuild = KS_ENGINE_MODULE("MBUILD");
constexpr int kWriteBatchPages = 128;
constexpr int kDateStyleStored = 15;

class DbaseKeyMaker final : public index::KeyMaker {
 public:
  DbaseKeyMaker(DbaseIndex* ix, Tag* t) : ix_(ix), t_(t) {}
  int32_t FromValue(const DBEXPRVALUE& value, uint8_t* key) override {
    uint8_t made[index::kMaxBuildKeyLength + 1];
    int32_t rc = ValueToKey(ix_, t_, value, false, made, kBuild);
    if (rc < 0) return rc;
    ToSortable(t_->order, made, key, t_->layout.key_length);
    return rc;
  }
  bool TakesStoredDate() const override { return true; }
  int32_t FromStoredDate(const char* text, uint8_t* key) override {
    uint8_t made[index::kMaxBuildKeyLength + 1];
    if (t_->order != KeyOrder::kDouble) return KS_FAIL(kBuild, DB_ERR_KEY_TYPE);
    int32_t rc = DateToKey(made, text, kDateStyleStored);
    if (rc < 0) return KS_PASS(kBuild, rc);
    ToSortable(t_->order, made, key, t_->layout.key_length);
    return 0;
  }

 private:
  DbaseIndex* ix_;
  Tag* t_;
};

// Pages go to the file in order, a batch at a time.
class PageWriter {
 public:
  PageWriter(FileHandle file, const PageLayout& l, uint32_t first) : file_(file), l_(l) {
    next_ = first;
    batch_first_ = first;
  }
  int32_t Start() {
    if (!batch_.Allocate(static_cast<size_t>(kWriteBatchPages) * l_.page_size))
      return KS_FAIL(kBuild, DB_ERR_MEMORY);
    return 0;
  }
  int32_t NewPage(uint8_t** page, uint32_t* number) {
    if (used_ == kWriteBatchPages) {
      int32_t rc = Flush();
      if (rc < 0) return rc;
    }
    if (next_ >= (UINT32_MAX >> kBlockShift) - 1) return KS_FAIL(kBuild, DB_ERR_WRITE);
    *page = batch_.data() + static_cast<size_t>(used_) * l_.page_size;
    std::memset(*page, 0, l_.page_size);
    *number = next_;
    next_ += l_.page_size >> kBlockShift;
    ++used_;
    return 0;
  }
  int32_t Flush() {
    if (used_ == 0) return 0;
    int32_t rc = FileWriteAt(file_, PageOffset(batch_first_), batch_.data(),
                             static_cast<size_t>(used_) * l_.page_size, 0);
    if (rc < 0) return KS_FAIL(kBuild, rc);
    batch_first_ = next_;
    used_ = 0;
    return 0;
  }
  uint32_t next() const { return next_; }

 private:
  FileHandle file_;
  const PageLayout& l_;
  Buffer batch_;
  int used_ = 0;
  uint32_t batch_first_;
  uint32_t next_;
};

// Children per page of a level above the leaves: full pages, the last two
// sharing when the last would hold one child.
struct LevelPlan {
  uint64_t pages;
  uint64_t before_last;
  uint64_t last;
  LevelPlan(uint64_t children, uint64_t per_page) {
    pages = (children + per_page - 1) / per_page;
    last = children - (pages - 1) * per_page;
    before_last = per_page;
    if (pages >= 2 && last == 1) {
      before_last = per_page - 1;
      last = 2;
    }
  }
  uint64_t Size(uint64_t j) const {
    return j + 1 == pages ? last : j + 2 == pages ? before_last : 0;
  }
};

// Writes the tree for the n sorted entries; *root receives the root page.
int32_t WriteTree(FileHandle file, Tag* t, index::Sorter& sorted, uint64_t n, uint32_t* root,
                  uint32_t* end) {
  const PageLayout& l = t->layout;
  PageWriter w(file, l, 1);
  int32_t rc = w.Start();
  if (rc < 0) return rc;
  size_t up_size = 4 + l.key_length;  // a page of the level and its greatest key
  Vec<uint8_t> ups;
  Vec<uint8_t> level;
  uint64_t leaves = (n + l.max_keys - 1) / l.max_keys;
  ups.resize(leaves * up_size);
  for (uint64_t j = 0; j < leaves; ++j) {
    uint8_t* page = nullptr;
    uint32_t number = 0;
    rc = w.NewPage(&page, &number);
    if (rc < 0) return rc;
    uint64_t s = j + 1 == leaves ? n - j * l.max_keys : l.max_keys;
    for (uint64_t i = 0; i < s; ++i) {
      int32_t status = 0;
      const uint8_t* e = sorted.Next(&status);
      if (status < 0) return status;
      if (!e) return KS_FAIL(kBuild, DB_ERR_CORRUPTED);
      uint8_t* item = l.Item(page, static_cast<int>(i));
      l.SetRecord(item, sorted.RecordOf(e));
      FromSortable(t->order, e, l.Key(item), l.key_length);
    }
    PageLayout::SetCount(page, static_cast<int>(s));
    uint8_t* up = ups.data() + j * up_size;
    StoreLE32(up, number);
    std::memcpy(up + 4, l.Key(l.Item(page, static_cast<int>(s - 1))), l.key_length);
    *root = number;
  }
  while (ups.size() > up_size) {
    level.swap(ups);
    uint64_t children = level.size() / up_size;
    LevelPlan plan(children, static_cast<uint64_t>(l.max_keys) + 1);
    ups.resize(plan.pages * up_size);
    uint64_t at = 0;
    for (uint64_t j = 0; j < plan.pages; ++j) {
      uint8_t* page = nullptr;
      uint32_t number = 0;
      rc = w.NewPage(&page, &number);
      if (rc < 0) return rc;
      uint64_t k = plan.Size(j);
      if (k == 0) k = static_cast<uint64_t>(l.max_keys) + 1;
      for (uint64_t i = 0; i < k; ++i, ++at) {
        const uint8_t* child = level.data() + at * up_size;
        uint8_t* item = l.Item(page, static_cast<int>(i));
        l.SetChild(item, LoadLE32(child));
        if (i + 1 < k) std::memcpy(l.Key(item), child + 4, l.key_length);
        if (i + 1 == k) {
          uint8_t* up = ups.data() + j * up_size;
          StoreLE32(up, number);
          std::memcpy(up + 4, child + 4, l.key_length);
        }
      }
      PageLayout::SetCount(page, static_cast<int>(k - 1));
      *root = number;
    }
  }
  rc = w.Flush();
  if (rc < 0) return rc;
  *end = w.next();
  return 0;
}

int32_t FillIndex(int32_t table, DbaseIndex* ix, Tag* t, const char* file_name) {
  DbaseKeyMaker maker(ix, t);
  index::TableKeySource source(table, t->expression, maker, kBuild);
  int32_t rc = source.Start();
  if (rc < 0) return rc;
  index::Sorter sorted({t->layout.key_length, IsDescending(t), IsUnique(t)}, file_name,
                       index::BuildSortBudget(), kBuild);
  int32_t status = sorted.Sort(source, nullptr);
  if (status < 0 || sorted.count() == 0) return status;
  rc = sorted.Rewind();
  uint32_t root = 0, end = 0;
  if (rc >= 0) rc = WriteTree(ix->file, t, sorted, sorted.count(), &root, &end);
  if (rc >= 0) {
    t->root = root;
    ix->next_page = end;
    ix->pages.SetFileLength(PageOffset(end));
    rc = WriteHeaderFields(ix);
  }
  if (rc >= 0) {
    rc = FileTruncate(ix->file, PageOffset(end));
    if (rc < 0) rc = KS_PASS(kBuild, rc);
  }
  return rc < 0 ? rc : status;
}

}  // namespace

int32_t BuildNdx(int32_t table, const char* file_name, int32_t key_type, char* expression,
                 int32_t key_length) {
  if (!file_name || !expression) return KS_FAIL(kBuild, DB_ERR_NULL);
  index::WorkFile work(kBuild);
  int32_t rc = work.Create(file_name);
  if (rc < 0) return rc;
  rc = CreateNdx(work.name(), key_type, expression, key_length);
  if (rc < 0) return KS_PASS(kBuild, rc);
  int32_t handle = -1;
  rc = OpenIndex(&handle, work.name(), 0, kKindNdx);
  if (rc < 0) return KS_PASS(kBuild, rc);
  DbaseIndex* ix = nullptr;
  Tag* t = nullptr;
  SelectTag(handle, &ix, &t, kBuild);
  int32_t status = FillIndex(table, ix, t, file_name);
  int32_t closed = CloseIndex(handle);  // flushes the file to disk
  if (status >= 0 && closed < 0) status = closed;
  if (status < 0) return Record(status);
  rc = work.Replace();
  if (rc < 0) return rc;
  return Record(status);
}

}  // namespace kestrel::dbase
