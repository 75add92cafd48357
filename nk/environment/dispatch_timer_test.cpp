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

class DispatchTimer : public ::testing::Test {
 protected:
  void start(uint64_t interval, bool withHandler, bool resume, uint64_t leeway = 0) {
    timer = CreateDispatchTimer(interval, leeway, queue, withHandler ? handler : nullptr, resume);
    ASSERT_TRUE(timer);
  }
  // Lets a call still running finish before the members go.
  void TearDown() override {
    if (timer) timer->cancel();
    queue.sync([] {});
  }

  Queue queue = Queue::serial("env.timer");
  Semaphore fired;
  std::atomic<bool> onQueue{true};
  std::function<void()> handler = [this] {
    if (!(Queue::current() == queue)) onQueue = false;
    fired.signal();
  };
  std::unique_ptr<TimerSource> timer;
};

TEST_F(DispatchTimer, SuspendedUntilResumedThenRepeatsOnItsQueue) {
  start(kMillisecond, true, false);
  EXPECT_FALSE(fired.waitFor(30ms));
  timer->resume();
  ASSERT_TRUE(fired.waitFor(5s));
  ASSERT_TRUE(fired.waitFor(5s));
  EXPECT_TRUE(onQueue.load());
}

TEST_F(DispatchTimer, LeewayLongerThanTheIntervalKeepsItFiring) {
  // A leeway is room to merge wake-ups: a timer due now must still fire now-ish and
  // keep repeating, even when the leeway is the largest value.
  for (uint64_t leeway : {uint64_t{60'000} * kMillisecond, UINT64_MAX}) {
    start(kMillisecond, true, true, leeway);
    ASSERT_TRUE(fired.waitFor(5s)) << leeway;
    ASSERT_TRUE(fired.waitFor(5s)) << leeway;
    timer->cancel();
    queue.sync([] {});
    while (fired.waitFor(0ms)) {
    }
  }
}

TEST_F(DispatchTimer, ZeroIntervalStillRepeats) {
  // An interval of 0 asks for the shortest period, not for a single firing.
  start(0, true, true);
  ASSERT_TRUE(fired.waitFor(5s));
  EXPECT_TRUE(fired.waitFor(5s));
}

TEST_F(DispatchTimer, StartedWithoutHandlerTakesOneLater) {
  start(kMillisecond, false, true);
  std::this_thread::sleep_for(5ms);
  timer->setEventHandler(handler);
  EXPECT_TRUE(fired.waitFor(5s));
}

}  // namespace
}  // namespace nk
