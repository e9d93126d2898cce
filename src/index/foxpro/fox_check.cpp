// The IDX and CDX invariant checker (see fox_check.h).
#include "index/foxpro/fox_check.h"

#include <cstring>

#include "index/foxpro/fox_format.h"
#include "kestrel/kestrel_frame.h"
#include "runtime/file_services.h"

namespace kestrel::foxpro {
namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;
bool IsNoLink(uint32_t link) { return link == 0 || link == kNone; }

class FoxChecker : public index::Checker {
 public:
  using Checker::Checker;
  int32_t Run(FileHandle file);

 private:
  struct TagHeader {
    uint32_t root = 0;
    int key_length = 0;
    uint8_t options = 0;
    bool descending = false;
  };
  struct LevelLink {
    uint32_t node = 0;  // last node seen at this level (0: none yet)
    uint32_t right = 0;
  };

  bool ReadHeader(uint32_t offset, const char* tag, TagHeader* h);
  bool DecodeLeafWithPad(const uint8_t* bytes, const uint8_t* parent_key, Node* node);
  // Walks one tree; visit(key, record) sees its keys in order.
  template <class Visit>
  void CheckTree(const char* tag, const TagHeader& h, uint8_t pad, Visit&& visit);
  template <class Visit>
  bool Walk(uint32_t offset, int depth, const uint8_t* parent_key, Visit& visit,
            uint8_t* last_key, uint32_t* last_record);

  bool compact_ = false;
  bool pad_known_ = false;
  const char* tag_ = "";
  NodeShape shape_;
  bool unique_ = false;
  LevelLink levels_[kMaxDepth] = {};
  Vec<uint8_t> previous_;
  uint32_t previous_record_ = 0;
  bool have_previous_ = false;
};

bool FoxChecker::ReadHeader(uint32_t offset, const char* tag, TagHeader* h) {
  uint8_t b[kCompactHeaderSize] = {};
  uint32_t size = compact_ ? kCompactHeaderSize : kNodeSize;
  if (offset % kNodeSize != 0 || offset + static_cast<uint64_t>(size) > length()) {
    Fault(offset, DB_ERR_CORRUPTED, "%s: header at %u is outside the file", tag, offset);
    return false;
  }
  if (offset != 0) {
    if (!EnterTreePage(offset, 0) || !EnterTreePage(offset + kNodeSize, 0)) return false;
  }
  if (!ReadPage(offset, b)) return false;
  if (compact_ && !ReadPage(offset + kNodeSize, b + kNodeSize)) return false;
  h->root = LoadLE32(b);
  h->key_length = LoadLE16(b + 12);
  h->options = b[14];
  bool ok = true;
  if (h->key_length < 1 || h->key_length > kMaxKeyLength) {
    Fault(offset, DB_ERR_KEY_LENGTH, "%s: key length %d outside 1..254", tag, h->key_length);
    ok = false;
  }
  if (compact_) {
    if (h->options <= 31) {
      Fault(offset, DB_ERR_CORRUPTED, "%s: options %#x lack the compact bit", tag, h->options);
      ok = false;
    }
    h->descending = LoadLE16(b + 502) != 0;
    uint32_t for_start = LoadLE16(b + 504), for_length = LoadLE16(b + 506);
    uint32_t expr_length = LoadLE16(b + 510);
    if (expr_length > kNodeSize || for_start > kNodeSize || for_length > kNodeSize - for_start) {
      Fault(offset, DB_ERR_BAD_EXPRESSION, "%s: expressions reach past the expression pool", tag);
    } else if (strnlen(reinterpret_cast<const char*>(b + kNodeSize), expr_length) >
               static_cast<size_t>(kMaxExpression)) {
      Fault(offset, DB_ERR_BAD_EXPRESSION, "%s: key expression longer than %d", tag,
            kMaxExpression);
    } else if (for_length > 1) {
      Note(offset, "%s: FOR %.100s (keys only of the records it selects)", tag,
           reinterpret_cast<const char*>(b + kNodeSize + for_start));
    }
  } else if (b[236] != 0) {
    Note(offset, "%s: FOR %.100s (keys only of the records it selects)", tag,
         reinterpret_cast<const char*>(b + 236));
  }
  if (!PageInFile(h->root)) {
    Fault(offset, DB_ERR_ROOT_PAGE, "%s: root %u is outside the file", tag, h->root);
    ok = false;
  }
  return ok;
}

// The pad character trailing counts stand for is not stored: character keys
// pad with blanks, others with zeros.  A leaf is read with the pad under
// which its keys are in order and its last key is the full key its parent
// holds for it; the first leaf where only one pad fits settles the tag's.
bool FoxChecker::DecodeLeafWithPad(const uint8_t* bytes, const uint8_t* parent_key, Node* node) {
  if (pad_known_) return DecodeNode(bytes, shape_, node);
  const int kl = shape_.key_length;
  int fits = 0;
  uint8_t fitting = ' ';
  for (uint8_t pad : {static_cast<uint8_t>(' '), static_cast<uint8_t>(0)}) {
    shape_.pad = pad;
    if (!DecodeNode(bytes, shape_, node)) return false;
    bool ok = node->count == 0 ||
              !parent_key || std::memcmp(node->Key(node->count - 1, kl), parent_key, kl) == 0;
    for (int i = 1; ok && i < node->count; ++i)
      ok = std::memcmp(node->Key(i - 1, kl), node->Key(i, kl), kl) <= 0;
    if (ok && fits++ == 0) fitting = pad;
  }
  if (fits == 1) pad_known_ = true;
  shape_.pad = fitting;
  return DecodeNode(bytes, shape_, node);
}

template <class Visit>
bool FoxChecker::Walk(uint32_t offset, int depth, const uint8_t* parent_key, Visit& visit,
                      uint8_t* last_key, uint32_t* last_record) {
  const bool is_root = depth == 0;
  if (!EnterTreePage(offset, depth)) return false;
  uint8_t bytes[kNodeSize];
  if (!ReadPage(offset, bytes)) return false;
  const int kl = shape_.key_length;
  Node node;
  Vec<uint8_t> keys(static_cast<size_t>(kMaxNodeEntries) * kl);
  node.keys = keys.data();
  bool decoded = compact_ && (LoadLE16(bytes) & kAttrLeaf)
                     ? DecodeLeafWithPad(bytes, parent_key, &node)
                     : DecodeNode(bytes, shape_, &node);
  if (!decoded) {
    Fault(offset, DB_ERR_CORRUPTED,
          "%s: node does not decode (counts, widths or fragments outside the node)", tag_);
    return false;
  }
  if (((node.attributes & kAttrRoot) != 0) != is_root) {
    Fault(offset, DB_ERR_CORRUPTED, "%s: root attribute %s", tag_,
          is_root ? "missing on the root" : "on a node below the root");
  }
  LevelLink& link = levels_[depth];
  uint32_t expected_left = link.node;
  if (link.node != 0 && link.right != offset) {
    Fault(link.node, DB_ERR_CORRUPTED, "%s: right sibling %u, the next node is %u", tag_,
          link.right, offset);
  }
  if (expected_left == 0 ? !IsNoLink(node.left) : node.left != expected_left) {
    Fault(offset, DB_ERR_CORRUPTED, "%s: left sibling %u, the node before is %u", tag_, node.left,
          expected_left);
  }
  link.node = offset;
  link.right = node.right;
  if (node.count == 0) {
    if (!is_root) Fault(offset, DB_ERR_CORRUPTED, "%s: empty node below the root", tag_);
    return false;
  }
  if (node.IsLeaf()) {
    if (compact_ && node.free_bytes != kLeafArea - node.used_bytes) {
      Fault(offset, DB_ERR_CORRUPTED, "%s: free space %u, the entries leave %d", tag_,
            node.free_bytes, kLeafArea - node.used_bytes);
    }
    LeafAt(offset, depth);
    for (int i = 0; i < node.count; ++i) {
      const uint8_t* key = node.Key(i, kl);
      if (have_previous_ && std::memcmp(previous_.data(), key, kl) == 0 &&
          node.records[i] <= previous_record_ && !unique_) {
        Fault(offset, DB_ERR_CORRUPTED, "%s: equal keys of records %u and %u out of record order",
              tag_, previous_record_, node.records[i]);
      }
      std::memcpy(previous_.data(), key, kl);
      previous_record_ = node.records[i];
      have_previous_ = true;
      Key(offset, key, node.records[i]);
      visit(key, node.records[i]);
    }
    std::memcpy(last_key, node.Key(node.count - 1, kl), kl);
    *last_record = node.records[node.count - 1];
    return true;
  }
  Vec<uint8_t> child_key(kl);
  for (int i = 0; i < node.count; ++i) {
    uint32_t child_record = 0;
    // The node's entries stay in `node`: a child walk decodes into its own.
    if (!Walk(node.children[i], depth + 1, node.Key(i, kl), visit, child_key.data(),
              &child_record))
      continue;
    if (std::memcmp(child_key.data(), node.Key(i, kl), kl) != 0 ||
        (compact_ && child_record != node.records[i])) {
      Fault(offset, DB_ERR_CORRUPTED,
            "%s: interior entry %d is not the last key and record of its child %u", tag_, i,
            node.children[i]);
    }
  }
  std::memcpy(last_key, node.Key(node.count - 1, kl), kl);
  *last_record = node.records[node.count - 1];
  return true;
}

template <class Visit>
void FoxChecker::CheckTree(const char* tag, const TagHeader& h, uint8_t pad, Visit&& visit) {
  tag_ = tag;
  shape_ = NodeShape{h.key_length, compact_, pad};
  // The directory's pad is known; a tag's is found from its leaves.
  pad_known_ = pad != 0 || !compact_;
  unique_ = (h.options & kOptUnique) != 0;
  for (LevelLink& l : levels_) l = LevelLink{};
  previous_.assign(static_cast<size_t>(h.key_length), 0);
  have_previous_ = false;
  StartTree();
  // Trees are kept in ascending order whatever the tag's order.
  StartKeys(h.key_length, false, unique_);
  Vec<uint8_t> last(static_cast<size_t>(h.key_length));
  uint32_t last_record = 0;
  Walk(h.root, 0, nullptr, visit, last.data(), &last_record);
  FinishKeys();
  for (const LevelLink& l : levels_) {
    if (l.node != 0 && !IsNoLink(l.right)) {
      Fault(l.node, DB_ERR_CORRUPTED, "%s: last node of a level has right sibling %u", tag,
            l.right);
    }
  }
}

int32_t FoxChecker::Run(FileHandle file) {
  (void)file;
  uint8_t h[kNodeSize] = {};
  if (length() < kNodeSize * 2) {
    Fault(0, DB_ERR_HEADER_LENGTH, "file of %llu bytes is shorter than a header and a node",
          static_cast<unsigned long long>(length()));
    return 0;
  }
  if (!ReadPage(0, h)) return 0;
  compact_ = h[14] > 31;
  bool compound = h[14] > 63;
  if (length() % kNodeSize != 0) {
    Fault(0, DB_WARN_FILE_LENGTH, "file length %llu is not a multiple of 512",
          static_cast<unsigned long long>(length()));
  }
  StartWalk();
  TagHeader header;
  if (!ReadHeader(0, compound ? "directory" : "index", &header)) return 0;
  summary()->key_length = static_cast<uint16_t>(compound ? 0 : header.key_length);
  summary()->unique = !compound && (header.options & kOptUnique) != 0;
  summary()->descending = !compound && header.descending;
  if (!compound) {
    CheckTree("index", header, 0, [](const uint8_t*, uint32_t) {});
  } else {
    struct Entry {
      char name[12];
      uint32_t offset;
    };
    Vec<Entry> tags;
    CheckTree("directory", header, ' ', [&](const uint8_t* key, uint32_t record) {
      Entry e{};
      int n = header.key_length < 10 ? header.key_length : 10;
      std::memcpy(e.name, key, static_cast<size_t>(n));
      while (n > 0 && (e.name[n - 1] == ' ' || e.name[n - 1] == 0)) e.name[--n] = 0;
      e.offset = record;
      tags.push_back(e);
    });
    for (const Entry& e : tags) {
      TagHeader t;
      if (e.offset < kCompactHeaderSize) {
        Fault(0, DB_ERR_CORRUPTED, "tag %s: header offset %u inside the file header", e.name,
              e.offset);
        continue;
      }
      if (!ReadHeader(e.offset, e.name, &t)) continue;
      uint64_t before = summary()->keys;
      CheckTree(e.name, t, 0, [](const uint8_t*, uint32_t) {});
      Note(e.offset, "tag %s: %llu keys%s%s", e.name,
           static_cast<unsigned long long>(summary()->keys - before),
           (t.options & kOptUnique) ? ", unique" : "", t.descending ? ", descending" : "");
    }
  }
  uint32_t free_head = LoadLE32(h + 4);
  WalkFreeList(IsNoLink(free_head) ? 0 : free_head,
               [](uint32_t, const uint8_t* page, uint32_t* next) {
                 uint32_t link = LoadLE32(page);
                 *next = IsNoLink(link) ? 0 : link;
                 return true;
               });
  // Other writers leave nodes they no longer use off the free list.
  ReportUnreachedPages(compact_ ? 2 : 1, index::Severity::kWarning);
  return 0;
}

}  // namespace

int32_t CheckOpenFile(FileHandle file, uint64_t length, Vec<index::CheckFinding>* findings,
                      index::CheckSummary* summary) {
  FoxChecker checker(file, length, kNodeSize, findings, summary);
  return checker.Run(file);
}

}  // namespace kestrel::foxpro
