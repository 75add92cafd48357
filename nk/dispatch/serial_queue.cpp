// Serial queues: a FIFO drained by whichever thread holds the queue's "scheduled" bit:
// a pool worker, or a thread inside sync, which runs its block itself.
#include <utility>

#include "nk/dispatch/drained_core_internal.hpp"

namespace nk::dispatch_internal {
namespace {

class SerialCore final : public DrainedCore {
 public:
  SerialCore(std::string label, QueuePriority priority)
      : DrainedCore(QueueKind::kSerial, priority, std::move(label)) {}

  void push(Task&& task, bool) override {
    fifo_.push(WorkItem{std::move(task), 0});
    scheduleIfIdle();
  }

  void sync(FunctionRef<void()> block, bool) override {
    if (waitedOnFrame(this) != nullptr) {
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
        if (releaseTurn()) continue;
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
};

}  // namespace

QueueCore* makeSerialCore(std::string label, QueuePriority priority) {
  return new SerialCore(std::move(label), priority);
}

}  // namespace nk::dispatch_internal
