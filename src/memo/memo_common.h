// Pieces shared by the DBT and FPT memo engines: open-switch handling, the
// memo lock, soft line breaks, memory the caller receives, and the names of
// companion, work and backup files.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/auto_lock.h"
#include "runtime/file_services.h"
#include "runtime/memory.h"
#include "runtime/status.h"

namespace kestrel::memo {

// Open switch bits as the memo openers see them.
inline constexpr int32_t kSwitchReadOnly = 0x100;
inline constexpr int32_t kSwitchWriteThrough = 0x200;
inline constexpr int32_t kSwitchShared = 0x400;
inline constexpr int32_t kSwitchAutoLock = 0x800;

// Attribute bits kept in a memo control block (reported by the info calls),
// besides kAttrReadOnly and kAttrShared, which FileOpen sets.
inline constexpr uint32_t kAttrUnbuffered = 0x02;    // always: no library cache
inline constexpr uint32_t kAttrAutoLock = 0x08;      // lock around each write
inline constexpr uint32_t kAttrWriteThrough = 0x10;  // flush every write

// The memo lock: one byte far beyond the end of any real memo file, the
// same region for both formats, so that two processes sharing a memo file
// serialise their writes.  Like the table locks it is a marker, not a
// protection of the bytes.
inline constexpr uint32_t kMemoLockOffset = 0x7FFFFFFE;
inline constexpr uint32_t kMemoLockLength = 1;

// The soft line break pair written by wrapping.
inline constexpr uint8_t kSoftBreak = 0x8D;
inline constexpr uint8_t kLineFeed = 0x0A;

// Attribute bits (besides those FileOpen sets) for a normalised switch word.
uint32_t AttributesFor(int32_t switches);

// The write rule of both formats: a shared file that this handle has not
// locked must be locked by the caller first (-242), unless it was opened for
// automatic locking, in which case the memo lock is taken for this one
// write and released on every way out.
template <class Memo, class Lock, class Unlock, class Body>
int32_t UnderWriteLock(Memo& m, ModulePath module, Lock lock, Unlock unlock, Body&& body) {
  if (!(m.attributes & kAttrShared) || m.locked) return body();
  if (!(m.attributes & kAttrAutoLock)) return KS_FAIL(module, DB_ERR_MUST_LOCK);
  AutoLock held([&m, unlock] { return unlock(m); });
  int32_t rc = lock(m);
  if (rc < 0) return KS_PASS(module, rc);
  held.Hold();
  int32_t result = body();
  if (result < 0) return result;
  rc = held.Release(result);
  if (rc < 0) return KS_PASS(module, rc);
  return result;
}

// The read rule of both formats: the header of a shared file that this
// handle has not locked may be stale and is read again first.
template <class Memo, class ReadHeader>
int32_t RefreshUnlessLocked(Memo& m, ModulePath module, ReadHeader read_header) {
  if (!(m.attributes & kAttrShared) || m.locked) return 0;
  int32_t rc = read_header(m);
  if (rc < 0) return KS_PASS(module, rc);
  return 0;
}

// Wraps text at soft_length characters per line by inserting 0x8D 0x0A after
// the last blank that fits, or inside a word longer than the line.  Hard line
// feeds start a new line.  Throws std::bad_alloc through Vec.
void SoftWrap(const uint8_t* text, size_t length, int soft_length, Vec<uint8_t>& out);

// Removes every 0x8D together with the byte after it; returns the new length.
size_t RemoveSoftBreaks(uint8_t* text, size_t length);

// A zero-terminated copy of a file name in library memory; false when out
// of memory.
bool CopyName(Buffer& to, const char* name);
inline const char* NameOf(const Buffer& name) {
  return name.empty() ? "" : reinterpret_cast<const char*>(name.data());
}

// Index of the first character of the base name (after the last ':', '\\'
// or '/').
size_t BaseNameStart(const char* path);
// Index of the extension's '.' in the base name, or the length when none.
size_t ExtensionStart(const char* path);

// The path with its extension replaced by ext (given in upper case, with
// its dot); the new extension takes the letter case of the old one
// (lower case when the old extension is all lower case).  Throws bad_alloc.
Vec<char> ReplaceExtension(const char* path, const char* ext);
// A work file name in the directory of path: directory + n + ext (ext with
// the letter case of path's extension), counting n from 0 until no such
// file exists.  Throws bad_alloc.
Vec<char> WorkFileName(const char* path, const char* ext);

// Copies a name into a fixed field of an information record.
void CopyNameField(char* field, size_t field_size, const char* name);

}  // namespace kestrel::memo
