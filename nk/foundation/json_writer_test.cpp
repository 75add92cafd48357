// Tests of the JSON writer: exact output for each option, escaping, number
// texts, the objects it refuses, and round trips through the reader.
#include "nk/foundation/json_writer.hpp"

#include <gtest/gtest.h>
#include <malloc.h>

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/block_pool.hpp"
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

// 200000 copies of a ten-character string: 2.6 MB of output.
Ref<MutableArray> bigArray() {
  auto big = MutableArray::make();
  for (int i = 0; i < 200000; ++i) big->addObject(NK_STR("0123456789"));
  return big;
}
constexpr size_t kBigArrayTextSize = 2 + 200000 * 13 - 1;

Id read(const std::string& text) {
  return readJSON({reinterpret_cast<const uint8_t*>(text.data()), text.size()}, 0, nullptr);
}

Id sample() {
  return Dictionary::make(
      {{NK_STR("b"), Array::make({Number::withInt(1), Number::yes(), Null::null()})},
       {NK_STR("a"), NK_STR("x")},
       {NK_STR("e"), Array::make()},
       {NK_STR("d"), Dictionary::make()}});
}

TEST(JSONWriter, CompactPrettyAndSorted) {
  // compact, keys in insertion order
  EXPECT_EQ(write(sample()), R"({"b":[1,true,null],"a":"x","e":[],"d":{}})");
  // pretty: two spaces, " : ", empty containers with a blank line
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
  // deep indentation: line k of the opening half is indented 2k spaces
  Id nested = Number::withInt(1);
  for (int i = 0; i < 9; ++i) nested = Array::make({nested});
  std::string expected = "[";
  for (int k = 1; k < 9; ++k) expected += "\n" + std::string(2 * k, ' ') + "[";
  expected += "\n" + std::string(18, ' ') + "1";
  for (int k = 8; k >= 0; --k) expected += "\n" + std::string(2 * k, ' ') + "]";
  EXPECT_EQ(write(nested, kJSONWritingPrettyPrinted), expected);
  // sorted by UTF-16 code units, at every level
  auto d = Dictionary::make({{NK_STR("b"), Dictionary::make({{NK_STR("z"), Number::withInt(1)},
                                                             {NK_STR("y"), Number::withInt(2)}})},
                             {String::fromUTF8("\xC3\xA9"), Number::withInt(3)},
                             {NK_STR("B"), Number::withInt(4)},
                             {NK_STR("a"), Number::withInt(5)}});
  EXPECT_EQ(write(d, kJSONWritingSortedKeys),
            "{\"B\":4,\"a\":5,\"b\":{\"y\":2,\"z\":1},\"\xC3\xA9\":3}");
  EXPECT_EQ(write(d, kJSONWritingSortedKeys | kJSONWritingPrettyPrinted).substr(0, 12),
            "{\n  \"B\" : 4,");
  // fragments only with option 4
  EXPECT_EQ(write(NK_STR("a/b"), kJSONWritingFragmentsAllowed), R"("a\/b")");
  EXPECT_EQ(write(Number::withInt(3), kJSONWritingFragmentsAllowed), "3");
  EXPECT_EQ(write(Null::null(), kJSONWritingFragmentsAllowed), "null");
}

TEST(JSONWriter, EscapesAndEncodesStrings) {
  auto one = [](const Ref<String>& s) { return write(Array::make({s})); };
  // quotes, backslashes and control characters
  EXPECT_EQ(one(NK_STR("\"\\\b\f\n\r\t")), R"(["\"\\\b\f\n\r\t"])");
  EXPECT_EQ(one(String::fromLatin1(std::string("\x00\x01\x1f\x7f", 4))),
            "[\"\\u0000\\u0001\\u001f\x7f\"]");
  // non-ASCII from the compact form and from UTF-16, pairs as one sequence
  EXPECT_EQ(one(String::fromLatin1("caf\xE9\xFF")), "[\"caf\xC3\xA9\xC3\xBF\"]");
  EXPECT_EQ(one(String::fromUTF8("\xE2\x82\xAC/\xF0\x9F\x98\x80\n")),
            "[\"\xE2\x82\xAC\\/\xF0\x9F\x98\x80\\n\"]");
  // long strings, escapes and pairs across the writer's internal slices
  std::u16string units;
  for (int i = 0; i < 40000; ++i) units += (i % 2 == 0) ? u"\U0001F600" : u"/";  // a pair at 16383
  auto long16 = String::withCharacters(units);
  std::string latin(50000, 'a');
  for (size_t i = 0; i < latin.size(); i += 7) latin[i] = '\n';
  auto longLatin = String::fromLatin1(latin + "\xE9");
  for (const auto& s : {long16, longLatin}) {
    auto back = cast<Array>(read(write(Array::make({s}))));
    ASSERT_TRUE(back);
    EXPECT_TRUE(isEqual(back->objectAtIndex(0), s));
  }
  // an unpaired surrogate has no UTF-8 form
  Ref<Error> error;
  EXPECT_EQ(write(Array::make({String::withCharacters(u"a\xD800")}), 0, &error), "(refused)");
  ASSERT_TRUE(error);
  EXPECT_EQ(error->localizedDescription()->utf8(), "Unpaired surrogate in JSON string");
  EXPECT_EQ(one(String::withCharacters(u"\xDC00")), "(refused)");
}

TEST(JSONWriter, NumberTexts) {
  auto one = [](const Ref<Number>& n) { return write(Array::make({n})); };
  // Booleans are words, every other number a number; integer extremes; doubles and
  // floats in their shortest exact text
  const std::pair<Ref<Number>, const char*> rows[] = {
      {Number::withBool(true), "[true]"},
      {Number::withBool(false), "[false]"},
      {Number::withInt(1), "[1]"},
      {Number::withChar(1), "[1]"},
      {Number::withChar(-5), "[-5]"},
      {Number::withLongLong(std::numeric_limits<long long>::min()), "[-9223372036854775808]"},
      {Number::withUnsignedLongLong(~0ull), "[18446744073709551615]"},
      {Number::withUnsignedChar(200), "[200]"},
      {Number::withDouble(0.1), "[0.1]"},
      {Number::withDouble(3.0), "[3]"},
      {Number::withDouble(-0.0), "[-0]"},
      {Number::withDouble(1e21), "[1e+21]"},
      {Number::withDouble(5e-324), "[5e-324]"},
      {Number::withFloat(0.1f), "[0.1]"},
  };
  for (const auto& [number, text] : rows) EXPECT_EQ(one(number), text);
  // every digit count: zero, the powers of ten and their neighbours, either sign
  EXPECT_EQ(one(Number::withInt(0)), "[0]");
  uint64_t power = 1;
  for (int k = 0; k < 20; ++k, power *= 10) {
    for (uint64_t v : {power - 1, power, power + 1}) {
      EXPECT_EQ(one(Number::withUnsignedLongLong(v)), "[" + std::to_string(v) + "]");
      if (v <= uint64_t{std::numeric_limits<long long>::max()}) {
        const auto negative = -static_cast<long long>(v);
        EXPECT_EQ(one(Number::withLongLong(negative)), "[" + std::to_string(negative) + "]");
      }
    }
  }
}

// What std::to_chars writes for `d`: the writer's own path must agree exactly.
std::string toChars(double d) {
  char text[64];
  return std::string(text, std::to_chars(text, text + sizeof text, d).ptr);
}

// The writer's text of each double is std::to_chars's and reads back bit for bit.
TEST(JSONWriter, DoublesMatchTheShortestStandardText) {
  auto compare = [](const std::vector<double>& values) {
    auto a = MutableArray::make();
    std::string expected = "[";
    for (double d : values) {
      a->addObject(Number::withDouble(d));
      if (expected.size() > 1) expected += ',';
      expected += toChars(d);
    }
    const std::string text = write(a);
    EXPECT_EQ(text, expected + "]");
    auto back = cast<Array>(read(text));
    ASSERT_TRUE(back);
    ASSERT_EQ(back->count(), values.size());
    for (size_t i = 0; i < values.size(); ++i) {
      const double r = cast<Number>(back->objectAtIndex(i))->doubleValue();
      ASSERT_EQ(std::bit_cast<uint64_t>(r), std::bit_cast<uint64_t>(values[i])) << values[i];
    }
  };
  // where notation and rounding change: powers of ten, of two, halfway cases
  std::vector<double> edges;
  for (int k = -22; k <= 22; ++k) {
    const double p = std::pow(10.0, k);
    edges.insert(edges.end(), {p, -p, std::nextafter(p, 0.0), std::nextafter(p, 1e300), 1.5 * p});
  }
  for (int k = -80; k <= 80; ++k) {
    const double p = std::ldexp(1.0, k);  // an uneven gap below
    edges.insert(edges.end(), {p, std::nextafter(p, 0.0), std::nextafter(p, 1e300)});
  }
  edges.insert(edges.end(),
               {0.0, -0.0, 5e-324, 2.2250738585072014e-308, 1.7976931348623157e308,
                9007199254740993.0, 18014398509481984.0, 0.3, 2.0 / 3.0, 123456.789e3});
  compare(edges);
  // random bit patterns, and random values near the everyday range
  std::mt19937_64 rng(11);
  std::vector<double> bits;
  std::vector<double> near;
  while (bits.size() < 20000) {
    const double d = std::bit_cast<double>(rng());
    if (std::isfinite(d)) bits.push_back(d);
    const uint64_t exponent = 900 + rng() % 300;  // about 1e-37 to 1e53
    near.push_back(std::bit_cast<double>((rng() & 0x800FFFFFFFFFFFFF) | exponent << 52));
  }
  compare(bits);
  compare(near);
  // decimal inputs of every length, as documents carry them
  rng.seed(12);
  std::vector<double> decimals;
  for (int i = 0; i < 20000; ++i) {
    const int digits = 1 + static_cast<int>(rng() % 17);
    const double magnitude = std::pow(10.0, static_cast<int>(rng() % 30) - 15);
    const auto mantissa = static_cast<double>(rng() % 100000000000000000);
    decimals.push_back(
        std::strtod(std::to_string(mantissa * magnitude).substr(0, digits + 2).c_str(), nullptr));
  }
  compare(decimals);
}

// The escaped form of Latin-1 or UTF-16 `units`, a character at a time.
std::string escapedSlowly(const std::u16string& units, bool escapeSlash) {
  std::string out = "\"";
  for (char16_t c : units) {
    if (c == '"' || c == '\\' || (c == '/' && escapeSlash)) {
      out += {'\\', static_cast<char>(c)};
    } else if (c == '\n' || c == '\t') {
      out += c == '\n' ? "\\n" : "\\t";
    } else if (c < 0x20) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\u%04x", static_cast<unsigned>(c));
      out += hex;
    } else if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += {static_cast<char>(0xC0 | (c >> 6)), static_cast<char>(0x80 | (c & 0x3F))};
    } else {
      out += {static_cast<char>(0xE0 | (c >> 12)), static_cast<char>(0x80 | ((c >> 6) & 0x3F)),
              static_cast<char>(0x80 | (c & 0x3F))};
    }
  }
  return out + "\"";
}

TEST(JSONWriter, EscapesAtEveryPositionAndLength) {
  // Plain strings up to 40 units long, and each special character at each of
  // their positions, in both storages: the writer scans words, tails of words
  // and short strings.
  const char16_t specials[] = {u'"', u'\\', u'/', u'\n', u'\t', 0x01, 0x1F, 0xE9, 0x20AC};
  for (bool escapeSlash : {true, false}) {
    const unsigned options = escapeSlash ? 0u : unsigned{kJSONWritingWithoutEscapingSlashes};
    for (size_t length = 0; length <= 40; ++length) {
      std::u16string letters(length, u'a');
      for (size_t k = 0; k < length; ++k) letters[k] = static_cast<char16_t>(u'a' + k % 26);
      std::vector<std::u16string> cases = {letters};
      for (char16_t special : specials) {
        for (size_t at = 0; at < length; ++at) {
          cases.push_back(letters);
          cases.back()[at] = special;
        }
      }
      // As it is, and with a last unit outside Latin-1 that makes it UTF-16.
      for (const auto& units : cases) {
        for (const auto& u : {units, units + u"\x05D0"}) {
          ASSERT_EQ(write(Array::make({String::withCharacters(u)}), options),
                    "[" + escapedSlowly(u, escapeSlash) + "]")
              << "escapeSlash " << escapeSlash;
        }
      }
    }
  }
}

TEST(JSONWriter, RepeatedKeysAndBufferReuse) {
  // one key object nested under itself and shared across dictionaries
  Id shared = NK_STR("name");
  auto inner = Dictionary::make({{shared, Number::withInt(1)}});
  auto middle = Dictionary::make({{shared, inner}, {NK_STR("n"), inner}});
  EXPECT_EQ(write(Array::make({middle, middle})),
            R"([{"name":{"name":1},"n":{"name":1}},{"name":{"name":1},"n":{"name":1}}])");
  EXPECT_EQ(write(Dictionary::make({{shared, inner}}), kJSONWritingPrettyPrinted),
            "{\n  \"name\" : {\n    \"name\" : 1\n  }\n}");
  // many keys, short and long, escaped, in rows that repeat them
  std::vector<Ref<String>> keys;
  for (int k = 0; k < 150; ++k) {
    keys.push_back(String::fromUTF8(std::string(k % 60, 'k') + "/" + std::to_string(k)));
  }
  auto repeated = MutableArray::make();
  std::string repeatedText = "[";
  for (int row = 0; row < 3; ++row) {
    auto d = MutableDictionary::make();
    repeatedText += row ? ",{" : "{";
    for (int k = 0; k < 150; ++k) {
      d->setObjectForKey(Number::withInt(row * 1000 + k), keys[k]);
      repeatedText += (k ? ",\"" : "\"") + std::string(k % 60, 'k') + "\\/" + std::to_string(k) +
                      "\":" + std::to_string(row * 1000 + k);
    }
    repeatedText += "}";
    repeated->addObject(d);
  }
  EXPECT_EQ(write(repeated), repeatedText + "]");
  // dictionaries with removed entries, among many: the walk fetches ahead
  // through their holes
  auto rows = MutableArray::make();
  auto holes = MutableDictionary::make();
  std::string expected = "[";
  for (int row = 0; row < 20; ++row) {
    auto d = MutableDictionary::make();
    for (const char* k : {"a", "b", "c", "d"}) {
      d->setObjectForKey(MutableArray::make({Number::withInt(row)}), String::fromUTF8(k));
    }
    d->removeObjectForKey(NK_STR("b"));
    d->removeObjectForKey(NK_STR("d"));
    rows->addObject(d);
    holes->setObjectForKey(d, String::fromUTF8("r" + std::to_string(row)));
    const std::string n = std::to_string(row);
    expected += (row ? ",{" : "{") + std::string("\"a\":[") + n + "],\"c\":[" + n + "]}";
  }
  for (int row = 0; row < 20; row += 2)
    holes->removeObjectForKey(String::fromUTF8("r" + std::to_string(row)));
  EXPECT_EQ(write(rows), expected + "]");
  std::string expectedHoles = "{";
  for (int row = 1; row < 20; row += 2) {
    const std::string n = std::to_string(row);
    expectedHoles += (row > 1 ? ",\"r" : "\"r") + n + "\":{\"a\":[" + n + "],\"c\":[" + n + "]}";
  }
  EXPECT_EQ(write(holes), expectedHoles + "}");
  // a large write, a small one, a refused one, then a small one again
  auto big = bigArray();
  const std::string bigText = write(big);
  EXPECT_EQ(bigText.size(), kBigArrayTextSize);
  EXPECT_EQ(write(Array::make({Number::withInt(5)})), "[5]");
  EXPECT_EQ(write(Array::make({Number::withDouble(NAN)})), "(refused)");
  EXPECT_EQ(write(Array::make({NK_STR("x")})), R"(["x"])");
  EXPECT_EQ(write(big), bigText);
}

// False under AddressSanitizer and ThreadSanitizer, whose allocators make the heap
// figures their own.
constexpr bool heapFiguresAreReal() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
  return false;
#endif
#endif
  return true;
}

TEST(JSONWriter, IdleThreadGivesBackALargeOutputBuffer) {
  if (!heapFiguresAreReal()) GTEST_SKIP() << "heap figures are the sanitizer's own";
  auto big = bigArray();
  std::thread([&] {
    EXPECT_EQ(write(big).size(), kBigArrayTextSize);
    auto inUse = [] {
      const auto info = mallinfo2();
      return info.uordblks + info.hblkhd;  // large blocks are mapped on their own
    };
    const size_t kept = inUse();
    block_pool::trim();
    EXPECT_GE(kept - inUse(), size_t{2} << 20) << "the buffer was kept";
    EXPECT_EQ(write(Array::make({NK_STR("x")})), R"(["x"])");
  }).join();
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
  const struct {
    Id object;
    unsigned options;
    std::string message;
  } rows[] = {
      {Array::make({Number::withDouble(NAN)}), 0, "Invalid number value (NaN) in JSON write"},
      {Array::make({Number::withDouble(-INFINITY)}), 0,
       "Invalid number value (infinite) in JSON write"},
      {Array::make({Number::withFloat(INFINITY)}), 0,
       "Invalid number value (infinite) in JSON write"},
      {Array::make({Data::fromBytes("ab", 2)}), 0,
       "Invalid type in JSON write (" + Data::staticClass().name() + ")"},
      {Dictionary::make({{Number::withInt(1), NK_STR("v")}}), 0,
       "Invalid (non-string) key in JSON dictionary"},
      {Dictionary::make({{Number::withInt(1), NK_STR("v")}, {NK_STR("a"), NK_STR("w")}}),
       kJSONWritingSortedKeys, "Invalid (non-string) key in JSON dictionary"},
      {NK_STR("s"), 0, "Invalid top-level type in JSON write"},
      {nullptr, 0, "Invalid (nil) object in JSON write"},
  };
  for (const auto& row : rows) EXPECT_EQ(refusal(row.object.get(), row.options), row.message);
  // a container holding itself: the depth limit stops the walk
  auto loop = MutableArray::make();
  loop->addObject(loop);
  EXPECT_EQ(refusal(loop.get()), "Too deeply nested for JSON write");
  loop->removeAllObjects();  // break the cycle so the array is freed
  // isValidJSONObject agrees, and wants a container at the top
  EXPECT_TRUE(JSONSerialization::isValidJSONObject(sample().get()));
  EXPECT_FALSE(JSONSerialization::isValidJSONObject(NK_STR("s")));
  EXPECT_TRUE(isValidJSONObject(NK_STR("s"), kJSONWritingFragmentsAllowed));
  EXPECT_FALSE(isValidJSONObject(Array::make({Number::withDouble(NAN)}).get()));
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
    auto back = cast<Dictionary>(JSONSerialization::JSONObjectWithData(text.get(), 0, nullptr));
    ASSERT_TRUE(back);
    EXPECT_TRUE(isEqual(back.get(), original.get()));
    // -0 survives as a negative zero, Booleans as Booleans
    auto n = cast<Array>(back->objectForKey(NK_STR("n")));
    EXPECT_TRUE(std::signbit(cast<Number>(n->objectAtIndex(3))->doubleValue()));
    EXPECT_EQ(cast<Array>(back->objectForKey(NK_STR("b")))->objectAtIndex(0).get(), Number::yes());
  }
}

}  // namespace
}  // namespace nk
