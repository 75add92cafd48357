// The timer thread: one per process, started on first use, sleeping on a condition
// variable until the next deadline window closes or the set of timers changes.
#include "nk/dispatch/timer_service_internal.hpp"

#include <pthread.h>

#include <algorithm>
#include <thread>

namespace nk::dispatch_internal {

namespace {

// A wall-clock deadline, as a monotonic one at the current offset between the clocks.
int64_t toMonotonic(const Deadline& d, int64_t monoNow, int64_t wallNow) noexcept {
  if (!d.wall || d.ns == Deadline::kNever) return d.ns;
  return saturatingAdd(monoNow, saturatingAdd(d.ns, -wallNow));
}

// How long the thread sleeps at most while a wall-clock timer is armed, so that a change
// of the system clock is noticed.
constexpr int64_t kWallClockRecheckNs = 1'000'000'000;

class AfterClient final : public TimerClient {
 public:
  AfterClient(Queue queue, Task&& task) : queue_(std::move(queue)), task_(std::move(task)) {}
  void fire(uint64_t) override { queue_.async(std::move(task_)); }

 private:
  Queue queue_;
  Task task_;
};

}  // namespace

TimerService& TimerService::instance() {
  // Never destroyed: the detached timer thread uses it until the process ends.
  static TimerService* service = new TimerService;
  return *service;
}

void TimerService::arm(std::shared_ptr<TimerClient> client, Deadline deadline, int64_t leewayNs,
                       uint64_t generation) {
  std::lock_guard lock(mutex_);
  if (!started_) {
    std::thread([this] { loop(); }).detach();
    started_ = true;
  }
  auto it = std::find_if(entries_.begin(), entries_.end(),
                         [&](const Entry& e) { return e.client == client; });
  Entry entry{std::move(client), deadline, std::max<int64_t>(leewayNs, 0), generation};
  if (it != entries_.end()) {
    *it = std::move(entry);
  } else {
    entries_.push_back(std::move(entry));
  }
  changed_.notify_one();
}

void TimerService::disarm(const TimerClient* client) {
  std::shared_ptr<TimerClient> removed;  // released after the lock: its destructor may re-enter
  std::lock_guard lock(mutex_);
  auto it = std::find_if(entries_.begin(), entries_.end(),
                         [&](const Entry& e) { return e.client.get() == client; });
  if (it != entries_.end()) {
    removed = std::move(it->client);
    entries_.erase(it);
  }
}

void TimerService::loop() {
  pthread_setname_np(pthread_self(), "nk-timers");
  std::vector<Entry> due;
  std::unique_lock lock(mutex_);
  for (;;) {
    int64_t monoNow = monotonicNowNs();
    int64_t wallNow = wallNowNs();
    int64_t wakeAt = Deadline::kNever;
    bool anyWall = false;
    for (const Entry& e : entries_) {
      wakeAt =
          std::min(wakeAt, saturatingAdd(toMonotonic(e.deadline, monoNow, wallNow), e.leewayNs));
      anyWall = anyWall || e.deadline.wall;
    }
    if (wakeAt <= monoNow) {
      auto firstDue = std::stable_partition(entries_.begin(), entries_.end(), [&](const Entry& e) {
        return toMonotonic(e.deadline, monoNow, wallNow) > monoNow;
      });
      std::move(firstDue, entries_.end(), std::back_inserter(due));
      entries_.erase(firstDue, entries_.end());
      lock.unlock();
      for (Entry& e : due) e.client->fire(e.generation);
      due.clear();  // may run client destructors, which may disarm
      lock.lock();
      continue;
    }
    if (anyWall) wakeAt = std::min(wakeAt, saturatingAdd(monoNow, kWallClockRecheckNs));
    if (wakeAt == Deadline::kNever) {
      changed_.wait(lock);
    } else {
      changed_.wait_until(lock,
                          std::chrono::steady_clock::time_point(std::chrono::nanoseconds(wakeAt)));
    }
  }
}

void scheduleAfter(std::chrono::nanoseconds delay, const Queue& queue, Task&& task) {
  Deadline deadline{false, saturatingAdd(monotonicNowNs(), std::max<int64_t>(delay.count(), 0))};
  TimerService::instance().arm(std::make_shared<AfterClient>(queue, std::move(task)), deadline, 0,
                               0);
}

}  // namespace nk::dispatch_internal
