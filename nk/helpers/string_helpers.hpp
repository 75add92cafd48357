// String helpers: trimming, blank tests, identifiers, prefix removal, accent- and
// case-blind containment, host classification and splitting.
//
// Every helper takes its receiver first and accepts nil there: an operation on a
// nil receiver yields nil or false, as a message to nil does.
#pragma once

#include <array>
#include <string>

#include "nk/foundation/array.hpp"
#include "nk/foundation/string.hpp"

namespace nk {

// The receiver with every U+FFFC OBJECT REPLACEMENT CHARACTER removed (anywhere),
// then the leading and trailing runs of whitespace and newlines removed:
//   vnk_trim("\uFFFC  a b \uFFFC\n")  // "a b"
//   vnk_trim("a\uFFFCb")              // "ab"
// Removing U+FFFC first lets a space that only preceded it become trailing.
// Surrogates are never whitespace, so characters beyond the BMP stay whole.
Ref<String> vnk_trim(const String* receiver);

// True for nil and for strings that vnk_trim empties ("", "  ", "\n\t", "\uFFFC").
bool vnk_nullOrEmpty(const String* string);

// A new random version-4 UUID in its 36-character 8-4-4-4-12 form. Lower case
// without an argument; upper case when `lowercase` is false.
Ref<String> vnk_UUID();
Ref<String> vnk_UUID(bool lowercase);

// nil and "" are equivalent to each other and to themselves; otherwise literal
// equality, unit by unit ("a" is not "A", and nothing non-empty equals nil).
bool vnk_isStringEquivalentToString(const String* a, const String* b);

// The receiver without `prefix` when it starts with it (one occurrence, exact
// comparison); otherwise the receiver itself. An empty prefix is never a prefix.
Ref<String> vnk_deletePrefix(const String* receiver, const String* prefix);

// Whether `needle` occurs in the receiver ignoring case and diacritics
// ("Résumé" contains "resume"). An empty or nil needle is never contained.
bool vnk_containsCaseAndDiacriticInsensitive(const String* receiver, const String* needle);

// Whether the first UTF-16 unit is a decimal digit of any script ("1a", "\u0663").
// A sign or a space in front does not count.
bool vnk_startsWithNumericCharacter(const String* receiver);

// Whether the receiver, lower-cased, begins with "for" ("FoRxyz" yes, "fo" no).
bool vnk_isSymbolicLinkId(const String* receiver);

// Whether the receiver, lower-cased, contains any of the staging (testing) host
// suffixes anywhere. A nil host is neither.
bool vnk_isStaging(const String* receiver);
bool vnk_isTesting(const String* receiver);

// The host suffixes are deployment settings, three of each kind, tried in order.
// They start from the environment variables NK_STAGING_HOST_SUFFIXES and
// NK_TESTING_HOST_SUFFIXES (three comma-separated values, read on first use) and
// otherwise from built-in defaults:
//   staging: "staging.nkfiles.com", "staging.nkfiles.io", "api-staging.nkfiles.com"
//   testing: "test.nkfiles.io", "test.nkfiles.com", "api-test.nkfiles.com"
// A host application may set them at any time; values are stored lower-cased, and
// an empty value matches nothing.
using HostSuffixes = std::array<std::string, 3>;
HostSuffixes stagingHostSuffixes();
HostSuffixes testingHostSuffixes();
void setStagingHostSuffixes(const HostSuffixes& suffixes);
void setTestingHostSuffixes(const HostSuffixes& suffixes);

// The receiver split at every occurrence of `separator` (exact code units, not a
// character set): n occurrences give n + 1 components. When `removeEmptyEntries`
// is false that list is returned unchanged. When it is true each component is
// trimmed of spaces and tabs (never newlines) and kept only when something is
// left, in its trimmed form:
//   vnk_getComponentsSeparatedByStringRemoveEmptyEntries(" a, ,b ,,", ",", false)
//       // (" a", " ", "b ", "", "")
//   vnk_getComponentsSeparatedByStringRemoveEmptyEntries(" a, ,b ,,", ",", true)
//       // ("a", "b")
// A nil or empty separator never occurs, so the receiver is the one component.
Ref<Array> vnk_getComponentsSeparatedByStringRemoveEmptyEntries(const String* receiver,
                                                                const String* separator,
                                                                bool removeEmptyEntries);

}  // namespace nk
