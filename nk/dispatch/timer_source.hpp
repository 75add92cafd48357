// TimerSource: a timer that runs an event handler on a queue, once or at an interval,
// from a start time on the monotonic clock or the wall clock, within a given leeway.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "nk/dispatch/queue.hpp"

namespace nk {

// When a timer first comes due.
class TimerStart {
 public:
  // As soon as the timer is resumed.
  static TimerStart now() noexcept;
  // `delay` after this call, on the monotonic clock.
  static TimerStart after(std::chrono::nanoseconds delay) noexcept;
  // At `time` on the wall clock. Changes to the system clock move the firing with it
  // (noticed within a second).
  static TimerStart wallClock(std::chrono::system_clock::time_point time) noexcept;

 private:
  friend class TimerSource;
  TimerStart(bool wall, int64_t ns) noexcept : wall_(wall), ns_(ns) {}
  bool wall_;
  int64_t ns_;  // since the epoch of the clock named by wall_
};

// A timer whose event handler runs on a queue. It is created suspended, with no time set:
// call setTimer and setEventHandler, then resume(). Cancelling is final: once cancel()
// returns, the event handler is never started again (a call already running finishes),
// and the cancel handler, if any, runs once on the queue after the last event handler.
//
// Firings that come due while the handler is still running or waiting on its queue, or
// while the timer is suspended, are merged into one call. The handler never runs
// concurrently with itself. Destroying the TimerSource cancels it.
//
// Example:
//   nk::TimerSource poll(nk::Queue::global());
//   poll.setEventHandler([] { refreshStatus(); });
//   poll.setTimer(nk::TimerStart::now(), std::chrono::seconds(30), std::chrono::seconds(1));
//   poll.resume();
class TimerSource {
 public:
  // An interval that makes the timer fire once.
  static constexpr std::chrono::nanoseconds kOnce = std::chrono::nanoseconds::max();

  explicit TimerSource(Queue queue);
  TimerSource(TimerSource&&) noexcept;
  TimerSource& operator=(TimerSource&&) noexcept;
  TimerSource(const TimerSource&) = delete;
  TimerSource& operator=(const TimerSource&) = delete;
  ~TimerSource();

  // Sets when the timer first fires, how often it fires after that (kOnce, or any
  // interval <= 0, for a one-shot timer) and how late it may fire to save wake-ups: each
  // firing due at T happens in [T, T + leeway], give or take the system's scheduling
  // latency; a repeating timer's leeway counts as at most half its interval, so that it
  // keeps to its period. Replaces earlier settings; a one-shot timer that has fired fires
  // again.
  void setTimer(TimerStart start, std::chrono::nanoseconds interval,
                std::chrono::nanoseconds leeway);
  void setEventHandler(std::function<void()> handler);
  void setCancelHandler(std::function<void()> handler);

  // Suspension is counted: the timer starts with a count of one and fires only at zero.
  // Resuming more often than suspending is a programming error and terminates the process.
  void resume();
  void suspend();
  void cancel();
  [[nodiscard]] bool isCancelled() const;

 private:
  class State;
  std::shared_ptr<State> state_;
};

}  // namespace nk
