// RunLoop: a thread's GLib main context, run by that thread, with the file-descriptor
// watches and timers scheduled on it. The main thread's run loop is the default context,
// which also runs the main queue.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "nk/dispatch/function_ref.hpp"

struct _GMainContext;
typedef struct _GMainContext GMainContext;
struct _GSource;
typedef struct _GSource GSource;

namespace nk {

class RunLoop;

// Owns one watch or timer scheduled on a run loop. Destroying or cancelling it removes
// it; when that happens on the run loop's own thread, its callback is never called again.
// From another thread, a call already under way may finish. An empty RunLoopSource is
// inactive and cancelling it does nothing.
class RunLoopSource {
 public:
  RunLoopSource() noexcept = default;
  RunLoopSource(RunLoopSource&& other) noexcept;
  RunLoopSource& operator=(RunLoopSource&& other) noexcept;
  RunLoopSource(const RunLoopSource&) = delete;
  RunLoopSource& operator=(const RunLoopSource&) = delete;
  ~RunLoopSource();

  void cancel() noexcept;
  // False once cancelled, or once a one-shot timer has fired.
  [[nodiscard]] bool isActive() const noexcept;

 private:
  friend class RunLoop;
  explicit RunLoopSource(GSource* source) noexcept : source_(source) {}
  GSource* source_ = nullptr;
};

// A handle to a thread's run loop. Handles are copyable and keep the loop's context
// alive, but only the owning thread may run the loop: run(), runUntil() and runOnce()
// called on another thread terminate the process with a message. stop(), wakeUp() and
// adding watches and timers work from any thread; their callbacks always run on the
// owning thread, while it runs the loop.
//
// Example (a command-line tool waiting for an answer delivered on the main queue):
//   std::optional<Reply> reply;
//   client.fetch([&](Reply r) { reply = std::move(r); });  // completes on the main queue
//   if (!nk::RunLoop::main().runUntil([&] { return reply.has_value(); }, 30s)) fail();
class RunLoop {
 public:
  // The calling thread's run loop: on the main thread, main(); on any other thread, the
  // thread-default main context, made and pushed as thread default on first use if the
  // thread has none. A thread's loop (but not its context) ends with the thread.
  static RunLoop current();
  // The main thread's run loop: GLib's default main context.
  static RunLoop main();

  // Runs the loop until stop() is called.
  void run() const;
  // Runs the loop until `predicate` returns true, stop() is called, or `timeout` passes;
  // returns the predicate's last value. The predicate is checked first and after each
  // event the loop handles: if something else sets it, call wakeUp() after doing so.
  bool runUntil(FunctionRef<bool()> predicate, std::chrono::nanoseconds timeout) const;
  // Handles the events that are ready, waiting for one first if `mayBlock`. Returns
  // whether anything was handled.
  bool runOnce(bool mayBlock) const;
  // Makes the innermost run() or runUntil() of this loop return after the current event.
  // No effect when the loop is not running.
  void stop() const;
  // Makes a loop waiting for events check its stop flag and predicate again.
  void wakeUp() const;

  // Calls `callback` whenever `fd` is readable (or at end of file or on error; the
  // callback should read, or cancel the watch). The descriptor stays the caller's.
  [[nodiscard]] RunLoopSource watchReadable(int fd, std::function<void()> callback) const;
  // Calls `callback` once after `delay`, then every `interval` if the interval is
  // positive. Intervals are kept from the due times, not from when calls happen; calls
  // missed while the loop was not running are merged into one.
  [[nodiscard]] RunLoopSource addTimer(std::chrono::nanoseconds delay,
                                       std::chrono::nanoseconds interval,
                                       std::function<void()> callback) const;

  // The GLib context, for hosts that attach their own sources. Lives as long as any
  // handle to this loop.
  GMainContext* context() const noexcept;
  // True on the thread that owns this loop.
  bool isOwnedByCurrentThread() const noexcept;

  friend bool operator==(const RunLoop& a, const RunLoop& b) noexcept {
    return a.state_ == b.state_;
  }

 private:
  class State;
  friend class RunLoopRegistry;
  explicit RunLoop(std::shared_ptr<State> state) noexcept : state_(std::move(state)) {}
  std::shared_ptr<State> state_;
};

}  // namespace nk
