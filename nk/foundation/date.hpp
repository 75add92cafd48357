// Date: a point in time as seconds since the reference date, 2001-01-01
// 00:00:00 UTC, held as a double (negative before it).
#pragma once

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// Seconds.
using TimeInterval = double;

// Seconds from 1970-01-01 00:00:00 UTC to the reference date.
inline constexpr TimeInterval kTimeIntervalSince1970 = 978307200.0;

class Date final : public Object {
  NK_DECLARE_CLASS(Date, Object)

 public:
  // The current wall-clock time.
  static Ref<Date> now();
  static Ref<Date> fromTimeIntervalSinceReferenceDate(TimeInterval seconds);
  static Ref<Date> fromTimeIntervalSince1970(TimeInterval seconds);
  // `seconds` after now (before when negative).
  static Ref<Date> fromTimeIntervalSinceNow(TimeInterval seconds);
  // Shared instances: 0001-01-01 and 4001-01-01 00:00:00 UTC
  // (-63114076800 and 63113904000 seconds from the reference date).
  static Date* distantPast() noexcept;
  static Date* distantFuture() noexcept;

  TimeInterval timeIntervalSinceReferenceDate() const noexcept { return seconds_; }
  TimeInterval timeIntervalSince1970() const noexcept { return seconds_ + kTimeIntervalSince1970; }
  // Positive when this date is later than `other`.
  TimeInterval timeIntervalSinceDate(const Date& other) const noexcept {
    return seconds_ - other.seconds_;
  }
  TimeInterval timeIntervalSinceNow() const;
  Ref<Date> byAddingTimeInterval(TimeInterval seconds) const;

  // -1, 0 or 1 as this date is earlier than, equal to or later than `other`.
  // A NaN interval equals NaN and is earlier than every other date.
  int compare(const Date& other) const noexcept;
  // The earlier (later) of the two; this date when they are equal or other is nil.
  Ref<Date> earlierDate(const Date* other) const;
  Ref<Date> laterDate(const Date* other) const;

  // Same time interval (compare() == 0); nil is unequal to every date.
  bool isEqualToDate(const Date* other) const noexcept;
  bool isEqual(const Object* other) const noexcept override;
  size_t hash() const noexcept override;
  // "2001-01-01 00:00:00 +0000": UTC, whole seconds rounded down, in the civil
  // calendar the platform prints with (Julian before 1582-10-15, so distantPast
  // reads "0001-01-01"); years before 1 count back from 1 as eras do.
  Ref<String> description() const override;
  // Dates are immutable: copy returns the date itself.
  Id copy() const override;

 private:
  explicit Date(TimeInterval seconds) noexcept : seconds_(seconds) {}

  TimeInterval seconds_;
};

}  // namespace nk
