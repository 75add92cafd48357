// Semaphore: the count lives in value_; a waiter that finds it empty sleeps on a futex
// word counting the wake-ups that signal() has granted.
#include "nk/dispatch/semaphore.hpp"

#include <algorithm>
#include <ctime>

#include "nk/dispatch/clock_internal.hpp"
#include "nk/dispatch/futex_internal.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"

namespace nk {

using dispatch_internal::futexWait;
using dispatch_internal::futexWaitUntil;
using dispatch_internal::futexWake;

Semaphore::Semaphore(int64_t value) noexcept : value_(value) {}

bool Semaphore::signal() noexcept {
  if (value_.fetch_add(1, std::memory_order_release) >= 0) return false;
  wakeups_.fetch_add(1, std::memory_order_release);
  futexWake(&wakeups_, 1);
  return true;
}

void Semaphore::wait() noexcept {
  if (value_.fetch_sub(1, std::memory_order_acquire) > 0) return;
  waitSlow(nullptr);
}

bool Semaphore::waitFor(std::chrono::nanoseconds timeout) noexcept {
  // Saturated, so that nanoseconds::max() means "as long as it takes".
  int64_t deadline =
      dispatch_internal::saturatingAdd(dispatch_internal::monotonicNowNs(), timeout.count());
  return waitUntil(std::chrono::steady_clock::time_point(std::chrono::nanoseconds(deadline)));
}

bool Semaphore::waitUntil(std::chrono::steady_clock::time_point deadline) noexcept {
  if (value_.fetch_sub(1, std::memory_order_acquire) > 0) return true;
  return waitSlow(&deadline);
}

bool Semaphore::waitSlow(const std::chrono::steady_clock::time_point* deadline) noexcept {
  dispatch_internal::BlockingRegion blocking;
  timespec until{};
  if (deadline != nullptr) {
    // A deadline before the clock's start has passed too; the kernel refuses negative times.
    int64_t ns = std::max<int64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(deadline->time_since_epoch()).count(),
        0);
    until.tv_sec = static_cast<time_t>(ns / 1'000'000'000);
    until.tv_nsec = static_cast<long>(ns % 1'000'000'000);
  }
  for (;;) {
    uint32_t w = wakeups_.load(std::memory_order_acquire);
    while (w > 0) {
      if (wakeups_.compare_exchange_weak(w, w - 1, std::memory_order_acquire)) return true;
    }
    if (deadline == nullptr) {
      futexWait(&wakeups_, 0);
      continue;
    }
    if (futexWaitUntil(&wakeups_, 0, until)) continue;
    // Timed out: give back our place, unless a signal has already counted us, in which
    // case its wake-up is on the way and ours to take.
    int64_t v = value_.load(std::memory_order_relaxed);
    while (v < 0) {
      if (value_.compare_exchange_weak(v, v + 1, std::memory_order_relaxed)) return false;
    }
    deadline = nullptr;
  }
}

}  // namespace nk
