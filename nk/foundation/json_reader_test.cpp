// Tests of the JSON reader: value types, options, numbers at the limits of the
// fast parser, error values and their offsets, nesting limit and encodings.
#include "nk/foundation/json_reader.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

Id read(std::string_view text, unsigned options = 0, Ref<Error>* error = nullptr) {
  return readJSON({reinterpret_cast<const uint8_t*>(text.data()), text.size()}, options, error);
}

// The first element of a one-element top-level array.
Id first(std::string_view text) {
  auto a = cast<Array>(read(text));
  if (!a || a->count() != 1) return nullptr;
  return a->objectAtIndex(0);
}

// A number's type code and text, e.g. "d -0": exact for every value, the sign of zero included.
std::string kind(const Id& value) {
  auto n = cast<Number>(value);
  return n ? std::string(1, n->objCType()) + " " + n->description()->utf8() : "(not a number)";
}

std::string failure(std::string_view text, unsigned options = 0) {
  Ref<Error> error;
  Id v = read(text, options, &error);
  if (v || !error) return "(accepted)";
  EXPECT_TRUE(error->domain()->isEqualToString(NK_STR("NSCocoaErrorDomain")));
  EXPECT_EQ(error->code(), kJSONReadingCorruptError);
  return error->localizedDescription()->utf8();
}

TEST(JSONReader, ReadsEachKindOfValue) {
  Id v = read(R"({"s":"h\u00e9llo","i":-42,"d":2.5,"t":true,"f":false,"n":null,"a":[1,"x"]})");
  auto d = cast<Dictionary>(v);
  ASSERT_TRUE(d);
  EXPECT_TRUE(d->isMemberOfClass(Dictionary::staticClass()));
  EXPECT_EQ(d->count(), 7u);
  // strings decode escapes and come back as immutable strings
  auto s = d->objectForKeyOfClass<String>(NK_STR("s"));
  ASSERT_TRUE(s);
  EXPECT_EQ(s->utf8(), "h\xC3\xA9llo");
  EXPECT_FALSE(s->isKindOfClass(MutableString::staticClass()));
  // integers are long long, fractions doubles
  EXPECT_EQ(kind(d->objectForKey(NK_STR("i"))), "q -42");
  EXPECT_EQ(kind(d->objectForKey(NK_STR("d"))), "d 2.5");
  // true and false are the shared Booleans, null the shared Null
  EXPECT_EQ(d->objectForKey(NK_STR("t")).get(), Number::yes());
  EXPECT_EQ(d->objectForKey(NK_STR("f")).get(), Number::no());
  EXPECT_EQ(d->objectForKey(NK_STR("n")).get(), Null::null());
  // nested arrays keep their order
  auto a = d->objectForKeyOfClass<Array>(NK_STR("a"));
  ASSERT_TRUE(a);
  EXPECT_TRUE(a->isMemberOfClass(Array::staticClass()));
  ASSERT_EQ(a->count(), 2u);
  EXPECT_TRUE(isEqual(a->objectAtIndex(0), Number::withInt(1)));
  EXPECT_TRUE(isEqual(a->objectAtIndex(1), Id(NK_STR("x"))));
}

TEST(JSONReader, NumbersAtTheLimits) {
  const std::pair<std::string, const char*> rows[] = {
      // the 64-bit ranges: signed first, then unsigned
      {"[9223372036854775807]", "q 9223372036854775807"},
      {"[-9223372036854775808]", "q -9223372036854775808"},
      {"[18446744073709551615]", "Q 18446744073709551615"},
      // past them: the nearest double
      {"[18446744073709551616]", "d 18446744073709552000"},
      {"[-9223372036854775809]", "d -9223372036854776000"},
      {"[1" + std::string(300, '0') + "]", "d 1e+300"},
      {"[9" + std::string(307, '0') + "]", "d 9e+307"},
      // "-0" is a negative zero however written; "0" stays an integer
      {"[-0]", "d -0"},
      {"[-0.0]", "d -0"},
      {"[-0e3]", "d -0"},
      {"[0]", "q 0"},
      // too small for a subnormal: zero of the number's sign
      {"[1e-400]", "d 0"},
      {"[-1e-400]", "d -0"},
      {"[1000e-326]", "d 1e-323"},
      // exact at the extremes
      {"[5e-324]", "d 5e-324"},
      {"[1.7976931348623157e308]", "d 1.7976931348623157e+308"},
      {"[0.1]", "d 0.1"},
      // long fractions and long runs of leading zeros
      {"[0." + std::string(4000, '3') + "]", "d 0.3333333333333333"},
      {"[0." + std::string(320, '0') + "1]", "d 1e-321"},
      {"[0." + std::string(5000, '0') + "1]", "d 0"},
  };
  for (const auto& [text, expected] : rows) EXPECT_EQ(kind(first(text)), expected) << text;
  // a negative zero deep inside a document
  auto nested = cast<Dictionary>(read(R"({"a":[1,{"b":-0}]})"));
  ASSERT_TRUE(nested);
  auto inner = cast<Dictionary>(cast<Array>(nested->objectForKey(NK_STR("a")))->objectAtIndex(1));
  EXPECT_EQ(kind(inner->objectForKey(NK_STR("b"))), "d -0");
  // beyond the double range: an error naming the number's offset
  EXPECT_EQ(failure("[1, 1e400]"), "Number out of range around character 4.");
  EXPECT_EQ(failure("[-1" + std::string(400, '0') + "]"),
            "Number out of range around character 1.");
  EXPECT_EQ(failure("[" + std::string(5000, '7') + "]"), "Number out of range around character 1.");
  EXPECT_EQ(failure("[0.0000001e309]"), "(accepted)");
}

TEST(JSONReader, BothParsersBuildTheSameObjects) {
  // A "-0" inside a string sends the document down the careful path; the
  // result must not depend on the path.
  const std::string body =
      R"([{"k":"v","n":-12,"u":18446744073709551615,"d":-1.5e-7,"e":"\u00e9\ud83d\ude00\n"},)"
      R"( [], {}, true, null, "x"])";
  Id fast = read(body);
  Id careful = read(body.substr(0, body.size() - 1) + R"(,"-0"])");
  ASSERT_TRUE(fast);
  ASSERT_TRUE(careful);
  auto a = cast<Array>(careful);
  ASSERT_EQ(a->count(), 7u);
  EXPECT_TRUE(isEqual(a->subarray(0, 6), fast));
  auto d = cast<Dictionary>(cast<Array>(fast)->objectAtIndex(0));
  EXPECT_EQ(cast<Number>(d->objectForKey(NK_STR("u")))->objCType(), 'Q');
  EXPECT_EQ(cast<String>(d->objectForKey(NK_STR("e")))->length(), 4u);
}

TEST(JSONReader, Options) {
  const char* text = R"([{"a":"s"}])";
  // 0 (everything immutable) is checked by ReadsEachKindOfValue.
  // 1: mutable containers, immutable strings; the containers work as such
  auto containers = cast<MutableArray>(read(text, kJSONReadingMutableContainers));
  ASSERT_TRUE(containers);
  auto inner = cast<MutableDictionary>(containers->objectAtIndex(0));
  ASSERT_TRUE(inner);
  EXPECT_FALSE(inner->objectForKey(NK_STR("a"))->isKindOfClass(MutableString::staticClass()));
  inner->setObjectForKey(Number::withInt(1), NK_STR("b"));
  inner->setObjectForKey(Number::withInt(2), NK_STR("a"));
  EXPECT_EQ(inner->count(), 2u);
  EXPECT_TRUE(isEqual(inner->objectForKey(NK_STR("a")), Number::withInt(2)));
  containers->addObject(Null::null());
  EXPECT_EQ(containers->count(), 2u);
  // 2: mutable strings inside immutable containers
  auto a = cast<Array>(read(text, kJSONReadingMutableLeaves));
  ASSERT_TRUE(a);
  EXPECT_FALSE(a->isKindOfClass(MutableArray::staticClass()));
  auto d = cast<Dictionary>(a->objectAtIndex(0));
  EXPECT_TRUE(d->objectForKey(NK_STR("a"))->isKindOfClass(MutableString::staticClass()));
  EXPECT_FALSE(d->allKeys()->objectAtIndex(0)->isKindOfClass(MutableString::staticClass()));
  // 4: fragments at the top level, refused without it
  EXPECT_EQ(failure("12"),
            "JSON text did not start with array or object and option to allow fragments not "
            "set. around character 0.");
  auto n = cast<Number>(read(" 12 ", kJSONReadingFragmentsAllowed));
  ASSERT_TRUE(n);
  EXPECT_EQ(n->intValue(), 12);
  auto s = cast<String>(read("\"x\"", kJSONReadingFragmentsAllowed | kJSONReadingMutableLeaves));
  ASSERT_TRUE(s);
  EXPECT_TRUE(s->isKindOfClass(MutableString::staticClass()));
  EXPECT_EQ(read("null", kJSONReadingFragmentsAllowed).get(), Null::null());
}

TEST(JSONReader, DuplicateKeysKeepTheFirstPlaceAndTheLastValue) {
  // a small dictionary
  auto small = cast<Dictionary>(read(R"({"a":1,"b":2,"a":3})"));
  ASSERT_TRUE(small);
  EXPECT_EQ(small->count(), 2u);
  EXPECT_TRUE(isEqual(small->objectForKey(NK_STR("a")), Number::withInt(3)));
  EXPECT_TRUE(isEqual(small->allKeys(), Array::make({NK_STR("a"), NK_STR("b")})));
  // one large enough to be indexed
  std::string text = "{";
  for (int i = 0; i < 40; ++i) text += "\"k" + std::to_string(i) + "\":" + std::to_string(i) + ",";
  text += R"("k7":"last"})";
  auto d = cast<Dictionary>(read(text));
  ASSERT_TRUE(d);
  EXPECT_EQ(d->count(), 40u);
  EXPECT_TRUE(isEqual(d->objectForKey(NK_STR("k7")), Id(NK_STR("last"))));
  EXPECT_TRUE(isEqual(d->objectForKey(NK_STR("k39")), Number::withInt(39)));
  EXPECT_TRUE(isEqual(d->allKeys()->objectAtIndex(7), Id(NK_STR("k7"))));
}

TEST(JSONReader, ErrorsNameTheOffset) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "Unexpected end of file around character 0."},
      {"  \n", "Unexpected end of file around character 3."},
      {"[1,]", "Invalid value around character 3."},
      {"[1 2]", "Badly formed array around character 3."},
      {"[1] x", "Garbage at end around character 4."},
      {R"({"a" 1})", "No value for key in object around character 5."},
      {R"({1:2})", "No string key for value in object around character 1."},
      {"[tru]", "Invalid value around character 1."},
      {"[01]", "Leading zero in number around character 1."},
      {"[1.]", "Invalid number around character 3."},
      {"[\"abc", "Unterminated string around character 1."},
      {"[\"a\tb\"]", "Unescaped control character around character 3."},
      {R"(["\x"])", "Invalid escape sequence around character 2."},
      // unpaired surrogates, high or low, escaped
      {R"(["ab\ud800"])", "Unpaired surrogate in escape sequence around character 4."},
      {R"(["\ud800\u0041"])", "Unpaired surrogate in escape sequence around character 2."},
      {R"(["\udc00"])", "Unpaired surrogate in escape sequence around character 2."},
      // invalid UTF-8 in a string (overlong, truncated, surrogate) and outside
      {"[\"\xC0\xAF\"]", "Invalid UTF-8 or unpaired surrogate in string around character 1."},
      {"[1,\"\xE2\x82\"]", "Invalid UTF-8 or unpaired surrogate in string around character 3."},
      {"{\"\xED\xA0\x80\":1}", "Invalid UTF-8 or unpaired surrogate in string around character 1."},
      {"[\xC3\xA9]", "Invalid value around character 1."},
  };
  for (const auto& [text, message] : rows) EXPECT_EQ(failure(text), message) << text;
  EXPECT_FALSE(read("[", 0, nullptr));  // no error slot: still nil
}

TEST(JSONReader, NestingLimit) {
  auto nested = [](size_t depth, char open, char close) {
    std::string text;
    for (size_t i = 0; i < depth; ++i) {
      text += open;
      if (open == '{') text += "\"k\":";
    }
    text += "1";
    text.append(depth, close);
    return text;
  };
  // exactly the limit reads, in arrays and in dictionaries
  auto a = read(nested(kJSONMaxDepth, '[', ']'));
  ASSERT_TRUE(a);
  EXPECT_TRUE(read(nested(kJSONMaxDepth, '{', '}')));
  // one more is an error at the opening bracket that goes too deep
  EXPECT_EQ(failure(nested(kJSONMaxDepth + 1, '[', ']')),
            "Too many nested arrays or dictionaries around character 512.");
  EXPECT_NE(failure(nested(kJSONMaxDepth + 1, '{', '}')).find("Too many nested"),
            std::string::npos);
  // far deeper, unterminated too: an error, not a stack overflow
  EXPECT_NE(failure(std::string(1000000, '[')).find("Too many nested"), std::string::npos);
}

std::string encode(std::u32string_view text, bool wide, bool big, bool mark) {
  std::string out;
  auto unit = [&](uint32_t u, int bytes) {
    for (int k = 0; k < bytes; ++k) {
      const int shift = big ? 8 * (bytes - 1 - k) : 8 * k;
      out += static_cast<char>((u >> shift) & 0xFF);
    }
  };
  if (mark) unit(0xFEFF, wide ? 4 : 2);
  for (char32_t c : text) {
    if (wide || c < 0x10000) {
      unit(c, wide ? 4 : 2);
    } else {
      unit(0xD800 + ((c - 0x10000) >> 10), 2);
      unit(0xDC00 + ((c - 0x10000) & 0x3FF), 2);
    }
  }
  return out;
}

TEST(JSONReader, DetectsUTF16AndUTF32) {
  const std::u32string text = U"[\"\u00e9\U0001F600\"]";
  auto expected = Array::make({String::fromUTF8("\xC3\xA9\xF0\x9F\x98\x80")});
  for (bool wide : {false, true}) {
    for (bool big : {false, true}) {
      for (bool mark : {false, true}) {
        SCOPED_TRACE(std::to_string(wide) + std::to_string(big) + std::to_string(mark));
        EXPECT_TRUE(isEqual(read(encode(text, wide, big, mark)), expected));
      }
    }
  }
  // a UTF-8 byte-order mark is skipped
  EXPECT_TRUE(isEqual(read("\xEF\xBB\xBF[1]"), Array::make({Number::withInt(1)})));
  // a two-byte fragment in UTF-16
  auto n = cast<Number>(read(encode(U"7", false, true, false), kJSONReadingFragmentsAllowed));
  ASSERT_TRUE(n);
  EXPECT_EQ(n->intValue(), 7);
  // an unpaired surrogate in UTF-16 input, and a truncated unit
  std::string bad = encode(U"[\"a\"]", false, false, false);
  bad[4] = '\x00';
  bad[5] = '\xD8';
  EXPECT_EQ(failure(bad), "Invalid text encoding around character 4.");
  EXPECT_EQ(failure(encode(U"[1]", false, false, false) + "x"),
            "Invalid text encoding around character 6.");
}

TEST(JSONReader, KeysAreSharedAcrossDictionaries) {
  auto a = cast<Array>(read(R"([{"name":1},{"name":2},{"name":3}])"));
  ASSERT_TRUE(a);
  const Object* k0 = cast<Dictionary>(a->objectAtIndex(0))->allKeys()->objectAtIndex(0).get();
  const Object* k2 = cast<Dictionary>(a->objectAtIndex(2))->allKeys()->objectAtIndex(0).get();
  EXPECT_EQ(k0, k2);
  EXPECT_TRUE(isEqual(cast<Dictionary>(a->objectAtIndex(2))->objectForKey(NK_STR("name")),
                      Number::withInt(3)));
}

TEST(JSONReader, LargeDocumentsShareLeavesWithoutChangingThem) {
  // Large texts share equal keys, numbers and short strings; the result must
  // equal what each record reads as on its own, collisions in the sharing
  // tables included.
  std::vector<std::string> records;
  std::string all = "[";
  for (int i = 0; i < 3000; ++i) {
    std::string r = "{\"k" + std::to_string(i % 50) + "\":" + std::to_string(i % 300) +
                    ",\"d\":" + std::to_string(i) + ".5,\"s\":\"v" + std::to_string(i % 700) +
                    "\",\"u\":" + std::to_string(18446744073709551000ull + (i % 7)) +
                    ",\"n\":" + std::to_string(-i) + "}";
    all += (i ? "," : "") + r;
    records.push_back(std::move(r));
  }
  all += "]";
  ASSERT_GT(all.size(), 100000u);
  auto a = cast<Array>(read(all));
  ASSERT_TRUE(a);
  ASSERT_EQ(a->count(), records.size());
  for (size_t i = 0; i < records.size(); ++i) {
    Id alone = read(records[i]);
    ASSERT_TRUE(isEqual(a->objectAtIndex(i), alone)) << records[i];
  }
  // equal short strings are one object when immutable
  auto sOf = [](const Array& list, size_t i) {
    return cast<Dictionary>(list.objectAtIndex(i))->objectForKey(NK_STR("s"));
  };
  EXPECT_EQ(sOf(*a, 0).get(), sOf(*a, 700).get());
  // and distinct, changeable objects when strings are mutable
  auto m = cast<Array>(read(all, kJSONReadingMutableLeaves));
  ASSERT_TRUE(m);
  auto s0 = cast<MutableString>(sOf(*m, 0));
  auto s700 = cast<MutableString>(sOf(*m, 700));
  ASSERT_TRUE(s0);
  ASSERT_TRUE(s700);
  EXPECT_NE(s0.get(), s700.get());
  s0->appendUTF8("x");
  EXPECT_EQ(s700->utf8(), "v0");
}

}  // namespace
}  // namespace nk
