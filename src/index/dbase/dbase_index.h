// The open dBASE index (.NDX file, or .MDX file with its tags): control
// blocks and the engine operations shared by the search, update, key and
// checker code.
//
// One engine serves both formats: the open records the page size and the
// item layout in the control block, and everything after that works on a tag
// (an NDX file is its own single tag, in slot 0).
//
// Every engine function returns a status: 0, a warning (> 0) or an error
// (< 0, already set as the library error code and logged).  The internal
// result kPastEnd comes out of the walking routines and is mapped to public
// codes by the exported functions; it never reaches a caller.
#pragma once

#include <cstdint>

#include "index/common/key_compare.h"
#include "index/common/page_cache.h"
#include "index/common/path_stack.h"
#include "index/common/search_modes.h"
#include "index/dbase/dbase_format.h"
#include "kestrel/kestrel_expr.h"
#include "runtime/handles.h"
#include "runtime/library_state.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel::dbase {

// State flags of the control block.
inline constexpr uint32_t kStateReadOnly = 1;
inline constexpr uint32_t kStateWriteThrough = 2;
inline constexpr uint32_t kStateShared = 4;
inline constexpr uint32_t kStateAutoLock = 8;
inline constexpr uint32_t kStateUnbuffered = 16;

// Tag flags, and the same bits of the key type a create is given.
inline constexpr uint16_t kFlagUnique = 0x80;
inline constexpr uint16_t kFlagDescending = 0x100;

inline constexpr uint8_t kLockHeld = 4;
// The byte every process locks while it changes the index.
inline constexpr uint32_t kLockOffset = 1000000000;
inline constexpr uint32_t kLockLength = 1;

inline constexpr int kKindNdx = 1;
inline constexpr int kKindMdx = 2;
inline constexpr int kMaxTagSlots = 48;

inline constexpr int kInitialCacheCapacity = 10;
inline constexpr int kDefaultBuffers = 10;
inline constexpr int kMinBuffers = 3;

// Internal walk result (never returned by an exported function).
inline constexpr int32_t kPastEnd = 0x10000;

using index::kNoLevel;
using index::PageUse;
using index::SearchKey;

// How two keys of a tag compare.
enum class KeyOrder : uint8_t {
  kBytes,     // character keys: unsigned bytes
  kDouble,    // 8-byte doubles (dates, NDX numbers, type 1)
  kFloat,     // 4-byte floats (type 2)
  kSigned,    // two's-complement integers (types 4 and 6)
  kUnsigned,  // unsigned integers (types 3 and 5)
  kDecimal,   // the MDX 12-byte decimal number
  kFirstByte, // logical keys
};

// <0, 0, >0 as key a sorts before, with or after key b, over n bytes (the
// compared length; only character keys compare fewer than all).
int CompareKeys(KeyOrder order, const uint8_t* a, const uint8_t* b, int n);

// The page check the shared cache applies: a count no page of the file can
// hold is corrupt before any tag looks at it.
struct DbasePageFormat final : index::PageFormat {
  int max_count = 0;
  bool Valid(const uint8_t* page, PageUse use) const override {
    return use == PageUse::kFree || PageLayout::Count(page) <= max_count;
  }
  void LayOutEmpty(uint8_t* page) const override;
  uint32_t page_size = 0;
};

struct Tag {
  ~Tag() { MemFree(expression); }

  uint32_t header_page;  // MDX: block of the tag header; NDX: 0
  uint32_t root;         // page (NDX) or block (MDX) number of the root
  PageLayout layout;
  uint16_t half;         // minimum keys of a page below the root
  uint16_t rest;         // max_keys - half
  uint16_t flags;        // kFlagUnique | kFlagDescending
  uint8_t key_type;      // 'C', 'N', 'F', 'D', 'L' or 1..6 (NDX: 'C', 'N' or 2..6)
  uint8_t key_class;     // header field: 0 character/decimal, 1 double, 2..6 raw
  KeyOrder order;
  uint8_t remember;      // the scan flag of a search with bit 64
  int16_t number;        // MDX: tag table entry; NDX: 0
  char name[12];
  char* expression;      // blanks removed, upper case
  index::PathStack path;
};

struct DbaseIndex : ControlBlock {
  int kind;             // kKindNdx or kKindMdx
  uint32_t state;       // kState* flags
  FileHandle file;
  int32_t write_mode;   // flush word handed to page writes
  char* file_name;      // as given to the open
  uint8_t lock_state;   // kLockHeld while this process holds the lock
  uint32_t page_size;   // bytes
  uint32_t next_page;   // NDX: pages in the file; MDX: blocks in the file
  uint32_t free_head;   // MDX: first free page (block), 0 none
  uint32_t free_count;  // MDX
  uint8_t header_changed;
  Tag* tags[kMaxTagSlots];  // NDX: slot 0
  DbasePageFormat page_format;
  index::PageCache pages;
  uint8_t* scratch;     // two pages and an item, for splits and merges

  ~DbaseIndex() override;
};

inline bool IsShared(const DbaseIndex* ix) { return (ix->state & kStateShared) != 0; }
inline bool IsWriteThrough(const DbaseIndex* ix) { return (ix->state & kStateWriteThrough) != 0; }
inline bool IsDescending(const Tag* t) { return (t->flags & kFlagDescending) != 0; }
inline bool IsUnique(const Tag* t) { return (t->flags & kFlagUnique) != 0; }
inline uint32_t PageOffset(uint32_t number) { return number << kBlockShift; }

// ---- handles, files and pages (dbase_index.cpp) ----
// The index and tag a handle names: an NDX handle, or an MDX tag handle
// (slot in the high 16 bits).  -213 for a bad index handle, -248 for a slot
// that holds no tag.
int32_t SelectTag(int32_t handle, DbaseIndex** index, Tag** tag, ModulePath module);
int32_t SelectIndex(int32_t handle, DbaseIndex** index, ModulePath module);
int32_t CreateNdx(const char* file_name, int32_t key_type, char* expression, int32_t key_length);
int32_t OpenIndex(int32_t* handle, const char* file_name, int32_t open_mode, int kind);
int32_t CloseIndex(int32_t handle);
int32_t LockIndex(DbaseIndex* ix);
int32_t UnlockIndex(DbaseIndex* ix);
int32_t FlushIndex(DbaseIndex* ix, bool explicit_flush);
int32_t RereadHeader(DbaseIndex* ix);
int32_t CacheSize(DbaseIndex* ix, int32_t* count, int32_t operation);
int32_t ZapIndex(DbaseIndex* ix, Tag* tag);
// Creates an .NDX file as CreateNdx does and fills it with the key of every
// record of the table (dbase_build.cpp).
int32_t BuildNdx(int32_t table, const char* file_name, int32_t key_type, char* expression,
                 int32_t key_length);
// Writes the header fields that change (NDX: root and page count).
int32_t WriteHeaderFields(DbaseIndex* ix);

// Loads a tree page of the tag and checks its count against the tag's layout.
int32_t LoadPage(DbaseIndex* ix, const Tag* tag, uint32_t number, uint8_t** page,
                 ModulePath module);
// Marks a cached page changed (or writes it at once when write-through).
int32_t MarkChanged(DbaseIndex* ix, uint32_t number);
// A new empty page for the tag (free list or end of file), loaded and marked.
int32_t AllocatePage(DbaseIndex* ix, uint32_t* number, uint8_t** page);
// A page the tag no longer uses: on the MDX free list; an NDX page is left
// where it is (the format has no free list; a build or zap reclaims it).
int32_t ReleasePage(DbaseIndex* ix, uint32_t number);
// Writes the root of the tag to its header.
int32_t WriteRoot(DbaseIndex* ix, Tag* tag);
// Preparation of every change: -236 read-only; a shared index unlocked is
// locked for the call when opened with automatic locking (*locked_here),
// else -242.
int32_t BeginUpdate(DbaseIndex* ix, bool* locked_here, ModulePath module);
void EndUpdate(DbaseIndex* ix, bool locked_here);

// ---- search and navigation (dbase_search.cpp) ----
// Prepares a caller's key: character keys are cut at the key length and
// padded with blanks; other keys are key length bytes.
void PrepareKey(const Tag* tag, const char* key, index::Match match, SearchKey* out);
// The core descent.  after_equal stops on the first key above the sought key
// (else on the first key equal or above); with a record, keys equal to the
// sought key with another record are passed over.  Leaves the path on the
// stop (0), or past the last key (kPastEnd); 202 for an empty tag.
int32_t CoreSearch(DbaseIndex* ix, Tag* tag, const SearchKey& key, bool after_equal,
                   const uint32_t* record, ModulePath module);
int32_t NextKeyStep(DbaseIndex* ix, Tag* tag, ModulePath module);
int32_t PreviousKeyStep(DbaseIndex* ix, Tag* tag, ModulePath module);
int32_t GoFirst(DbaseIndex* ix, Tag* tag, ModulePath module);
int32_t GoLast(DbaseIndex* ix, Tag* tag, ModulePath module);
// Key and record of the item at the bottom of the path (kPastEnd past it).
int32_t CurrentItem(DbaseIndex* ix, Tag* tag, const uint8_t** key, uint32_t* record,
                    ModulePath module);
// The answer of a search mode (bit 64 taken out), positioned as it says.
int32_t SearchMode(DbaseIndex* ix, Tag* tag, const SearchKey& key, uint32_t record, int mode);
int32_t KeySearch(DbaseIndex* ix, Tag* tag, char* key, int32_t* record, int32_t mode);
int32_t Move(DbaseIndex* ix, Tag* tag, int32_t code, char* key, int32_t* record);
int32_t GetCurrentKey(DbaseIndex* ix, Tag* tag, char* key, int32_t* record);
int32_t KeyPercent(DbaseIndex* ix, Tag* tag, int32_t* percent, const char* key, int32_t record);
int32_t KeyAtPercent(DbaseIndex* ix, Tag* tag, int32_t percent, char* key, int32_t* record);

// ---- insertion and deletion (dbase_update.cpp) ----
int32_t AddKey(DbaseIndex* ix, Tag* tag, const char* key, uint32_t record, bool insert);
int32_t DeleteKey(DbaseIndex* ix, Tag* tag, const char* key, uint32_t record);

// ---- keys (dbase_keys.cpp) ----
// A key rewritten so that unsigned bytes order it as CompareKeys does (for
// the shared bulk-build sorter), and back.
void ToSortable(KeyOrder order, const uint8_t* key, uint8_t* out, int n);
void FromSortable(KeyOrder order, const uint8_t* in, uint8_t* key, int n);
void DecimalToKey(double value, uint8_t* key);  // 12 bytes
double KeyToDecimal(const uint8_t* key);
// The day number of a date as the format counts it.
double DateKeyValue(int32_t year, int32_t month, int32_t day);
int32_t DateToKey(uint8_t* key, const char* date, int32_t style);
int32_t KeyToDate(char* date, int32_t style, const uint8_t* key);
// An evaluated value as the tag's key (key length bytes + NUL).
int32_t ValueToKey(const DbaseIndex* ix, const Tag* tag, const DBEXPRVALUE& value,
                   bool stored_date, uint8_t* key, ModulePath module);
// Evaluates the tag's key expression for the table's current record; *key is
// a new buffer from the library allocator (nullptr on failure).
int32_t MakeKey(DbaseIndex* ix, Tag* tag, int32_t table, char** key);
// Key type and class of a key type argument ('C', 'N', 'F', 'D', 'L', 1..6);
// fills key length, item length and order.  -222/-223/-244 as a create or an
// open refuses it.
int32_t DefineKey(int kind, int type, int key_length, uint32_t page_size, Tag* tag,
                  ModulePath module);

}  // namespace kestrel::dbase
