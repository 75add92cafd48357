// Tests of the byte-count and duration texts, pinned to English.

#include "nk/helpers/number_helpers.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

std::string text(const Ref<String>& s) { return s ? s->utf8() : "<nil>"; }

TEST(NumberFileSize, BinaryAndFileUnits) {
  test::ScopedEnv lang("LC_ALL", "en_US.UTF-8");
  // The name without "PlatformSpecific" counts in 1024s, the other in 1000s.
  EXPECT_EQ(text(vnk_userFriendlyFileSizeFromUnsignedLongLong(1024)), "1 KB");
  EXPECT_EQ(text(vnk_userFriendlyFileSizeFromUnsignedLongLong(1000)), "1,000 bytes");
  EXPECT_EQ(text(vnk_userFriendlyPlatformSpecificFileSizeFromUnsignedLongLong(1000)), "1 KB");
  EXPECT_EQ(text(vnk_userFriendlyFileSizeFromUnsignedLongLong(1'500'000)), "1.4 MB");
  EXPECT_EQ(text(vnk_userFriendlyPlatformSpecificFileSizeFromUnsignedLongLong(1'500'000)),
            "1.5 MB");
  EXPECT_EQ(text(vnk_userFriendlyPlatformSpecificFileSizeFromUnsignedLongLong(0)), "Zero KB");
  EXPECT_EQ(text(vnk_userFriendlyFileSizeFromUnsignedLongLong(1)), "1 byte");
}

TEST(NumberFileSize, ClampsAtSignedMaximum) {
  test::ScopedEnv lang("LC_ALL", "en_US.UTF-8");
  constexpr uint64_t kMax = std::numeric_limits<int64_t>::max();
  for (uint64_t big : {kMax + 1, std::numeric_limits<uint64_t>::max()}) {
    EXPECT_EQ(text(vnk_userFriendlyFileSizeFromUnsignedLongLong(big)),
              text(vnk_userFriendlyFileSizeFromUnsignedLongLong(kMax)));
    EXPECT_EQ(text(vnk_userFriendlyPlatformSpecificFileSizeFromUnsignedLongLong(big)),
              text(vnk_userFriendlyPlatformSpecificFileSizeFromUnsignedLongLong(kMax)));
  }
  // Never negative: 2^63 - 1 is 8 EiB less a byte, 9.22 EB.
  EXPECT_EQ(text(vnk_userFriendlyFileSizeFromUnsignedLongLong(kMax)), "8 EB");
  EXPECT_EQ(text(vnk_userFriendlyPlatformSpecificFileSizeFromUnsignedLongLong(kMax + 1)),
            "9.22 EB");
}

TEST(NumberDuration, SpelledOutUnits) {
  test::ScopedEnv lang("LC_ALL", "en_US.UTF-8");
  test::ScopedEnv zone("TZ", "UTC");
  EXPECT_EQ(text(vnk_userFriendlyTime(Number::withDouble(3900).get())), "1 hour, 5 minutes");
  EXPECT_EQ(text(vnk_userFriendlyTime(Number::withInt(61).get())), "1 minute, 1 second");
  EXPECT_EQ(text(vnk_userFriendlyTime(Number::withDouble(0.75).get())), "0 seconds");
  EXPECT_EQ(
      text(vnk_userFriendlyTime(Number::withDouble(std::numeric_limits<double>::infinity()).get())),
      "<nil>");
  EXPECT_EQ(vnk_userFriendlyTime(nullptr), nullptr);
}

}  // namespace
}  // namespace nk
