// Tests of the block pool: a page hands out its blocks in address order and
// starts again once they are all back, whatever order they were freed in; blocks
// freed on other threads, or after their thread ended, come back to their page;
// and the value objects give back blocks of the size they took (a wrong size
// would hand a short block to a longer object). Most tests run on a thread of
// their own, whose pages start empty when the test runs in a process of its own.
#include "nk/foundation/block_pool.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/string.hpp"

namespace nk {
namespace {

template <class F>
void onFreshThread(F body) {
  std::thread(body).join();
}

// Allocates `count` blocks and fills each with a byte of its own.
std::vector<void*> allocateAll(size_t count, size_t bytes) {
  std::vector<void*> blocks(count);
  for (size_t i = 0; i < count; ++i) {
    blocks[i] = block_pool::allocate(bytes);
    std::memset(blocks[i], static_cast<int>(i % 251), bytes);
  }
  return blocks;
}

// Whether every block still holds its own byte: no two were handed out at once.
void expectIntact(const std::vector<void*>& blocks, size_t bytes) {
  for (size_t i = 0; i < blocks.size(); ++i) {
    const auto* b = static_cast<const unsigned char*>(blocks[i]);
    ASSERT_TRUE(std::all_of(b, b + bytes, [&](unsigned char c) { return c == i % 251; })) << i;
  }
}

void freeAll(const std::vector<void*>& blocks, size_t bytes) {
  for (void* b : blocks) block_pool::deallocate(b, bytes);
}

// Steps from one block to a block that does not follow it directly.
size_t jumps(const std::vector<void*>& blocks, size_t bytes) {
  size_t n = 0;
  for (size_t i = 1; i < blocks.size(); ++i) {
    n += static_cast<char*>(blocks[i]) != static_cast<char*>(blocks[i - 1]) + bytes;
  }
  return n;
}

TEST(BlockPool, HandsOutBlocksInAddressOrder) {
  if (!block_pool::pooling())
    GTEST_SKIP() << "blocks go straight to the heap under AddressSanitizer";
  onFreshThread([] {
    // freed in any order, a page starts again from its first block
    const auto first = allocateAll(20'000, 24);  // about eight pages
    EXPECT_LT(jumps(first, 24), 10u);
    auto shuffled = first;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
    freeAll(shuffled, 24);
    const auto again = allocateAll(first.size(), 17);  // same 8-byte class
    EXPECT_LT(jumps(again, 24), 10u);
    expectIntact(again, 17);
    freeAll(again, 24);
    // a block freed while others are out is the next one handed out
    const auto blocks = allocateAll(3, 64);
    block_pool::deallocate(blocks[1], 64);
    EXPECT_EQ(block_pool::allocate(64), blocks[1]);
    freeAll(blocks, 64);
    // other classes do not take it
    void* a = block_pool::allocate(64);
    block_pool::deallocate(a, 64);
    void* small = block_pool::allocate(24);
    void* large = block_pool::allocate(72);
    EXPECT_NE(small, a);
    EXPECT_NE(large, a);
    block_pool::deallocate(small, 24);
    block_pool::deallocate(large, 72);
    // blocks above the largest class are plain heap blocks, freed at once
    const size_t cached = block_pool::cachedBytes();
    void* big = block_pool::allocate(block_pool::kLargestBlock + 1);
    std::memset(big, 0xAB, block_pool::kLargestBlock + 1);
    block_pool::deallocate(big, block_pool::kLargestBlock + 1);
    EXPECT_EQ(block_pool::cachedBytes(), cached);
  });
}

TEST(BlockPool, KeepsABoundedCache) {
  if (!block_pool::pooling())
    GTEST_SKIP() << "blocks go straight to the heap under AddressSanitizer";
  onFreshThread([] {
    // a burst of frees is kept only up to the bound, and trim gives it back
    const auto blocks = allocateAll(140'000, 512);  // 70 MB
    freeAll(blocks, 512);
    EXPECT_GE(block_pool::cachedBytes(), size_t{32} << 20);
    EXPECT_LE(block_pool::cachedBytes(), size_t{64} << 20);
    block_pool::trim();
    EXPECT_EQ(block_pool::cachedBytes(), 0u);
    // The pages given back are used again.
    const auto again = allocateAll(20'000, 512);
    expectIntact(again, 512);
    freeAll(again, 512);
    // a little is kept through a trim
    block_pool::trim();
    block_pool::deallocate(block_pool::allocate(100), 100);
    const size_t cached = block_pool::cachedBytes();
    EXPECT_GT(cached, 0u);
    block_pool::trim();
    EXPECT_EQ(block_pool::cachedBytes(), cached);
  });
}

TEST(BlockPool, BlocksFreedElsewhereComeBackToTheirPage) {
  if (!block_pool::pooling())
    GTEST_SKIP() << "blocks go straight to the heap under AddressSanitizer";
  onFreshThread([] {
    constexpr size_t kCount = 50'000;  // about 37 pages
    constexpr long kPages = kCount * 48 / (64 << 10);
    // Pages that came back empty once the thread runs out of room in a page and
    // takes the remote frees in.
    auto takeIn = [] {
      const auto before = static_cast<long>(block_pool::cachedBytes());
      const auto page = allocateAll(1400, 48);  // more than a page
      const auto after = static_cast<long>(block_pool::cachedBytes());
      freeAll(page, 48);
      return (after - before) >> 16;
    };
    auto blocks = allocateAll(kCount, 48);
    std::thread([&] { freeAll(blocks, 48); }).join();
    EXPECT_GE(takeIn(), kPages - 3);

    blocks = allocateAll(kCount, 48);
    std::vector<std::thread> freers;
    for (size_t t = 0; t < 4; ++t) {
      freers.emplace_back([&, t] {
        for (size_t i = t; i < kCount; i += 4) block_pool::deallocate(blocks[i], 48);
      });
    }
    for (auto& f : freers) f.join();
    EXPECT_GE(takeIn(), kPages - 3);
  });
}

// Allocates and frees in its destructor, which runs after the pool has given up
// the heap of its thread.
struct AllocatesAtThreadEnd {
  ~AllocatesAtThreadEnd() {
    const auto blocks = allocateAll(5000, 200);
    expectIntact(blocks, 200);
    freeAll(blocks, 200);
    block_pool::deallocate(kept, 32);
  }
  void* kept = nullptr;
};

TEST(BlockPool, ThreadsEndWithBlocksOut) {
  // Made on a thread that ends before they are freed, here; made by a thread after
  // its heap was given up; and the heap of an ended thread taken over by the next.
  std::vector<void*> orphans;
  std::thread([&] {
    thread_local AllocatesAtThreadEnd late;
    orphans = allocateAll(3000, 128);
    late.kept = block_pool::allocate(32);
  }).join();
  std::vector<void*> adopted;
  std::thread([&] {
    const auto blocks = allocateAll(3000, 128);
    expectIntact(orphans, 128);
    freeAll(blocks, 128);
    adopted = allocateAll(2000, 64);
  }).join();
  expectIntact(orphans, 128);
  freeAll(orphans, 128);
  const auto after = allocateAll(6000, 128);
  expectIntact(adopted, 64);
  freeAll(adopted, 64);
  expectIntact(after, 128);
  freeAll(after, 128);
}

TEST(BlockPool, BlocksPassBetweenThreadsThatComeAndGo) {
  // Rounds of threads, each making blocks of every class, freeing some itself and
  // handing the rest to the next thread of the round; threads end with blocks out
  // and the next round takes over their heaps.
  constexpr size_t kThreads = 4, kRounds = 12, kBlocks = 3000;
  auto sizeOf = [](size_t i, size_t round) {
    return 8 + (i * 37 + round) % block_pool::kLargestBlock;
  };
  std::vector<std::vector<void*>> handed(kThreads);
  for (size_t round = 0; round < kRounds; ++round) {
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t, round] {
        std::vector<void*> mine(kBlocks);
        for (size_t i = 0; i < kBlocks; ++i) {
          const size_t bytes = sizeOf(i, round);
          mine[i] = block_pool::allocate(bytes);
          std::memset(mine[i], static_cast<int>(t), bytes);
        }
        std::vector<void*>& inbox = handed[t];  // from the previous round's thread t
        size_t damaged = 0;
        for (size_t i = 0; i < inbox.size(); ++i) {
          if (!inbox[i]) continue;
          const size_t bytes = sizeOf(i, round - 1);
          const auto* b = static_cast<const unsigned char*>(inbox[i]);
          damaged += !std::all_of(b, b + bytes, [&](unsigned char c) { return c == t; });
          block_pool::deallocate(inbox[i], bytes);
        }
        EXPECT_EQ(damaged, 0u);
        for (size_t i = 0; i < kBlocks; i += 2) {
          block_pool::deallocate(mine[i], sizeOf(i, round));
          mine[i] = nullptr;
        }
        if (t % 2) block_pool::trim();
        inbox = std::move(mine);
      });
    }
    for (auto& th : threads) th.join();
  }
  for (const auto& inbox : handed) {
    for (size_t i = 0; i < inbox.size(); ++i)
      block_pool::deallocate(inbox[i], sizeOf(i, kRounds - 1));
  }
}

TEST(BlockPool, AForkedChildAllocates) {
  if (!block_pool::pooling())
    GTEST_SKIP() << "blocks go straight to the heap under AddressSanitizer";
  // Another thread takes and hands back pages while this one forks; the child then
  // needs pages too, which takes the lock the other thread may have held.
  std::atomic<bool> stop{false};
  std::thread busy([&] {
    while (!stop) {
      freeAll(allocateAll(20'000, 256), 256);
      block_pool::trim();
    }
  });
  for (int i = 0; i < 20; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      const auto blocks = allocateAll(50'000, 256);
      freeAll(blocks, 256);
      _exit(0);
    }
    ASSERT_GT(child, 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  stop = true;
  busy.join();
}

TEST(BlockPool, ObjectsReturnTheSizeTheyTook) {
  if (!block_pool::pooling())
    GTEST_SKIP() << "blocks go straight to the heap under AddressSanitizer";
  onFreshThread([] {
    for (size_t length : {0, 1, 7, 8, 9, 100, 300, 470}) {
      SCOPED_TRACE(length);
      {  // a compact string and its inline units
        const std::string text(length, 'a');
        const void* freed = String::fromLatin1(text).get();
        EXPECT_EQ(String::fromLatin1(text).get(), freed);
        const void* freedAgain = String::fromLatin1(text).get();
        EXPECT_NE(String::fromLatin1(text + std::string(9, 'b')).get(), freedAgain);
      }
      if (sizeof(String) + 2 * length <= block_pool::kLargestBlock) {  // two bytes per unit
        const std::u16string units(length, u'\x263A');
        const void* freed = String::withCharacters(units).get();
        EXPECT_EQ(String::withCharacters(units).get(), freed);
      }
    }
    // numbers, arrays and dictionaries, mutable or not
    const void* n = Number::withDouble(0.5).get();
    EXPECT_EQ(Number::withLongLong(7).get(), n);
    const void* a = MutableArray::make({NK_STR("x")}).get();
    EXPECT_EQ(MutableArray::make().get(), a);
    const void* d = Dictionary::make({{NK_STR("k"), NK_STR("v")}}).get();
    EXPECT_EQ(Dictionary::make().get(), d);
  });
}

TEST(BlockPool, ObjectsMayDieOnAnotherThread) {
  // Made here, released there and on that thread's exit; then used again here.
  std::vector<Id> made;
  for (int i = 0; i < 1000; ++i) {
    made.push_back(Array::make(
        {String::fromLatin1(std::string(i % 50, 'z')), Number::withInt(i), Dictionary::make()}));
  }
  std::thread([taken = std::move(made)]() mutable { taken.clear(); }).join();
  auto again = Array::make({String::fromLatin1("after"), Number::withInt(1)});
  EXPECT_EQ(again->description()->utf8(), "(\n    after,\n    1\n)");
}

}  // namespace
}  // namespace nk
