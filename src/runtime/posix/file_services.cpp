// POSIX implementation of the file and lock services (file_services.h).
//
// This is the only file of the library that calls the operating system for
// files.  Sharing modes are emulated with a whole-file flock taken right after
// open; byte-range locks are open-file-description locks, falling back to
// classic fcntl record locks where the kernel lacks them.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "runtime/file_services.h"
#include "runtime/status.h"

namespace kestrel {
namespace {

constexpr ModulePath kFile = KS_PLATFORM_MODULE("FILEW32");
constexpr ModulePath kInit = KS_PLATFORM_MODULE("INITW32");

// Opens name with flags and takes the whole-file sharing lock; -1 on refusal.
int OpenWithShareLock(const char* name, int flags, int share) {
  int fd;
  do {
    fd = ::open(name, flags | O_CLOEXEC, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || ::flock(fd, share | LOCK_NB) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

// Reads count bytes at the position (offset < 0) or at offset; false when
// the system refuses or the file ends first.
bool ReadFully(FileHandle h, void* buffer, size_t count, int64_t offset) {
  auto* p = static_cast<uint8_t*>(buffer);
  while (count > 0) {
    ssize_t n = offset < 0 ? ::read(h, p, count) : ::pread(h, p, count, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    count -= static_cast<size_t>(n);
    if (offset >= 0) offset += n;
  }
  return true;
}

bool WriteFully(FileHandle h, const void* buffer, size_t count, int64_t offset) {
  const auto* p = static_cast<const uint8_t*>(buffer);
  while (count > 0) {
    ssize_t n = offset < 0 ? ::write(h, p, count) : ::pwrite(h, p, count, offset);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    p += n;
    count -= static_cast<size_t>(n);
    if (offset >= 0) offset += n;
  }
  return true;
}

// The kind of byte-range lock a descriptor can take: a write lock, or a read
// lock on a descriptor opened read-only (a write lock needs write access).
short LockTypeFor(FileHandle h, bool unlock) {
  if (unlock) return F_UNLCK;
  int access = ::fcntl(h, F_GETFL);
  return (access >= 0 && (access & O_ACCMODE) == O_RDONLY) ? F_RDLCK : F_WRLCK;
}

// One attempt at a byte-range lock or unlock.  Open-file-description locks
// belong to the descriptor, not the process, so two descriptors of one process
// conflict; kernels without them get classic record locks.
bool TryRangeLock(FileHandle h, short type, uint32_t offset, uint32_t length) {
  ++State().lock_attempts;
  // A POSIX length of 0 would mean "to the end of the file and beyond"; an
  // empty region holds nothing, so there is nothing to ask the system.
  if (length == 0) return true;
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = static_cast<off_t>(offset);
  fl.l_len = static_cast<off_t>(length);
  fl.l_pid = 0;
#ifdef F_OFD_SETLK
  if (::fcntl(h, F_OFD_SETLK, &fl) == 0) return true;
  if (errno != EINVAL) return false;
  fl.l_pid = 0;
#endif
  return ::fcntl(h, F_SETLK, &fl) == 0;
}

// Sets the position from the start of the file; false when refused.  The
// callers inside this file test this result, never the library code: a
// success leaves an earlier caller's code in place, which may be negative.
bool SeekTo(FileHandle h, uint64_t offset) {
  return offset <= static_cast<uint64_t>(INT64_MAX) &&
         ::lseek(h, static_cast<off_t>(offset), SEEK_SET) >= 0;
}

}  // namespace

int32_t FileOpen(FileHandle* handle, const char* name, int32_t mode, uint32_t* attributes) {
  if (!handle || !name || !attributes) return KS_FAIL(kInit, DB_ERR_NULL);
  if (name[0] == '\0') return KS_FAIL(kInit, DB_ERR_INVALID_FILENAME);
  bool read_only = (mode & kModeReadOnly) != 0;
  bool shared = (mode & kModeShared) != 0;
  int fd = OpenWithShareLock(name, read_only ? O_RDONLY : O_RDWR, shared ? LOCK_SH : LOCK_EX);
  if (fd < 0) {
    *handle = kNoFile;
    return KS_FAIL(kInit, DB_ERR_OPEN);
  }
  *handle = fd;
  *attributes &= ~(kAttrReadOnly | kAttrShared);
  if (read_only) *attributes |= kAttrReadOnly;
  if (shared) *attributes |= kAttrShared;
  return Ok();
}

int32_t FileCreate(FileHandle* handle, const char* name) {
  if (!handle || !name) return Record(DB_ERR_NULL);
  if (name[0] == '\0') return KS_FAIL(kInit, DB_ERR_INVALID_FILENAME);
  // Open without truncating, take the shared lock, then truncate: a file that
  // someone holds exclusively is refused before it is damaged.
  int fd = OpenWithShareLock(name, O_RDWR | O_CREAT, LOCK_SH);
  if (fd < 0 || ::ftruncate(fd, 0) != 0) {
    if (fd >= 0) ::close(fd);
    *handle = kNoFile;
    return KS_FAIL(kInit, DB_ERR_OPEN);
  }
  // Tables and indexes are read by record and by page, not front to back.
  (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM);
  *handle = fd;
  return Ok();
}

int32_t FileClose(FileHandle handle) {
  if (handle >= 0) ::close(handle);
  return Ok();
}

int32_t FileDelete(const char* name) {
  if (!name) return KS_FAIL(kFile, DB_ERR_NULL);
  if (::unlink(name) != 0) return KS_FAIL(kFile, DB_WARN_KEY_NOT_FOUND);
  return Ok();
}

int32_t FileExists(const char* name) {
  if (!name || name[0] == '\0') return 0;
  int fd = OpenWithShareLock(name, O_RDONLY, LOCK_EX);
  if (fd < 0) return 0;
  ::close(fd);
  return 1;
}

int32_t FileFlush(FileHandle handle) {
  if (::fdatasync(handle) != 0) return KS_FAIL(kFile, DB_ERR_INVALID_HANDLE);
  return Ok();
}

int32_t FileSize(FileHandle handle, uint64_t* size) {
  if (!size) return KS_FAIL(kFile, DB_ERR_NULL);
  struct stat st;
  if (::fstat(handle, &st) != 0) return KS_FAIL(kFile, DB_ERR_SEEK);
  *size = static_cast<uint64_t>(st.st_size);
  return Ok();
}

int32_t FileSeek(FileHandle handle, uint64_t offset) {
  if (!SeekTo(handle, offset)) return KS_FAIL(kFile, DB_ERR_SEEK_REFUSED);
  return Ok();
}

int32_t FileRead(FileHandle handle, void* buffer, size_t count) {
  if (!buffer) return KS_FAIL(kFile, DB_ERR_NULL);
  if (!ReadFully(handle, buffer, count, -1)) return Record(DB_ERR_READ);
  return Ok();
}

int32_t FileWrite(FileHandle handle, const void* buffer, size_t count, int32_t flush) {
  if (!buffer) return KS_FAIL(kFile, DB_ERR_NULL);
  if (!WriteFully(handle, buffer, count, -1)) return Record(DB_ERR_WRITE);
  if (flush & 0xFFFF) return FileFlush(handle);
  return Ok();
}

int32_t FileReadAt(FileHandle handle, uint64_t offset, void* buffer, size_t count) {
  if (!buffer) return KS_FAIL(kFile, DB_ERR_NULL);
  if (offset > static_cast<uint64_t>(INT64_MAX)) return KS_FAIL(kFile, DB_ERR_SEEK_REFUSED);
  if (!ReadFully(handle, buffer, count, static_cast<int64_t>(offset))) return Record(DB_ERR_READ);
  return Ok();
}

int32_t FileWriteAt(FileHandle handle, uint64_t offset, const void* buffer, size_t count,
                    int32_t flush) {
  if (!buffer) return KS_FAIL(kFile, DB_ERR_NULL);
  if (offset > static_cast<uint64_t>(INT64_MAX)) return KS_FAIL(kFile, DB_ERR_SEEK_REFUSED);
  if (!WriteFully(handle, buffer, count, static_cast<int64_t>(offset))) return Record(DB_ERR_WRITE);
  if (flush & 0xFFFF) return FileFlush(handle);
  return Ok();
}

int32_t FileTruncate(FileHandle handle, uint64_t length) {
  if (!SeekTo(handle, length)) {
    int32_t rc = KS_FAIL(kFile, DB_ERR_SEEK_REFUSED);  // reported as FileSeek does
    return KS_PASS(kFile, rc);
  }
  if (::ftruncate(handle, static_cast<off_t>(length)) != 0) return KS_FAIL(kFile, DB_ERR_WRITE);
  return Ok();
}

int32_t FileAtEnd(FileHandle handle, int32_t* at_end) {
  if (!at_end) return KS_FAIL(kFile, DB_ERR_NULL);
  off_t pos = ::lseek(handle, 0, SEEK_CUR);
  struct stat st;
  if (pos < 0 || ::fstat(handle, &st) != 0) return KS_FAIL(kFile, DB_ERR_SEEK);
  *at_end = pos >= st.st_size ? 1 : 0;
  return Ok();
}

int32_t FileRename(const char* new_name, const char* old_name) {
  if (!new_name || !old_name) return KS_FAIL(kFile, DB_ERR_NULL);
  // Renaming never replaces an existing file: callers delete the target
  // first when that is what they mean.
  bool done = false;
#ifdef RENAME_NOREPLACE
  done = ::renameat2(AT_FDCWD, old_name, AT_FDCWD, new_name, RENAME_NOREPLACE) == 0;
  if (!done && (errno == EINVAL || errno == ENOSYS)) {
    // A file system (or kernel) that cannot refuse to replace by itself.
    done = ::access(new_name, F_OK) != 0 && std::rename(old_name, new_name) == 0;
  }
#else
  done = ::access(new_name, F_OK) != 0 && std::rename(old_name, new_name) == 0;
#endif
  if (done) return Ok();
  // The code does not come from the system's error but from the library code
  // left by the caller's previous step; callers depend on these exact values.
  int32_t code = ErrorCode();
  if (code == 2) return KS_FAIL(kFile, DB_ERR_NOT_FOUND);
  if (code == 13) return KS_FAIL(kFile, DB_ERR_ACCESS_DENIED);
  return KS_FAIL(kFile, code | 0xC000);
}

int32_t FileReplace(const char* new_name, const char* old_name) {
  if (!new_name || !old_name) return KS_FAIL(kFile, DB_ERR_NULL);
  // Hold the target with the shared lock a create would take, so a file
  // someone has open exclusively is not swapped from under them.
  int target = -1;
  struct stat st;
  if (::stat(new_name, &st) == 0) {
    target = OpenWithShareLock(new_name, O_RDONLY, LOCK_SH);
    if (target < 0) return KS_FAIL(kFile, DB_ERR_OPEN);
    (void)::chmod(old_name, st.st_mode & 07777);
  }
  bool done = std::rename(old_name, new_name) == 0;
  if (target >= 0) ::close(target);
  if (!done) return KS_FAIL(kFile, DB_ERR_OPEN);
  // The rename is durable once the folder holding the name is.
  // (A name too long for the buffer skips this step.)
  char folder[4096] = ".";
  const char* slash = std::strrchr(new_name, '/');
  size_t length = slash ? (slash == new_name ? 1 : static_cast<size_t>(slash - new_name)) : 1;
  if (slash && length < sizeof folder) {
    std::memcpy(folder, new_name, length);
    folder[length] = '\0';
  }
  int dir = length < sizeof folder ? ::open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
  if (dir >= 0) {
    (void)::fsync(dir);
    ::close(dir);
  }
  return Ok();
}

int32_t FileCreateUnique(FileHandle* handle, const char* prefix, const char* suffix,
                         uint32_t* sequence, char* name, size_t capacity) {
  if (!handle || !prefix || !suffix || !sequence || !name) return Record(DB_ERR_NULL);
  *handle = kNoFile;
  const long pid = static_cast<long>(::getpid());
  // Names that exist are skipped; a bound keeps a folder that refuses every
  // name (or is full of them) from turning into an endless loop.
  for (int attempt = 0; attempt < 100000; ++attempt) {
    uint32_t n = (*sequence)++;
    int length = std::snprintf(name, capacity, "%s%ld_%u%s", prefix, pid, n, suffix);
    if (length < 0 || static_cast<size_t>(length) >= capacity) {
      return KS_FAIL(kInit, DB_ERR_INVALID_FILENAME);
    }
    int fd;
    do {
      fd = ::open(name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0) {
      *handle = fd;
      return Ok();
    }
    if (errno != EEXIST) break;
  }
  return KS_FAIL(kInit, DB_ERR_OPEN);
}

int32_t FileLock(FileHandle handle, int32_t unlock, uint32_t offset, uint32_t length) {
  LibraryState& s = State();
  if (!unlock && s.lock_count >= s.lock_capacity) return KS_FAIL(kFile, DB_ERR_LOCK_OVERFLOW);
  // Locking moves the file position to the region, as callers expect.
  if (!SeekTo(handle, offset)) {
    int32_t rc = KS_FAIL(kFile, DB_ERR_SEEK_REFUSED);  // reported as FileSeek does
    return KS_PASS(kFile, rc);
  }
  // At least one attempt; retries follow at once, without a pause.
  int32_t attempts = s.lock_retry_count > 1 ? s.lock_retry_count : 1;
  short type = LockTypeFor(handle, unlock != 0);
  bool done = false;
  for (int32_t i = 0; i < attempts && !done; ++i) done = TryRangeLock(handle, type, offset, length);
  if (!done) return KS_FAIL(kFile, DB_ERR_LOCK_RETRIES);
  if (!unlock) {
    s.locks[s.lock_count++] = LockEntry{offset, length, handle};
    return Ok();
  }
  // Only the first matching entry goes; the others keep their order.
  for (int i = 0; i < s.lock_count; ++i) {
    const LockEntry& e = s.locks[i];
    if (e.offset == offset && e.length == length && e.file == handle) {
      for (int j = i + 1; j < s.lock_count; ++j) s.locks[j - 1] = s.locks[j];
      --s.lock_count;
      break;
    }
  }
  return Ok();
}

int32_t FileMapView(FileHandle handle, uint64_t size, const uint8_t** view) {
  if (!view) return KS_FAIL(kFile, DB_ERR_NULL);
  *view = nullptr;
  if (size == 0 || size > static_cast<uint64_t>(SIZE_MAX)) return Ok();
  void* p = ::mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_SHARED, handle, 0);
  if (p != MAP_FAILED) *view = static_cast<const uint8_t*>(p);
  return Ok();
}

void FileUnmapView(const uint8_t* view, uint64_t size) {
  if (view) ::munmap(const_cast<uint8_t*>(view), static_cast<size_t>(size));
}

int32_t SetHandleCount(int32_t count) {
  struct rlimit rl;
  if (::getrlimit(RLIMIT_NOFILE, &rl) != 0) return count;
  rlim_t want = count < 0 ? 0 : static_cast<rlim_t>(count);
  if (rl.rlim_max != RLIM_INFINITY && want > rl.rlim_max) want = rl.rlim_max;
  if (want > rl.rlim_cur) {
    rl.rlim_cur = want;
    if (::setrlimit(RLIMIT_NOFILE, &rl) != 0) ::getrlimit(RLIMIT_NOFILE, &rl);
  }
  return rl.rlim_cur > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int32_t>(rl.rlim_cur);
}

namespace testing {
long LockAttempts() { return State().lock_attempts; }
}  // namespace testing

}  // namespace kestrel
