// Calendar arithmetic shared by Date's description and the property-list date
// text: UTC civil time from seconds since the reference date and back.
#pragma once

#include <cstdint>
#include <optional>

namespace nk::date_internal {

struct CivilTime {
  int64_t year;  // astronomical: 0 is 1 BC, -1 is 2 BC
  int month;     // 1..12
  int day;       // 1..31
  int hour;
  int minute;
  int second;
};

enum class Calendar {
  kGregorian,  // proleptic Gregorian, as property-list dates are written
  kHistoric,   // Julian before 1582-10-15, Gregorian from then on
};

// Whole seconds are rounded down. Values beyond about ±3 million years are
// clamped there, NaN is taken as 0.
CivilTime civilFromSeconds(double secondsSinceReferenceDate, Calendar calendar);

// Seconds since the reference date of a proleptic Gregorian UTC time; nullopt
// when a field is out of its range (month 1..12, day within the month, hour
// 0..23, minute 0..59, second 0..60, |year| <= 9999999, enough for every clamped
// value of civilFromSeconds).
std::optional<double> secondsFromCivil(const CivilTime& time);

}  // namespace nk::date_internal
