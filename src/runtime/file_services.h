// File and lock services: the only way the engines reach the disk.
//
// Every routine follows the failure convention (status.h): on failure it sets
// the library error code, logs under its module (except where noted) and
// returns the code; on success it returns the current library error code
// without resetting it, so an engine sets the code to 0 before a sequence of
// calls and tests for a negative result after each.
//
// Open attributes: bit 0 (1) read-only, bit 2 (4) shared; FileOpen updates only
// these two bits of the caller's word.
//
// The implementation is POSIX (posix/file_services.cpp):
//   - exclusive / shared opens are a whole-file flock taken right after open
//     (LOCK_EX|LOCK_NB, or LOCK_SH|LOCK_NB for a shared open); a refused flock
//     is a refused open;
//   - byte-range locks are open-file-description locks (F_OFD_SETLK), so two
//     descriptors in one process conflict like two processes do, and they
//     conflict with the classic fcntl locks of other programs.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/library_state.h"

namespace kestrel {

inline constexpr uint32_t kAttrReadOnly = 0x01;
inline constexpr uint32_t kAttrShared = 0x04;

inline constexpr int32_t kModeReadOnly = 0x100;
inline constexpr int32_t kModeWriteThrough = 0x200;
inline constexpr int32_t kModeShared = 0x400;
inline constexpr int32_t kModeAutoLock = 0x800;

// The open switch word of every opener (tables, memo files, every index
// engine): automatic locking (0x800) brings sharing and write-through
// (0x600) with it; read-only (0x100) then drops the automatic locking again
// but keeps the 0x600 it brought.  The order matters: a read-only open with
// automatic locking is a shared, write-through read-only open.
constexpr int32_t NormaliseOpenSwitches(int32_t mode) {
  if (mode & kModeAutoLock) mode |= kModeShared | kModeWriteThrough;
  if (mode & kModeReadOnly) mode &= ~kModeAutoLock;
  return mode;
}
static_assert(NormaliseOpenSwitches(0x900) == 0x700);

// Opens an existing file; mode bits 0x100 (read-only) and 0x400 (shared).
// -221 null argument, -214 empty name, -246 refused (logged under INITW32).
int32_t FileOpen(FileHandle* handle, const char* name, int32_t mode, uint32_t* attributes);
// Creates or truncates a file for reading and writing, shared.
// -221 null (not logged), -214 empty name, -246 refused (logged under INITW32).
int32_t FileCreate(FileHandle* handle, const char* name);
// Closes the handle; never reports an error.
int32_t FileClose(FileHandle handle);
// Deletes the file; -221 null; when the system refuses, the warning 204.
int32_t FileDelete(const char* name);
// 1 when the file exists and nobody holds it open, else 0; never sets a code.
int32_t FileExists(const char* name);
// Flushes the file's data to disk; refused -213.
int32_t FileFlush(FileHandle handle);
// The file's size; -221 null, -204 when a seek fails.  The position is kept.
int32_t FileSize(FileHandle handle, uint64_t* size);
// Sets the position from the start; refused -280.
int32_t FileSeek(FileHandle handle, uint64_t offset);
// Reads exactly count bytes at the position; -221 null, -202 refused or
// short (not logged).
int32_t FileRead(FileHandle handle, void* buffer, size_t count);
// Writes exactly count bytes at the position, then flushes when the low 16
// bits of flush are non-zero; -221 null, -201 refused or short (not logged).
int32_t FileWrite(FileHandle handle, const void* buffer, size_t count, int32_t flush);
// Seek and read in one system call; same codes as FileSeek / FileRead.
// The file position is left unspecified.
int32_t FileReadAt(FileHandle handle, uint64_t offset, void* buffer, size_t count);
// Seek and write in one system call; same codes as FileSeek / FileWrite.
int32_t FileWriteAt(FileHandle handle, uint64_t offset, const void* buffer, size_t count,
                    int32_t flush);
// Cuts the file at length; seek failures as FileSeek, refused -201.
int32_t FileTruncate(FileHandle handle, uint64_t length);
// *at_end = 1 when the position is at or past the end; -221 null.
int32_t FileAtEnd(FileHandle handle, int32_t* at_end);
// Renames old_name to new_name (note the order).  On failure the code is
// derived from the current library code: 2 gives -205, 13 gives -240, any
// other code c gives c | 0xC000.
int32_t FileRename(const char* new_name, const char* old_name);
// Moves old_name over new_name in one step (note the order): new_name is
// either the old file or the whole new one, never missing or half there.
// Both names must be in one file system, so a work file goes beside its
// target.  A target someone holds open exclusively is refused (-246), as
// FileCreate refuses it; the target's permission bits carry over.  The
// folder is flushed afterwards where the system allows, so the new name
// survives a crash; making old_name's data durable first is the caller's
// part.  -221 null, -246 refused (logged under FILEW32).
int32_t FileReplace(const char* new_name, const char* old_name);
// Creates a file that did not exist, for reading and writing, named
// prefix + "<process id>_<n>" + suffix with the first n from *sequence up
// whose name is free.  The create is exclusive, so two processes (or two
// builds of one process) never share a file; *sequence is left past the n
// used.  name (capacity bytes) receives the name.  -221 null, -214 the
// name does not fit, -246 refused (logged under INITW32).
int32_t FileCreateUnique(FileHandle* handle, const char* prefix, const char* suffix,
                         uint32_t* sequence, char* name, size_t capacity);
// Locks (unlock == 0) or unlocks a byte range, retrying at once up to the
// retry count; records held regions in the lock buffer.  -260 when locking
// with a full lock buffer, -280 seek refused, -279 every attempt failed.
int32_t FileLock(FileHandle handle, int32_t unlock, uint32_t offset, uint32_t length);
// 1 when the lock buffer holds exactly this region for this handle.
int32_t IsRegionLocked(FileHandle handle, uint32_t offset, uint32_t length);

// A read-only view of the first `size` bytes of a file, for readers that
// would otherwise make one system call per small read.  Views are an
// optimisation: when none can be had *view is nullptr and the caller reads
// through FileReadAt.  The view sees the library's own writes at once (one
// page cache); the file must not shrink below `size` while it is mapped, so
// only files held exclusively are viewed, and a caller that truncates one
// unmaps it first.
int32_t FileMapView(FileHandle handle, uint64_t size, const uint8_t** view);
void FileUnmapView(const uint8_t* view, uint64_t size);

// Raises the soft limit of open files to count (capped at the hard limit);
// returns the resulting limit.
int32_t SetHandleCount(int32_t count);

namespace testing {
// Lock and unlock attempts FileLock has made since the process started
// (each retry counts), so a test can see how often it asked the system.
long LockAttempts();
}  // namespace testing

}  // namespace kestrel
