// Tests of the sentinel-date test in the user's calendar and time zone.

#include "nk/helpers/date_helpers.hpp"

#include <gtest/gtest.h>

#include <limits>

#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

bool infinite(double secondsSince1970) {
  return vnk_dateIsInfinite(Date::fromTimeIntervalSince1970(secondsSince1970).get());
}

TEST(DateIsInfinite, CenturiesBoundsInTheUsersZone) {
  test::ScopedEnv lang("LC_ALL", "en_US.UTF-8");
  {
    test::ScopedEnv zone("TZ", "UTC");
    EXPECT_TRUE(infinite(946684799.0));     // 1999-12-31 23:59:59
    EXPECT_FALSE(infinite(946684800.0));    // 2000-01-01 00:00:00
    EXPECT_FALSE(infinite(32535215999.0));  // 3000-12-31 23:59:59
    EXPECT_TRUE(infinite(32535216000.0));   // 3001-01-01 00:00:00
    EXPECT_TRUE(vnk_dateIsInfinite(Date::distantFuture()));
    EXPECT_TRUE(infinite(-141e9));  // about 2500 BC
    // A date without a year in the calendar counts as a sentinel; nil does not.
    EXPECT_TRUE(vnk_dateIsInfinite(
        Date::fromTimeIntervalSinceReferenceDate(std::numeric_limits<double>::quiet_NaN()).get()));
    EXPECT_FALSE(vnk_dateIsInfinite(nullptr));
  }
  // 2000-01-01 03:00 UTC is still 1999 in New York.
  test::ScopedEnv zone("TZ", "America/New_York");
  EXPECT_TRUE(infinite(946684800.0 + 3 * 3600));
}

}  // namespace
}  // namespace nk
