// Tests of CreateDispatchTimer: repeating firings on the given queue, suspended timers
// that wait to be resumed, timers without a handler, and cancelling.

#include "nk/environment/dispatch_timer.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "nk/dispatch/semaphore.hpp"

namespace nk {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t kMillisecond = 1'000'000;

TEST(CreateDispatchTimer, StartedTimerRepeatsOnItsQueue) {
  Queue queue = Queue::serial("env.timer.started");
  Semaphore fired;
  std::atomic<int> count{0};
  std::atomic<bool> onQueue{true};
  auto timer = CreateDispatchTimer(
      2 * kMillisecond, 0, queue,
      [&] {
        if (!(Queue::current() == queue)) onQueue = false;
        ++count;
        fired.signal();
      },
      true);
  ASSERT_TRUE(timer);
  {  // it fires more than once, each time on the queue it was given
    ASSERT_TRUE(fired.waitFor(5s));
    ASSERT_TRUE(fired.waitFor(5s));
    ASSERT_TRUE(fired.waitFor(5s));
    EXPECT_TRUE(onQueue.load());
  }
  {  // after cancel the handler is not started again
    timer->cancel();
    EXPECT_TRUE(timer->isCancelled());
    // A call already running when cancel returned finishes before this block on the
    // serial queue.
    const int atCancel = queue.sync([&] { return count.load(); });
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(count.load(), atCancel);
  }
}

TEST(CreateDispatchTimer, SuspendedTimerWaitsUntilResumed) {
  Queue queue = Queue::serial("env.timer.suspended");
  Semaphore fired;
  std::atomic<int> count{0};
  auto timer = CreateDispatchTimer(
      kMillisecond, 0, queue,
      [&] {
        ++count;
        fired.signal();
      },
      false);
  ASSERT_TRUE(timer);
  {  // nothing happens while it is suspended, though its first firing is long due
    EXPECT_FALSE(fired.waitFor(30ms));
    EXPECT_EQ(count.load(), 0);
  }
  {  // resuming starts it at once
    timer->resume();
    EXPECT_TRUE(fired.waitFor(5s));
    timer->cancel();
    queue.sync([] {});  // lets a call still running finish before the locals go
  }
}

// A started timer without a handler runs quietly and takes a handler later.
TEST(CreateDispatchTimer, WithoutHandler) {
  Queue queue = Queue::serial("env.timer.no-handler");
  Semaphore fired;
  auto timer = CreateDispatchTimer(kMillisecond, 0, queue, nullptr, true);
  ASSERT_TRUE(timer);
  std::this_thread::sleep_for(5ms);
  timer->setEventHandler([&] { fired.signal(); });
  EXPECT_TRUE(fired.waitFor(5s));
  timer->cancel();
  queue.sync([] {});
}

}  // namespace
}  // namespace nk
