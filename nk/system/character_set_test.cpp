// Tests for CharacterSet: the three classes hold exactly what the string helpers
// expect, from the BMP table and beyond it.
#include "nk/system/character_set.hpp"

#include <gtest/gtest.h>
#include <unicode/uchar.h>

#include <thread>
#include <vector>

namespace nk {
namespace {

TEST(CharacterSet, AgreesWithIcuEverywhere) {
  // Every code point, so that a wrong bit in the table shows.
  for (char32_t c = 0; c <= 0x10FFFF; ++c) {
    const bool surrogate = c >= 0xD800 && c <= 0xDFFF;
    const auto type = u_charType(static_cast<UChar32>(c));
    const bool ws = !surrogate && (c == 0x09 || type == U_SPACE_SEPARATOR);
    const bool nl =
        c == 0x0A || c == 0x0B || c == 0x0C || c == 0x0D || c == 0x85 || c == 0x2028 || c == 0x2029;
    const bool digit = !surrogate && type == U_DECIMAL_DIGIT_NUMBER;
    ASSERT_EQ(CharacterSet::whitespace()->contains(c), ws) << std::hex << static_cast<uint32_t>(c);
    ASSERT_EQ(CharacterSet::whitespaceAndNewline()->contains(c), ws || nl)
        << std::hex << static_cast<uint32_t>(c);
    ASSERT_EQ(CharacterSet::decimalDigits()->contains(c), digit)
        << std::hex << static_cast<uint32_t>(c);
  }
  // a few members pinned by hand, in case ICU and the table drift together
  EXPECT_TRUE(CharacterSet::whitespace()->contains(U'\u202F'));
  EXPECT_FALSE(CharacterSet::whitespace()->contains(U'\n'));
  EXPECT_TRUE(CharacterSet::whitespaceAndNewline()->contains(U'\u0085'));
  EXPECT_FALSE(CharacterSet::whitespaceAndNewline()->contains(U'\u200B'));
  EXPECT_TRUE(CharacterSet::decimalDigits()->contains(U'\U0001D7CE'));
  EXPECT_FALSE(CharacterSet::decimalDigits()->contains(U'\u00B2'));
  // Beyond Unicode nothing is a member; a surrogate half belongs to no class.
  EXPECT_FALSE(CharacterSet::decimalDigits()->contains(0x110000));
  EXPECT_FALSE(CharacterSet::whitespace()->contains(0xFFFFFFFF));
  EXPECT_TRUE(CharacterSet::whitespace()->containsUnit(u'\u3000'));
  EXPECT_FALSE(CharacterSet::decimalDigits()->containsUnit(u'\xD835'));
}

TEST(CharacterSet, OneInstanceEvenWhenFirstAskedForOnManyThreads) {
  std::vector<const CharacterSet*> seen(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&seen, i] { seen[i] = CharacterSet::decimalDigits(); });
  }
  for (auto& t : threads) t.join();
  for (const CharacterSet* s : seen) EXPECT_EQ(s, CharacterSet::decimalDigits());
}

}  // namespace
}  // namespace nk
