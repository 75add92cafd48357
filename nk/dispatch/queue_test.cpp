// Tests for serial, concurrent and global queues: ordering, exclusion, barriers, sync,
// lifetime, the running-queue record, and the fatal misuse reports.
#include "nk/dispatch/queue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "nk/dispatch/semaphore.hpp"

namespace nk {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s;  // generous: only a hang should ever reach it

// Runs body(t) on each of `threads` new threads at once, and joins them.
template <class Body>
void onThreads(int threads, Body body) {
  std::vector<std::thread> running;
  for (int t = 0; t < threads; ++t) running.emplace_back(body, t);
  for (auto& r : running) r.join();
}

TEST(SerialQueue, RunsTasksOneAtATimeInOrderLosingNoneFromManyProducers) {
  constexpr int kThreads = 8, kPerThread = 5000;
  Queue q = Queue::serial("nk.test.serial-producers");
  std::vector<int> next(kThreads, 0);  // unguarded on purpose: the queue is the lock
  std::atomic<int> active{0};
  std::atomic<bool> outOfOrder{false}, overlapped{false};
  onThreads(kThreads, [&](int t) {
    for (int i = 0; i < kPerThread; ++i) {
      q.async([&, t, i] {
        if (active.fetch_add(1) != 0) overlapped = true;
        if (next[t] != i) outOfOrder = true;  // each producer's tasks run in its order
        next[t] = i + 1;
        active.fetch_sub(1);
      });
    }
  });
  // sync runs after every task before it.
  std::vector<int> seen = q.sync([&] { return next; });
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(outOfOrder);
  for (int t = 0; t < kThreads; ++t) EXPECT_EQ(seen[t], kPerThread) << "producer " << t;
}

// The first task of each round finds the queue idle and travels with the queue's turn; the
// others go through its FIFO. Another thread's syncs compete for the turn now and then.
TEST(SerialQueue, TaskThatFindsTheQueueIdleRunsFirstAndAlone) {
  constexpr int kRounds = 300, kPerRound = 3;
  Queue q = Queue::serial("nk.test.idle-turn");
  std::vector<int> order;  // the queue is the lock
  std::atomic<int> active{0};
  std::atomic<bool> overlapped{false}, notCurrent{false}, stop{false};
  auto exclusive = [&](auto body) {
    if (active.fetch_add(1) != 0) overlapped = true;
    if (!q.isCurrent()) notCurrent = true;
    body();
    active.fetch_sub(1);
  };
  std::thread syncer([&] {
    while (!stop) {
      q.sync([&] { exclusive([] {}); });
      std::this_thread::sleep_for(100us);
    }
  });
  for (int round = 0; round < kRounds; ++round) {
    q.sync([] {});  // the round's tasks come after everything before
    for (int i = 0; i < kPerRound; ++i) {
      q.async([&, v = round * kPerRound + i] { exclusive([&] { order.push_back(v); }); });
    }
  }
  stop = true;
  syncer.join();
  std::vector<int> seen = q.sync([&] { return order; });
  EXPECT_FALSE(overlapped);
  EXPECT_FALSE(notCurrent);
  ASSERT_EQ(seen.size(), size_t{kRounds * kPerRound});
  for (int i = 0; i < kRounds * kPerRound; ++i) ASSERT_EQ(seen[i], i);
}

TEST(Queue, AsyncBatchRunsEachTaskOnceInSubmissionOrder) {
  constexpr int kTasks = 100;  // several blocks of the queues' FIFOs
  // Serial: in order, after what came before, before what comes after.
  Queue serial = Queue::serial("nk.test.batch-serial");
  std::vector<int> order;  // the queue is the lock
  serial.async([&] { order.push_back(-1); });
  std::vector<Task> batch;
  for (int i = 0; i < kTasks; ++i) batch.emplace_back([&, i] { order.push_back(i); });
  serial.asyncBatch(batch.data(), batch.size());
  for (const Task& t : batch) EXPECT_FALSE(t);
  serial.async([&] { order.push_back(kTasks); });
  std::vector<int> seen = serial.sync([&] { return order; });
  ASSERT_EQ(seen.size(), size_t{kTasks + 2});
  for (int i = 0; i < kTasks + 2; ++i) ASSERT_EQ(seen[i], i - 1);
  // Concurrent and global: each task once.
  for (Queue q : {Queue::concurrent("nk.test.batch-concurrent"), Queue::global()}) {
    auto runs = std::make_shared<std::vector<std::atomic<int>>>(kTasks);
    Semaphore done(0);
    std::vector<Task> tasks;
    for (int i = 0; i < kTasks; ++i) {
      tasks.emplace_back([runs, &done, i] {
        (*runs)[i].fetch_add(1);
        done.signal();
      });
    }
    q.asyncBatch(tasks.data(), tasks.size());
    for (int i = 0; i < kTasks; ++i) ASSERT_TRUE(done.waitFor(kPatience));
    for (int i = 0; i < kTasks; ++i) EXPECT_EQ((*runs)[i].load(), 1) << "task " << i;
  }
}

TEST(Queue, OutlivesItsLastHandleUntilItsWorkIsDone) {
  for (bool serial : {true, false}) {
    Semaphore done;
    auto counter = std::make_shared<std::atomic<int>>(0);
    {
      Queue q = serial ? Queue::serial("nk.test.orphan") : Queue::concurrent("nk.test.orphan");
      q.async([] { std::this_thread::sleep_for(20ms); });
      for (int i = 0; i < 100; ++i) q.async([counter] { counter->fetch_add(1); });
      q.barrierAsync([&done] { done.signal(); });
    }
    ASSERT_TRUE(done.waitFor(kPatience));
    EXPECT_EQ(counter->load(), 100);
  }
}

TEST(SerialQueue, SyncWaitsForEarlierTasksAndPropagatesResults) {
  Queue q = Queue::serial("nk.test.sync");
  std::atomic<bool> slowDone{false};
  q.async([&] {
    std::this_thread::sleep_for(30ms);
    slowDone = true;
  });
  // From another thread too, so that sync has to wait its turn rather than take an idle
  // queue.
  std::thread other([&] { EXPECT_TRUE(q.sync([&] { return slowDone.load(); })); });
  EXPECT_TRUE(q.sync([&] { return slowDone.load(); }));
  other.join();

  int value = 0;
  int& ref = q.sync([&]() -> int& { return value; });
  EXPECT_EQ(&ref, &value);
  EXPECT_THROW(q.sync([] { throw std::runtime_error("from the block"); }), std::runtime_error);
  // The queue is released after a throwing block.
  EXPECT_EQ(q.sync([] { return 7; }), 7);
}

TEST(ConcurrentQueue, BarrierRunsAloneBetweenEarlierAndLaterTasks) {
  constexpr int kBefore = 16, kAfter = 16;
  Queue q = Queue::concurrent("nk.test.barrier");
  std::atomic<int> active{0}, finishedBefore{0}, startedAfter{0};
  std::atomic<bool> barrierDone{false}, barrierSawOthers{false}, afterTooEarly{false};
  Semaphore allDone;

  for (int i = 0; i < kBefore; ++i) {
    q.async([&] {
      active.fetch_add(1);
      std::this_thread::sleep_for(2ms);
      active.fetch_sub(1);
      finishedBefore.fetch_add(1);
    });
  }
  q.barrierAsync([&] {
    if (active.load() != 0 || finishedBefore.load() != kBefore || startedAfter.load() != 0) {
      barrierSawOthers = true;
    }
    std::this_thread::sleep_for(5ms);
    barrierDone = true;
  });
  for (int i = 0; i < kAfter; ++i) {
    q.async([&] {
      startedAfter.fetch_add(1);
      if (!barrierDone.load()) afterTooEarly = true;
      allDone.signal();
    });
  }
  for (int i = 0; i < kAfter; ++i) ASSERT_TRUE(allDone.waitFor(kPatience));
  EXPECT_FALSE(barrierSawOthers);
  EXPECT_FALSE(afterTooEarly);

  // barrierSync: returns after the earlier tasks, running alone.
  for (int i = 0; i < kBefore; ++i) {
    q.async([&] {
      active.fetch_add(1);
      std::this_thread::sleep_for(1ms);
      active.fetch_sub(1);
    });
  }
  EXPECT_EQ(q.barrierSync([&] { return active.load(); }), 0);
}

TEST(ConcurrentQueue, BarriersFromManyProducersRunAlone) {
  constexpr int kThreads = 4, kPerThread = 3000;
  Queue q = Queue::concurrent("nk.test.barrier-producers");
  std::atomic<int> active{0}, tasks{0}, barriers{0};
  std::atomic<bool> barrierSawOthers{false}, overlappedBarrier{false};
  onThreads(kThreads, [&](int) {
    for (int i = 1; i <= kPerThread; ++i) {
      if (i % 50 == 0) {
        q.barrierAsync([&] {
          if (active.fetch_add(1000) != 0) barrierSawOthers = true;
          active.fetch_sub(1000);
          barriers.fetch_add(1);
        });
      } else {
        q.async([&] {
          if (active.fetch_add(1) >= 1000) overlappedBarrier = true;
          active.fetch_sub(1);
          tasks.fetch_add(1);
        });
      }
    }
  });
  q.barrierSync([] {});
  EXPECT_FALSE(barrierSawOthers);
  EXPECT_FALSE(overlappedBarrier);
  EXPECT_EQ(barriers.load(), kThreads * (kPerThread / 50));
  EXPECT_EQ(tasks.load() + barriers.load(), kThreads * kPerThread);
}

TEST(ConcurrentQueue, RunsTasksAtTheSameTime) {
  // Two tasks that each wait for the other to start can only both finish concurrently.
  for (Queue q : {Queue::concurrent("nk.test.concurrent"), Queue::global()}) {
    Semaphore aStarted, bStarted, done;
    std::atomic<int> met{0};
    q.async([&] {
      aStarted.signal();
      if (bStarted.waitFor(kPatience)) met.fetch_add(1);
      done.signal();
    });
    q.async([&] {
      bStarted.signal();
      if (aStarted.waitFor(kPatience)) met.fetch_add(1);
      done.signal();
    });
    ASSERT_TRUE(done.waitFor(kPatience));
    ASSERT_TRUE(done.waitFor(kPatience));
    EXPECT_EQ(met.load(), 2) << q.label();
  }
}

TEST(ConcurrentQueue, SyncFromOwnTaskRunsAtOnce) {
  // A barrier queued behind the outer task must not stop the inner sync.
  Queue q = Queue::concurrent("nk.test.reentrant");
  Semaphore inside, barrierQueued, done;
  std::atomic<bool> innerRan{false};
  q.async([&] {
    inside.signal();
    EXPECT_TRUE(barrierQueued.waitFor(kPatience));
    std::this_thread::sleep_for(10ms);  // let the drainer reach the barrier
    q.sync([&] { innerRan = q.isCurrent(); });
    done.signal();
  });
  ASSERT_TRUE(inside.waitFor(kPatience));
  q.barrierAsync([] {});
  barrierQueued.signal();
  ASSERT_TRUE(done.waitFor(kPatience));
  EXPECT_TRUE(innerRan);
}

TEST(GlobalQueue, LosesNoWorkAndGrowsWhenWorkersBlock) {
  constexpr int kThreads = 6, kPerThread = 20000;
  std::atomic<int> ran{0};
  Semaphore done;
  onThreads(kThreads, [&](int t) {
    for (int i = 0; i < kPerThread; ++i) {
      Queue::global(static_cast<QueuePriority>(t % 4)).async([&] {
        if (ran.fetch_add(1) + 1 == kThreads * kPerThread) done.signal();
      });
    }
  });
  ASSERT_TRUE(done.waitFor(kPatience));
  EXPECT_EQ(ran.load(), kThreads * kPerThread);

  // More blocked tasks than processors, all waiting for a task submitted after them.
  constexpr int kBlocked = 12;
  Semaphore release, finished;
  for (int i = 0; i < kBlocked; ++i) {
    Queue::global().async([&] {
      EXPECT_TRUE(release.waitFor(kPatience));
      finished.signal();
    });
  }
  Queue::global().async([&] {
    for (int i = 0; i < kBlocked; ++i) release.signal();
  });
  for (int i = 0; i < kBlocked; ++i) ASSERT_TRUE(finished.waitFor(kPatience));
}

TEST(Queue, KnowsWhichQueueIsRunning) {
  Queue serial = Queue::serial("nk.test.current");
  Queue concurrent = Queue::concurrent("nk.test.current-concurrent");
  EXPECT_EQ(Queue::current(), Queue::main());  // the test runs on the main thread
  EXPECT_FALSE(serial.isCurrent());

  serial.sync([&] {
    EXPECT_EQ(Queue::current(), serial);
    EXPECT_TRUE(serial.isCurrent());
    // Nested sync: the innermost queue is current, and the outer one again afterwards.
    concurrent.sync([&] { EXPECT_EQ(Queue::current(), concurrent); });
    EXPECT_EQ(Queue::current(), serial);
  });
  Semaphore checked;
  std::atomic<bool> ok{false};
  Queue::global(QueuePriority::kLow).async([&] {
    ok = Queue::current() == Queue::global(QueuePriority::kLow) &&
         Queue::current().label() == "nk.global.low";
    checked.signal();
  });
  ASSERT_TRUE(checked.waitFor(kPatience));
  EXPECT_TRUE(ok);

  std::thread([&] { EXPECT_EQ(Queue::current(), Queue::global()); }).join();
}

TEST(Queue, AsyncAfterWaitsForTheDelay) {
  Queue q = Queue::serial("nk.test.after");
  Semaphore ran;
  auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration elapsed{};
  q.asyncAfter(50ms, [&] {
    elapsed = std::chrono::steady_clock::now() - start;
    ran.signal();
  });
  ASSERT_TRUE(ran.waitFor(kPatience));
  EXPECT_GE(elapsed, 50ms);
}

TEST(QueueDeathTest, MisuseTerminatesWithAMessage) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // sync onto the serial queue that is running the caller.
  EXPECT_DEATH(
      {
        Queue q = Queue::serial("nk.test.self-sync");
        q.sync([&] { q.sync([] {}); });
      },
      "sync onto serial queue \"nk.test.self-sync\" from a task running on it would deadlock");
  // The same through another queue: A -> B -> A.
  EXPECT_DEATH(
      {
        Queue a = Queue::serial("nk.test.a");
        Queue b = Queue::serial("nk.test.b");
        Semaphore never;
        a.async([&] { b.sync([&] { a.sync([] {}); }); });
        (void)never.waitFor(kPatience);
      },
      "serial queue \"nk.test.a\" from a task running on it would deadlock");
  // barrierSync from a concurrent queue's own task.
  EXPECT_DEATH(
      {
        Queue q = Queue::concurrent("nk.test.self-barrier");
        q.sync([&] { q.barrierSync([] {}); });
      },
      "barrierSync onto concurrent queue \"nk.test.self-barrier\"");
  // An exception escaping a pool task names the queue.
  EXPECT_DEATH(
      {
        Queue q = Queue::serial("nk.test.thrower");
        Semaphore never;
        q.async([] { throw std::runtime_error("boom"); });
        (void)never.waitFor(kPatience);
      },
      "queue \"nk.test.thrower\" threw .*boom");
}

}  // namespace
}  // namespace nk
