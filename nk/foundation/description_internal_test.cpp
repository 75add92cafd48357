// Tests of the old-style property-list text that collections print: layout,
// nesting, key order and the quoting of strings.
#include "nk/foundation/description_internal.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/format.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/set.hpp"

namespace nk {
namespace {

Ref<String> S(const char* utf8) { return String::fromUTF8(utf8); }
Ref<Number> N(int v) { return Number::withInt(v); }
std::string text(const Id& object) { return object->description()->utf8(); }

TEST(CollectionDescription, Layout) {
  EXPECT_EQ(text(Array::make({N(1), N(2)})), "(\n    1,\n    2\n)");
  EXPECT_EQ(text(Array::make()), "(\n)");
  EXPECT_EQ(text(MutableDictionary::make()), "{\n}");
  EXPECT_EQ(text(Set::make({S("a")})), "{(\n    a\n)}");
  EXPECT_EQ(text(MutableSet::make()), "{(\n)}");
  // String keys print sorted, whatever the insertion order.
  EXPECT_EQ(text(Dictionary::make({{S("b"), N(2)}, {S("a"), N(1)}})),
            "{\n    a = 1;\n    b = 2;\n}");
  // Other keys keep insertion order.
  EXPECT_EQ(text(Dictionary::make({{N(2), S("x")}, {N(1), S("y")}})),
            "{\n    2 = x;\n    1 = y;\n}");
  // Null and other objects print their own description.
  EXPECT_EQ(text(Array::make({Null::null(), Number::withDouble(0.5)})),
            "(\n    <null>,\n    0.5\n)");
}

TEST(CollectionDescription, NestingIndentsLikeThePlatform) {
  // A nested block starts with its own indentation after the parent's.
  EXPECT_EQ(text(Dictionary::make({{S("k"), Array::make({N(1), N(2)})}})),
            "{\n    k =     (\n        1,\n        2\n    );\n}");
  EXPECT_EQ(text(Array::make({Dictionary::make({{S("a"), N(1)}}), N(3)})),
            "(\n        {\n        a = 1;\n    },\n    3\n)");
  EXPECT_EQ(text(Dictionary::make({{S("o"), Dictionary::make({{S("i"), Set::make({N(1)})}})}})),
            "{\n    o =     {\n        i =         {(\n            1\n        )};\n    };\n}");
  EXPECT_EQ(text(Array::make({Array::make()})), "(\n        (\n    )\n)");
}

TEST(CollectionDescription, StringQuoting) {
  const std::pair<const char*, const char*> rows[] = {
      {"plain", "plain"},
      {"x.y/z:$_9", "x.y/z:$_9"},
      {"", "\"\""},
      {"two words", "\"two words\""},
      {"a-b", "\"a-b\""},
      {"say \"hi\"", "\"say \\\"hi\\\"\""},
      {"back\\slash", "\"back\\\\slash\""},
      {"line\nbreak\ttab", "\"line\\nbreak\\ttab\""},
      {"caf\xC3\xA9", "\"caf\\U00e9\""},
      {"\xF0\x9F\x98\x80", "\"\\Ud83d\\Ude00\""},
      {"bell\x01", "\"bell\\001\""},
  };
  for (const auto& [utf8, printed] : rows) {
    std::u16string out;
    description_internal::appendQuotedString(out, S(utf8).get());
    EXPECT_EQ(String::withCharacters(out)->utf8(), printed) << utf8;
  }
  // Keys are quoted the same way.
  EXPECT_EQ(text(Dictionary::make({{S("a b"), S("")}})), "{\n    \"a b\" = \"\";\n}");
}

}  // namespace
}  // namespace nk
