// Opening and closing FoxPro index files, the tag directory of compound
// files, tag handles, node loading over the shared page cache, the index
// lock, header reread, flush and cache size.
#include "index/foxpro/fox_index.h"

#include <cctype>
#include <cstring>

#include "runtime/file_services.h"

namespace kestrel::foxpro {
namespace {

constexpr ModulePath kOpen = KS_ENGINE_MODULE("OOPEN");
constexpr ModulePath kTagInfo = KS_ENGINE_MODULE("OTINFO");
constexpr ModulePath kCache = KS_ENGINE_MODULE("OTBFRSZ");

constexpr uint32_t kCompactLockOffset = 0x7FFFFFFE;
constexpr uint32_t kPlainLockOffset = 0x40000000;
// Levels of the path: no minimum fill is kept, so allow for nodes of one
// entry below the root (more than any tree of 2^31 keys needs).
constexpr int kMinEntriesBelowRoot = 1;

int32_t CloseRoutine(int32_t handle) { return CloseIndex(handle); }

// Copies text without blanks, upper-cased, into a new buffer.
char* NormalisedCopy(const uint8_t* text, size_t length) {
  char* out = static_cast<char*>(MemAlloc(length + 1));
  if (!out) return nullptr;
  size_t n = 0;
  for (size_t i = 0; i < length; ++i) {
    if (text[i] == ' ') continue;
    out[n++] = static_cast<char>(std::toupper(text[i]));
  }
  out[n] = '\0';
  return out;
}

uint32_t LockOffset(const FoxIndex* ix) {
  return ix->compact ? kCompactLockOffset : kPlainLockOffset;
}

int32_t SetUpPath(Tag* tag, ModulePath module) {
  int depth = index::PathStack::DepthFor(kMinEntriesBelowRoot);
  tag->levels = static_cast<Node**>(MemAlloc(sizeof(Node*) * depth));
  if (!tag->levels || !tag->path.Allocate(depth, tag->key_length()))
    return KS_FAIL(module, DB_ERR_MEMORY);
  tag->level_count = depth;
  return 0;
}

// The tag of an index handle's slot, or nullptr.
Tag* TagInSlot(FoxIndex* ix, uint32_t slot) {
  if (!ix->compound) return slot == 0 ? ix->single : nullptr;
  if (slot == 0 || slot > static_cast<uint32_t>(ix->open_tag_slots)) return nullptr;
  return ix->open_tags[slot - 1];
}

}  // namespace

void FoxPageFormat::LayOutEmpty(uint8_t* page) const {
  std::memset(page, 0, kNodeSize);
  StoreLE16(page, kAttrRoot | kAttrLeaf);
  StoreLE32(page + 4, 0xFFFFFFFFu);
  StoreLE32(page + 8, 0xFFFFFFFFu);
}

Tag::~Tag() {
  MemFree(expression);
  MemFree(for_expression);
  if (levels) {
    for (int i = 0; i < level_count; ++i) {
      if (levels[i]) {
        MemFree(levels[i]->keys);
        Delete(levels[i]);
      }
    }
    MemFree(levels);
  }
}

FoxIndex::~FoxIndex() {
  MemFree(file_name);
  Delete(single);
  Delete(directory);
  for (int i = 0; i < open_tag_slots; ++i) Delete(open_tags[i]);
  MemFree(open_tags);
}

int32_t SelectIndex(int32_t handle, FoxIndex** index, ModulePath module) {
  if (handle < 0) return KS_FAIL(module, DB_ERR_INVALID_HANDLE);
  int32_t rc = CheckHandle<FoxIndex>(handle & 0xFFFF, DB_KIND_FOX_INDEX, index);
  if (rc < 0) return KS_FAIL(module, rc);
  return 0;
}

int32_t SelectTag(int32_t handle, FoxIndex** index, Tag** tag, ModulePath module) {
  int32_t rc = SelectIndex(handle, index, module);
  if (rc < 0) return rc;
  *tag = TagInSlot(*index, static_cast<uint32_t>(handle) >> 16);
  if (!*tag) return KS_FAIL(module, DB_ERR_TAG_HANDLE);
  return 0;
}

// ------------------------------------------------------------ tag headers

int32_t ReadTagHeader(FoxIndex* ix, uint32_t offset, Tag* tag, ModulePath module) {
  uint64_t length = ix->pages.file_length();
  uint32_t size = ix->compact ? kCompactHeaderSize : kNodeSize;
  if (offset % kNodeSize != 0 || offset + static_cast<uint64_t>(size) > length)
    return KS_FAIL(module, DB_ERR_CORRUPTED);
  uint8_t h[kCompactHeaderSize];
  int32_t rc = FileReadAt(ix->file, offset, h, size);
  if (rc < 0) return KS_FAIL(module, rc);
  int key_length = LoadLE16(h + 12);
  if (key_length == 0 || key_length > kMaxKeyLength) return KS_FAIL(module, DB_ERR_KEY_LENGTH);
  tag->header_offset = offset;
  tag->root = LoadLE32(h);
  tag->options = h[14];
  tag->shape.key_length = key_length;
  tag->shape.compact = ix->compact;
  const uint8_t* expr = nullptr;
  size_t expr_length = 0;
  const uint8_t* cond = nullptr;
  size_t cond_length = 0;
  if (ix->compact) {
    if (h[14] <= 31) return KS_FAIL(module, DB_ERR_CORRUPTED);
    tag->descending = LoadLE16(h + 502) != 0;
    uint32_t for_start = LoadLE16(h + 504);
    uint32_t for_length = LoadLE16(h + 506);
    uint32_t key_expr_length = LoadLE16(h + 510);
    if (key_expr_length > kNodeSize || for_start > kNodeSize ||
        for_length > kNodeSize - for_start)
      return KS_FAIL(module, DB_ERR_CORRUPTED);
    expr = h + kNodeSize;
    expr_length = strnlen(reinterpret_cast<const char*>(expr), key_expr_length);
    cond = h + kNodeSize + for_start;
    cond_length = strnlen(reinterpret_cast<const char*>(cond), for_length);
  } else {
    expr = h + 16;
    expr_length = strnlen(reinterpret_cast<const char*>(expr), 220);
    cond = h + 236;
    cond_length = strnlen(reinterpret_cast<const char*>(cond), 220);
  }
  if (expr_length > kMaxExpression) return KS_FAIL(module, DB_ERR_BAD_EXPRESSION);
  tag->has_for = cond_length > 0 || (ix->compact && (tag->options & kOptFor) != 0);
  MemFree(tag->expression);
  MemFree(tag->for_expression);
  tag->expression = NormalisedCopy(expr, expr_length);
  tag->for_expression = NormalisedCopy(cond, cond_length);
  if (!tag->expression || !tag->for_expression) return KS_FAIL(module, DB_ERR_MEMORY);
  if (tag->root < kNodeSize || tag->root >= length) return KS_FAIL(module, DB_ERR_ROOT_PAGE);
  if (!tag->levels) return SetUpPath(tag, module);
  return 0;
}

// -------------------------------------------------------------- open

int32_t OpenIndex(int32_t* handle, const char* file_name, int32_t open_mode) {
  RegisterCloseRoutine(DB_KIND_FOX_INDEX, &CloseRoutine);
  if (!handle || !file_name) {
    if (handle) *handle = -1;
    return KS_FAIL(kOpen, DB_ERR_NULL);
  }
  FoxIndex* ix = nullptr;
  int32_t rc = AllocateHandle<FoxIndex>(handle, DB_KIND_FOX_INDEX, &ix);
  if (rc < 0) return KS_PASS(kOpen, rc);
  Succeed();
  int32_t mode = NormaliseOpenSwitches(open_mode);
  uint32_t attributes = 0;
  rc = FileOpen(&ix->file, file_name, mode, &attributes);
  if (rc >= 0) {
    if (attributes & kAttrReadOnly) ix->state |= kStateReadOnly;
    if (attributes & kAttrShared) ix->state |= kStateShared;
    if (mode & (DB_OPEN_WRITETHROUGH | DB_OPEN_UNBUFFERED)) ix->state |= kStateWriteThrough;
    if (mode & DB_OPEN_WRITETHROUGH) ix->write_mode = 1;
    if ((mode & DB_OPEN_AUTOLOCK) && IsShared(ix)) ix->state |= kStateAutoLock;
    if (IsShared(ix)) ix->state |= kStateHeaderStale;
    int low = mode & 0xFF;
    if (low != 0 && low != 3 && low != 4 && low != 8) rc = KS_FAIL(kOpen, DB_ERR_VERSION);
  } else {
    ix->file = kNoFile;
    rc = KS_PASS(kOpen, rc);
  }
  uint64_t length = 0;
  uint8_t head[16] = {};
  if (rc >= 0) {
    rc = FileSize(ix->file, &length);
    if (rc < 0) rc = KS_PASS(kOpen, rc);
  }
  if (rc >= 0) {
    rc = FileReadAt(ix->file, 0, head, sizeof head);
    if (rc < 0) rc = KS_FAIL(kOpen, rc);
  }
  if (rc >= 0) {
    ix->compact = head[14] > 31;
    ix->compound = head[14] > 63;
    ix->free_head = LoadLE32(head + 4);
    size_t n = std::strlen(file_name);
    ix->file_name = static_cast<char*>(MemAlloc(n + 1));
    if (!ix->file_name) {
      rc = KS_FAIL(kOpen, DB_ERR_MEMORY);
    } else {
      std::memcpy(ix->file_name, file_name, n);
      int wanted = IsWriteThrough(ix) ? kWriteThroughBuffers : kDefaultBuffers;
      rc = ix->pages.Open(ix->file, length, kNodeSize, kNodeSize, &ix->page_format, kCache,
                          ix->write_mode, !IsShared(ix), kDefaultBuffers, wanted, kMinBuffers);
      if (rc < 0) rc = KS_FAIL(kOpen, rc);
    }
  }
  if (rc >= 0) {
    Tag* tag = New<Tag>();
    if (!tag) {
      rc = KS_FAIL(kOpen, DB_ERR_MEMORY);
    } else {
      if (ix->compound) {
        ix->directory = tag;
      } else {
        ix->single = tag;
      }
      rc = ReadTagHeader(ix, 0, tag, kOpen);
      if (rc >= 0 && ix->compound) {
        tag->type = 'C';
        tag->shape.pad = ' ';
      }
    }
  }
  if (rc < 0) {
    if (ix->file != kNoFile) FileClose(ix->file);
    ReleaseHandle(*handle);
    *handle = -1;
    return Record(rc);
  }
  return Succeed();
}

int32_t CloseIndex(int32_t handle) {
  FoxIndex* ix = nullptr;
  int32_t rc = SelectIndex(handle, &ix, kOpen);
  if (rc < 0) return rc;
  Succeed();
  int32_t result = 0;
  if (!(ix->state & kStateReadOnly)) {
    rc = ix->pages.WriteChanged(false);
    if (rc < 0) result = KS_PASS(kOpen, rc);
  }
  if (ix->lock_state == kLockHeld) {
    FileLock(ix->file, 1, LockOffset(ix), 1);
    ix->lock_state = 0;
  }
  ix->pages.Unmap();
  rc = FileClose(ix->file);
  if (rc < 0 && result >= 0) result = KS_PASS(kOpen, rc);
  ReleaseHandle(handle & 0xFFFF);
  return result < 0 ? Record(result) : Succeed();
}

// ------------------------------------------------------------------ tags

int32_t ReadDirectory(FoxIndex* ix, DirectoryEntry** list, int32_t* count, ModulePath module) {
  *list = nullptr;
  *count = 0;
  if (!ix->compound) return 0;
  Tag* dir = ix->directory;
  int32_t capacity = 0;
  DirectoryEntry* entries = nullptr;
  int32_t n = 0;
  bool out_of_memory = false;
  int kl = dir->key_length();
  int32_t rc = WalkKeys(ix, dir, [&](const uint8_t* key, uint32_t record) {
    if (n == capacity) {
      int32_t more = capacity ? capacity * 2 : 16;
      auto* grown = static_cast<DirectoryEntry*>(
          MemRealloc(entries, sizeof(DirectoryEntry) * static_cast<size_t>(more)));
      if (!grown) {
        out_of_memory = true;
        return false;
      }
      entries = grown;
      capacity = more;
    }
    DirectoryEntry& e = entries[n++];
    std::memset(e.name, 0, sizeof e.name);
    int len = kl < 10 ? kl : 10;
    while (len > 0 && (key[len - 1] == ' ' || key[len - 1] == 0)) --len;
    for (int i = 0; i < len; ++i)
      e.name[i] = static_cast<char>(std::toupper(key[i]));
    e.header_offset = record;
    return true;
  });
  dir->path.Forget();
  if (out_of_memory) rc = KS_FAIL(module, DB_ERR_MEMORY);
  if (rc < 0 && rc != DB_WARN_FILE_EMPTY) {
    MemFree(entries);
    return KS_PASS(module, rc);
  }
  *list = entries;
  *count = n;
  return 0;
}

namespace {

int32_t OpenTagAt(FoxIndex* ix, int32_t handle, int32_t* tag_handle, const DirectoryEntry& e,
                  ModulePath module) {
  for (int i = 0; i < ix->open_tag_slots; ++i) {
    if (ix->open_tags[i] && ix->open_tags[i]->header_offset == e.header_offset)
      return KS_FAIL(module, DB_ERR_TAG_IN_USE);
  }
  if (e.header_offset < kCompactHeaderSize) return KS_FAIL(module, DB_ERR_CORRUPTED);
  Tag* tag = New<Tag>();
  if (!tag) return KS_FAIL(module, DB_ERR_MEMORY);
  int32_t rc = ReadTagHeader(ix, e.header_offset, tag, module);
  if (rc < 0) {
    Delete(tag);
    return rc;
  }
  std::memcpy(tag->name, e.name, sizeof tag->name);
  int slot = 0;
  while (slot < ix->open_tag_slots && ix->open_tags[slot]) ++slot;
  if (slot == ix->open_tag_slots) {
    if (slot >= 0xFFFF) {
      Delete(tag);
      return KS_FAIL(module, DB_ERR_TAG_COUNT);
    }
    int more = slot ? slot * 2 : 8;
    auto* grown = static_cast<Tag**>(MemRealloc(ix->open_tags, sizeof(Tag*) * more));
    if (!grown) {
      Delete(tag);
      return KS_FAIL(module, DB_ERR_MEMORY);
    }
    for (int i = slot; i < more; ++i) grown[i] = nullptr;
    ix->open_tags = grown;
    ix->open_tag_slots = more;
  }
  ix->open_tags[slot] = tag;
  tag->slot = slot + 1;
  *tag_handle = static_cast<int32_t>(static_cast<uint32_t>(tag->slot) << 16 |
                                     (static_cast<uint32_t>(handle) & 0xFFFF));
  return 0;
}

template <class Pick>
int32_t OpenChosenTag(FoxIndex* ix, int32_t handle, int32_t* tag_handle, Pick&& pick) {
  *tag_handle = -1;
  if (!ix->compound) return KS_FAIL(kTagInfo, DB_ERR_TAG_HANDLE);
  DirectoryEntry* list = nullptr;
  int32_t count = 0;
  int32_t rc = ReadDirectory(ix, &list, &count, kTagInfo);
  if (rc < 0) return rc;
  int chosen = pick(list, count);
  if (chosen < 0) {
    rc = KS_FAIL(kTagInfo, DB_ERR_TAG_NAME);
  } else {
    rc = OpenTagAt(ix, handle, tag_handle, list[chosen], kTagInfo);
  }
  MemFree(list);
  EndCall(ix);
  return rc;
}

}  // namespace

int32_t OpenTag(FoxIndex* ix, int32_t handle, int32_t* tag_handle, int32_t number) {
  return OpenChosenTag(ix, handle, tag_handle, [&](const DirectoryEntry*, int32_t count) {
    return number >= 1 && number <= count ? number - 1 : -1;
  });
}

int32_t OpenNamedTag(FoxIndex* ix, int32_t handle, int32_t* tag_handle, const char* name) {
  char wanted[12] = {};
  size_t n = std::strlen(name);
  if (n == 0 || n > 10) {
    *tag_handle = -1;
    return KS_FAIL(kTagInfo, DB_ERR_TAG_NAME);
  }
  for (size_t i = 0; i < n; ++i)
    wanted[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(name[i])));
  return OpenChosenTag(ix, handle, tag_handle, [&](const DirectoryEntry* list, int32_t count) {
    for (int32_t i = 0; i < count; ++i) {
      if (std::strcmp(list[i].name, wanted) == 0) return static_cast<int>(i);
    }
    return -1;
  });
}

int32_t CloseTag(FoxIndex* ix, Tag* tag) {
  if (!ix->compound) return KS_FAIL(kTagInfo, DB_ERR_TAG_HANDLE);
  ix->open_tags[tag->slot - 1] = nullptr;
  Delete(tag);
  return 0;
}

int32_t SetDefaultKeyType(Tag* tag, int32_t type) {
  int32_t t = type & 0xDF;
  tag->type = static_cast<uint8_t>(t);
  bool character = t == 'C';
  if (!character && !(t >= 1 && t <= 6) && t != 'D' && t != 'L' && t != 'N')
    return KS_FAIL(kOpen, DB_ERR_KEY_TYPE);
  uint8_t pad = character ? ' ' : 0;
  if (pad != tag->shape.pad) {
    tag->shape.pad = pad;
    for (int i = 0; i < tag->level_count; ++i) {
      if (tag->levels[i]) tag->levels[i]->offset = 0;
    }
  }
  return 0;
}

// ----------------------------------------------------------------- nodes

int32_t LoadNode(FoxIndex* ix, Tag* tag, int level, uint32_t offset, const Node** node,
                 ModulePath module) {
  if (level < 0 || level >= tag->level_count) return KS_FAIL(module, DB_ERR_CORRUPTED);
  if (!ix->pages.ValidOffset(offset)) return KS_FAIL(module, DB_ERR_SEEK);
  Node*& slot = tag->levels[level];
  if (slot && slot->offset == offset) {
    *node = slot;
    return 0;
  }
  if (!slot) {
    slot = New<Node>();
    if (!slot) return KS_FAIL(module, DB_ERR_MEMORY);
    slot->keys = static_cast<uint8_t*>(MemAlloc(static_cast<size_t>(kMaxNodeEntries) *
                                                static_cast<size_t>(tag->key_length())));
    if (!slot->keys) {
      Delete(slot);
      slot = nullptr;
      return KS_FAIL(module, DB_ERR_MEMORY);
    }
  }
  uint8_t* page = nullptr;
  int32_t rc = ix->pages.Load(offset, &page);
  if (rc < 0) return KS_PASS(module, rc);
  if (!DecodeNode(page, tag->shape, slot)) return KS_FAIL(module, DB_ERR_CORRUPTED);
  slot->offset = offset;
  if (slot->IsLeaf()) {
    tag->record_step =
        ix->compact ? static_cast<uint64_t>(slot->widths.record_mask) + 1 : (1ull << 32);
  }
  *node = slot;
  return 0;
}

void ForgetDecoded(FoxIndex* ix) {
  auto forget = [](Tag* tag) {
    if (!tag || !tag->levels) return;
    for (int i = 0; i < tag->level_count; ++i) {
      if (tag->levels[i]) tag->levels[i]->offset = 0;
    }
  };
  forget(ix->single);
  forget(ix->directory);
  for (int i = 0; i < ix->open_tag_slots; ++i) forget(ix->open_tags[i]);
}

void EndCall(FoxIndex* ix) {
  if (IsShared(ix) && IsWriteThrough(ix)) {
    ix->pages.Empty();
    ForgetDecoded(ix);
  }
}

// ------------------------------------------------- lock, reread, flush

int32_t RereadHeader(FoxIndex* ix) {
  uint8_t head[16];
  int32_t rc = FileReadAt(ix->file, 0, head, sizeof head);
  if (rc < 0) return KS_FAIL(kOpen, rc);
  uint64_t length = 0;
  rc = FileSize(ix->file, &length);
  if (rc < 0) return KS_PASS(kOpen, rc);
  // Another process may have changed any node: nothing cached is trusted.
  ix->pages.Empty();
  ix->pages.SetFileLength(length);
  ForgetDecoded(ix);
  ix->free_head = LoadLE32(head + 4);
  Tag* first = ix->compound ? ix->directory : ix->single;
  first->root = LoadLE32(head);
  for (int i = 0; i < ix->open_tag_slots; ++i) {
    Tag* tag = ix->open_tags[i];
    if (!tag) continue;
    uint8_t root[4];
    rc = FileReadAt(ix->file, tag->header_offset, root, sizeof root);
    if (rc < 0) return KS_FAIL(kOpen, rc);
    tag->root = LoadLE32(root);
  }
  if (!(IsShared(ix) && ix->lock_state != kLockHeld)) ix->state &= ~kStateHeaderStale;
  return 0;
}

int32_t LockIndex(FoxIndex* ix) {
  if (!IsShared(ix) || ix->lock_state == kLockHeld) return 0;
  int32_t rc = FileLock(ix->file, 0, LockOffset(ix), 1);
  if (rc < 0) return KS_PASS(kOpen, rc);
  ix->lock_state = kLockHeld;
  rc = RereadHeader(ix);
  if (rc < 0) return rc;
  ix->state &= ~kStateHeaderStale;
  return 0;
}

int32_t UnlockIndex(FoxIndex* ix) {
  if (!IsShared(ix)) return 0;
  if (ix->lock_state == kLockHeld) {
    int32_t rc = ix->pages.WriteChanged(false);
    if (rc < 0) return KS_PASS(kOpen, rc);
    rc = FileLock(ix->file, 1, LockOffset(ix), 1);
    if (rc < 0) return KS_PASS(kOpen, rc);
  }
  ix->lock_state = 0;
  ix->state |= kStateHeaderStale;
  return 0;
}

int32_t FlushIndex(FoxIndex* ix) {
  if (IsWriteThrough(ix)) return DB_WARN_NOT_BUFFERED;
  if (ix->state & kStateReadOnly) return KS_FAIL(kOpen, DB_ERR_READ_ONLY);
  int32_t rc = ix->pages.WriteChanged(false);
  if (rc < 0) return KS_PASS(kOpen, rc);
  if (IsShared(ix)) {
    ix->pages.Empty();
    ForgetDecoded(ix);
  }
  return 0;
}

int32_t CacheSize(FoxIndex* ix, int32_t* count, int32_t operation) {
  if (operation == 1) {
    *count = ix->pages.buffers();
    return 0;
  }
  if (operation != 0) return KS_FAIL(kCache, DB_ERR_INVALID_COMMAND);
  if (IsWriteThrough(ix)) return 0;
  int32_t wanted = *count;
  if (wanted < kMinBuffers || wanted > 65535) return KS_FAIL(kCache, DB_ERR_INVALID_COMMAND);
  if (wanted < ix->pages.buffers()) {
    if (!(ix->state & kStateReadOnly)) {
      int32_t rc = ix->pages.WriteChanged(false);
      if (rc < 0) return KS_PASS(kCache, rc);
    }
    ix->pages.Shrink(wanted);
    return 0;
  }
  return ix->pages.Grow(count);
}

}  // namespace kestrel::foxpro
