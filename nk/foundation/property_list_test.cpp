// Tests of property-list reading and writing: round trips in both forms, the
// XML gaps (negative integers, CF$UID, junk after the root), binary files built
// byte by byte (corrupt trailers, cycles, depth and expansion bombs), errors,
// and agreement with libplist as an independent reader and writer.
#include "nk/foundation/property_list.hpp"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/class.hpp"
#include "nk/foundation/data.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/set.hpp"

namespace nk {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

Id str(std::string_view text) { return String::fromUTF8(text); }

std::string reasonOf(const Ref<Error>& error) {
  if (!error || !error->userInfo()) return "";
  auto reason = cast<String>(error->userInfo()->objectForKey(kDebugDescriptionKey()));
  return reason ? reason->utf8() : "";
}

// Passes when the error's reason contains `fragment`; shows the reason otherwise.
testing::AssertionResult hasReason(const Ref<Error>& error, std::string_view fragment) {
  const std::string reason = reasonOf(error);
  if (reason.find(fragment) != std::string::npos) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "reason \"" << reason << "\" lacks \"" << fragment << '"';
}

Id readText(std::string_view text, Ref<Error>* error = nullptr) {
  return readPropertyList(bytesOf(text), error);
}

// Passes when reading `bytes` fails with a reason containing `fragment`.
testing::AssertionResult failsWith(std::span<const uint8_t> bytes, std::string_view fragment) {
  Ref<Error> error;
  if (readPropertyList(bytes, &error)) return testing::AssertionFailure() << "read succeeded";
  return hasReason(error, fragment);
}
testing::AssertionResult failsWith(std::string_view text, std::string_view fragment) {
  return failsWith(bytesOf(text), fragment);
}

// Writes and reads back in `format`; fails the test when either step fails.
Id roundTrip(const Object* root, PropertyListFormat format) {
  Ref<Error> error;
  auto bytes = writePropertyList(root, format, &error);
  EXPECT_TRUE(bytes) << reasonOf(error);
  if (!bytes) return nullptr;
  PropertyListFormat found{};
  Id back = readPropertyList(*bytes, &error, &found);
  EXPECT_TRUE(back) << reasonOf(error);
  EXPECT_EQ(found, format);
  return back;
}

// ---- binary files by hand ----

void appendBE(Bytes& out, uint64_t v, size_t n) {
  for (size_t i = n; i-- > 0;) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

// A bplist00 file of `objects` (each its marker and payload), the top object
// first unless `top` says otherwise.
Bytes bplist(const std::vector<Bytes>& objects, uint8_t refSize = 1, uint64_t top = 0) {
  Bytes out = bytesOf("bplist00");
  std::vector<uint64_t> offsets;
  for (const Bytes& o : objects) {
    offsets.push_back(out.size());
    out.insert(out.end(), o.begin(), o.end());
  }
  const uint64_t table = out.size();
  const uint8_t offsetSize = table > 0xffff ? 4 : table > 0xff ? 2 : 1;
  for (uint64_t offset : offsets) appendBE(out, offset, offsetSize);
  out.insert(out.end(), 6, 0);
  out.push_back(offsetSize);
  out.push_back(refSize);
  appendBE(out, objects.size(), 8);
  appendBE(out, top, 8);
  appendBE(out, table, 8);
  return out;
}

// Overwrites a big-endian trailer field: at 6 the offset size (1 byte), 7 the
// reference size (1), 8 the object count (8), 16 the top object (8), 24 the
// offset table position (8).
Bytes withTrailer(Bytes file, size_t field, uint64_t value) {
  const size_t width = field < 8 ? 1 : 8;
  const size_t at = file.size() - 32 + field;
  for (size_t i = 0; i < width; ++i) {
    file[at + i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
  }
  return file;
}

Bytes array(const std::vector<uint64_t>& refs, uint8_t refSize = 1) {
  Bytes o;
  if (refs.size() < 15) {
    o.push_back(static_cast<uint8_t>(0xA0 | refs.size()));
  } else {
    o.push_back(0xAF);
    o.push_back(0x11);
    appendBE(o, refs.size(), 2);
  }
  for (uint64_t r : refs) appendBE(o, r, refSize);
  return o;
}
// A one-entry dictionary.
Bytes dict1(uint64_t key, uint64_t value) {
  return {0xD1, static_cast<uint8_t>(key), static_cast<uint8_t>(value)};
}
Bytes ascii(std::string_view s) {
  Bytes o(s.size() + 1);
  o[0] = static_cast<uint8_t>(0x50 | s.size());
  std::copy(s.begin(), s.end(), o.begin() + 1);
  return o;
}

// ---- round trips ----

Ref<Dictionary> sampleDictionary(bool wholeSecondDates) {
  Id nested = Dictionary::make({{str("zeta"), Number::withInt(7)},
                                {str("alpha"), Array::make()},
                                {str("mid"), Dictionary::make()}});
  const uint8_t raw[] = {0, 1, 2, 0xfe, 0xff};
  return Dictionary::make(
      {{str("ascii"), str("plain")},
       {str("unicode"), str("caf\xC3\xA9 \xF0\x9F\x98\x80 <&> \r\n")},
       {str(""), str("")},
       {str("zero"), Number::withInt(0)},
       {str("byte"), Number::withInt(255)},
       {str("wide"), Number::withInt(65536)},
       {str("minus one"), Number::withLongLong(-1)},
       {str("min"), Number::withLongLong(INT64_MIN)},
       {str("max"), Number::withLongLong(INT64_MAX)},
       {str("umax"), Number::withUnsignedLongLong(UINT64_MAX)},
       {str("tenth"), Number::withDouble(0.1)},
       {str("huge"), Number::withDouble(-1e300)},
       {str("inf"), Number::withDouble(INFINITY)},
       {str("nan"), Number::withDouble(NAN)},
       {str("float"), Number::withFloat(0.1f)},
       {str("yes"), Number::yes()},
       {str("no"), Number::no()},
       {str("date"), Date::fromTimeIntervalSinceReferenceDate(wholeSecondDates ? 86400 : 0.25)},
       {str("past"), Date::distantPast()},
       {str("future"), Date::distantFuture()},
       {str("1969"), Date::fromTimeIntervalSince1970(-86400 * 365.0)},
       {str("data"), Data::fromBytes(raw, sizeof raw)},
       {str("long data"), Data::fromBytes(std::vector<uint8_t>(200, 0x5a))},
       {str("no data"), Data::empty()},
       {str("uid"), PlistUID::make(5)},
       {str("big uid"), PlistUID::make(1ULL << 40)},
       {str("array"), Array::make({str("x"), Number::withInt(1), str("x"), nested})},
       {str("nested"), nested}});
}

TEST(PropertyList, RoundTripsEveryTypeInBothForms) {
  for (PropertyListFormat format : {PropertyListFormat::kBinary, PropertyListFormat::kXML}) {
    SCOPED_TRACE(static_cast<int>(format));
    auto original = sampleDictionary(format == PropertyListFormat::kXML);
    auto back = cast<Dictionary>(roundTrip(original.get(), format));
    ASSERT_TRUE(back);
    EXPECT_TRUE(back->isEqual(original.get())) << back->description()->utf8();
    // Keys keep their order.
    EXPECT_TRUE(back->allKeys()->isEqual(original->allKeys().get()));
    EXPECT_TRUE(cast<Dictionary>(back->objectForKey(str("nested")))
                    ->allKeys()
                    ->isEqual(Array::make({str("zeta"), str("alpha"), str("mid")}).get()));
    // Types the writers must not blur.
    auto yes = cast<Number>(back->objectForKey(str("yes")));
    EXPECT_TRUE(yes->isKindOfClass(Boolean::staticClass()));
    EXPECT_FALSE(cast<Number>(back->objectForKey(str("byte")))->isBoolean());
    EXPECT_EQ(cast<Number>(back->objectForKey(str("umax")))->objCType(), 'Q');
    EXPECT_EQ(cast<Number>(back->objectForKey(str("minus one")))->objCType(), 'q');
    EXPECT_EQ(cast<Number>(back->objectForKey(str("minus one")))->longLongValue(), -1);
    EXPECT_TRUE(cast<Number>(back->objectForKey(str("tenth")))->isFloatingPoint());
    EXPECT_TRUE(back->objectForKey(str("uid"))->isMemberOfClass(PlistUID::staticClass()));
  }
  // Only the binary form keeps fractions of seconds and the 4-byte real type.
  auto back =
      cast<Dictionary>(roundTrip(sampleDictionary(false).get(), PropertyListFormat::kBinary));
  ASSERT_TRUE(back);
  EXPECT_EQ(cast<Date>(back->objectForKey(str("date")))->timeIntervalSinceReferenceDate(), 0.25);
  EXPECT_EQ(cast<Number>(back->objectForKey(str("float")))->objCType(), 'f');

  // Any writable object may be the root, scalars included.
  for (Id root : {str("alone"), Id(Number::withInt(-5)), Id(Date::distantPast()),
                  Id(PlistUID::make(0)), Id(Array::make())}) {
    for (auto format : {PropertyListFormat::kBinary, PropertyListFormat::kXML}) {
      Id again = roundTrip(root.get(), format);
      EXPECT_TRUE(isEqual(again, root)) << root->description()->utf8();
    }
  }
}

TEST(PropertyList, BinaryWriterIsCompact) {
  // The integer 1 alone: one 1-byte integer, 1-byte offsets and references.
  auto one = writePropertyList(Number::withInt(1).get(), PropertyListFormat::kBinary);
  ASSERT_TRUE(one);
  Bytes expected = bytesOf("bplist00");
  expected.insert(expected.end(), {0x10, 0x01, 0x08, 0, 0, 0, 0, 0, 0, 1, 1});
  appendBE(expected, 1, 8);   // objects
  appendBE(expected, 0, 8);   // top
  appendBE(expected, 10, 8);  // offset table position
  EXPECT_EQ(*one, expected);

  // Equal scalars are stored once and repeated containers once: an array, one
  // string, one inner array.
  Id inner = Array::make({str("x")});
  auto shared = writePropertyList(Array::make({str("x"), str("x"), inner, inner}).get(),
                                  PropertyListFormat::kBinary);
  ASSERT_TRUE(shared);
  EXPECT_EQ(shared->at(shared->size() - 32 + 15), 3);  // low byte of the object count
  auto back = cast<Array>(readPropertyList(*shared));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->objectAtIndex(2).get(), back->objectAtIndex(3).get());

  // Integer 1 and real 1.0 and YES are equal objects but distinct entries.
  auto mixed = writePropertyList(
      Array::make({Number::withInt(1), Number::withDouble(1.0), Number::yes()}).get(),
      PropertyListFormat::kBinary);
  ASSERT_TRUE(mixed);
  auto types = cast<Array>(readPropertyList(*mixed));
  ASSERT_TRUE(types);
  EXPECT_EQ(cast<Number>(types->objectAtIndex(0))->objCType(), 'q');
  EXPECT_EQ(cast<Number>(types->objectAtIndex(1))->objCType(), 'd');
  EXPECT_EQ(cast<Number>(types->objectAtIndex(2))->objCType(), 'B');
}

TEST(PropertyList, XMLLayout) {
  auto d = MutableDictionary::make();
  d->setObjectForKey(Number::withInt(-1), str("n"));
  d->setObjectForKey(Array::make(), str("empty"));
  d->setObjectForKey(Array::make({Number::yes(), str("a<b&c>")}), str("list"));
  d->setObjectForKey(Date::distantPast(), str("past"));
  d->setObjectForKey(Data::fromBytes("hello", 5), str("data"));
  d->setObjectForKey(PlistUID::make(3), str("uid"));
  auto xml = writePropertyList(d.get(), PropertyListFormat::kXML);
  ASSERT_TRUE(xml);
  const std::string text(xml->begin(), xml->end());
  EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n", 0), 0u) << text;
  const size_t body = text.find("<plist version=\"1.0\">\n");
  ASSERT_NE(body, std::string::npos) << text;
  EXPECT_EQ(text.substr(body + 22),
            "<dict>\n"
            "\t<key>n</key>\n"
            "\t<integer>-1</integer>\n"
            "\t<key>empty</key>\n"
            "\t<array/>\n"
            "\t<key>list</key>\n"
            "\t<array>\n"
            "\t\t<true/>\n"
            "\t\t<string>a&lt;b&amp;c&gt;</string>\n"
            "\t</array>\n"
            "\t<key>past</key>\n"
            "\t<date>0000-12-30T00:00:00Z</date>\n"
            "\t<key>data</key>\n"
            "\t<data>\n"
            "\taGVsbG8=\n"
            "\t</data>\n"
            "\t<key>uid</key>\n"
            "\t<dict>\n"
            "\t\t<key>CF$UID</key>\n"
            "\t\t<integer>3</integer>\n"
            "\t</dict>\n"
            "</dict>\n"
            "</plist>\n");
}

// ---- XML reading ----

TEST(PropertyList, XMLIntegersKeepTheirSign) {
  auto xml = [](std::string_view text) {
    return "<plist><integer>" + std::string(text) + "</integer></plist>";
  };
  // The value as its 64 bits: the type code tells -1 from 2^64-1.
  const std::tuple<const char*, char, long long> rows[] = {
      {"-1", 'q', -1},
      {" 42 ", 'q', 42},
      {"+7", 'q', 7},
      {"0x10", 'q', 16},
      {"-9223372036854775808", 'q', INT64_MIN},
      {"9223372036854775807", 'q', INT64_MAX},
      {"9223372036854775808", 'Q', INT64_MIN},
      {"18446744073709551615", 'Q', -1},
  };
  for (const auto& [text, code, bits] : rows) {
    Ref<Error> error;
    auto n = cast<Number>(readText(xml(text), &error));
    ASSERT_TRUE(n) << text << ": " << reasonOf(error);
    EXPECT_EQ(n->objCType(), code) << text;
    EXPECT_EQ(n->longLongValue(), bits) << text;
  }
  for (const char* bad :
       {"18446744073709551616", "-9223372036854775809", "", "abc", "12abc", "1.5", "--1"}) {
    EXPECT_FALSE(readText(xml(bad))) << bad;
  }
}

TEST(PropertyList, XMLUIDsAreRecognised) {
  auto uid = readText("<plist><dict><key>CF$UID</key><integer>12</integer></dict></plist>");
  ASSERT_TRUE(uid);
  ASSERT_TRUE(uid->isMemberOfClass(PlistUID::staticClass()));
  EXPECT_EQ(cast<PlistUID>(uid)->value(), 12u);
  // Only a lone CF$UID key with a non-negative integer is a UID.
  const char* notUIDs[] = {
      "<dict><key>CF$UID</key><integer>-1</integer></dict>",
      "<dict><key>CF$UID</key><string>1</string></dict>",
      "<dict><key>CF$UID</key><real>1</real></dict>",
      "<dict><key>CF$UID</key><true/></dict>",
      "<dict><key>CF$UID</key><integer>1</integer><key>x</key><integer>1</integer></dict>",
      "<dict><key>cf$uid</key><integer>1</integer></dict>",
  };
  for (const char* xml : notUIDs) {
    Id read = readText(xml);
    ASSERT_TRUE(read) << xml;
    EXPECT_TRUE(read->isKindOfClass(Dictionary::staticClass())) << xml;
  }
}

TEST(PropertyList, XMLAcceptsWhatXMLAllows) {
  const std::pair<const char*, Id> rows[] = {
      {"<?xml version=\"1.0\"?>\n<!-- c -->\n<!DOCTYPE plist [ <!ENTITY x \"]>\"> ]>\n"
       "<plist version='1.0' a=\"x>y\"><string>s</string></plist>\n<!-- after -->\n<?pi x?>\n",
       str("s")},
      {"<string>bare root</string>", str("bare root")},
      {"\xEF\xBB\xBF<plist><string>bom</string></plist>", str("bom")},
      {"<plist><string>&lt;&gt;&amp;&quot;&apos;&#65;&#x20AC;&#x1F600;</string></plist>",
       str("<>&\"'A\xE2\x82\xAC\xF0\x9F\x98\x80")},
      {"<plist><string>a<![CDATA[<b>&amp;]]>c<!-- gone -->d</string></plist>", str("a<b>&amp;cd")},
      {"<plist><string/></plist>", str("")},
      {"<plist><array><!-- c --> <true></true>\n<false/></array></plist>",
       Array::make({Number::yes(), Number::no()})},
      {"<plist><dict><key>k</key><integer>1</integer><key>k</key><integer>2</integer></dict>"
       "</plist>",
       Dictionary::make({{str("k"), Number::withInt(2)}})},
      {"<plist><real> 1e400 </real></plist>", Number::withDouble(INFINITY)},
      {"<plist><real>-1e-400</real></plist>", Number::withDouble(-0.0)},
      {"<plist><real>.5</real></plist>", Number::withDouble(0.5)},
      {"<plist><real>-infinity</real></plist>", Number::withDouble(-INFINITY)},
      {"<plist><date>2001-01-01T00:00:01.5Z</date></plist>",
       Date::fromTimeIntervalSinceReferenceDate(1.5)},
      {"<plist><date>1970-01-01T00:00:00Z</date></plist>", Date::fromTimeIntervalSince1970(0)},
      {"<plist><data>aGVs\n\tbG8</data></plist>", Data::fromBytes("hello", 5)},
  };
  for (const auto& [xml, expected] : rows) {
    Ref<Error> error;
    Id read = readText(xml, &error);
    ASSERT_TRUE(read) << xml << ": " << reasonOf(error);
    EXPECT_TRUE(read->isEqual(expected.get())) << xml << " gave " << read->description()->utf8();
  }

  // UTF-16 with a byte-order mark, both byte orders.
  const std::u16string text = u"<plist><string>\u00e9\u20ac</string></plist>";
  for (bool big : {true, false}) {
    Bytes utf16 = big ? Bytes{0xfe, 0xff} : Bytes{0xff, 0xfe};
    for (char16_t u : text) {
      utf16.push_back(static_cast<uint8_t>(big ? u >> 8 : u & 0xff));
      utf16.push_back(static_cast<uint8_t>(big ? u & 0xff : u >> 8));
    }
    Id read = readPropertyList(utf16);
    ASSERT_TRUE(read) << big;
    EXPECT_TRUE(read->isEqual(str("\xC3\xA9\xE2\x82\xAC").get()));
  }
}

TEST(PropertyList, XMLRejectsMalformedInputWithAReason) {
  // Each text and a part of the expected reason.
  const std::pair<const char*, const char*> rows[] = {
      {"<plist><string>a</string></plist><plist><string>b</string></plist>",
       "after the root element"},
      {"<plist><string>a</string></plist>junk", "Junk after the root element"},
      {"<string>a</string><string>b</string>", "after the root element"},
      {"<plist><string>a</string><string>b</string></plist>", "second value inside <plist>"},
      {"<plist>\n<dict>\n<key>a</key>\n</dict></plist>",
       "Value missing for key inside <dict> on line 4"},
      {"<plist><dict><key>a</key><key>b</key></dict></plist>", "Value missing for key"},
      {"<plist><dict><string>a</string></dict></plist>", "Found non-key inside <dict>"},
      {"<plist><foo/></plist>", "unknown tag <foo>"},
      {"<plist><integer></integer></plist>", "<integer>"},
      {"<plist><real>abc</real></plist>", "Malformed <real>"},
      {"<plist><real></real></plist>", "Malformed <real>"},
      {"<plist><date>2001-02-30T00:00:00Z</date></plist>", "Malformed <date>"},
      {"<plist><date>2001-01-01 00:00:00</date></plist>", "Malformed <date>"},
      {"<plist><data>!!!!</data></plist>", "Base64"},
      {"<plist><array></dict></plist>", "mismatched closing tag"},
      {"<plist><array><string>a</string>", "end of input inside <array>"},
      {"<plist><string>a", "end of input inside <string>"},
      {"<plist><string>&bogus;</string></plist>", "Unknown entity"},
      {"<plist><string>&#xD800;</string></plist>", "Invalid character reference"},
      {"<plist><string>&#0;</string></plist>", "Invalid character reference"},
      {"<plist><string>\xff</string></plist>", "Malformed UTF-8"},
      {"<plist><string><b/></string></plist>", "unexpected element inside <string>"},
      {"<plist></plist>", "empty <plist>"},
      {"<plist/>", "empty <plist>"},
      {"<plist><key>a</key></plist>", "<key> outside a <dict>"},
      {"<plist><plist><true/></plist></plist>", "<plist> inside"},
      {"<plist><array>text</array></plist>", "unexpected character 't'"},
      {"<plist><true>x</true></plist>", "text inside <true>"},
      {"<plist><!-- never closed", "Unterminated comment"},
      {"<plist a=\"unterminated><true/></plist>", "Unterminated attribute"},
      {"<!DOCTYPE plist [ <true/></plist>", "Unterminated document type"},
      {"<?xml version=\"1.0\"?>", "No root element"},
  };
  for (const auto& [xml, reason] : rows) EXPECT_TRUE(failsWith(xml, reason)) << xml;
}

TEST(PropertyList, ErrorsCarryDomainCodeAndReason) {
  Ref<Error> error;
  EXPECT_FALSE(readPropertyList({}, &error));
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain()->utf8(), "NSCocoaErrorDomain");
  EXPECT_EQ(error->code(), 3840);
  EXPECT_TRUE(hasReason(error, "zero-length"));

  // The description quotes the reason, so log lines say what went wrong.
  EXPECT_FALSE(readText("<plist>\n<dict>\n<key>a</key>\n</dict></plist>", &error));
  EXPECT_NE(error->description()->utf8().find("Value missing for key inside <dict> on line 4"),
            std::string::npos)
      << error->description()->utf8();

  EXPECT_FALSE(readText("bplist15whatever", &error));
  EXPECT_EQ(error->code(), 3841);

  EXPECT_TRUE(failsWith("\x01\x02", "0x01"));

  // A failed read leaves the format untouched and succeeds without an error pointer.
  PropertyListFormat format = PropertyListFormat::kOpenStep;
  EXPECT_FALSE(readPropertyList(bytesOf("<plist>"), nullptr, &format));
  EXPECT_EQ(format, PropertyListFormat::kOpenStep);
}

TEST(PropertyList, ReadsOpenStepText) {
  const uint8_t raw[] = {0x0f, 0xbd, 0x77};
  const std::pair<const char*, Id> rows[] = {
      {"{ a = b; \"k 2\" = ( 1, \"two\", <0fbd 77>, {} ); empty = (); }",
       Dictionary::make({{str("a"), str("b")},
                         {str("k 2"), Array::make({str("1"), str("two"), Data::fromBytes(raw, 3),
                                                   Dictionary::make()})},
                         {str("empty"), Array::make()}})},
      // A strings file: a dictionary without braces; "key"; maps the key to itself.
      {"/* greeting */\n\"greeting\" = \"Hello\\n\\\"you\\\"\"; // done\n\"x\";\n",
       Dictionary::make({{str("greeting"), str("Hello\n\"you\"")}, {str("x"), str("x")}})},
      {"\"\\U00e9\\t\\101\\\\\\'\"", str("\xC3\xA9\tA\\'")},
      {"\"\\UD83D\\UDE00 caf\xC3\xA9\"", str("\xF0\x9F\x98\x80 caf\xC3\xA9")},
      {"( a, b, )", Array::make({str("a"), str("b")})},
      {"bare/word:1.5-$_", str("bare/word:1.5-$_")},
      {"<>", Data::empty()},
  };
  for (const auto& [text, expected] : rows) {
    Ref<Error> error;
    PropertyListFormat format{};
    Id read = readPropertyList(bytesOf(text), &error, &format);
    ASSERT_TRUE(read) << text << ": " << reasonOf(error);
    EXPECT_EQ(format, PropertyListFormat::kOpenStep);
    EXPECT_TRUE(read->isEqual(expected.get())) << text << " gave " << read->description()->utf8();
  }

  const std::pair<const char*, const char*> bad[] = {
      {"{ a = b }", "Missing ';'"},
      {"( a b )", "Expected ',' or ')'"},
      {"(", "Unterminated array"},
      {"{ a = b;", "Unterminated dictionary"},
      {"{ a b; }", "Expected '=' or ';'"},
      {"{ (a) = b; }", "key is not a string"},
      {"<0fb>", "odd number"},
      {"<0fbz>", "Malformed data"},
      {"\"unterminated", "Unterminated quoted string"},
      {"\"\\351\"", "Octal escapes above"},
      {"\"\\U\"", "without hexadecimal digits"},
      {"\"\xff\"", "Malformed UTF-8"},
      {"{ a = b; } c", "Junk after the property list"},
      {"( a, /* unterminated", "Unterminated comment"},
      {"\"a\" = ", "end of input"},
      {"( a, ; )", "Unexpected character ';'"},
  };
  for (const auto& [text, reason] : bad) EXPECT_TRUE(failsWith(text, reason)) << text;

  // Nesting is limited as in the other forms.
  Ref<Error> error;
  EXPECT_TRUE(readText(
      std::string(kPropertyListMaxDepth, '(') + std::string(kPropertyListMaxDepth, ')'), &error))
      << reasonOf(error);
  EXPECT_TRUE(failsWith(std::string(100000, '('), "nested more than 512"));
}

// ---- binary reading ----

TEST(BinaryPropertyList, ReadsHandBuiltFiles) {
  // [1, "a", "é" (UTF-16), true, 2.5, 4-byte 0.5, date 1.0, <0102>, UID 7, {k: 255}, "a"]
  const std::vector<Bytes> objects = {
      array({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 2}),
      {0x10, 0x01},
      ascii("a"),
      {0x61, 0x00, 0xe9},
      {0x09},
      {0x23, 0x40, 0x04, 0, 0, 0, 0, 0, 0},
      {0x22, 0x3f, 0x00, 0x00, 0x00},
      {0x33, 0x3f, 0xf0, 0, 0, 0, 0, 0, 0},
      {0x42, 0x01, 0x02},
      {0x80, 0x07},
      dict1(11, 12),
      ascii("k"),
      {0x10, 0xff},
  };
  Ref<Error> error;
  auto read = cast<Array>(readPropertyList(bplist(objects), &error));
  ASSERT_TRUE(read) << reasonOf(error);
  const uint8_t raw[] = {1, 2};
  auto expected = Array::make({
      Number::withInt(1),
      str("a"),
      str("\xC3\xA9"),
      Number::yes(),
      Number::withDouble(2.5),
      Number::withFloat(0.5f),
      Date::fromTimeIntervalSinceReferenceDate(1.0),
      Data::fromBytes(raw, 2),
      PlistUID::make(7),
      Dictionary::make({{str("k"), Number::withInt(255)}}),
      str("a"),
  });
  EXPECT_TRUE(read->isEqual(expected.get())) << read->description()->utf8();
  // An object referenced twice is one object in the result.
  EXPECT_EQ(read->objectAtIndex(1).get(), read->objectAtIndex(10).get());
  ASSERT_TRUE(cast<Number>(read->objectAtIndex(4)) && cast<Number>(read->objectAtIndex(5)));
  EXPECT_EQ(cast<Number>(read->objectAtIndex(4))->objCType(), 'd');
  EXPECT_EQ(cast<Number>(read->objectAtIndex(5))->objCType(), 'f');

  // Integers: 1-, 2- and 4-byte forms are unsigned, 8-byte signed, 16-byte
  // values keep their sign when they fit in 64 bits.
  auto int128 = [](uint64_t high, uint64_t low) {
    Bytes o = {0x14};
    appendBE(o, high, 8);
    appendBE(o, low, 8);
    return o;
  };
  // Each object, its type code (0: refused) and its bits.
  const std::tuple<Bytes, char, unsigned long long> ints[] = {
      {{0x10, 0xff}, 'q', 255},
      {{0x11, 0xff, 0xff}, 'q', 65535},
      {{0x12, 0xff, 0xff, 0xff, 0xff}, 'q', 0xffffffff},
      {{0x13, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}, 'q', UINT64_MAX},  // -1
      {int128(0, UINT64_MAX), 'Q', UINT64_MAX},
      {int128(UINT64_MAX, UINT64_MAX - 1), 'q', UINT64_MAX - 1},  // -2
      {int128(1, 0), 0, 0},                                       // 2^64
      {{0x15, 0}, 0, 0},                                          // 32 bytes
  };
  for (const auto& [object, code, bits] : ints) {
    auto n = cast<Number>(readPropertyList(bplist({object}), &error));
    ASSERT_EQ(static_cast<bool>(n), code != 0)
        << static_cast<int>(object[0]) << " " << reasonOf(error);
    if (!n) continue;
    EXPECT_EQ(n->objCType(), code);
    EXPECT_EQ(n->unsignedLongLongValue(), bits);
  }

  // Lengths of 15 and more follow the marker as an integer object; two-byte
  // references reach past 255 objects.
  std::vector<Bytes> many = {{}};
  std::vector<uint64_t> refs;
  for (int i = 1; i <= 300; ++i) {
    many.push_back({0x11, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
    refs.push_back(static_cast<uint64_t>(i));
  }
  many[0] = array(refs, 2);
  auto big = cast<Array>(readPropertyList(bplist(many, 2), &error));
  ASSERT_TRUE(big) << reasonOf(error);
  ASSERT_EQ(big->count(), 300u);
  EXPECT_TRUE(big->objectAtIndex(299)->isEqual(Number::withInt(300).get()));
}

TEST(BinaryPropertyList, RejectsCorruptFiles) {
  const Bytes good = bplist({array({1, 2}), ascii("ab"), {0x10, 0x05}});
  ASSERT_TRUE(readPropertyList(good));
  const size_t table = good.size() - 32 - 3;
  const std::pair<Bytes, const char*> rows[] = {
      {withTrailer(good, 6, 3), "offset size 3"},
      {withTrailer(good, 7, 0), "reference size 0"},
      {withTrailer(good, 8, 0), "no objects"},
      {withTrailer(good, 16, 3), "top object 3"},
      {withTrailer(good, 24, good.size()), "outside the file"},
      {withTrailer(good, 24, 4), "outside the file"},
      {withTrailer(good, 8, 4), "does not fit"},
      {withTrailer(good, 8, uint64_t{1} << 62), "does not fit"},
      {withTrailer(withTrailer(good, 24, table + 1), 8, 3), "does not fit"},
      {bplist({array({1, 7}), ascii("ab")}), "reference to object 7"},
      {bplist({array({1}), {0x5f, 0x10, 0x40, 'a'}}), "runs past the object area"},
      {bplist({array({1}), {0x5f, 0x50, 0x01, 'a'}}), "malformed length"},
      {bplist({{0x70}}), "unknown marker 0x70"},
      {bplist({{0x00}}), "null and fill"},
      {bplist({{0x0f}}), "null and fill"},
      {bplist({{0x21, 0, 0}}), "reals of 2^1 bytes"},
      {bplist({{0x32, 0, 0, 0, 0}}), "8-byte real"},
      {bplist({{0x88, 0, 0, 0, 0, 0, 0, 0, 0, 0}}), "UIDs longer than 8 bytes"},
      {bplist({ascii("\x80")}), "ASCII string holds byte 0x80"},
      {bplist({dict1(1, 1), {0x10, 0x01}}), "dictionary key of type 'Number'"},
  };
  for (size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_TRUE(failsWith(rows[i].first, rows[i].second)) << i;
  }
  // Two entries of the offset table naming the same bytes.
  Bytes twice = bplist({array({1, 2}), {0x43, 'a', 'b', 'c'}, {0x10, 0x01}});
  twice[twice.size() - 32 - 1] = twice[twice.size() - 32 - 2];
  EXPECT_TRUE(failsWith(twice, "overlaps"));

  // An object offset into the header or the offset table.
  Bytes intoTable = good;
  intoTable[table + 1] = static_cast<uint8_t>(table);
  EXPECT_FALSE(readPropertyList(intoTable));
  Bytes intoHeader = good;
  intoHeader[table] = 3;
  EXPECT_FALSE(readPropertyList(intoHeader));

  // Every truncation of a valid file fails cleanly (shorter than "bplist" it
  // is a bare OpenStep string).
  auto full = writePropertyList(sampleDictionary(false).get(), PropertyListFormat::kBinary);
  ASSERT_TRUE(full);
  for (size_t n = 6; n < full->size(); ++n) {
    EXPECT_FALSE(readPropertyList(std::span<const uint8_t>(full->data(), n))) << n;
  }
}

TEST(BinaryPropertyList, RefusesCyclesDepthAndExpansionBombs) {
  Ref<Error> error;
  // An array holding itself, and a two-array loop.
  EXPECT_TRUE(failsWith(bplist({array({0})}), "cycle"));
  EXPECT_TRUE(failsWith(bplist({array({1}), array({0})}), "cycle"));
  // A dictionary whose value is the dictionary.
  EXPECT_FALSE(readPropertyList(bplist({dict1(1, 0), ascii("k")}), &error));

  // Nesting: 512 levels are read, 513 are not.
  auto chain = [](size_t depth) {
    std::vector<Bytes> objects;
    for (size_t i = 0; i + 1 < depth; ++i) objects.push_back(array({i + 1}, 2));
    objects.push_back(array({}, 2));
    return bplist(objects, 2);
  };
  EXPECT_TRUE(readPropertyList(chain(kPropertyListMaxDepth), &error)) << reasonOf(error);
  EXPECT_TRUE(failsWith(chain(kPropertyListMaxDepth + 1), "nested more than 512"));
  EXPECT_FALSE(readPropertyList(chain(20000), &error));

  // Depth counts every path, not just the first one found. Object 0 = [1, 2];
  // 1 = [3] reaches the 300-array chain 3..302 early; 2 = [303] leads through a
  // second chain 303..602 of 300 arrays to 3 again: 600 levels in all.
  std::vector<Bytes> objects = {array({1, 2}, 2), array({3}, 2), array({303}, 2)};
  for (uint64_t i = 3; i < 302; ++i) objects.push_back(array({i + 1}, 2));
  objects.push_back(array({}, 2));  // 302
  for (uint64_t i = 303; i < 602; ++i) objects.push_back(array({i + 1}, 2));
  objects.push_back(array({3}, 2));  // 602
  EXPECT_TRUE(failsWith(bplist(objects, 2), "nested more than 512"));

  // Each array refers twice to the next: 60 levels expand to 2^60 elements.
  auto doubling = [](uint64_t levels) {
    std::vector<Bytes> arrays;
    for (uint64_t i = 0; i < levels; ++i) arrays.push_back(array({i + 1, i + 1}));
    arrays.push_back(ascii("x"));
    return bplist(arrays);
  };
  EXPECT_TRUE(failsWith(doubling(60), "expand"));
  // Ten levels (2^11 elements) are fine and come back shared, not copied.
  auto shared = cast<Array>(readPropertyList(doubling(10), &error));
  ASSERT_TRUE(shared) << reasonOf(error);
  EXPECT_EQ(shared->objectAtIndex(0).get(), shared->objectAtIndex(1).get());
}

TEST(BinaryPropertyList, RefusesSetsTooCostlyToTellApart) {
  // Arrays hash by their count and end elements, so a set of arrays that differ
  // only inside is built by equality tests, pair by pair. Object 0 is a set of
  // `members` arrays, each [leaf, doubling chain of `levels` arrays over that
  // leaf, its own integer, leaf]: every test walks a whole chain, 2^(levels + 1)
  // elements, before it differs.
  auto costlySet = [](uint64_t members, uint64_t levels) {
    const uint64_t perMember = levels + 2, leaf = 1 + members * perMember;
    std::vector<Bytes> objects(1);
    std::vector<uint64_t> refs;
    for (uint64_t m = 0; m < members; ++m) {
      const uint64_t first = objects.size();
      if (levels) objects.push_back(array({leaf, leaf}, 2));
      for (uint64_t l = 1; l < levels; ++l)
        objects.push_back(array({first + l - 1, first + l - 1}, 2));
      const uint64_t top = levels ? objects.size() - 1 : leaf;
      objects.push_back({0x11, static_cast<uint8_t>(m >> 8), static_cast<uint8_t>(m)});
      refs.push_back(objects.size());
      objects.push_back(array({leaf, top, objects.size() - 1, leaf}, 2));
    }
    objects.push_back(ascii("x"));
    objects[0] = array(refs, 2);
    objects[0][0] = static_cast<uint8_t>(0xC0 | (objects[0][0] & 0x0F));
    return bplist(objects, 2);
  };
  Ref<Error> error;
  auto small = cast<Set>(readPropertyList(costlySet(7, 8), &error));
  ASSERT_TRUE(small) << reasonOf(error);
  EXPECT_EQ(small->count(), 7u);
  // 21 pairs of 2^21 elements each: well over the limit, from a 3 KB file.
  EXPECT_TRUE(failsWith(costlySet(7, 20), "members of its sets apart"));
  // 4,200 arrays [x, x, i, x] and no chains: about 8.8 million pairs.
  EXPECT_TRUE(failsWith(costlySet(4200, 0), "members of its sets apart"));
  // Pairs that differ at an end are told apart by their hashes, however many.
  std::vector<Id> pairs;
  for (int i = 0; i < 6000; ++i) {
    pairs.push_back(Array::make({Number::withInt(i), Number::withInt(i + 1)}));
  }
  auto set = Set::make(pairs);
  EXPECT_TRUE(isEqual(roundTrip(set.get(), PropertyListFormat::kBinary), set));
}

TEST(PropertyList, XMLDepthLimit) {
  auto nested = [](size_t depth) {
    std::string xml = "<plist>";
    for (size_t i = 0; i < depth; ++i) xml += "<array>";
    for (size_t i = 0; i < depth; ++i) xml += "</array>";
    return xml + "</plist>";
  };
  Ref<Error> error;
  EXPECT_TRUE(readText(nested(kPropertyListMaxDepth), &error)) << reasonOf(error);
  EXPECT_TRUE(failsWith(nested(kPropertyListMaxDepth + 1), "nested more than 512"));
  // An unclosed bomb fails early instead of growing a stack.
  std::string bomb;
  for (int i = 0; i < 200000; ++i) bomb += "<dict><key>k</key>";
  EXPECT_FALSE(readText(bomb, &error));
}

// ---- writing ----

TEST(PropertyList, WriterRefusesWhatItCannotWrite) {
  auto selfContaining = MutableArray::make();
  selfContaining->addObject(str("a"));
  selfContaining->addObject(selfContaining);
  Id deep = Array::make();
  for (size_t i = 0; i < kPropertyListMaxDepth; ++i) deep = Array::make({deep});
  Id expanding = Array::make({str("x")});
  for (int i = 0; i < 30; ++i) expanding = Array::make({expanding, expanding});
  // Seven arrays of 2^21 elements in a set: a reader would refuse to tell them apart.
  std::vector<Id> bulky;
  for (int m = 0; m < 7; ++m) {
    Id chain = str("x");
    for (int i = 0; i < 20; ++i) chain = Array::make({chain, chain});
    bulky.push_back(Array::make({str("x"), chain, Number::withInt(m), str("x")}));
  }
  // Each root, the form to write it in, and a part of the reason it is refused.
  const std::tuple<Id, PropertyListFormat, const char*> rows[] = {
      {Null::null(), PropertyListFormat::kBinary, "objects of type 'Null'"},
      {Array::make({Null::null()}), PropertyListFormat::kXML, "objects of type 'Null'"},
      {Dictionary::make({{Number::withInt(1), str("v")}}), PropertyListFormat::kBinary,
       "keys must be strings, not 'Number'"},
      {selfContaining, PropertyListFormat::kBinary, "cycle"},
      {selfContaining, PropertyListFormat::kXML, "cycle"},
      {deep, PropertyListFormat::kBinary, "nested more than 512"},
      {expanding, PropertyListFormat::kXML, "expand"},
      {Set::make(bulky), PropertyListFormat::kBinary, "members of its sets apart"},
      {Set::make({str("a")}), PropertyListFormat::kXML, "objects of type 'Set'"},
      {String::withCharacters(u"\xD800"), PropertyListFormat::kXML, "unpaired surrogate"},
      {nullptr, PropertyListFormat::kBinary, "nil"},
      {str("a"), PropertyListFormat::kOpenStep, "not supported for writing"},
  };
  for (const auto& [root, format, reason] : rows) {
    SCOPED_TRACE(std::string(reason) + ", form " + std::to_string(static_cast<int>(format)));
    Ref<Error> error;
    EXPECT_FALSE(writePropertyList(root.get(), format, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), 3852);
    EXPECT_TRUE(hasReason(error, reason));
    EXPECT_FALSE(isValidPropertyList(root.get(), format));
  }
  selfContaining->removeAllObjects();  // break the cycle so the array can be freed

  // What XML cannot carry, the binary form can.
  for (Id root :
       {Id(Set::make({str("a"), Number::withInt(1)})), Id(String::withCharacters(u"a\xD800z"))}) {
    EXPECT_TRUE(isValidPropertyList(root.get(), PropertyListFormat::kBinary));
    Id back = roundTrip(root.get(), PropertyListFormat::kBinary);
    EXPECT_TRUE(isEqual(back, root));
  }
}

// ---- agreement with libplist ----

TEST(PropertyList, AgreesWithLibplist) {
  // What we write, libplist reads with the same values.
  auto d = MutableDictionary::make();
  d->setObjectForKey(str("caf\xC3\xA9"), str("s"));
  d->setObjectForKey(Number::withInt(-3), str("i"));
  d->setObjectForKey(Number::withInt(70000), str("w"));
  d->setObjectForKey(Number::withDouble(2.5), str("r"));
  d->setObjectForKey(Array::make({Number::yes(), PlistUID::make(9)}), str("a"));
  for (auto format : {PropertyListFormat::kBinary, PropertyListFormat::kXML}) {
    auto bytes = writePropertyList(d.get(), format);
    ASSERT_TRUE(bytes);
    plist_t root = nullptr;
    (format == PropertyListFormat::kBinary ? plist_from_bin : plist_from_xml)(
        reinterpret_cast<const char*>(bytes->data()), static_cast<uint32_t>(bytes->size()), &root);
    ASSERT_NE(root, nullptr) << static_cast<int>(format);
    EXPECT_EQ(plist_dict_get_size(root), 5u);
    char* s = nullptr;
    plist_get_string_val(plist_dict_get_item(root, "s"), &s);
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(s, "caf\xC3\xA9");
    free(s);
    uint64_t i = 0;
    plist_get_uint_val(plist_dict_get_item(root, "i"), &i);
    EXPECT_EQ(static_cast<int64_t>(i), -3);
    plist_get_uint_val(plist_dict_get_item(root, "w"), &i);
    EXPECT_EQ(i, 70000u);
    double r = 0;
    plist_get_real_val(plist_dict_get_item(root, "r"), &r);
    EXPECT_EQ(r, 2.5);
    plist_t a = plist_dict_get_item(root, "a");
    ASSERT_EQ(plist_array_get_size(a), 2u);
    EXPECT_TRUE(plist_bool_val_is_true(plist_array_get_item(a, 0)));
    if (format == PropertyListFormat::kBinary) {
      uint64_t uid = 0;
      plist_get_uid_val(plist_array_get_item(a, 1), &uid);
      EXPECT_EQ(uid, 9u);
    }
    plist_free(root);
  }

  // What libplist writes, we read.
  plist_t dict = plist_new_dict();
  plist_dict_set_item(dict, "name", plist_new_string("value"));
  plist_dict_set_item(dict, "count", plist_new_uint(300));
  plist_dict_set_item(dict, "bytes", plist_new_data("\x01\x02\x03", 3));
  plist_dict_set_item(dict, "when", plist_new_date(86400, 0));
  plist_t list = plist_new_array();
  plist_array_append_item(list, plist_new_real(0.5));
  plist_array_append_item(list, plist_new_bool(0));
  plist_array_append_item(list, plist_new_uid(4));
  plist_dict_set_item(dict, "list", list);
  const uint8_t raw[] = {1, 2, 3};
  auto expected = Dictionary::make({
      {str("name"), str("value")},
      {str("count"), Number::withInt(300)},
      {str("bytes"), Data::fromBytes(raw, 3)},
      {str("when"), Date::fromTimeIntervalSinceReferenceDate(86400)},
      {str("list"), Array::make({Number::withDouble(0.5), Number::no(), PlistUID::make(4)})},
  });
  for (bool binary : {true, false}) {
    char* out = nullptr;
    uint32_t length = 0;
    (binary ? plist_to_bin : plist_to_xml)(dict, &out, &length);
    ASSERT_NE(out, nullptr);
    Ref<Error> error;
    Id read = readPropertyList(
        std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(out), length), &error);
    (binary ? plist_to_bin_free : plist_to_xml_free)(out);
    ASSERT_TRUE(read) << binary << ": " << reasonOf(error);
    EXPECT_TRUE(read->isEqual(expected.get())) << binary << ": " << read->description()->utf8();
  }
  plist_free(dict);
}

TEST(PlistUID, ValueSemantics) {
  auto a = PlistUID::make(5);
  EXPECT_TRUE(a->isEqual(PlistUID::make(5).get()));
  EXPECT_EQ(a->hash(), PlistUID::make(5)->hash());
  EXPECT_FALSE(a->isEqual(PlistUID::make(6).get()));
  EXPECT_FALSE(a->isEqual(Number::withInt(5).get()));
  EXPECT_EQ(a->copy().get(), a.get());
  const std::string text = a->description()->utf8();
  EXPECT_EQ(text.rfind("<PlistUID: 0x", 0), 0u) << text;
  EXPECT_NE(text.find(">{value = 5}"), std::string::npos) << text;
}

}  // namespace
}  // namespace nk
