// The page cache every B-tree index engine stands on: a small set of page
// buffers kept in most-recently-used order, with changed marks, write-back on
// eviction and flush, write-through on request, a read-only view of files held
// exclusively, and resizing.
//
// The cache knows nothing of a format's page layout.  A format supplies its
// page size and a PageFormat hook that checks a page read from the file and
// lays out a fresh one; everything else (free lists, headers, locks) stays in
// the engine, which decides per write whether a changed page is held, written
// at once, or written and dropped.
//
// Pages are named by their byte offset in the file.  An offset is valid when
// it is a multiple of the page size, at least the first page offset (below it
// lie the format's header pages) and below the file length.
//
// Failures are logged under the module given to Open and return:
//   -204  offset that is not a page of the file
//   -202  page that cannot be read          -201/...  page that cannot be written
//   -206  page that fails the format's check
//   -209  no page in the cache              -210  page not in the cache
#pragma once

#include <cstdint>

#include "runtime/file_services.h"
#include "runtime/status.h"

namespace kestrel::index {

// How a page is about to be used, which decides how it is checked.
enum class PageUse {
  kTree,   // a page of the tree: the format's full check
  kFree,   // a page on the free list: only what the list link needs
  kFresh,  // a page about to be taken into use: not read, laid out empty
};

// What a format tells the cache about its pages.
class PageFormat {
 public:
  // True when a page read from the file (or held unchecked) may be used so.
  virtual bool Valid(const uint8_t* page, PageUse use) const = 0;
  // Lays out an empty page (page size bytes).
  virtual void LayOutEmpty(uint8_t* page) const = 0;

 protected:
  ~PageFormat() = default;
};

// What happens to a page the engine has just changed.
enum class WriteRule {
  kHold,          // marked changed; written at eviction or flush
  kWriteAndKeep,  // written at once and kept, unmarked
  kWriteAndDrop,  // written at once and dropped (another process may change it)
};

class PageCache {
 public:
  struct Entry {
    uint32_t offset;  // page offset, 0 when empty
    uint8_t* buffer;  // page size bytes
    uint8_t state;    // kChanged | kInUse | kValidated
  };
  static constexpr uint8_t kChanged = 2;
  static constexpr uint8_t kInUse = 32;
  static constexpr uint8_t kValidated = 0x80;  // the format's tree check passed

  PageCache() = default;
  PageCache(const PageCache&) = delete;
  PageCache& operator=(const PageCache&) = delete;
  ~PageCache();

  // Binds the cache to an open file and allocates `capacity` entries and up
  // to `wanted` buffers, stopping at the first allocation that fails.
  // write_mode is the flush word handed to every page write; a view of the
  // file is mapped only when `exclusive` (no other process can change or
  // shorten it).  Returns -203, unlogged, when fewer than `minimum` buffers
  // could be had (the caller reports it under its own module).
  int32_t Open(FileHandle file, uint64_t file_length, uint32_t page_size, uint32_t first_offset,
               const PageFormat* format, ModulePath module, int32_t write_mode, bool exclusive,
               int capacity, int wanted, int minimum);

  bool ValidOffset(uint32_t offset) const {
    return offset >= first_offset_ && offset < file_length_ && offset % page_size_ == 0;
  }

  // Makes the page the most recently used (entry 0) and returns its buffer.
  int32_t Load(uint32_t offset, uint8_t** page, PageUse use = PageUse::kTree);
  // Applies the rule to a cached page the engine has changed.
  int32_t MarkChanged(uint32_t offset, WriteRule rule);
  // The most recently loaded page now holds a valid tree page (a page laid
  // out afresh after it was taken from a free list).
  void SetCurrentValidated() { entries_[0].state |= kValidated; }
  // Writes every page marked changed.  The marks stay set when keep_marks.
  int32_t WriteChanged(bool keep_marks);
  bool HasChanges() const;
  // Forgets every page without writing anything.
  void Empty();

  // Grows the file by one page at the first page boundary at or after its
  // end; *offset receives the new page's offset.
  int32_t Extend(uint32_t* offset);
  uint64_t file_length() const { return file_length_; }
  // The file length as another writer, a rebuild or a truncation left it.
  void SetFileLength(uint64_t length) { file_length_ = length; }
  // Drops the view (before the file is cut below it).
  void Unmap();

  // Resizing.  Shrink frees the buffers above count; the caller has written
  // what had to be written.  Grow adds buffers up to *count and reports the
  // number held in *count, with warning 209 when memory ran out first.
  void Shrink(int count);
  int32_t Grow(int32_t* count);
  uint16_t buffers() const { return buffers_; }

 private:
  int Find(uint32_t offset) const;
  void MoveToFront(int k);
  void Drop(int k);
  int32_t Write(const Entry& e);
  void Map();
  bool InView(uint32_t offset);

  FileHandle file_ = kNoFile;
  const PageFormat* format_ = nullptr;
  ModulePath module_{""};
  uint32_t page_size_ = 0;
  uint32_t first_offset_ = 0;
  int32_t write_mode_ = 0;
  bool exclusive_ = false;
  uint64_t file_length_ = 0;  // bytes, kept current as pages are added
  Entry* entries_ = nullptr;  // most recently used first
  uint16_t buffers_ = 0;      // page buffers allocated
  uint16_t in_use_ = 0;       // entries holding a page
  uint16_t capacity_ = 0;     // entries in the array
  // Read-only view of the file (exclusive files only); pages missing from the
  // cache are copied from it instead of read one by one.
  const uint8_t* view_ = nullptr;
  uint64_t view_size_ = 0;   // bytes mapped (may reach past the end of file)
  uint64_t view_tried_ = 0;  // file length at the last mapping attempt
};

}  // namespace kestrel::index
