// CreateDispatchTimer: a repeating timer on a queue, first due now on the wall clock.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/timer_source.hpp"

namespace nk {

// A timer that fires on `queue` now and then every `intervalNs` nanoseconds (0 is taken as
// 1: the timer always repeats, its firings merged while the handler runs), each firing
// at most `leewayNs` late; a leeway above half the interval counts as half of it, so the
// timer keeps to its interval. The schedule follows the wall clock, so it keeps to the
// calendar across sleep and clock changes. `handler` may be empty (no event handler is
// installed). With `start` the timer is resumed before it is returned; otherwise it is
// returned suspended. The caller owns the timer: it resumes it if it did not ask to
// start it, and cancels it (destroying it cancels it too). nullptr when no timer can be
// made.
//
//   auto t = nk::CreateDispatchTimer(30'000'000'000, 1'000'000'000, nk::Queue::global(),
//                                    [] { poll(); }, true);
//   ...
//   t->cancel();
std::unique_ptr<TimerSource> CreateDispatchTimer(uint64_t intervalNs, uint64_t leewayNs,
                                                 Queue queue, std::function<void()> handler,
                                                 bool start);

}  // namespace nk
