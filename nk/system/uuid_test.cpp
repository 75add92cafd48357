// Tests for UUID: random version-4 identifiers and their text form.
#include "nk/system/uuid.hpp"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace nk {
namespace {

TEST(UUID, RandomCanonicalUpperCaseFormWithEveryRandomBitVarying) {
  // the 122 random bits each take both values; the fixed six never change
  std::set<std::string> seen;
  UUID::Bytes anySet{}, allSet;
  allSet.fill(0xFF);
  for (int i = 0; i < 10000; ++i) {
    Ref<UUID> u = UUID::random();
    const std::string s = u->uuidString()->utf8();
    seen.insert(s);
    if (i >= 256) continue;
    for (size_t k = 0; k < 16; ++k) {
      anySet[k] |= u->bytes()[k];
      allSet[k] &= u->bytes()[k];
    }
    ASSERT_EQ(s.size(), 36u);
    for (size_t k = 0; k < s.size(); ++k) {
      const bool dash = k == 8 || k == 13 || k == 18 || k == 23;
      ASSERT_TRUE(dash ? s[k] == '-' : (s[k] >= '0' && s[k] <= '9') || (s[k] >= 'A' && s[k] <= 'F'))
          << s;
    }
  }
  EXPECT_EQ(seen.size(), 10000u);  // no repeats
  for (size_t k = 0; k < 16; ++k) {
    const uint8_t fixedMask = k == 6 ? 0xF0 : k == 8 ? 0xC0 : 0x00;
    const uint8_t fixedValue = k == 6 ? 0x40 : k == 8 ? 0x80 : 0x00;
    EXPECT_EQ(anySet[k] | fixedMask, 0xFF) << k;
    EXPECT_EQ(allSet[k] & static_cast<uint8_t>(~fixedMask), 0) << k;
    EXPECT_EQ(anySet[k] & fixedMask, fixedValue) << k;
    EXPECT_EQ(allSet[k] & fixedMask, fixedValue) << k;
  }
}

TEST(UUID, ParsingAndEquality) {
  // text round trip; lower case is read too
  Ref<UUID> u = UUID::random();
  Ref<UUID> back = UUID::fromString(u->uuidString().get());
  ASSERT_TRUE(back);
  EXPECT_TRUE(isEqual(u, back));
  EXPECT_EQ(u->hash(), back->hash());
  Ref<UUID> lower = UUID::fromString("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
  ASSERT_TRUE(lower);
  EXPECT_EQ(lower->uuidString()->utf8(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
  EXPECT_EQ(lower->bytes()[0], 0xE6);
  EXPECT_EQ(lower->bytes()[15], 0x5F);
  for (std::string_view s :  // malformed texts are nil
       {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
        "E621E1F8-C36C-495A-93FC_0C247A3E6E5F", "G621E1F8-C36C-495A-93FC-0C247A3E6E5F",
        "E621E1F8-C36C-495A-93FC-0C247A3E6E5F0"}) {
    EXPECT_FALSE(UUID::fromString(s)) << s;
  }
  EXPECT_FALSE(UUID::fromString(static_cast<const String*>(nullptr)));
  Ref<UUID> a = UUID::random();  // distinct values differ
  EXPECT_FALSE(isEqual(a, UUID::random()));
  EXPECT_FALSE(a->isEqual(NK_STR("x")));
}

}  // namespace
}  // namespace nk
