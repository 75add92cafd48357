// Tests of JSONDecoder: flags dropped, immutable and mutable results, the
// extra mutable copy, nil data raising and malformed text failing.
#include "nk/json/json_decoder.hpp"

#include <gtest/gtest.h>

#include <functional>
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
    EXPECT_TRUE(isEqual(make<JSONDecoder>(flags)->objectWithData(text.get()), plain));
  }
}

TEST(JSONDecoder, ImmutableAndMutableResults) {
  auto text = bytes(R"([1,{"a":2}])");
  auto decoder = JSONDecoder::decoder();
  auto plain = cast<Array>(decoder->objectWithData(text.get()));
  ASSERT_TRUE(plain);
  EXPECT_FALSE(plain->isKindOfClass(MutableArray::staticClass()));
  EXPECT_FALSE(plain->objectAtIndex(1)->isKindOfClass(MutableDictionary::staticClass()));
  auto a = cast<MutableArray>(decoder->mutableObjectWithData(text.get()));
  ASSERT_TRUE(a);
  EXPECT_TRUE(a->objectAtIndex(1)->isKindOfClass(MutableDictionary::staticClass()));
  auto s = cast<Array>(decoder->mutableObjectWithDataError(bytes(R"(["s"])").get(), nullptr));
  ASSERT_TRUE(s);
  EXPECT_TRUE(s->objectAtIndex(0)->isKindOfClass(MutableString::staticClass()));
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
  Ref<Error> error;  // every form raises, and the error slot stays untouched
  for (auto call : std::initializer_list<std::function<void()>>{
           [&] { decoder->objectWithData(nullptr); },
           [&] { decoder->objectWithDataError(nullptr, &error); },
           [&] { decoder->mutableObjectWithData(nullptr); },
           [&] { decoder->mutableObjectWithDataError(nullptr, &error); }}) {
    EXPECT_EQ(reasonOf(call), "The jsonData argument is NULL.");
  }
  EXPECT_FALSE(error);
  for (bool mutableForm : {false, true}) {  // malformed text: nil and the reader's error
    Ref<Error> failure;
    auto data = bytes("[1,]");
    EXPECT_FALSE(mutableForm ? decoder->mutableObjectWithDataError(data.get(), &failure)
                             : decoder->objectWithDataError(data.get(), &failure));
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->code(), kJSONReadingCorruptError);
  }
  EXPECT_FALSE(decoder->objectWithData(bytes("7").get()));  // no fragments
}

}  // namespace
}  // namespace nk
