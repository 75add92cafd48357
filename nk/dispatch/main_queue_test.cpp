// Tests for the main queue and the main thread: work runs only inside the main loop, on
// the main thread, in order, from any number of producers.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "nk/dispatch/main_thread.hpp"
#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/run_loop.hpp"
#include "nk/dispatch/semaphore.hpp"
#include "nk/foundation/block_pool.hpp"

namespace nk {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s;

TEST(MainQueue, RunsOnlyWhileTheMainLoopRunsOnTheMainThreadEvenForSync) {
  std::atomic<bool> ran{false}, onMain{false}, returned{false};
  bool syncOnMain = false;
  std::thread worker([&] {
    EXPECT_FALSE(isMainThread());
    Queue::main().async([&] {
      onMain = isMainThread() && Queue::main().isCurrent();
      ran = true;
    });
    int v = Queue::main().sync([&] {
      syncOnMain = isMainThread();
      return 42;
    });
    EXPECT_EQ(v, 42);
    EXPECT_THROW(Queue::main().sync([] { throw std::logic_error("on main"); }), std::logic_error);
    returned = true;
    RunLoop::main().wakeUp();
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_FALSE(ran) << "ran without the main loop";
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return returned.load(); }, kPatience));
  worker.join();
  EXPECT_TRUE(ran);
  EXPECT_TRUE(onMain);
  EXPECT_TRUE(syncOnMain);
}

TEST(MainQueue, LosesNoWorkFromManyProducers) {
  constexpr int kThreads = 4, kPerThread = 20000;
  std::vector<int> next(kThreads, 0);  // touched only on the main thread
  bool outOfOrder = false, offMain = false;
  int total = 0;
  std::vector<std::thread> producers;
  for (int t = 0; t < kThreads; ++t) {
    producers.emplace_back([&, t] {
      // Odd producers submit runs of up to 50 tasks at once, even ones single tasks.
      std::vector<Task> run;
      for (int i = 0; i < kPerThread; ++i) {
        run.emplace_back([&, t, i] {
          outOfOrder |= next[t] != i;
          offMain |= !isMainThread();
          next[t] = i + 1;
          ++total;
        });
        if (t % 2 == 0 || run.size() == 50 || i + 1 == kPerThread) {
          Queue::main().asyncBatch(run.data(), run.size());
          run.clear();
        }
      }
    });
  }
  // Producers and the loop run at the same time, so the loop sleeps and wakes often.
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return total == kThreads * kPerThread; }, kPatience));
  for (auto& p : producers) p.join();
  EXPECT_FALSE(outOfOrder);
  EXPECT_FALSE(offMain);
}

TEST(MainQueue, NestedLoopInATaskRunsLaterTasks) {
  // A modal loop inside a main-queue task must not stall the main queue, whether the
  // tasks it waits for were queued by that task or were already queued behind it.
  for (bool queuesItsOwn : {true, false}) {
    bool innerRan = false, nestedReturned = false, outerDone = false;
    Queue::main().async([&] {
      if (queuesItsOwn) Queue::main().async([&] { innerRan = true; });
      nestedReturned = RunLoop::main().runUntil([&] { return innerRan; }, kPatience);
      outerDone = true;
    });
    if (!queuesItsOwn) Queue::main().async([&] { innerRan = true; });
    EXPECT_TRUE(RunLoop::main().runUntil([&] { return outerDone; }, 2 * kPatience));
    EXPECT_TRUE(nestedReturned) << (queuesItsOwn ? "queued by the task" : "queued behind it");
  }
}

TEST(MainQueue, IdleLoopGivesBackFreedValueBlocks) {
  if (!block_pool::pooling()) GTEST_SKIP() << "no pooling under AddressSanitizer";
  std::atomic<bool> ran{false};
  Queue::main().async([&] {
    // A burst of work that frees a few megabytes of blocks on the main thread.
    std::vector<void*> blocks(8000);
    for (void*& b : blocks) b = block_pool::allocate(512);
    for (void* b : blocks) block_pool::deallocate(b, 512);
    ran = true;
  });
  ASSERT_TRUE(RunLoop::main().runUntil([&] { return ran.load(); }, kPatience));
  EXPECT_GT(block_pool::cachedBytes(), block_pool::kIdleCachedBytes);
  RunLoop::main().runOnce(false);  // the loop looks for work, finds none, may sleep
  EXPECT_LE(block_pool::cachedBytes(), block_pool::kIdleCachedBytes);
}

TEST(MainQueueDeathTest, SyncFromTheMainThreadTerminates) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(Queue::main().sync([] {}),
               "sync onto the main queue from the main thread would deadlock");
  // A task of a serial queue waits for the main queue, whose block syncs back onto
  // that serial queue.
  EXPECT_DEATH(
      {
        Queue serial = Queue::serial("nk.test.round-trip");
        serial.async([&] { Queue::main().sync([&] { serial.sync([] {}); }); });
        RunLoop::main().runUntil([] { return false; }, kPatience);
      },
      "sync onto serial queue \"nk.test.round-trip\" from a task running on it would deadlock");
  // The same onto a concurrent queue: a barrierSync behind its waiting task, and a sync
  // behind its waiting barrier.
  EXPECT_DEATH(
      {
        Queue concurrent = Queue::concurrent("nk.test.round-trip-task");
        concurrent.async([&] { Queue::main().sync([&] { concurrent.barrierSync([] {}); }); });
        RunLoop::main().runUntil([] { return false; }, kPatience);
      },
      "barrierSync onto concurrent queue \"nk.test.round-trip-task\" from a task");
  EXPECT_DEATH(
      {
        Queue concurrent = Queue::concurrent("nk.test.round-trip-barrier");
        concurrent.barrierAsync([&] { Queue::main().sync([&] { concurrent.sync([] {}); }); });
        RunLoop::main().runUntil([] { return false; }, kPatience);
      },
      "sync onto concurrent queue \"nk.test.round-trip-barrier\" from a barrier");
}

}  // namespace
}  // namespace nk
