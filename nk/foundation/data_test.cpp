// Tests of Data and MutableData: content equality, description, Base64 and the
// edits of the mutable class (including sources that alias its own buffer).
#include "nk/foundation/data.hpp"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <utility>
#include <vector>

#include "nk/foundation/exception.hpp"

namespace nk {
namespace {

Ref<Data> dataOf(std::string_view text) { return Data::fromBytes(text.data(), text.size()); }

std::vector<uint8_t> counting(size_t n) {
  std::vector<uint8_t> v(n);
  std::iota(v.begin(), v.end(), uint8_t{0});
  return v;
}

TEST(Data, EqualityIsByContent) {
  auto a = dataOf("hello");
  auto b = nk::make<MutableData>();
  b->appendBytes("hel", 3);
  b->appendBytes("lo", 2);
  EXPECT_TRUE(a->isEqual(b.get()));
  EXPECT_TRUE(b->isEqual(a.get()));
  EXPECT_EQ(a->hash(), b->hash());

  EXPECT_FALSE(a->isEqual(dataOf("hellO").get()));
  EXPECT_FALSE(a->isEqual(dataOf("hell").get()));
  EXPECT_FALSE(a->isEqual(nullptr));
  EXPECT_FALSE(a->isEqual(String::fromUTF8("hello").get()));
  EXPECT_TRUE(Data::empty()->isEqual(Data::fromBytes(nullptr, 0).get()));

  // Bytes past the hashed prefix still count for equality.
  auto long1 = Data::fromVector(counting(200));
  auto bytes = counting(200);
  bytes[150] ^= 1;
  auto long2 = Data::fromVector(bytes);
  EXPECT_FALSE(long1->isEqual(long2.get()));
  // Embedded zero bytes are content too.
  EXPECT_FALSE(
      dataOf(std::string_view("a\0b", 3))->isEqual(dataOf(std::string_view("a\0c", 3)).get()));
}

TEST(Data, Description) {
  EXPECT_EQ(Data::empty()->description()->utf8(), "{length = 0, bytes = 0x}");
  EXPECT_EQ(dataOf("hello")->description()->utf8(), "{length = 5, bytes = 0x68656c6c 6f}");
  EXPECT_EQ(Data::fromVector(counting(24))->description()->utf8(),
            "{length = 24, bytes = 0x00010203 04050607 08090a0b 0c0d0e0f 10111213 14151617}");
  // Longer data shows the first 16 and the last 8 bytes.
  EXPECT_EQ(Data::fromVector(counting(25))->description()->utf8(),
            "{length = 25, bytes = 0x00010203 04050607 08090a0b 0c0d0e0f ... 11121314 15161718}");
  EXPECT_EQ(Data::fromVector(counting(256))->description()->utf8(),
            "{length = 256, bytes = 0x00010203 04050607 08090a0b 0c0d0e0f ... f8f9fafb fcfdfeff}");
}

TEST(Data, Base64) {
  // Each text and its bytes; nullptr: rejected.
  const std::pair<const char*, const char*> strict[] = {
      {"", ""},
      {"aGVsbG8=", "hello"},
      {"aGVsbG8h", "hello!"},
      {"aGVsbA==", "hell"},
      {"aGVsbG8", nullptr},    // padding missing
      {"aGVsbG8==", nullptr},  // too much padding
      {"aGVs=bG8", nullptr},   // data after padding
      {"a===", nullptr},       // a lone character
      {"====", nullptr},
      {"aGV sbG8=", nullptr},  // a space
      {"aGVsbG8-", nullptr},   // URL alphabet
  };
  for (const auto& [text, bytes] : strict) {
    auto data = Data::fromBase64(std::string_view(text));
    EXPECT_EQ(static_cast<bool>(data), bytes != nullptr) << text;
    if (data && bytes) {
      EXPECT_TRUE(data->isEqual(dataOf(bytes).get())) << text;
    }
  }
  // Skipping unknown characters accepts line-broken text.
  auto wrapped = Data::fromBase64(std::string_view("aGVs\r\nbG8=\n"), true);
  ASSERT_TRUE(wrapped);
  EXPECT_TRUE(wrapped->isEqual(dataOf("hello").get()));

  // Every length round-trips, all byte values included.
  for (size_t n = 0; n < 70; ++n) {
    auto data = Data::fromVector(counting(n));
    auto text = data->base64Encoded();
    EXPECT_EQ(text->length() % 4, 0u) << n;
    auto back = Data::fromBase64(text.get());
    ASSERT_TRUE(back) << n;
    EXPECT_TRUE(back->isEqual(data.get())) << n;
  }
  EXPECT_EQ(dataOf("\xff\xfe\xfd")->base64Encoded()->utf8(), "//79");
}

TEST(Data, SubdataChecksItsRange) {
  auto data = dataOf("abcdef");
  EXPECT_TRUE(data->subdata(1, 3)->isEqual(dataOf("bcd").get()));
  EXPECT_TRUE(data->subdata(6, 0)->isEmpty());
  EXPECT_THROW((void)data->subdata(4, 3), ThrownObject);
  EXPECT_THROW((void)data->subdata(7, 0), ThrownObject);
  EXPECT_THROW((void)data->subdata(1, SIZE_MAX), ThrownObject);
}

TEST(MutableData, EditsAndCopies) {
  auto data =
      nk::make<MutableData>(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>("abc"), 3));

  // Appending its own bytes must survive the buffer moving as it grows.
  for (int i = 0; i < 6; ++i) data->appendBytes(data->bytes(), data->length());
  EXPECT_EQ(data->length(), 3u * 64);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(data->bytes()) + 189, 3), "abc");

  data->setLength(3);
  data->replaceBytes(1, 1, data->bytes(), 3);  // "a" + "abc" + "c"
  EXPECT_TRUE(data->isEqual(dataOf("aabcc").get()));
  data->replaceBytes(0, 5, nullptr, 0);
  EXPECT_TRUE(data->isEmpty());
  EXPECT_THROW(data->replaceBytes(1, 0, "x", 1), ThrownObject);

  data->setLength(4);  // grows with zeros
  EXPECT_TRUE(data->isEqual(dataOf(std::string_view("\0\0\0\0", 4)).get()));

  // copy() is an immutable snapshot; mutableCopy() an independent buffer.
  data->setData(dataOf("xyz").get());
  Id snapshot = data->copy();
  EXPECT_TRUE(snapshot->isMemberOfClass(Data::staticClass()));
  Id other = data->mutableCopy();
  ASSERT_TRUE(other->isMemberOfClass(MutableData::staticClass()));
  data->appendData(dataOf("!").get());
  EXPECT_TRUE(snapshot->isEqual(dataOf("xyz").get()));
  EXPECT_TRUE(other->isEqual(dataOf("xyz").get()));

  // An immutable Data copies to itself.
  auto fixed = dataOf("q");
  EXPECT_EQ(fixed->copy().get(), fixed.get());
}

}  // namespace
}  // namespace nk
