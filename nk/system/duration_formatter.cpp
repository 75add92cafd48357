// DurationFormatter: ICU calendar differences, one unit after another, then
// ICU's wide measure list.
#include "nk/system/duration_formatter.hpp"

#include <unicode/calendar.h>
#include <unicode/measfmt.h>
#include <unicode/measunit.h>
#include <unicode/measure.h>
#include <unicode/timezone.h>

#include <cmath>
#include <memory>
#include <vector>

namespace nk {
namespace {

constexpr double kLimit = 1e12;

struct UnitField {
  UCalendarDateFields field;
  icu::MeasureUnit (*unit)();
};

const UnitField kUnits[] = {
    {UCAL_YEAR, &icu::MeasureUnit::getYear},         {UCAL_MONTH, &icu::MeasureUnit::getMonth},
    {UCAL_WEEK_OF_YEAR, &icu::MeasureUnit::getWeek}, {UCAL_DATE, &icu::MeasureUnit::getDay},
    {UCAL_HOUR_OF_DAY, &icu::MeasureUnit::getHour},  {UCAL_MINUTE, &icu::MeasureUnit::getMinute},
    {UCAL_SECOND, &icu::MeasureUnit::getSecond},
};

}  // namespace

Ref<String> DurationFormatter::stringFromTimeInterval(double seconds) {
  return stringFromTimeInterval(seconds, Date::now().get(), nullptr, nullptr);
}

Ref<String> DurationFormatter::stringFromTimeInterval(double seconds, const Date* referenceDate,
                                                      const char* timeZone, const Locale* locale) {
  if (!std::isfinite(seconds) || std::fabs(seconds) > kLimit) return nullptr;
  const Ref<Locale> current = locale ? Ref<Locale>(const_cast<Locale*>(locale)) : Locale::current();
  const icu::Locale icuLocale(current->icuIdentifier().c_str());
  const Ref<Date> reference =
      referenceDate ? Ref<Date>(const_cast<Date*>(referenceDate)) : Date::now();

  std::unique_ptr<icu::TimeZone> zone(
      timeZone ? icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(timeZone))
               : icu::TimeZone::detectHostTimeZone());
  if (!zone) return nullptr;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Calendar> calendar(
      icu::Calendar::createInstance(zone.release(), icuLocale, status));
  if (U_FAILURE(status) || !calendar) return nullptr;

  const double whole = std::trunc(std::fabs(seconds));
  const double startMs = std::floor(reference->timeIntervalSince1970()) * 1000.0;
  if (!std::isfinite(startMs)) return nullptr;
  calendar->setTime(startMs, status);
  const double endMs = startMs + whole * 1000.0;

  std::vector<icu::Measure> measures;
  for (const UnitField& u : kUnits) {
    // fieldDifference moves the calendar on by the amount it returns.
    const int32_t amount = calendar->fieldDifference(endMs, u.field, status);
    if (U_FAILURE(status)) return nullptr;
    if (amount == 0) continue;
    const int32_t signedAmount = (seconds < 0 && measures.empty()) ? -amount : amount;
    measures.emplace_back(icu::Formattable(signedAmount), u.unit().clone(), status);
  }
  if (measures.empty()) {
    measures.emplace_back(icu::Formattable(int32_t{0}), icu::MeasureUnit::getSecond().clone(),
                          status);
  }
  if (U_FAILURE(status)) return nullptr;

  icu::MeasureFormat formatter(icuLocale, UMEASFMT_WIDTH_WIDE, status);
  if (U_FAILURE(status)) return nullptr;
  icu::UnicodeString out;
  icu::FieldPosition position(icu::FieldPosition::DONT_CARE);
  formatter.formatMeasures(measures.data(), static_cast<int32_t>(measures.size()), out, position,
                           status);
  if (U_FAILURE(status)) return nullptr;
  return String::fromUTF16(std::u16string_view(reinterpret_cast<const char16_t*>(out.getBuffer()),
                                               static_cast<size_t>(out.length())));
}

}  // namespace nk
