// Locale: environment-derived ICU locales and ICU's character orientation.
#include "nk/system/locale.hpp"

#include <unicode/locid.h>
#include <unicode/uloc.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <mutex>

#include "nk/foundation/class.hpp"
#include "nk/foundation/format.hpp"

namespace nk {

NK_DEFINE_CLASS(Locale, "Locale", Class::kCopyable);

namespace {

std::mutex& defaultLocaleMutex() {
  static std::mutex m;
  return m;
}

std::string canonical(std::string_view id) {
  const std::string in(id);
  char buffer[ULOC_FULLNAME_CAPACITY];
  UErrorCode status = U_ZERO_ERROR;
  const int32_t n = uloc_canonicalize(in.c_str(), buffer, sizeof buffer, &status);
  if (U_FAILURE(status) || status == U_STRING_NOT_TERMINATED_WARNING || n <= 0) return {};
  return std::string(buffer, static_cast<size_t>(n));
}

std::string part(const std::string& id, int32_t (*get)(const char*, char*, int32_t, UErrorCode*)) {
  char buffer[ULOC_FULLNAME_CAPACITY];
  UErrorCode status = U_ZERO_ERROR;
  const int32_t n = get(id.c_str(), buffer, sizeof buffer, &status);
  if (U_FAILURE(status) || n <= 0) return {};
  return std::string(buffer, static_cast<size_t>(std::min<int32_t>(n, sizeof buffer - 1)));
}

bool plausibleIdentifier(std::string_view id) {
  if (id.empty() || id.size() >= ULOC_FULLNAME_CAPACITY) return false;
  for (char c : id) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '_' || c == '-' || c == '.' || c == '@' || c == '=' || c == ';';
    if (!ok) return false;
  }
  return true;
}

}  // namespace

std::string_view scriptOfPosixLocale(std::string_view posix) noexcept {
  const size_t at = posix.find('@');
  if (at == std::string_view::npos) return {};
  const std::string_view modifier = posix.substr(at + 1);
  if (modifier == "latin") return "Latn";
  if (modifier == "cyrillic") return "Cyrl";
  if (modifier == "devanagari") return "Deva";
  return {};
}

std::string icuLocaleFromPosix(std::string_view posix) {
  // Codeset and modifier are POSIX notions; ICU reads "@" as its keyword marker.
  const size_t cut = posix.find_first_of(".@");
  std::string_view base = posix.substr(0, cut);
  if (base.empty() || base == "C" || base == "POSIX") return "en_US_POSIX";
  if (!plausibleIdentifier(base)) return "en_US_POSIX";
  std::string id = canonical(base);
  if (id.empty()) return "en_US_POSIX";
  // A modifier that names a script picks the writing system ("sr_RS@latin" is Serbian in
  // Latin letters, where plain "sr_RS" is Cyrillic); other modifiers ("@euro") are dropped.
  const std::string_view script = scriptOfPosixLocale(posix);
  if (!script.empty() && part(id, &uloc_getScript).empty()) {
    const std::string country = part(id, &uloc_getCountry);
    id = part(id, &uloc_getLanguage) + "_" + std::string(script) +
         (country.empty() ? "" : "_" + country);
  }
  return id;
}

std::string_view posixMessagesLocale() noexcept {
  for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = std::getenv(name);
    if (value != nullptr && *value != '\0') return value;
  }
  return {};
}

Ref<Locale> Locale::current() {
  std::string id = icuLocaleFromPosix(posixMessagesLocale());
  {
    std::lock_guard<std::mutex> lock(defaultLocaleMutex());
    if (id != icu::Locale::getDefault().getName()) {
      UErrorCode status = U_ZERO_ERROR;
      icu::Locale::setDefault(icu::Locale(id.c_str()), status);
    }
  }
  return Ref<Locale>::adopt(new Locale(std::move(id)));
}

Ref<Locale> Locale::withIdentifier(std::string_view identifier) {
  if (!plausibleIdentifier(identifier)) return nullptr;
  const size_t dot = identifier.find('.');
  std::string base(identifier.substr(0, dot));
  if (dot != std::string_view::npos) {
    // Keep ICU keywords written after a POSIX codeset: "de_DE.UTF-8@calendar=x".
    const size_t at = identifier.find('@', dot);
    if (at != std::string_view::npos) base += identifier.substr(at);
  }
  std::string id = canonical(base);
  if (id.empty()) return nullptr;
  return Ref<Locale>::adopt(new Locale(std::move(id)));
}

Ref<String> Locale::localeIdentifier() const {
  return String::fromUTF8(part(icu_, &uloc_getBaseName));
}

Ref<String> Locale::languageCode() const { return String::fromUTF8(part(icu_, &uloc_getLanguage)); }

Ref<String> Locale::countryCode() const { return String::fromUTF8(part(icu_, &uloc_getCountry)); }

LanguageDirection Locale::characterDirection(const String* languageCode) {
  if (languageCode == nullptr) return LanguageDirection::kUnknown;
  return characterDirection(languageCode->utf8());
}

LanguageDirection Locale::characterDirection(std::string_view languageCode) {
  if (!plausibleIdentifier(languageCode)) return LanguageDirection::kUnknown;
  const std::string code(languageCode);
  UErrorCode status = U_ZERO_ERROR;
  const ULayoutType layout = uloc_getCharacterOrientation(code.c_str(), &status);
  if (U_FAILURE(status)) return LanguageDirection::kUnknown;
  switch (layout) {
    case ULOC_LAYOUT_LTR:
      return LanguageDirection::kLeftToRight;
    case ULOC_LAYOUT_RTL:
      return LanguageDirection::kRightToLeft;
    case ULOC_LAYOUT_TTB:
      return LanguageDirection::kTopToBottom;
    case ULOC_LAYOUT_BTT:
      return LanguageDirection::kBottomToTop;
    default:
      return LanguageDirection::kUnknown;
  }
}

bool Locale::isEqual(const Object* other) const noexcept {
  const Locale* o = cast<Locale>(other);
  return o != nullptr && o->icu_ == icu_;
}

size_t Locale::hash() const noexcept { return std::hash<std::string>()(icu_); }

Ref<String> Locale::description() const {
  return format("<Locale: %p> %s", static_cast<const void*>(this), icu_);
}

Id Locale::copy() const { return Id(const_cast<Locale*>(this)); }

}  // namespace nk
