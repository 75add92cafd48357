// Tests for run loops: sources fire on the thread that owns the loop and only while it
// runs it; runUntil, stop and ownership.
#include "nk/dispatch/run_loop.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "nk/dispatch/main_thread.hpp"
#include "nk/dispatch/queue.hpp"
#include "nk/dispatch/semaphore.hpp"
#include "nk/dispatch/thread_pool_internal.hpp"

namespace nk {
namespace {

using namespace std::chrono_literals;

constexpr auto kPatience = 20s;

TEST(RunLoop, EachThreadHasItsOwnLoop) {
  EXPECT_EQ(RunLoop::current(), RunLoop::main());
  EXPECT_TRUE(RunLoop::main().isOwnedByCurrentThread());
  std::thread([] {
    RunLoop mine = RunLoop::current();
    EXPECT_EQ(mine, RunLoop::current());
    EXPECT_FALSE(mine == RunLoop::main());
    EXPECT_TRUE(mine.isOwnedByCurrentThread());
    EXPECT_FALSE(RunLoop::main().isOwnedByCurrentThread());
  }).join();
}

TEST(RunLoop, SourcesFireOnTheOwningThreadWhileItRuns) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  std::atomic<std::thread::id> readOn{}, timerOn{};
  std::atomic<int> timerCalls{0};
  Semaphore ready, written;
  std::atomic<bool> firedWhileIdle{false};

  std::thread owner([&] {
    RunLoop loop = RunLoop::current();
    RunLoopSource watch = loop.watchReadable(fds[0], [&] {
      char c;
      EXPECT_EQ(read(fds[0], &c, 1), 1);
      readOn = std::this_thread::get_id();
    });
    RunLoopSource timer = loop.addTimer(5ms, 0ns, [&] {
      timerOn = std::this_thread::get_id();
      timerCalls.fetch_add(1);
    });
    ready.signal();
    // Not running the loop: neither source may fire, though both are due.
    EXPECT_TRUE(written.waitFor(kPatience));
    std::this_thread::sleep_for(20ms);
    firedWhileIdle = readOn.load() != std::thread::id() || timerCalls.load() != 0;
    EXPECT_TRUE(loop.runUntil(
        [&] { return readOn.load() != std::thread::id() && timerCalls.load() == 1; }, kPatience));
    EXPECT_FALSE(timer.isActive());  // one-shot
    EXPECT_TRUE(watch.isActive());
  });
  ASSERT_TRUE(ready.waitFor(kPatience));
  ASSERT_EQ(write(fds[1], "x", 1), 1);
  written.signal();
  std::thread::id ownerId = owner.get_id();
  owner.join();

  EXPECT_FALSE(firedWhileIdle);
  EXPECT_EQ(readOn.load(), ownerId);
  EXPECT_EQ(timerOn.load(), ownerId);
  close(fds[0]);
  close(fds[1]);
}

TEST(RunLoop, RepeatingTimerRepeatsUntilCancelled) {
  RunLoop loop = RunLoop::main();
  int calls = 0;
  RunLoopSource timer = loop.addTimer(1ms, 2ms, [&] { ++calls; });
  EXPECT_TRUE(loop.runUntil([&] { return calls >= 3; }, kPatience));
  timer.cancel();
  int atCancel = calls;
  EXPECT_FALSE(loop.runUntil([] { return false; }, 20ms));  // times out
  EXPECT_EQ(calls, atCancel);
  EXPECT_FALSE(timer.isActive());
}

TEST(RunLoop, StopEndsRunFromAnotherThread) {
  RunLoop loop = RunLoop::main();
  loop.stop();  // not running: no effect on the next run
  Semaphore running;
  std::atomic<bool> stopped{false};
  std::thread stopper([&] {
    EXPECT_TRUE(running.waitFor(kPatience));
    std::this_thread::sleep_for(10ms);
    stopped = true;
    loop.stop();
  });
  Queue::main().async([&] { running.signal(); });  // runs once run() has started
  loop.run();
  EXPECT_TRUE(stopped);
  stopper.join();

  // A callback can stop the loop running it, and runUntil reports the predicate.
  RunLoopSource timer = loop.addTimer(1ms, 0ns, [&] { loop.stop(); });
  EXPECT_FALSE(loop.runUntil([] { return false; }, kPatience));

  // A stop that comes with what the predicate waits for ends that run only.
  bool done = false;
  Queue::main().async([&] {
    done = true;
    loop.stop();
  });
  EXPECT_TRUE(loop.runUntil([&] { return done; }, kPatience));
  bool later = false;
  RunLoopSource laterTimer = loop.addTimer(5ms, 0ns, [&] { later = true; });
  EXPECT_TRUE(loop.runUntil([&] { return later; }, kPatience));
}

TEST(RunLoop, PoolThreadsRunningLoopsLeaveWorkAThread) {
  // More pool tasks than the pool has threads each run a loop until a task queued after
  // them has run: that task still needs a thread.
  const unsigned loops = 2 * dispatch_internal::ThreadPool::instance().targetThreads() + 2;
  std::atomic<bool> workRan{false};
  std::atomic<unsigned> sawWork{0};
  Semaphore finished;
  for (unsigned i = 0; i < loops; ++i) {
    Queue::global().async([&] {
      RunLoop loop = RunLoop::current();
      RunLoopSource tick = loop.addTimer(5ms, 5ms, [] {});  // to look at the flag again
      if (loop.runUntil([&] { return workRan.load(); }, 10s)) sawWork.fetch_add(1);
      finished.signal();
    });
  }
  Queue::global().async([&] { workRan = true; });
  for (unsigned i = 0; i < loops; ++i) ASSERT_TRUE(finished.waitFor(kPatience + kPatience));
  EXPECT_EQ(sawWork.load(), loops);
}

TEST(RunLoopDeathTest, OnlyTheOwnerRunsTheLoop) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(std::thread([] { RunLoop::main().runOnce(false); }).join(),
               "RunLoop::runOnce called on a thread that does not own the loop");
}

}  // namespace
}  // namespace nk
