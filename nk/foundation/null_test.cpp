// Tests of Null: one shared instance, equal only to itself.
#include "nk/foundation/null.hpp"

#include <gtest/gtest.h>

#include "nk/foundation/number.hpp"

namespace nk {
namespace {

TEST(Null, IsOneSharedImmortalValue) {
  Null* null = Null::null();
  ASSERT_NE(null, nullptr);
  EXPECT_EQ(null, Null::null());
  EXPECT_TRUE(null->isImmortal());
  EXPECT_EQ(null->description()->utf8(), "<null>");
  EXPECT_TRUE(null->conformsToCopying());
  EXPECT_EQ(null->copy().get(), null);

  // Equal only to itself: not to nil, zero, NO or an empty string.
  EXPECT_TRUE(null->isEqual(null));
  EXPECT_FALSE(null->isEqual(nullptr));
  EXPECT_FALSE(null->isEqual(Number::withInt(0).get()));
  EXPECT_FALSE(null->isEqual(Number::no()));
  EXPECT_FALSE(null->isEqual(String::empty()));
  EXPECT_FALSE(Number::no()->isEqual(null));
}

}  // namespace
}  // namespace nk
