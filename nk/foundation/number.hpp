// Number and Boolean: the numeric values of the object model.
//
// A Number remembers the C type it was made from (its type code) and compares by
// value across types. Booleans are a class of their own with two shared instances,
// so that writers can tell `true` from `1`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

class Boolean;

// An immutable number. Type codes: 'c' char, 'C' unsigned char, 's' short,
// 'S' unsigned short, 'i' int, 'I' unsigned int, 'l' long, 'L' unsigned long,
// 'q' long long, 'Q' unsigned long long, 'f' float, 'd' double, 'B' bool.
//
// Equality is by mathematical value whatever the types: 1 == 1.0 == YES ==
// (char)1, 0.5 != 0, UINT64_MAX != -1. Comparison between an integer and a
// floating-point value is exact (no rounding through double). NaN equals NaN and
// orders below every other number. Equal numbers hash alike.
class Number : public Object {
  NK_DECLARE_CLASS(Number, Object)

 public:
  static Ref<Number> withChar(char value);  // 'c', stored as signed char
  static Ref<Number> withUnsignedChar(unsigned char value);
  static Ref<Number> withShort(short value);
  static Ref<Number> withUnsignedShort(unsigned short value);
  static Ref<Number> withInt(int value);
  static Ref<Number> withUnsignedInt(unsigned int value);
  static Ref<Number> withLong(long value);
  static Ref<Number> withUnsignedLong(unsigned long value);
  static Ref<Number> withLongLong(long long value);
  static Ref<Number> withUnsignedLongLong(unsigned long long value);
  static Ref<Number> withFloat(float value);
  static Ref<Number> withDouble(double value);
  // One of the two shared Boolean instances.
  static Ref<Number> withBool(bool value);
  // The platform's word-sized integers: 'q' and 'Q'.
  static Ref<Number> withInteger(long value);
  static Ref<Number> withUnsignedInteger(unsigned long value);

  // The shared, never freed Boolean instances.
  static Boolean* yes() noexcept;
  static Boolean* no() noexcept;

  // The type code the number was made with.
  char objCType() const noexcept { return static_cast<char>(spare_ & 0xff); }
  bool isFloatingPoint() const noexcept { return kind() == Kind::kFloating; }
  bool isBoolean() const noexcept { return objCType() == 'B'; }

  // Value accessors convert as a C cast does: integers wrap, floating-point
  // values truncate toward zero. Where C leaves the result undefined (a
  // floating-point value out of the target's range, NaN) they saturate to the
  // target's limits and give 0 for NaN.
  char charValue() const noexcept { return as<signed char>(); }
  unsigned char unsignedCharValue() const noexcept { return as<unsigned char>(); }
  short shortValue() const noexcept { return as<short>(); }
  unsigned short unsignedShortValue() const noexcept { return as<unsigned short>(); }
  int intValue() const noexcept { return as<int>(); }
  unsigned int unsignedIntValue() const noexcept { return as<unsigned int>(); }
  long longValue() const noexcept { return as<long>(); }
  unsigned long unsignedLongValue() const noexcept { return as<unsigned long>(); }
  long long longLongValue() const noexcept { return as<long long>(); }
  unsigned long long unsignedLongLongValue() const noexcept { return as<unsigned long long>(); }
  long integerValue() const noexcept { return as<long>(); }
  unsigned long unsignedIntegerValue() const noexcept { return as<unsigned long>(); }
  double doubleValue() const noexcept;
  float floatValue() const noexcept;
  // Non-zero is true (NaN included, as in C).
  bool boolValue() const noexcept;

  // The description.
  Ref<String> stringValue() const { return description(); }

  // -1, 0 or 1 as this number is less than, equal to or greater than `other`.
  int compare(const Number& other) const noexcept;
  // Nil is unequal to every number.
  bool isEqualToNumber(const Number* other) const noexcept;

  bool isEqual(const Object* other) const noexcept override;
  size_t hash() const noexcept override;
  // Integers in decimal; Booleans "1" and "0"; floating-point values in the
  // shortest form that reads back to the same value, written out in full for
  // decimal exponents -4 to 20 and as "1e+21", "1e-05" (at least two exponent
  // digits) outside; "nan", "inf" and "-inf" for the special values.
  Ref<String> description() const override;
  // Numbers are immutable: copy returns the number itself.
  Id copy() const override;

  // Numbers come from the per-thread block pool.
  static void* operator new(size_t size);
  static void operator delete(void* p, size_t size) noexcept;

 protected:
  enum class Kind : uint8_t { kSigned, kUnsigned, kFloating };
  union Value {
    int64_t i;
    uint64_t u;
    double d;
  };

  Number(char type, Value value) noexcept;

  Kind kind() const noexcept { return static_cast<Kind>((spare_ >> 8) & 0xff); }

 private:
  template <class T>
  T as() const noexcept;
  template <class T>
  static T fromDouble(double d) noexcept;

  Value value_;
};

// The class of the two shared Boolean numbers (type code 'B', value 1 or 0).
class Boolean final : public Number {
  NK_DECLARE_CLASS(Boolean, Number)

 public:
  bool value() const noexcept { return boolValue(); }

 private:
  friend class Number;
  explicit Boolean(bool value) noexcept;
};

template <class T>
T Number::fromDouble(double d) noexcept {
  constexpr int kDigits = std::numeric_limits<T>::digits;
  if (d != d) return 0;
  // Both limits are powers of two, exact in a double.
  constexpr double kHigh = static_cast<double>(uint64_t{1} << (kDigits - 1)) * 2.0;
  constexpr double kLow = std::numeric_limits<T>::is_signed ? -kHigh : 0.0;
  if (d >= kHigh) return std::numeric_limits<T>::max();
  if (d <= kLow - 1.0) return std::numeric_limits<T>::min();
  return static_cast<T>(d);
}

template <class T>
T Number::as() const noexcept {
  switch (kind()) {
    case Kind::kSigned:
      return static_cast<T>(value_.i);
    case Kind::kUnsigned:
      return static_cast<T>(value_.u);
    case Kind::kFloating:
      break;
  }
  return fromDouble<T>(value_.d);
}

}  // namespace nk
