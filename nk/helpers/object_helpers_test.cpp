// Tests of the nil/Null conversions.

#include "nk/helpers/object_helpers.hpp"

#include <gtest/gtest.h>

#include "nk/foundation/null.hpp"
#include "nk/foundation/string.hpp"

namespace nk {
namespace {

TEST(ObjectNullConversion, RoundTrips) {
  const Id null(Null::null());
  const Id text(NK_STR("x"));
  EXPECT_EQ(vnk_objectForPointer(nullptr), null);
  EXPECT_EQ(vnk_objectForPointer(text), text);
  EXPECT_EQ(vnk_pointerForObject(null), nullptr);
  EXPECT_EQ(vnk_pointerForObject(text), text);
  EXPECT_EQ(vnk_pointerForObject(nullptr), nullptr);
}

}  // namespace
}  // namespace nk
