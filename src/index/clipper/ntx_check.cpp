// The .NTX invariant checker (see ntx_check.h).
#include "index/clipper/ntx_check.h"

#include <algorithm>
#include <cstring>

#include "index/clipper/ntx_format.h"
#include "index/clipper/ntx_index.h"
#include "runtime/file_services.h"
#include "runtime/status.h"

namespace kestrel::ntx {
namespace {

// Where some writers of the format extend the header: a FOR condition in
// place of the binary key type, and a tag name after it.
constexpr uint32_t kHdrForCondition = 282;
constexpr uint32_t kForConditionSize = 256;
constexpr uint32_t kHdrTagName = 538;
constexpr uint32_t kTagNameSize = 16;

// The text at `text` when it is printable and ends within max bytes.
bool HeaderText(const uint8_t* text, size_t max) {
  size_t n = 0;
  while (n < max && text[n] != 0) {
    if (text[n] < 0x20 || text[n] == 0x7F) return false;
    ++n;
  }
  return n > 0 && n < max;
}

class NtxChecker : public index::Checker {
 public:
  using Checker::Checker;
  int32_t Run(FileHandle file);

 private:
  void HeaderExtensions(const uint8_t* h, size_t size, uint16_t binary);
  void Walk(uint32_t offset, int depth, bool is_root);
  bool FreeLink(uint32_t offset, const uint8_t* page, uint32_t* next);

  int key_length_ = 0;
  int item_size_ = 0;
  int max_items_ = 0;
  int half_ = 0;
};

void NtxChecker::Walk(uint32_t offset, int depth, bool is_root) {
  if (!EnterTreePage(offset, depth)) return;
  uint8_t page[kPageSize];
  if (!ReadPage(offset, page)) return;
  int n = PageCount(page);
  if (n > max_items_) {
    Fault(offset, DB_ERR_CORRUPTED, "count %d exceeds the page capacity %d", n, max_items_);
    return;
  }
  // The offset table: every entry inside the page, no two items overlapping.
  uint16_t entries[kPageSize / 2];
  uint32_t lowest = kPageTable + 2u * (max_items_ + 1);
  bool table_ok = true;
  for (int i = 0; i <= max_items_; ++i) {
    entries[i] = TableEntry(page, i);
    if (entries[i] < lowest || entries[i] + static_cast<uint32_t>(item_size_) > kPageSize) {
      Fault(offset, DB_ERR_CORRUPTED, "offset table entry %d (%u) points outside the item area", i,
            entries[i]);
      table_ok = false;
    }
  }
  if (!table_ok) return;
  std::sort(entries, entries + max_items_ + 1);
  for (int i = 1; i <= max_items_; ++i) {
    if (entries[i] - entries[i - 1] < item_size_) {
      Fault(offset, DB_ERR_CORRUPTED, "offset table is not a permutation of item slots (%u, %u)",
            entries[i - 1], entries[i]);
      break;
    }
  }
  if (!is_root && n < half_) {
    Fault(offset, DB_ERR_CORRUPTED, "count %d is below half a page (%d)", n, half_);
  }
  bool inner = ItemChild(Item(page, 0)) != 0;
  if (is_root && n == 0 && inner) {
    Fault(offset, DB_ERR_CORRUPTED, "empty root page with a child");
  }
  if (!is_root && n == 0) {
    Fault(offset, DB_ERR_CORRUPTED, "empty page below the root");
    return;
  }
  for (int i = 0; i <= n; ++i) {
    bool has_child = ItemChild(Item(page, i)) != 0;
    if (has_child != inner) {
      Fault(offset, DB_ERR_CORRUPTED, "item %d %s a child page unlike item 0", i,
            has_child ? "has" : "lacks");
      return;
    }
  }
  if (!inner) LeafAt(offset, depth);
  for (int i = 0; i <= n; ++i) {
    const uint8_t* item = Item(page, i);
    if (inner) Walk(ItemChild(item), depth + 1, false);
    if (i < n) Key(offset, ItemKey(item), ItemRecord(item));
  }
}

// A free page links on through the child of the item its entry 0 names.
bool NtxChecker::FreeLink(uint32_t offset, const uint8_t* page, uint32_t* next) {
  uint32_t entry = TableEntry(page, 0);
  if (entry < kPageTable + 2u || entry + kItemOverhead > kPageSize) {
    Fault(offset, DB_ERR_CORRUPTED, "free page %u has no valid first item", offset);
    return false;
  }
  *next = ItemChild(page + entry);
  return true;
}

// The binary key type, or a FOR condition and a tag name where other writers
// put them.  Those indexes are sound; their keys are those of the records the
// condition selects, which this library does not evaluate.
void NtxChecker::HeaderExtensions(const uint8_t* h, size_t size, uint16_t binary) {
  if (HeaderText(h + kHdrForCondition,
                 std::min<size_t>(kForConditionSize, size - kHdrForCondition))) {
    Note(0, "FOR condition: %.120s (keys only of the records it selects)",
         reinterpret_cast<const char*>(h + kHdrForCondition));
  } else {
    if (binary > 6) Fault(0, DB_ERR_KEY_TYPE, "binary key type %u outside 0..6", binary);
  }
  if (size >= kHdrTagName + kTagNameSize && HeaderText(h + kHdrTagName, kTagNameSize)) {
    Note(0, "tag name: %s", reinterpret_cast<const char*>(h + kHdrTagName));
  }
}

int32_t NtxChecker::Run(FileHandle file) {
  uint8_t h[kPageSize] = {};
  if (length() < kHeaderReadSize) {
    Fault(0, DB_ERR_HEADER_LENGTH, "file of %llu bytes is shorter than a header",
          static_cast<unsigned long long>(length()));
    return 0;
  }
  size_t header_bytes = length() < kPageSize ? kHeaderReadSize : kPageSize;
  int32_t rc = FileReadAt(file, 0, h, header_bytes);
  if (rc < 0) return rc;
  if (length() % kPageSize != 0) {
    Fault(0, DB_WARN_FILE_LENGTH, "file length %llu is not a multiple of %u",
          static_cast<unsigned long long>(length()), kPageSize);
  }
  Header hd;
  hd.Read(std::span<const uint8_t, kHeaderReadSize>(h, kHeaderReadSize));
  if (hd.signature != kSignatureAscending && hd.signature != kSignatureDescending) {
    Fault(0, DB_ERR_CORRUPTED, "signature %u is neither 6 nor 7", hd.signature);
  }
  key_length_ = hd.key_length;
  item_size_ = hd.item_size;
  max_items_ = hd.max_items;
  half_ = hd.half_page;
  const uint32_t root = hd.root;
  const uint32_t free_head = hd.free_head;
  const bool unique = hd.unique != 0;
  const bool descending = hd.descending != 0;
  summary()->key_length = static_cast<uint16_t>(key_length_);
  summary()->unique = unique;
  summary()->descending = descending;
  bool fatal = false;
  if (key_length_ < 1 || key_length_ > kMaxKeyLength) {
    Fault(0, DB_ERR_KEY_LENGTH, "key length %d outside 1..254", key_length_);
    fatal = true;
  } else {
    if (item_size_ != key_length_ + kItemOverhead) {
      Fault(0, DB_ERR_ITEM_LENGTH, "item size %d is not key length + 8", item_size_);
      fatal = true;
    }
    if (max_items_ != MaxItemsFor(key_length_)) {
      Fault(0, DB_ERR_MAX_KEYS, "maximum items %d, expected %d", max_items_,
            MaxItemsFor(key_length_));
      fatal = true;
    }
    if (half_ != max_items_ / 2) {
      Fault(0, DB_ERR_MIN_KEYS, "half page %d, expected %d", half_, max_items_ / 2);
      fatal = true;
    }
  }
  if (hd.unique > 1 || hd.descending > 1) {
    Fault(0, DB_ERR_CORRUPTED, "unique or descending flag byte is neither 0 nor 1");
  }
  HeaderExtensions(h, header_bytes, hd.binary_type);
  if (!hd.expression_terminated)
    Fault(0, DB_ERR_BAD_EXPRESSION, "key expression is not terminated");
  if (!ValidPageOffset(root, length())) {
    Fault(0, DB_ERR_ROOT_PAGE, "root offset %u is outside the file", root);
    fatal = true;
  }
  if (free_head != 0 && !ValidPageOffset(free_head, length())) {
    Fault(0, DB_ERR_CORRUPTED, "free-list head %u is outside the file", free_head);
  }
  if (fatal) return 0;
  StartWalk();
  StartKeys(key_length_, descending, unique);
  Walk(root, 0, true);
  FinishKeys();
  WalkFreeList(free_head, [this](uint32_t offset, const uint8_t* page, uint32_t* next) {
    return FreeLink(offset, page, next);
  });
  ReportUnreachedPages();
  return 0;
}

}  // namespace

constexpr ModulePath kCheck = KS_ENGINE_MODULE("CCHECK");

int32_t CheckOpenFile(FileHandle file, uint64_t length, Vec<CheckFinding>* findings,
                      CheckSummary* summary) {
  NtxChecker checker(file, length, kPageSize, findings, summary);
  return checker.Run(file);
}

int32_t CheckIndexHandle(int32_t handle, Vec<CheckFinding>* findings, CheckSummary* summary) {
  if (!findings || !summary) return KS_FAIL(kCheck, DB_ERR_NULL);
  NtxIndex* ix = nullptr;
  int32_t rc = SelectIndex(handle, &ix, kCheck);
  if (rc < 0) return rc;
  *summary = CheckSummary{};
  findings->clear();
  Succeed();
  if (!(ix->state & kStateReadOnly)) {
    rc = FlushIndex(ix, false);
    if (rc < 0) return KS_PASS(kCheck, rc);
  }
  uint64_t length = 0;
  rc = FileSize(ix->file, &length);
  if (rc < 0) return KS_PASS(kCheck, rc);
  rc = CheckOpenFile(ix->file, length, findings, summary);
  if (rc < 0) return KS_PASS(kCheck, rc);
  return Succeed();
}

int32_t CheckIndexFile(const char* path, Vec<CheckFinding>* findings, CheckSummary* summary) {
  return index::CheckFileWith(path, &CheckOpenFile, findings, summary);
}

}  // namespace kestrel::ntx
