// The lock an operation takes for itself: a write to a shared file opened
// with automatic locking (0x800) locks what it needs, writes and unlocks.
//
//     AutoLock lock([&] { return UnlockHeaderRegion(t); });
//     int32_t rc = LockHeaderRegion(t);
//     if (rc < 0) return KS_PASS(kModule, rc);
//     lock.Hold();
//     rc = Write(t);
//     return lock.Release(rc);
//
// Release gives back the lock and the operation's result, or the release's
// failure when the operation itself succeeded.  The release runs as a
// clean-up step: with the library code cleared, and an earlier failure put
// back afterwards.  A lock still held when the scope ends (a shortage of
// memory thrown out of the write) is released there, so no way out leaves it
// behind.  Tables and memo files use it alike.
#pragma once

#include <cstdint>
#include <utility>

#include "runtime/status.h"

namespace kestrel {

template <class Unlock>
class AutoLock {
 public:
  explicit AutoLock(Unlock unlock) : unlock_(std::move(unlock)) {}
  AutoLock(const AutoLock&) = delete;
  AutoLock& operator=(const AutoLock&) = delete;
  ~AutoLock() {
    if (held_) Unlock_();
  }

  // Marks the lock as taken; call it once the lock call succeeded.
  void Hold() { held_ = true; }
  bool held() const { return held_; }

  // Releases a held lock and returns result, or the release's failure when
  // result is not a failure.  Without a held lock: result.
  int32_t Release(int32_t result) {
    if (!held_) return result;
    held_ = false;
    int32_t rc = Unlock_();
    return (result >= 0 && rc < 0) ? rc : result;
  }

 private:
  int32_t Unlock_() {
    int32_t before = ErrorCode();
    Succeed();
    int32_t rc = unlock_();
    if (before < 0) Record(before);
    return rc;
  }

  Unlock unlock_;
  bool held_ = false;
};

}  // namespace kestrel
