// ByteCountFormatter: unit choice and rounding here, digits from ICU.
#include "nk/system/byte_count_formatter.hpp"

#include <unicode/measunit.h>
#include <unicode/numberformatter.h>

#include <cmath>
#include <string>

namespace nk {
namespace {

constexpr int kMaxUnit = 6;  // EB: 2^63 bytes is 9.22 EB or 8 binary EB
constexpr const char* kEnglishUnits[] = {"bytes", "KB", "MB", "GB", "TB", "PB", "EB"};

int fractionDigits(int unit) noexcept { return unit <= 1 ? 0 : unit == 2 ? 1 : 2; }

long double roundHalfUp(long double value, int digits) noexcept {
  const long double scale = std::pow(10.0L, digits);
  return std::floor(value * scale + 0.5L) / scale;
}

std::string formatNumber(const icu::Locale& locale, long double value, int digits,
                         const icu::MeasureUnit* unit) {
  UErrorCode status = U_ZERO_ERROR;
  auto formatter = icu::number::NumberFormatter::withLocale(locale)
                       .precision(icu::number::Precision::maxFraction(digits))
                       .roundingMode(UNUM_ROUND_HALFUP);
  if (unit != nullptr) formatter = formatter.unit(*unit).unitWidth(UNUM_UNIT_WIDTH_SHORT);
  std::string out;
  formatter.formatDouble(static_cast<double>(value), status).toString(status).toUTF8String(out);
  return U_SUCCESS(status) ? out : std::string();
}

const icu::MeasureUnit* icuUnit(int unit) {
  static const icu::MeasureUnit units[] = {
      icu::MeasureUnit::getByte(),     icu::MeasureUnit::getKilobyte(),
      icu::MeasureUnit::getMegabyte(), icu::MeasureUnit::getGigabyte(),
      icu::MeasureUnit::getTerabyte(), icu::MeasureUnit::getPetabyte(),
  };
  return unit < 6 ? &units[unit] : nullptr;  // ICU has no exabyte
}

}  // namespace

Ref<String> ByteCountFormatter::stringFromByteCount(int64_t count, ByteCountStyle style) {
  return stringFromByteCount(count, style, nullptr);
}

Ref<String> ByteCountFormatter::stringFromByteCount(int64_t count, ByteCountStyle style,
                                                    const Locale* locale) {
  const Ref<Locale> current = locale ? Ref<Locale>(const_cast<Locale*>(locale)) : Locale::current();
  const icu::Locale icuLocale(current->icuIdentifier().c_str());
  const bool english = std::string_view(icuLocale.getLanguage()) == "en";
  const long double base =
      (style == ByteCountStyle::kMemory || style == ByteCountStyle::kBinary) ? 1024.0L : 1000.0L;

  if (count == 0) {
    if (english) return String::fromUTF8("Zero KB");
    return String::fromUTF8(formatNumber(icuLocale, 0, 0, icuUnit(1)));
  }

  const bool negative = count < 0;
  // The magnitude of INT64_MIN does not fit int64_t; long double holds it exactly.
  const long double magnitude =
      negative ? -static_cast<long double>(count) : static_cast<long double>(count);
  int unit = 0;
  long double value = magnitude;
  while (unit < kMaxUnit && value >= base) {
    value /= base;
    ++unit;
  }
  long double rounded = roundHalfUp(value, fractionDigits(unit));
  if (unit > 0 && unit < kMaxUnit && rounded >= base) {
    ++unit;
    rounded = roundHalfUp(rounded / base, fractionDigits(unit));
  }
  const long double shown = negative ? -rounded : rounded;

  std::string text;
  if (english) {
    text = formatNumber(icuLocale, shown, fractionDigits(unit), nullptr);
    text += ' ';
    text += (unit == 0 && magnitude == 1) ? "byte" : kEnglishUnits[unit];
  } else if (const icu::MeasureUnit* u = icuUnit(unit)) {
    text = formatNumber(icuLocale, shown, fractionDigits(unit), u);
  } else {
    text = formatNumber(icuLocale, shown, fractionDigits(unit), nullptr) + " EB";
  }
  return String::fromUTF8(text);
}

}  // namespace nk
