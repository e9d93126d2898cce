// The .NTX invariant checker (see ntx_check.h).
#include "index/clipper/ntx_check.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "index/clipper/ntx_format.h"
#include "index/clipper/ntx_index.h"
#include "runtime/file_services.h"
#include "runtime/status.h"

namespace kestrel::ntx {
namespace {

constexpr int kMaxDepth = 64;
enum PageMark : uint8_t { kUnseen = 0, kTree = 1, kFree = 2 };

class Checker {
 public:
  Checker(FileHandle file, uint64_t length, Vec<CheckFinding>* findings, CheckSummary* summary)
      : file_(file), length_(length), findings_(findings), summary_(summary) {}

  int32_t Run();

 private:
  void Report(uint32_t page, int32_t code, const char* format, ...)
      __attribute__((format(printf, 4, 5)));
  bool ReadPage(uint32_t offset, uint8_t* page);
  void Walk(uint32_t offset, int depth, bool is_root);
  void CheckKey(uint32_t page, const uint8_t* key, uint32_t record);
  void WalkFreeList(uint32_t head);

  FileHandle file_;
  uint64_t length_;
  Vec<CheckFinding>* findings_;
  CheckSummary* summary_;
  int key_length_ = 0;
  int item_size_ = 0;
  int max_items_ = 0;
  int half_ = 0;
  bool descending_ = false;
  bool unique_ = false;
  int leaf_depth_ = -1;
  bool have_previous_ = false;
  uint8_t previous_[kMaxKeyLength] = {};
  Vec<uint8_t> marks_;
};

void Checker::Report(uint32_t page, int32_t code, const char* format, ...) {
  CheckFinding f{};
  f.page = page;
  f.code = code;
  va_list args;
  va_start(args, format);
  std::vsnprintf(f.text, sizeof f.text, format, args);
  va_end(args);
  findings_->push_back(f);
}

bool Checker::ReadPage(uint32_t offset, uint8_t* page) {
  if (FileReadAt(file_, offset, page, kPageSize) < 0) {
    Report(offset, DB_ERR_READ, "page at %u cannot be read whole", offset);
    return false;
  }
  return true;
}

void Checker::CheckKey(uint32_t page, const uint8_t* key, uint32_t record) {
  if (have_previous_) {
    int c = std::memcmp(previous_, key, key_length_);
    if (descending_) c = -c;
    if (c > 0 || (c == 0 && unique_)) {
      Report(page, DB_ERR_CORRUPTED, "key of record %u is out of order%s", record,
             c == 0 ? " (duplicate in a unique index)" : "");
    }
  }
  std::memcpy(previous_, key, key_length_);
  have_previous_ = true;
  ++summary_->keys;
}

void Checker::Walk(uint32_t offset, int depth, bool is_root) {
  if (!ValidPageOffset(offset, length_)) {
    Report(offset, DB_ERR_SEEK, "child offset %u is outside the file or not on a page boundary",
           offset);
    return;
  }
  uint32_t index = offset / kPageSize;
  if (marks_[index] != kUnseen) {
    Report(offset, DB_ERR_CORRUPTED, "page %u is reached twice", offset);
    return;
  }
  if (depth >= kMaxDepth) {
    Report(offset, DB_ERR_CORRUPTED, "tree deeper than %d levels", kMaxDepth);
    return;
  }
  marks_[index] = kTree;
  ++summary_->tree_pages;
  uint8_t page[kPageSize];
  if (!ReadPage(offset, page)) return;
  int n = PageCount(page);
  if (n > max_items_) {
    Report(offset, DB_ERR_CORRUPTED, "count %d exceeds the page capacity %d", n, max_items_);
    return;
  }
  // The offset table: every entry inside the page, no two items overlapping.
  uint16_t entries[kPageSize / 2];
  uint32_t lowest = kPageTable + 2u * (max_items_ + 1);
  bool table_ok = true;
  for (int i = 0; i <= max_items_; ++i) {
    entries[i] = TableEntry(page, i);
    if (entries[i] < lowest || entries[i] + static_cast<uint32_t>(item_size_) > kPageSize) {
      Report(offset, DB_ERR_CORRUPTED, "offset table entry %d (%u) points outside the item area", i,
             entries[i]);
      table_ok = false;
    }
  }
  if (!table_ok) return;
  std::sort(entries, entries + max_items_ + 1);
  for (int i = 1; i <= max_items_; ++i) {
    if (entries[i] - entries[i - 1] < item_size_) {
      Report(offset, DB_ERR_CORRUPTED, "offset table is not a permutation of item slots (%u, %u)",
             entries[i - 1], entries[i]);
      break;
    }
  }
  if (!is_root && n < half_) {
    Report(offset, DB_ERR_CORRUPTED, "count %d is below half a page (%d)", n, half_);
  }
  bool inner = ItemChild(Item(page, 0)) != 0;
  if (is_root && n == 0 && inner) {
    Report(offset, DB_ERR_CORRUPTED, "empty root page with a child");
  }
  if (!is_root && n == 0) {
    Report(offset, DB_ERR_CORRUPTED, "empty page below the root");
    return;
  }
  for (int i = 0; i <= n; ++i) {
    bool has_child = ItemChild(Item(page, i)) != 0;
    if (has_child != inner) {
      Report(offset, DB_ERR_CORRUPTED, "item %d %s a child page unlike item 0", i,
             has_child ? "has" : "lacks");
      return;
    }
  }
  if (!inner) {
    if (leaf_depth_ < 0) leaf_depth_ = depth;
    if (leaf_depth_ != depth) {
      Report(offset, DB_ERR_CORRUPTED, "leaf at depth %d, others at depth %d", depth, leaf_depth_);
    }
    if (static_cast<uint32_t>(depth + 1) > summary_->depth) summary_->depth = depth + 1;
  }
  for (int i = 0; i <= n; ++i) {
    const uint8_t* item = Item(page, i);
    if (inner) Walk(ItemChild(item), depth + 1, false);
    if (i < n) CheckKey(offset, ItemKey(item), ItemRecord(item));
  }
}

void Checker::WalkFreeList(uint32_t head) {
  uint32_t offset = head;
  uint8_t page[kPageSize];
  while (offset != 0) {
    if (!ValidPageOffset(offset, length_)) {
      Report(offset, DB_ERR_SEEK, "free-list link %u is outside the file", offset);
      return;
    }
    uint32_t index = offset / kPageSize;
    if (marks_[index] == kFree) {
      Report(offset, DB_ERR_CORRUPTED, "free list loops at page %u", offset);
      return;
    }
    if (marks_[index] == kTree) {
      Report(offset, DB_ERR_CORRUPTED, "free page %u is also in the tree", offset);
      return;
    }
    marks_[index] = kFree;
    ++summary_->free_pages;
    if (!ReadPage(offset, page)) return;
    uint32_t entry = TableEntry(page, 0);
    if (entry < kPageTable + 2u || entry + kItemOverhead > kPageSize) {
      Report(offset, DB_ERR_CORRUPTED, "free page %u has no valid first item", offset);
      return;
    }
    offset = ItemChild(page + entry);
  }
}

int32_t Checker::Run() {
  uint8_t h[kPageSize] = {};
  if (length_ < kHeaderReadSize) {
    Report(0, DB_ERR_HEADER_LENGTH, "file of %llu bytes is shorter than a header",
           static_cast<unsigned long long>(length_));
    return 0;
  }
  size_t header_bytes = length_ < kPageSize ? kHeaderReadSize : kPageSize;
  int32_t rc = FileReadAt(file_, 0, h, header_bytes);
  if (rc < 0) return rc;
  if (length_ % kPageSize != 0) {
    Report(0, DB_WARN_FILE_LENGTH, "file length %llu is not a multiple of %u",
           static_cast<unsigned long long>(length_), kPageSize);
  }
  uint16_t signature = LoadLE16(h + kHdrSignature);
  if (signature != kSignatureAscending && signature != kSignatureDescending) {
    Report(0, DB_ERR_CORRUPTED, "signature %u is neither 6 nor 7", signature);
  }
  key_length_ = LoadLE16(h + kHdrKeyLength);
  item_size_ = LoadLE16(h + kHdrItemSize);
  max_items_ = LoadLE16(h + kHdrMaxItems);
  half_ = LoadLE16(h + kHdrHalfPage);
  uint32_t root = LoadLE32(h + kHdrRoot);
  uint32_t free_head = LoadLE32(h + kHdrFreeList);
  unique_ = h[kHdrUnique] != 0;
  descending_ = h[kHdrDescending] != 0;
  summary_->key_length = static_cast<uint16_t>(key_length_);
  summary_->unique = unique_;
  summary_->descending = descending_;
  bool fatal = false;
  if (key_length_ < 1 || key_length_ > kMaxKeyLength) {
    Report(0, DB_ERR_KEY_LENGTH, "key length %d outside 1..254", key_length_);
    fatal = true;
  } else {
    if (item_size_ != key_length_ + kItemOverhead) {
      Report(0, DB_ERR_ITEM_LENGTH, "item size %d is not key length + 8", item_size_);
      fatal = true;
    }
    if (max_items_ != MaxItemsFor(key_length_)) {
      Report(0, DB_ERR_MAX_KEYS, "maximum items %d, expected %d", max_items_,
             MaxItemsFor(key_length_));
      fatal = true;
    }
    if (half_ != max_items_ / 2) {
      Report(0, DB_ERR_MIN_KEYS, "half page %d, expected %d", half_, max_items_ / 2);
      fatal = true;
    }
  }
  if (h[kHdrUnique] > 1 || h[kHdrDescending] > 1) {
    Report(0, DB_ERR_CORRUPTED, "unique or descending flag byte is neither 0 nor 1");
  }
  uint16_t binary = LoadLE16(h + kHdrBinaryType);
  if (binary > 6) Report(0, DB_ERR_KEY_TYPE, "binary key type %u outside 0..6", binary);
  if (strnlen(reinterpret_cast<const char*>(h + kHdrExpression), kExpressionSize) >=
      static_cast<size_t>(kExpressionSize)) {
    Report(0, DB_ERR_BAD_EXPRESSION, "key expression is not terminated");
  }
  if (!ValidPageOffset(root, length_)) {
    Report(0, DB_ERR_ROOT_PAGE, "root offset %u is outside the file", root);
    fatal = true;
  }
  if (free_head != 0 && !ValidPageOffset(free_head, length_)) {
    Report(0, DB_ERR_CORRUPTED, "free-list head %u is outside the file", free_head);
  }
  if (fatal) return 0;
  marks_.assign(length_ / kPageSize + 1, kUnseen);
  Walk(root, 0, true);
  WalkFreeList(free_head);
  uint32_t pages = static_cast<uint32_t>(length_ / kPageSize);
  uint32_t lost = 0;
  uint32_t first_lost = 0;
  for (uint32_t i = 1; i < pages; ++i) {
    if (marks_[i] == kUnseen) {
      if (lost++ == 0) first_lost = i * kPageSize;
    }
  }
  if (lost) {
    Report(first_lost, DB_ERR_CORRUPTED, "%u page(s) neither in the tree nor free, first at %u",
           lost, first_lost);
  }
  return 0;
}

}  // namespace

constexpr ModulePath kCheck = KS_ENGINE_MODULE("CCHECK");

int32_t CheckIndexHandle(int32_t handle, Vec<CheckFinding>* findings, CheckSummary* summary) {
  if (!findings || !summary) return KS_FAIL(kCheck, DB_ERR_NULL);
  NtxIndex* ix = nullptr;
  int32_t rc = SelectIndex(handle, &ix, kCheck);
  if (rc < 0) return rc;
  *summary = CheckSummary{};
  findings->clear();
  SetErrorCode(0);
  if (!(ix->state & kStateReadOnly)) {
    rc = FlushIndex(ix, false);
    if (rc < 0) return KS_PASS(kCheck, rc);
  }
  uint64_t length = 0;
  rc = FileSize(ix->file, &length);
  if (rc < 0) return KS_PASS(kCheck, rc);
  Checker checker(ix->file, length, findings, summary);
  rc = checker.Run();
  if (rc < 0) return KS_PASS(kCheck, rc);
  return Succeed();
}

int32_t CheckIndexFile(const char* path, Vec<CheckFinding>* findings, CheckSummary* summary) {
  if (!path || !findings || !summary) return KS_FAIL(kCheck, DB_ERR_NULL);
  *summary = CheckSummary{};
  findings->clear();
  SetErrorCode(0);
  FileHandle file = kNoFile;
  uint32_t attributes = 0;
  int32_t rc = FileOpen(&file, path, DB_OPEN_READONLY | DB_OPEN_SHARED, &attributes);
  if (rc < 0) return KS_PASS(kCheck, rc);
  uint64_t length = 0;
  rc = FileSize(file, &length);
  if (rc >= 0) {
    Checker checker(file, length, findings, summary);
    rc = checker.Run();
  }
  FileClose(file);
  if (rc < 0) return KS_PASS(kCheck, rc);
  return Succeed();
}

}  // namespace kestrel::ntx
