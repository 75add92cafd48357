// TimerService: the thread that sleeps until the next timer deadline and fires the timers
// that are due, for timer sources and Queue::asyncAfter.
//
// A timer with leeway L due at D may fire anywhere in [D, D + L]. The service sleeps until
// the earliest D + L of all armed timers and then fires every timer whose D has passed, so
// timers with leeway are coalesced into fewer wake-ups.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <vector>

#include "nk/dispatch/clock_internal.hpp"
#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/task.hpp"

namespace nk::dispatch_internal {

// A point in time on the monotonic clock or on the wall clock, in nanoseconds since the
// clock's epoch. kNever never comes.
struct Deadline {
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
  bool wall = false;
  int64_t ns = kNever;
};

class TimerClient {
 public:
  virtual ~TimerClient() = default;
  // Called on the service thread, without the service's lock, once per arming that comes
  // due. `generation` is the one given to arm(). Must be quick: post work, do not do it.
  virtual void fire(uint64_t generation) = 0;
};

class TimerService {
 public:
  static TimerService& instance();

  // Arms `client` (replacing any earlier arming of it) to fire once at `deadline`.
  void arm(std::shared_ptr<TimerClient> client, Deadline deadline, int64_t leewayNs,
           uint64_t generation);
  void disarm(const TimerClient* client);

 private:
  struct Entry {
    std::shared_ptr<TimerClient> client;
    Deadline deadline;
    int64_t leewayNs;
    uint64_t generation;
  };

  TimerService() = default;
  void loop();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Entry> entries_;  // guarded by mutex_
  bool started_ = false;        // guarded by mutex_
};

// Queue::asyncAfter: posts `task` to `queue` once `delay` has passed.
void scheduleAfter(std::chrono::nanoseconds delay, const Queue& queue, Task&& task);

}  // namespace nk::dispatch_internal
