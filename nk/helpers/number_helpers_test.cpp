// Tests of the byte-count and duration texts, pinned to English: which units each
// helper asks for, the clamp of huge counts, and nil.

#include "nk/helpers/number_helpers.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

std::string text(const Ref<String>& s) { return s ? s->utf8() : "<nil>"; }
std::string binary(uint64_t n) { return text(vnk_userFriendlyFileSizeFromUnsignedLongLong(n)); }
std::string file(uint64_t n) {
  return text(vnk_userFriendlyPlatformSpecificFileSizeFromUnsignedLongLong(n));
}

TEST(NumberHelpers, FileSizes) {
  test::ScopedEnv lang("LC_ALL", "en_US.UTF-8");
  // The name without "PlatformSpecific" counts in 1024s, the other in 1000s.
  EXPECT_EQ(binary(1024), "1 KB");
  EXPECT_EQ(binary(1000), "1,000 bytes");
  EXPECT_EQ(file(1000), "1 KB");
  // Counts of 2^63 and above read as 2^63 - 1: never negative.
  constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
  for (uint64_t big : {kMax + 1, std::numeric_limits<uint64_t>::max()}) {
    EXPECT_EQ(binary(big), "8 EB");
    EXPECT_EQ(file(big), "9.22 EB");
  }
}

TEST(NumberHelpers, Durations) {
  test::ScopedEnv lang("LC_ALL", "en_US.UTF-8");
  test::ScopedEnv zone("TZ", "UTC");
  EXPECT_EQ(text(vnk_userFriendlyTime(Number::withDouble(3900).get())), "1 hour, 5 minutes");
  EXPECT_EQ(
      text(vnk_userFriendlyTime(Number::withDouble(std::numeric_limits<double>::infinity()).get())),
      "<nil>");
  EXPECT_EQ(vnk_userFriendlyTime(nullptr), nullptr);
}

}  // namespace
}  // namespace nk
