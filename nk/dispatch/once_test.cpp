// Tests for once: one call among racing first callers, everyone sees its result, and a
// failed initialiser is retried.
#include "nk/dispatch/once.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/semaphore.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"

namespace nk {
namespace {

TEST(Once, RunsOnceAmongRacingCallers) {
  for (int round = 0; round < 50; ++round) {
    OnceFlag flag;
    std::atomic<int> calls{0};
    int value = 0;  // plain: once must publish it
    std::atomic<bool> go{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&] {
        while (!go.load()) std::this_thread::yield();
        once(flag, [&] {
          calls.fetch_add(1);
          std::this_thread::sleep_for(std::chrono::microseconds(200));
          value = 42;
        });
        if (value != 42) wrong.fetch_add(1);
      });
    }
    go = true;
    for (auto& t : threads) t.join();
    ASSERT_EQ(calls.load(), 1);
    ASSERT_EQ(wrong.load(), 0);
  }
}

TEST(Once, RetriesAfterAThrowingInitialiser) {
  OnceFlag flag;
  int calls = 0;
  EXPECT_THROW(once(flag,
                    [&] {
                      ++calls;
                      throw std::runtime_error("not yet");
                    }),
               std::runtime_error);
  once(flag, [&] { ++calls; });
  once(flag, [&] { ++calls; });
  EXPECT_EQ(calls, 2);
}

TEST(Once, PoolThreadsWaitingForTheInitialiserLeaveItAThread) {
  // The initialiser waits for pool work while more pool tasks than the pool has threads
  // wait for the initialiser: the work still needs a thread.
  using namespace std::chrono_literals;
  const unsigned waiters = 2 * dispatch_internal::ThreadPool::instance().targetThreads() + 2;
  OnceFlag flag;
  Semaphore inInitialiser, workRan, finished;
  std::atomic<bool> initialiserSawWork{false};
  Queue::global().async([&] {
    once(flag, [&] {
      inInitialiser.signal();
      initialiserSawWork = workRan.waitFor(10s);
    });
    finished.signal();
  });
  ASSERT_TRUE(inInitialiser.waitFor(10s));
  for (unsigned i = 0; i < waiters; ++i) {
    Queue::global().async([&] {
      once(flag, [] {});
      finished.signal();
    });
  }
  Queue::global().async([&] { workRan.signal(); });
  for (unsigned i = 0; i <= waiters; ++i) ASSERT_TRUE(finished.waitFor(30s));
  EXPECT_TRUE(initialiserSawWork);
}

}  // namespace
}  // namespace nk
