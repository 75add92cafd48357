// Tests for CharacterSet: the three classes hold exactly what the string helpers
// expect, from the BMP table and beyond it.
#include "nk/system/character_set.hpp"

#include <gtest/gtest.h>
#include <unicode/uchar.h>

#include <thread>
#include <vector>

namespace nk {
namespace {

TEST(CharacterSet, Whitespace) {
  const CharacterSet* ws = CharacterSet::whitespace();
  // tab, space and other Zs characters
  {
    for (char32_t c : {U'\t', U' ', U'\u00A0', U'\u1680', U'\u2003', U'\u202F', U'\u3000'}) {
      EXPECT_TRUE(ws->contains(c)) << std::hex << static_cast<uint32_t>(c);
    }
  }
  // no line breaks, no format characters, no letters
  {
    for (char32_t c : {U'\n', U'\r', U'\v', U'\f', U'\u0085', U'\u2028', U'\u2029', U'\u200B',
                       U'\uFEFF', U'a', U'0', U'\0'}) {
      EXPECT_FALSE(ws->contains(c)) << std::hex << static_cast<uint32_t>(c);
    }
  }
}

TEST(CharacterSet, WhitespaceAndNewline) {
  const CharacterSet* wsn = CharacterSet::whitespaceAndNewline();
  // the whitespace class plus the line and paragraph breaks
  {
    for (char32_t c : {U'\t', U' ', U'\u00A0', U'\u3000', U'\n', U'\v', U'\f', U'\r', U'\u0085',
                       U'\u2028', U'\u2029'}) {
      EXPECT_TRUE(wsn->contains(c)) << std::hex << static_cast<uint32_t>(c);
    }
  }
  // zero-width and control characters outside that list stay out
  {
    for (char32_t c : {U'\u200B', U'\uFEFF', U'\u0008', U'\u000E', U'\u001C', U'\u0084', U'x'}) {
      EXPECT_FALSE(wsn->contains(c)) << std::hex << static_cast<uint32_t>(c);
    }
  }
}

TEST(CharacterSet, DecimalDigits) {
  const CharacterSet* digits = CharacterSet::decimalDigits();
  // digits of several scripts, in and beyond the BMP
  {
    for (char32_t c :
         {U'0', U'9', U'\u0663', U'\u06F5', U'\u0966', U'\uFF13', U'\U0001D7CE', U'\U000104A0'}) {
      EXPECT_TRUE(digits->contains(c)) << std::hex << static_cast<uint32_t>(c);
    }
  }
  // other numbers (superscripts, Roman numerals, fractions) and signs are not digits
  {
    for (char32_t c : {U'\u00B2', U'\u2163', U'\u00BD', U'+', U'-', U' ', U'a', U'\u2460'}) {
      EXPECT_FALSE(digits->contains(c)) << std::hex << static_cast<uint32_t>(c);
    }
  }
}

TEST(CharacterSet, AgreesWithIcuEverywhere) {
  // every code point, so that a wrong bit in the table shows
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
  // beyond Unicode nothing is a member
  {
    EXPECT_FALSE(CharacterSet::decimalDigits()->contains(0x110000));
    EXPECT_FALSE(CharacterSet::whitespace()->contains(0xFFFFFFFF));
  }
  // single code units: a surrogate half belongs to no class
  {
    EXPECT_TRUE(CharacterSet::whitespace()->containsUnit(u'\u3000'));
    EXPECT_FALSE(CharacterSet::decimalDigits()->containsUnit(u'\xD835'));
  }
}

TEST(CharacterSet, SharedInstances) {
  // one instance per class, also when first asked for on many threads at once
  {
    std::vector<const CharacterSet*> seen(8);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
      threads.emplace_back([&seen, i] { seen[i] = CharacterSet::decimalDigits(); });
    }
    for (auto& t : threads) t.join();
    for (const CharacterSet* s : seen) EXPECT_EQ(s, CharacterSet::decimalDigits());
  }
  // distinct classes, immortal, copy is identity
  {
    EXPECT_NE(CharacterSet::whitespace(), CharacterSet::whitespaceAndNewline());
    EXPECT_TRUE(CharacterSet::whitespace()->isImmortal());
    EXPECT_EQ(CharacterSet::whitespace()->copy().get(), CharacterSet::whitespace());
  }
}

}  // namespace
}  // namespace nk
