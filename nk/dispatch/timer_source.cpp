// Timer sources: per-timer state shared by the owner, the timer thread and the handler
// task in flight, all under one mutex; the timer thread only posts, the queue runs.
#include "nk/dispatch/timer_source.hpp"

#include <algorithm>
#include <mutex>

#include "nk/dispatch/queue_core_internal.hpp"
#include "nk/dispatch/timer_service_internal.hpp"

namespace nk {

using dispatch_internal::Deadline;
using dispatch_internal::TimerService;

TimerStart TimerStart::now() noexcept {
  return TimerStart(false, dispatch_internal::monotonicNowNs());
}

TimerStart TimerStart::after(std::chrono::nanoseconds delay) noexcept {
  return TimerStart(
      false, dispatch_internal::saturatingAdd(dispatch_internal::monotonicNowNs(), delay.count()));
}

TimerStart TimerStart::wallClock(std::chrono::system_clock::time_point time) noexcept {
  return TimerStart(
      true, std::chrono::duration_cast<std::chrono::nanoseconds>(time.time_since_epoch()).count());
}

class TimerSource::State final : public dispatch_internal::TimerClient,
                                 public std::enable_shared_from_this<State> {
 public:
  explicit State(Queue queue) : queue_(std::move(queue)) {}

  void setTimer(TimerStart start, std::chrono::nanoseconds interval,
                std::chrono::nanoseconds leeway) {
    std::lock_guard lock(mutex_);
    next_ = Deadline{start.wall_, start.ns_};
    intervalNs_ = interval == kOnce || interval.count() <= 0 ? 0 : interval.count();
    leewayNs_ = leeway.count() > 0 ? leeway.count() : 0;
    // Room to merge wake-ups, not a longer period: the service may wait out the whole
    // leeway, so more than half the interval would skip firings.
    if (intervalNs_ != 0) leewayNs_ = std::min(leewayNs_, intervalNs_ / 2);
    armLocked();
  }

  void setEventHandler(std::function<void()> handler) {
    auto shared = handler ? std::make_shared<std::function<void()>>(std::move(handler)) : nullptr;
    std::lock_guard lock(mutex_);
    handler_ = std::move(shared);
  }

  void setCancelHandler(std::function<void()> handler) {
    std::lock_guard lock(mutex_);
    cancelHandler_ = std::move(handler);
  }

  void resume() {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    if (suspendCount_ == 0)
      dispatch_internal::fatal("TimerSource resumed more often than suspended");
    if (--suspendCount_ == 0) {
      if (missed_ && !inFlight_) {
        // The kept call also stands for a firing that came due while suspended.
        if (next_.ns != Deadline::kNever && next_.ns <= nowLocked()) advanceLocked();
        postHandlerLocked();
      }
      armLocked();
    }
  }

  void suspend() {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    if (suspendCount_++ == 0) armLocked();
  }

  void cancel() {
    std::lock_guard lock(mutex_);
    if (cancelled_) return;
    cancelled_ = true;
    armLocked();
    if (!inFlight_) postCancelLocked();
  }

  bool isCancelled() {
    std::lock_guard lock(mutex_);
    return cancelled_;
  }

  void fire(uint64_t generation) override {
    std::lock_guard lock(mutex_);
    if (generation != generation_ || cancelled_ || suspendCount_ != 0) return;
    advanceLocked();
    armLocked();
    if (inFlight_) {
      missed_ = true;
    } else {
      postHandlerLocked();
    }
  }

 private:
  int64_t nowLocked() const {
    return next_.wall ? dispatch_internal::wallNowNs() : dispatch_internal::monotonicNowNs();
  }

  // Moves the deadline past the firing being made. A repeating timer skips the ones
  // already missed, which are merged into it; a one-shot timer has none left.
  void advanceLocked() {
    if (intervalNs_ == 0) {
      next_.ns = Deadline::kNever;
      return;
    }
    next_.ns = dispatch_internal::nextDueAfter(next_.ns, intervalNs_, nowLocked());
  }

  void armLocked() {
    ++generation_;
    if (!cancelled_ && suspendCount_ == 0 && next_.ns != Deadline::kNever) {
      TimerService::instance().arm(shared_from_this(), next_, leewayNs_, generation_);
    } else {
      TimerService::instance().disarm(this);
    }
  }

  void postHandlerLocked() {
    inFlight_ = true;
    missed_ = false;
    queue_.async([self = shared_from_this()] { self->runHandler(); });
  }

  void postCancelLocked() {
    if (cancelHandler_) {
      queue_.async(std::move(cancelHandler_));
      cancelHandler_ = nullptr;
    }
  }

  void runHandler() {
    std::shared_ptr<std::function<void()>> handler;
    {
      std::lock_guard lock(mutex_);
      if (cancelled_ || suspendCount_ != 0) {
        // Suspended since it was posted: keep the firing for resume(). Cancelled: drop it.
        inFlight_ = false;
        missed_ = !cancelled_;
        if (cancelled_) postCancelLocked();
        return;
      }
      handler = handler_;
    }
    if (handler) (*handler)();
    std::lock_guard lock(mutex_);
    inFlight_ = false;
    if (cancelled_) {
      postCancelLocked();
    } else if (missed_ && suspendCount_ == 0) {
      postHandlerLocked();
    }
  }

  std::mutex mutex_;
  const Queue queue_;
  std::shared_ptr<std::function<void()>> handler_;
  std::function<void()> cancelHandler_;
  Deadline next_;
  int64_t intervalNs_ = 0;
  int64_t leewayNs_ = 0;
  uint64_t generation_ = 0;
  int suspendCount_ = 1;
  bool cancelled_ = false;
  bool inFlight_ = false;  // a handler call is posted or running
  bool missed_ = false;    // a firing came due while one was in flight or suspended
};

TimerSource::TimerSource(Queue queue) : state_(std::make_shared<State>(std::move(queue))) {}
TimerSource::TimerSource(TimerSource&&) noexcept = default;
TimerSource& TimerSource::operator=(TimerSource&& other) noexcept {
  if (this != &other) {
    if (state_) state_->cancel();
    state_ = std::move(other.state_);
  }
  return *this;
}
TimerSource::~TimerSource() {
  if (state_) state_->cancel();
}

void TimerSource::setTimer(TimerStart start, std::chrono::nanoseconds interval,
                           std::chrono::nanoseconds leeway) {
  state_->setTimer(start, interval, leeway);
}
void TimerSource::setEventHandler(std::function<void()> handler) {
  state_->setEventHandler(std::move(handler));
}
void TimerSource::setCancelHandler(std::function<void()> handler) {
  state_->setCancelHandler(std::move(handler));
}
void TimerSource::resume() { state_->resume(); }
void TimerSource::suspend() { state_->suspend(); }
void TimerSource::cancel() { state_->cancel(); }
bool TimerSource::isCancelled() const { return state_->isCancelled(); }

}  // namespace nk
