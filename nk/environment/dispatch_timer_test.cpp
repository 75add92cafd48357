// Tests of CreateDispatchTimer: repeating firings on the given queue, suspended timers
// that wait to be resumed, and timers without a handler.

#include "nk/environment/dispatch_timer.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include "nk/dispatch/semaphore.hpp"

namespace nk {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t kMillisecond = 1'000'000;

// A serial queue and a handler that counts its calls, notes whether each ran on that
// queue, and signals each one.
class DispatchTimer : public ::testing::Test {
 protected:
  std::function<void()> handler() {
    return [this] {
      if (!(Queue::current() == queue)) onQueue = false;
      ++count;
      fired.signal();
    };
  }
  // Cancels, and lets a call still running finish before the members go.
  void TearDown() override {
    if (timer) timer->cancel();
    queue.sync([] {});
  }

  Queue queue = Queue::serial("env.timer");
  Semaphore fired;
  std::atomic<int> count{0};
  std::atomic<bool> onQueue{true};
  std::unique_ptr<TimerSource> timer;
};

TEST_F(DispatchTimer, StartedTimerRepeatsOnItsQueue) {
  timer = CreateDispatchTimer(2 * kMillisecond, 0, queue, handler(), true);
  ASSERT_TRUE(timer);
  // It fires more than once, each time on the queue it was given.
  ASSERT_TRUE(fired.waitFor(5s));
  ASSERT_TRUE(fired.waitFor(5s));
  EXPECT_TRUE(onQueue.load());
}

TEST_F(DispatchTimer, SuspendedTimerWaitsUntilResumed) {
  timer = CreateDispatchTimer(kMillisecond, 0, queue, handler(), false);
  ASSERT_TRUE(timer);
  // Nothing happens while it is suspended, though its first firing is long due.
  EXPECT_FALSE(fired.waitFor(30ms));
  // Resuming starts it at once.
  timer->resume();
  EXPECT_TRUE(fired.waitFor(5s));
}

// A started timer without a handler runs quietly and takes a handler later.
TEST_F(DispatchTimer, WithoutHandler) {
  timer = CreateDispatchTimer(kMillisecond, 0, queue, nullptr, true);
  ASSERT_TRUE(timer);
  std::this_thread::sleep_for(5ms);
  timer->setEventHandler(handler());
  EXPECT_TRUE(fired.waitFor(5s));
}

}  // namespace
}  // namespace nk
