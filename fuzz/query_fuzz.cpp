// Fuzz target for the query parser and the trimming and splitting helpers.
//
// The first byte picks the separator length; the rest is read both as a URL
// query (bytes) and as UTF-16 code units (unpaired surrogates included).
// Besides crashes, it checks the invariants callers rely on.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "nk/foundation/exception.hpp"
#include "nk/foundation/string.hpp"
#include "nk/foundation/url.hpp"
#include "nk/helpers/string_helpers.hpp"
#include "nk/helpers/url_helpers.hpp"
#include "nk/system/character_set.hpp"

namespace {

void check(bool ok) {
  if (!ok) std::abort();
}

void fuzzQuery(const uint8_t* data, size_t size) {
  std::string text = "http://h/?";
  text.append(reinterpret_cast<const char*>(data), size);
  nk::Ref<nk::URL> url = nk::URL::fromString(text);
  if (!url) return;
  try {
    nk::Ref<nk::Dictionary> params = nk::vnk_queryParameters(url.get());
    check(params != nullptr);
  } catch (const nk::ThrownObject&) {
    // A key with a bad escape raises, as documented.
  }
}

void fuzzText(const uint8_t* data, size_t size) {
  if (size < 1) return;
  const size_t sepUnits = 1 + data[0] % 3;
  std::u16string units;
  for (size_t i = 1; i + 1 < size; i += 2) {
    units.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
  }
  if (units.size() < sepUnits) return;
  const nk::Ref<nk::String> separator =
      nk::String::withCharacters(std::u16string_view(units).substr(0, sepUnits));
  const nk::Ref<nk::String> text =
      nk::String::withCharacters(std::u16string_view(units).substr(sepUnits));

  // Trimming: no U+FFFC left, no blank at either end, never longer.
  const nk::Ref<nk::String> trimmed = nk::vnk_trim(text.get());
  const nk::CharacterSet* blanks = nk::CharacterSet::whitespaceAndNewline();
  const std::u16string t = trimmed->toUTF16();
  check(t.size() <= text->length());
  check(t.find(u'\uFFFC') == std::u16string::npos);
  check(t.empty() || (!blanks->containsUnit(t.front()) && !blanks->containsUnit(t.back())));
  check(nk::vnk_nullOrEmpty(text.get()) == t.empty());

  // Splitting without removal: joining the components gives the text back.
  const nk::Ref<nk::Array> parts =
      nk::vnk_getComponentsSeparatedByStringRemoveEmptyEntries(text.get(), separator.get(), false);
  std::u16string joined;
  for (size_t i = 0; i < parts->count(); ++i) {
    if (i) joined += separator->toUTF16();
    joined += nk::cast<nk::String>(parts->objectAtIndex(i))->toUTF16();
  }
  check(joined == text->toUTF16());
  const nk::Ref<nk::Array> kept =
      nk::vnk_getComponentsSeparatedByStringRemoveEmptyEntries(text.get(), separator.get(), true);
  check(kept->count() <= parts->count());
  for (size_t i = 0; i < kept->count(); ++i) {
    check(!nk::cast<nk::String>(kept->objectAtIndex(i))->isEmpty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzzQuery(data, size);
  fuzzText(data, size);
  return 0;
}
