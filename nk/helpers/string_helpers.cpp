// String helpers. Units are read straight from the string's storage (Latin-1
// bytes or UTF-16 units), so trimming and splitting stay linear and copy only
// what they return.

#include "nk/helpers/string_helpers.hpp"

#include <stdlib.h>

#include <algorithm>
#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <vector>

#include "nk/system/character_set.hpp"
#include "nk/system/text_search.hpp"
#include "nk/system/uuid.hpp"

namespace nk {
namespace {

constexpr char16_t kObjectReplacement = 0xFFFC;

// The receiver as an immutable result: itself unless it can still change.
Ref<String> sameString(const String* s) {
  if (s->isKindOfClass(MutableString::staticClass())) return cast<String>(s->copy());
  return Ref<String>(const_cast<String*>(s));
}

// Latin-1 storage is viewed as char; these give the unit a char stands for.
inline char16_t unitOf(char c) { return static_cast<uint8_t>(c); }
inline char16_t unitOf(char16_t c) { return c; }

Ref<String> makeString(std::string_view latin1) { return String::fromLatin1(latin1); }

Ref<String> makeString(std::u16string_view units) { return String::withCharacters(units); }

std::string_view latin1View(const String* s) {
  return std::string_view(reinterpret_cast<const char*>(s->latin1Data()), s->length());
}

// Calls f(units) with the receiver's storage as a string view of its unit type.
template <class F>
decltype(auto) withUnits(const String* s, F&& f) {
  if (s->isLatin1()) return f(latin1View(s));
  return f(std::u16string_view(s->utf16Data(), s->length()));
}

// Bounds of `units` without the leading and trailing members of `set`.
template <class C>
std::pair<size_t, size_t> trimmedBounds(std::basic_string_view<C> units, const CharacterSet* set) {
  size_t begin = 0;
  size_t end = units.size();
  while (begin < end && set->containsUnit(unitOf(units[begin]))) ++begin;
  while (end > begin && set->containsUnit(unitOf(units[end - 1]))) --end;
  return {begin, end};
}

// ---- Host suffixes -----------------------------------------------------------------

struct SuffixSet {
  HostSuffixes text;
  std::array<Ref<String>, 3> strings;  // nil for an empty suffix
};

SuffixSet makeSuffixSet(const HostSuffixes& suffixes) {
  SuffixSet set;
  for (size_t i = 0; i < suffixes.size(); ++i) {
    Ref<String> s = String::fromUTF8(suffixes[i]);
    if (s && !s->isEmpty()) {
      s = s->lowercase();
      set.text[i] = s->utf8();
      set.strings[i] = s;
    }
  }
  return set;
}

// "a,b,c" from the environment, or the defaults when unset or not three values.
HostSuffixes suffixesFromEnvironment(const char* name, const HostSuffixes& defaults) {
  const char* value = ::getenv(name);
  if (!value) return defaults;
  HostSuffixes out;
  std::string_view rest(value);
  for (size_t i = 0; i < out.size(); ++i) {
    const size_t comma = rest.find(',');
    if ((comma == std::string_view::npos) != (i == out.size() - 1)) return defaults;
    out[i] = std::string(rest.substr(0, comma));
    rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
  }
  return out;
}

class HostSuffixRegistry {
 public:
  static HostSuffixRegistry& shared() {
    static HostSuffixRegistry* registry = new HostSuffixRegistry();
    return *registry;
  }

  SuffixSet get(bool staging) const {
    std::shared_lock lock(mutex_);
    return staging ? staging_ : testing_;
  }
  void set(bool staging, const HostSuffixes& suffixes) {
    SuffixSet made = makeSuffixSet(suffixes);
    std::unique_lock lock(mutex_);
    (staging ? staging_ : testing_) = std::move(made);
  }

 private:
  HostSuffixRegistry()
      : staging_(makeSuffixSet(suffixesFromEnvironment(
            "NK_STAGING_HOST_SUFFIXES",
            {"staging.nkfiles.com", "staging.nkfiles.io", "api-staging.nkfiles.com"}))),
        testing_(makeSuffixSet(suffixesFromEnvironment(
            "NK_TESTING_HOST_SUFFIXES",
            {"test.nkfiles.io", "test.nkfiles.com", "api-test.nkfiles.com"}))) {}

  mutable std::shared_mutex mutex_;
  SuffixSet staging_;
  SuffixSet testing_;
};

bool containsAnySuffix(const String* receiver, bool staging) {
  if (!receiver) return false;
  const SuffixSet set = HostSuffixRegistry::shared().get(staging);
  const Ref<String> lower = receiver->lowercase();
  for (const Ref<String>& suffix : set.strings) {
    if (suffix && lower->contains(suffix.get())) return true;
  }
  return false;
}

// ---- Splitting -----------------------------------------------------------------------

// The separator in the receiver's unit type; false when it has a unit the receiver
// cannot hold (then it never occurs).
template <class C>
bool separatorAs(const String* separator, std::basic_string<C>& out) {
  bool fits = true;
  out.reserve(separator->length());
  separator->forEachUnit([&](char16_t u) {
    if (sizeof(C) == 1 && u > 0xFF) fits = false;
    out.push_back(static_cast<C>(u));
  });
  return fits;
}

template <class C>
Ref<Array> split(const String* receiver, std::basic_string_view<C> units, const String* separator,
                 bool removeEmptyEntries) {
  std::basic_string<C> sep;
  const bool canOccur = separator && !separator->isEmpty() && separatorAs(separator, sep);
  const CharacterSet* blanks = CharacterSet::whitespace();
  std::vector<Id> out;

  auto emit = [&](size_t begin, size_t end) {
    if (removeEmptyEntries) {
      auto [b, e] = trimmedBounds(units.substr(begin, end - begin), blanks);
      if (b == e) return;
      out.push_back(makeString(units.substr(begin + b, e - b)));
    } else {
      out.push_back(makeString(units.substr(begin, end - begin)));
    }
  };

  if (!canOccur || units.find(sep) == std::basic_string_view<C>::npos) {
    // One component, the whole receiver.
    if (!removeEmptyEntries) return Array::make({sameString(receiver)});
    emit(0, units.size());
    return Array::make(std::move(out));
  }
  size_t start = 0;
  for (;;) {
    const size_t hit = units.find(sep, start);
    if (hit == std::basic_string_view<C>::npos) break;
    emit(start, hit);
    start = hit + sep.size();
  }
  emit(start, units.size());
  return Array::make(std::move(out));
}

}  // namespace

// ---- Trimming and blank tests ------------------------------------------------------

Ref<String> vnk_trim(const String* receiver) {
  if (!receiver) return nullptr;
  const CharacterSet* blanks = CharacterSet::whitespaceAndNewline();
  if (receiver->isLatin1()) {
    // U+FFFC cannot be stored as Latin-1.
    const std::string_view units = latin1View(receiver);
    auto [b, e] = trimmedBounds(units, blanks);
    if (b == 0 && e == units.size()) return sameString(receiver);
    return makeString(units.substr(b, e - b));
  }
  std::u16string_view units(receiver->utf16Data(), receiver->length());
  if (units.find(kObjectReplacement) == std::u16string_view::npos) {
    auto [b, e] = trimmedBounds(units, blanks);
    if (b == 0 && e == units.size()) return sameString(receiver);
    return makeString(units.substr(b, e - b));
  }
  std::u16string kept;
  kept.reserve(units.size());
  for (char16_t u : units) {
    if (u != kObjectReplacement) kept.push_back(u);
  }
  auto [b, e] = trimmedBounds(std::u16string_view(kept), blanks);
  return makeString(std::u16string_view(kept).substr(b, e - b));
}

bool vnk_nullOrEmpty(const String* string) {
  if (!string) return true;
  const CharacterSet* blanks = CharacterSet::whitespaceAndNewline();
  // Trimmed to nothing exactly when every unit is U+FFFC or a blank.
  return withUnits(string, [&](auto units) {
    for (auto u : units) {
      if (unitOf(u) != kObjectReplacement && !blanks->containsUnit(unitOf(u))) return false;
    }
    return true;
  });
}

// ---- Identifiers and comparisons ---------------------------------------------------

Ref<String> vnk_UUID() { return vnk_UUID(true); }

Ref<String> vnk_UUID(bool lowercase) {
  Ref<String> text = UUID::random()->uuidString();
  return lowercase ? text->lowercase() : text;
}

bool vnk_isStringEquivalentToString(const String* a, const String* b) {
  const bool aEmpty = !a || a->isEmpty();
  const bool bEmpty = !b || b->isEmpty();
  if (aEmpty && bEmpty) return true;
  return a && b && a->isEqualToString(b);
}

Ref<String> vnk_deletePrefix(const String* receiver, const String* prefix) {
  if (!receiver) return nullptr;
  // Unchanged means the very object, mutable or not, so callers can test for identity.
  if (!prefix || prefix->isEmpty() || !receiver->hasPrefix(prefix)) {
    return Ref<String>(const_cast<String*>(receiver));
  }
  return receiver->substringFrom(prefix->length());
}

bool vnk_containsCaseAndDiacriticInsensitive(const String* receiver, const String* needle) {
  if (!receiver) return false;
  return textContainsIgnoringCaseAndDiacritics(receiver, needle);
}

bool vnk_startsWithNumericCharacter(const String* receiver) {
  if (!receiver || receiver->isEmpty()) return false;
  return CharacterSet::decimalDigits()->containsUnit(receiver->characterAt(0));
}

bool vnk_isSymbolicLinkId(const String* receiver) {
  if (!receiver) return false;
  return receiver->lowercase()->hasPrefix(NK_STR("for"));
}

// ---- Hosts ---------------------------------------------------------------------------

bool vnk_isStaging(const String* receiver) { return containsAnySuffix(receiver, true); }

bool vnk_isTesting(const String* receiver) { return containsAnySuffix(receiver, false); }

HostSuffixes stagingHostSuffixes() { return HostSuffixRegistry::shared().get(true).text; }

HostSuffixes testingHostSuffixes() { return HostSuffixRegistry::shared().get(false).text; }

void setStagingHostSuffixes(const HostSuffixes& suffixes) {
  HostSuffixRegistry::shared().set(true, suffixes);
}

void setTestingHostSuffixes(const HostSuffixes& suffixes) {
  HostSuffixRegistry::shared().set(false, suffixes);
}

// ---- Splitting -----------------------------------------------------------------------

Ref<Array> vnk_getComponentsSeparatedByStringRemoveEmptyEntries(const String* receiver,
                                                                const String* separator,
                                                                bool removeEmptyEntries) {
  if (!receiver) return nullptr;
  return withUnits(
      receiver, [&](auto units) { return split(receiver, units, separator, removeEmptyEntries); });
}

}  // namespace nk
