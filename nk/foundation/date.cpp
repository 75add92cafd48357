// Date: the clock, comparison and the description's calendar arithmetic.
#include "nk/foundation/date.hpp"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <functional>

#include "nk/foundation/class.hpp"
#include "nk/foundation/date_internal.hpp"

namespace nk {

NK_DEFINE_CLASS(Date, "Date", Class::kCopyable);

namespace date_internal {

namespace {

constexpr int64_t kSecondsPerDay = 86400;
// Days from 1970-01-01 to the reference date, and that day's Julian day number.
constexpr int64_t kReferenceDaysSince1970 = 11323;
constexpr int64_t kReferenceJulianDay = 2451911;
// Julian day number of 1582-10-15, the first Gregorian day.
constexpr int64_t kGregorianCutover = 2299161;
constexpr double kClamp = 1e14;

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
int64_t daysFromGregorian(int64_t y, int m, int d) {
  y -= m <= 2;
  const int64_t era = floorDiv(y, 400);
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void gregorianFromDays(int64_t z, CivilTime& t) {
  z += 719468;
  const int64_t era = floorDiv(z, 146097);
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  t.day = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  t.month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  t.year = yoe + era * 400 + (t.month <= 2);
}

void julianFromDayNumber(int64_t jdn, CivilTime& t) {
  const int64_t c = jdn + 32082;
  const int64_t d = floorDiv(4 * c + 3, 1461);
  const int64_t e = c - floorDiv(1461 * d, 4);
  const int64_t m = (5 * e + 2) / 153;
  t.day = static_cast<int>(e - (153 * m + 2) / 5 + 1);
  t.month = static_cast<int>(m + 3 - 12 * (m / 10));
  t.year = d - 4800 + m / 10;
}

int daysInMonth(int64_t year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month != 2) return kDays[month - 1];
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return leap ? 29 : 28;
}

}  // namespace

CivilTime civilFromSeconds(double seconds, Calendar calendar) {
  if (std::isnan(seconds)) seconds = 0;
  seconds = std::fmin(std::fmax(seconds, -kClamp), kClamp);
  const auto whole = static_cast<int64_t>(std::floor(seconds));
  const int64_t days = floorDiv(whole, kSecondsPerDay);
  const int64_t secondOfDay = whole - days * kSecondsPerDay;
  CivilTime t{};
  t.hour = static_cast<int>(secondOfDay / 3600);
  t.minute = static_cast<int>(secondOfDay / 60 % 60);
  t.second = static_cast<int>(secondOfDay % 60);
  const int64_t jdn = kReferenceJulianDay + days;
  if (calendar == Calendar::kHistoric && jdn < kGregorianCutover) {
    julianFromDayNumber(jdn, t);
  } else {
    gregorianFromDays(kReferenceDaysSince1970 + days, t);
  }
  return t;
}

std::optional<double> secondsFromCivil(const CivilTime& t) {
  if (t.year < -9999999 || t.year > 9999999 || t.month < 1 || t.month > 12 || t.day < 1 ||
      t.day > daysInMonth(t.year, t.month) || t.hour < 0 || t.hour > 23 || t.minute < 0 ||
      t.minute > 59 || t.second < 0 || t.second > 60) {
    return std::nullopt;
  }
  const int64_t days = daysFromGregorian(t.year, t.month, t.day) - kReferenceDaysSince1970;
  return static_cast<double>(days * kSecondsPerDay + t.hour * 3600 + t.minute * 60 + t.second);
}

}  // namespace date_internal

Ref<Date> Date::now() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  const double since1970 = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
  return fromTimeIntervalSince1970(since1970);
}

Ref<Date> Date::fromTimeIntervalSinceReferenceDate(TimeInterval seconds) {
  return Ref<Date>::adopt(new Date(seconds));
}

Ref<Date> Date::fromTimeIntervalSince1970(TimeInterval seconds) {
  return Ref<Date>::adopt(new Date(seconds - kTimeIntervalSince1970));
}

Ref<Date> Date::fromTimeIntervalSinceNow(TimeInterval seconds) {
  return Ref<Date>::adopt(new Date(now()->seconds_ + seconds));
}

Date* Date::distantPast() noexcept {
  static Date* const instance = [] {
    auto* d = new Date(-63114076800.0);
    d->makeImmortal();
    return d;
  }();
  return instance;
}

Date* Date::distantFuture() noexcept {
  static Date* const instance = [] {
    auto* d = new Date(63113904000.0);
    d->makeImmortal();
    return d;
  }();
  return instance;
}

TimeInterval Date::timeIntervalSinceNow() const { return seconds_ - now()->seconds_; }

Ref<Date> Date::byAddingTimeInterval(TimeInterval seconds) const {
  return fromTimeIntervalSinceReferenceDate(seconds_ + seconds);
}

int Date::compare(const Date& other) const noexcept {
  // NaN (from a malformed file, say) equals NaN and orders first, as in Number,
  // so that isEqual stays reflexive.
  const bool nan = std::isnan(seconds_);
  if (nan || std::isnan(other.seconds_))
    return nan == std::isnan(other.seconds_) ? 0 : (nan ? -1 : 1);
  if (seconds_ < other.seconds_) return -1;
  if (seconds_ > other.seconds_) return 1;
  return 0;
}

Ref<Date> Date::earlierDate(const Date* other) const {
  if (other && other->compare(*this) < 0) return Ref<Date>(const_cast<Date*>(other));
  return Ref<Date>(const_cast<Date*>(this));
}

Ref<Date> Date::laterDate(const Date* other) const {
  if (other && other->compare(*this) > 0) return Ref<Date>(const_cast<Date*>(other));
  return Ref<Date>(const_cast<Date*>(this));
}

bool Date::isEqualToDate(const Date* other) const noexcept {
  return other && (other == this || compare(*other) == 0);
}

bool Date::isEqual(const Object* other) const noexcept { return isEqualToDate(cast<Date>(other)); }

size_t Date::hash() const noexcept {
  // 0.0 and -0.0 are equal dates, and so are all NaNs: hash them alike.
  if (std::isnan(seconds_)) return 0x7ff8;
  return std::hash<double>()(seconds_ == 0 ? 0.0 : seconds_);
}

Ref<String> Date::description() const {
  const auto t = date_internal::civilFromSeconds(seconds_, date_internal::Calendar::kHistoric);
  const long long year = t.year > 0 ? t.year : 1 - t.year;
  char buf[64];
  const int n = std::snprintf(buf, sizeof buf, "%04lld-%02d-%02d %02d:%02d:%02d +0000", year,
                              t.month, t.day, t.hour, t.minute, t.second);
  return String::fromLatin1(std::string_view(buf, static_cast<size_t>(n)));
}

Id Date::copy() const { return Id(const_cast<Date*>(this)); }

}  // namespace nk
