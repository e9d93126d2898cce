// The keyword registry (module EVALX); see parse_entries.h.
#include "expr/parse_entries.h"

#include <cstring>

#include "runtime/library_state.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel::expr {
namespace {

constexpr ModulePath kEvalx = KS_ENGINE_MODULE("EVALX");

constexpr int32_t kInitialCapacity = 20;
constexpr int32_t kGrowth = 10;
// Count and capacity are 16-bit.
constexpr int32_t kMaxEntries = 32767;

ParseEntryTable& Table() {
  static ParseEntryTable table;
  return table;
}

// Compares entry's name with the text over the name's own length, as
// unsigned bytes: <0 when the entry sorts before the text, 0 when the text
// begins with the name, >0 after.  Stops at the first difference, so a
// shorter text (its terminator differs from every name byte) is never read
// past its end.
int Compare(const ParseEntry& entry, const char* text) {
  for (int32_t i = 0; i < entry.name_length; ++i) {
    auto a = static_cast<unsigned char>(entry.name[i]);
    auto b = static_cast<unsigned char>(text[i]);
    if (a != b) return a < b ? -1 : 1;
  }
  return 0;
}

// Binary search: true with *index the matching entry, or false with *index
// the position where text would be inserted.
bool Search(const char* text, int32_t* index) {
  const ParseEntryTable& table = Table();
  int32_t low = 0;
  int32_t high = table.count - 1;
  while (low <= high) {
    int32_t mid = low + (high - low) / 2;
    int c = Compare(table.entries[mid], text);
    if (c == 0) {
      *index = mid;
      return true;
    }
    if (c < 0) {
      low = mid + 1;
    } else {
      high = mid - 1;
    }
  }
  *index = low;
  return false;
}

}  // namespace

const ParseEntryTable& Registry() { return Table(); }

void FreeParseEntries() {
  ParseEntryTable& t = Table();
  for (int i = 0; i < t.count; ++i) MemFree(t.entries[i].name);
  MemFree(t.entries);
  t = ParseEntryTable{};
}

int32_t FindParseEntry(const char* text) {
  int32_t index;
  return Search(text, &index) ? index : -1;
}

int32_t AddParseEntry(const char* name, ParseEntryCallback callback) {
  if (!name || !callback) return KS_FAIL(kEvalx, DB_ERR_NULL);
  size_t length = std::strlen(name);
  // An empty name would match every text; a name longer than any expression
  // could never match.
  if (length == 0 || length > static_cast<size_t>(kMaxEntries)) {
    return KS_FAIL(kEvalx, DB_ERR_INVALID_COMMAND);
  }
  int32_t at;
  if (Search(name, &at)) return KS_FAIL(kEvalx, DB_WARN_EXISTS);

  // The name first: when the array cannot grow afterwards, only the name has
  // to be given back, and a registry that was empty stays unallocated.
  char* copy = static_cast<char*>(MemAlloc(length));
  if (!copy) return KS_FAIL(kEvalx, DB_ERR_MEMORY);
  std::memcpy(copy, name, length);

  // DBTerminate frees the registry.
  OnTerminate(&FreeParseEntries);
  ParseEntryTable& table = Table();
  if (table.count == table.capacity) {
    int32_t capacity = table.capacity == 0 ? kInitialCapacity : table.capacity + kGrowth;
    if (capacity > kMaxEntries) capacity = kMaxEntries;
    void* grown = capacity <= table.capacity
                      ? nullptr
                      : MemRealloc(table.entries, sizeof(ParseEntry) * capacity);
    if (!grown) {
      MemFree(copy);
      return KS_FAIL(kEvalx, DB_ERR_MEMORY);
    }
    table.entries = static_cast<ParseEntry*>(grown);
    table.capacity = static_cast<int16_t>(capacity);
  }
  std::memmove(table.entries + at + 1, table.entries + at,
               sizeof(ParseEntry) * static_cast<size_t>(table.count - at));
  table.entries[at] = ParseEntry{copy, callback, static_cast<int32_t>(length)};
  ++table.count;
  return Succeed();
}

int32_t DeleteParseEntry(const char* name) {
  if (!name) return KS_FAIL(kEvalx, DB_ERR_NULL);
  int32_t at;
  ParseEntryTable& table = Table();
  // Only the keyword of exactly this name: a registered prefix of the name
  // is another keyword and stays.
  if (!Search(name, &at) ||
      static_cast<size_t>(table.entries[at].name_length) != std::strlen(name)) {
    return KS_FAIL(kEvalx, DB_WARN_KEY_NOT_FOUND);
  }
  MemFree(table.entries[at].name);
  std::memmove(table.entries + at, table.entries + at + 1,
               sizeof(ParseEntry) * static_cast<size_t>(table.count - at - 1));
  --table.count;
  if (table.count == 0) FreeParseEntries();
  return Succeed();
}

int32_t GetEntryName(char* buffer, int32_t index) {
  if (!buffer) return KS_FAIL(kEvalx, DB_ERR_NULL);
  const ParseEntryTable& table = Table();
  if (index < 0 || index >= table.count) return KS_FAIL(kEvalx, DB_WARN_NO_MORE_KEYS);
  const ParseEntry& entry = table.entries[index];
  std::memcpy(buffer, entry.name, static_cast<size_t>(entry.name_length));
  buffer[entry.name_length] = '\0';
  return Succeed();
}

int32_t GetRegistryInfo(int16_t* count, int32_t* max_length) {
  if (!count || !max_length) return KS_FAIL(kEvalx, DB_ERR_NULL);
  const ParseEntryTable& table = Table();
  *count = table.count;
  if (table.count == 0) return KS_FAIL(kEvalx, DB_WARN_FILE_EMPTY);
  int32_t longest = 0;
  for (int32_t i = 0; i < table.count; ++i) {
    if (table.entries[i].name_length > longest) longest = table.entries[i].name_length;
  }
  *max_length = longest;
  return Succeed();
}

}  // namespace kestrel::expr
