// The open .NTX index: control block, key descriptor, page cache and the
// engine operations shared by the search, update, build and checker code.
//
// Every engine function returns a status: 0, a warning (> 0) or an error
// (< 0, already set as the library error code and logged).  Two internal
// results, kPastEnd and kBeforeStart, come out of the walking routines and
// are mapped to public codes by the exported functions; they never reach a
// caller of the library.
#pragma once

#include <cstdint>

#include "index/clipper/ntx_format.h"
#include "index/common/key_compare.h"
#include "index/common/page_cache.h"
#include "index/common/path_stack.h"
#include "index/common/search_modes.h"
#include "kestrel/kestrel_expr.h"
#include "kestrel/kestrel_ntx.h"
#include "runtime/handles.h"
#include "runtime/library_state.h"
#include "runtime/memory.h"
#include "runtime/status.h"
#include "table/table_format.h"

namespace kestrel::ntx {

// State flags of the control block.
inline constexpr uint32_t kStateReadOnly = 1;
inline constexpr uint32_t kStateWriteThrough = 2;
inline constexpr uint32_t kStateShared = 4;
inline constexpr uint32_t kStateAutoLock = 8;
inline constexpr uint32_t kStateHeaderStale = 32;

// Index flags of the key descriptor, and the same bits of the key type a
// create is given.
inline constexpr uint16_t kFlagUnique = 128;
inline constexpr uint16_t kFlagDescending = 256;
// Bit of the key type that makes a lower-case type letter count as upper case.
inline constexpr int32_t kTypeCaseBit = 32;

inline constexpr uint8_t kLockHeld = 4;

using index::kNoLevel;
using index::PageUse;
using index::PathEntry;
using index::SearchKey;

inline constexpr int kInitialCacheCapacity = 10;
inline constexpr int kDefaultBuffers = 10;
inline constexpr int kWriteThroughBuffers = 3;
inline constexpr int kMinBuffers = 3;

// Internal walk results (never returned by an exported function).
inline constexpr int32_t kPastEnd = 0x10000;
inline constexpr int32_t kBeforeStart = 0x10001;

// Numeric key forms (see DBclSetNumericKeyForm).
inline constexpr int32_t kNumericIntegerDigits = 0;
inline constexpr int32_t kNumericWithDecimals = 1;

// The page layout the shared cache checks pages against.
struct NtxPageFormat final : index::PageFormat {
  uint16_t max_items = 0;
  uint16_t item_size = 0;
  bool Valid(const uint8_t* page, PageUse use) const override {
    return PageLayoutValid(page, max_items, item_size, use == PageUse::kFree);
  }
  void LayOutEmpty(uint8_t* page) const override { InitPage(page, max_items, item_size); }
};

struct KeyDescriptor {
  ~KeyDescriptor() { MemFree(expression); }

  uint32_t root;          // root page offset
  index::PathStack path;  // the position, and the last key and record handed out
  char* expression;       // own copy, blanks removed, upper case
  uint16_t remember;      // search-remember flag
  uint16_t flags;         // kFlagUnique | kFlagDescending
  uint16_t half_page;     // minimum keys of a non-root page
  uint16_t max_items;     // maximum keys of a page
  uint16_t decimals;      // decimal places of a numeric key
  uint16_t key_length;    // key bytes
  uint16_t item_size;     // key_length + 8
  uint8_t binary_type;    // 0, or 1..6 for binary keys
};

struct NtxIndex : ControlBlock {
  uint32_t state;      // kState* flags
  FileHandle file;     // file services handle
  int32_t write_mode;  // flush word handed to page writes
  char* file_name;     // as given to the open
  uint8_t lock_state;  // kLockHeld while this process holds the lock
  uint32_t free_head;  // first free page (header offset 8)
  KeyDescriptor* key;  // owned
  NtxPageFormat page_format;
  index::PageCache pages;  // page buffers and the file length
  uint16_t version;        // header offset 2
  uint8_t header_changed;  // header must be rewritten at the next flush
  int32_t numeric_form;    // kNumericIntegerDigits or kNumericWithDecimals

  ~NtxIndex() override;
};

// ---- handles and the open index (ntx_index.cpp) ----
int32_t SelectIndex(int32_t handle, NtxIndex** index, ModulePath module);
int32_t CreateIndex(const char* file_name, int32_t key_type, char* expression, int32_t key_length,
                    int32_t decimals);
int32_t OpenIndex(int32_t* handle, const char* file_name, int32_t open_mode);
int32_t CloseIndex(int32_t handle);
int32_t LockIndex(NtxIndex* ix);
int32_t UnlockIndex(NtxIndex* ix);
int32_t FlushIndex(NtxIndex* ix, bool explicit_flush);
int32_t RereadHeader(NtxIndex* ix);
int32_t CacheSize(NtxIndex* ix, int32_t* count, int32_t operation);
int32_t ZapIndex(NtxIndex* ix);

// ---- page services ----
// Makes the page current (cache entry 0) and returns its buffer.
int32_t LoadPage(NtxIndex* ix, uint32_t offset, uint8_t** page, PageUse use = PageUse::kTree);
// Marks a cached page changed (or writes it at once when write-through).
int32_t MarkChanged(NtxIndex* ix, uint32_t offset);
int32_t AllocatePage(NtxIndex* ix, uint32_t* offset, uint8_t** page);
int32_t ReleasePage(NtxIndex* ix, uint32_t offset);
// Empties the cache without writing (pages must not be changed).
void EmptyCache(NtxIndex* ix);
// Writes version, root and free list (10 bytes at offset 2).
int32_t WriteHeaderFields(NtxIndex* ix, uint16_t version);
void ForgetPosition(NtxIndex* ix);
inline bool IsShared(const NtxIndex* ix) { return (ix->state & kStateShared) != 0; }
inline bool IsWriteThrough(const NtxIndex* ix) { return (ix->state & kStateWriteThrough) != 0; }
inline bool IsDescending(const NtxIndex* ix) { return (ix->key->flags & kFlagDescending) != 0; }
inline bool IsUnique(const NtxIndex* ix) { return (ix->key->flags & kFlagUnique) != 0; }
// Shared write-through indexes keep nothing in the cache between calls.
inline void EndCall(NtxIndex* ix) {
  if (IsShared(ix) && IsWriteThrough(ix)) EmptyCache(ix);
}

// ---- search and navigation (ntx_search.cpp) ----
// Prepares a caller's key (key length bytes, or for C, D and N keys a shorter
// text padded with blanks).  kPrefix compares the text's own length.
void PrepareKey(const NtxIndex* ix, const char* key, index::Match match, SearchKey* out);
int32_t CoreSearch(NtxIndex* ix, const SearchKey& key, uint32_t record, int mode,
                   ModulePath module);
int32_t NextKeyStep(NtxIndex* ix, ModulePath module);
int32_t PreviousKeyStep(NtxIndex* ix, ModulePath module);
int32_t GoFirst(NtxIndex* ix, ModulePath module);
int32_t GoLast(NtxIndex* ix, ModulePath module);
// Key and record of the item at the bottom of the path.
int32_t CurrentItem(NtxIndex* ix, const uint8_t** key, uint32_t* record, ModulePath module);
int32_t KeySearch(NtxIndex* ix, char* key, int32_t* record, int32_t mode);
int32_t Move(NtxIndex* ix, int32_t code, char* key, int32_t* record);
int32_t GetCurrentKey(NtxIndex* ix, char* key, int32_t* record);
int32_t KeyPercent(NtxIndex* ix, int32_t* percent, const char* key, int32_t record);
int32_t KeyAtPercent(NtxIndex* ix, int32_t percent, char* key, int32_t* record);

// ---- insertion and deletion (ntx_update.cpp) ----
int32_t AddKey(NtxIndex* ix, const char* key, uint32_t record, bool insert);
int32_t DeleteKey(NtxIndex* ix, const char* key, uint32_t record);

// ---- keys (ntx_keys.cpp) ----
// Numeric key text of key_length characters.
int32_t NumericToKey(double value, int key_length, int decimals, int32_t form, char* key);
// The same key made from a number's stored text without going through a
// double, for the texts where that gives identical bytes; false (nothing
// written) for the rest, which NumericToKey handles.
bool NumericTextToKey(const char* text, int length, int key_length, int decimals, int32_t form,
                      char* key, int32_t* status);
double KeyToNumeric(const char* key);
void BinaryToKey(int type, const void* value, uint8_t* key);
void KeyToBinary(int type, const uint8_t* key, void* value);
int32_t DateToKey(char* key, const char* date, int32_t style);
int32_t KeyToDate(char* date, int32_t style, const char* key);
// An evaluated value as the index's key (key_length bytes + NUL).
int32_t ValueToKey(NtxIndex* ix, const DBEXPRVALUE& value, char* key, ModulePath module);
// Evaluates the key expression for the table's current record; *key is a new
// buffer from the library allocator (nullptr on failure).
int32_t MakeKey(int32_t table, NtxIndex* ix, char** key);
// Fills the index information the exported DBclGetIndexInfo returns.
int32_t GetIndexInfo(NtxIndex* ix, DBCLINDEXINFO* info);

}  // namespace kestrel::ntx
