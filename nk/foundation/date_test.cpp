// Tests of Date: reference-date arithmetic, the shared distant dates, ordering
// and the UTC description across calendar eras.
#include "nk/foundation/date.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

#include "nk/foundation/date_internal.hpp"

namespace nk {
namespace {

std::string describe(double sinceReference) {
  return Date::fromTimeIntervalSinceReferenceDate(sinceReference)->description()->utf8();
}

TEST(Date, ReferenceDateArithmetic) {
  auto epoch = Date::fromTimeIntervalSince1970(0);
  EXPECT_EQ(epoch->timeIntervalSinceReferenceDate(), -978307200.0);
  EXPECT_EQ(epoch->timeIntervalSince1970(), 0.0);
  auto later = epoch->byAddingTimeInterval(90.5);
  EXPECT_EQ(later->timeIntervalSinceDate(*epoch), 90.5);
  EXPECT_EQ(epoch->timeIntervalSinceDate(*later), -90.5);

  // now() agrees with the system clock; not with time(), whose coarse clock may still show
  // the last second just after the fine one has moved on.
  const auto unixSeconds = [] {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
  };
  const double before = unixSeconds();
  const double now = Date::now()->timeIntervalSince1970();
  const double after = unixSeconds();
  // Seconds since 1970 as doubles step by a quarter microsecond.
  EXPECT_GE(now, before - 1e-6);
  EXPECT_LE(now, after + 1e-6);
  EXPECT_NEAR(Date::fromTimeIntervalSinceNow(60)->timeIntervalSinceNow(), 60, 5);
}

TEST(Date, DistantPastAndFuture) {
  EXPECT_EQ(Date::distantPast()->timeIntervalSinceReferenceDate(), -63114076800.0);
  EXPECT_EQ(Date::distantFuture()->timeIntervalSinceReferenceDate(), 63113904000.0);
  EXPECT_EQ(Date::distantPast(), Date::distantPast());
  EXPECT_TRUE(Date::distantFuture()->isImmortal());
  EXPECT_EQ(Date::distantPast()->description()->utf8(), "0001-01-01 00:00:00 +0000");
  EXPECT_EQ(Date::distantFuture()->description()->utf8(), "4001-01-01 00:00:00 +0000");
  // The property-list calendar is proleptic Gregorian: two days apart there.
  const auto t =
      date_internal::civilFromSeconds(-63114076800.0, date_internal::Calendar::kGregorian);
  EXPECT_EQ(t.year, 0);
  EXPECT_EQ(t.month, 12);
  EXPECT_EQ(t.day, 30);
}

TEST(Date, DescriptionIsUTCWholeSeconds) {
  EXPECT_EQ(describe(0), "2001-01-01 00:00:00 +0000");
  EXPECT_EQ(describe(0.999), "2001-01-01 00:00:00 +0000");
  EXPECT_EQ(describe(-0.5), "2000-12-31 23:59:59 +0000");  // rounds down, not to zero
  EXPECT_EQ(describe(-978307200), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(describe(1700000000 - 978307200.0), "2023-11-14 22:13:20 +0000");
  EXPECT_EQ(describe(-31622400 + 86400 * 59), "2000-02-29 00:00:00 +0000");
  // The Gregorian reform: 1582-10-04 (Julian) is followed by 1582-10-15.
  const double reform = -13197600000.0;  // 1582-10-15 00:00:00 UTC
  EXPECT_EQ(describe(reform), "1582-10-15 00:00:00 +0000");
  EXPECT_EQ(describe(reform - 1), "1582-10-04 23:59:59 +0000");
  // Before year 1 the year counts back from 1.
  EXPECT_EQ(describe(-63114076800.0 - 86400), "0001-12-31 00:00:00 +0000");
  // Out-of-range values still describe without undefined behaviour.
  EXPECT_FALSE(describe(1e300).empty());
  EXPECT_FALSE(describe(NAN).empty());
}

TEST(Date, CivilConversionRoundTrips) {
  // Seconds -> proleptic Gregorian fields -> seconds, across eras and signs.
  for (double s = -7e10; s < 7e10; s += 123456789.5) {
    const auto t = date_internal::civilFromSeconds(s, date_internal::Calendar::kGregorian);
    const auto back = date_internal::secondsFromCivil(t);
    ASSERT_TRUE(back) << s;
    EXPECT_EQ(*back, std::floor(s)) << s;
  }
  // Invalid fields are refused.
  using date_internal::CivilTime;
  EXPECT_FALSE(date_internal::secondsFromCivil(CivilTime{2001, 2, 29, 0, 0, 0}));
  EXPECT_TRUE(date_internal::secondsFromCivil(CivilTime{2000, 2, 29, 0, 0, 0}));
  EXPECT_FALSE(date_internal::secondsFromCivil(CivilTime{1900, 2, 29, 0, 0, 0}));
  EXPECT_FALSE(date_internal::secondsFromCivil(CivilTime{2001, 13, 1, 0, 0, 0}));
  EXPECT_FALSE(date_internal::secondsFromCivil(CivilTime{2001, 1, 1, 24, 0, 0}));
}

TEST(Date, OrderingAndEquality) {
  auto a = Date::fromTimeIntervalSinceReferenceDate(10);
  auto b = Date::fromTimeIntervalSinceReferenceDate(20);
  auto a2 = Date::fromTimeIntervalSince1970(10 + kTimeIntervalSince1970);
  EXPECT_EQ(a->compare(*b), -1);
  EXPECT_EQ(b->compare(*a), 1);
  EXPECT_EQ(a->compare(*a2), 0);
  EXPECT_TRUE(a->isEqual(a2.get()));
  EXPECT_EQ(a->hash(), a2->hash());
  EXPECT_FALSE(a->isEqual(b.get()));
  EXPECT_FALSE(a->isEqual(nullptr));
  EXPECT_EQ(a->earlierDate(b.get()).get(), a.get());
  EXPECT_EQ(b->earlierDate(a.get()).get(), a.get());
  EXPECT_EQ(a->laterDate(b.get()).get(), b.get());
  EXPECT_EQ(a->laterDate(nullptr).get(), a.get());
  EXPECT_TRUE(Date::fromTimeIntervalSinceReferenceDate(0.0)->isEqual(
      Date::fromTimeIntervalSinceReferenceDate(-0.0).get()));
  EXPECT_EQ(Date::fromTimeIntervalSinceReferenceDate(0.0)->hash(),
            Date::fromTimeIntervalSinceReferenceDate(-0.0)->hash());
  EXPECT_EQ(a->copy().get(), a.get());

  // A NaN date equals itself and other NaN dates, and hashes alike.
  auto nan1 = Date::fromTimeIntervalSinceReferenceDate(NAN);
  auto nan2 = Date::fromTimeIntervalSinceReferenceDate(-NAN);
  EXPECT_TRUE(nan1->isEqual(nan2.get()));
  EXPECT_EQ(nan1->hash(), nan2->hash());
  EXPECT_FALSE(nan1->isEqual(a.get()));
  EXPECT_EQ(nan1->compare(*a), -1);
}

}  // namespace
}  // namespace nk
