// OperationQueue: a locked list of waiting operations and a count of running ones; each
// runner on the global queue keeps taking the next operation while the cap allows.
#include "nk/dispatch/operation_queue.hpp"

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>

#include "nk/dispatch/queue_core_internal.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"

namespace nk {

class OperationQueue::State : public std::enable_shared_from_this<State> {
 public:
  explicit State(std::string name) : name_(std::move(name)) {}

  std::string name() const {
    std::lock_guard lock(mutex_);
    return name_;
  }
  void setName(std::string name) {
    std::lock_guard lock(mutex_);
    name_ = std::move(name);
  }
  int maxConcurrent() const {
    std::lock_guard lock(mutex_);
    return max_;
  }
  void setMaxConcurrent(int count) {
    std::unique_lock lock(mutex_);
    max_ = count < -1 ? -1 : count;
    startRunnersLocked(lock);
  }
  std::size_t count() const {
    std::lock_guard lock(mutex_);
    return waiting_.size() + executing_;
  }

  void add(Task&& operation) {
    std::unique_lock lock(mutex_);
    waiting_.push_back(std::move(operation));
    startRunnersLocked(lock);
  }

  void waitAll() {
    dispatch_internal::BlockingRegion blocking;
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [&] { return waiting_.empty() && executing_ == 0; });
  }

 private:
  bool underCapLocked() const { return max_ < 0 || runners_ < static_cast<std::size_t>(max_); }

  // Posts a runner for each waiting operation that no posted runner will take, as far as
  // the cap allows.
  void startRunnersLocked(std::unique_lock<std::mutex>& lock) {
    std::size_t starts = 0;
    while (waiting_.size() > unclaimed_ && underCapLocked()) {
      ++runners_;
      ++unclaimed_;
      ++starts;
    }
    if (starts == 0) return;
    lock.unlock();
    for (; starts > 0; --starts) {
      Queue::global().async([self = shared_from_this()] { self->runner(); });
    }
    lock.lock();
  }

  void runner() {
    std::unique_lock lock(mutex_);
    --unclaimed_;
    // Keep taking operations while the cap (which may have been lowered) allows.
    while (!waiting_.empty() && (max_ < 0 || runners_ <= static_cast<std::size_t>(max_))) {
      Task operation = std::move(waiting_.front());
      waiting_.pop_front();
      ++executing_;
      lock.unlock();
      try {
        operation();
      } catch (...) {
        dispatch_internal::reportEscapedException("an operation on operation queue \"" + name() +
                                                  "\"");
      }
      operation.reset();
      lock.lock();
      --executing_;
    }
    --runners_;
    if (waiting_.empty() && executing_ == 0) idle_.notify_all();
  }

  mutable std::mutex mutex_;
  std::condition_variable idle_;
  std::string name_;
  int max_ = kDefaultMaxConcurrentOperationCount;
  std::deque<Task> waiting_;
  std::size_t runners_ = 0;    // runner tasks posted and not yet finished
  std::size_t unclaimed_ = 0;  // runners posted that have not started yet
  std::size_t executing_ = 0;  // operations running now
};

OperationQueue::OperationQueue(std::string name) {
  if (name.empty()) {
    char buffer[48];
    std::snprintf(buffer, sizeof buffer, "OperationQueue %p", static_cast<void*>(this));
    name = buffer;
  }
  state_ = std::make_shared<State>(std::move(name));
}

OperationQueue::~OperationQueue() = default;

std::string OperationQueue::name() const { return state_->name(); }
void OperationQueue::setName(std::string name) { state_->setName(std::move(name)); }
int OperationQueue::maxConcurrentOperationCount() const { return state_->maxConcurrent(); }
void OperationQueue::setMaxConcurrentOperationCount(int count) { state_->setMaxConcurrent(count); }
void OperationQueue::add(Task&& operation) { state_->add(std::move(operation)); }
void OperationQueue::waitUntilAllOperationsAreFinished() { state_->waitAll(); }
std::size_t OperationQueue::operationCount() const { return state_->count(); }

}  // namespace nk
