// Tests of the dictionary helpers.

#include "nk/helpers/dictionary_helpers.hpp"

#include <gtest/gtest.h>

#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

TEST(DictionaryHelpers, NonNullValueAndJSONText) {
  const Ref<Dictionary> d =
      Dictionary::make({{NK_STR("null"), Id(Null::null())}, {NK_STR("one"), Number::withInt(1)}});
  {  // Null means absent
    EXPECT_EQ(vnk_nonNSNullValueForKey(d.get(), NK_STR("null")), nullptr);
    EXPECT_EQ(vnk_nonNSNullValueForKey(d.get(), NK_STR("missing")), nullptr);
    EXPECT_TRUE(
        isEqual(vnk_nonNSNullValueForKey(d.get(), String::fromUTF8("one")), Number::withInt(1)));
    EXPECT_EQ(vnk_nonNSNullValueForKey(nullptr, NK_STR("one")), nullptr);
  }
  // Compact JSON text; nil when the writer refuses the content.
  const Ref<Dictionary> nested =
      Dictionary::make({{NK_STR("b"), Number::withInt(1)},
                        {NK_STR("a"), Array::make({NK_STR("x/y"), Id(Null::null())})}});
  EXPECT_EQ(vnk_JSONString(nested.get())->utf8(), "{\"b\":1,\"a\":[\"x\\/y\",null]}");
  EXPECT_EQ(vnk_JSONString(Dictionary::make({{Number::withInt(1), NK_STR("v")}}).get()), nullptr);
  EXPECT_EQ(vnk_JSONString(nullptr), nullptr);
}

}  // namespace
}  // namespace nk
