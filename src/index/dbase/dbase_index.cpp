// Creating, opening and closing dBASE index files; handles and tag slots; the
// page services over the shared page cache, header fields, the index lock,
// flush, cache size and zap.
#include "index/dbase/dbase_index.h"

#include <cctype>
#include <cstring>

#include "runtime/file_services.h"

namespace kestrel::dbase {
namespace {

constexpr ModulePath kCreate = KS_ENGINE_MODULE("MCREATE");
constexpr ModulePath kOpen = KS_ENGINE_MODULE("MOPEN");
constexpr ModulePath kCache = KS_ENGINE_MODULE("MTBFRSZ");
constexpr ModulePath kZap = KS_ENGINE_MODULE("MZAP");

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

size_t RemoveBlanks(char* text) {
  size_t out = 0;
  for (size_t i = 0; text[i]; ++i)
    if (text[i] != ' ') text[out++] = text[i];
  text[out] = '\0';
  return out;
}

int32_t CloseRoutine(int32_t handle) { return CloseIndex(handle); }

// The type letter of a key type argument: lower case counts as upper case.
int TypeOf(int32_t key_type) {
  int raw = key_type & 0x7F;
  return raw >= 1 && raw <= 6 ? raw : raw & ~0x20;
}

}  // namespace

void DbasePageFormat::LayOutEmpty(uint8_t* page) const { std::memset(page, 0, page_size); }

DbaseIndex::~DbaseIndex() {
  for (Tag*& t : tags) Delete(t);
  MemFree(file_name);
  MemFree(scratch);
}

int32_t SelectIndex(int32_t handle, DbaseIndex** index, ModulePath module) {
  DbaseIndex* ix = LookUpHandle<DbaseIndex>(handle & 0xFFFF, DB_KIND_DBASE_INDEX, module);
  if (!ix || handle < 0) {
    if (ix) return KS_FAIL(module, DB_ERR_INVALID_HANDLE);
    return ErrorCode();
  }
  *index = ix;
  return 0;
}

int32_t SelectTag(int32_t handle, DbaseIndex** index, Tag** tag, ModulePath module) {
  DbaseIndex* ix = nullptr;
  int32_t rc = SelectIndex(handle, &ix, module);
  if (rc < 0) return rc;
  int slot = static_cast<int>((static_cast<uint32_t>(handle) >> 16) & 0xFFFF);
  Tag* t = nullptr;
  if (ix->kind == kKindNdx) {
    if (slot == 0) t = ix->tags[0];
  } else if (slot > 0 && slot < kMaxTagSlots) {
    t = ix->tags[slot];
  }
  if (!t) return KS_FAIL(module, DB_ERR_TAG_HANDLE);
  *index = ix;
  *tag = t;
  return 0;
}

// ---------------------------------------------------------------- create

int32_t CreateNdx(const char* file_name, int32_t key_type, char* expression, int32_t key_length) {
  if (!file_name || !expression) return KS_FAIL(kCreate, DB_ERR_NULL);
  size_t expr_length = RemoveBlanks(expression);
  if (expr_length > static_cast<size_t>(kMaxExpression))
    return KS_FAIL(kCreate, DB_ERR_BAD_EXPRESSION);
  Tag tag{};
  int32_t rc = DefineKey(kKindNdx, TypeOf(key_type), key_length, kBlockSize, &tag, kCreate);
  if (rc < 0) return rc;
  uint8_t page[kBlockSize] = {};
  StoreLE32(page + kNdxRoot, 1);
  StoreLE32(page + kNdxPages, 2);
  StoreLE16(page + kNdxKeyLength, tag.layout.key_length);
  StoreLE16(page + kNdxMaxKeys, tag.layout.max_keys);
  StoreLE16(page + kNdxClass, tag.key_class);
  StoreLE16(page + kNdxItemLength, tag.layout.item_length);
  page[kNdxUnique] = (key_type & kFlagUnique) ? 1 : 0;
  char* text = reinterpret_cast<char*>(page + kNdxExpression);
  std::memcpy(text, expression, expr_length);
  NormaliseExpression(text);

  Record(0);
  FileHandle file = kNoFile;
  rc = FileCreate(&file, file_name);
  if (rc < 0) return KS_PASS(kCreate, rc);
  rc = FileWriteAt(file, 0, page, kBlockSize, 0);
  if (rc >= 0) {
    std::memset(page, 0, kBlockSize);
    rc = FileWriteAt(file, kBlockSize, page, kBlockSize, 0);
  }
  FileClose(file);
  if (rc < 0) return KS_FAIL(kCreate, rc);
  return Succeed();
}

// ------------------------------------------------------------------ open

namespace {

// Allocates what a loaded tag needs: expression, path, and the index's
// scratch room for its pages.
int32_t FinishTag(DbaseIndex* ix, Tag* t, const char* expression, ModulePath module) {
  size_t n = strnlen(expression, kExpressionField);
  t->expression = static_cast<char*>(MemAlloc(n + 1));
  if (!t->expression) return KS_FAIL(module, DB_ERR_MEMORY);
  std::memcpy(t->expression, expression, n);
  NormaliseExpression(t->expression);
  int min_keys = t->half > 0 ? t->half : 1;
  if (!t->path.Allocate(index::PathStack::DepthFor(min_keys), t->layout.key_length))
    return KS_FAIL(module, DB_ERR_MEMORY);
  if (!ix->scratch) {
    ix->scratch = static_cast<uint8_t*>(MemAlloc(3 * ix->page_size));
    if (!ix->scratch) return KS_FAIL(module, DB_ERR_MEMORY);
  }
  return 0;
}

// Loads the key definition of an NDX header, checking it in the order the
// format's readers do.
int32_t LoadNdxHeader(DbaseIndex* ix, const uint8_t* h) {
  int key_length = LoadLE16(h + kNdxKeyLength);
  if (key_length < 1 || key_length > kMaxKeyLength) return KS_FAIL(kOpen, DB_ERR_KEY_LENGTH);
  const char* expression = reinterpret_cast<const char*>(h + kNdxExpression);
  if (strnlen(expression, kExpressionField) > static_cast<size_t>(kMaxExpression))
    return KS_FAIL(kOpen, DB_ERR_BAD_EXPRESSION);
  uint32_t root = LoadLE32(h + kNdxRoot);
  uint32_t pages = LoadLE32(h + kNdxPages);
  if (root < 1 || root >= pages) return KS_FAIL(kOpen, DB_ERR_ROOT_PAGE);
  int item_length = LoadLE16(h + kNdxItemLength);
  int max_keys = LoadLE16(h + kNdxMaxKeys);
  if (!NdxItemLengthAccepted(key_length, item_length)) return KS_FAIL(kOpen, DB_ERR_ITEM_LENGTH);
  if (max_keys * item_length > static_cast<int>(kNdxItemsLimit))
    return KS_FAIL(kOpen, DB_ERR_MAX_KEYS);
  if (max_keys < 2) return KS_FAIL(kOpen, DB_ERR_MIN_KEYS);
  int klass = LoadLE16(h + kNdxClass);
  int type = klass == kClassCharacter ? 'C' : klass == kClassDouble ? 'N' : klass;
  if (klass > 6) return KS_FAIL(kOpen, DB_ERR_KEY_TYPE);
  Tag* t = New<Tag>();
  if (!t) return KS_FAIL(kOpen, DB_ERR_MEMORY);
  ix->tags[0] = t;
  int32_t rc = DefineKey(kKindNdx, type, key_length, kBlockSize, t, kOpen);
  if (rc < 0) return rc;
  if (t->layout.key_length != key_length) return KS_FAIL(kOpen, DB_ERR_KEY_LENGTH);
  t->layout.item_length = static_cast<uint16_t>(item_length);
  t->layout.max_keys = static_cast<uint16_t>(max_keys);
  t->half = static_cast<uint16_t>(max_keys / 2);
  t->rest = static_cast<uint16_t>(max_keys - t->half);
  t->root = root;
  if (h[kNdxUnique] & 1) t->flags |= kFlagUnique;
  ix->next_page = pages;
  ix->page_format.max_count = max_keys;
  return FinishTag(ix, t, expression, kOpen);
}

}  // namespace

int32_t OpenIndex(int32_t* handle, const char* file_name, int32_t open_mode, int kind) {
  RegisterCloseRoutine(DB_KIND_DBASE_INDEX, &CloseRoutine);
  if (!handle || !file_name) {
    if (handle) *handle = -1;
    return KS_FAIL(kOpen, DB_ERR_NULL);
  }
  DbaseIndex* ix = nullptr;
  int32_t rc = AllocateHandle<DbaseIndex>(handle, DB_KIND_DBASE_INDEX, &ix);
  if (rc < 0) return KS_PASS(kOpen, rc);
  ix->file = kNoFile;
  ix->kind = kind;
  ix->page_size = kBlockSize;
  Record(0);

  int32_t mode = NormaliseOpenSwitches(open_mode);
  int low = mode & 0xFF;
  bool dialect_ok = kind == kKindNdx ? (low == 0 || low == 1 || low == 2 || low == 7)
                                     : (low == 0 || low == 2);
  if (!dialect_ok) rc = KS_FAIL(kOpen, DB_ERR_VERSION);
  uint32_t attributes = 0;
  if (rc >= 0) {
    rc = FileOpen(&ix->file, file_name, mode, &attributes);
    if (rc < 0) {
      ix->file = kNoFile;
      rc = KS_PASS(kOpen, rc);
    }
  }
  if (rc >= 0) {
    if (attributes & kAttrReadOnly) ix->state |= kStateReadOnly;
    if (attributes & kAttrShared) ix->state |= kStateShared;
    if (mode & DB_OPEN_UNBUFFERED) ix->state |= kStateUnbuffered | kStateWriteThrough;
    if (mode & DB_OPEN_WRITETHROUGH) {
      ix->state |= kStateWriteThrough;
      ix->write_mode = 1;
    }
    if ((mode & DB_OPEN_AUTOLOCK) && IsShared(ix)) ix->state |= kStateAutoLock;
  }
  uint8_t header[kBlockSize] = {};
  uint64_t file_length = 0;
  if (rc >= 0) {
    rc = FileSize(ix->file, &file_length);
    if (rc < 0) rc = KS_PASS(kOpen, rc);
  }
  if (rc >= 0) {
    rc = FileReadAt(ix->file, 0, header, kBlockSize);
    if (rc < 0) rc = KS_FAIL(kOpen, rc);
  }
  if (rc >= 0) rc = LoadNdxHeader(ix, header);
  if (rc >= 0) {
    size_t n = std::strlen(file_name);
    ix->file_name = static_cast<char*>(MemAlloc(n + 1));
    if (!ix->file_name)
      rc = KS_FAIL(kOpen, DB_ERR_MEMORY);
    else
      std::memcpy(ix->file_name, file_name, n);
  }
  if (rc >= 0) {
    ix->page_format.page_size = ix->page_size;
    int wanted = IsWriteThrough(ix) ? kMinBuffers : kDefaultBuffers;
    rc = ix->pages.Open(ix->file, file_length, ix->page_size, kBlockSize, &ix->page_format, kCache,
                        ix->write_mode, !IsShared(ix), kInitialCacheCapacity, wanted, kMinBuffers);
    if (rc < 0) rc = KS_FAIL(kOpen, rc);
  }
  if (rc < 0) {
    if (ix->file != kNoFile) FileClose(ix->file);
    ReleaseHandle(*handle);
    *handle = -1;
    return Record(rc);
  }
  if (file_length != static_cast<uint64_t>(ix->next_page) * kBlockSize)
    return Record(DB_WARN_FILE_LENGTH);
  return Succeed();
}

// ----------------------------------------------------------------- close

int32_t CloseIndex(int32_t handle) {
  DbaseIndex* ix = nullptr;
  int32_t rc = SelectIndex(handle, &ix, kOpen);
  if (rc < 0) return rc;
  Record(0);
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
  ReleaseHandle(handle & 0xFFFF);
  return Record(result);
}

// ------------------------------------------------------------ page cache

int32_t LoadPage(DbaseIndex* ix, const Tag* tag, uint32_t number, uint8_t** page,
                 ModulePath module) {
  if (number == 0 || number > (UINT32_MAX >> kBlockShift)) return KS_FAIL(module, DB_ERR_SEEK);
  int32_t rc = ix->pages.Load(PageOffset(number), page);
  if (rc < 0) return KS_PASS(module, rc);
  if (!tag->layout.CountFits(PageLayout::Count(*page))) return KS_FAIL(module, DB_ERR_CORRUPTED);
  return 0;
}

int32_t MarkChanged(DbaseIndex* ix, uint32_t number) {
  if (ix->state & kStateReadOnly) return KS_FAIL(kCache, DB_ERR_READ_ONLY);
  index::WriteRule rule = index::WriteRule::kHold;
  if (IsWriteThrough(ix)) {
    rule = IsShared(ix) && ix->lock_state != kLockHeld ? index::WriteRule::kWriteAndDrop
                                                       : index::WriteRule::kWriteAndKeep;
  }
  int32_t rc = ix->pages.MarkChanged(PageOffset(number), rule);
  if (rc < 0) return rc;
  if (rule == index::WriteRule::kHold) ix->header_changed = 1;
  return 0;
}

namespace {

int32_t WriteNdxHeaderFields(DbaseIndex* ix) {
  uint8_t b[8];
  StoreLE32(b, ix->tags[0]->root);
  StoreLE32(b + 4, ix->next_page);
  int32_t rc = FileWriteAt(ix->file, kNdxRoot, b, 8, ix->write_mode);
  if (rc < 0) return KS_FAIL(kCache, rc);
  return 0;
}

}  // namespace

int32_t WriteHeaderFields(DbaseIndex* ix) { return WriteNdxHeaderFields(ix); }

int32_t AllocatePage(DbaseIndex* ix, uint32_t* number, uint8_t** page) {
  uint32_t at = 0;
  int32_t rc = ix->pages.Extend(&at);
  if (rc < 0) return rc;
  rc = ix->pages.Load(at, page, PageUse::kFresh);
  if (rc < 0) return rc;
  *number = at >> kBlockShift;
  ix->next_page = *number + 1;
  ix->header_changed = 1;
  if (IsWriteThrough(ix)) {
    rc = WriteHeaderFields(ix);
    if (rc < 0) return rc;
  }
  return MarkChanged(ix, *number);
}

int32_t ReleasePage(DbaseIndex* /*ix*/, uint32_t /*number*/) { return 0; }

int32_t WriteRoot(DbaseIndex* ix, Tag* /*tag*/) {
  ix->header_changed = 1;
  if (IsWriteThrough(ix)) return WriteHeaderFields(ix);
  return 0;
}

int32_t BeginUpdate(DbaseIndex* ix, bool* locked_here, ModulePath module) {
  *locked_here = false;
  if (ix->state & kStateReadOnly) return KS_FAIL(module, DB_ERR_READ_ONLY);
  if (IsShared(ix) && ix->lock_state != kLockHeld) {
    if (!(ix->state & kStateAutoLock)) return KS_FAIL(module, DB_ERR_MUST_LOCK);
    int32_t rc = LockIndex(ix);
    if (rc < 0) return KS_PASS(module, rc);
    *locked_here = true;
  }
  return 0;
}

void EndUpdate(DbaseIndex* ix, bool locked_here) {
  if (!locked_here) return;
  int32_t saved = ErrorCode();
  UnlockIndex(ix);
  Record(saved);
}

// ------------------------------------------------- flush, lock, header

int32_t FlushIndex(DbaseIndex* ix, bool explicit_flush) {
  if (ix->state & kStateReadOnly) return KS_FAIL(kOpen, DB_ERR_READ_ONLY);
  if (explicit_flush && (ix->state & kStateUnbuffered)) return DB_WARN_NOT_BUFFERED;
  int32_t rc = 0;
  if (ix->header_changed || ix->pages.HasChanges()) {
    bool locked_here = false;
    if (IsShared(ix) && ix->lock_state != kLockHeld) {
      rc = FileLock(ix->file, 0, kLockOffset, kLockLength);
      if (rc < 0) return KS_PASS(kOpen, rc);
      locked_here = true;
    }
    rc = ix->pages.WriteChanged(false);
    if (rc >= 0) rc = WriteHeaderFields(ix);
    if (rc >= 0) ix->header_changed = 0;
    if (locked_here) FileLock(ix->file, 1, kLockOffset, kLockLength);
    if (rc < 0) return KS_PASS(kOpen, rc);
  }
  rc = FileFlush(ix->file);
  if (rc < 0) return KS_PASS(kOpen, rc);
  return 0;
}

int32_t RereadHeader(DbaseIndex* ix) {
  uint8_t b[8];
  int32_t rc = FileReadAt(ix->file, kNdxRoot, b, 8);
  if (rc < 0) return KS_FAIL(kOpen, rc);
  uint64_t size = 0;
  rc = FileSize(ix->file, &size);
  if (rc < 0) return KS_PASS(kOpen, rc);
  uint32_t root = LoadLE32(b);
  uint32_t pages = LoadLE32(b + 4);
  if (root < 1 || root >= pages || PageOffset(root) >= size) return KS_FAIL(kOpen, DB_ERR_ROOT_PAGE);
  Tag* t = ix->tags[0];
  bool changed = root != t->root || pages != ix->next_page || size != ix->pages.file_length();
  if (changed && !ix->pages.HasChanges()) {
    // Another process rewrote the index: pages held here may be stale.
    ix->pages.Empty();
    t->path.Forget();
  }
  t->root = root;
  ix->next_page = pages;
  ix->pages.SetFileLength(size);
  return 0;
}

int32_t LockIndex(DbaseIndex* ix) {
  if (!IsShared(ix) || ix->lock_state == kLockHeld) return 0;
  int32_t rc = FileLock(ix->file, 0, kLockOffset, kLockLength);
  if (rc < 0) return KS_PASS(kOpen, rc);
  ix->lock_state = kLockHeld;
  return RereadHeader(ix);
}

int32_t UnlockIndex(DbaseIndex* ix) {
  if (!IsShared(ix) || ix->lock_state != kLockHeld) return 0;
  int32_t rc = FlushIndex(ix, false);
  int32_t u = FileLock(ix->file, 1, kLockOffset, kLockLength);
  ix->lock_state = 0;
  if (rc < 0) return rc;
  if (u < 0) return KS_PASS(kOpen, u);
  return 0;
}

// ------------------------------------------------------------ cache size

int32_t CacheSize(DbaseIndex* ix, int32_t* count, int32_t operation) {
  if (!count) return KS_FAIL(kCache, DB_ERR_NULL);
  if (operation == 1) {
    *count = ix->pages.buffers();
    return 0;
  }
  if (operation != 0) return KS_FAIL(kCache, DB_ERR_INVALID_COMMAND);
  if (ix->state & kStateUnbuffered) return 0;
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

int32_t ZapIndex(DbaseIndex* ix, Tag* tag) {
  bool locked_here = false;
  int32_t rc = BeginUpdate(ix, &locked_here, kZap);
  if (rc < 0) return rc;
  tag->root = 1;
  ix->next_page = 2;
  rc = WriteNdxHeaderFields(ix);
  if (rc >= 0) {
    uint8_t page[kBlockSize] = {};
    rc = FileWriteAt(ix->file, kBlockSize, page, kBlockSize, ix->write_mode);
    if (rc < 0) rc = KS_FAIL(kZap, rc);
  }
  ix->pages.Empty();
  if (rc >= 0) {
    ix->pages.Unmap();  // the file shrinks below the view
    rc = FileTruncate(ix->file, 2 * kBlockSize);
    if (rc < 0) rc = KS_PASS(kZap, rc);
  }
  if (rc >= 0) ix->pages.SetFileLength(2 * kBlockSize);
  tag->path.Forget();
  tag->remember = 0;
  ix->header_changed = 0;
  EndUpdate(ix, locked_here);
  return rc < 0 ? rc : 0;
}

}  // namespace kestrel::dbase
