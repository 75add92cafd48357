// Tests for the tasks the pool passes to a worker outside its queues: the task handed to a
// sleeping worker by a thread outside the pool, and the task a pool task keeps for its
// worker in its last steps (it runs after the task, is never lost, and is never left
// waiting behind a task that blocks).
#include "nk/dispatch/thread_pool_internal.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/semaphore.hpp"

namespace nk::dispatch_internal {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s;  // generous: only a hang should ever reach it

// Waiting on a std::future is client code blocking: the pool does not know about it.
bool ready(std::future<void>& f) { return f.wait_for(kPatience) == std::future_status::ready; }

// Runs `body` as a pool task and waits for it to end.
template <class Body>
void onPool(Body body) {
  Semaphore ended;
  Queue::global().async([&] {
    body();
    ended.signal();
  });
  ASSERT_TRUE(ended.waitFor(kPatience));
}

// Threads that each wait for their task before submitting the next keep the workers
// falling asleep and being handed tasks, racing one another for the sleepers; now and then
// a second task follows at once, and must be queued and picked up by some worker.
TEST(PoolHandOff, HopsFromManyThreadsToSleepingWorkersAllArrive) {
  constexpr int kThreads = 4, kHops = 3000;
  std::atomic<int> ran{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      Queue serial = Queue::serial("nk.test.hops");
      Queue global = Queue::global(static_cast<QueuePriority>(t % 4));
      Semaphore arrived;
      for (int i = 0; i < kHops; ++i) {
        const int tasks = i % 7 == 0 ? 2 : 1;
        for (int k = 0; k < tasks; ++k) {
          (i % 2 ? serial : global).async([&] {
            ran.fetch_add(1);
            arrived.signal();
          });
        }
        for (int k = 0; k < tasks; ++k) {
          if (!arrived.waitFor(kPatience)) {
            ADD_FAILURE() << "thread " << t << " lost a task at hop " << i;
            return;
          }
        }
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(ran.load(), kThreads * (kHops + (kHops + 6) / 7));
}

// A handed-over task that blocks gives its worker's parking position up to a stand-in,
// which sleeps there and is handed tasks in turn: they must leave the blocked task, and
// what it captured, alone.
TEST(PoolHandOff, BlockedTaskKeepsItsCapturesWhileOthersAreHandedOver) {
  constexpr int kLater = 200;
  Semaphore gate, done, later;
  bool intact = false;
  std::this_thread::sleep_for(5ms);  // the workers fall asleep
  Queue::global().async([&, text = std::string(100, 'x')] {
    gate.wait();
    intact = text == std::string(100, 'x');
    done.signal();
  });
  for (int i = 0; i < kLater; ++i) {
    std::this_thread::sleep_for(500us);
    Queue::global().async([&] { later.signal(); });
  }
  for (int i = 0; i < kLater; ++i) ASSERT_TRUE(later.waitFor(kPatience)) << "lost task " << i;
  gate.signal();
  ASSERT_TRUE(done.waitFor(kPatience));
  EXPECT_TRUE(intact);
}

TEST(PoolTaskTail, KeptTaskRunsAfterTheTaskOnItsWorker) {
  std::atomic<bool> outerReturned{false};
  std::thread::id outerThread, innerThread;
  bool innerSawOuterReturn = false;
  Semaphore done;
  Queue::global().async([&] {
    outerThread = std::this_thread::get_id();
    {
      TaskTailRegion tail;
      Queue::global().async([&] {
        innerThread = std::this_thread::get_id();
        innerSawOuterReturn = outerReturned.load();
        done.signal();
      });
    }
    // Still inside the task: the kept task must not have started.
    std::this_thread::sleep_for(20ms);
    outerReturned = true;
  });
  ASSERT_TRUE(done.waitFor(kPatience));
  EXPECT_TRUE(innerSawOuterReturn);
  EXPECT_EQ(innerThread, outerThread);
}

TEST(PoolTaskTail, LosesNoTasksAlongLongChains) {
  // Every step keeps the next; some steps also queue ordinary work, which then waits and
  // sends the kept step to the back of the queue instead.
  constexpr int kChains = 8, kSteps = 2000;
  std::atomic<int> steps{0}, extras{0};
  Semaphore done;
  struct Step {
    static void run(std::atomic<int>& steps, std::atomic<int>& extras, Semaphore& done, int left) {
      if (left % 5 == 0) Queue::global(QueuePriority::kHigh).async([&] { ++extras; });
      if (steps.fetch_add(1) + 1 == kChains * kSteps) done.signal();
      if (left == 1) return;
      TaskTailRegion tail;
      Queue::global().async([&, left] { run(steps, extras, done, left - 1); });
    }
  };
  for (int c = 0; c < kChains; ++c) {
    Queue::global().async([&] { Step::run(steps, extras, done, kSteps); });
  }
  ASSERT_TRUE(done.waitFor(kPatience));
  EXPECT_EQ(steps.load(), kChains * kSteps);
  for (int i = 0; i < 1000 && extras.load() != kChains * kSteps / 5; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(extras.load(), kChains * kSteps / 5);
}

TEST(PoolTaskTail, BlockingTaskDoesNotWaitOnItsKeptTask) {
  // Waiting through the library's own primitives gives the kept task to another worker.
  Semaphore inner;
  onPool([&] {
    {
      TaskTailRegion tail;
      Queue::global().async([&] { inner.signal(); });
    }
    EXPECT_TRUE(inner.waitFor(kPatience));
  });
  // Client code run inside the region interrupts it first: the kept task is queued, and
  // a later task in the region is queued too, so a plain wait for either ends.
  std::promise<void> first, second, kept;
  std::future<void> firstDone = first.get_future(), secondDone = second.get_future();
  onPool([&] {
    TaskTailRegion tail;
    Queue::global().async([&] { first.set_value(); });
    TaskTailRegion::interrupt();
    Queue::global().async([&] { second.set_value(); });
    EXPECT_TRUE(ready(firstDone));
    EXPECT_TRUE(ready(secondDone));
  });
  // A later task from the same thread queues the kept one first, keeping this thread's
  // order: the kept task is then under way while this one still runs.
  std::future<void> keptStarted = kept.get_future();
  onPool([&] {
    {
      TaskTailRegion tail;
      Queue::global().async([&] { kept.set_value(); });
    }
    Queue::global().async([] {});
    EXPECT_TRUE(ready(keptStarted));
  });
}

TEST(PoolTaskTail, NothingIsKeptOutsideAPlainPoolTask) {
  // Off the pool, and inside a serial queue's run, tasks are queued as usual: a kept
  // task here would wait behind this thread or behind the serial queue's later tasks.
  std::promise<void> offPool, fromSerial;
  std::future<void> offPoolDone = offPool.get_future(), fromSerialDone = fromSerial.get_future();
  {
    TaskTailRegion tail;
    Queue::global().async([&] { offPool.set_value(); });
  }
  EXPECT_TRUE(ready(offPoolDone));

  Queue serial = Queue::serial("nk.test.tail");
  Semaphore done;
  serial.async([&] {
    TaskTailRegion tail;
    Queue::global().async([&] { fromSerial.set_value(); });
  });
  serial.async([&] {
    EXPECT_TRUE(ready(fromSerialDone));
    done.signal();
  });
  ASSERT_TRUE(done.waitFor(kPatience));
}

}  // namespace
}  // namespace nk::dispatch_internal
