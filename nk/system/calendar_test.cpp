// Tests for Calendar: the year of a date in the environment's zone and calendar.
#include "nk/system/calendar.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <optional>
#include <string>

namespace nk {
namespace {

class CalendarEnvironment : public ::testing::Test {
 protected:
  void SetUp() override {
    save("TZ", tz_);
    save("LC_ALL", lcAll_);
    setenv("LC_ALL", "en_US.UTF-8", 1);
  }
  void TearDown() override {
    restore("TZ", tz_);
    restore("LC_ALL", lcAll_);
  }
  static void save(const char* name, std::optional<std::string>& slot) {
    const char* v = std::getenv(name);
    if (v) slot = v;
  }
  static void restore(const char* name, const std::optional<std::string>& slot) {
    if (slot) {
      setenv(name, slot->c_str(), 1);
    } else {
      unsetenv(name);
    }
  }
  std::optional<std::string> tz_;
  std::optional<std::string> lcAll_;
};

// 1999-12-31 23:30:00 UTC
constexpr double kNewYearsEveLate = 946684800.0 - 1800.0;

TEST_F(CalendarEnvironment, YearAcrossZoneBoundaries) {
  Ref<Date> d = Date::fromTimeIntervalSince1970(kNewYearsEveLate);
  // the same instant is 1999 in UTC and New York, 2000 in Paris and Tokyo
  {
    setenv("TZ", "UTC", 1);
    EXPECT_EQ(Calendar::yearOfDate(d.get()), 1999);
    setenv("TZ", "Europe/Paris", 1);
    EXPECT_EQ(Calendar::yearOfDate(d.get()), 2000);
    setenv("TZ", "America/New_York", 1);
    EXPECT_EQ(Calendar::yearOfDate(d.get()), 1999);
    setenv("TZ", "Asia/Tokyo", 1);
    EXPECT_EQ(Calendar::yearOfDate(d.get()), 2000);
  }
  // explicit zones agree
  {
    EXPECT_EQ(Calendar::yearOfDate(d.get(), "Europe/Paris", "en_US"), 2000);
    EXPECT_EQ(Calendar::yearOfDate(d.get(), "UTC", "en_US"), 1999);
    EXPECT_EQ(Calendar::yearOfDate(d.get(), "Not/AZone", "en_US"), std::nullopt);
  }
}

TEST_F(CalendarEnvironment, SentinelDatesAndCalendars) {
  setenv("TZ", "UTC", 1);
  // the platform's distant past and future, and the reference date
  {
    EXPECT_EQ(Calendar::yearOfDate(Date::distantPast()), 1);
    EXPECT_EQ(Calendar::yearOfDate(Date::distantFuture()), 4001);
    EXPECT_EQ(Calendar::yearOfDate(Date::fromTimeIntervalSinceReferenceDate(0).get()), 2001);
  }
  // the user's calendar: Buddhist in Thai, Gregorian when the locale asks for it
  {
    Ref<Date> d = Date::fromTimeIntervalSince1970(946684800.0 + 86400.0);  // 2000-01-02
    setenv("LC_ALL", "th_TH.UTF-8", 1);
    EXPECT_EQ(Calendar::yearOfDate(d.get()), 2543);
    EXPECT_EQ(Calendar::yearOfDate(d.get(), "UTC", "th_TH@calendar=gregorian"), 2000);
  }
  // nil and non-finite dates have no year
  {
    EXPECT_EQ(Calendar::yearOfDate(nullptr), std::nullopt);
    EXPECT_EQ(Calendar::yearOfDate(
                  Date::fromTimeIntervalSince1970(std::numeric_limits<double>::quiet_NaN()).get()),
              std::nullopt);
  }
}

}  // namespace
}  // namespace nk
