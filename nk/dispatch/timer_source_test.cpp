// Tests for timer sources: suspended until resumed, never early, repeating, merged
// firings, cancellation with its handler, wall-clock starts.
#include "nk/dispatch/timer_source.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "nk/dispatch/semaphore.hpp"

namespace nk {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kPatience = 20s;

TEST(TimerSource, StaysSuspendedUntilResumed) {
  TimerSource timer(Queue::global());
  std::atomic<int> calls{0};
  Semaphore fired;
  timer.setEventHandler([&] {
    calls.fetch_add(1);
    fired.signal();
  });
  timer.setTimer(TimerStart::now(), TimerSource::kOnce, 0ns);
  EXPECT_FALSE(fired.waitFor(30ms)) << "fired before resume";

  timer.resume();
  ASSERT_TRUE(fired.waitFor(kPatience));
  // Suspended again and re-armed: nothing until the next resume.
  timer.suspend();
  timer.setTimer(TimerStart::now(), TimerSource::kOnce, 0ns);
  EXPECT_FALSE(fired.waitFor(30ms));
  timer.resume();
  ASSERT_TRUE(fired.waitFor(kPatience));
  EXPECT_EQ(calls.load(), 2);
}

TEST(TimerSource, NeverFiresBeforeItsStartAndRespectsLeeway) {
  // One timer with no leeway and one with plenty: both fire in [start, start + leeway],
  // with a generous margin above for a loaded machine.
  for (auto leeway : {0ns, std::chrono::nanoseconds(40ms)}) {
    TimerSource timer(Queue::serial("nk.test.timer-start"));
    Semaphore fired;
    Clock::duration elapsed{};
    auto start = Clock::now();
    timer.setEventHandler([&] {
      elapsed = Clock::now() - start;
      fired.signal();
    });
    timer.setTimer(TimerStart::after(30ms), TimerSource::kOnce, leeway);
    timer.resume();
    ASSERT_TRUE(fired.waitFor(kPatience));
    EXPECT_GE(elapsed, 30ms);
    EXPECT_LT(elapsed, 30ms + leeway + 5s);
    EXPECT_FALSE(fired.waitFor(20ms)) << "one-shot timer fired twice";
  }
}

TEST(TimerSource, RepeatsMergingBusyFiringsUntilCancelledThenRunsCancelHandlerLast) {
  // A 1 ms timer whose handler takes 30 ms fires about once per handler call, never
  // concurrently with itself, and not at all once its cancel handler has run.
  TimerSource timer(Queue::global());
  std::atomic<int> active{0}, calls{0};
  std::atomic<bool> overlapped{false}, cancelled{false}, handlerAfterCancel{false};
  Semaphore threeCalls, cancelHandlerRan;
  timer.setEventHandler([&] {
    if (cancelled) handlerAfterCancel = true;
    if (active.fetch_add(1) != 0) overlapped = true;
    std::this_thread::sleep_for(30ms);
    active.fetch_sub(1);
    if (calls.fetch_add(1) + 1 == 3) threeCalls.signal();
  });
  timer.setCancelHandler([&] {
    cancelled = true;
    cancelHandlerRan.signal();
  });
  auto start = Clock::now();
  timer.setTimer(TimerStart::now(), std::chrono::milliseconds(1), 0ns);
  timer.resume();
  ASSERT_TRUE(threeCalls.waitFor(kPatience));

  timer.cancel();
  EXPECT_TRUE(timer.isCancelled());
  ASSERT_TRUE(cancelHandlerRan.waitFor(kPatience));
  auto ran = Clock::now() - start;
  int atCancel = calls.load();
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(calls.load(), atCancel);
  EXPECT_FALSE(handlerAfterCancel);
  EXPECT_FALSE(overlapped);
  EXPECT_LE(atCancel, ran / 30ms + 1);
  timer.resume();  // no effect once cancelled
  EXPECT_FALSE(cancelHandlerRan.waitFor(10ms));
}

TEST(TimerSource, AFiringKeptWhileSuspendedIsTheOnlyCallOnResume) {
  // The first call is posted, then the timer is suspended before it runs, and the
  // next firing comes due while it stays suspended: resuming makes one call for both.
  Queue queue = Queue::serial("nk.test.timer.kept");
  Semaphore holding, release, called;
  queue.async([&] {
    holding.signal();
    release.wait();
  });
  ASSERT_TRUE(holding.waitFor(kPatience));
  TimerSource timer(queue);
  std::atomic<int> calls{0};
  timer.setEventHandler([&] {
    calls.fetch_add(1);
    called.signal();
  });
  timer.setTimer(TimerStart::now(), 1s, 0ns);
  timer.resume();
  std::this_thread::sleep_for(50ms);  // the first firing waits behind the held task
  timer.suspend();
  release.signal();
  std::this_thread::sleep_for(1100ms);  // the second comes due, suspended
  EXPECT_EQ(calls.load(), 0);
  timer.resume();
  ASSERT_TRUE(called.waitFor(kPatience));
  std::this_thread::sleep_for(200ms);  // the third is due a second after the first
  EXPECT_EQ(calls.load(), 1);
  timer.cancel();
}

TEST(TimerSource, StartsAtAWallClockTime) {
  TimerSource timer(Queue::global());
  Semaphore fired;
  auto at = std::chrono::system_clock::now() + 40ms;
  std::chrono::system_clock::time_point firedAt;
  timer.setEventHandler([&] {
    firedAt = std::chrono::system_clock::now();
    fired.signal();
  });
  timer.setTimer(TimerStart::wallClock(at), TimerSource::kOnce, 0ns);
  timer.resume();
  ASSERT_TRUE(fired.waitFor(kPatience));
  EXPECT_GE(firedAt, at);
}

TEST(TimerSource, RepeatsAtItsIntervalFromAStartLongAgo) {
  // Started at the earliest time the wall clock can name: one call at once for all the
  // missed firings, then one per interval, not a call per timer wake-up.
  TimerSource timer(Queue::global());
  std::atomic<int> calls{0};
  timer.setEventHandler([&] { calls.fetch_add(1); });
  timer.setTimer(TimerStart::wallClock(std::chrono::system_clock::time_point::min()), 50ms, 0ns);
  auto start = std::chrono::steady_clock::now();
  timer.resume();
  std::this_thread::sleep_for(200ms);
  timer.cancel();
  auto due = (std::chrono::steady_clock::now() - start) / 50ms + 1;
  EXPECT_GE(calls.load(), 1);
  EXPECT_LE(calls.load(), due + 1);  // one to spare for a call under way at cancel
}

TEST(TimerSourceDeathTest, ResumingTooOftenTerminates) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        TimerSource timer(Queue::global());
        timer.resume();
        timer.resume();
      },
      "TimerSource resumed more often than suspended");
}

}  // namespace
}  // namespace nk
