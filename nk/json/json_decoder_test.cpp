// Tests of JSONDecoder: flags dropped, immutable and mutable results, the
// extra mutable copy, nil data raising and malformed text failing.
#include "nk/json/json_decoder.hpp"

#include <gtest/gtest.h>

#include <string_view>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/json_reader.hpp"
#include "nk/foundation/number.hpp"

namespace nk {
namespace {

Ref<Data> bytes(std::string_view text) { return Data::fromBytes(text.data(), text.size()); }

TEST(JSONDecoder, ParseOptionsChangeNothing) {
  auto text = bytes(R"([1,{"a":"s"},"-0"])");
  Id plain = JSONDecoder::decoder()->objectWithData(text.get());
  ASSERT_TRUE(plain);
  for (unsigned long flags : {0ul, 1ul, 3ul, 0xfffful, ~0ul}) {
    Id other = JSONDecoder::decoderWithParseOptions(flags)->objectWithData(text.get());
    EXPECT_TRUE(isEqual(other, plain));
    EXPECT_TRUE(other->isMemberOfClass(Array::staticClass()));
    EXPECT_TRUE(isEqual(make<JSONDecoder>(flags)->objectWithData(text.get()), plain));
  }
  EXPECT_TRUE(make<JSONDecoder>()->isMemberOfClass(JSONDecoder::staticClass()));
}

TEST(JSONDecoder, ImmutableAndMutableResults) {
  auto text = bytes(R"([1,{"a":2}])");
  auto decoder = JSONDecoder::decoder();
  {  // immutable all the way down
    auto a = cast<Array>(decoder->objectWithData(text.get()));
    ASSERT_TRUE(a);
    EXPECT_FALSE(a->isKindOfClass(MutableArray::staticClass()));
    EXPECT_FALSE(a->objectAtIndex(1)->isKindOfClass(MutableDictionary::staticClass()));
  }
  {  // mutable top level and mutable dictionary inside
    auto a = cast<MutableArray>(decoder->mutableObjectWithData(text.get()));
    ASSERT_TRUE(a);
    auto d = cast<MutableDictionary>(a->objectAtIndex(1));
    ASSERT_TRUE(d);
    d->setObjectForKey(Number::withInt(3), NK_STR("b"));
    a->addObject(Number::withInt(4));
    EXPECT_EQ(a->count(), 3u);
    EXPECT_EQ(d->count(), 2u);
  }
  {  // strings come back mutable from the mutable form
    auto a = cast<Array>(decoder->mutableObjectWithDataError(bytes(R"(["s"])").get(), nullptr));
    ASSERT_TRUE(a);
    EXPECT_TRUE(a->objectAtIndex(0)->isKindOfClass(MutableString::staticClass()));
  }
}

TEST(JSONDecoder, NilDataRaisesAndBadTextFails) {
  auto decoder = JSONDecoder::decoder();
  auto reasonOf = [](auto&& call) -> std::string {
    try {
      call();
    } catch (const ThrownObject& thrown) {
      auto e = cast<Exception>(thrown.object());
      if (!e) return "(not an exception)";
      EXPECT_TRUE(e->name()->isEqualToString(NK_STR("NSInvalidArgumentException")));
      return e->reason()->utf8();
    }
    return "(no raise)";
  };
  {  // every form raises, and an error slot stays untouched
    Ref<Error> error;
    EXPECT_EQ(reasonOf([&] { decoder->objectWithData(nullptr); }),
              "The jsonData argument is NULL.");
    EXPECT_EQ(reasonOf([&] { decoder->objectWithDataError(nullptr, &error); }),
              "The jsonData argument is NULL.");
    EXPECT_EQ(reasonOf([&] { decoder->mutableObjectWithData(nullptr); }),
              "The jsonData argument is NULL.");
    EXPECT_EQ(reasonOf([&] { decoder->mutableObjectWithDataError(nullptr, &error); }),
              "The jsonData argument is NULL.");
    EXPECT_FALSE(error);
  }
  {  // malformed text: nil and the reader's error, in both forms
    Ref<Error> error;
    EXPECT_FALSE(decoder->objectWithDataError(bytes("[1,]").get(), &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->code(), kJSONReadingCorruptError);
    Ref<Error> second;
    EXPECT_FALSE(decoder->mutableObjectWithDataError(bytes("{").get(), &second));
    ASSERT_TRUE(second);
    EXPECT_EQ(second->code(), kJSONReadingCorruptError);
    EXPECT_FALSE(decoder->objectWithData(bytes("7").get()));  // no fragments
  }
}

}  // namespace
}  // namespace nk
