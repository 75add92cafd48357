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

  [[gnu::hot]] void push(Task&& task, bool) override {
    // The task goes to the pool with the turn, not through the FIFO.
    if (takeIdleTurn()) {
      const uintptr_t aux = reinterpret_cast<uintptr_t>(this) | kDrainTag;
      if (!pool_.handOff(priority, task, aux)) {
        pool_.enqueue(priority, WorkItem{std::move(task), aux});
      }
      return;
    }
    fifo_.push(WorkItem{std::move(task), 0});
    scheduleIfIdle();
  }

  void sync(FunctionRef<void()> block, bool) override {
    if (waitedOnFrame(this) != nullptr) {
      fatal("sync onto serial queue \"%s\" from a task running on it would deadlock",
            label.c_str());
    }
    // Idle and empty: run the block right here.
    if (!takeIdleTurn()) {
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

  [[gnu::hot]] void drain(Task& first) override {
    int budget = kDrainBudget;
    if (first) {  // the task that came with the turn, run where it lies
      run(first);
      first.reset();
      --budget;
    }
    for (; budget > 0; --budget) {
      WorkItem item;
      if (!fifo_.pop(item)) {
        if (releaseTurn()) continue;
        return;
      }
      if (item.aux & kSyncTag) {
        waiterOf(item)->signal();  // the queue now belongs to the sync caller
        return;
      }
      run(item.task);
    }
    pool_.push(priority, drainItem());
  }

 private:
  void run(Task& task) {
    FrameScope frame(this, true);
    invokeGuarded(task, this);
  }

  // Takes the scheduled bit if the queue is idle with nothing queued: everything submitted
  // before has then finished, and everything submitted after waits for the caller's turn.
  bool takeIdleTurn() noexcept {
    uint64_t w = word_.load(std::memory_order_seq_cst);
    return (w & kScheduled) == 0 && fifo_.empty() &&
           word_.compare_exchange_strong(w, w | kScheduled, std::memory_order_seq_cst);
  }
};

}  // namespace

QueueCore* makeSerialCore(std::string label, QueuePriority priority) {
  return new SerialCore(std::move(label), priority);
}

[[gnu::hot]] void serialPush(QueueCore* serial, Task&& task) {
  static_cast<SerialCore*>(serial)->push(std::move(task), false);
}

[[gnu::hot]] void serialDrain(QueueCore* serial, Task& first) {
  static_cast<SerialCore*>(serial)->drain(first);
}

}  // namespace nk::dispatch_internal
