// Calendar: reading calendar fields of a date in the user's current calendar.
//
// The calendar is the one of the user's locale (Locale::current()), in the time
// zone the environment names (TZ, else the system's), both read on every call.
#pragma once

#include <optional>

#include "nk/foundation/date.hpp"

namespace nk {

class Calendar {
 public:
  // The year of `date` as the platform's year component gives it: the year of
  // its era (0001-01-01 is year 1), except that Gregorian years before the common
  // era count down from 0 (1 BC is 0, 2 BC is -1), so that they never pass for
  // years of the common era. Dates before 1582-10-15 are read in the Julian
  // calendar, as the platform does. Nil, a non-finite date or one ICU cannot place
  // gives nullopt.
  static std::optional<int> yearOfDate(const Date* date);

  // The same in an explicit time zone ("Europe/Paris", "UTC") and ICU locale; an
  // unknown zone gives nullopt.
  static std::optional<int> yearOfDate(const Date* date, const char* timeZone, const char* locale);
};

}  // namespace nk
