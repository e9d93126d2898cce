// Creating, opening and closing .NTX files; the page services over the shared
// page cache (free list, header fields), the index lock, flush, cache size and
// zap.
#include "index/clipper/ntx_index.h"

#include <cctype>
#include <cstring>

#include "runtime/file_services.h"
#include "runtime/memory.h"

namespace kestrel::ntx {
namespace {

constexpr ModulePath kCreate = KS_ENGINE_MODULE("CCREATE");
constexpr ModulePath kOpen = KS_ENGINE_MODULE("COPEN");
constexpr ModulePath kCache = KS_ENGINE_MODULE("CBFRSZ");
constexpr ModulePath kZap = KS_ENGINE_MODULE("CZAP");

// Removes every blank in place and upper-cases the rest; returns the length.
size_t NormaliseExpression(char* text) {
  size_t out = 0;
  for (size_t i = 0; text[i]; ++i) {
    if (text[i] == ' ') continue;
    text[out++] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
  }
  text[out] = '\0';
  return out;
}

// Removes every blank in place; returns the length.
size_t RemoveBlanks(char* text) {
  size_t out = 0;
  for (size_t i = 0; text[i]; ++i) {
    if (text[i] != ' ') text[out++] = text[i];
  }
  text[out] = '\0';
  return out;
}

int32_t CloseRoutine(int32_t handle) { return CloseIndex(handle); }

}  // namespace

NtxIndex::~NtxIndex() {
  MemFree(file_name);
  Delete(key);
}

int32_t SelectIndex(int32_t handle, NtxIndex** index, ModulePath module) {
  int32_t rc = CheckHandle<NtxIndex>(handle, DB_KIND_NTX_INDEX, index);
  if (rc < 0) return KS_FAIL(module, rc);
  return 0;
}

void ForgetPosition(NtxIndex* ix) { ix->key->path.Forget(); }

void EmptyCache(NtxIndex* ix) { ix->pages.Empty(); }

// ---------------------------------------------------------------- create

int32_t CreateIndex(const char* file_name, int32_t key_type, char* expression, int32_t key_length,
                    int32_t decimals) {
  if (!file_name || !expression) return KS_FAIL(kCreate, DB_ERR_NULL);
  size_t expr_length = RemoveBlanks(expression);
  if (expr_length >= 255) return KS_FAIL(kCreate, DB_ERR_BAD_EXPRESSION);
  bool unique = (key_type & kFlagUnique) != 0;
  bool descending = (key_type & kFlagDescending) != 0;
  int type = key_type & ~(kFlagUnique | kFlagDescending) & ~kTypeCaseBit;
  int binary = 0;
  if (type >= 1 && type <= 6) {
    binary = type;
    key_length = static_cast<int>(table::BinaryTypeSize(type));
    decimals = 0;
  } else if (type == 'C') {
    if (key_length < 1 || key_length > kMaxKeyLength) return KS_FAIL(kCreate, DB_ERR_KEY_LENGTH);
    decimals = 0;
  } else if (type == 'D') {
    key_length = 8;
    decimals = 0;
  } else if (type == 'N') {
    if (key_length < 1 || key_length > 19) return KS_FAIL(kCreate, DB_ERR_KEY_LENGTH);
    if (decimals < 0 || decimals > 15 || decimals > key_length - 2) {
      if (decimals != 0) return KS_FAIL(kCreate, DB_ERR_DECIMALS);
    }
  } else {
    return KS_FAIL(kCreate, DB_ERR_KEY_TYPE);
  }
  int max_items = MaxItemsFor(key_length);
  int item_size = key_length + kItemOverhead;
  Header header;
  header.signature = descending ? kSignatureDescending : kSignatureAscending;
  header.item_size = static_cast<uint16_t>(item_size);
  header.key_length = static_cast<uint16_t>(key_length);
  header.decimals = static_cast<uint16_t>(decimals);
  header.max_items = static_cast<uint16_t>(max_items);
  header.half_page = static_cast<uint16_t>(max_items / 2);
  std::memcpy(header.expression, expression, expr_length);
  NormaliseExpression(header.expression);  // upper case
  header.unique = unique ? 1 : 0;
  header.descending = descending ? 1 : 0;
  header.binary_type = static_cast<uint16_t>(binary);
  uint8_t page[kPageSize];
  header.EncodeTo(page);

  Succeed();
  FileHandle file = kNoFile;
  int32_t rc = FileCreate(&file, file_name);
  if (rc < 0) return KS_PASS(kCreate, rc);
  rc = FileWriteAt(file, 0, page, kPageSize, 0);
  if (rc >= 0) {
    InitPage(page, max_items, item_size);
    rc = FileWriteAt(file, kPageSize, page, kPageSize, 0);
  }
  FileClose(file);
  if (rc < 0) return KS_FAIL(kCreate, rc);
  return Succeed();
}

// ------------------------------------------------------------------ open

namespace {

int32_t AllocateCache(NtxIndex* ix, uint64_t file_length) {
  ix->page_format.max_items = ix->key->max_items;
  ix->page_format.item_size = ix->key->item_size;
  int wanted = IsWriteThrough(ix) ? kWriteThroughBuffers : kDefaultBuffers;
  int32_t rc =
      ix->pages.Open(ix->file, file_length, kPageSize, kPageSize, &ix->page_format, kCache,
                     ix->write_mode, !IsShared(ix), kInitialCacheCapacity, wanted, kMinBuffers);
  if (rc < 0) return KS_FAIL(kOpen, rc);
  return 0;
}

int32_t FillFromHeader(NtxIndex* ix, const uint8_t* bytes, uint64_t file_length) {
  Header h;
  int32_t rc = h.DecodeFrom(std::span<const uint8_t>(bytes, kHeaderReadSize), file_length);
  if (rc < 0) return KS_FAIL(kOpen, rc);
  size_t expr_length = std::strlen(h.expression);

  KeyDescriptor* k = New<KeyDescriptor>();
  if (!k) return KS_FAIL(kOpen, DB_ERR_MEMORY);
  ix->key = k;
  k->root = h.root;
  k->item_size = h.item_size;
  k->key_length = h.key_length;
  k->decimals = h.decimals;
  k->max_items = h.max_items;
  k->half_page = h.half_page;
  // Other programs mark a descending index by the flag alone (signature 6).
  if (h.unique) k->flags |= kFlagUnique;
  if (h.descending) k->flags |= kFlagDescending;
  k->binary_type = h.binary_type <= 6 ? static_cast<uint8_t>(h.binary_type) : 0;
  k->expression = static_cast<char*>(MemAlloc(expr_length + 1));
  if (!k->path.Allocate(index::PathStack::DepthFor(h.half_page), h.key_length) || !k->expression)
    return KS_FAIL(kOpen, DB_ERR_MEMORY);
  std::memcpy(k->expression, h.expression, expr_length);
  NormaliseExpression(k->expression);
  ix->version = h.version;
  ix->free_head = h.free_head;
  return 0;
}

}  // namespace

int32_t OpenIndex(int32_t* handle, const char* file_name, int32_t open_mode) {
  RegisterCloseRoutine(DB_KIND_NTX_INDEX, &CloseRoutine);
  if (!handle || !file_name) {
    if (handle) *handle = -1;
    return KS_FAIL(kOpen, DB_ERR_NULL);
  }
  NtxIndex* ix = nullptr;
  int32_t rc = AllocateHandle<NtxIndex>(handle, DB_KIND_NTX_INDEX, &ix);
  if (rc < 0) return KS_PASS(kOpen, rc);
  ix->file = kNoFile;
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
    if (low != 0 && low != 5 && low != 6) rc = KS_FAIL(kOpen, DB_ERR_VERSION);
  } else {
    ix->file = kNoFile;
    rc = KS_PASS(kOpen, rc);
  }
  uint8_t header[kHeaderReadSize];
  uint64_t file_length = 0;
  if (rc >= 0) {
    rc = FileSize(ix->file, &file_length);
    if (rc < 0) rc = KS_PASS(kOpen, rc);
  }
  if (rc >= 0) {
    rc = FileReadAt(ix->file, 0, header, kHeaderReadSize);
    if (rc < 0) rc = KS_FAIL(kOpen, rc);
  }
  if (rc >= 0) rc = FillFromHeader(ix, header, file_length);
  if (rc >= 0) {
    size_t n = std::strlen(file_name);
    ix->file_name = static_cast<char*>(MemAlloc(n + 1));
    if (!ix->file_name) {
      rc = KS_FAIL(kOpen, DB_ERR_MEMORY);
    } else {
      std::memcpy(ix->file_name, file_name, n);
    }
  }
  if (rc >= 0) rc = AllocateCache(ix, file_length);
  if (rc < 0) {
    if (ix->file != kNoFile) FileClose(ix->file);
    ReleaseHandle(*handle);
    *handle = -1;
    return Record(rc);
  }
  if (file_length % kPageSize != 0) return Record(DB_WARN_FILE_LENGTH);
  return Succeed();
}

// ----------------------------------------------------------------- close

int32_t CloseIndex(int32_t handle) {
  NtxIndex* ix = nullptr;
  int32_t rc = SelectIndex(handle, &ix, kOpen);
  if (rc < 0) return rc;
  Succeed();
  int32_t result = 0;
  if (!(ix->state & kStateReadOnly)) {
    rc = FlushIndex(ix, false);
    if (rc < 0) result = rc;
  }
  if (ix->lock_state == kLockHeld) {
    FileLock(ix->file, 1, kLockOffset, kLockLength);
    ix->lock_state = 0;
  }
  ix->pages.Unmap();
  FileClose(ix->file);
  ReleaseHandle(handle);
  return Record(result);
}

// ------------------------------------------------------------ page cache

int32_t LoadPage(NtxIndex* ix, uint32_t offset, uint8_t** page, PageUse use) {
  return ix->pages.Load(offset, page, use);
}

int32_t MarkChanged(NtxIndex* ix, uint32_t offset) {
  if (ix->state & kStateReadOnly) return KS_FAIL(kCache, DB_ERR_READ_ONLY);
  index::WriteRule rule = index::WriteRule::kHold;
  if (IsWriteThrough(ix)) {
    // Unlocked, another process may change the page as soon as it is written.
    rule = IsShared(ix) && ix->lock_state != kLockHeld ? index::WriteRule::kWriteAndDrop
                                                       : index::WriteRule::kWriteAndKeep;
  }
  int32_t rc = ix->pages.MarkChanged(offset, rule);
  if (rc < 0) return rc;
  if (rule == index::WriteRule::kHold) ix->header_changed = 1;
  return 0;
}

namespace {
int32_t WriteFreeHead(NtxIndex* ix) {
  uint8_t b[4];
  StoreLE32(b, ix->free_head);
  int32_t rc = FileWriteAt(ix->file, kHdrFreeList, b, 4, ix->write_mode);
  if (rc < 0) return KS_FAIL(kCache, rc);
  return 0;
}
}  // namespace

int32_t AllocatePage(NtxIndex* ix, uint32_t* offset, uint8_t** page) {
  int32_t rc;
  uint32_t at;
  if (ix->free_head == 0) {
    rc = ix->pages.Extend(&at);
    if (rc < 0) return rc;
    rc = LoadPage(ix, at, page, PageUse::kFresh);
    if (rc < 0) return rc;
  } else {
    at = ix->free_head;
    rc = LoadPage(ix, at, page, PageUse::kFree);
    if (rc < 0) return rc;
    uint32_t next = ItemChild(Item(*page, 0));
    if (next != 0 && (!ix->pages.ValidOffset(next) || next == at)) {
      return KS_FAIL(kCache, DB_ERR_CORRUPTED);
    }
    ix->free_head = next;
    if (IsWriteThrough(ix)) {
      rc = WriteFreeHead(ix);
      if (rc < 0) return rc;
    }
    InitPage(*page, ix->key->max_items, ix->key->item_size);
    ix->pages.SetCurrentValidated();
  }
  *offset = at;
  ix->header_changed = 1;
  return MarkChanged(ix, at);
}

int32_t ReleasePage(NtxIndex* ix, uint32_t offset) {
  uint8_t* page = nullptr;
  int32_t rc = LoadPage(ix, offset, &page, PageUse::kFree);
  if (rc < 0) return rc;
  SetItemChild(Item(page, 0), ix->free_head);
  ix->free_head = offset;
  ix->header_changed = 1;
  if (IsWriteThrough(ix)) {
    rc = WriteFreeHead(ix);
    if (rc < 0) return rc;
  }
  return MarkChanged(ix, offset);
}

int32_t WriteHeaderFields(NtxIndex* ix, uint16_t version) {
  uint8_t b[kHdrMutableSize];
  HeaderFields{version, ix->key->root, ix->free_head}.EncodeTo(b);
  int32_t rc = FileWriteAt(ix->file, kHdrMutableOffset, b, kHdrMutableSize, ix->write_mode);
  if (rc < 0) return KS_FAIL(kCache, rc);
  ix->version = version;
  return 0;
}

// ------------------------------------------------- flush, lock, header

int32_t FlushIndex(NtxIndex* ix, bool explicit_flush) {
  if (ix->state & kStateReadOnly) return KS_FAIL(kOpen, DB_ERR_READ_ONLY);
  int32_t rc = 0;
  if (!IsWriteThrough(ix) && ix->header_changed) {
    bool locked_here = false;
    if (IsShared(ix) && ix->lock_state != kLockHeld) {
      rc = FileLock(ix->file, 0, kLockOffset, kLockLength);
      if (rc < 0) return KS_PASS(kOpen, rc);
      locked_here = true;
    }
    // The marks stay set: such pages are written again at the next flush.
    rc = ix->pages.WriteChanged(true);
    if (rc >= 0) rc = WriteHeaderFields(ix, static_cast<uint16_t>(ix->version + 1));
    if (rc >= 0) ix->header_changed = 0;
    if (locked_here) FileLock(ix->file, 1, kLockOffset, kLockLength);
    if (rc < 0) return KS_PASS(kOpen, rc);
  }
  rc = FileFlush(ix->file);
  if (rc < 0) return KS_PASS(kOpen, rc);
  if (explicit_flush && IsShared(ix)) {
    EmptyCache(ix);
    ForgetPosition(ix);
  }
  return 0;
}

int32_t RereadHeader(NtxIndex* ix) {
  uint8_t b[kHdrMutableSize];
  int32_t rc = FileReadAt(ix->file, kHdrMutableOffset, b, kHdrMutableSize);
  if (rc < 0) return KS_FAIL(kOpen, rc);
  uint64_t size = 0;
  rc = FileSize(ix->file, &size);
  if (rc < 0) return KS_PASS(kOpen, rc);
  HeaderFields fields{};
  fields.DecodeFrom(b);
  uint16_t version = fields.version;
  uint32_t root = fields.root;
  uint32_t free_head = fields.free_head;
  if (!ValidPageOffset(root, size)) return KS_FAIL(kOpen, DB_ERR_ROOT_PAGE);
  bool changed = version != ix->version || root != ix->key->root || free_head != ix->free_head ||
                 size != ix->pages.file_length();
  if (changed) {
    // Another process rewrote the index: pages held here may be stale.
    if (!ix->pages.HasChanges()) {
      EmptyCache(ix);
      if (!IsWriteThrough(ix)) ForgetPosition(ix);
    }
  }
  ix->version = version;
  ix->key->root = root;
  ix->free_head = free_head;
  ix->pages.SetFileLength(size);
  return 0;
}

int32_t LockIndex(NtxIndex* ix) {
  if (!IsShared(ix) || ix->lock_state == kLockHeld) return 0;
  int32_t rc = FileLock(ix->file, 0, kLockOffset, kLockLength);
  if (rc < 0) return KS_PASS(kOpen, rc);
  ix->lock_state = kLockHeld;
  rc = RereadHeader(ix);
  if (rc < 0) return rc;
  ix->state &= ~kStateHeaderStale;
  return 0;
}

int32_t UnlockIndex(NtxIndex* ix) {
  if (!IsShared(ix)) return 0;
  if (ix->lock_state == kLockHeld) {
    int32_t rc = FileLock(ix->file, 1, kLockOffset, kLockLength);
    ix->lock_state = 0;
    ix->state |= kStateHeaderStale;
    if (rc < 0) return KS_PASS(kOpen, rc);
  }
  ix->state |= kStateHeaderStale;
  return 0;
}

// ------------------------------------------------------------ cache size

int32_t CacheSize(NtxIndex* ix, int32_t* count, int32_t operation) {
  if (!count) return KS_FAIL(kCache, DB_ERR_NULL);
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
      int32_t rc = FlushIndex(ix, false);
      if (rc < 0) return KS_PASS(kCache, rc);
    }
    ix->pages.Shrink(wanted);
    return 0;
  }
  return ix->pages.Grow(count);
}

// ------------------------------------------------------------------- zap

int32_t ZapIndex(NtxIndex* ix) {
  if (ix->state & kStateReadOnly) return KS_FAIL(kZap, DB_ERR_READ_ONLY);
  bool locked_here = false;
  int32_t rc = 0;
  if (IsShared(ix) && ix->lock_state != kLockHeld) {
    if (!(ix->state & kStateAutoLock)) return KS_FAIL(kZap, DB_ERR_MUST_LOCK);
    rc = LockIndex(ix);
    if (rc < 0) return KS_PASS(kZap, rc);
    locked_here = true;
  }
  ix->key->root = kPageSize;
  ix->free_head = 0;
  rc = WriteHeaderFields(ix, 1);
  if (rc >= 0) {
    uint8_t page[kPageSize];
    InitPage(page, ix->key->max_items, ix->key->item_size);
    rc = FileWriteAt(ix->file, kPageSize, page, kPageSize, ix->write_mode);
    if (rc < 0) rc = KS_FAIL(kZap, rc);
  }
  if (rc >= 0) {
    ix->pages.Unmap();  // the file shrinks below the view
    rc = FileTruncate(ix->file, 2 * kPageSize);
    if (rc < 0) rc = KS_PASS(kZap, rc);
  }
  if (rc >= 0) ix->pages.SetFileLength(2 * kPageSize);
  EmptyCache(ix);
  ForgetPosition(ix);
  ix->key->remember = 0;
  ix->header_changed = 0;
  if (locked_here) UnlockIndex(ix);
  return rc < 0 ? rc : 0;
}

}  // namespace kestrel::ntx
