// The scheduled-bit protocol serial and concurrent queues share.
#include "nk/dispatch/drained_core_internal.hpp"

#include <utility>

namespace nk::dispatch_internal {

DrainedCore::DrainedCore(QueueKind kind, QueuePriority priority, std::string label)
    : QueueCore(kind, priority, std::move(label)), pool_(ThreadPool::instance()) {
  word_.store(kRefOne, std::memory_order_relaxed);
}

void DrainedCore::pushBatch(Task* tasks, size_t count) {
  fifo_.pushEach(count, [&](size_t i) noexcept { return WorkItem{std::move(tasks[i]), 0}; });
  scheduleIfIdle();
}

void DrainedCore::scheduleIfIdle() {
  // Seen scheduled: the owner's releaseTurn re-checks the FIFO after clearing the bit, so
  // it finds what was just pushed.
  if (word_.load(std::memory_order_seq_cst) & kScheduled) return;
  if ((word_.fetch_or(kScheduled, std::memory_order_seq_cst) & kScheduled) == 0) {
    pool_.push(priority, drainItem());
  }
}

bool DrainedCore::releaseTurn() {
  // Turn the bit into a handle at once, so the queue outlives the re-check below even if
  // the last handle goes away concurrently.
  word_.fetch_add(kRefOne - kScheduled, std::memory_order_seq_cst);
  bool retaken =
      !fifo_.empty() && (word_.fetch_or(kScheduled, std::memory_order_seq_cst) & kScheduled) == 0;
  release();
  return retaken;
}

void DrainedCore::continueOrRelease() {
  do {
    if (!fifo_.empty()) {
      pool_.push(priority, drainItem());
      return;
    }
  } while (releaseTurn());
}

}  // namespace nk::dispatch_internal
