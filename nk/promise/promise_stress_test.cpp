// A stress test for ThreadSanitizer and for lost or doubled handlers: threads
// register handlers on promises while other threads settle the same promises.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "nk/foundation/number.hpp"
#include "nk/promise/promise.hpp"
#include "nk/promise/promise_test_support_internal.hpp"

namespace nk {
namespace {

using namespace promise_test;

TEST(PromiseStress, RegisteringWhileSettlingLosesAndDoublesNothing) {
  LogCapture quiet;  // the losing settler's warnings
  constexpr int kPromises = 64;
  constexpr int kRegistrars = 4;
  constexpr int kPerRegistrar = 16;
  constexpr int kRounds = 4;

  for (int round = 0; round < kRounds; ++round) {
    std::vector<Deferred> promises;
    for (int i = 0; i < kPromises; ++i) promises.push_back(deferred());
    // One counter per handler; each must end at exactly 1.
    auto counts = std::make_unique<std::atomic<int>[]>(kPromises * kRegistrars * kPerRegistrar);
    std::vector<std::vector<Ref<PRMPromise>>> nexts(kRegistrars);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    auto serial = Queue::serial("prm.test.stress");

    for (int r = 0; r < kRegistrars; ++r) {
      threads.emplace_back([&, r] {
        while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
        for (int k = 0; k < kPerRegistrar; ++k) {
          for (int i = 0; i < kPromises; ++i) {
            int slot = (i * kRegistrars + r) * kPerRegistrar + k;
            Queue q = (k % 2) ? serial : Queue::global();
            nexts[r].push_back(promises[i].promise->thenOn(q, [&counts, slot](Ref<Number> n) {
              counts[slot].fetch_add(1, std::memory_order_relaxed);
              return n;
            }));
          }
        }
      });
    }
    // Two settlers race on every promise: exactly one value wins.
    for (int s = 0; s < 2; ++s) {
      threads.emplace_back([&, s] {
        while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
        for (int i = 0; i < kPromises; ++i) {
          int index = s ? kPromises - 1 - i : i;
          (*promises[index].resolve)(Number::withInt(index));
        }
      });
    }
    go.store(true, std::memory_order_release);
    for (auto& t : threads) t.join();

    for (auto& list : nexts) {
      for (auto& next : list) {
        for (int spin = 0; spin < 2000 && next->pending(); ++spin) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ASSERT_FALSE(next->pending());
      }
    }
    for (int i = 0; i < kPromises * kRegistrars * kPerRegistrar; ++i) {
      ASSERT_EQ(counts[i].load(), 1) << "handler " << i << " in round " << round;
    }
    // Every next promise carries its own promise's value.
    for (int r = 0; r < kRegistrars; ++r) {
      for (size_t j = 0; j < nexts[r].size(); ++j) {
        int i = static_cast<int>(j % kPromises);
        ASSERT_TRUE(isEqual(nexts[r][j]->value(), Number::withInt(i)));
      }
    }
  }
}

TEST(PromiseStress, ConcurrentAdoptionChains) {
  // Links adopt each other from many threads; the tail settling settles them all.
  constexpr int kLinks = 200;
  std::vector<Deferred> links;
  for (int i = 0; i < kLinks; ++i) links.push_back(deferred());
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = t; i < kLinks - 1; i += 4) (*links[i].resolve)(links[i + 1].promise);
    });
  }
  Ref<String> end = String::fromUTF8("end");
  threads.emplace_back([&] { (*links[kLinks - 1].resolve)(end); });
  for (auto& t : threads) t.join();
  for (auto& link : links) {
    ASSERT_TRUE(link.promise->fulfilled());
    ASSERT_EQ(link.promise->value(), end);
  }
}

TEST(PromiseStress, ReadersKeepOverwrittenContentAlive) {
  // The slot is read without the lock; content that a second settlement replaces must
  // stay alive for readers that loaded it just before (use after free otherwise).
  auto d = deferred();
  constexpr int kWrites = 50000;
  std::atomic<bool> stop{false};
  std::atomic<bool> odd{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t) {
    readers.emplace_back([&] {
      while (!stop.load(std::memory_order_acquire)) {
        Id r = PRMGetResult(d.promise.get());
        if (r && !r->isKindOfClass(Number::staticClass())) odd.store(true);
      }
    });
  }
  for (int i = 0; i < kWrites; ++i) PRMResolve(d.promise.get(), Number::withInt(i));
  stop.store(true, std::memory_order_release);
  for (auto& t : readers) t.join();
  EXPECT_FALSE(odd.load());
  EXPECT_TRUE(isEqual(d.promise->value(), Number::withInt(kWrites - 1)));
  // The kept contents are not waiting handlers.
  auto inner = deferred();
  PRMHandlerList none = PRMSetResult(d.promise.get(), inner.promise);
  EXPECT_EQ(none.size(), 0u);
  EXPECT_TRUE(d.promise->pending());
  EXPECT_EQ(d.promise->description()->utf8(), "Promise: 0 pending handlers");
}

TEST(PromiseStress, DescriptionCountsNoEntryBeingFreed) {
  // description() walks the waiting list while the settler runs the entries, which
  // free themselves as they go: the sanitizers see a use after free unless the
  // settler waits for the walk. Adopters' entries are freed on the settling thread.
  constexpr int kAdopters = 10000;
  for (int round = 0; round < 10; ++round) {
    auto d = deferred();
    std::vector<Deferred> adopters(kAdopters);
    for (auto& a : adopters) {
      a = deferred();
      PRMResolve(a.promise.get(), d.promise);
    }
    std::atomic<bool> reading{false};
    std::atomic<bool> settled{false};
    std::thread reader([&] {
      while (!settled.load(std::memory_order_acquire)) {
        std::string text = d.promise->description()->utf8();
        ASSERT_TRUE(text == "Promise: 10000 pending handlers" || text == "Promise: fulfilled: 1")
            << text;
        reading.store(true, std::memory_order_release);
      }
    });
    while (!reading.load(std::memory_order_acquire)) std::this_thread::yield();
    (*d.resolve)(Number::withInt(1));
    settled.store(true, std::memory_order_release);
    reader.join();
    ASSERT_TRUE(isEqual(adopters.back().promise->value(), Number::withInt(1)));
  }
}

}  // namespace
}  // namespace nk
