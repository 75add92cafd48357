// Case- and diacritic-insensitive search through ICU folding.
#include "nk/system/text_search.hpp"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/ustring.h>
#include <unicode/utf16.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace nk {
namespace {

const icu::Normalizer2* nfd() noexcept {
  static const icu::Normalizer2* const instance = [] {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* n = icu::Normalizer2::getNFDInstance(status);
    return U_SUCCESS(status) ? n : nullptr;
  }();
  return instance;
}

// Appends the canonical decomposition of `c` without its Mn marks.
void appendStripped(char32_t c, std::u16string& out) {
  icu::UnicodeString decomposition;
  const icu::Normalizer2* n = nfd();
  if (n == nullptr || !n->getDecomposition(static_cast<UChar32>(c), decomposition)) {
    if (u_charType(static_cast<UChar32>(c)) == U_NON_SPACING_MARK) return;
    if (c <= 0xFFFF) {
      out.push_back(static_cast<char16_t>(c));
    } else {
      out.push_back(static_cast<char16_t>(U16_LEAD(c)));
      out.push_back(static_cast<char16_t>(U16_TRAIL(c)));
    }
    return;
  }
  for (int32_t i = 0; i < decomposition.length();) {
    const UChar32 d = decomposition.char32At(i);
    i += U16_LENGTH(d);
    if (u_charType(d) == U_NON_SPACING_MARK) continue;
    appendStripped(static_cast<char32_t>(d), out);  // a decomposition is already full
  }
}

// Folds one code point: strip marks, case-fold, then strip again, because full
// case folding can itself produce marks (U+0390 folds to iota + two marks).
void appendFolded(char32_t c, std::u16string& out) {
  if (c < 0x80) {
    out.push_back(static_cast<char16_t>(c >= 'A' && c <= 'Z' ? c + 32 : c));
    return;
  }
  std::u16string stripped;
  appendStripped(c, stripped);
  if (stripped.empty()) return;
  UChar folded[32];
  UErrorCode status = U_ZERO_ERROR;
  const int32_t n =
      u_strFoldCase(folded, 32, stripped.data(), static_cast<int32_t>(stripped.size()),
                    U_FOLD_CASE_DEFAULT, &status);
  if (U_FAILURE(status)) {
    out += stripped;
    return;
  }
  for (int32_t i = 0; i < n;) {
    UChar32 f;
    U16_NEXT(folded, i, n, f);
    if (f < 0x80) {
      out.push_back(static_cast<char16_t>(f));
    } else {
      appendStripped(static_cast<char32_t>(f), out);
    }
  }
}

// The folded text of `s`; when `origins` is given, origins[k] is the index in `s`
// of the code point that produced folded unit k, with one more entry, s.length().
std::u16string fold(const String& s, std::vector<size_t>* origins) {
  std::u16string out;
  out.reserve(s.length());
  if (origins) origins->reserve(s.length() + 1);
  const size_t length = s.length();
  if (s.isLatin1()) {
    const uint8_t* p = s.latin1Data();
    for (size_t i = 0; i < length; ++i) {
      const size_t before = out.size();
      appendFolded(p[i], out);
      if (origins) origins->insert(origins->end(), out.size() - before, i);
    }
  } else {
    const char16_t* p = s.utf16Data();
    for (size_t i = 0; i < length;) {
      const size_t start = i;
      char32_t c = p[i++];
      if (U16_IS_LEAD(c) && i < length && U16_IS_TRAIL(p[i])) {
        c = static_cast<char32_t>(U16_GET_SUPPLEMENTARY(c, p[i]));
        ++i;
      }
      const size_t before = out.size();
      appendFolded(c, out);
      if (origins) origins->insert(origins->end(), out.size() - before, start);
    }
  }
  if (origins) origins->push_back(length);
  return out;
}

}  // namespace

TextRange textRangeIgnoringCaseAndDiacritics(const String* haystack, const String* needle) {
  if (haystack == nullptr || needle == nullptr || needle->isEmpty()) return {};
  const std::u16string foldedNeedle = fold(*needle, nullptr);
  if (foldedNeedle.empty()) return {};
  std::vector<size_t> origins;
  const std::u16string foldedHaystack = fold(*haystack, &origins);
  // Boyer-Moore keeps the search linear on adversarial inputs.
  const auto found =
      std::search(foldedHaystack.begin(), foldedHaystack.end(),
                  std::boyer_moore_searcher(foldedNeedle.begin(), foldedNeedle.end()));
  if (found == foldedHaystack.end()) return {};
  const auto at = static_cast<size_t>(found - foldedHaystack.begin());
  // The range ends where the next folded unit comes from, so marks folded away
  // after the last matched character belong to the match.
  // A character that folds to several units (ß to "ss") is in the match as soon as
  // one of its units is.
  const size_t start = origins[at];
  const size_t last = origins[at + foldedNeedle.size() - 1];
  size_t k = at + foldedNeedle.size();
  while (origins[k] == last) ++k;  // the final entry, the length, ends the walk
  return {start, origins[k] - start};
}

bool textContainsIgnoringCaseAndDiacritics(const String* haystack, const String* needle) {
  return textRangeIgnoringCaseAndDiacritics(haystack, needle).length != 0;
}

}  // namespace nk
