// DurationFormatter: a time interval as spelled-out calendar units, the
// platform's date-components formatter in its full units style with every
// other setting at its default ("1 hour, 5 minutes").
#pragma once

#include "nk/foundation/date.hpp"
#include "nk/foundation/string.hpp"
#include "nk/system/locale.hpp"

namespace nk {

class DurationFormatter {
 public:
  // The text of `seconds` in the user's current locale, calendar and time zone.
  // Units: years, months, weeks, days, hours, minutes and seconds, counted by
  // calendar arithmetic from now (a month is as long as the calendar's month from
  // now); no limit on their number; units that are zero are left out, and a zero
  // interval is "0 seconds". Fractions of a second are dropped; a negative
  // interval carries its minus sign on the first unit. Units are joined by ICU's
  // wide unit list ("1 hour, 1 minute, 1 second" in English; "1 heure, 5 minutes
  // et 2 secondes" in French). Nil for a non-finite interval or one beyond a
  // trillion seconds.
  static Ref<String> stringFromTimeInterval(double seconds);

  // The same from an explicit reference date (the start of the interval), time
  // zone ("UTC", "Europe/Paris"; null: the environment's) and locale (nil: the
  // user's current one).
  static Ref<String> stringFromTimeInterval(double seconds, const Date* referenceDate,
                                            const char* timeZone, const Locale* locale);
};

}  // namespace nk
