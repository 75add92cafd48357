// Serial queues: a FIFO drained by whichever thread holds the queue's "scheduled" bit:
// a pool worker, or a thread inside sync, which runs its block itself.
#include <utility>

#include "nk/dispatch/queue_core_internal.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"

namespace nk::dispatch_internal {
namespace {

// Tasks run per turn on the pool before the queue goes to the back of the line, so that
// one busy queue cannot starve the others.
constexpr int kDrainBudget = 128;

class SerialCore final : public QueueCore {
 public:
  SerialCore(std::string label, QueuePriority priority)
      : QueueCore(QueueKind::kSerial, priority, std::move(label)), pool_(ThreadPool::instance()) {
    word_.store(kRefOne, std::memory_order_relaxed);
  }

  void push(Task&& task, bool) override {
    fifo_.push(WorkItem{std::move(task), 0});
    scheduleIfIdle();
  }

  void pushBatch(Task* tasks, size_t count) override {
    fifo_.pushEach(count, [&](size_t i) noexcept { return WorkItem{std::move(tasks[i]), 0}; });
    scheduleIfIdle();
  }

  void sync(FunctionRef<void()> block, bool) override {
    if (findFrame(this) != nullptr) {
      fatal("sync onto serial queue \"%s\" from a task running on it would deadlock",
            label.c_str());
    }
    // Idle and empty: take the queue and run the block right here.
    uint64_t w = word_.load(std::memory_order_seq_cst);
    bool owned = (w & kScheduled) == 0 && fifo_.empty() &&
                 word_.compare_exchange_strong(w, w | kScheduled, std::memory_order_seq_cst);
    if (!owned) {
      SyncWaiter waiter(block);
      fifo_.push(WorkItem{Task(), reinterpret_cast<uintptr_t>(&waiter) | kSyncTag});
      scheduleIfIdle();
      waiter.wait();  // the drainer hands the queue over
    }
    struct Handback {
      SerialCore* core;
      ~Handback() { core->continueOrRelease(); }
    } handback{this};
    FrameScope frame(this, true);
    block();
  }

  void drain() override {
    for (int budget = kDrainBudget; budget > 0; --budget) {
      WorkItem item;
      if (!fifo_.pop(item)) {
        if (release()) continue;
        return;
      }
      if (item.aux & kSyncTag) {
        waiterOf(item)->signal();  // the queue now belongs to the sync caller
        return;
      }
      FrameScope frame(this, true);
      invokeGuarded(item.task, this);
    }
    pool_.push(priority, drainItem());
  }

 private:
  WorkItem drainItem() noexcept {
    return WorkItem{Task(), reinterpret_cast<uintptr_t>(this) | kDrainTag};
  }

  void scheduleIfIdle() {
    // Seen scheduled: the owner's release re-checks the FIFO after clearing the bit, so
    // it finds what was just pushed.
    if (word_.load(std::memory_order_seq_cst) & kScheduled) return;
    if ((word_.fetch_or(kScheduled, std::memory_order_seq_cst) & kScheduled) == 0) {
      pool_.push(priority, drainItem());
    }
  }

  // Gives up the scheduled bit. Returns true if work arrived meanwhile and the caller took
  // the bit back and must go on draining.
  bool release() {
    // Turn the bit into a handle at once, so the queue outlives the re-check below even
    // if the last handle goes away concurrently.
    word_.fetch_add(kRefOne - kScheduled, std::memory_order_seq_cst);
    bool retaken =
        !fifo_.empty() && (word_.fetch_or(kScheduled, std::memory_order_seq_cst) & kScheduled) == 0;
    dropHandle();
    return retaken;
  }

  void dropHandle() noexcept { QueueCore::release(); }

  // The owner is done with its turn: pass the queue to the pool if work is waiting.
  void continueOrRelease() {
    do {
      if (!fifo_.empty()) {
        pool_.push(priority, drainItem());
        return;
      }
    } while (release());
  }

  ThreadPool& pool_;
  SegmentedQueue<WorkItem> fifo_;
};

}  // namespace

QueueCore* makeSerialCore(std::string label, QueuePriority priority) {
  return new SerialCore(std::move(label), priority);
}

}  // namespace nk::dispatch_internal
