// The invariant checker framework (see checker.h).
#include "index/common/checker.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "runtime/status.h"
#include "util/coding.h"

namespace kestrel::index {

// ---- Format recognition ---------------------------------------------------
//
// Each test looks only at fields that a sound header of its format must hold,
// and that the headers of the other formats cannot hold at once, so that a
// file is named for what it is and not for the first format it resembles.

namespace {

bool Printable(const uint8_t* text, size_t max) {
  size_t n = 0;
  while (n < max && text[n] != 0) {
    if (text[n] < 0x20 || text[n] == 0x7F) return false;
    ++n;
  }
  return n > 0 && n < max;
}

// Page 0 of an .NTX file: signature 6 or 7, item size = key length + 8, the
// page capacity and half page that the key length gives.
bool LooksLikeNtx(const uint8_t* h, size_t size) {
  if (size < 284) return false;
  uint16_t signature = LoadLE16(h);
  int key_length = LoadLE16(h + 14);
  if ((signature != 6 && signature != 7) || key_length < 1 || key_length > 254) return false;
  int max_items = (1020 / (key_length + 10) - 1) & ~1;
  return LoadLE16(h + 12) == key_length + 8 && LoadLE16(h + 18) == max_items &&
         LoadLE16(h + 20) == max_items / 2;
}

// An .MDX file: version 2, blocks per page 1..32, the page size they give,
// a tag table of 48 entries of 32 bytes.
bool LooksLikeMdx(const uint8_t* h, size_t size, uint64_t length) {
  if (size < 48 || length % 512 != 0) return false;
  int blocks = LoadLE16(h + 20);
  return h[0] == 2 && blocks >= 1 && blocks <= 32 && LoadLE16(h + 22) == blocks * 512 &&
         h[25] == 48 && h[26] == 32;
}

// A compact .IDX or compound .CDX file: the header at offset 0 with the
// compact option bit, a root node inside the file on a 512-byte boundary.
bool LooksLikeCompact(const uint8_t* h, size_t size, uint64_t length, bool* compound) {
  if (size < 512 || length % 512 != 0) return false;
  uint32_t root = LoadLE32(h);
  int key_length = LoadLE16(h + 12);
  uint8_t options = h[14];
  if (!(options & 0x20) || root < 512 || root % 512 != 0 || root >= length) return false;
  if (key_length < 1 || key_length > 240) return false;
  *compound = (options & 0x40) != 0;
  return true;
}

// An uncompressed .IDX file: root and end of file on 512-byte boundaries, a
// free list of -1 or a node, options without the compact bit, signature 0,
// a printable key expression.
bool LooksLikeIdx(const uint8_t* h, size_t size, uint64_t length) {
  if (size < 512 || length % 512 != 0) return false;
  uint32_t root = LoadLE32(h);
  uint32_t free_list = LoadLE32(h + 4);
  uint32_t end = LoadLE32(h + 8);
  int key_length = LoadLE16(h + 12);
  return root >= 512 && root % 512 == 0 && root < length &&
         (free_list == 0xFFFFFFFFu || (free_list % 512 == 0 && free_list < length)) &&
         end % 512 == 0 && end <= length && key_length >= 1 && key_length <= 240 && h[14] < 0x20 &&
         h[15] == 0 && Printable(h + 16, 220);
}

// An .NDX file: root page and page count within the file (512-byte pages),
// an item length that fits the key length, the page capacity it gives, a
// printable key expression.
bool LooksLikeNdx(const uint8_t* h, size_t size, uint64_t length) {
  if (size < 512 || length % 512 != 0) return false;
  uint64_t pages = length / 512;
  uint32_t root = LoadLE32(h);
  uint32_t count = LoadLE32(h + 4);
  int key_length = LoadLE16(h + 12);
  int max_keys = LoadLE16(h + 14);
  int item = LoadLE16(h + 18);
  return root >= 1 && root < pages && count <= pages && key_length >= 1 && key_length <= 254 &&
         item >= key_length + 8 && item <= key_length + 12 && max_keys == 504 / item &&
         LoadLE16(h + 16) <= 6 && Printable(h + 24, 221);
}

// An .NSX file: its signature byte 0x69, 1024-byte pages.
bool LooksLikeNsx(const uint8_t* h, size_t size, uint64_t length) {
  return size >= 1024 && length % 1024 == 0 && h[0] == 0x69 && h[1] == 0;
}

}  // namespace

const char* IndexFormatName(IndexFormat format) {
  switch (format) {
    case IndexFormat::kNtx:
      return "NTX";
    case IndexFormat::kNdx:
      return "NDX";
    case IndexFormat::kMdx:
      return "MDX";
    case IndexFormat::kIdx:
      return "IDX";
    case IndexFormat::kCdx:
      return "CDX";
    case IndexFormat::kNsx:
      return "NSX";
    case IndexFormat::kUnknown:
      break;
  }
  return "unknown";
}

IndexFormat RecognizeIndexFormat(const uint8_t* head, size_t size, uint64_t file_length) {
  bool compound = false;
  if (LooksLikeNtx(head, size)) return IndexFormat::kNtx;
  if (LooksLikeMdx(head, size, file_length)) return IndexFormat::kMdx;
  if (LooksLikeCompact(head, size, file_length, &compound)) {
    return compound ? IndexFormat::kCdx : IndexFormat::kIdx;
  }
  if (LooksLikeNsx(head, size, file_length)) return IndexFormat::kNsx;
  if (LooksLikeNdx(head, size, file_length)) return IndexFormat::kNdx;
  if (LooksLikeIdx(head, size, file_length)) return IndexFormat::kIdx;
  return IndexFormat::kUnknown;
}

constexpr ModulePath kCheck = KS_ENGINE_MODULE("CCHECK");

namespace {

// Opens path read-only and shared, and runs body(file, length).
template <class Body>
int32_t OnFile(const char* path, Body&& body) {
  FileHandle file = kNoFile;
  uint32_t attributes = 0;
  int32_t rc = FileOpen(&file, path, DB_OPEN_READONLY | DB_OPEN_SHARED, &attributes);
  if (rc < 0) return KS_PASS(kCheck, rc);
  uint64_t length = 0;
  rc = FileSize(file, &length);
  if (rc >= 0) rc = body(file, length);
  FileClose(file);
  if (rc < 0) return KS_PASS(kCheck, rc);
  return Record(rc);
}

}  // namespace

int32_t CheckFileWith(const char* path, FileChecker check, Vec<CheckFinding>* findings,
                      CheckSummary* summary) {
  if (!path || !check || !findings || !summary) return KS_FAIL(kCheck, DB_ERR_NULL);
  *summary = CheckSummary{};
  findings->clear();
  Succeed();
  return OnFile(path, [&](FileHandle file, uint64_t length) {
    int32_t rc = check(file, length, findings, summary);
    return rc < 0 ? rc : 0;
  });
}

int32_t CheckIndexFile(const char* path, const FormatChecker* checkers, size_t count,
                       IndexFormat* format, Vec<CheckFinding>* findings, CheckSummary* summary) {
  if (!path || !checkers || count == 0 || !format || !findings || !summary) {
    return KS_FAIL(kCheck, DB_ERR_NULL);
  }
  *summary = CheckSummary{};
  *format = IndexFormat::kUnknown;
  findings->clear();
  Succeed();
  return OnFile(path, [&](FileHandle file, uint64_t length) {
    uint8_t head[1024] = {};
    size_t size = length < sizeof head ? static_cast<size_t>(length) : sizeof head;
    if (size > 0) {
      int32_t rc = FileReadAt(file, 0, head, size);
      if (rc < 0) return rc;
    }
    *format = RecognizeIndexFormat(head, size, length);
    const FormatChecker* chosen = *format == IndexFormat::kUnknown ? checkers : nullptr;
    for (size_t i = 0; i < count && !chosen; ++i) {
      if (checkers[i].format == *format) chosen = &checkers[i];
    }
    if (!chosen) return int32_t{DB_WARN_NOT_SUPPORTED};
    Succeed();
    int32_t rc = chosen->check(file, length, findings, summary);
    return rc < 0 ? rc : 0;
  });
}

// ---- Checker --------------------------------------------------------------

Checker::Checker(FileHandle file, uint64_t length, uint32_t page_size, Vec<CheckFinding>* findings,
                 CheckSummary* summary)
    : file_(file), length_(length), page_size_(page_size), findings_(findings), summary_(summary) {}

void Checker::Add(Severity severity, uint32_t page, int32_t code, const char* format,
                  va_list args) {
  CheckFinding f{};
  f.severity = severity;
  f.page = page;
  f.code = code;
  std::vsnprintf(f.text, sizeof f.text, format, args);
  findings_->push_back(f);
}

void Checker::Fault(uint32_t page, int32_t code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Add(Severity::kFault, page, code, format, args);
  va_end(args);
}

void Checker::Warn(uint32_t page, int32_t code, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Add(Severity::kWarning, page, code, format, args);
  va_end(args);
}

void Checker::Note(uint32_t page, const char* format, ...) {
  va_list args;
  va_start(args, format);
  Add(Severity::kInfo, page, 0, format, args);
  va_end(args);
}

bool Checker::ReadPage(uint32_t offset, uint8_t* page) {
  if (FileReadAt(file_, offset, page, page_size_) < 0) {
    Fault(offset, DB_ERR_READ, "page at %u cannot be read whole", offset);
    return false;
  }
  return true;
}

bool Checker::PageInFile(uint32_t offset) const {
  return offset >= page_size_ && offset < length_ && offset % page_size_ == 0;
}

void Checker::StartWalk() { marks_.assign(length_ / page_size_ + 1, kUnseen); }

bool Checker::EnterTreePage(uint32_t offset, int depth) {
  if (!PageInFile(offset)) {
    Fault(offset, DB_ERR_SEEK, "child offset %u is outside the file or not on a page boundary",
          offset);
    return false;
  }
  uint32_t index = offset / page_size_;
  if (marks_[index] != kUnseen) {
    Fault(offset, DB_ERR_CORRUPTED, "page %u is reached twice", offset);
    return false;
  }
  if (depth >= kMaxDepth) {
    Fault(offset, DB_ERR_CORRUPTED, "tree deeper than %d levels", kMaxDepth);
    return false;
  }
  marks_[index] = kTree;
  ++summary_->tree_pages;
  return true;
}

void Checker::LeafAt(uint32_t offset, int depth) {
  if (leaf_depth_ < 0) leaf_depth_ = depth;
  if (leaf_depth_ != depth) {
    Fault(offset, DB_ERR_CORRUPTED, "leaf at depth %d, others at depth %d", depth, leaf_depth_);
  }
  if (static_cast<uint32_t>(depth + 1) > summary_->depth) summary_->depth = depth + 1;
}

bool Checker::FreeListEntry(uint32_t offset) {
  if (!PageInFile(offset)) {
    Fault(offset, DB_ERR_SEEK, "free-list link %u is outside the file", offset);
    return false;
  }
  uint32_t index = offset / page_size_;
  if (marks_[index] == kFree) {
    Fault(offset, DB_ERR_CORRUPTED, "free list loops at page %u", offset);
    return false;
  }
  if (marks_[index] == kTree) {
    Fault(offset, DB_ERR_CORRUPTED, "free page %u is also in the tree", offset);
    return false;
  }
  marks_[index] = kFree;
  ++summary_->free_pages;
  return true;
}

void Checker::ReportUnreachedPages(uint32_t first_page, Severity severity) {
  uint32_t pages = static_cast<uint32_t>(length_ / page_size_);
  uint32_t lost = 0;
  uint32_t first_lost = 0;
  for (uint32_t i = first_page; i < pages; ++i) {
    if (marks_[i] == kUnseen && lost++ == 0) first_lost = i * page_size_;
  }
  if (lost) {
    CheckFinding f{};
    f.severity = severity;
    f.page = first_lost;
    f.code = severity == Severity::kFault ? DB_ERR_CORRUPTED : 0;
    std::snprintf(f.text, sizeof f.text, "%u page(s) neither in the tree nor free, first at %u",
                  lost, first_lost);
    findings_->push_back(f);
  }
}

// ---- Key order --------------------------------------------------------------

void Checker::StartKeys(int key_length, bool descending, bool unique, KeyOrderFn order,
                        const void* order_context) {
  order_ = order;
  order_context_ = order_context;
  key_length_ = key_length;
  descending_ = descending;
  unique_ = unique;
  have_previous_ = false;
  previous_.assign(key_length, 0);
  disorder_.clear();
  before_.assign(256 * 4, 0);
}

void Checker::Key(uint32_t page, const uint8_t* key, uint32_t record) {
  if (have_previous_) {
    // In ascending terms: `first` is the key that must not sort after `second`.
    const uint8_t* first = descending_ ? key : previous_.data();
    const uint8_t* second = descending_ ? previous_.data() : key;
    if (order_) {
      int c = order_(order_context_, first, second, key_length_);
      if (c > 0) {
        Fault(page, DB_ERR_CORRUPTED, "key of record %u is out of order", record);
      } else if (c == 0 && unique_) {
        Fault(page, DB_ERR_CORRUPTED,
              "key of record %u is out of order (duplicate in a unique index)", record);
      }
      std::memcpy(previous_.data(), key, key_length_);
      ++summary_->keys;
      return;
    }
    int i = 0;
    while (i < key_length_ && first[i] == second[i]) ++i;
    if (i == key_length_) {
      if (unique_) {
        Fault(page, DB_ERR_CORRUPTED,
              "key of record %u is out of order (duplicate in a unique index)", record);
      }
    } else {
      before_[first[i] * 4 + second[i] / 64] |= uint64_t{1} << (second[i] % 64);
      if (first[i] > second[i]) {
        CheckFinding f{};
        f.severity = Severity::kFault;
        f.page = page;
        f.code = DB_ERR_CORRUPTED;
        std::snprintf(f.text, sizeof f.text, "key of record %u is out of order", record);
        disorder_.push_back(f);
      }
    }
  }
  std::memcpy(previous_.data(), key, key_length_);
  have_previous_ = true;
  ++summary_->keys;
}

namespace {

// True when bytes a and b may be ordered differently from their codes by a
// national collation: a letter or digit against anything else, letters of
// different case, or a byte outside ASCII.  Letters of one case among
// themselves, and digits, are in code order in every collation.
bool CollationMayReorder(uint8_t a, uint8_t b) {
  if (a >= 0x80 || b >= 0x80) return true;
  if (!std::isalnum(a) || !std::isalnum(b)) return true;
  if (std::isdigit(a) || std::isdigit(b)) return std::isdigit(a) != std::isdigit(b);
  return (std::isupper(a) != 0) != (std::isupper(b) != 0);
}

}  // namespace

// An index built by a program that sorts with a national collation holds
// its keys in an order of its own: each character has a place in the
// collation's order, and keys compare at their first differing character.
// The walk is consistent with such an order when the "comes before" relation
// between the characters at the first difference of neighbouring keys has no
// cycle, and every pair that byte order would put the other way round is a
// pair a collation reorders.  Keys that are merely out of place break one of
// the two, unless the index holds too few keys to tell.
bool Checker::KeysFollowACollation() const {
  for (int a = 0; a < 256; ++a) {
    for (int b = 0; b < a; ++b) {
      if ((before_[a * 4 + b / 64] >> (b % 64)) & 1) {
        if (!CollationMayReorder(static_cast<uint8_t>(a), static_cast<uint8_t>(b))) return false;
      }
    }
  }
  // Depth-first search for a cycle: 0 unseen, 1 on the stack, 2 done.
  uint8_t state[256] = {};
  int stack[256];
  int next[256];
  for (int start = 0; start < 256; ++start) {
    if (state[start]) continue;
    int top = 0;
    stack[0] = start;
    next[0] = 0;
    state[start] = 1;
    while (top >= 0) {
      int node = stack[top];
      int b = next[top]++;
      if (b == 256) {
        state[node] = 2;
        --top;
        continue;
      }
      if (!((before_[node * 4 + b / 64] >> (b % 64)) & 1) || b == node) continue;
      if (state[b] == 1) return false;
      if (state[b] == 0) {
        state[b] = 1;
        ++top;
        stack[top] = b;
        next[top] = 0;
      }
    }
  }
  return true;
}

void Checker::FinishKeys() {
  if (disorder_.empty()) return;
  if (KeysFollowACollation()) {
    Warn(0, 0,
         "%zu key(s) out of byte order, but in one consistent order of characters: a national "
         "collation; this library orders keys by bytes",
         disorder_.size());
    return;
  }
  for (const CheckFinding& f : disorder_) findings_->push_back(f);
}

}  // namespace kestrel::index
