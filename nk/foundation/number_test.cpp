// Tests of Number and Boolean: type codes, cross-type equality and hashing,
// ordering, C-style conversions and descriptions.
#include "nk/foundation/number.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>
#include <utility>
#include <vector>

#include "nk/foundation/class.hpp"
#include "nk/foundation/exception.hpp"

namespace nk {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(Number, KeepsTheTypeCodeItWasMadeFrom) {
  const std::pair<Ref<Number>, char> rows[] = {
      {Number::withChar('a'), 'c'},
      {Number::withUnsignedChar(200), 'C'},
      {Number::withShort(-3), 's'},
      {Number::withUnsignedShort(3), 'S'},
      {Number::withInt(-7), 'i'},
      {Number::withUnsignedInt(7), 'I'},
      {Number::withLong(-8), 'l'},
      {Number::withUnsignedLong(8), 'L'},
      {Number::withLongLong(-9), 'q'},
      {Number::withUnsignedLongLong(9), 'Q'},
      {Number::withFloat(1.5f), 'f'},
      {Number::withDouble(2.5), 'd'},
      {Number::withBool(true), 'B'},
      {Number::withInteger(4), 'q'},
      {Number::withUnsignedInteger(4), 'Q'},
  };
  for (const auto& [number, code] : rows) {
    EXPECT_EQ(number->objCType(), code) << code;
    EXPECT_EQ(number->isFloatingPoint(), code == 'f' || code == 'd') << code;
  }
  // Values survive the trip through the 64-bit storage of their kind.
  EXPECT_EQ(Number::withUnsignedChar(200)->intValue(), 200);
  EXPECT_EQ(Number::withChar(static_cast<char>(-56))->intValue(), -56);
  EXPECT_EQ(Number::withUnsignedLongLong(UINT64_MAX)->unsignedLongLongValue(), UINT64_MAX);
  EXPECT_EQ(Number::withLongLong(INT64_MIN)->longLongValue(), INT64_MIN);
  EXPECT_EQ(Number::withFloat(0.1f)->floatValue(), 0.1f);
}

TEST(Number, EqualityAcrossTypesAgreesWithHash) {
  const double two63 = 9223372036854775808.0;
  const std::tuple<Ref<Number>, Ref<Number>, bool, const char*> rows[] = {
      {Number::withInt(1), Number::withDouble(1.0), true, "int 1 == double 1.0"},
      {Number::withInt(1), Number::withBool(true), true, "int 1 == YES"},
      {Number::withChar(1), Number::withDouble(1.0), true, "char 1 == double 1.0"},
      {Number::withUnsignedLongLong(1), Number::withShort(1), true, "Q 1 == s 1"},
      {Number::withFloat(1.0f), Number::withBool(true), true, "float 1 == YES"},
      {Number::withBool(false), Number::withDouble(-0.0), true, "NO == -0.0"},
      {Number::withDouble(0.0), Number::withDouble(-0.0), true, "0.0 == -0.0"},
      {Number::withDouble(0.5), Number::withInt(0), false, "0.5 != 0"},
      {Number::withDouble(0.5), Number::withInt(1), false, "0.5 != 1"},
      {Number::withUnsignedLongLong(UINT64_MAX), Number::withLongLong(-1), false,
       "UINT64_MAX != -1"},
      {Number::withUnsignedInt(UINT32_MAX), Number::withInt(-1), false, "UINT_MAX != -1"},
      {Number::withDouble(kNaN), Number::withDouble(kNaN), true, "NaN == NaN"},
      {Number::withFloat(NAN), Number::withDouble(kNaN), true, "float NaN == double NaN"},
      {Number::withDouble(kNaN), Number::withInt(0), false, "NaN != 0"},
      {Number::withDouble(kInf), Number::withDouble(kInf), true, "inf == inf"},
      {Number::withDouble(kInf), Number::withUnsignedLongLong(UINT64_MAX), false,
       "inf != UINT64_MAX"},
      // Exact, not through a rounding conversion to double.
      {Number::withLongLong(INT64_MAX), Number::withDouble(two63), false, "INT64_MAX != 2^63"},
      {Number::withUnsignedLongLong(1ULL << 63), Number::withDouble(two63), true, "Q 2^63 == 2^63"},
      {Number::withLongLong(INT64_MIN), Number::withDouble(-two63), true, "INT64_MIN == -2^63"},
      {Number::withLongLong((1LL << 53) + 1), Number::withDouble(9007199254740992.0), false,
       "2^53+1 != 2^53"},
      {Number::withFloat(0.1f), Number::withDouble(0.1), false, "0.1f != 0.1"},
      {Number::withFloat(0.5f), Number::withDouble(0.5), true, "0.5f == 0.5"},
      {Number::withBool(true), Number::withBool(false), false, "YES != NO"},
  };
  for (const auto& [a, b, equal, what] : rows) {
    EXPECT_EQ(a->isEqual(b.get()), equal) << what;
    EXPECT_EQ(b->isEqual(a.get()), equal) << what << " (reversed)";
    if (equal) {
      EXPECT_EQ(a->hash(), b->hash()) << what;
    }
  }
  // Numbers are never equal to nil or to other kinds of objects.
  EXPECT_FALSE(Number::withInt(0)->isEqual(nullptr));
  EXPECT_FALSE(Number::withInt(1)->isEqual(String::fromUTF8("1").get()));
}

TEST(Number, OrdersByValue) {
  // Strictly increasing; NaN orders below everything.
  const std::vector<Ref<Number>> ascending = {
      Number::withDouble(kNaN),
      Number::withDouble(-kInf),
      Number::withLongLong(INT64_MIN),
      Number::withDouble(-1.5),
      Number::withInt(-1),
      Number::withDouble(-0.25),
      Number::withBool(false),
      Number::withFloat(0.5f),
      Number::withUnsignedChar(1),
      Number::withDouble(1.0000001),
      Number::withLongLong(INT64_MAX),
      Number::withDouble(9223372036854775808.0),
      Number::withUnsignedLongLong(UINT64_MAX),
      Number::withDouble(1e300),
      Number::withDouble(kInf),
  };
  for (size_t i = 0; i < ascending.size(); ++i) {
    EXPECT_EQ(ascending[i]->compare(*ascending[i]), 0) << i;
    for (size_t j = i + 1; j < ascending.size(); ++j) {
      EXPECT_EQ(ascending[i]->compare(*ascending[j]), -1) << i << " < " << j;
      EXPECT_EQ(ascending[j]->compare(*ascending[i]), 1) << j << " > " << i;
    }
  }
}

TEST(Number, ConvertsAsCDoes) {
  // Floating-point to integer truncates toward zero.
  EXPECT_EQ(Number::withDouble(3.9)->intValue(), 3);
  EXPECT_EQ(Number::withDouble(-3.9)->intValue(), -3);
  EXPECT_EQ(Number::withDouble(-0.5)->unsignedIntValue(), 0u);
  // Integers wrap to narrower and unsigned types.
  EXPECT_EQ(Number::withInt(-1)->unsignedIntValue(), UINT32_MAX);
  EXPECT_EQ(Number::withInt(300)->charValue(), 44);
  EXPECT_EQ(Number::withUnsignedLongLong(UINT64_MAX)->longLongValue(), -1);
  EXPECT_EQ(Number::withLongLong(-2)->unsignedLongLongValue(), UINT64_MAX - 1);
  // What C leaves undefined saturates, NaN gives 0.
  EXPECT_EQ(Number::withDouble(1e300)->intValue(), INT32_MAX);
  EXPECT_EQ(Number::withDouble(-1e300)->longLongValue(), INT64_MIN);
  EXPECT_EQ(Number::withDouble(1e300)->unsignedLongLongValue(), UINT64_MAX);
  EXPECT_EQ(Number::withDouble(-7.0)->unsignedLongLongValue(), 0u);
  EXPECT_EQ(Number::withDouble(kNaN)->longValue(), 0);
  EXPECT_EQ(Number::withDouble(1e300)->floatValue(), std::numeric_limits<float>::infinity());
  // Booleans.
  EXPECT_FALSE(Number::withDouble(0.0)->boolValue());
  EXPECT_TRUE(Number::withDouble(0.1)->boolValue());
  EXPECT_TRUE(Number::withDouble(kNaN)->boolValue());
  EXPECT_TRUE(Number::withUnsignedLongLong(1ULL << 40)->boolValue());
  EXPECT_EQ(Number::yes()->intValue(), 1);
  EXPECT_EQ(Number::withUnsignedLongLong(UINT64_MAX)->doubleValue(), 18446744073709551616.0);
}

TEST(Number, Descriptions) {
  const std::pair<Ref<Number>, const char*> rows[] = {
      {Number::withInt(-42), "-42"},
      {Number::withChar('a'), "97"},
      {Number::withUnsignedLongLong(UINT64_MAX), "18446744073709551615"},
      {Number::withLongLong(INT64_MIN), "-9223372036854775808"},
      {Number::withBool(true), "1"},
      {Number::withBool(false), "0"},
      {Number::withDouble(0.1), "0.1"},
      {Number::withDouble(1.5), "1.5"},
      {Number::withDouble(-2.5), "-2.5"},
      {Number::withDouble(1.0), "1"},
      {Number::withDouble(100.0), "100"},
      {Number::withDouble(1.0 / 3), "0.3333333333333333"},
      {Number::withDouble(1e20), "100000000000000000000"},
      {Number::withDouble(1.2345678901234567e20), "123456789012345670000"},
      {Number::withDouble(1e21), "1e+21"},
      {Number::withDouble(1.5e300), "1.5e+300"},
      {Number::withDouble(0.0001), "0.0001"},
      {Number::withDouble(0.00012), "0.00012"},
      {Number::withDouble(0.00001), "1e-05"},
      {Number::withDouble(1.25e-7), "1.25e-07"},
      {Number::withDouble(1e-300), "1e-300"},
      {Number::withDouble(std::numeric_limits<double>::max()), "1.7976931348623157e+308"},
      {Number::withDouble(5e-324), "5e-324"},
      {Number::withDouble(-0.0), "-0"},
      {Number::withDouble(kNaN), "nan"},
      {Number::withDouble(kInf), "inf"},
      {Number::withDouble(-kInf), "-inf"},
      // Floats print with float precision, not as the widened double.
      {Number::withFloat(0.1f), "0.1"},
      {Number::withFloat(16777216.0f), "16777216"},
      {Number::withFloat(3.4028235e38f), "3.4028235e+38"},
  };
  for (const auto& [number, text] : rows) EXPECT_EQ(number->description()->utf8(), text) << text;
  // Every double prints in a form that reads back to the same value.
  for (double d : {0.1, 2.0 / 3, 123456.789, 1e-5, 6.02214076e23, 4.9e-324, -1e21}) {
    const std::string text = Number::withDouble(d)->description()->utf8();
    EXPECT_EQ(std::strtod(text.c_str(), nullptr), d) << text;
  }
}

TEST(Boolean, IsADistinctClassButEqualInValue) {
  Ref<Number> yes = Number::withBool(true);
  Ref<Number> one = Number::withInt(1);
  EXPECT_TRUE(yes->isMemberOfClass(Boolean::staticClass()));
  EXPECT_TRUE(yes->isKindOfClass(Number::staticClass()));
  EXPECT_FALSE(one->isKindOfClass(Boolean::staticClass()));
  EXPECT_TRUE(yes->isEqual(one.get()));
  EXPECT_TRUE(yes->isBoolean());
  EXPECT_FALSE(one->isBoolean());

  // Shared, immortal instances: withBool hands out the same two objects.
  EXPECT_EQ(yes.get(), Number::yes());
  EXPECT_EQ(Number::withBool(false).get(), Number::no());
  EXPECT_TRUE(Number::yes()->isImmortal());
  EXPECT_TRUE(Number::yes()->value());
  EXPECT_FALSE(Number::no()->value());
}

TEST(Number, IsImmutableAndCopyable) {
  Ref<Number> n = Number::withDouble(2.5);
  EXPECT_TRUE(n->conformsToCopying());
  EXPECT_EQ(n->copy().get(), n.get());
  EXPECT_EQ(Number::yes()->copy().get(), Number::yes());
  EXPECT_THROW((void)n->mutableCopy(), ThrownObject);
}

}  // namespace
}  // namespace nk
