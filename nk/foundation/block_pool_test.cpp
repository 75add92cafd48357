// Tests of the per-thread block pool: blocks come back by size class in the
// order they were freed, and the value objects give back blocks of the size they
// took (a wrong size would hand a short block to a longer object). Each test runs
// on a thread of its own, whose lists start empty.
#include "nk/foundation/block_pool.hpp"

#include <gtest/gtest.h>

#include <cstring>
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

TEST(BlockPool, ReusesBlocksByClass) {
  if (!block_pool::pooling())
    GTEST_SKIP() << "blocks go straight to the heap under AddressSanitizer";
  onFreshThread([] {
    {  // blocks of a class come back in the order they were freed
      void* a = block_pool::allocate(40);
      void* b = block_pool::allocate(40);
      block_pool::deallocate(a, 40);
      block_pool::deallocate(b, 40);
      EXPECT_EQ(block_pool::allocate(36), a);  // same 8-byte class
      EXPECT_EQ(block_pool::allocate(33), b);
      block_pool::deallocate(b, 40);
      block_pool::deallocate(a, 40);
      EXPECT_EQ(block_pool::allocate(40), b);
      EXPECT_EQ(block_pool::allocate(40), a);
      EXPECT_EQ(block_pool::cachedBytes(), 0u);
    }
    {  // other classes do not take it
      void* a = block_pool::allocate(64);
      block_pool::deallocate(a, 64);
      void* small = block_pool::allocate(24);
      void* large = block_pool::allocate(72);
      EXPECT_NE(small, a);
      EXPECT_NE(large, a);
      block_pool::deallocate(small, 24);
      block_pool::deallocate(large, 72);
      block_pool::deallocate(block_pool::allocate(64), 64);
    }
    {  // blocks above the largest class are plain heap blocks, freed at once
      const size_t cached = block_pool::cachedBytes();
      void* big = block_pool::allocate(block_pool::kLargestBlock + 1);
      std::memset(big, 0xAB, block_pool::kLargestBlock + 1);
      block_pool::deallocate(big, block_pool::kLargestBlock + 1);
      EXPECT_EQ(block_pool::cachedBytes(), cached);
    }
  });
}

TEST(BlockPool, KeepsABoundedCache) {
  if (!block_pool::pooling())
    GTEST_SKIP() << "blocks go straight to the heap under AddressSanitizer";
  onFreshThread([] {
    {  // a burst of frees is kept only up to the bound, and trim gives it back
      std::vector<void*> blocks(140'000);  // 70 MB
      for (void*& b : blocks) b = block_pool::allocate(512);
      for (void* b : blocks) block_pool::deallocate(b, 512);
      EXPECT_GE(block_pool::cachedBytes(), size_t{32} << 20);
      EXPECT_LE(block_pool::cachedBytes(), (size_t{64} << 20) + 512);
      block_pool::trim();
      EXPECT_EQ(block_pool::cachedBytes(), 0u);
    }
    {  // a little is kept through a trim
      void* b = block_pool::allocate(100);
      block_pool::deallocate(b, 100);
      block_pool::trim();
      EXPECT_EQ(block_pool::cachedBytes(), 104u);
      EXPECT_EQ(block_pool::allocate(100), b);
      block_pool::deallocate(b, 100);
    }
  });
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
    {  // numbers, arrays and dictionaries, mutable or not
      const void* n = Number::withDouble(0.5).get();
      EXPECT_EQ(Number::withLongLong(7).get(), n);
      const void* a = MutableArray::make({NK_STR("x")}).get();
      EXPECT_EQ(MutableArray::make().get(), a);
      const void* d = Dictionary::make({{NK_STR("k"), NK_STR("v")}}).get();
      EXPECT_EQ(Dictionary::make().get(), d);
    }
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
