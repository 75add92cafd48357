// The machinery behind Queue handles: the queue cores, the items their FIFOs hold, the
// per-thread record of running queues, and the fatal-error reporting they share.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "nk/dispatch/function_ref.hpp"
#include "nk/dispatch/futex_internal.hpp"
#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/segmented_queue_internal.hpp"
#include "nk/dispatch/task.hpp"

namespace nk::dispatch_internal {

// One entry of a FIFO. The meaning of `aux` belongs to the FIFO's owner: in the pool it
// names the queue the task came from; in a queue's own FIFO it tags barriers and sync
// requests (a SyncWaiter address with a tag in its low bits).
struct WorkItem {
  Task task;
  uintptr_t aux = 0;
};

inline constexpr uintptr_t kTagMask = 3;
inline constexpr uintptr_t kBarrierTag = 1;      // a barrier task
inline constexpr uintptr_t kSyncTag = 2;         // a sync request
inline constexpr uintptr_t kBarrierSyncTag = 3;  // a barrierSync request
inline constexpr uintptr_t kDrainTag = 1;        // pool item: drain the queue named by aux

[[noreturn]] void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Parks the thread that called sync until the queue lets it in.
struct Frame;

struct SyncWaiter {
  explicit SyncWaiter(FunctionRef<void()> b) noexcept : block(b) {}

  void signal() noexcept {
    ready.store(1, std::memory_order_release);
    futexWake(&ready, 1);  // `this` may be gone by now; the address is only a key
  }
  void wait() noexcept;  // counts as blocking when called on a pool thread

  FunctionRef<void()> block;
  // The queues the waiting thread is running, when another thread runs the block.
  Frame* callerFrames = nullptr;
  std::exception_ptr error;  // what the block threw, when another thread ran it
  std::atomic<uint32_t> ready{0};
};

inline SyncWaiter* waiterOf(const WorkItem& item) noexcept {
  return reinterpret_cast<SyncWaiter*>(item.aux & ~kTagMask);
}

enum class QueueKind : uint8_t { kMain, kGlobal, kSerial, kConcurrent };

class QueueCore {
 public:
  QueueCore(QueueKind kind, QueuePriority priority, std::string label);
  QueueCore(const QueueCore&) = delete;
  QueueCore& operator=(const QueueCore&) = delete;
  virtual ~QueueCore();

  virtual void push(Task&& task, bool barrier) = 0;
  // Pushes tasks[0..count) in order as plain tasks, leaving them empty.
  virtual void pushBatch(Task* tasks, size_t count) {
    for (size_t i = 0; i < count; ++i) push(std::move(tasks[i]), false);
  }
  virtual void sync(FunctionRef<void()> block, bool barrier) = 0;
  // Serial and concurrent queues: runs the queue's share of work on a pool thread, starting
  // with `first` if it is not empty: a task that a serial queue handed to the pool with its
  // turn.
  virtual void drain(Task& first) { (void)first; }
  // Concurrent queues: a task this queue handed to the pool (or a sync block) finished.
  virtual void taskDone() noexcept {}

  // Handle counting for caller-made queues.
  void retain() noexcept { word_.fetch_add(kRefOne, std::memory_order_relaxed); }
  void release() noexcept {
    if (word_.fetch_sub(kRefOne, std::memory_order_acq_rel) == kRefOne) delete this;
  }

  const QueueKind kind;
  const QueuePriority priority;
  const std::string label;

 protected:
  // Life word of caller-made queues: bit 0 "scheduled" (one thread owns the right to run
  // the queue's work), bit 1 "waiting for idle" (a concurrent queue holds a barrier),
  // bits 2-31 tasks in flight, bits 32-63 handles. The queue is deleted when it reaches 0.
  static constexpr uint64_t kScheduled = 1;
  static constexpr uint64_t kWaiting = 2;
  static constexpr uint64_t kInflightOne = 4;
  static constexpr uint64_t kInflightMask = 0xffff'fffcu;
  static constexpr uint64_t kRefOne = uint64_t{1} << 32;

  alignas(64) std::atomic<uint64_t> word_{0};
};

// Records that a queue's task (or sync block) is running on this thread.
struct Frame {
  QueueCore* queue;
  bool exclusive;  // serial task, barrier or main-queue task
  Frame* previous;
  // For a sync block run on behalf of another thread: that thread's frames, which
  // stay as they are while it waits.
  Frame* caller = nullptr;
};

// This thread's innermost frame. Declared here so that FrameScope, around every task,
// inlines.
extern thread_local constinit Frame* tlsFrame;

class FrameScope {
 public:
  FrameScope(QueueCore* queue, bool exclusive, Frame* caller = nullptr) noexcept
      : frame_{queue, exclusive, tlsFrame, caller} {
    tlsFrame = &frame_;
  }
  ~FrameScope() { tlsFrame = frame_.previous; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  Frame frame_;
};

Frame* currentFrame() noexcept;
// The innermost frame of `queue` on this thread, or on a thread waiting in sync for a
// block that this thread runs (and so on), or null. A sync from here cannot wait for the
// task or block of that frame to finish: it would never return.
const Frame* waitedOnFrame(const QueueCore* queue) noexcept;

// Runs `task`; an exception escaping it terminates the process, naming `queue`.
void invokeGuarded(Task& task, const QueueCore* queue) noexcept;
[[noreturn]] void reportEscapedException(const std::string& where) noexcept;

// The process-lifetime cores behind Queue::main() and Queue::global().
QueueCore* mainCore();
QueueCore* globalCore(QueuePriority priority);
// New caller-made cores, holding one handle for the caller.
QueueCore* makeSerialCore(std::string label, QueuePriority priority);
// A serial core's push and drain, for the calls on the way of a hop to a sleeping worker:
// just after a thread wakes up, each indirect call costs some 10 ns, the branch predictor
// having lost track of it while the thread slept.
void serialPush(QueueCore* serial, Task&& task);
void serialDrain(QueueCore* serial, Task& first);
QueueCore* makeConcurrentCore(std::string label, QueuePriority priority);

}  // namespace nk::dispatch_internal
