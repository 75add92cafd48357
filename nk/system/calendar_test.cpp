// Tests for Calendar: the year of a date in the environment's zone and calendar.
#include "nk/system/calendar.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using test::ScopedEnv;

TEST(Calendar, YearAcrossZoneBoundaries) {
  ScopedEnv all("LC_ALL", std::string("en_US.UTF-8"));
  // 1999-12-31 23:30:00 UTC: 1999 in UTC and New York, 2000 in Paris and Tokyo
  Ref<Date> d = Date::fromTimeIntervalSince1970(946684800.0 - 1800.0);
  for (auto [zone, year] : {std::pair{"UTC", 1999}, std::pair{"Europe/Paris", 2000},
                            std::pair{"America/New_York", 1999}, std::pair{"Asia/Tokyo", 2000}}) {
    ScopedEnv tz("TZ", std::string(zone));
    EXPECT_EQ(Calendar::yearOfDate(d.get()), year) << zone;
    EXPECT_EQ(Calendar::yearOfDate(d.get(), zone, "en_US"), year) << zone;
  }
  EXPECT_EQ(Calendar::yearOfDate(d.get(), "Not/AZone", "en_US"), std::nullopt);
}

TEST(Calendar, SentinelDatesAndCalendars) {
  ScopedEnv tz("TZ", std::string("UTC"));
  ScopedEnv all("LC_ALL", std::string("en_US.UTF-8"));
  EXPECT_EQ(Calendar::yearOfDate(Date::distantPast()), 1);
  // before the common era: 1 BC (ten days before year 1), then 2500 BC
  EXPECT_EQ(Calendar::yearOfDate(Date::fromTimeIntervalSince1970(-62135596800.0 - 864000.0).get()),
            0);
  EXPECT_EQ(Calendar::yearOfDate(Date::fromTimeIntervalSince1970(-141e9).get()), -2499);
  EXPECT_EQ(Calendar::yearOfDate(Date::distantFuture()), 4001);
  EXPECT_EQ(Calendar::yearOfDate(Date::fromTimeIntervalSinceReferenceDate(0).get()), 2001);
  // the user's calendar: Buddhist in Thai, Gregorian when the locale asks for it
  Ref<Date> d = Date::fromTimeIntervalSince1970(946684800.0 + 86400.0);  // 2000-01-02
  ScopedEnv thai("LC_ALL", std::string("th_TH.UTF-8"));
  EXPECT_EQ(Calendar::yearOfDate(d.get()), 2543);
  EXPECT_EQ(Calendar::yearOfDate(d.get(), "UTC", "th_TH@calendar=gregorian"), 2000);
  EXPECT_EQ(Calendar::yearOfDate(nullptr), std::nullopt);
  EXPECT_EQ(Calendar::yearOfDate(
                Date::fromTimeIntervalSince1970(std::numeric_limits<double>::quiet_NaN()).get()),
            std::nullopt);
}

}  // namespace
}  // namespace nk
