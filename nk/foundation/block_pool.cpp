// The per-thread free lists behind block_pool.hpp.

#include "nk/foundation/block_pool.hpp"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace nk::block_pool {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooling = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kPooling = false;
#else
constexpr bool kPooling = true;
#endif
#else
constexpr bool kPooling = true;
#endif

// Free blocks a thread keeps for reuse, in bytes. Dispatch workers and the main
// loop give them back when they go idle (trim()).
constexpr size_t kCachedBytesLimit = size_t{64} << 20;
constexpr size_t kGranule = 8;
constexpr size_t kClasses = kLargestBlock / kGranule;

struct FreeBlock {
  FreeBlock* next;
};

// Each class is a queue: blocks come back in the order they were freed. A large
// document read after another was dropped then takes the old one's blocks in
// the order it made them, which reads back faster than the reversed order a
// stack gives. Trivially destructible, so that reaching it costs no
// initialisation check.
struct ThreadCache {
  FreeBlock* heads[kClasses];
  FreeBlock* tails[kClasses];
  size_t cachedBytes;
  bool drainRegistered;
  bool ended;
};

thread_local ThreadCache threadCache{};

void releaseAll(ThreadCache& c) noexcept {
  for (FreeBlock*& head : c.heads) {
    while (head) ::operator delete(std::exchange(head, head->next));
  }
  c.cachedBytes = 0;
}

// Gives the blocks of a thread back to the heap when the thread ends.
struct Drain {
  ~Drain() {
    releaseAll(threadCache);
    threadCache.ended = true;
  }
};

// The other per-thread caches trim() gives back (addIdleRelease).
constexpr size_t kIdleReleaseSlots = 4;
std::atomic<void (*)() noexcept> idleReleases[kIdleReleaseSlots] = {};

// Size class of a block of `bytes` (1 to kLargestBlock).
size_t classOf(size_t bytes) noexcept { return (bytes - 1) / kGranule; }

}  // namespace

bool pooling() noexcept { return kPooling; }

void* allocate(size_t bytes) {
  if (!kPooling || bytes > kLargestBlock || bytes == 0) return ::operator new(bytes);
  const size_t k = classOf(bytes);
  ThreadCache& c = threadCache;
  if (FreeBlock* b = c.heads[k]) {
    // Free blocks lie anywhere; fetch the next one while this one is used.
    __builtin_prefetch(b->next, 1);
    c.heads[k] = b->next;
    c.cachedBytes -= (k + 1) * kGranule;
    return b;
  }
  return ::operator new((k + 1) * kGranule);
}

void deallocate(void* p, size_t bytes) noexcept {
  if (!p) return;
  ThreadCache& c = threadCache;
  if (!kPooling || bytes > kLargestBlock || bytes == 0 || c.ended ||
      c.cachedBytes >= kCachedBytesLimit) {
    ::operator delete(p);
    return;
  }
  if (!c.drainRegistered) {
    c.drainRegistered = true;
    static thread_local Drain drain;
    (void)drain;
  }
  const size_t k = classOf(bytes);
  auto* b = static_cast<FreeBlock*>(p);
  b->next = nullptr;
  if (c.heads[k]) {
    c.tails[k]->next = b;
  } else {
    c.heads[k] = b;
  }
  c.tails[k] = b;
  c.cachedBytes += (k + 1) * kGranule;
}

size_t cachedBytes() noexcept { return threadCache.cachedBytes; }

void trim() noexcept {
  ThreadCache& c = threadCache;
  if (c.cachedBytes > kIdleCachedBytes) releaseAll(c);
  for (const auto& hook : idleReleases) {
    if (auto* release = hook.load(std::memory_order_acquire)) release();
  }
}

void addIdleRelease(void (*release)() noexcept) noexcept {
  for (auto& hook : idleReleases) {
    void (*empty)() noexcept = nullptr;
    if (hook.compare_exchange_strong(empty, release, std::memory_order_acq_rel)) return;
  }
  std::abort();  // more caches than slots: raise kIdleReleaseSlots
}

}  // namespace nk::block_pool
