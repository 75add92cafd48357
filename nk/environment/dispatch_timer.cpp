// CreateDispatchTimer on the dispatch timer sources.

#include "nk/environment/dispatch_timer.hpp"

#include <algorithm>
#include <chrono>
#include <limits>
#include <new>
#include <utility>

namespace nk {

namespace {

// Intervals beyond what a signed count holds are as good as "never again".
std::chrono::nanoseconds toNanoseconds(uint64_t ns) {
  constexpr uint64_t kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  return std::chrono::nanoseconds(static_cast<int64_t>(ns > kMax ? kMax : ns));
}

}  // namespace

std::unique_ptr<TimerSource> CreateDispatchTimer(uint64_t intervalNs, uint64_t leewayNs,
                                                 Queue queue, std::function<void()> handler,
                                                 bool start) {
  std::unique_ptr<TimerSource> timer(new (std::nothrow) TimerSource(std::move(queue)));
  if (!timer) return nullptr;
  // The timer source takes an interval of 0 for a one-shot timer; here it is the shortest
  // period, and the timer still repeats.
  timer->setTimer(TimerStart::wallClock(std::chrono::system_clock::now()),
                  std::max(toNanoseconds(intervalNs), std::chrono::nanoseconds(1)),
                  toNanoseconds(leewayNs));
  if (handler) timer->setEventHandler(std::move(handler));
  if (start) timer->resume();
  return timer;
}

}  // namespace nk
