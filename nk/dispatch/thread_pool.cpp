// The shared worker pool: worker loop, parking and waking, growth while workers block.
#include "nk/dispatch/thread_pool_internal.hpp"

#include <pthread.h>

#include <algorithm>
#include <bit>
#include <thread>
#include <utility>

#include "nk/foundation/block_pool.hpp"

namespace nk::dispatch_internal {
namespace {

thread_local bool tlsPoolThread = false;
// The parking position this worker holds, or 0. Kept while awake, so that waking up
// touches one shared word fewer; given back while blocked and on exit.
thread_local uint32_t tlsPosition = 0;

// Enough to keep every processor busy; at least two so that global queues are concurrent
// on single-processor machines too, and at most one per parking position.
unsigned machineThreads() noexcept {
  return std::clamp(std::thread::hardware_concurrency(), 2u, 32u);
}

// Starts fetching the line at `p` to write it: an atomic update of a line that is only read
// into the cache first waits for it twice, once to read it and once to own it.
inline void prefetchForWrite(const void* p) noexcept {
#if defined(__x86_64__)
  // Emitted by hand: the compiler only emits it for processors it is told have it, and
  // those without it take it as a no-op.
  asm volatile("prefetchw %0" : : "m"(*static_cast<const char*>(p)));
#else
  __builtin_prefetch(p, 1);
#endif
}

}  // namespace

// The task a worker keeps for itself, in workerMain's frame.
struct ThreadPool::Held {
  WorkItem item;
  QueuePriority priority = QueuePriority::kDefault;
  bool present = false;
};

namespace {
// The worker's slot while it runs a plain task (not a serial or concurrent queue's run),
// and the same slot inside a TaskTailRegion, where keep() may fill it.
thread_local ThreadPool::Held* tlsTaskSlot = nullptr;
thread_local ThreadPool::Held* tlsTailSlot = nullptr;
}  // namespace

TaskTailRegion::TaskTailRegion() noexcept : saved_(tlsTailSlot) { tlsTailSlot = tlsTaskSlot; }

TaskTailRegion::~TaskTailRegion() { tlsTailSlot = saved_; }

void TaskTailRegion::interrupt() noexcept {
  if (ThreadPool::Held* held = std::exchange(tlsTailSlot, nullptr)) {
    ThreadPool::instance().queueHeld(*held);
  }
}

bool ThreadPool::keep(QueuePriority priority, WorkItem& item) noexcept {
  Held* slot = tlsTaskSlot;
  if (!slot) return false;
  if (slot == tlsTailSlot && !slot->present) {
    slot->item = std::move(item);
    slot->priority = priority;
    slot->present = true;
    return true;
  }
  instance().queueHeld(*slot);
  return false;
}

void ThreadPool::queueKept() noexcept {
  if (tlsTaskSlot) instance().queueHeld(*tlsTaskSlot);
}

void ThreadPool::queueHeld(Held& held) noexcept {
  if (!held.present) return;
  held.present = false;
  push(held.priority, std::move(held.item));
}

static_assert(sizeof(ThreadPool) <= 4096, "what a hop touches should stay on one page");

ThreadPool& ThreadPool::instance() noexcept {
  // Never destroyed: detached workers may still be running when static destructors run.
  static ThreadPool* pool = new ThreadPool;
  return *pool;
}

ThreadPool::ThreadPool() : target_(machineThreads()), maxThreads_(machineThreads() + 64) {
  for (unsigned i = 0; i < target_; ++i) {
    census_.fetch_add(kThreadOne, std::memory_order_relaxed);
    spawn();
  }
}

bool ThreadPool::isPoolThread() noexcept { return tlsPoolThread; }

void ThreadPool::spawn() noexcept {
  try {
    std::thread([this] { workerMain(); }).detach();
  } catch (...) {
    // No thread: the work waits for a worker that frees up.
    census_.fetch_sub(kThreadOne, std::memory_order_relaxed);
  }
}

bool ThreadPool::popAny(WorkItem& item) {
  for (auto& q : queues_) {
    if (q.pop(item)) return true;
  }
  return false;
}

bool ThreadPool::anyPending() const noexcept {
  // One test for all the queues: a woken worker asks this before it runs its task.
  uint64_t backlog = 0;
  for (const auto& q : queues_) backlog |= q.backlogBits();
  return backlog != 0;
}

template <class Also>
int ThreadPool::claim(Also also) noexcept {
  uint64_t s = state_.load(std::memory_order_seq_cst);
  for (;;) {
    if (searching(s) != 0 || parked(s) == 0 || !also()) return -1;
    const int position = std::countr_zero(parked(s));
    if (state_.compare_exchange_weak(s, (s & ~(uint64_t{1} << position)) + kSearchingOne,
                                     std::memory_order_seq_cst)) {
      return position;
    }
  }
}

void ThreadPool::wakeOne() noexcept {
  const int position = claim([] { return true; });
  if (position >= 0) signal(position, kSearch);
}

// Only from outside the pool: a worker that submits is about to look for work itself, and
// takes a queued task sooner than a sleeper can wake up for it.
//
// A task handed over counts as searching until its worker takes it, as a queued one would:
// submissions meanwhile are queued without a wake-up, and the worker wakes the next.
[[gnu::hot]] bool ThreadPool::handOff(QueuePriority priority, Task& task, uintptr_t aux) noexcept {
  prefetchForWrite(&state_);  // cold after a sleep, and about to be updated
  if (tlsPoolThread) return false;
  // Tasks queued at this priority go first: from the same thread, they came first.
  const SegmentedQueue<WorkItem>& queue = queues_[static_cast<unsigned>(priority)];
  const int position = claim([&] { return queue.empty(); });
  if (position < 0) return false;
  WorkItem& item = *parkings_[position].slot;
  item.task = std::move(task);
  item.aux = aux;
  signal(position, kTask);
  return true;
}

void ThreadPool::signal(int position, Signal what) noexcept {
  Parking& parking = parkings_[position];
  parking.signal.store(what, std::memory_order_release);
  futexWake(&parking.signal, 1);
}

[[gnu::hot]] void ThreadPool::workerMain() {
  tlsPoolThread = true;
  pthread_setname_np(pthread_self(), "nk-pool");
  bool searching = false;
  Held held;
  for (;;) {
    WorkItem item;
    if (!popAny(item)) {
      Wake wake = park(searching, item);
      if (wake == Wake::kExit) return;
      if (wake == Wake::kSearch) continue;
    }
    if (searching) {
      searching = false;
      // The last searcher to find work hands the search on if more is waiting.
      uint64_t before = state_.fetch_sub(kSearchingOne, std::memory_order_seq_cst);
      if (this->searching(before) == 1 && anyPending()) notify();
    }
    run(item, held);
    runHeld(held);
  }
}

// Returns kExit when the worker should exit: the pool is above its size, or every parking
// position is taken. Returns kTask with the task handed over in `item`, where the claimer
// wrote it.
//
// Inlined into the worker loop, its one caller: a woken worker then has no return to make
// whose call came before it slept, a return the processor would mispredict.
[[gnu::always_inline]] inline ThreadPool::Wake ThreadPool::park(bool& searching, WorkItem& item) {
  uint64_t c = census_.load(std::memory_order_relaxed);
  bool leave = false;
  while (static_cast<uint32_t>(c) - (c >> 32) > target_) {
    if (census_.compare_exchange_weak(c, c - kThreadOne, std::memory_order_relaxed)) {
      leave = true;
      break;
    }
  }
  if (!leave && tlsPosition == 0) {
    uint32_t held = positions_.load(std::memory_order_relaxed);
    while (held != ~uint32_t{0}) {
      uint32_t bit = uint32_t{1} << std::countr_zero(~held);
      if (positions_.compare_exchange_weak(held, held | bit, std::memory_order_acquire)) {
        tlsPosition = bit;
        break;
      }
    }
    if (tlsPosition == 0) {
      census_.fetch_sub(kThreadOne, std::memory_order_relaxed);
      leave = true;
    }
  }
  if (leave) {
    if (tlsPosition != 0) positions_.fetch_and(~tlsPosition, std::memory_order_release);
    tlsPosition = 0;
    if (searching) state_.fetch_sub(kSearchingOne, std::memory_order_seq_cst);
    // Leaving may strand work a submitter saw this worker about to take.
    if (anyPending()) notify();
    return Wake::kExit;
  }

  const uint32_t bit = tlsPosition;
  Parking& parking = parkings_[std::countr_zero(bit)];
  // Published with the parked bit.
  parking.slot = &item;
  const uint64_t change = bit - (searching ? kSearchingOne : 0);  // modulo 2^64
  uint64_t s = state_.fetch_add(change, std::memory_order_seq_cst) + change;
  searching = false;

  // A submitter that saw this worker awake did not wake anyone, so look once more.
  if (anyPending()) {
    while (parked(s) & bit) {
      if (state_.compare_exchange_weak(s, s & ~uint64_t{bit}, std::memory_order_seq_cst)) {
        return Wake::kSearch;  // unparked itself, so not counted as searching
      }
    }
    // Claimed meanwhile: the claimer's signal is on its way.
  } else {
    block_pool::trim();
  }
  uint32_t received;
  while ((received = parking.signal.load(std::memory_order_acquire)) == kNone) {
    futexWait(&parking.signal, kNone);
  }
  // What a woken worker touches next was written by the thread that woke it, on another
  // processor perhaps: fetch it all at once. The state line for writing, as leaving the
  // searching state is the next thing done to it.
  prefetchForWrite(&state_);
  parking.signal.store(kNone, std::memory_order_relaxed);
  searching = true;  // counted so by the claimer
  if (received == kSearch) {
    for (const auto& q : queues_) q.prefetchHead();
    return Wake::kSearch;
  }
  // The task's queue, before the update of the state line holds loads back.
  __builtin_prefetch(reinterpret_cast<const void*>(item.aux & ~kDrainTag));
  return Wake::kTask;
}

// Runs the tasks the worker kept while nothing else waits; otherwise queues the kept one
// behind what waits: its submission takes effect now.
void ThreadPool::runHeld(Held& held) {
  while (held.present) {
    if (anyPending()) {
      queueHeld(held);
      return;
    }
    held.present = false;
    WorkItem next = std::move(held.item);
    run(next, held);
  }
}

void ThreadPool::enterBlocking() noexcept {
  // A task kept for later must not wait for this one.
  if (tlsTaskSlot) queueHeld(*tlsTaskSlot);
  if (tlsPosition != 0) {
    positions_.fetch_and(~tlsPosition, std::memory_order_release);
    tlsPosition = 0;
  }
  uint64_t c = census_.fetch_add(kBlockedOne, std::memory_order_relaxed) + kBlockedOne;
  // Keep target_ workers unblocked, within the cap.
  while (static_cast<uint32_t>(c) - (c >> 32) < target_ && static_cast<uint32_t>(c) < maxThreads_) {
    if (census_.compare_exchange_weak(c, c + kThreadOne, std::memory_order_relaxed)) {
      spawn();
      break;
    }
  }
}

void ThreadPool::exitBlocking() noexcept {
  census_.fetch_sub(kBlockedOne, std::memory_order_relaxed);
}

[[gnu::hot]] void ThreadPool::run(WorkItem& item, Held& held) {
  auto* queue = reinterpret_cast<QueueCore*>(item.aux & ~kDrainTag);
  if (item.aux & kDrainTag) {
    if (queue->kind == QueueKind::kSerial) {
      serialDrain(queue, item.task);  // directly, see serialDrain
    } else {
      queue->drain(item.task);
    }
    return;
  }
  {
    FrameScope frame(queue, false);
    tlsTaskSlot = &held;
    invokeGuarded(item.task, queue);
  }
  // Destroy what the task captured before the queue learns it is done: a barrier then
  // sees the effects of destructors too, and the queue may be deleted right after.
  item.task.reset();
  tlsTaskSlot = nullptr;
  if (queue->kind == QueueKind::kConcurrent) queue->taskDone();
}

}  // namespace nk::dispatch_internal
