// Tests of the JSON writer: exact output for each option, escaping, number
// texts, the objects it refuses, and round trips through the reader.
#include "nk/foundation/json_writer.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/json_serialization.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

std::string write(const Object* o, unsigned options = 0, Ref<Error>* error = nullptr) {
  Ref<Data> d = writeJSON(o, options, error);
  if (!d) return "(refused)";
  return std::string(reinterpret_cast<const char*>(d->bytes()), d->length());
}
std::string write(const Id& o, unsigned options = 0, Ref<Error>* error = nullptr) {
  return write(o.get(), options, error);
}

Id sample() {
  return Dictionary::make(
      {{NK_STR("b"), Array::make({Number::withInt(1), Number::yes(), Null::null()})},
       {NK_STR("a"), NK_STR("x")},
       {NK_STR("e"), Array::make()},
       {NK_STR("d"), Dictionary::make()}});
}

TEST(JSONWriter, CompactPrettyAndSorted) {
  {  // compact, keys in insertion order
    EXPECT_EQ(write(sample()), R"({"b":[1,true,null],"a":"x","e":[],"d":{}})");
  }
  {  // pretty: two spaces, " : ", empty containers with a blank line
    EXPECT_EQ(write(sample(), kJSONWritingPrettyPrinted),
              "{\n"
              "  \"b\" : [\n"
              "    1,\n"
              "    true,\n"
              "    null\n"
              "  ],\n"
              "  \"a\" : \"x\",\n"
              "  \"e\" : [\n"
              "\n"
              "  ],\n"
              "  \"d\" : {\n"
              "\n"
              "  }\n"
              "}");
    EXPECT_EQ(write(Array::make(), kJSONWritingPrettyPrinted), "[\n\n]");
  }
  {  // deep indentation: line k of the opening half is indented 2k spaces
    Id nested = Number::withInt(1);
    for (int i = 0; i < 9; ++i) nested = Array::make({nested});
    std::string expected = "[";
    for (int k = 1; k < 9; ++k) expected += "\n" + std::string(2 * k, ' ') + "[";
    expected += "\n" + std::string(18, ' ') + "1";
    for (int k = 8; k >= 0; --k) expected += "\n" + std::string(2 * k, ' ') + "]";
    EXPECT_EQ(write(nested, kJSONWritingPrettyPrinted), expected);
  }
  {  // sorted by UTF-16 code units, at every level
    auto d = Dictionary::make({{NK_STR("b"), Dictionary::make({{NK_STR("z"), Number::withInt(1)},
                                                               {NK_STR("y"), Number::withInt(2)}})},
                               {String::fromUTF8("\xC3\xA9"), Number::withInt(3)},
                               {NK_STR("B"), Number::withInt(4)},
                               {NK_STR("a"), Number::withInt(5)}});
    EXPECT_EQ(write(d, kJSONWritingSortedKeys),
              "{\"B\":4,\"a\":5,\"b\":{\"y\":2,\"z\":1},\"\xC3\xA9\":3}");
    EXPECT_EQ(write(d, kJSONWritingSortedKeys | kJSONWritingPrettyPrinted).substr(0, 12),
              "{\n  \"B\" : 4,");
  }
  {  // fragments only with option 4
    EXPECT_EQ(write(NK_STR("a/b"), kJSONWritingFragmentsAllowed), R"("a\/b")");
    EXPECT_EQ(write(Number::withInt(3), kJSONWritingFragmentsAllowed), "3");
    EXPECT_EQ(write(Null::null(), kJSONWritingFragmentsAllowed), "null");
    EXPECT_EQ(write(NK_STR("a")), "(refused)");
  }
}

TEST(JSONWriter, EscapesAndEncodesStrings) {
  auto one = [](const Ref<String>& s, unsigned options = 0) {
    return write(Array::make({s}), options);
  };
  {  // slashes unless option 8; quotes, backslashes and control characters
    EXPECT_EQ(one(NK_STR("a/b")), R"(["a\/b"])");
    EXPECT_EQ(one(NK_STR("a/b"), kJSONWritingWithoutEscapingSlashes), R"(["a/b"])");
    EXPECT_EQ(one(NK_STR("\"\\\b\f\n\r\t")), R"(["\"\\\b\f\n\r\t"])");
    EXPECT_EQ(one(String::fromLatin1(std::string("\x00\x01\x1f\x7f", 4))),
              "[\"\\u0000\\u0001\\u001f\x7f\"]");
  }
  {  // non-ASCII from the compact form and from UTF-16, pairs as one sequence
    EXPECT_EQ(one(String::fromLatin1("caf\xE9\xFF")), "[\"caf\xC3\xA9\xC3\xBF\"]");
    EXPECT_EQ(one(String::fromUTF8("\xE2\x82\xAC/\xF0\x9F\x98\x80\n")),
              "[\"\xE2\x82\xAC\\/\xF0\x9F\x98\x80\\n\"]");
  }
  {  // long strings, escapes and pairs across the writer's internal slices
    std::u16string units;
    for (int i = 0; i < 40000; ++i)
      units += (i % 2 == 0) ? u"\U0001F600" : u"/";  // a pair at 16383
    auto long16 = String::withCharacters(units);
    std::string latin(50000, 'a');
    for (size_t i = 0; i < latin.size(); i += 7) latin[i] = '\n';
    auto longLatin = String::fromLatin1(latin + "\xE9");
    for (const auto& s : {long16, longLatin}) {
      Ref<Data> text = writeJSON(Array::make({s}).get(), 0, nullptr);
      ASSERT_TRUE(text);
      auto back = cast<Array>(readJSON(text->span(), 0, nullptr));
      ASSERT_TRUE(back);
      EXPECT_TRUE(isEqual(back->objectAtIndex(0), s));
    }
  }
  {  // an unpaired surrogate has no UTF-8 form
    Ref<Error> error;
    EXPECT_EQ(write(Array::make({String::withCharacters(u"a\xD800")}), 0, &error), "(refused)");
    ASSERT_TRUE(error);
    EXPECT_EQ(error->localizedDescription()->utf8(), "Unpaired surrogate in JSON string");
    EXPECT_EQ(one(String::withCharacters(u"\xDC00")), "(refused)");
  }
}

TEST(JSONWriter, NumberTexts) {
  auto one = [](const Ref<Number>& n) { return write(Array::make({n})); };
  {  // Booleans are words, every other number is a number
    EXPECT_EQ(one(Number::withBool(true)), "[true]");
    EXPECT_EQ(one(Number::withBool(false)), "[false]");
    EXPECT_EQ(one(Number::withInt(1)), "[1]");
    EXPECT_EQ(one(Number::withChar(1)), "[1]");
    EXPECT_EQ(one(Number::withChar(-5)), "[-5]");
  }
  {  // the integer extremes
    EXPECT_EQ(one(Number::withLongLong(std::numeric_limits<long long>::min())),
              "[-9223372036854775808]");
    EXPECT_EQ(one(Number::withUnsignedLongLong(std::numeric_limits<unsigned long long>::max())),
              "[18446744073709551615]");
    EXPECT_EQ(one(Number::withUnsignedChar(200)), "[200]");
  }
  {  // doubles and floats in their shortest exact text
    EXPECT_EQ(one(Number::withDouble(0.1)), "[0.1]");
    EXPECT_EQ(one(Number::withDouble(3.0)), "[3]");
    EXPECT_EQ(one(Number::withDouble(-0.0)), "[-0]");
    EXPECT_EQ(one(Number::withDouble(1e21)), "[1e+21]");
    EXPECT_EQ(one(Number::withDouble(5e-324)), "[5e-324]");
    EXPECT_EQ(one(Number::withFloat(0.1f)), "[0.1]");
  }
  {  // random doubles read back bit for bit
    std::mt19937_64 rng(7);
    for (int i = 0; i < 2000; ++i) {
      double d;
      do {
        const uint64_t bits = rng();
        std::memcpy(&d, &bits, sizeof d);
      } while (!std::isfinite(d));
      Ref<Data> text = writeJSON(Array::make({Number::withDouble(d)}).get(), 0, nullptr);
      ASSERT_TRUE(text);
      auto back = cast<Array>(readJSON(text->span(), 0, nullptr));
      ASSERT_TRUE(back);
      const double r = cast<Number>(back->objectAtIndex(0))->doubleValue();
      ASSERT_EQ(std::memcmp(&r, &d, sizeof d), 0) << d;
    }
  }
}

TEST(JSONWriter, RefusesWhatJSONCannotHold) {
  auto refusal = [](const Object* o, unsigned options = 0) -> std::string {
    Ref<Error> error;
    if (writeJSON(o, options, &error)) return "(accepted)";
    EXPECT_TRUE(error);
    if (!error) return "";
    EXPECT_TRUE(error->domain()->isEqualToString(NK_STR("NSCocoaErrorDomain")));
    EXPECT_EQ(error->code(), kJSONWritingInvalidError);
    return error->localizedDescription()->utf8();
  };
  EXPECT_EQ(refusal(Array::make({Number::withDouble(NAN)}).get()),
            "Invalid number value (NaN) in JSON write");
  EXPECT_EQ(refusal(Array::make({Number::withDouble(-INFINITY)}).get()),
            "Invalid number value (infinite) in JSON write");
  EXPECT_EQ(refusal(Array::make({Number::withFloat(INFINITY)}).get()),
            "Invalid number value (infinite) in JSON write");
  EXPECT_EQ(refusal(Array::make({Data::fromBytes("ab", 2)}).get()),
            "Invalid type in JSON write (" + Data::staticClass().name() + ")");
  EXPECT_EQ(refusal(Dictionary::make({{Number::withInt(1), NK_STR("v")}}).get()),
            "Invalid (non-string) key in JSON dictionary");
  EXPECT_EQ(
      refusal(
          Dictionary::make({{Number::withInt(1), NK_STR("v")}, {NK_STR("a"), NK_STR("w")}}).get(),
          kJSONWritingSortedKeys),
      "Invalid (non-string) key in JSON dictionary");
  EXPECT_EQ(refusal(NK_STR("s")), "Invalid top-level type in JSON write");
  EXPECT_EQ(refusal(nullptr), "Invalid (nil) object in JSON write");
  {  // a container holding itself: the depth limit stops the walk
    auto loop = MutableArray::make();
    loop->addObject(loop);
    EXPECT_EQ(refusal(loop.get()), "Too deeply nested for JSON write");
    loop->removeAllObjects();  // break the cycle so the array is freed
  }
  {  // isValidJSONObject agrees, and wants a container at the top
    EXPECT_TRUE(JSONSerialization::isValidJSONObject(sample().get()));
    EXPECT_FALSE(JSONSerialization::isValidJSONObject(NK_STR("s")));
    EXPECT_TRUE(isValidJSONObject(NK_STR("s"), kJSONWritingFragmentsAllowed));
    EXPECT_FALSE(isValidJSONObject(Array::make({Number::withDouble(NAN)}).get()));
  }
}

TEST(JSONWriter, RoundTripsThroughTheReader) {
  Id original = Dictionary::make(
      {{NK_STR("s"), String::fromUTF8("\xF0\x9F\x98\x80 \"q\" \\ / \x01")},
       {NK_STR("n"), Array::make({Number::withLongLong(-7), Number::withDouble(2.5e-300),
                                  Number::withUnsignedLongLong(~0ull), Number::withDouble(-0.0)})},
       {NK_STR("b"), Array::make({Number::yes(), Number::no(), Null::null()})},
       {NK_STR("deep"), Dictionary::make({{NK_STR("x"), Dictionary::make()}})}});
  for (unsigned options : {0u, 1u, 2u, 3u, 8u, 11u}) {
    SCOPED_TRACE(options);
    Ref<Data> text = JSONSerialization::dataWithJSONObject(original.get(), options, nullptr);
    ASSERT_TRUE(text);
    Id back = JSONSerialization::JSONObjectWithData(text.get(), 0, nullptr);
    EXPECT_TRUE(isEqual(back, original));
  }
  {  // -0 survives as a negative zero, Booleans as Booleans
    Ref<Data> text = JSONSerialization::dataWithJSONObject(original.get(), 0, nullptr);
    auto back = cast<Dictionary>(JSONSerialization::JSONObjectWithData(text.get(), 0, nullptr));
    ASSERT_TRUE(back);
    auto n = cast<Array>(back->objectForKey(NK_STR("n")));
    EXPECT_TRUE(std::signbit(cast<Number>(n->objectAtIndex(3))->doubleValue()));
    auto b = cast<Array>(back->objectForKey(NK_STR("b")));
    EXPECT_EQ(b->objectAtIndex(0).get(), Number::yes());
  }
}

}  // namespace
}  // namespace nk
