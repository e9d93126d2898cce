// The library allocator (memory.h) and the exported memory calls.
//
// Each block carries a 16-byte prefix holding its size, so that a
// reallocation can zero what it adds and the live-block count stays exact.
// Fault injection counts every allocation and reallocation; the chosen one
// fails as a real shortage would.
#include "runtime/memory.h"

#include <cstdlib>
#include <cstring>

#include "runtime/boundary.h"
#include "runtime/library_state.h"
#include "runtime/status.h"

namespace kestrel {
namespace {

constexpr ModulePath kMalloc = KS_PLATFORM_MODULE("MALOCW32");
constexpr size_t kPrefix = 16;  // keeps the user block 16-byte aligned

bool InjectedFailure() {
  AllocationStats& stats = State().allocations;
  ++stats.made;
  if (stats.fail_at != 0 && stats.made == stats.fail_at) {
    stats.fail_at = 0;
    return true;
  }
  return false;
}

size_t& SizeOf(void* block) {
  return *reinterpret_cast<size_t*>(static_cast<uint8_t*>(block) - kPrefix);
}

}  // namespace

void* MemAlloc(size_t size) {
  if (InjectedFailure()) return nullptr;
  if (size > static_cast<size_t>(-1) - kPrefix) return nullptr;
  auto* raw = static_cast<uint8_t*>(std::calloc(1, size + kPrefix));
  if (!raw) return nullptr;
  *reinterpret_cast<size_t*>(raw) = size;
  ++State().allocations.live;
  return raw + kPrefix;
}

void* MemRealloc(void* block, size_t size) {
  if (!block) return MemAlloc(size);
  if (InjectedFailure()) return nullptr;
  if (size > static_cast<size_t>(-1) - kPrefix) return nullptr;
  size_t old = SizeOf(block);
  auto* raw =
      static_cast<uint8_t*>(std::realloc(static_cast<uint8_t*>(block) - kPrefix, size + kPrefix));
  if (!raw) return nullptr;
  if (size > old) std::memset(raw + kPrefix + old, 0, size - old);
  *reinterpret_cast<size_t*>(raw) = size;
  return raw + kPrefix;
}

void MemFree(void* block) {
  if (!block) return;
  --State().allocations.live;
  std::free(static_cast<uint8_t*>(block) - kPrefix);
}

bool Buffer::Allocate(size_t size) {
  void* p = MemAlloc(size);
  if (!p) return false;
  MemFree(data_);
  data_ = static_cast<uint8_t*>(p);
  size_ = size;
  return true;
}

bool Buffer::Resize(size_t size) {
  void* p = MemRealloc(data_, size);
  if (!p) return false;
  data_ = static_cast<uint8_t*>(p);
  size_ = size;
  return true;
}

void Buffer::Reset() {
  MemFree(data_);
  data_ = nullptr;
  size_ = 0;
}

namespace testing {
void FailAllocation(long nth) {
  AllocationStats& stats = State().allocations;
  stats.fail_at = nth > 0 ? stats.made + nth : 0;
}
long AllocationCount() { return State().allocations.made; }
long LiveAllocations() { return State().allocations.live; }
}  // namespace testing

int32_t ReportOutOfMemory(int line) { return Fail(kMalloc, line, DB_ERR_MEMORY); }
int32_t ReportUnexpectedException(int line) {
  return Fail(KS_ENGINE_MODULE("KESTREL"), line, DB_ERR_INVALID_COMMAND);
}

}  // namespace kestrel
