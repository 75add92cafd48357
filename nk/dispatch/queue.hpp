// Queue: the dispatch queues that run tasks: the main queue, the global concurrent queues
// and the serial and concurrent queues callers make.
//
// Guarantees:
//  1. A serial queue runs its tasks one at a time, in the order they were submitted. Every
//     task sees the memory effects of the tasks that ran before it on that queue.
//  2. Every queue hands out its tasks in the order they were submitted: tasks submitted
//     by one thread in that thread's order, tasks from different threads in the order
//     their submissions took effect. On a concurrent queue, tasks handed out in order may
//     still start and finish in any order.
//  3. A concurrent queue may run any number of tasks at once. A barrier (barrierAsync,
//     barrierSync) starts only after every task submitted to that queue before it has
//     finished, and runs alone: tasks submitted after it wait until it has finished.
//     On a serial queue, and on the main and global queues, barriers are plain tasks.
//  4. The main queue is serial and runs on the main thread (the process's initial thread),
//     inside GLib's default main context: in `RunLoop::main()`, or in a GTK or Qt host's
//     own loop. Nothing on it runs while that context is not being iterated. A loop that a
//     main-queue task runs itself (a modal dialog, runUntil) goes on running main-queue
//     tasks, nested inside that task, as GLib's own idle callbacks would.
//  5. Work submitted from any thread is never lost: each task runs exactly once, provided
//     the process lives and (for the main queue) the main loop keeps running. A queue stays
//     alive while it has work, even after the last handle to it is gone.
//  6. Submitting never blocks and never waits for a task to run.
//  7. An exception that escapes a task run by the queue is a programming error: the
//     process terminates with a message naming the queue. `sync` is the exception to this
//     rule: what its block throws reaches the caller of `sync`.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

#include "nk/dispatch/function_ref.hpp"
#include "nk/dispatch/task.hpp"

namespace nk {

namespace dispatch_internal {
class QueueCore;
}

// Priority of the global queue a task or a queue's work runs at. Higher priorities are
// served first when the shared thread pool is busy.
enum class QueuePriority : uint8_t { kHigh, kDefault, kLow, kBackground };

// A handle to a dispatch queue. Handles are cheap values: copying a handle to the main
// queue or a global queue copies a pointer; copying one to a queue you made adds one to its
// handle count. An empty (default-constructed) handle is false and must not be used.
// Handles compare equal when they name the same queue.
//
// Example:
//   nk::Queue queue = nk::Queue::serial("com.example.cache");
//   queue.async([] { rebuildIndex(); });
//   int size = queue.sync([&] { return index.size(); });  // after the rebuild
//   nk::Queue::main().async([size] { updateLabel(size); });
class Queue {
 public:
  Queue() noexcept = default;
  Queue(const Queue& other) noexcept : bits_(other.bits_) {
    if (bits_ & kCounted) retainCore();
  }
  Queue(Queue&& other) noexcept : bits_(std::exchange(other.bits_, 0)) {}
  Queue& operator=(Queue other) noexcept {
    std::swap(bits_, other.bits_);
    return *this;
  }
  ~Queue() {
    if (bits_ & kCounted) releaseCore();
  }

  // The main queue (guarantee 4). Its label is "nk.main".
  static Queue main();
  // The global concurrent queue of `priority`. All four share one thread pool of one
  // thread per processor (at least 2, at most 32), which adds threads while its threads
  // wait in sync, Semaphore, OperationQueue or once waits, or run a RunLoop. Labels:
  // "nk.global.high", "nk.global.default", "nk.global.low", "nk.global.background".
  static Queue global(QueuePriority priority = QueuePriority::kDefault);
  // A new serial queue whose work runs at `priority` on the shared pool.
  static Queue serial(std::string label, QueuePriority priority = QueuePriority::kDefault);
  // A new concurrent queue whose tasks run at `priority` on the shared pool.
  static Queue concurrent(std::string label, QueuePriority priority = QueuePriority::kDefault);

  // The queue whose task is running on this thread: the innermost one when `sync` calls
  // nest. On the main thread outside any task, the main queue; on other threads outside
  // any task, the default global queue.
  static Queue current();

  // Submits `f` (a callable taking no arguments) to run once on the queue, and returns at
  // once. `f` is moved or copied into the queue; it is destroyed after it has run, on the
  // thread that ran it.
  template <class F>
  void async(F&& f) const {
    submit(Task(std::forward<F>(f)), false);
  }

  // Submits tasks[0], ..., tasks[count - 1] as `async` would, one after the other, in
  // one step: on the global and caller-made queues they are queued together and wake at
  // most one thread. Leaves the tasks empty.
  void asyncBatch(Task* tasks, size_t count) const;

  // As async, as a barrier (guarantee 3).
  template <class F>
  void barrierAsync(F&& f) const {
    submit(Task(std::forward<F>(f)), true);
  }

  // Runs `f` on the queue, waits for it, and returns what it returns; what it throws is
  // rethrown here. `f` runs on the calling thread, except on the main queue, where it runs
  // on the main thread. On a serial queue it runs after every task submitted before it and
  // alone; on a concurrent queue, after the barriers submitted before it.
  //
  // Calling sync on a serial queue (or the main queue) from a task that queue is running,
  // directly or through nested sync calls, would wait forever: it is detected and
  // terminates the process with a message. The same holds for the main queue from the main
  // thread, and for barrierSync on a concurrent queue from that queue's own tasks. sync on a
  // concurrent queue from one of its own (non-barrier) tasks runs `f` at once.
  template <class F>
  decltype(auto) sync(F&& f) const {
    return syncImpl(std::forward<F>(f), false);
  }

  // As sync, as a barrier (guarantee 3).
  template <class F>
  decltype(auto) barrierSync(F&& f) const {
    return syncImpl(std::forward<F>(f), true);
  }

  // Submits `f` to run on the queue once `delay` has passed (on the monotonic clock).
  template <class F>
  void asyncAfter(std::chrono::nanoseconds delay, F&& f) const {
    submitAfter(delay, Task(std::forward<F>(f)));
  }

  // The label given at creation (empty if none). Lives as long as the queue.
  const std::string& label() const noexcept;
  // True for serial queues, including the main queue.
  bool isSerial() const noexcept;
  // True if a task of this queue is the innermost one running on this thread (see
  // current()).
  bool isCurrent() const noexcept;

  explicit operator bool() const noexcept { return bits_ != 0; }
  friend bool operator==(const Queue& a, const Queue& b) noexcept {
    return (a.bits_ & ~kCounted) == (b.bits_ & ~kCounted);
  }

 private:
  friend class dispatch_internal::QueueCore;
  static constexpr uintptr_t kCounted = 1;  // handle holds a count on a caller-made queue

  Queue(dispatch_internal::QueueCore* core, bool counted) noexcept;
  dispatch_internal::QueueCore* core() const noexcept {
    return reinterpret_cast<dispatch_internal::QueueCore*>(bits_ & ~kCounted);
  }
  void retainCore() const noexcept;
  void releaseCore() noexcept;
  void submit(Task&& task, bool barrier) const;
  void submitAfter(std::chrono::nanoseconds delay, Task&& task) const;
  void syncRef(FunctionRef<void()> block, bool barrier) const;

  template <class F>
  decltype(auto) syncImpl(F&& f, bool barrier) const {
    using R = std::invoke_result_t<F&>;
    if constexpr (std::is_void_v<R>) {
      syncRef(f, barrier);
    } else if constexpr (std::is_reference_v<R>) {
      std::remove_reference_t<R>* result = nullptr;
      syncRef([&] { result = std::addressof(std::invoke(f)); }, barrier);
      return static_cast<R>(*result);
    } else {
      std::optional<R> result;
      syncRef([&] { result.emplace(std::invoke(f)); }, barrier);
      return R(std::move(*result));
    }
  }

  uintptr_t bits_ = 0;
};

}  // namespace nk
