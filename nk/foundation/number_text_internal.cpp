// Decimal text of numbers for the JSON writer: integers with a digit-pair
// table, and doubles in the shortest text that reads back exactly, made
// without std::to_chars for the doubles of everyday documents.
#include "nk/foundation/number_text_internal.hpp"

#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace nk::number_text_internal {
namespace {

// The text std::to_chars gives a double (the fewest significant digits that read
// back to the same value, the nearest such when several qualify; fixed notation
// unless scientific is shorter), made faster for a normal double from about
// 1e-20 to 2^54, exactly in integers. Others go to std::to_chars.

__extension__ typedef unsigned __int128 Uint128;  // a GCC and Clang extension

// 10^0 ... 10^38, the powers that fit in 128 bits.
constexpr auto kPowersOf10 = [] {
  std::array<Uint128, 39> t{};
  t[0] = 1;
  for (size_t i = 1; i < t.size(); ++i) t[i] = t[i - 1] * 10;
  return t;
}();

struct Scaled {
  uint64_t value;
  bool exact;
};

// floor(m * 10^q / 2^s) for m < 2^55, a result below 2^64 and 1 <= s <= 120,
// and whether the division left no remainder.
inline Scaled scale(uint64_t m, unsigned q, unsigned s) noexcept {
  const Uint128 p = kPowersOf10[q];
  const Uint128 low = Uint128{m} * static_cast<uint64_t>(p);
  const Uint128 high = Uint128{m} * static_cast<uint64_t>(p >> 64);
  // The 192-bit product is w2:w1:w0.
  const Uint128 middle = (low >> 64) + static_cast<uint64_t>(high);
  const uint64_t w0 = static_cast<uint64_t>(low);
  const uint64_t w1 = static_cast<uint64_t>(middle);
  const uint64_t w2 = static_cast<uint64_t>(high >> 64) + static_cast<uint64_t>(middle >> 64);
  if (s < 64) {
    const Uint128 x = (Uint128{w1} << 64) | w0;
    return {static_cast<uint64_t>(x >> s), (w0 & ((uint64_t{1} << s) - 1)) == 0};
  }
  const Uint128 x = (Uint128{w2} << 64) | w1;
  const uint64_t below = s == 64 ? 0 : w1 & ((uint64_t{1} << (s - 64)) - 1);
  return {static_cast<uint64_t>(x >> (s - 64)), w0 == 0 && below == 0};
}

// The shortest decimal digits and exponent of `d` (d = digits * 10^exponent,
// sign aside), when d is in the range this path handles.
struct Decimal {
  uint64_t digits;
  int exponent;
};

inline bool shortestDecimal(double d, Decimal& out) noexcept {
  const auto bits = std::bit_cast<uint64_t>(d);
  const auto biased = static_cast<int>((bits >> 52) & 0x7FF);
  const uint64_t fraction = bits & ((uint64_t{1} << 52) - 1);
  if (biased == 0 || biased == 0x7FF) return false;  // zero, subnormal, not finite
  // d = m2 * 2^e2; the neighbours' midpoints are (4 m2 - 2 or - 1) and
  // (4 m2 + 2) times 2^(e2 - 2), the lower gap halving at a power of two.
  const uint64_t m2 = fraction | (uint64_t{1} << 52);
  const int e2 = biased - 1075;
  const int shift = 2 - e2;
  if (shift < 1 || shift > 120) return false;
  const auto s = static_cast<unsigned>(shift);
  // The largest q with 10^q <= 2^(9 + s) would keep the upper bound below
  // 2^64; one less still leaves the bounds 13 units or more apart, so at least
  // one digit goes (and decides the rounding), and fewer are left to remove.
  const unsigned q = (((9 + s) * 78913) >> 18) - 1;
  const bool acceptBounds = (m2 & 1) == 0;
  const uint64_t mv = 4 * m2;
  const Scaled vr0 = scale(mv, q, s);
  const Scaled vp0 = scale(mv + 2, q, s);
  const Scaled vm0 = scale(mv - (fraction == 0 && biased > 1 ? 1 : 2), q, s);
  uint64_t vr = vr0.value;
  uint64_t vm = vm0.value;
  // An excluded upper bound that is a whole number is one unit too far.
  uint64_t vp = vp0.value - (!acceptBounds && vp0.exact ? 1 : 0);
  bool vmTrailingZeros = acceptBounds && vm0.exact;
  bool vrTrailingZeros = vr0.exact;
  int removed = 0;
  bool up;
  if (!vmTrailingZeros && !vrTrailingZeros) {
    // The usual case: only the first removed digit decides the rounding, and
    // two digits can go at once.
    bool roundUp = false;
    if (vp / 100 > vm / 100) {
      roundUp = vr % 100 >= 50;
      vr /= 100;
      vp /= 100;
      vm /= 100;
      removed = 2;
    }
    while (vp / 10 > vm / 10) {
      roundUp = vr % 10 >= 5;
      vr /= 10;
      vp /= 10;
      vm /= 10;
      ++removed;
    }
    up = vr == vm || roundUp;
  } else {
    unsigned lastRemoved = 0;
    const auto dropDigit = [&] {
      lastRemoved = static_cast<unsigned>(vr % 10);
      vr /= 10;
      vp /= 10;
      vm /= 10;
      ++removed;
    };
    while (vp / 10 > vm / 10) {
      vmTrailingZeros &= vm % 10 == 0;
      vrTrailingZeros &= lastRemoved == 0;
      dropDigit();
    }
    if (vmTrailingZeros) {
      // The lower bound itself qualifies: drop the zeros it still ends with.
      while (vm % 10 == 0) {
        vrTrailingZeros &= lastRemoved == 0;
        dropDigit();
      }
    }
    // An exact half rounds to even.
    if (vrTrailingZeros && lastRemoved == 5 && vr % 2 == 0) lastRemoved = 4;
    up = (vr == vm && (!acceptBounds || !vmTrailingZeros)) || lastRemoved >= 5;
  }
  out = {vr + (up ? 1 : 0), removed - static_cast<int>(q)};
  return true;
}

constexpr char kDigitPairs[] =
    "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
    "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
    "8081828384858687888990919293949596979899";

// Writes `v` < 10^8 as exactly eight digits at `p`, in two independent halves.
inline void eightDigits(uint32_t v, char* p) noexcept {
  const uint32_t high = v / 10000;
  const uint32_t low = v % 10000;
  std::memcpy(p, kDigitPairs + 2 * (high / 100), 2);
  std::memcpy(p + 2, kDigitPairs + 2 * (high % 100), 2);
  std::memcpy(p + 4, kDigitPairs + 2 * (low / 100), 2);
  std::memcpy(p + 6, kDigitPairs + 2 * (low % 100), 2);
}

// Writes the decimal digits of `v` to end just before `end`; returns their start.
inline char* digitsBefore(uint64_t v, char* end) noexcept {
  while (v >= 100000000) {
    end -= 8;
    eightDigits(static_cast<uint32_t>(v % 100000000), end);
    v /= 100000000;
  }
  auto rest = static_cast<uint32_t>(v);
  while (rest >= 100) {
    end -= 2;
    std::memcpy(end, kDigitPairs + 2 * (rest % 100), 2);
    rest /= 100;
  }
  if (rest >= 10) {
    end -= 2;
    std::memcpy(end, kDigitPairs + 2 * rest, 2);
  } else {
    *--end = static_cast<char>('0' + rest);
  }
  return end;
}

// The number of decimal digits of `v` (1 for 0).
inline int digitCount(uint64_t v) noexcept {
  static constexpr auto kPowers = [] {
    std::array<uint64_t, 20> t{};
    t[0] = 1;
    for (size_t i = 1; i < t.size(); ++i) t[i] = t[i - 1] * 10;
    return t;
  }();
  v |= 1;
  // floor(log10(2^(bits - 1))) + 1 is the count or one more.
  const int guess = ((64 - std::countl_zero(v)) * 1233) >> 12;
  return guess + (v >= kPowers[guess] ? 1 : 0);
}

}  // namespace

// Straight to their places: copying the digits from a scratch buffer reads back
// bytes just stored two at a time, which the processor cannot forward.
char* writeInteger(uint64_t magnitude, bool negative, char* p) noexcept {
  *p = '-';
  p += negative ? 1 : 0;
  const int n = digitCount(magnitude);
  digitsBefore(magnitude, p + n);
  return p + n;
}

char* writeDouble(double d, char* p) {
  Decimal dec;
  if (!shortestDecimal(d, dec)) return std::to_chars(p, p + kNumberRoom, d).ptr;
  if (std::signbit(d)) *p++ = '-';
  // At most 17 digits; the buffer leaves room for the fixed-size copies.
  char buffer[48];
  const char* digits = digitsBefore(dec.digits, buffer + 20);
  const auto n = static_cast<int>(buffer + 20 - digits);
  const int e = dec.exponent;
  const int scientificExponent = e + n - 1;
  const int scientificLength =
      n + (n > 1 ? 1 : 0) + 2 + (std::abs(scientificExponent) >= 100 ? 3 : 2);
  const int fixedLength = e >= 0 ? n + e : (n + e > 0 ? n + 1 : 2 - e);
  if (fixedLength <= scientificLength) {
    // Fixed notation is at most 23 characters here.
    constexpr char kZeros[] = "000000000000000000000000";
    if (e >= 0) {
      std::memcpy(p, digits, 24);
      std::memcpy(p + n, kZeros, 24);
      return p + n + e;
    }
    const int whole = n + e;
    if (whole > 0) {
      std::memcpy(p, digits, 24);
      p[whole] = '.';
      std::memcpy(p + whole + 1, digits + whole, 16);
      return p + n + 1;
    }
    p[0] = '0';
    p[1] = '.';
    std::memcpy(p + 2, kZeros, 24);
    std::memcpy(p + 2 - whole, digits, 24);
    return p + 2 - e;
  }
  p[0] = digits[0];
  p[1] = '.';
  std::memcpy(p + 2, digits + 1, 16);
  p += n > 1 ? n + 1 : 1;
  *p++ = 'e';
  *p++ = scientificExponent < 0 ? '-' : '+';
  const int x = std::abs(scientificExponent);
  if (x >= 100) {
    *p++ = static_cast<char>('0' + x / 100);
  }
  std::memcpy(p, kDigitPairs + 2 * (x % 100), 2);
  return p + 2;
}

}  // namespace nk::number_text_internal
