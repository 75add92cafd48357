// Tests of JSONSerializer and the JSONString operations: the writer's text with
// the caller's options, the ignored parameters never used, refusals passed on.
#include "nk/json/json_string.hpp"

#include <gtest/gtest.h>

#include <cmath>

#include "nk/foundation/data.hpp"
#include "nk/foundation/json_writer.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

TEST(JSONString, ArraysAndDictionaries) {
  auto a = Array::make({NK_STR("a/b"), Number::withInt(1), Number::withDouble(0.5)});
  auto d = Dictionary::make({{NK_STR("z"), Number::yes()}, {NK_STR("y"), a}});
  ASSERT_TRUE(JSONString(a.get()));
  EXPECT_EQ(JSONString(d.get())->utf8(), R"({"z":true,"y":["a\/b",1,0.5]})");
  {  // options reach the writer unchanged
    EXPECT_EQ(
        JSONStringWithOptionsError(a.get(), kJSONWritingWithoutEscapingSlashes, nullptr)->utf8(),
        R"(["a/b",1,0.5])");
    EXPECT_EQ(JSONStringWithOptionsError(d.get(), kJSONWritingSortedKeys, nullptr)->utf8(),
              R"({"y":["a\/b",1,0.5],"z":true})");
    EXPECT_EQ(
        JSONStringWithOptionsError(Array::make().get(), kJSONWritingPrettyPrinted, nullptr)->utf8(),
        "[\n\n]");
  }
  {  // non-ASCII text comes back as the same characters
    auto s = String::fromUTF8("\xC3\xA9\xF0\x9F\x98\x80");
    EXPECT_EQ(JSONString(Array::make({s}).get())->utf8(), "[\"\xC3\xA9\xF0\x9F\x98\x80\"]");
  }
}

TEST(JSONString, BlockDelegateAndSelectorAreNeverUsed) {
  int calls = 0;
  JSONSerializeBlock block = [&](const Id& o) -> Id {
    ++calls;
    return o;
  };
  auto good = Array::make({Number::withInt(2)});
  auto bad = Array::make({Data::fromBytes("x", 1)});
  auto badDict = Dictionary::make({{NK_STR("k"), Data::fromBytes("x", 1)}});
  {  // block forms: the text is the writer's, unsupported classes stay refused
    EXPECT_EQ(JSONStringWithOptionsSerializeUnsupportedClassesUsingBlockError(good.get(), 0, block,
                                                                              nullptr)
                  ->utf8(),
              "[2]");
    Ref<Error> error;
    EXPECT_FALSE(JSONStringWithOptionsSerializeUnsupportedClassesUsingBlockError(bad.get(), 0,
                                                                                 block, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), kJSONWritingInvalidError);
    EXPECT_EQ(calls, 0);
  }
  {  // delegate forms likewise
    Id delegate = NK_STR("delegate");
    EXPECT_EQ(JSONStringWithOptionsSerializeUnsupportedClassesUsingDelegateSelectorError(
                  good.get(), 0, delegate, "convert:", nullptr)
                  ->utf8(),
              "[2]");
    EXPECT_FALSE(JSONStringWithOptionsSerializeUnsupportedClassesUsingDelegateSelectorError(
        badDict.get(), 0, delegate, "convert:", nullptr));
  }
  {  // the serializer itself, class and instance, with every argument given
    Ref<Error> error;
    auto text = JSONSerializer::classSerializeObjectOptionsEncodeOptionBlockDelegateSelectorError(
        good.get(), 0, 0xffff, block, NK_STR("d"), "sel:", &error);
    ASSERT_TRUE(text);
    EXPECT_EQ(text->utf8(), "[2]");
    EXPECT_FALSE(error);
    EXPECT_FALSE(
        make<JSONSerializer>()->serializeObjectOptionsEncodeOptionBlockDelegateSelectorError(
            Array::make({Number::withDouble(NAN)}).get(), 0, 0, block, nullptr, nullptr, &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(calls, 0);
  }
}

TEST(JSONString, BareStrings) {
  EXPECT_FALSE(JSONString(NK_STR("x")));  // options 0 allow no top-level string
  Ref<Error> error;
  EXPECT_FALSE(JSONStringWithOptionsIncludeQuotesError(NK_STR("x"), 0, false, &error));
  ASSERT_TRUE(error);
  for (bool quotes : {true, false}) {  // with fragments allowed the quotes are always there
    auto s = JSONStringWithOptionsIncludeQuotesError(NK_STR("a\"/"), kJSONWritingFragmentsAllowed,
                                                     quotes, nullptr);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->utf8(), R"("a\"\/")");
  }
}

TEST(JSONString, NilReceiversGiveNilAndLeaveTheErrorSlotAlone) {
  const Array* noArray = nullptr;
  const Dictionary* noDictionary = nullptr;
  const String* noString = nullptr;
  int calls = 0;
  JSONSerializeBlock block = [&](const Id& o) -> Id {
    ++calls;
    return o;
  };
  Ref<Error> error;
  EXPECT_FALSE(JSONString(noString));
  EXPECT_FALSE(JSONString(noArray));
  EXPECT_FALSE(JSONString(noDictionary));
  EXPECT_FALSE(JSONStringWithOptionsIncludeQuotesError(noString, kJSONWritingFragmentsAllowed, true,
                                                       &error));
  EXPECT_FALSE(JSONStringWithOptionsError(noArray, 0, &error));
  EXPECT_FALSE(JSONStringWithOptionsError(noDictionary, 0, &error));
  EXPECT_FALSE(JSONStringWithOptionsSerializeUnsupportedClassesUsingDelegateSelectorError(
      noArray, 0, NK_STR("delegate"), "convert:", &error));
  EXPECT_FALSE(JSONStringWithOptionsSerializeUnsupportedClassesUsingBlockError(noDictionary, 0,
                                                                               block, &error));
  EXPECT_FALSE(error);
  EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace nk
