// Small memory blocks recycled per thread, for the value objects (strings,
// numbers, arrays, dictionaries) and the element storage of the containers.
//
// Reading a large JSON text makes and frees objects by the hundred thousand.
// glibc puts most of them in its fast bins and later merges them one by one,
// which costs more than parsing the text. A freed block instead goes on a free
// list of its thread, by size class, and allocations of that class take the
// blocks back in the order they were freed. A thread keeps a bounded amount of
// free blocks; beyond that, when the thread ends, and when a dispatch worker or
// the main loop goes idle (trim()), blocks go back to the heap. A block freed on
// another thread than the one that made it joins the freeing thread's lists.
#pragma once

#include <cstddef>

namespace nk::block_pool {

// Blocks above this size are plain heap blocks.
inline constexpr size_t kLargestBlock = 512;

// False under AddressSanitizer, where every block goes straight to the heap so
// that a use after free is still caught.
bool pooling() noexcept;

void* allocate(size_t bytes);
// `bytes` must be the size given to allocate().
void deallocate(void* p, size_t bytes) noexcept;

// Free bytes the calling thread holds for reuse.
size_t cachedBytes() noexcept;

// Gives the calling thread's free blocks back to the heap when they are more than
// kIdleCachedBytes: for threads about to wait for work, so that memory freed in a
// burst is not held by an idle thread.
inline constexpr size_t kIdleCachedBytes = size_t{1} << 20;
void trim() noexcept;

// Adds another per-thread cache to what trim() gives back: `release` then runs on
// the trimming thread, for that thread's own cache. At most a few are registered,
// once each, by the library's own caches.
void addIdleRelease(void (*release)() noexcept) noexcept;

// A standard allocator over the pool, for element storage.
template <class T>
struct Allocator {
  using value_type = T;
  Allocator() noexcept = default;
  template <class U>
  Allocator(const Allocator<U>&) noexcept {}  // NOLINT: rebinding converts implicitly
  T* allocate(size_t n) { return static_cast<T*>(block_pool::allocate(n * sizeof(T))); }
  void deallocate(T* p, size_t n) noexcept { block_pool::deallocate(p, n * sizeof(T)); }
  template <class U>
  friend bool operator==(const Allocator&, const Allocator<U>&) noexcept {
    return true;
  }
};

}  // namespace nk::block_pool
