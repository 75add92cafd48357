// PRMLock: the paths that wait for the lock word or wake its sleepers.
#include "nk/promise/prm_lock.hpp"

#include <climits>

#include "nk/dispatch/futex_internal.hpp"

namespace nk::promise_internal {

void PRMLock::acquireSlow(bool shared) noexcept {
  for (;;) {
    uint32_t v = word_.load(std::memory_order_relaxed);
    // A reader needs no writer inside; a writer needs nobody inside, and keeps the
    // sleeper bit, since others may still sleep.
    if (shared ? !(v & kWriter) : (v & ~kSleepers) == 0) {
      if (word_.compare_exchange_weak(v, shared ? v + 1 : v | kWriter, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
        return;
      }
      continue;
    }
    if (!(v & kSleepers) &&
        !word_.compare_exchange_weak(v, v | kSleepers, std::memory_order_relaxed)) {
      continue;
    }
    dispatch_internal::futexWait(&word_, v | kSleepers);
  }
}

void PRMLock::wakeAll() noexcept { dispatch_internal::futexWake(&word_, INT_MAX); }

}  // namespace nk::promise_internal
