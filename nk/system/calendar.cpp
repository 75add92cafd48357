// Calendar: ICU calendars built per call, so changes of TZ and of the locale show.
#include "nk/system/calendar.hpp"

#include <unicode/calendar.h>
#include <unicode/gregocal.h>
#include <unicode/timezone.h>

#include <cmath>
#include <cstring>
#include <memory>

#include "nk/system/locale.hpp"

namespace nk {
namespace {

std::optional<int> year(const Date* date, icu::TimeZone* zone, const icu::Locale& locale) {
  std::unique_ptr<icu::TimeZone> owned(zone);
  if (date == nullptr || zone == nullptr) return std::nullopt;
  const double ms = date->timeIntervalSince1970() * 1000.0;
  if (!std::isfinite(ms)) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Calendar> calendar(
      icu::Calendar::createInstance(owned.release(), locale, status));
  if (U_FAILURE(status) || !calendar) return std::nullopt;
  calendar->setTime(ms, status);
  int32_t y = calendar->get(UCAL_YEAR, status);
  // The Gregorian year counts up again before the common era: given as it is, 2500 BC
  // would read as a year to come.
  if (std::strcmp(calendar->getType(), "gregorian") == 0 &&
      calendar->get(UCAL_ERA, status) == icu::GregorianCalendar::BC) {
    y = 1 - y;
  }
  if (U_FAILURE(status)) return std::nullopt;
  return y;
}

}  // namespace

std::optional<int> Calendar::yearOfDate(const Date* date) {
  const Ref<Locale> locale = Locale::current();
  // detectHostTimeZone reads TZ afresh on each call (ICU's default zone is cached
  // for the life of the process, so it would miss changes).
  return year(date, icu::TimeZone::detectHostTimeZone(),
              icu::Locale(locale->icuIdentifier().c_str()));
}

std::optional<int> Calendar::yearOfDate(const Date* date, const char* timeZone,
                                        const char* locale) {
  if (timeZone == nullptr || locale == nullptr) return std::nullopt;
  icu::TimeZone* zone = icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(timeZone));
  if (zone != nullptr && *zone == icu::TimeZone::getUnknown()) {
    delete zone;
    return std::nullopt;
  }
  return year(date, zone, icu::Locale(locale));
}

}  // namespace nk
