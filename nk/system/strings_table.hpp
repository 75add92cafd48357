// String tables: the classic key/value ".strings" text that translators
// exchange,
//   /* comment */  "key" = "value";  // comment
// in UTF-8 (with or without a byte-order mark) or UTF-16 with a byte-order
// mark.
#pragma once

#include <string_view>

#include "nk/foundation/dictionary.hpp"

namespace nk {

// Parses a string table into a Dictionary of String keys to String values.
// Quoted strings take the escapes \" \\ \n \t \r \0 and \U or \u with up to
// four hex digits; other escaped characters stand for themselves. Unquoted
// words ([A-Za-z0-9_$+/:.-]) are accepted as in old-style property lists, and
// `"key";` maps a key to itself. A later duplicate key wins. Returns nil for
// malformed text (an unterminated string or comment, a missing "=" or ";",
// bytes that are not UTF-8 or UTF-16). Linear in the input; no recursion.
Ref<Dictionary> parseStringsTable(std::string_view bytes);

}  // namespace nk
