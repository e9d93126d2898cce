// The dBASE index checker (see dbase_check.h).
#include "index/dbase/dbase_check.h"

#include <cstring>

#include "index/dbase/dbase_index.h"
#include "runtime/file_services.h"
#include "util/coding.h"

namespace kestrel::dbase {
namespace {

constexpr ModulePath kCheck = KS_ENGINE_MODULE("MCHECK");

int OrderOf(const void* context, const uint8_t* a, const uint8_t* b, int n) {
  return CompareKeys(*static_cast<const KeyOrder*>(context), a, b, n);
}

// Walks one tree (an NDX file's, or one MDX tag's) with its layout and order.
class TreeChecker : public index::Checker {
 public:
  TreeChecker(FileHandle file, uint64_t length, Vec<index::CheckFinding>* findings,
              index::CheckSummary* summary)
      : Checker(file, length, kBlockSize, findings, summary) {}

  // Checks the tree below root (a page number); every page counts
  // layout.page_size / 512 blocks of the file.
  void WalkTree(const PageLayout& layout, KeyOrder order, int half, uint32_t root, bool unique,
                bool descending) {
    layout_ = layout;
    order_ = order;
    half_ = half;
    StartKeys(layout.key_length, descending, unique, &OrderOf, &order_);
    uint8_t greatest[index::kMaxKeyBytes];
    bool any = false;
    Visit(root, 0, true, greatest, &any);
    FinishKeys();
  }

 private:
  // Visits the page and its subtree; *greatest receives the subtree's
  // greatest key (*any false when it holds none).
  void Visit(uint32_t number, int depth, bool is_root, uint8_t* greatest, bool* any) {
    *any = false;
    uint32_t offset = number << kBlockShift;
    if (number == 0 || number > (UINT32_MAX >> kBlockShift) ||
        offset + static_cast<uint64_t>(layout_.page_size) > length()) {
      Fault(offset, DB_ERR_SEEK, "page %u is outside the file", number);
      return;
    }
    if (!EnterTreePage(offset, depth)) return;
    Vec<uint8_t> page(layout_.page_size);
    if (FileReadAt(file(), offset, page.data(), layout_.page_size) < 0) {
      Fault(offset, DB_ERR_READ, "page %u cannot be read whole", number);
      return;
    }
    const uint8_t* p = page.data();
    int n = PageLayout::Count(p);
    if (!layout_.CountFits(n)) {
      Fault(offset, DB_ERR_CORRUPTED, "page %u holds %d keys, at most %d fit", number, n,
            layout_.max_keys);
      return;
    }
    if (LoadLE32(p) >> 16 != 0) Note(offset, "page %u has bits set above its 16-bit key count", number);
    bool leaf = layout_.IsLeaf(p);
    if (n == 0) {
      if (!is_root || !leaf) Fault(offset, DB_ERR_CORRUPTED, "page %u holds no keys", number);
      if (leaf) LeafAt(offset, depth);
      return;
    }
    if (!is_root && n < half_ && !last_child_) {
      Warn(offset, 0, "page %u holds %d keys, fewer than half a page (%d)", number, n, half_);
    }
    if (leaf) {
      LeafAt(offset, depth);
      for (int i = 0; i < n; ++i) {
        const uint8_t* item = layout_.Item(p, i);
        if (layout_.child_offset != layout_.record_offset && layout_.Child(item) != 0) {
          Fault(offset, DB_ERR_CORRUPTED, "leaf page %u item %d names a child", number, i);
        }
        Key(offset, layout_.Key(item), layout_.Record(item));
      }
      std::memcpy(greatest, layout_.Key(layout_.Item(p, n - 1)), layout_.key_length);
      *any = true;
      return;
    }
    for (int i = 0; i <= n; ++i) {
      const uint8_t* item = layout_.Item(p, i);
      uint32_t child = layout_.Child(item);
      if (child == 0) {
        Fault(offset, DB_ERR_CORRUPTED, "interior page %u item %d names no child", number, i);
        continue;
      }
      uint8_t below[index::kMaxKeyBytes];
      bool below_any = false;
      last_child_ = i == n;
      Visit(child, depth + 1, false, below, &below_any);
      last_child_ = false;
      if (i < n && below_any &&
          CompareKeys(order_, layout_.Key(item), below, layout_.key_length) != 0) {
        Fault(offset, DB_ERR_CORRUPTED,
              "interior page %u key %d is not the greatest key of its left subtree", number, i);
      }
      if (i == n && below_any) {
        std::memcpy(greatest, below, layout_.key_length);
        *any = true;
      }
    }
  }

  FileHandle file() const { return file_handle_; }

 public:
  FileHandle file_handle_ = kNoFile;

 private:
  PageLayout layout_{};
  KeyOrder order_ = KeyOrder::kBytes;
  int half_ = 0;
  bool last_child_ = false;
};

int32_t RunNdx(TreeChecker& c, FileHandle file) {
  uint64_t length = c.length();
  uint8_t h[kBlockSize] = {};
  if (length < kBlockSize) {
    c.Fault(0, DB_ERR_HEADER_LENGTH, "file of %llu bytes is shorter than its header page",
            static_cast<unsigned long long>(length));
    return 0;
  }
  int32_t rc = FileReadAt(file, 0, h, kBlockSize);
  if (rc < 0) return rc;
  int key_length = LoadLE16(h + kNdxKeyLength);
  int max_keys = LoadLE16(h + kNdxMaxKeys);
  int klass = LoadLE16(h + kNdxClass);
  int item_length = LoadLE16(h + kNdxItemLength);
  uint32_t root = LoadLE32(h + kNdxRoot);
  uint32_t pages = LoadLE32(h + kNdxPages);
  bool unique = (h[kNdxUnique] & 1) != 0;
  c.summary()->key_length = static_cast<uint16_t>(key_length);
  c.summary()->unique = unique;
  bool fatal = false;
  if (key_length < 1 || key_length > kMaxKeyLength) {
    c.Fault(0, DB_ERR_KEY_LENGTH, "key length %d outside 1..254", key_length);
    fatal = true;
  } else if (!NdxItemLengthAccepted(key_length, item_length)) {
    c.Fault(0, DB_ERR_ITEM_LENGTH, "item length %d does not fit key length %d", item_length,
            key_length);
    fatal = true;
  } else if (max_keys < 2 || max_keys * item_length > static_cast<int>(kNdxItemsLimit)) {
    c.Fault(0, DB_ERR_MAX_KEYS, "%d keys of %d bytes per page", max_keys, item_length);
    fatal = true;
  }
  if (klass > 6 || (klass >= 1 && key_length != (klass == 1 ? 8 : klass <= 4 ? 4 : 2))) {
    c.Fault(0, DB_ERR_KEY_TYPE, "key class %d with key length %d", klass, key_length);
    fatal = true;
  }
  if (strnlen(reinterpret_cast<const char*>(h + kNdxExpression), kExpressionField) >
      static_cast<size_t>(kMaxExpression)) {
    c.Fault(0, DB_ERR_BAD_EXPRESSION, "key expression is not terminated within 220 characters");
  }
  if (root < 1 || root >= pages || (static_cast<uint64_t>(root) + 1) * kBlockSize > length) {
    c.Fault(0, DB_ERR_ROOT_PAGE, "root page %u outside the file (%u pages)", root, pages);
    fatal = true;
  }
  if (static_cast<uint64_t>(pages) * kBlockSize != length) {
    c.Warn(0, DB_WARN_FILE_LENGTH, "header counts %u pages, the file holds %llu bytes", pages,
           static_cast<unsigned long long>(length));
  }
  if (fatal) return 0;
  Tag tag{};
  if (DefineKey(kKindNdx, klass == 0 ? 'C' : klass == 1 ? 'N' : klass, key_length, kBlockSize,
                &tag, kCheck) < 0) {
    c.Fault(0, DB_ERR_KEY_TYPE, "key definition refused");
    return 0;
  }
  tag.layout.item_length = static_cast<uint16_t>(item_length);
  tag.layout.max_keys = static_cast<uint16_t>(max_keys);
  c.StartWalk();
  c.WalkTree(tag.layout, tag.order, max_keys / 2, root, unique, false);
  c.ReportUnreachedPages(1, index::Severity::kInfo);
  return 0;
}

}  // namespace

int32_t CheckNdxFile(FileHandle file, uint64_t length, Vec<index::CheckFinding>* findings,
                     index::CheckSummary* summary) {
  TreeChecker checker(file, length, findings, summary);
  checker.file_handle_ = file;
  int32_t saved = ErrorCode();
  int32_t rc = RunNdx(checker, file);
  if (rc >= 0) Record(saved);
  return rc;
}

int32_t CheckIndexHandle(int32_t handle, Vec<index::CheckFinding>* findings,
                         index::CheckSummary* summary) {
  if (!findings || !summary) return KS_FAIL(kCheck, DB_ERR_NULL);
  DbaseIndex* ix = nullptr;
  int32_t rc = SelectIndex(handle, &ix, kCheck);
  if (rc < 0) return rc;
  *summary = index::CheckSummary{};
  findings->clear();
  Record(0);
  if (!(ix->state & kStateReadOnly)) {
    rc = FlushIndex(ix, false);
    if (rc < 0) return KS_PASS(kCheck, rc);
  }
  uint64_t length = 0;
  rc = FileSize(ix->file, &length);
  if (rc < 0) return KS_PASS(kCheck, rc);
  rc = CheckNdxFile(ix->file, length, findings, summary);
  if (rc < 0) return KS_PASS(kCheck, rc);
  return Succeed();
}

}  // namespace kestrel::dbase
