// The library's allocator.
//
// Every block the library allocates comes from here, so that a shortage
// becomes the status -203 and so that tests can make the Nth allocation fail
// (see testing::FailAllocation) and count the blocks still live to prove that a
// failure path leaks nothing.
//
// Three layers:
//   - MemAlloc / MemRealloc / MemFree: raw, zero-filled, nullptr on failure.
//   - New<T> / Delete: objects in zero-filled memory (control blocks).
//   - Buffer, Allocator<T> and Vec<T>: RAII owners for engine code.  Vec
//     throws std::bad_alloc on failure, which the exported entry points turn
//     into -203 (see boundary.h).
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

namespace kestrel {

void* MemAlloc(size_t size);                 // zero-filled; nullptr on failure
void* MemRealloc(void* block, size_t size);  // nullptr on failure, block kept
void MemFree(void* block);

template <class T, class... Args>
T* New(Args&&... args) {
  void* p = MemAlloc(sizeof(T));
  if (!p) return nullptr;
  return new (p) T(std::forward<Args>(args)...);
}

template <class T>
void Delete(T* object) {
  if (!object) return;
  object->~T();
  MemFree(object);
}

// A byte buffer owned by the library allocator.
class Buffer {
 public:
  Buffer() = default;
  ~Buffer() { MemFree(data_); }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  Buffer(Buffer&& other) noexcept : data_(other.data_), size_(other.size_) {
    other.data_ = nullptr;
    other.size_ = 0;
  }
  Buffer& operator=(Buffer&& other) noexcept {
    if (this != &other) {
      MemFree(data_);
      data_ = other.data_;
      size_ = other.size_;
      other.data_ = nullptr;
      other.size_ = 0;
    }
    return *this;
  }

  // Replaces the contents with size zero bytes; false when out of memory
  // (the old contents are kept then).
  bool Allocate(size_t size);
  // Keeps the contents, growing with zeros; false when out of memory.
  bool Resize(size_t size);
  void Reset();
  // Takes ownership of a block from MemAlloc.
  void Adopt(uint8_t* data, size_t size) {
    MemFree(data_);
    data_ = data;
    size_ = size;
  }
  // Hands the block to the caller, who frees it with MemFree.
  uint8_t* Release() {
    uint8_t* p = data_;
    data_ = nullptr;
    size_ = 0;
    return p;
  }

  uint8_t* data() { return data_; }
  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  uint8_t& operator[](size_t i) { return data_[i]; }
  const uint8_t& operator[](size_t i) const { return data_[i]; }

 private:
  uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// Standard allocator over MemAlloc, for containers inside the engine.
template <class T>
struct Allocator {
  using value_type = T;
  Allocator() noexcept = default;
  template <class U>
  Allocator(const Allocator<U>&) noexcept {}
  T* allocate(size_t n) {
    if (n > static_cast<size_t>(-1) / sizeof(T)) throw std::bad_alloc();
    void* p = MemAlloc(n * sizeof(T));
    if (!p) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t) noexcept { MemFree(p); }
  template <class U>
  bool operator==(const Allocator<U>&) const noexcept {
    return true;
  }
};

template <class T>
using Vec = std::vector<T, Allocator<T>>;

namespace testing {
// Makes the nth allocation from now fail (1 = the next one); 0 switches
// fault injection off.  Each allocation and reallocation counts as one.
void FailAllocation(long nth);
// Allocations and reallocations made since the process started.
long AllocationCount();
// Blocks allocated and not yet freed.
long LiveAllocations();
}  // namespace testing

}  // namespace kestrel
