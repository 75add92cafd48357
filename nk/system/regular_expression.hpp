// RegularExpression: whole-string matching in ICU's regular-expression syntax,
// the test the platform's "SELF MATCHES %@" predicate makes.
#pragma once

#include <string_view>

#include "nk/foundation/string.hpp"

namespace nk {

class RegularExpression {
 public:
  // Whether the whole of `text` matches `pattern` (ICU syntax, no flags). Nil
  // arguments and invalid patterns give false, as does a match that exceeds
  // ICU's time or stack limits (runaway backtracking on hostile text). Compiled
  // patterns are cached and shared between threads.
  //
  //   matchesWholeString("[a-z]+", "abc")   // true
  //   matchesWholeString("[a-z]+", "abc1")  // false: the match must cover it all
  static bool matchesWholeString(const String* pattern, const String* text);
  static bool matchesWholeString(std::string_view pattern, std::string_view text);

  // Whether `pattern` compiles. Cached like the matches.
  static bool isValidPattern(const String* pattern);
};

}  // namespace nk
