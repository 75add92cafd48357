// Tests for DurationFormatter: spelled-out units by calendar arithmetic.
#include "nk/system/duration_formatter.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace nk {
namespace {

// 2001-01-01 00:00:00 UTC
std::string text(double seconds, const char* zone = "UTC", const char* locale = "en_US",
                 double reference = 0) {
  Ref<Locale> l = Locale::withIdentifier(locale);
  Ref<Date> d = Date::fromTimeIntervalSinceReferenceDate(reference);
  Ref<String> s = DurationFormatter::stringFromTimeInterval(seconds, d.get(), zone, l.get());
  return s ? s->utf8() : "(nil)";
}

constexpr double kDay = 86400;

TEST(DurationFormatter, SpelledOutUnits) {
  // single units, singular and plural
  {
    EXPECT_EQ(text(0), "0 seconds");
    EXPECT_EQ(text(1), "1 second");
    EXPECT_EQ(text(120), "2 minutes");
    EXPECT_EQ(text(3600), "1 hour");
  }
  // several units joined, zero units left out
  {
    EXPECT_EQ(text(3900), "1 hour, 5 minutes");
    EXPECT_EQ(text(3661), "1 hour, 1 minute, 1 second");
    EXPECT_EQ(text(3601), "1 hour, 1 second");
  }
  // weeks, months and years by the calendar from the reference date
  {
    EXPECT_EQ(text(8 * kDay + 1), "1 week, 1 day, 1 second");
    EXPECT_EQ(text(31 * kDay), "1 month");
    EXPECT_EQ(text(365 * kDay), "1 year");
    EXPECT_EQ(text(365 * kDay + 31 * kDay + 7 * kDay), "1 year, 1 month, 1 week");
  }
  // fractions dropped; sign on the first unit
  {
    EXPECT_EQ(text(59.9), "59 seconds");
    EXPECT_EQ(text(-3900), "-1 hour, 5 minutes");
  }
}

TEST(DurationFormatter, CalendarAndZone) {
  // a February month is 28 days long from 2001-02-01
  {
    const double feb1 = 31 * kDay;
    EXPECT_EQ(text(28 * kDay, "UTC", "en_US", feb1), "1 month");
    EXPECT_EQ(text(28 * kDay, "UTC", "en_US", 0), "4 weeks");
  }
  // across the spring clock change in Paris, 24 hours are a day and an hour
  {
    // 2021-03-27 12:00:00 Paris (11:00 UTC)
    const double before = 1616842800.0 - kTimeIntervalSince1970;
    EXPECT_EQ(text(kDay, "Europe/Paris", "en_US", before), "1 day, 1 hour");
    EXPECT_EQ(text(kDay, "UTC", "en_US", before), "1 day");
  }
  // other languages use their own list pattern
  {
    EXPECT_EQ(text(3900, "UTC", "fr_FR"), "1\u00A0heure et 5 minutes");
    EXPECT_EQ(text(3661, "UTC", "de_DE"), "1 Stunde, 1 Minute und 1 Sekunde");
  }
}

TEST(DurationFormatter, Refusals) {
  // not a number, infinite, beyond the supported range
  {
    EXPECT_EQ(text(std::numeric_limits<double>::quiet_NaN()), "(nil)");
    EXPECT_EQ(text(std::numeric_limits<double>::infinity()), "(nil)");
    EXPECT_EQ(text(1e13), "(nil)");
  }
  // the one-argument form works from now in the environment's locale
  {
    Ref<String> s = DurationFormatter::stringFromTimeInterval(42);
    ASSERT_TRUE(s);
    EXPECT_NE(s->utf8().find("42"), std::string::npos);
  }
}

}  // namespace
}  // namespace nk
