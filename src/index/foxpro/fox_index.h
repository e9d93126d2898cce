// The open FoxPro index (uncompressed IDX, compact IDX, compound CDX): the
// control block, its tags, and the engine operations the exported calls and
// the checker use.
//
// Engine functions return a status: 0, a warning (> 0) or an error (< 0,
// already recorded and logged).  kPastEnd and kBeforeStart come out of the
// walking routines and are mapped to public codes before a caller sees them.
#pragma once

#include <cstdint>

#include "index/common/key_compare.h"
#include "index/common/page_cache.h"
#include "index/common/path_stack.h"
#include "index/common/search_modes.h"
#include "index/foxpro/fox_format.h"
#include "kestrel/kestrel_expr.h"
#include "kestrel/kestrel_foxpro.h"
#include "runtime/handles.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel::foxpro {

inline constexpr uint32_t kStateReadOnly = 1;
inline constexpr uint32_t kStateWriteThrough = 2;
inline constexpr uint32_t kStateShared = 4;
inline constexpr uint32_t kStateAutoLock = 8;
inline constexpr uint32_t kStateHeaderStale = 32;
inline constexpr uint8_t kLockHeld = 4;

inline constexpr int32_t kPastEnd = 0x10000;
inline constexpr int32_t kBeforeStart = 0x10001;

// The key type of a tag whose type nobody has set since the open.
inline constexpr uint8_t kTypeUnknown = '?';

inline constexpr int kDefaultBuffers = 10;
inline constexpr int kWriteThroughBuffers = 4;
inline constexpr int kMinBuffers = 4;

// Pages are checked node by node against the tag's shape when decoded; the
// cache itself only keeps them.
struct FoxPageFormat final : index::PageFormat {
  bool Valid(const uint8_t*, index::PageUse) const override { return true; }
  void LayOutEmpty(uint8_t* page) const override;
};

struct Tag {
  ~Tag();

  char name[12] = {};            // upper case, no padding ("" for a single index)
  uint32_t header_offset = 0;    // offset of the tag's header
  uint32_t root = 0;             // root node offset
  uint8_t options = 0;           // header byte 14
  bool descending = false;       // order word at 502
  bool has_for = false;          // a FOR condition limits the tag
  uint8_t type = kTypeUnknown;   // key type: 'C', 'D', 'L', 'N', 1..6 or '?'
  NodeShape shape;               // key length, compact or not, pad
  char* expression = nullptr;    // key expression, blanks removed, upper case
  char* for_expression = nullptr;
  int32_t slot = 0;              // high half of the tag handle (0: the index's own)
  uint16_t remember = 0;         // search-remember flag
  uint64_t record_step = 1;      // record mask in use + 1 (DBfpGetRecordNumber)
  index::PathStack path;
  // One decoded node per level of the path; each allocated when first used.
  Node** levels = nullptr;
  int level_count = 0;

  int key_length() const { return shape.key_length; }
  bool unique() const { return (options & kOptUnique) != 0; }
};

struct FoxIndex : ControlBlock {
  ~FoxIndex() override;

  uint32_t state = 0;
  FileHandle file = kNoFile;
  int32_t write_mode = 0;
  char* file_name = nullptr;
  uint8_t lock_state = 0;
  bool compact = false;
  bool compound = false;
  uint32_t free_head = 0;
  FoxPageFormat page_format;
  index::PageCache pages;
  Tag* single = nullptr;     // the one tag of an IDX file
  Tag* directory = nullptr;  // the tag directory of a compound file
  Tag** open_tags = nullptr;  // open tags of a compound file by slot - 1
  int open_tag_slots = 0;
};

// One entry of a compound file's directory.
struct DirectoryEntry {
  char name[12];
  uint32_t header_offset;
};

// ---- handles, open and tags (fox_index.cpp) ----
// The index of a handle (either half).
int32_t SelectIndex(int32_t handle, FoxIndex** index, ModulePath module);
// The index and tag a handle names: -248 for a compound file's own handle
// or a slot that holds no tag.
int32_t SelectTag(int32_t handle, FoxIndex** index, Tag** tag, ModulePath module);
int32_t OpenIndex(int32_t* handle, const char* file_name, int32_t open_mode);
int32_t CloseIndex(int32_t handle);
int32_t OpenTag(FoxIndex* ix, int32_t handle, int32_t* tag_handle, int32_t number);
int32_t OpenNamedTag(FoxIndex* ix, int32_t handle, int32_t* tag_handle, const char* name);
int32_t CloseTag(FoxIndex* ix, Tag* tag);
// Every tag of a compound file in directory order (the caller frees *list).
int32_t ReadDirectory(FoxIndex* ix, DirectoryEntry** list, int32_t* count, ModulePath module);
// Reads a tag header at offset into tag (shape, expressions, root).
int32_t ReadTagHeader(FoxIndex* ix, uint32_t offset, Tag* tag, ModulePath module);
int32_t SetDefaultKeyType(Tag* tag, int32_t type);
int32_t LockIndex(FoxIndex* ix);
int32_t UnlockIndex(FoxIndex* ix);
int32_t FlushIndex(FoxIndex* ix);
int32_t RereadHeader(FoxIndex* ix);
int32_t CacheSize(FoxIndex* ix, int32_t* count, int32_t operation);

// ---- nodes ----
// Loads and decodes the node at offset for the tag's level (the decoded node
// stays valid until that level is loaded again); -206 for a node that does
// not decode, -204 for an offset outside the file.
int32_t LoadNode(FoxIndex* ix, Tag* tag, int level, uint32_t offset, const Node** node,
                 ModulePath module);
// Drops every decoded node of every tag (the cache was emptied).
void ForgetDecoded(FoxIndex* ix);
inline bool IsShared(const FoxIndex* ix) { return (ix->state & kStateShared) != 0; }
inline bool IsWriteThrough(const FoxIndex* ix) { return (ix->state & kStateWriteThrough) != 0; }
void EndCall(FoxIndex* ix);

// ---- search and navigation (fox_search.cpp) ----
int32_t KeySearch(FoxIndex* ix, Tag* tag, char* key, int32_t* record, int32_t mode);
int32_t Move(FoxIndex* ix, Tag* tag, int32_t code, char* key, int32_t* record);
int32_t GetCurrentKey(FoxIndex* ix, Tag* tag, char* key, int32_t* record);
int32_t KeyPercent(FoxIndex* ix, Tag* tag, int32_t* percent, const char* key, int32_t record);
int32_t KeyAtPercent(FoxIndex* ix, Tag* tag, int32_t percent, char* key, int32_t* record);
// Walks a tag from its first key, calling visit(key, record) for each key
// in physical order until it returns false; the position is left on the
// last key visited.
template <class Visit>
int32_t WalkKeys(FoxIndex* ix, Tag* tag, Visit&& visit);
int32_t FirstKey(FoxIndex* ix, Tag* tag, ModulePath module);
int32_t NextKeyStep(FoxIndex* ix, Tag* tag, ModulePath module);
int32_t CurrentEntry(FoxIndex* ix, Tag* tag, const uint8_t** key, uint32_t* record,
                     ModulePath module);

// ---- keys and information (fox_keys.cpp) ----
void DoubleToKey(double value, uint8_t* key);
double KeyToDouble(const uint8_t* key);
void FloatToKey(float value, uint8_t* key);
float KeyToFloat(const uint8_t* key);
void LongToKey(int32_t value, uint8_t* key);
int32_t KeyToLong(const uint8_t* key);
void ShortToKey(int16_t value, uint8_t* key);  // writes 4 bytes for a negative value
int16_t KeyToShort(const uint8_t* key);
int32_t DateToKey(char* key, const char* date, int32_t style);
int32_t KeyToDate(char* date, int32_t style, const char* key);
int32_t DayNumber(int32_t year, int32_t month, int32_t day);
int32_t MakeKey(int32_t table, FoxIndex* ix, Tag* tag, char** key);
int32_t GetRecordNumber(int32_t table, int32_t* record, FoxIndex* ix, Tag* tag, const char* key);
int32_t GetTagInfo(Tag* tag, DBFPTAGINFO* info);
int32_t GetIndexInfo(FoxIndex* ix, Tag* tag, DBFPINDEXINFO* info);

// ---- implementation of WalkKeys ----
template <class Visit>
int32_t WalkKeys(FoxIndex* ix, Tag* tag, Visit&& visit) {
  constexpr ModulePath kWalk = KS_ENGINE_MODULE("OKSEARCH");
  // More keys than the file's nodes can hold: children shared between
  // parents make the walk go round.
  uint64_t budget = (ix->pages.file_length() / kNodeSize + 1) * kMaxNodeEntries;
  int32_t rc = FirstKey(ix, tag, kWalk);
  while (rc == 0) {
    if (budget-- == 0) return KS_FAIL(kWalk, DB_ERR_CORRUPTED);
    const uint8_t* key = nullptr;
    uint32_t record = 0;
    rc = CurrentEntry(ix, tag, &key, &record, kWalk);
    if (rc < 0) return rc;
    if (!visit(key, record)) return 0;
    rc = NextKeyStep(ix, tag, kWalk);
  }
  return rc == kPastEnd ? 0 : rc;
}

}  // namespace kestrel::foxpro
