// Tests for Semaphore: counting, time-outs that take nothing, wake-ups, and no lost or
// extra resources under many threads.
#include "nk/dispatch/semaphore.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

namespace nk {
namespace {

using namespace std::chrono_literals;

TEST(Semaphore, CountsAndTimesOut) {
  Semaphore s(2);
  EXPECT_TRUE(s.waitFor(0ns));
  s.wait();
  // Empty: times out, no earlier than asked.
  auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(s.waitFor(20ms));
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
  EXPECT_FALSE(s.waitUntil(std::chrono::steady_clock::now() - 1s));  // past deadline
  // The timed-out waiters gave their places back: one signal makes one resource.
  EXPECT_FALSE(s.signal());  // nobody waiting
  EXPECT_TRUE(s.waitFor(0ns));
  EXPECT_FALSE(s.waitFor(0ns));
}

TEST(Semaphore, TimeoutsAtTheEndsOfTheRange) {
  Semaphore s;
  // Deadlines before the clock's start have passed: the wait fails at once.
  auto waitElsewhere = [&](auto wait) {
    std::future<bool> taken = std::async(std::launch::async, wait);
    if (taken.wait_for(10s) != std::future_status::ready) {
      ADD_FAILURE() << "the wait did not time out";
      s.signal();  // let it go
    }
    return taken.get();
  };
  EXPECT_FALSE(
      waitElsewhere([&] { return s.waitUntil(std::chrono::steady_clock::time_point::min()); }));
  EXPECT_FALSE(waitElsewhere([&] { return s.waitFor(std::chrono::nanoseconds::min()); }));
  // The longest timeout waits for the signal (and must not overflow computing its deadline).
  std::thread signaller([&] {
    std::this_thread::sleep_for(20ms);
    s.signal();
  });
  EXPECT_TRUE(s.waitFor(std::chrono::nanoseconds::max()));
  signaller.join();
  EXPECT_FALSE(s.waitFor(0ns));
}

TEST(Semaphore, SignalWakesASleepingWaiter) {
  Semaphore s;
  std::atomic<bool> woke{false};
  std::thread waiter([&] {
    s.wait();
    woke = true;
  });
  // Signal only once the waiter has counted itself in; signal() reports the wake.
  bool wokeSomeone = false;
  for (int i = 0; i < 2000 && !wokeSomeone; ++i) {
    std::this_thread::sleep_for(1ms);
    wokeSomeone = s.signal();
    if (!wokeSomeone) {
      ASSERT_TRUE(s.waitFor(0ns));  // take the resource back
    }
  }
  waiter.join();
  EXPECT_TRUE(wokeSomeone);
  EXPECT_TRUE(woke);
}

TEST(Semaphore, NoResourceLostOrInventedUnderContention) {
  // Consumers with short time-outs race producers; every signal is taken exactly once.
  constexpr int kProducers = 4, kConsumers = 4, kPerProducer = 20000;
  Semaphore s;
  std::atomic<int> taken{0};
  std::atomic<bool> producing{true};
  std::vector<std::thread> threads;
  for (int c = 0; c < kConsumers; ++c) {
    threads.emplace_back([&, c] {
      while (producing.load() || taken.load() < kProducers * kPerProducer) {
        if (s.waitFor(c % 2 ? 50us : 5ms)) taken.fetch_add(1);
        if (!producing.load() && taken.load() >= kProducers * kPerProducer) break;
      }
    });
  }
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&] {
      for (int i = 0; i < kPerProducer; ++i) s.signal();
    });
  }
  for (auto& p : producers) p.join();
  producing = false;
  for (auto& t : threads) t.join();
  EXPECT_EQ(taken.load(), kProducers * kPerProducer);
  EXPECT_FALSE(s.waitFor(0ns)) << "a resource was invented";
}

}  // namespace
}  // namespace nk
