// DrainedCore: what serial and concurrent queues share. Each has a FIFO of its own, and
// one thread at a time, the holder of the queue word's "scheduled" bit, drains it: a pool
// worker running the queue's drain item, or a thread inside sync.
#pragma once

#include <string>

#include "nk/dispatch/queue_core_internal.hpp"
#include "nk/dispatch/segmented_queue_internal.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"

namespace nk::dispatch_internal {

class DrainedCore : public QueueCore {
 public:
  void pushBatch(Task* tasks, size_t count) override;

 protected:
  // Tasks run per turn on the pool before the queue goes to the back of the line, so that
  // one busy queue cannot starve the others.
  static constexpr int kDrainBudget = 128;

  DrainedCore(QueueKind kind, QueuePriority priority, std::string label);

  // The pool item that runs drain().
  WorkItem drainItem() noexcept {
    return WorkItem{Task(), reinterpret_cast<uintptr_t>(this) | kDrainTag};
  }
  // Takes the scheduled bit and hands the queue to the pool, unless someone holds it.
  void scheduleIfIdle();
  // Gives up the scheduled bit. Returns true if work arrived meanwhile and the caller took
  // the bit back and must go on draining.
  bool releaseTurn();
  // The owner is done with its turn: pass the queue to the pool if work is waiting.
  void continueOrRelease();

  ThreadPool& pool_;
  SegmentedQueue<WorkItem> fifo_;
};

}  // namespace nk::dispatch_internal
