// Tests for OperationQueue: the concurrency cap, waiting for everything, holding back at
// zero, and naming.
#include "nk/dispatch/operation_queue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace nk {
namespace {

using namespace std::chrono_literals;

TEST(OperationQueue, RespectsTheConcurrencyCap) {
  for (int cap : {1, 2, 3}) {
    OperationQueue queue("nk.test.ops");
    queue.setMaxConcurrentOperationCount(cap);
    std::atomic<int> active{0}, peak{0}, done{0};
    for (int i = 0; i < 30; ++i) {
      queue.addOperation([&] {
        int now = active.fetch_add(1) + 1;
        for (int p = peak.load(); now > p && !peak.compare_exchange_weak(p, now);) {
        }
        std::this_thread::sleep_for(2ms);
        active.fetch_sub(1);
        done.fetch_add(1);
      });
    }
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(done.load(), 30);
    EXPECT_EQ(queue.operationCount(), 0u);
    EXPECT_LE(peak.load(), cap);
    if (cap > 1) {
      EXPECT_GT(peak.load(), 1) << "cap " << cap << " ran serially";
    }
  }
}

TEST(OperationQueue, ZeroHoldsOperationsBackUntilRaisedThenWaitIncludesTheirChildren) {
  OperationQueue queue;
  EXPECT_EQ(queue.name().rfind("OperationQueue 0x", 0), 0u) << queue.name();
  queue.setMaxConcurrentOperationCount(0);
  std::atomic<int> ran{0};
  for (int i = 0; i < 4; ++i) queue.addOperation([&] { ran.fetch_add(1); });
  // One operation adds another late in its run: the wait below must include it.
  queue.addOperation([&] {
    std::this_thread::sleep_for(5ms);
    queue.addOperation([&] {
      std::this_thread::sleep_for(5ms);
      ran.fetch_add(1);
    });
    ran.fetch_add(1);
  });
  std::this_thread::sleep_for(20ms);
  EXPECT_EQ(ran.load(), 0);
  EXPECT_EQ(queue.operationCount(), 5u);
  queue.setMaxConcurrentOperationCount(-1);
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(ran.load(), 6);
}

}  // namespace
}  // namespace nk
