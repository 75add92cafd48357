// ThreadPool: the one pool of worker threads behind the global queues and every queue
// callers make. Sized to the machine; grows while its workers are blocked waiting.
//
// A parked worker is one bit of the pool's state word, and sleeps on a signal word of its
// own. A submitter wakes a worker only when work is waiting, no woken worker is still
// looking for work, and a worker is parked: it claims the worker by clearing its bit (one
// compare-and-swap) and signals exactly that thread. A submitter outside the pool, when
// nothing is queued ahead of its task, moves the task into an empty item in the claimed
// worker's frame before the signal, and the worker runs it there: neither side of a hop
// to a sleeping worker touches the queue. A woken worker that finds more
// work behind its own wakes the next one, so a burst of submissions costs the submitter
// at most one wake-up. Nothing spins.
#pragma once

#include <atomic>
#include <cstdint>

#include "nk/dispatch/queue_core_internal.hpp"
#include "nk/dispatch/segmented_queue_internal.hpp"

namespace nk::dispatch_internal {

// Page-aligned, so that the state word, the queues' ends and the parking places, which
// every hop to a sleeping worker touches, lie on one page.
class alignas(4096) ThreadPool {
 public:
  static ThreadPool& instance() noexcept;

  // Queues `item` at `priority` and wakes a worker if one is needed. Any thread.
  void push(QueuePriority priority, WorkItem&& item) {
    if (!handOff(priority, item.task, item.aux)) enqueue(priority, std::move(item));
  }
  // As push, for a caller that has tried handOff already.
  void enqueue(QueuePriority priority, WorkItem&& item) {
    queues_[static_cast<unsigned>(priority)].push(std::move(item));
    notify();
  }
  // From outside the pool, with nothing queued at `priority` and a worker parked: moves
  // `task` to that worker, as the item {task, aux}, wakes it and returns true. Otherwise
  // returns false, leaving `task` alone.
  bool handOff(QueuePriority priority, Task& task, uintptr_t aux) noexcept;

  // Queues make(0), ..., make(count - 1) at `priority`, in order, and wakes at most one
  // worker: each woken worker wakes the next while work remains. `make` must not throw.
  template <class Make>
  void pushEach(QueuePriority priority, size_t count, Make make) {
    __builtin_prefetch(&state_);
    queues_[static_cast<unsigned>(priority)].pushEach(count, make);
    notify();
  }

  // Called by a global queue before it queues a task: inside a TaskTailRegion with no
  // task kept yet, keeps `item` for this worker and returns true. Otherwise returns false
  // after queueing any task this thread kept, so that its own tasks keep their order.
  static bool keep(QueuePriority priority, WorkItem& item) noexcept;
  static void queueKept() noexcept;  // as keep() with nothing to keep
  struct Held;                       // a worker's kept task

  // Brackets a wait on a pool thread, so that other work can still get a thread.
  void enterBlocking() noexcept;
  void exitBlocking() noexcept;
  static bool isPoolThread() noexcept;

  unsigned targetThreads() const noexcept { return target_; }

 private:
  // state_: bits 0-31 parked workers, by parking position; bits 32-63 workers woken and
  // not yet running a task.
  static constexpr uint64_t kSearchingOne = uint64_t{1} << 32;
  static constexpr unsigned kPositions = 32;
  // census_: bits 0-31 live workers, bits 32-63 workers blocked in a wait.
  static constexpr uint64_t kThreadOne = 1;
  static constexpr uint64_t kBlockedOne = uint64_t{1} << 32;
  static constexpr unsigned kPriorities = 4;

  // Where a parked worker sleeps, one per parking position. Only the thread that cleared
  // the position's parked bit writes `signal` (and `*slot` before it); only the worker
  // resets it.
  struct alignas(64) Parking {
    std::atomic<uint32_t> signal{0};  // a Signal: the futex word
    // The empty item in the parked worker's frame that a task handed over with kTask goes
    // to, so that the worker runs it where it finds it. Not a member here: a running task
    // that blocks gives its worker's position up, and a stand-in may sleep here meanwhile.
    WorkItem* slot = nullptr;
  };
  enum Signal : uint32_t { kNone, kSearch, kTask };
  enum class Wake { kExit, kSearch, kTask };

  ThreadPool();
  static uint32_t parked(uint64_t s) noexcept { return static_cast<uint32_t>(s); }
  static uint32_t searching(uint64_t s) noexcept { return static_cast<uint32_t>(s >> 32); }

  void notify() noexcept {
    uint64_t s = state_.load(std::memory_order_seq_cst);
    if (searching(s) != 0 || parked(s) == 0) return;
    wakeOne();
  }
  // Claims a parked worker, while no woken worker is still searching and `also()` holds:
  // clears its parked bit and counts it as searching. Returns its position, or -1.
  template <class Also>
  int claim(Also also) noexcept;
  void wakeOne() noexcept;
  void signal(int position, Signal what) noexcept;
  void spawn() noexcept;
  bool popAny(WorkItem& item);
  bool anyPending() const noexcept;
  void workerMain();
  Wake park(bool& searching, WorkItem& item);
  void run(WorkItem& item, Held& held);
  void runHeld(Held& held);
  void queueHeld(Held& held) noexcept;  // pushes a kept task, if any
  friend class TaskTailRegion;

  SegmentedQueue<WorkItem> queues_[kPriorities];
  alignas(64) std::atomic<uint64_t> state_{0};
  alignas(64) std::atomic<uint32_t> positions_{0};  // parking positions in use
  std::atomic<uint64_t> census_{0};
  Parking parkings_[kPositions];
  const unsigned target_;
  const unsigned maxThreads_;
};

// Tells the pool, for its lifetime, that the current thread is waiting. No effect off the
// pool.
class BlockingRegion {
 public:
  BlockingRegion() noexcept : active_(ThreadPool::isPoolThread()) {
    if (active_) ThreadPool::instance().enterBlocking();
  }
  ~BlockingRegion() {
    if (active_) ThreadPool::instance().exitBlocking();
  }
  BlockingRegion(const BlockingRegion&) = delete;
  BlockingRegion& operator=(const BlockingRegion&) = delete;

 private:
  bool active_;
};

// Marks the last steps of a task running on a pool worker, steps that queue the
// continuation of the work and then return without blocking or running client code. The
// first global-queue task queued in the region stays with the worker, which runs it next
// unless other work is waiting by then (it is queued then, behind that work): queued at
// once, it would wake a second worker only for that worker to find the queue empty again,
// a futex wake-up per link of a chain. Any later task from the thread queues it first, so
// the thread's tasks keep their order. No effect off the pool or while a serial or
// concurrent queue runs its own share of work.
class TaskTailRegion {
 public:
  TaskTailRegion() noexcept;
  ~TaskTailRegion();
  // Client code is about to run inside the region: a kept task goes to its queue, and
  // the rest of the region keeps nothing, so that client code never waits on a task kept
  // behind it.
  static void interrupt() noexcept;

  TaskTailRegion(const TaskTailRegion&) = delete;
  TaskTailRegion& operator=(const TaskTailRegion&) = delete;

 private:
  ThreadPool::Held* saved_;
};

}  // namespace nk::dispatch_internal
