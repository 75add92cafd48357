// Tests for the lock-free FIFO under every queue: order, block boundaries, ownership of
// values left behind, and exactly-once delivery under contention.
#include "nk/dispatch/segmented_queue_internal.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace nk::dispatch_internal {
namespace {

TEST(SegmentedQueue, FifoAcrossBlocks) {
  SegmentedQueue<int> q;
  int out = -1;
  EXPECT_FALSE(q.pop(out));
  EXPECT_TRUE(q.empty());

  // Many blocks' worth in one go, then drained.
  for (int i = 0; i < 1000; ++i) q.push(int(i));
  EXPECT_FALSE(q.empty());
  for (int i = 0; i < 1000; ++i) {
    ASSERT_TRUE(q.pop(out));
    ASSERT_EQ(out, i);
  }
  EXPECT_FALSE(q.pop(out));
  EXPECT_TRUE(q.empty());

  // Interleaved, so the head crosses block boundaries while the tail is close behind.
  int next = 0, expected = 0;
  for (int round = 0; round < 200; ++round) {
    for (int k = 0; k < 3; ++k) q.push(int(next++));
    for (int k = 0; k < 2; ++k) {
      ASSERT_TRUE(q.pop(out));
      ASSERT_EQ(out, expected++);
    }
  }
  while (q.pop(out)) ASSERT_EQ(out, expected++);
  EXPECT_EQ(expected, next);

  // Runs of values pushed together, of every length up to more than a block, land in
  // order wherever in a block they start.
  for (int length = 1; length <= 70; ++length) {
    q.pushEach(length, [&](size_t i) noexcept { return next + int(i); });
    next += length;
    if (length % 3 == 0) {
      ASSERT_TRUE(q.pop(out));
      ASSERT_EQ(out, expected++);
    }
  }
  while (q.pop(out)) ASSERT_EQ(out, expected++);
  EXPECT_EQ(expected, next);
}

TEST(SegmentedQueue, DestroysValuesLeftBehind) {
  auto value = std::make_shared<int>(1);
  {
    SegmentedQueue<std::shared_ptr<int>> q;
    for (int i = 0; i < 100; ++i) q.push(std::shared_ptr<int>(value));
    std::shared_ptr<int> out;
    for (int i = 0; i < 40; ++i) ASSERT_TRUE(q.pop(out));
    out.reset();
    EXPECT_EQ(value.use_count(), 61);
  }
  EXPECT_EQ(value.use_count(), 1);
}

TEST(SegmentedQueue, ManyProducersManyConsumersDeliverEachValueOnce) {
  constexpr int kProducers = 4, kConsumers = 3, kPerProducer = 50000;
  SegmentedQueue<uint64_t> q;
  std::vector<std::atomic<int>> seen(kProducers * kPerProducer);
  std::atomic<int> producersLeft{kProducers};
  std::atomic<bool> orderBroken{false};

  std::vector<std::thread> threads;
  for (int p = 0; p < kProducers; ++p) {
    threads.emplace_back([&, p] {
      // Odd producers push runs of 1 to 40 values at once.
      for (uint64_t i = 0; i < kPerProducer;) {
        uint64_t run = p % 2 ? std::min<uint64_t>(i % 40 + 1, kPerProducer - i) : 1;
        q.pushEach(run, [&](size_t k) noexcept { return uint64_t(p) << 32 | (i + k); });
        i += run;
      }
      producersLeft.fetch_sub(1);
    });
  }
  for (int c = 0; c < kConsumers; ++c) {
    threads.emplace_back([&] {
      std::vector<int64_t> last(kProducers, -1);  // each producer's values arrive in order
      uint64_t v;
      for (;;) {
        if (q.pop(v)) {
          int p = int(v >> 32), i = int(v & 0xffffffff);
          if (i <= last[p]) orderBroken = true;
          last[p] = i;
          seen[p * kPerProducer + i].fetch_add(1);
        } else if (producersLeft.load() == 0 && q.empty()) {
          return;
        }
      }
    });
  }
  for (auto& t : threads) t.join();

  EXPECT_FALSE(orderBroken);
  int wrong = 0;
  for (auto& s : seen) wrong += s.load() != 1;
  EXPECT_EQ(wrong, 0) << "values lost or delivered twice";
}

}  // namespace
}  // namespace nk::dispatch_internal
