// CharacterSet: the platform's three character classes the string helpers rely on.
//
// Contents come from ICU's character properties; membership of a BMP character is
// one bit test in a table built once, on first use.
#pragma once

#include <cstdint>
#include <memory>

#include "nk/foundation/object.hpp"

namespace nk {

class CharacterSet final : public Object {
  NK_DECLARE_CLASS(CharacterSet, Object)

 public:
  // General category Zs plus CHARACTER TABULATION (U+0009); no line or paragraph
  // separators.
  static CharacterSet* whitespace() noexcept;
  // whitespace() plus U+000A..U+000D, U+0085, U+2028 and U+2029.
  static CharacterSet* whitespaceAndNewline() noexcept;
  // General category Nd: the decimal digits of every script.
  static CharacterSet* decimalDigits() noexcept;

  // Membership of a code point; false for values above U+10FFFF.
  bool contains(char32_t c) const noexcept {
    if (c <= 0xFFFF) return (bmp_[c >> 6] >> (c & 63)) & 1;
    return containsSupplementary(c);
  }
  // Membership of one UTF-16 code unit; a surrogate is never a member.
  bool containsUnit(char16_t unit) const noexcept { return contains(unit); }

  // The classes are shared constants: copy gives the set itself.
  Id copy() const override;

  enum class Kind : uint8_t { kWhitespace, kWhitespaceAndNewline, kDecimalDigits };

 private:
  explicit CharacterSet(Kind kind);
  bool containsSupplementary(char32_t c) const noexcept;

  Kind kind_;
  std::unique_ptr<uint64_t[]> bmp_;  // 65536 bits
};

}  // namespace nk
