// Tests of the dictionary helpers.

#include "nk/helpers/dictionary_helpers.hpp"

#include <gtest/gtest.h>

#include <limits>

#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

TEST(DictionaryNonNullValue, NullMeansAbsent) {
  const Ref<Dictionary> d =
      Dictionary::make({{NK_STR("null"), Id(Null::null())}, {NK_STR("one"), Number::withInt(1)}});
  EXPECT_EQ(vnk_nonNSNullValueForKey(d.get(), NK_STR("null")), nullptr);
  EXPECT_EQ(vnk_nonNSNullValueForKey(d.get(), NK_STR("missing")), nullptr);
  EXPECT_TRUE(
      isEqual(vnk_nonNSNullValueForKey(d.get(), String::fromUTF8("one")), Number::withInt(1)));
  EXPECT_EQ(vnk_nonNSNullValueForKey(d.get(), static_cast<const Object*>(nullptr)), nullptr);
  EXPECT_EQ(vnk_nonNSNullValueForKey(nullptr, NK_STR("one")), nullptr);
}

TEST(DictionaryJSONString, CompactText) {
  const Ref<Dictionary> d = Dictionary::make(
      {{NK_STR("b"), Number::withInt(1)},
       {NK_STR("a"), Array::make({NK_STR("x/y"), Id(Null::null()), Number::withBool(true)})},
       {NK_STR("\u00e9"), Dictionary::make()}});
  EXPECT_EQ(vnk_JSONString(d.get())->utf8(), "{\"b\":1,\"a\":[\"x\\/y\",null,true],\"\u00e9\":{}}");
  EXPECT_EQ(vnk_JSONString(Dictionary::make().get())->utf8(), "{}");
  // Content the writer refuses gives nil: a non-string key, a NaN.
  EXPECT_EQ(vnk_JSONString(Dictionary::make({{Number::withInt(1), NK_STR("v")}}).get()), nullptr);
  EXPECT_EQ(vnk_JSONString(
                Dictionary::make(
                    {{NK_STR("k"), Number::withDouble(std::numeric_limits<double>::quiet_NaN())}})
                    .get()),
            nullptr);
  EXPECT_EQ(vnk_JSONString(nullptr), nullptr);
}

}  // namespace
}  // namespace nk
