// Number and Boolean: construction, exact cross-type comparison, hashing and
// the shortest round-trip description of floating-point values.
#include "nk/foundation/number.hpp"

#include <charconv>
#include <cmath>
#include <cstring>
#include <string>

#include "nk/foundation/block_pool.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/number_internal.hpp"

namespace nk {

NK_DEFINE_CLASS(Number, "Number", Class::kCopyable);
NK_DEFINE_CLASS(Boolean, "Boolean");

namespace {

template <class T>
int order(T a, T b) noexcept {
  return a < b ? -1 : (b < a ? 1 : 0);
}

constexpr double kTwo63 = 9223372036854775808.0;
constexpr double kTwo64 = 18446744073709551616.0;

// Orders a non-NaN double against a signed integer without rounding either.
int compareDoubleToSigned(double d, int64_t i) noexcept {
  if (d >= kTwo63) return 1;
  if (d < -kTwo63) return -1;
  const double t = std::trunc(d);
  const int64_t ti = static_cast<int64_t>(t);
  if (ti != i) return order(ti, i);
  return order(d, t);
}

int compareDoubleToUnsigned(double d, uint64_t u) noexcept {
  if (d >= kTwo64) return 1;
  if (d < 0) return -1;
  const double t = std::trunc(d);
  const uint64_t tu = static_cast<uint64_t>(t);
  if (tu != u) return order(tu, u);
  return order(d, t);
}

}  // namespace

Number::Number(char type, Value value) noexcept : value_(value) {
  Kind kind = Kind::kSigned;
  switch (type) {
    case 'C':
    case 'S':
    case 'I':
    case 'L':
    case 'Q':
      kind = Kind::kUnsigned;
      break;
    case 'f':
    case 'd':
      kind = Kind::kFloating;
      break;
    default:
      break;
  }
  spare_ = static_cast<uint8_t>(type) | (static_cast<uint32_t>(kind) << 8);
}

Boolean::Boolean(bool value) noexcept : Number('B', Value{.i = value ? 1 : 0}) { makeImmortal(); }

// Each factory widens its argument to the 64-bit member of its kind.
Ref<Number> Number::withChar(char v) {
  return Ref<Number>::adopt(new Number('c', {.i = static_cast<signed char>(v)}));
}
Ref<Number> Number::withUnsignedChar(unsigned char v) {
  return Ref<Number>::adopt(new Number('C', {.u = v}));
}
Ref<Number> Number::withShort(short v) { return Ref<Number>::adopt(new Number('s', {.i = v})); }
Ref<Number> Number::withUnsignedShort(unsigned short v) {
  return Ref<Number>::adopt(new Number('S', {.u = v}));
}
Ref<Number> Number::withInt(int v) { return Ref<Number>::adopt(new Number('i', {.i = v})); }
Ref<Number> Number::withUnsignedInt(unsigned int v) {
  return Ref<Number>::adopt(new Number('I', {.u = v}));
}
Ref<Number> Number::withLong(long v) { return Ref<Number>::adopt(new Number('l', {.i = v})); }
Ref<Number> Number::withUnsignedLong(unsigned long v) {
  return Ref<Number>::adopt(new Number('L', {.u = v}));
}
Ref<Number> Number::withLongLong(long long v) {
  return Ref<Number>::adopt(new Number('q', {.i = v}));
}
Ref<Number> Number::withUnsignedLongLong(unsigned long long v) {
  return Ref<Number>::adopt(new Number('Q', {.u = v}));
}
Ref<Number> Number::withFloat(float v) {
  return Ref<Number>::adopt(new Number('f', {.d = static_cast<double>(v)}));
}
Ref<Number> Number::withDouble(double v) { return Ref<Number>::adopt(new Number('d', {.d = v})); }
Ref<Number> Number::withBool(bool v) { return Ref<Number>(v ? yes() : no()); }
Ref<Number> Number::withInteger(long v) { return Ref<Number>::adopt(new Number('q', {.i = v})); }
Ref<Number> Number::withUnsignedInteger(unsigned long v) {
  return Ref<Number>::adopt(new Number('Q', {.u = v}));
}

Boolean* Number::yes() noexcept {
  static Boolean* const instance = new Boolean(true);
  return instance;
}

Boolean* Number::no() noexcept {
  static Boolean* const instance = new Boolean(false);
  return instance;
}

double Number::doubleValue() const noexcept {
  switch (kind()) {
    case Kind::kSigned:
      return static_cast<double>(value_.i);
    case Kind::kUnsigned:
      return static_cast<double>(value_.u);
    case Kind::kFloating:
      break;
  }
  return value_.d;
}

float Number::floatValue() const noexcept {
  const double d = doubleValue();
  // Out of float range is undefined in C++; IEEE hardware gives infinity.
  if (std::isfinite(d) && std::fabs(d) > std::numeric_limits<float>::max()) {
    return d > 0 ? std::numeric_limits<float>::infinity() : -std::numeric_limits<float>::infinity();
  }
  return static_cast<float>(d);
}

bool Number::boolValue() const noexcept {
  switch (kind()) {
    case Kind::kSigned:
      return value_.i != 0;
    case Kind::kUnsigned:
      return value_.u != 0;
    case Kind::kFloating:
      break;
  }
  return value_.d != 0;  // NaN compares unequal to 0: true, as in C
}

int Number::compare(const Number& other) const noexcept {
  const Kind a = kind();
  const Kind b = other.kind();
  if (a == Kind::kFloating || b == Kind::kFloating) {
    if (a == Kind::kFloating && b == Kind::kFloating) {
      const double x = value_.d;
      const double y = other.value_.d;
      if (std::isnan(x)) return std::isnan(y) ? 0 : -1;
      if (std::isnan(y)) return 1;
      return order(x, y);
    }
    if (a == Kind::kFloating) {
      if (std::isnan(value_.d)) return -1;
      return b == Kind::kSigned ? compareDoubleToSigned(value_.d, other.value_.i)
                                : compareDoubleToUnsigned(value_.d, other.value_.u);
    }
    return -other.compare(*this);
  }
  if (a == b) {
    return a == Kind::kSigned ? order(value_.i, other.value_.i) : order(value_.u, other.value_.u);
  }
  if (a == Kind::kSigned) {
    if (value_.i < 0) return -1;
    return order(static_cast<uint64_t>(value_.i), other.value_.u);
  }
  if (other.value_.i < 0) return 1;
  return order(value_.u, static_cast<uint64_t>(other.value_.i));
}

bool Number::isEqualToNumber(const Number* other) const noexcept {
  return other && (other == this || compare(*other) == 0);
}

bool Number::isEqual(const Object* other) const noexcept {
  return isEqualToNumber(cast<Number>(other));
}

size_t Number::hash() const noexcept {
  switch (kind()) {
    case Kind::kSigned:
      return number_internal::hashInteger(static_cast<uint64_t>(value_.i));
    case Kind::kUnsigned:
      return number_internal::hashInteger(value_.u);
    case Kind::kFloating:
      break;
  }
  return number_internal::hashDouble(value_.d);
}

Ref<String> Number::description() const {
  char buf[64];
  switch (kind()) {
    case Kind::kSigned: {
      const auto r = std::to_chars(buf, buf + sizeof buf, value_.i);
      return String::fromLatin1(std::string_view(buf, r.ptr - buf));
    }
    case Kind::kUnsigned: {
      const auto r = std::to_chars(buf, buf + sizeof buf, value_.u);
      return String::fromLatin1(std::string_view(buf, r.ptr - buf));
    }
    case Kind::kFloating:
      break;
  }
  const std::string text = objCType() == 'f'
                               ? number_internal::shortestText(static_cast<float>(value_.d))
                               : number_internal::shortestText(value_.d);
  return String::fromLatin1(text);
}

Id Number::copy() const { return Id(const_cast<Number*>(this)); }

void* Number::operator new(size_t size) { return block_pool::allocate(size); }
void Number::operator delete(void* p, size_t size) noexcept { block_pool::deallocate(p, size); }

namespace number_internal {

size_t hashInteger(uint64_t bits) noexcept {
  // Finaliser of splitmix64: cheap and spreads neighbouring integers apart.
  bits ^= bits >> 30;
  bits *= 0xbf58476d1ce4e5b9ULL;
  bits ^= bits >> 27;
  bits *= 0x94d049bb133111ebULL;
  bits ^= bits >> 31;
  return static_cast<size_t>(bits);
}

size_t hashDouble(double d) noexcept {
  if (std::isnan(d)) return 0x7ff8000000000000ULL;
  // Integral values hash like the integer they equal (0.0 and -0.0 included).
  if (d == std::trunc(d) && d >= -kTwo63 && d < kTwo64) {
    return d < 0 ? hashInteger(static_cast<uint64_t>(static_cast<int64_t>(d)))
                 : hashInteger(static_cast<uint64_t>(d));
  }
  uint64_t bits;
  std::memcpy(&bits, &d, sizeof bits);
  return hashInteger(bits);
}

namespace {

// Lays out the digits and decimal exponent of a shortest scientific form.
std::string layOut(std::string_view sci) {
  std::string out;
  if (!sci.empty() && sci.front() == '-') {
    out.push_back('-');
    sci.remove_prefix(1);
  }
  const size_t e = sci.find('e');
  std::string digits;
  for (char c : sci.substr(0, e)) {
    if (c != '.') digits.push_back(c);
  }
  int exp = 0;
  std::string_view expText = sci.substr(e + 1);
  if (!expText.empty() && expText.front() == '+') expText.remove_prefix(1);
  std::from_chars(expText.data(), expText.data() + expText.size(), exp);

  const int n = static_cast<int>(digits.size());
  if (exp >= -4 && exp < 21) {
    if (exp < 0) {
      out += "0.";
      out.append(static_cast<size_t>(-exp - 1), '0');
      out += digits;
    } else if (n <= exp + 1) {
      out += digits;
      out.append(static_cast<size_t>(exp + 1 - n), '0');
    } else {
      out.append(digits, 0, static_cast<size_t>(exp + 1));
      out.push_back('.');
      out.append(digits, static_cast<size_t>(exp + 1));
    }
    return out;
  }
  out.push_back(digits[0]);
  if (n > 1) {
    out.push_back('.');
    out.append(digits, 1);
  }
  out.push_back('e');
  out.push_back(exp < 0 ? '-' : '+');
  const int mag = exp < 0 ? -exp : exp;
  if (mag < 10) out.push_back('0');
  out += std::to_string(mag);
  return out;
}

template <class F>
std::string shortest(F value) {
  if (std::isnan(value)) return "nan";
  if (std::isinf(value)) return value < 0 ? "-inf" : "inf";
  if (value == 0) return std::signbit(value) ? "-0" : "0";
  char buf[64];
  const auto r = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::scientific);
  return layOut(std::string_view(buf, r.ptr - buf));
}

}  // namespace

std::string shortestText(double value) { return shortest(value); }
std::string shortestText(float value) { return shortest(value); }

}  // namespace number_internal
}  // namespace nk
