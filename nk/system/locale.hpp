// Locale: the user's locale and the text direction of languages.
//
// The user's locale comes from LC_ALL, LC_MESSAGES or LANG (the first one set and
// non-empty), read again on every call to current(), and becomes ICU's default.
#pragma once

#include <string>
#include <string_view>

#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// The platform's language-direction values.
enum class LanguageDirection : int {
  kUnknown = 0,
  kLeftToRight = 1,
  kRightToLeft = 2,
  kTopToBottom = 3,
  kBottomToTop = 4,
};

class Locale final : public Object {
  NK_DECLARE_CLASS(Locale, Object)

 public:
  // The user's locale from the environment: "en_US.UTF-8" gives "en_US",
  // "de_DE@euro" gives "de_DE", a script modifier picks the script ("sr_RS@latin"
  // gives "sr_Latn_RS"), and "C", "POSIX" or nothing gives "en_US_POSIX".
  // Also makes it ICU's default locale (under a lock; ICU's default is
  // process-wide) when it differs from the default.
  static Ref<Locale> current();
  // A locale from an ICU or POSIX identifier ("de_CH", "pt-BR", "fr_FR.UTF-8").
  // Nil when ICU cannot make sense of it.
  static Ref<Locale> withIdentifier(std::string_view identifier);

  // "en_US": ICU's canonical form, underscores, no keywords.
  Ref<String> localeIdentifier() const;
  // "en": the language code alone.
  Ref<String> languageCode() const;
  // "US", or the empty string when the locale names no region.
  Ref<String> countryCode() const;
  // The identifier as ICU takes it, keywords included.
  const std::string& icuIdentifier() const noexcept { return icu_; }

  // The writing direction of a language ("ar" and "he" are right-to-left, "en"
  // left-to-right); kUnknown for nil, an empty code or one with characters no
  // language code has.
  static LanguageDirection characterDirection(const String* languageCode);
  static LanguageDirection characterDirection(std::string_view languageCode);

  // Equal when the identifiers are equal.
  bool isEqual(const Object* other) const noexcept override;
  size_t hash() const noexcept override;
  // "<Locale: 0x…> en_US"
  Ref<String> description() const override;
  // Locales are immutable: copy returns the locale itself.
  Id copy() const override;

 private:
  explicit Locale(std::string icu) : icu_(std::move(icu)) {}
  std::string icu_;
};

// The ICU identifier a POSIX locale value stands for ("en_US.UTF-8" → "en_US").
// Exposed for the formatters and for tests.
std::string icuLocaleFromPosix(std::string_view posix);

// The ISO 15924 script code the modifier of a POSIX locale value names
// ("sr_RS@latin" → "Latn", "@cyrillic" → "Cyrl", "@devanagari" → "Deva"); empty without
// a modifier or for other ones ("@euro").
std::string_view scriptOfPosixLocale(std::string_view posix) noexcept;

// The POSIX locale value that governs messages: the first of LC_ALL, LC_MESSAGES and
// LANG that is set and not empty, else empty (the C library then uses "C").
std::string_view posixMessagesLocale() noexcept;

}  // namespace nk
