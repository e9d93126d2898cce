// The shared index page cache: lookup, eviction with write-back, the
// read-only view, marks and resizing.
#include "index/common/page_cache.h"

#include <cstring>

#include "runtime/memory.h"

namespace kestrel::index {

namespace {
// Below a few pages a view saves nothing; above, it reaches this far past the
// end of the file so that the pages an update adds are found in it too.
constexpr uint64_t kMinViewPages = 8;
constexpr uint64_t kViewHeadroomPages = 64;
}  // namespace

PageCache::~PageCache() {
  Unmap();
  if (entries_) {
    for (int i = 0; i < buffers_; ++i) MemFree(entries_[i].buffer);
    MemFree(entries_);
  }
}

int32_t PageCache::Open(FileHandle file, uint64_t file_length, uint32_t page_size,
                        uint32_t first_offset, const PageFormat* format, ModulePath module,
                        int32_t write_mode, bool exclusive, int capacity, int wanted, int minimum) {
  file_ = file;
  file_length_ = file_length;
  page_size_ = page_size;
  first_offset_ = first_offset;
  format_ = format;
  module_ = module;
  write_mode_ = write_mode;
  exclusive_ = exclusive;
  entries_ = static_cast<Entry*>(MemAlloc(sizeof(Entry) * capacity));
  if (!entries_) return DB_ERR_MEMORY;
  capacity_ = static_cast<uint16_t>(capacity);
  for (int i = 0; i < wanted; ++i) {
    uint8_t* b = static_cast<uint8_t*>(MemAlloc(page_size_));
    if (!b) break;
    entries_[i].buffer = b;
    ++buffers_;
  }
  if (buffers_ < minimum) return DB_ERR_MEMORY;
  Map();
  return 0;
}

int PageCache::Find(uint32_t offset) const {
  for (int k = 0; k < in_use_; ++k) {
    if (entries_[k].offset == offset) return k;
  }
  return -1;
}

// Moves entry k to the front, shifting the entries before it down.
void PageCache::MoveToFront(int k) {
  if (k == 0) return;
  Entry e = entries_[k];
  std::memmove(entries_ + 1, entries_, sizeof(Entry) * k);
  entries_[0] = e;
}

// Empties entry k, which is in use, and moves it behind the entries in use.
void PageCache::Drop(int k) {
  Entry e = entries_[k];
  e.offset = 0;
  e.state = 0;
  int last = in_use_ - 1;
  std::memmove(entries_ + k, entries_ + k + 1, sizeof(Entry) * (last - k));
  entries_[last] = e;
  --in_use_;
}

int32_t PageCache::Write(const Entry& e) {
  int32_t rc = FileWriteAt(file_, e.offset, e.buffer, page_size_, write_mode_);
  if (rc < 0) return KS_FAIL(module_, rc);
  return 0;
}

void PageCache::Unmap() {
  FileUnmapView(view_, view_size_);
  view_ = nullptr;
  view_size_ = 0;
  view_tried_ = 0;
}

// Maps the file when no other process can change or shorten it.  Only bytes
// below file_length_ (which this process extends itself) are ever read.
void PageCache::Map() {
  Unmap();
  view_tried_ = file_length_;
  if (!exclusive_ || file_length_ < kMinViewPages * page_size_) return;
  uint64_t size = file_length_ + file_length_ / 4 + kViewHeadroomPages * page_size_;
  size = (size + page_size_ - 1) / page_size_ * page_size_;
  FileMapView(file_, size, &view_);
  if (view_) view_size_ = size;
}

// True when the page at offset can be copied from the view, which is mapped
// again when the file has grown past it.
bool PageCache::InView(uint32_t offset) {
  uint64_t end = static_cast<uint64_t>(offset) + page_size_;
  if (end > file_length_) return false;
  if (end > view_size_ && exclusive_ && file_length_ > view_tried_) Map();
  return view_ && end <= view_size_;
}

int32_t PageCache::Load(uint32_t offset, uint8_t** page, PageUse use) {
  if (!ValidOffset(offset)) return KS_FAIL(module_, DB_ERR_SEEK);
  int found = Find(offset);
  if (found >= 0) {
    Entry& e = entries_[found];
    if (use == PageUse::kTree && !(e.state & kValidated)) {
      if (!format_->Valid(e.buffer, PageUse::kTree)) return KS_FAIL(module_, DB_ERR_CORRUPTED);
      e.state |= kValidated;
    }
    MoveToFront(found);
    *page = entries_[0].buffer;
    return 0;
  }
  // Not cached: the next unused buffer, or the least recently used page.
  int slot = in_use_ < buffers_ ? in_use_ : buffers_ - 1;
  Entry& e = entries_[slot];
  bool was_in_use = slot < in_use_;
  if (was_in_use && (e.state & kChanged)) {
    int32_t rc = Write(e);
    if (rc < 0) return rc;
    e.state &= ~kChanged;
  }
  if (use == PageUse::kFresh) {
    format_->LayOutEmpty(e.buffer);
  } else {
    int32_t rc = 0;
    if (InView(offset)) {
      // The view shows the file as it is now, this process's writes included.
      std::memcpy(e.buffer, view_ + offset, page_size_);
    } else {
      rc = FileReadAt(file_, offset, e.buffer, page_size_);
    }
    bool bad = rc >= 0 && !format_->Valid(e.buffer, use);
    if (rc < 0 || bad) {
      e.offset = 0;
      e.state = 0;
      if (was_in_use) --in_use_;  // the evicted entry was the last in use
      return KS_FAIL(module_, rc < 0 ? DB_ERR_READ : DB_ERR_CORRUPTED);
    }
  }
  e.offset = offset;
  e.state = kInUse | (use == PageUse::kFree ? 0 : kValidated);
  if (!was_in_use) ++in_use_;
  MoveToFront(slot);
  *page = entries_[0].buffer;
  return 0;
}

int32_t PageCache::MarkChanged(uint32_t offset, WriteRule rule) {
  if (!ValidOffset(offset)) return KS_FAIL(module_, DB_ERR_SEEK);
  if (in_use_ == 0) return KS_FAIL(module_, DB_ERR_NO_PAGES);
  int k = Find(offset);
  if (k < 0) return KS_FAIL(module_, DB_ERR_PAGE_NOT_LOADED);
  Entry& e = entries_[k];
  if (rule == WriteRule::kHold) {
    e.state |= kChanged;
    return 0;
  }
  int32_t rc = Write(e);
  if (rc < 0) return rc;
  if (rule == WriteRule::kWriteAndDrop) {
    Drop(k);
  } else {
    e.state = kInUse | (e.state & kValidated);
  }
  return 0;
}

int32_t PageCache::WriteChanged(bool keep_marks) {
  for (int k = 0; k < in_use_; ++k) {
    Entry& e = entries_[k];
    if (!(e.state & kChanged)) continue;
    int32_t rc = Write(e);
    if (rc < 0) return rc;
    if (!keep_marks) e.state &= ~kChanged;
  }
  return 0;
}

bool PageCache::HasChanges() const {
  for (int k = 0; k < in_use_; ++k) {
    if (entries_[k].state & kChanged) return true;
  }
  return false;
}

void PageCache::Empty() {
  for (int k = 0; k < in_use_; ++k) {
    entries_[k].offset = 0;
    entries_[k].state = 0;
  }
  in_use_ = 0;
}

int32_t PageCache::Extend(uint32_t* offset) {
  uint64_t end = (file_length_ + page_size_ - 1) / page_size_ * page_size_;
  if (end + page_size_ > 0xFFFFFFFFull) return KS_FAIL(module_, DB_ERR_WRITE);
  int32_t rc = FileTruncate(file_, end + page_size_);
  if (rc < 0) return KS_FAIL(module_, rc);
  file_length_ = end + page_size_;
  *offset = static_cast<uint32_t>(end);
  return 0;
}

void PageCache::Shrink(int count) {
  for (int i = count; i < buffers_; ++i) {
    MemFree(entries_[i].buffer);
    entries_[i] = Entry{};
  }
  buffers_ = static_cast<uint16_t>(count);
  if (in_use_ > count) in_use_ = static_cast<uint16_t>(count);
}

int32_t PageCache::Grow(int32_t* count) {
  int32_t wanted = *count;
  if (wanted > capacity_) {
    auto* grown = static_cast<Entry*>(MemAlloc(sizeof(Entry) * wanted));
    if (!grown) {
      *count = buffers_;
      return DB_WARN_PARTIAL_MEMORY;
    }
    std::memcpy(grown, entries_, sizeof(Entry) * capacity_);
    MemFree(entries_);
    entries_ = grown;
    capacity_ = static_cast<uint16_t>(wanted);
  }
  while (buffers_ < wanted) {
    uint8_t* b = static_cast<uint8_t*>(MemAlloc(page_size_));
    if (!b) {
      *count = buffers_;
      return DB_WARN_PARTIAL_MEMORY;
    }
    entries_[buffers_] = Entry{0, b, 0};
    ++buffers_;
  }
  *count = buffers_;
  return 0;
}

}  // namespace kestrel::index
