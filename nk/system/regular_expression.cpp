// RegularExpression: a bounded cache of compiled ICU patterns. A compiled
// RegexPattern is immutable and may make matchers on any thread.
#include "nk/system/regular_expression.hpp"

#include <unicode/regex.h>

#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace nk {
namespace {

// Enough for the handful of fixed patterns the library uses; a caller feeding
// patterns from outside cannot grow memory beyond it.
constexpr size_t kCacheLimit = 64;
// In ICU's time-limit units (roughly milliseconds of matching).
constexpr int32_t kTimeLimit = 500;
constexpr int32_t kStackLimit = 8 * 1024 * 1024;

struct Cache {
  std::mutex mutex;
  // Nil entries remember patterns that do not compile.
  std::unordered_map<std::u16string, std::shared_ptr<const icu::RegexPattern>> patterns;
};

Cache& cache() {
  static Cache* const instance = new Cache();
  return *instance;
}

std::shared_ptr<const icu::RegexPattern> compiled(const std::u16string& pattern) {
  Cache& c = cache();
  {
    std::lock_guard<std::mutex> lock(c.mutex);
    auto it = c.patterns.find(pattern);
    if (it != c.patterns.end()) return it->second;
  }
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError;
  std::shared_ptr<const icu::RegexPattern> result(icu::RegexPattern::compile(
      icu::UnicodeString(pattern.data(), static_cast<int32_t>(pattern.size())), 0, parseError,
      status));
  if (U_FAILURE(status)) result.reset();
  std::lock_guard<std::mutex> lock(c.mutex);
  if (c.patterns.size() >= kCacheLimit) c.patterns.clear();
  c.patterns.emplace(pattern, result);
  return result;
}

bool matches(const std::u16string& pattern, const std::u16string& text) {
  const std::shared_ptr<const icu::RegexPattern> p = compiled(pattern);
  if (!p) return false;
  UErrorCode status = U_ZERO_ERROR;
  const icu::UnicodeString input(text.data(), static_cast<int32_t>(text.size()));
  std::unique_ptr<icu::RegexMatcher> m(p->matcher(input, status));
  if (U_FAILURE(status) || !m) return false;
  m->setTimeLimit(kTimeLimit, status);
  m->setStackLimit(kStackLimit, status);
  if (U_FAILURE(status)) return false;
  const bool result = m->matches(status);
  return U_SUCCESS(status) && result;
}

std::u16string fromUTF8(std::string_view utf8, bool& ok) {
  const Ref<String> s = String::fromUTF8(utf8);
  ok = static_cast<bool>(s);
  return s ? s->toUTF16() : std::u16string();
}

}  // namespace

bool RegularExpression::matchesWholeString(const String* pattern, const String* text) {
  if (pattern == nullptr || text == nullptr) return false;
  return matches(pattern->toUTF16(), text->toUTF16());
}

bool RegularExpression::matchesWholeString(std::string_view pattern, std::string_view text) {
  bool patternOk = false;
  bool textOk = false;
  const std::u16string p = fromUTF8(pattern, patternOk);
  const std::u16string t = fromUTF8(text, textOk);
  return patternOk && textOk && matches(p, t);
}

bool RegularExpression::isValidPattern(const String* pattern) {
  return pattern != nullptr && compiled(pattern->toUTF16()) != nullptr;
}

}  // namespace nk
