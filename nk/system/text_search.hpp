// Case- and diacritic-insensitive search: the platform's search with the
// case-insensitive and diacritic-insensitive options together.
//
// Both texts are folded (canonical decomposition, combining marks of category Mn
// removed, full Unicode case folding) before an exact search of the folded text.
#pragma once

#include <cstddef>

#include "nk/foundation/string.hpp"

namespace nk {

// A range of UTF-16 code units. `location` is kNotFound when nothing was found.
struct TextRange {
  size_t location = kNotFound;
  size_t length = 0;
  bool operator==(const TextRange&) const = default;
};

// The first range of `haystack` whose folded text equals the folded `needle`, in
// `haystack`'s own code units; {kNotFound, 0} when there is none. The range takes
// in the marks that follow its last character ("é" written as "e" + U+0301 is
// found whole by "e"). An empty or nil needle, or one that folds to nothing
// (only combining marks), is never found.
//
//   textRangeIgnoringCaseAndDiacritics("Le Résumé", "RESUME")  // {3, 6}
TextRange textRangeIgnoringCaseAndDiacritics(const String* haystack, const String* needle);

// Whether textRangeIgnoringCaseAndDiacritics finds a range of nonzero length:
// "Résumé" contains "resume"; nothing contains "".
bool textContainsIgnoringCaseAndDiacritics(const String* haystack, const String* needle);

}  // namespace nk
