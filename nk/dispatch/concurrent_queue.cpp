// Concurrent queues: a FIFO whose owner hands plain tasks to the pool as they come and
// counts them in flight; a barrier waits for that count to reach zero, then runs alone.
#include <utility>

#include "nk/dispatch/drained_core_internal.hpp"

namespace nk::dispatch_internal {
namespace {

class ConcurrentCore final : public DrainedCore {
 public:
  ConcurrentCore(std::string label, QueuePriority priority)
      : DrainedCore(QueueKind::kConcurrent, priority, std::move(label)) {}

  void push(Task&& task, bool barrier) override {
    fifo_.push(WorkItem{std::move(task), barrier ? kBarrierTag : 0});
    scheduleIfIdle();
  }

  void sync(FunctionRef<void()> block, bool barrier) override {
    // Also through a sync onto the main queue, whose block runs on the main thread while
    // the task that asked for it waits.
    const Frame* frame = waitedOnFrame(this);
    if (frame != nullptr && (barrier || frame->exclusive)) {
      fatal("%s onto concurrent queue \"%s\" from %s running on it would deadlock",
            barrier ? "barrierSync" : "sync", label.c_str(),
            frame->exclusive ? "a barrier" : "a task");
    }
    if (frame != nullptr) {
      // One of this queue's tasks is under way and waits for us, so no barrier can be
      // running, and queueing behind a waiting barrier would wait for ourselves.
      FrameScope inner(this, false);
      block();
      return;
    }
    SyncWaiter waiter(block);
    fifo_.push(WorkItem{
        Task(), reinterpret_cast<uintptr_t>(&waiter) | (barrier ? kBarrierSyncTag : kSyncTag)});
    scheduleIfIdle();
    waiter.wait();
    if (barrier) {
      // The drainer handed the whole queue over.
      struct Handback {
        ConcurrentCore* core;
        ~Handback() { core->continueOrRelease(); }
      } handback{this};
      FrameScope scope(this, true);
      block();
    } else {
      // Counted in flight by the drainer, like a task it handed to the pool.
      struct Done {
        ConcurrentCore* core;
        ~Done() { core->taskDone(); }
      } done{this};
      FrameScope scope(this, false);
      block();
    }
  }

  void drain(Task& /*first: never given*/) override {
    if (pending_.aux != 0) {  // a barrier was waiting for the queue to go idle; it has
      WorkItem item = std::move(pending_);
      pending_ = WorkItem();
      if (!runBarrier(item)) return;
    }
    for (int budget = kDrainBudget; budget > 0; --budget) {
      WorkItem item;
      if (!fifo_.pop(item)) {
        if (releaseTurn()) continue;
        return;
      }
      switch (item.aux & kTagMask) {
        case 0:
          word_.fetch_add(kInflightOne, std::memory_order_relaxed);
          pool_.push(priority, WorkItem{std::move(item.task), reinterpret_cast<uintptr_t>(this)});
          break;
        case kSyncTag:
          word_.fetch_add(kInflightOne, std::memory_order_relaxed);
          waiterOf(item)->signal();
          break;
        default:  // barrier or barrierSync
          if (!waitForIdle(item)) return;
          if (!runBarrier(item)) return;
          break;
      }
    }
    pool_.push(priority, drainItem());
  }

  void taskDone() noexcept override {
    uint64_t now = word_.fetch_sub(kInflightOne, std::memory_order_acq_rel) - kInflightOne;
    if ((now & kInflightMask) == 0 && (now & kWaiting)) {
      // The last task before a waiting barrier: resume the drainer. Still scheduled, so
      // the queue stays alive.
      word_.fetch_and(~kWaiting, std::memory_order_acq_rel);
      pool_.push(priority, drainItem());
    } else if (now == 0) {
      delete this;
    }
  }

 private:
  // Returns true if nothing is in flight. Otherwise parks `item` as the pending barrier
  // and returns false: the last task to finish resumes the drainer.
  bool waitForIdle(WorkItem& item) {
    pending_ = std::move(item);
    uint64_t w = word_.load(std::memory_order_acquire);
    for (;;) {
      if ((w & kInflightMask) == 0) {
        item = std::move(pending_);
        pending_ = WorkItem();
        return true;
      }
      if (word_.compare_exchange_weak(w, w | kWaiting, std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
        return false;
      }
    }
  }

  // Runs a barrier with nothing in flight. Returns false if it handed the queue to a
  // barrierSync caller instead.
  bool runBarrier(WorkItem& item) {
    if ((item.aux & kTagMask) == kBarrierSyncTag) {
      waiterOf(item)->signal();
      return false;
    }
    FrameScope frame(this, true);
    invokeGuarded(item.task, this);
    return true;
  }

  WorkItem pending_;  // touched only by the owner of the scheduled bit
};

}  // namespace

QueueCore* makeConcurrentCore(std::string label, QueuePriority priority) {
  return new ConcurrentCore(std::move(label), priority);
}

}  // namespace nk::dispatch_internal
