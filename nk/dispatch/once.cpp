// once: the first caller moves the flag to "running"; later callers mark that they wait
// and sleep on the flag until the first one finishes or fails.
#include "nk/dispatch/once.hpp"

#include <climits>

#include "nk/dispatch/futex_internal.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"

namespace nk {
namespace {

constexpr uint32_t kNew = 0;
constexpr uint32_t kRunning = 1;
constexpr uint32_t kWaited = 2;
constexpr uint32_t kDone = 3;

}  // namespace

void onceSlow(OnceFlag& flag, FunctionRef<void()> f) {
  std::atomic<uint32_t>& state = flag.state_;
  for (;;) {
    uint32_t s = state.load(std::memory_order_acquire);
    if (s == kDone) return;
    if (s == kNew) {
      if (!state.compare_exchange_strong(s, kRunning, std::memory_order_acquire)) continue;
      try {
        f();
      } catch (...) {
        if (state.exchange(kNew, std::memory_order_release) == kWaited) {
          dispatch_internal::futexWake(&state, INT_MAX);
        }
        throw;
      }
      if (state.exchange(kDone, std::memory_order_release) == kWaited) {
        dispatch_internal::futexWake(&state, INT_MAX);
      }
      return;
    }
    if (s == kRunning && !state.compare_exchange_strong(s, kWaited, std::memory_order_relaxed)) {
      continue;
    }
    // The first caller may be waiting for pool work itself: keep a thread free for it.
    dispatch_internal::BlockingRegion blocking;
    dispatch_internal::futexWait(&state, kWaited);
  }
}

}  // namespace nk
