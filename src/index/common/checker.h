// The invariant checker framework that every index format's checker stands on.
//
// A format's checker reads its own header and walks its own tree with its own
// page reader and rules; the framework gives it the rest:
//
// - findings: severity, page and status, with the words;
// - page marks: every page of the tree is entered once, so a loop, a page
//   shared by two parents and a free page that is also in the tree show up,
//   and pages reached by neither are counted at the end;
// - the free-list walk (the format says only how a free page links on);
// - the key-order tracker, which also tells an index ordered by a national
//   collation from one whose keys are out of order;
// - recognising which kind of index file a header belongs to, and the one
//   entry point that opens a file and hands it to its format's checker.
//
// Checkers read the file through the file services, so they see what another
// program would see: an open index is flushed before it is checked.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>

#include "runtime/file_services.h"
#include "runtime/memory.h"

namespace kestrel::index {

enum class Severity : uint8_t {
  kInfo = 0,     // how the file was made (a FOR condition, a tag name)
  kWarning = 1,  // sound, but not what this library would have written
  kFault = 2,    // a rule of the format is broken
};

struct CheckFinding {
  Severity severity;
  uint32_t page;   // byte offset of the page the finding is about (0: the header)
  int32_t code;    // the status an engine would report (-206, ...); 0 for information
  char text[160];  // what was found, in words
};

struct CheckSummary {
  uint64_t keys;        // keys in the tree
  uint32_t depth;       // levels from the root to the leaves
  uint32_t tree_pages;  // pages in the tree
  uint32_t free_pages;  // pages on the free list
  uint16_t key_length;
  bool unique;
  bool descending;
};

// The kinds of index file the library knows by their headers.
enum class IndexFormat : uint8_t { kUnknown, kNtx, kNdx, kMdx, kIdx, kCdx, kNsx };

// "NTX", "CDX", ...; "unknown" for kUnknown.
const char* IndexFormatName(IndexFormat format);

// The format whose header `head` (the file's first min(1024, length) bytes)
// is, judged on fields that must hold in a sound header of that format.
// kUnknown when no format's header fits.
IndexFormat RecognizeIndexFormat(const uint8_t* head, size_t size, uint64_t file_length);

// A format's checker over an open file of `length` bytes.  Returns 0 when the
// file could be read at all (the findings tell whether it is sound), or the
// read error.
using FileChecker = int32_t (*)(FileHandle file, uint64_t length, Vec<CheckFinding>* findings,
                                CheckSummary* summary);

struct FormatChecker {
  IndexFormat format;
  FileChecker check;
};

// Opens the file read-only and shared and runs `check` over it, whatever its
// header says.  Returns 0 when checked, or the open or read error.
int32_t CheckFileWith(const char* path, FileChecker check, Vec<CheckFinding>* findings,
                      CheckSummary* summary);

// The one entry point of `kestrel check`: opens the file read-only and shared,
// recognises its format and runs the checker the table names for it.  A file
// whose header fits no format is checked by the first checker of the table
// (the format it is most likely a damaged copy of).  *format is set to the
// format recognised.  Returns 0 when checked, DB_WARN_NOT_SUPPORTED (210) for
// an index of a format without a checker (no findings), or the open or read
// error.
int32_t CheckIndexFile(const char* path, const FormatChecker* checkers, size_t count,
                       IndexFormat* format, Vec<CheckFinding>* findings, CheckSummary* summary);

// The base of a format's checker: findings, page marks, free-list walk and
// key order over one file with pages of one size.  A format's checker derives
// from it and supplies its header rules, its page reader and its page rules.
class Checker {
 public:
  static constexpr int kMaxDepth = 64;

  Checker(FileHandle file, uint64_t length, uint32_t page_size, Vec<CheckFinding>* findings,
          CheckSummary* summary);

  void Fault(uint32_t page, int32_t code, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  void Warn(uint32_t page, int32_t code, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  void Note(uint32_t page, const char* format, ...) __attribute__((format(printf, 3, 4)));

  // Reads one page (page size bytes); a fault when it cannot be read whole.
  bool ReadPage(uint32_t offset, uint8_t* page);

  // True when offset names a page of the file after the header page.
  bool PageInFile(uint32_t offset) const;

  // Prepares the page marks; call once the header says the tree can be walked.
  void StartWalk();

  // Enters a tree page reached at `depth` below the root: false, with a fault,
  // when the offset is not a page of the file, the page was reached before,
  // or the tree is deeper than kMaxDepth.
  bool EnterTreePage(uint32_t offset, int depth);

  // A leaf reached at `depth`: every leaf must be at the same depth.
  void LeafAt(uint32_t offset, int depth);
  // Starts another tree of the same file (a tag of a multi-tag file): its
  // leaves may lie at another depth than the last tree's.
  void StartTree() { leaf_depth_ = -1; }

  // Walks the free list from head (0: empty).  link(offset, page, &next)
  // gives the next free page of a page read from the list (0: the end), or
  // returns false after reporting a page it cannot follow.
  template <class Link>
  void WalkFreeList(uint32_t head, Link&& link);

  // Reports pages from first_page on that are neither in the tree nor free,
  // as a fault, or with a lower severity for a format that leaves pages it
  // no longer uses where they are.
  void ReportUnreachedPages(uint32_t first_page = 1, Severity severity = Severity::kFault);

  // Key order over the whole walk.  StartKeys before the first key; Key for
  // every key in walk order; FinishKeys after the walk reports what was out
  // of order, or one warning when every key is where a consistent national
  // collation would put it (see KeysFollowACollation in checker.cpp).
  //
  // A format whose keys do not sort as bytes (typed numbers) gives its own
  // order: order(context, a, b, n) < 0, 0 or > 0 as a sorts before, with or
  // after b.  Keys out of such an order are faults (no collation applies).
  using KeyOrderFn = int (*)(const void* context, const uint8_t* a, const uint8_t* b, int n);
  void StartKeys(int key_length, bool descending, bool unique, KeyOrderFn order = nullptr,
                 const void* order_context = nullptr);
  void Key(uint32_t page, const uint8_t* key, uint32_t record);
  void FinishKeys();

  uint64_t length() const { return length_; }
  uint32_t page_size() const { return page_size_; }
  CheckSummary* summary() { return summary_; }

 private:
  enum PageMark : uint8_t { kUnseen = 0, kTree = 1, kFree = 2 };

  void Add(Severity severity, uint32_t page, int32_t code, const char* format, va_list args);
  bool FreeListEntry(uint32_t offset);
  bool KeysFollowACollation() const;

  FileHandle file_;
  uint64_t length_;
  uint32_t page_size_;
  Vec<CheckFinding>* findings_;
  CheckSummary* summary_;
  Vec<uint8_t> marks_;
  int leaf_depth_ = -1;
  // Key order.
  int key_length_ = 0;
  bool descending_ = false;
  bool unique_ = false;
  bool have_previous_ = false;
  KeyOrderFn order_ = nullptr;
  const void* order_context_ = nullptr;
  Vec<uint8_t> previous_;
  Vec<CheckFinding> disorder_;  // out-of-order keys, reported by FinishKeys
  // before_[a] has bit b when a key with byte a at its first difference came
  // before a key with byte b there (in ascending terms).
  Vec<uint64_t> before_;
};

template <class Link>
void Checker::WalkFreeList(uint32_t head, Link&& link) {
  Vec<uint8_t> page(page_size_);
  uint32_t offset = head;
  while (offset != 0) {
    if (!FreeListEntry(offset)) return;
    if (!ReadPage(offset, page.data())) return;
    uint32_t next = 0;
    if (!link(offset, static_cast<const uint8_t*>(page.data()), &next)) return;
    offset = next;
  }
}

}  // namespace kestrel::index
