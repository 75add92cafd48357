// CharacterSet: tables built from ICU's general categories.
#include "nk/system/character_set.hpp"

#include <unicode/uchar.h>

#include "nk/foundation/class.hpp"

namespace nk {

NK_DEFINE_CLASS(CharacterSet, "CharacterSet", Class::kCopyable);

namespace {

bool isNewline(char32_t c) noexcept {
  return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

// The one place the classes are defined; the BMP table is a cache of it.
bool memberOf(CharacterSet::Kind kind, char32_t c) noexcept {
  const auto category = u_charType(static_cast<UChar32>(c));
  switch (kind) {
    case CharacterSet::Kind::kWhitespace:
      return c == 0x09 || category == U_SPACE_SEPARATOR;
    case CharacterSet::Kind::kWhitespaceAndNewline:
      return c == 0x09 || category == U_SPACE_SEPARATOR || isNewline(c);
    case CharacterSet::Kind::kDecimalDigits:
      return category == U_DECIMAL_DIGIT_NUMBER;
  }
  return false;
}

}  // namespace

CharacterSet::CharacterSet(Kind kind) : kind_(kind), bmp_(new uint64_t[65536 / 64]()) {
  for (char32_t c = 0; c <= 0xFFFF; ++c) {
    if (c >= 0xD800 && c <= 0xDFFF) continue;  // lone surrogates belong to no class
    if (memberOf(kind, c)) bmp_[c >> 6] |= uint64_t{1} << (c & 63);
  }
  makeImmortal();
}

bool CharacterSet::containsSupplementary(char32_t c) const noexcept {
  return c <= 0x10FFFF && memberOf(kind_, c);
}

// Function-local statics are the once-only initialisers: concurrent first callers
// wait for one construction.
CharacterSet* CharacterSet::whitespace() noexcept {
  static CharacterSet* const set = new CharacterSet(Kind::kWhitespace);
  return set;
}

CharacterSet* CharacterSet::whitespaceAndNewline() noexcept {
  static CharacterSet* const set = new CharacterSet(Kind::kWhitespaceAndNewline);
  return set;
}

CharacterSet* CharacterSet::decimalDigits() noexcept {
  static CharacterSet* const set = new CharacterSet(Kind::kDecimalDigits);
  return set;
}

Id CharacterSet::copy() const { return Id(const_cast<CharacterSet*>(this)); }

}  // namespace nk
