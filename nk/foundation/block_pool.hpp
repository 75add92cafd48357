// Small memory blocks for the value objects (strings, numbers, arrays,
// dictionaries) and the element storage of the containers, carved by size class
// from pages that each belong to one thread.
//
// Reading a large JSON text makes and frees objects by the hundred thousand.
// glibc puts most of them in its fast bins and later merges them one by one,
// which costs more than parsing the text, and after a few documents its free
// lists hand out blocks scattered over the heap. A page here hands out its blocks
// in address order, and starts again from its first block once they are all
// back, so a document is laid out in the order it is made. A thread keeps a
// bounded number of empty pages; beyond that, and when a dispatch worker or the
// main loop goes idle (trim()), they go back to the system. A block may be freed
// on any thread; it returns to its page's owner.
#pragma once

#include <cstddef>

namespace nk::block_pool {

// Blocks above this size are plain heap blocks. Blocks are aligned to 8 bytes.
inline constexpr size_t kLargestBlock = 512;

// False under AddressSanitizer, where every block goes straight to the heap so
// that a use after free is still caught.
bool pooling() noexcept;

void* allocate(size_t bytes);
// `bytes` must be the size given to allocate().
void deallocate(void* p, size_t bytes) noexcept;

// Bytes of empty pages the calling thread holds for reuse.
size_t cachedBytes() noexcept;

// Takes in the blocks of the calling thread freed on other threads, and gives its
// empty pages back to the system when they are more than kIdleCachedBytes: for
// threads about to wait for work, so that memory freed in a burst is not held by
// an idle thread.
inline constexpr size_t kIdleCachedBytes = size_t{1} << 20;
void trim() noexcept;

// Adds another per-thread cache to what trim() gives back: `release` then runs on
// the trimming thread, for that thread's own cache. At most a few are registered,
// once each, by the library's own caches.
void addIdleRelease(void (*release)() noexcept) noexcept;

// A standard allocator over the pool, for element storage.
template <class T>
struct Allocator {
  static_assert(alignof(T) <= 8);
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
