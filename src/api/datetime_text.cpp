// Exported string helpers and the phonetic code.
//
// The helpers take and return plain C strings.  A null text comes back as
// null (with the error code -221, unlogged: these helpers are used inside
// expressions where a missing operand is reported by the caller).  The
// buffers of DBstrright and DBstrmid come from the library allocator and are
// freed with DBFreeMemory; when memory runs short they return null with -203.
#include <cctype>
#include <cstring>

#include "kestrel/kestrel_datetime.h"
#include "runtime/boundary.h"
#include "runtime/memory.h"
#include "runtime/status.h"
#include "text/soundex.h"

using namespace kestrel;

namespace {

constexpr ModulePath kSoundex = KS_ENGINE_MODULE("SOUNDEX");
constexpr ModulePath kMalloc = KS_PLATFORM_MODULE("MALOCW32");

// A new zero-terminated copy of count bytes at text; null on a shortage.
char* CopyOut(const char* text, size_t count) {
  void* block = MemAlloc(count + 1);
  if (!block) {
    KS_FAIL(kMalloc, DB_ERR_MEMORY);
    return nullptr;
  }
  std::memcpy(block, text, count);
  return static_cast<char*>(block);  // zero-filled: already terminated
}

bool IsSpace(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

extern "C" {

KESTREL_API char* DBstrleft(char* text, int32_t n) {
  if (!text) {
    Record(DB_ERR_NULL);
    return nullptr;
  }
  if (n < 0) n = 0;
  // Stop looking once n characters are seen: the text may be long.
  if (strnlen(text, static_cast<size_t>(n) + 1) > static_cast<size_t>(n)) text[n] = '\0';
  return text;
}

KESTREL_API char* DBstrright(const char* text, int32_t n) {
  if (!text) {
    Record(DB_ERR_NULL);
    return nullptr;
  }
  const size_t length = std::strlen(text);
  const size_t take =
      n <= 0 ? 0 : (static_cast<size_t>(n) < length ? static_cast<size_t>(n) : length);
  return CopyOut(text + length - take, take);
}

KESTREL_API char* DBstrmid(const char* text, int32_t start, int32_t count) {
  if (!text) {
    Record(DB_ERR_NULL);
    return nullptr;
  }
  const size_t length = std::strlen(text);
  if (start < 1) start = 1;  // positions count from 1
  if (static_cast<size_t>(start) > length) return nullptr;
  const size_t available = length - static_cast<size_t>(start) + 1;
  const size_t take =
      count <= 0
          ? 0
          : (static_cast<size_t>(count) < available ? static_cast<size_t>(count) : available);
  return CopyOut(text + start - 1, take);
}

KESTREL_API char* DBstrltrim(char* text) {
  if (!text) {
    Record(DB_ERR_NULL);
    return nullptr;
  }
  size_t skip = 0;
  while (text[skip] != '\0' && IsSpace(text[skip])) ++skip;
  if (skip > 0) std::memmove(text, text + skip, std::strlen(text + skip) + 1);
  return text;
}

KESTREL_API char* DBstrrtrim(char* text) {
  if (!text) {
    Record(DB_ERR_NULL);
    return nullptr;
  }
  size_t length = std::strlen(text);
  while (length > 0 && IsSpace(text[length - 1])) --length;
  text[length] = '\0';
  return text;
}

KESTREL_API char* DBstrtrim(char* text) { return DBstrltrim(DBstrrtrim(text)); }

KESTREL_API const char* DBSoundex(const char* text) {
  char* result = SoundexResult();
  if (!text) {
    ComputeSoundex("", result);
    KS_FAIL(kSoundex, DB_ERR_NULL);
    return result;
  }
  ComputeSoundex(text, result);
  return result;
}

}  // extern "C"
