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

TEST(DateIsInfinite, CenturiesBounds) {
  test::ScopedEnv zone("TZ", "UTC");
  test::ScopedEnv lang("LC_ALL", "en_US.UTF-8");
  EXPECT_TRUE(infinite(946684799.0));     // 1999-12-31 23:59:59
  EXPECT_FALSE(infinite(946684800.0));    // 2000-01-01 00:00:00
  EXPECT_FALSE(infinite(32535215999.0));  // 3000-12-31 23:59:59
  EXPECT_TRUE(infinite(32535216000.0));   // 3001-01-01 00:00:00
  EXPECT_FALSE(vnk_dateIsInfinite(Date::now().get()));
  EXPECT_TRUE(vnk_dateIsInfinite(Date::distantPast()));
  EXPECT_TRUE(vnk_dateIsInfinite(Date::distantFuture()));
  EXPECT_TRUE(infinite(0.0));
  EXPECT_TRUE(vnk_dateIsInfinite(
      Date::fromTimeIntervalSinceReferenceDate(std::numeric_limits<double>::quiet_NaN()).get()));
  EXPECT_FALSE(vnk_dateIsInfinite(nullptr));
}

TEST(DateIsInfinite, UsersTimeZone) {
  test::ScopedEnv lang("LC_ALL", "en_US.UTF-8");
  // 2000-01-01 03:00 UTC is still 1999 in New York, and 3001 starts early in Tokyo.
  {
    test::ScopedEnv zone("TZ", "America/New_York");
    EXPECT_TRUE(infinite(946684800.0 + 3 * 3600));
  }
  {
    test::ScopedEnv zone("TZ", "Asia/Tokyo");
    EXPECT_TRUE(infinite(32535216000.0 - 3600));
    EXPECT_FALSE(infinite(946684800.0 - 3600));
  }
}

}  // namespace
}  // namespace nk
