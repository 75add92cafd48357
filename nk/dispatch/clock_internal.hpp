// Clock readings in nanoseconds and overflow-safe arithmetic on them, shared by the timer
// thread, timer sources and run-loop timers.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>

namespace nk::dispatch_internal {

inline int64_t monotonicNowNs() noexcept {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

inline int64_t wallNowNs() noexcept {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// a + b, clamped to the int64_t range instead of overflowing.
inline int64_t saturatingAdd(int64_t a, int64_t b) noexcept {
  int64_t r;
  if (__builtin_add_overflow(a, b, &r)) {
    return b > 0 ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
  }
  return r;
}

// When a repeating timer last due at `due` fires next: due + interval, or, when that has
// passed by `now`, the first time of the same grid after `now`, skipping missed firings.
// `interval` > 0.
inline int64_t nextDueAfter(int64_t due, int64_t interval, int64_t now) noexcept {
  if (due > now) return saturatingAdd(due, interval);
  // Unsigned: a start long ago (the wall clock's time_point::min(), say) lies further
  // behind now than int64_t spans.
  const uint64_t sinceLastDue =
      (static_cast<uint64_t>(now) - static_cast<uint64_t>(due)) % static_cast<uint64_t>(interval);
  return saturatingAdd(now, interval - static_cast<int64_t>(sinceLastDue));
}

}  // namespace nk::dispatch_internal
