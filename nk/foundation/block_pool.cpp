// The pages behind block_pool.hpp.
//
// Blocks of a size class are carved from 64 KiB pages aligned to their size, so
// that a block's page is found from its address. A page belongs to one thread's
// heap, and that thread allocates and frees in it without atomics: a page hands
// out its free blocks first, then the blocks it never handed out, in address
// order. When the last block of a page comes back, the page starts again from its
// first block. A large document read after another was dropped is then laid out
// in the order it is made, whatever order the old one was freed in, and reads
// back as fast as the first one; free lists alone end up scattered after a few
// such rounds.
//
// A block freed on another thread goes onto its page's remote list, and the page
// onto its heap's list of pages with remote frees; the owner takes those blocks
// in when it next runs out of room in a class, or goes idle. Heaps outlive their
// threads: when a thread ends, its heap keeps the pages still in use until the
// next new thread takes it over, and blocks freed into it meanwhile are taken in
// at once, under a lock, so that a heap without a thread holds no empty pages.

#include "nk/foundation/block_pool.hpp"

#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <new>
#include <vector>

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

constexpr size_t kGranule = 8;
constexpr size_t kClasses = kLargestBlock / kGranule;
constexpr size_t kPageBytes = size_t{64} << 10;
constexpr size_t kLine = 64;
// Page headers sit at one of this many line offsets, chosen by the page's
// address: at the same offset in every page they would all fall into one cache
// set, and a thread works in a page of each of a dozen classes at once.
constexpr size_t kColors = 16;
// Pages mapped at once, or taken at once from those handed back. Less than
// kIdleCachedBytes, so that a fresh batch is not handed back at the next trim().
constexpr size_t kBatchPages = 8;
static_assert(kBatchPages * kPageBytes < kIdleCachedBytes);
// Empty pages a thread keeps; beyond that they go back to the system at once.
constexpr size_t kCachedPagesLimit = (size_t{64} << 20) / kPageBytes;

struct FreeBlock {
  FreeBlock* next;
};

struct Heap;

struct Page {
  // The owning thread's.
  FreeBlock* free;
  char* bump;  // the first block never handed out
  char* end;
  Heap* heap;
  Page* prev;  // on its heap's list of pages with room in a class, or of empty pages
  Page* next;
  uint32_t used;  // blocks out, counting those freed remotely and not yet taken in
  uint32_t capacity;
  uint32_t blockSize;
  uint16_t sizeClass;
  bool listed;   // on a list of pages with room
  bool current;  // the page its class allocates from
  // Other threads': blocks they freed, and the link of the heap's pending list.
  alignas(kLine) std::atomic<FreeBlock*> remote;
  Page* pendingNext;
};
static_assert(sizeof(Page) == 2 * kLine);
static_assert((kColors - 1) * kLine + sizeof(Page) + kLargestBlock < kPageBytes);

// A page with no room: the current page of every class of a new heap, so that the
// fast path needs no test for "none".
Page noRoom;

struct Heap {
  Heap() { std::fill(std::begin(current), std::end(current), &noRoom); }
  Page* current[kClasses];     // allocations of a class come from here
  Page* roomy[kClasses] = {};  // the class's other pages with room
  Page* emptyHead = nullptr;   // in the order they emptied
  Page* emptyTail = nullptr;
  size_t emptyPages = 0;
  std::atomic<Page*> pending{nullptr};  // pages with remote frees
  std::atomic<bool> orphaned{false};    // no thread: remote frees are taken in at once
  Heap* nextOrphan = nullptr;
};

struct Shared {
  std::recursive_mutex lock;  // a heap without a thread, worked on under it, may need pages
  Heap* orphans = nullptr;
  std::vector<Page*> unused;  // handed back to the system; the addresses are kept
  // Blocks made by a thread after its own heap was given up, in the destructors of
  // its last thread-local objects. It has no thread of its own.
  Heap late;
  Shared() { late.orphaned.store(true, std::memory_order_relaxed); }
};

Shared& shared();

// Held across fork(), so that the child does not inherit it held by a thread it
// does not have. The child makes it anew: its one thread has another id than the
// parent's thread that took it.
void holdForFork() { shared().lock.lock(); }
void releaseInParent() { shared().lock.unlock(); }
void renewInChild() { new (&shared().lock) std::recursive_mutex; }

// Never destroyed: static destructors of other files free blocks too.
Shared& shared() {
  static Shared* const s = [] {
    auto* made = new Shared;
    pthread_atfork(&holdForFork, &releaseInParent, &renewInChild);
    return made;
  }();
  return *s;
}

thread_local Heap* tlsHeap = nullptr;
thread_local bool tlsEnded = false;

uintptr_t baseOf(const void* p) noexcept {
  return reinterpret_cast<uintptr_t>(p) & ~(kPageBytes - 1);
}

Page* headerAt(uintptr_t base) noexcept {
  return reinterpret_cast<Page*>(base + (base / kPageBytes) % kColors * kLine);
}

char* firstBlock(Page* p) noexcept { return reinterpret_cast<char*>(p + 1); }

void format(Page* p, Heap* h, size_t k) noexcept {
  new (p) Page{};
  p->heap = h;
  p->sizeClass = static_cast<uint16_t>(k);
  p->blockSize = static_cast<uint32_t>((k + 1) * kGranule);
  p->capacity = static_cast<uint32_t>(
      (baseOf(p) + kPageBytes - reinterpret_cast<uintptr_t>(firstBlock(p))) / p->blockSize);
  p->bump = firstBlock(p);
  p->end = p->bump + size_t{p->capacity} * p->blockSize;
}

void restart(Page* p) noexcept {
  p->free = nullptr;
  p->bump = firstBlock(p);
}

void* take(Page* p) noexcept {
  ++p->used;
  if (FreeBlock* b = p->free) {
    __builtin_prefetch(b->next, 1);
    p->free = b->next;
    return b;
  }
  void* b = p->bump;
  p->bump += p->blockSize;
  return b;
}

void link(Page*& head, Page* p) noexcept {
  p->prev = nullptr;
  p->next = head;
  if (head) head->prev = p;
  head = p;
  p->listed = true;
}

void unlink(Page*& head, Page* p) noexcept {
  (p->prev ? p->prev->next : head) = p->next;
  if (p->next) p->next->prev = p->prev;
  p->listed = false;
}

Page* popEmpty(Heap& h) noexcept {
  Page* p = h.emptyHead;
  h.emptyHead = p->next;
  if (!h.emptyHead) h.emptyTail = nullptr;
  --h.emptyPages;
  return p;
}

void appendEmpty(Heap& h, Page* p) noexcept {
  p->next = nullptr;
  (h.emptyTail ? h.emptyTail->next : h.emptyHead) = p;
  h.emptyTail = p;
  ++h.emptyPages;
}

// Gives a page's memory back to the system and keeps its address for any thread's
// next batch. Under the shared lock.
void handBack(Shared& s, Page* p) noexcept {
  void* base = reinterpret_cast<void*>(baseOf(p));
  try {
    s.unused.push_back(p);
  } catch (const std::bad_alloc&) {
    munmap(base, kPageBytes);
    return;
  }
  madvise(base, kPageBytes, MADV_DONTNEED);
}

void handBackEmpty(Shared& s, Heap& h) noexcept {
  while (h.emptyHead) handBack(s, popEmpty(h));
}

void keepEmpty(Heap& h, Page* p) noexcept {
  if (h.emptyPages < kCachedPagesLimit) {
    appendEmpty(h, p);
    return;
  }
  Shared& s = shared();
  std::lock_guard<std::recursive_mutex> hold(s.lock);
  handBack(s, p);
}

// Fills the heap's empty list with pages handed back earlier, or mapped anew.
void refill(Heap& h) {
  Page* batch[kBatchPages];
  size_t n = 0;
  {
    Shared& s = shared();
    std::lock_guard<std::recursive_mutex> hold(s.lock);
    for (; n < kBatchPages && !s.unused.empty(); ++n) {
      batch[n] = s.unused.back();
      s.unused.pop_back();
    }
  }
  if (n == 0) {
    // One page more than the batch, trimmed to a page boundary.
    const size_t span = (kBatchPages + 1) * kPageBytes;
    void* m = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) throw std::bad_alloc();
    const auto start = reinterpret_cast<uintptr_t>(m);
    const uintptr_t first = baseOf(reinterpret_cast<void*>(start + kPageBytes - 1));
    const uintptr_t last = first + kBatchPages * kPageBytes;
    if (first > start) munmap(m, first - start);
    munmap(reinterpret_cast<void*>(last), start + span - last);
    for (; n < kBatchPages; ++n) batch[n] = headerAt(first + n * kPageBytes);
  }
  std::sort(batch, batch + n);
  for (size_t i = 0; i < n; ++i) appendEmpty(h, batch[i]);
}

// Puts a page whose count of blocks out went down where it now belongs: back on
// the list of its class's pages with room when it was full, with the empty pages
// when nothing is out.
void settle(Heap& h, Page* p) noexcept {
  const size_t k = p->sizeClass;
  if (p->current) {
    if (p->used == 0) restart(p);
    return;
  }
  if (p->used == 0) {
    if (p->listed) unlink(h.roomy[k], p);
    keepEmpty(h, p);
  } else if (!p->listed) {
    link(h.roomy[k], p);
  }
}

void takeInRemote(Heap& h) noexcept {
  Page* p = h.pending.exchange(nullptr, std::memory_order_acq_rel);
  while (p) {
    // Read before the page's list is taken: a remote free may then put the page on
    // the pending list again.
    Page* next = p->pendingNext;
    FreeBlock* blocks = p->remote.exchange(nullptr, std::memory_order_acq_rel);
    FreeBlock* tail = blocks;
    uint32_t n = 1;
    for (; tail->next; tail = tail->next) ++n;
    const uint32_t before = p->used;
    tail->next = p->free;
    p->free = blocks;
    p->used -= n;
    if (before == p->capacity || p->used == 0) settle(h, p);
    p = next;
  }
}

// Takes in the remote frees of a heap without a thread, and gives back its empty
// pages. Under the shared lock.
void tidyOrphan(Shared& s, Heap& h) noexcept {
  takeInRemote(h);
  for (Page*& p : h.current) {
    if (p != &noRoom && p->used == 0) {
      p->current = false;
      appendEmpty(h, p);
      p = &noRoom;
    }
  }
  handBackEmpty(s, h);
}

void* allocateFrom(Heap& h, size_t k) {
  Page* p = h.current[k];
  if (!p->free && p->bump == p->end) {
    // p is full and on no list now: the first block to come back lists it again.
    if (p != &noRoom) p->current = false;
    if ((p = h.roomy[k])) {
      unlink(h.roomy[k], p);
    } else {
      if (!h.emptyHead) refill(h);
      p = popEmpty(h);
      format(p, &h, k);
    }
    h.current[k] = p;
    p->current = true;
  }
  return take(p);
}

// Gives the heap of an ending thread over to the next thread to start.
struct Drain {
  ~Drain() {
    Heap* h = tlsHeap;
    tlsHeap = nullptr;
    tlsEnded = true;
    if (!h) return;
    Shared& s = shared();
    std::lock_guard<std::recursive_mutex> hold(s.lock);
    // Set before the pending list is taken: a remote free that the taking misses
    // sees it, and takes its block in itself.
    h->orphaned.store(true, std::memory_order_relaxed);
    tidyOrphan(s, *h);
    h->nextOrphan = s.orphans;
    s.orphans = h;
  }
};

Heap& adoptHeap() {
  static thread_local Drain drain;
  (void)drain;
  Heap* h = nullptr;
  {
    Shared& s = shared();
    std::lock_guard<std::recursive_mutex> hold(s.lock);
    if ((h = s.orphans)) {
      s.orphans = h->nextOrphan;
      h->orphaned.store(false, std::memory_order_relaxed);
    }
  }
  if (!h) h = new Heap;
  tlsHeap = h;
  return *h;
}

[[gnu::noinline]] void* allocateSlow(size_t k) {
  if (Heap* h = tlsHeap) {
    if (h->pending.load(std::memory_order_relaxed)) takeInRemote(*h);
    return allocateFrom(*h, k);
  }
  if (!tlsEnded) return allocateFrom(adoptHeap(), k);
  Shared& s = shared();
  std::lock_guard<std::recursive_mutex> hold(s.lock);
  takeInRemote(s.late);
  return allocateFrom(s.late, k);
}

[[gnu::noinline]] void freeRemote(Page* p, FreeBlock* b) noexcept {
  // Read while the block is still out: once it is on the page's list, the owner
  // may empty the page and give it to another heap.
  Heap* h = p->heap;
  FreeBlock* head = p->remote.load(std::memory_order_relaxed);
  do {
    b->next = head;
  } while (!p->remote.compare_exchange_weak(head, b, std::memory_order_acq_rel,
                                            std::memory_order_relaxed));
  if (head) return;  // the first block's freer puts the page on the pending list
  Page* top = h->pending.load(std::memory_order_relaxed);
  do {
    p->pendingNext = top;
  } while (!h->pending.compare_exchange_weak(top, p, std::memory_order_acq_rel,
                                             std::memory_order_relaxed));
  if (h->orphaned.load(std::memory_order_relaxed)) {
    Shared& s = shared();
    std::lock_guard<std::recursive_mutex> hold(s.lock);
    if (h->orphaned.load(std::memory_order_relaxed)) tidyOrphan(s, *h);
  }
}

[[gnu::noinline]] void settleLocal(Page* p) noexcept { settle(*tlsHeap, p); }

// The other per-thread caches trim() gives back (addIdleRelease).
constexpr size_t kIdleReleaseSlots = 4;
std::atomic<void (*)() noexcept> idleReleases[kIdleReleaseSlots] = {};

}  // namespace

bool pooling() noexcept { return kPooling; }

void* allocate(size_t bytes) {
  if (!kPooling || bytes - 1 >= kLargestBlock) return ::operator new(bytes);
  const size_t k = (bytes - 1) / kGranule;
  if (Heap* h = tlsHeap) {
    Page* p = h->current[k];
    if (p->free || p->bump != p->end) return take(p);
  }
  return allocateSlow(k);
}

void deallocate(void* block, size_t bytes) noexcept {
  if (!block) return;
  if (!kPooling || bytes - 1 >= kLargestBlock) {
    ::operator delete(block);
    return;
  }
  Page* p = headerAt(baseOf(block));
  assert(p->blockSize == ((bytes - 1) / kGranule + 1) * kGranule);
  auto* b = static_cast<FreeBlock*>(block);
  if (p->heap != tlsHeap) {  // also when this thread has no heap: a page always has one
    freeRemote(p, b);
    return;
  }
  b->next = p->free;
  p->free = b;
  const uint32_t before = p->used--;
  if (before == 1 && p->current) {
    restart(p);
  } else if (before == 1 || before == p->capacity) {
    settleLocal(p);
  }
}

size_t cachedBytes() noexcept { return tlsHeap ? tlsHeap->emptyPages * kPageBytes : 0; }

void trim() noexcept {
  if (Heap* h = tlsHeap) {
    if (h->pending.load(std::memory_order_relaxed)) takeInRemote(*h);
    if (h->emptyPages * kPageBytes > kIdleCachedBytes) {
      Shared& s = shared();
      std::lock_guard<std::recursive_mutex> hold(s.lock);
      handBackEmpty(s, *h);
    }
  }
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
