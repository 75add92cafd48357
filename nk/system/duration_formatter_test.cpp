// Tests for DurationFormatter: spelled-out units by calendar arithmetic.
#include "nk/system/duration_formatter.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

namespace nk {
namespace {

constexpr double kDay = 86400;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
// 2021-03-27 12:00:00 Paris (11:00 UTC), the day before the spring clock change
constexpr double kBeforeParisSpring = 1616842800.0 - kTimeIntervalSince1970;

// `reference` counts from 2001-01-01 00:00:00 UTC.
std::string text(double seconds, const char* zone = "UTC", const char* locale = "en_US",
                 double reference = 0) {
  Ref<Locale> l = Locale::withIdentifier(locale);
  Ref<Date> d = Date::fromTimeIntervalSinceReferenceDate(reference);
  Ref<String> s = DurationFormatter::stringFromTimeInterval(seconds, d.get(), zone, l.get());
  return s ? s->utf8() : "(nil)";
}

TEST(DurationFormatter, Texts) {
  struct Row {
    double seconds;
    const char* zone;
    const char* locale;
    double reference;
    const char* expected;
  } rows[] = {
      // single units, singular and plural
      {0, "UTC", "en_US", 0, "0 seconds"},
      {1, "UTC", "en_US", 0, "1 second"},
      // several units joined, zero units left out
      {3900, "UTC", "en_US", 0, "1 hour, 5 minutes"},
      {3661, "UTC", "en_US", 0, "1 hour, 1 minute, 1 second"},
      {3601, "UTC", "en_US", 0, "1 hour, 1 second"},
      // weeks, months and years by the calendar from the reference date
      {8 * kDay + 1, "UTC", "en_US", 0, "1 week, 1 day, 1 second"},
      {403 * kDay, "UTC", "en_US", 0, "1 year, 1 month, 1 week"},
      // fractions dropped; sign on the first unit
      {59.9, "UTC", "en_US", 0, "59 seconds"},
      {-3900, "UTC", "en_US", 0, "-1 hour, 5 minutes"},
      // a February month is 28 days long from 2001-02-01
      {28 * kDay, "UTC", "en_US", 31 * kDay, "1 month"},
      {28 * kDay, "UTC", "en_US", 0, "4 weeks"},
      // across the spring clock change in Paris, 24 hours are a day and an hour
      {kDay, "Europe/Paris", "en_US", kBeforeParisSpring, "1 day, 1 hour"},
      {kDay, "UTC", "en_US", kBeforeParisSpring, "1 day"},
      // other languages use their own list pattern
      {3900, "UTC", "fr_FR", 0, "1\u00A0heure et 5 minutes"},
      {3661, "UTC", "de_DE", 0, "1 Stunde, 1 Minute und 1 Sekunde"},
      // not a number, infinite, beyond the supported range
      {kNaN, "UTC", "en_US", 0, "(nil)"},
      {kInfinity, "UTC", "en_US", 0, "(nil)"},
      {1e13, "UTC", "en_US", 0, "(nil)"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(testing::Message() << r.seconds << " " << r.zone << " " << r.locale);
    EXPECT_EQ(text(r.seconds, r.zone, r.locale, r.reference), r.expected);
  }
  // the one-argument form counts from now
  Ref<String> s = DurationFormatter::stringFromTimeInterval(42);
  ASSERT_TRUE(s);
  EXPECT_NE(s->utf8().find("42"), std::string::npos);
}

}  // namespace
}  // namespace nk
