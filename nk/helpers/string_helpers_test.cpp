// Tests of the string helpers: trimming and blank tests, identifiers,
// comparisons, host classes and the splitter, with hostile input.

#include "nk/helpers/string_helpers.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <tuple>
#include <vector>

namespace nk {
namespace {

using ::testing::ElementsAre;

Ref<String> S(std::u16string_view units) { return String::withCharacters(units); }
Ref<String> S(std::string_view utf8) { return String::fromUTF8(utf8); }

std::u16string trimmed(std::u16string_view s) { return vnk_trim(S(s).get())->toUTF16(); }

// The components as UTF-16 texts, for one-line comparisons.
std::vector<std::u16string> units(const Ref<Array>& array) {
  std::vector<std::u16string> out;
  for (const Id& e : *array) out.push_back(cast<String>(e)->toUTF16());
  return out;
}

Ref<Array> split(const Ref<String>& s, std::u16string_view sep, bool remove) {
  return vnk_getComponentsSeparatedByStringRemoveEmptyEntries(s.get(), S(sep).get(), remove);
}
Ref<Array> split(std::u16string_view s, std::u16string_view sep, bool remove) {
  return split(S(s), sep, remove);
}

TEST(StringTrim, ObjectReplacementBlanksAndSurrogates) {
  // U+FFFC goes first, everywhere, so the space before it becomes trailing.
  EXPECT_EQ(trimmed(u"\uFFFC  a b \uFFFC\n"), u"a b");
  EXPECT_EQ(trimmed(u"a\uFFFCb"), u"ab");
  // Inner blanks stay; every blank class member at the ends goes.
  EXPECT_EQ(trimmed(u"\t\r\n\u0085\u2028\u2029\u00A0\u3000a \n b\u000B\u000C "), u"a \n b");
  EXPECT_EQ(trimmed(u" \t\n\uFFFC ").size(), 0u);
  // Latin-1 storage takes the same path: NO-BREAK SPACE is Zs.
  EXPECT_EQ(vnk_trim(String::fromLatin1("\xA0 caf\xE9\t").get())->utf8(), "caf\xC3\xA9");
  // Not blanks: zero-width space, BOM, NUL.
  EXPECT_EQ(trimmed(u"\u200Bx\uFEFF"), u"\u200Bx\uFEFF");
  EXPECT_EQ(trimmed(std::u16string_view(u" \0x\0 ", 5)), std::u16string(u"\0x\0", 3));
  // A character beyond the BMP is kept whole; unpaired surrogates are not blanks.
  EXPECT_EQ(trimmed(u" \U0001F600 "), u"\U0001F600");
  EXPECT_EQ(trimmed(u" \xD800 \xDC00 "), u"\xD800 \xDC00");
  EXPECT_EQ(vnk_trim(nullptr), nullptr);
  // A mutable receiver that needs no trimming still gives a snapshot.
  auto m = make<MutableString>(NK_STR("abc"));
  Ref<String> t = vnk_trim(m.get());
  m->appendUTF8("def");
  EXPECT_EQ(t->utf8(), "abc");
}

TEST(StringNullOrEmpty, BlankClasses) {
  EXPECT_TRUE(vnk_nullOrEmpty(nullptr));
  for (std::u16string_view blank : {std::u16string_view(u""), std::u16string_view(u"\n\t"),
                                    std::u16string_view(u"\u3000\uFFFC\u2029")}) {
    EXPECT_TRUE(vnk_nullOrEmpty(S(blank).get())) << S(blank)->utf8();
  }
  for (std::u16string_view text : {std::u16string_view(u" x "), std::u16string_view(u"\u200B"),
                                   std::u16string_view(u"\xD800"), std::u16string_view(u"\0", 1)}) {
    EXPECT_FALSE(vnk_nullOrEmpty(S(text).get())) << S(text)->utf8();
  }
  EXPECT_TRUE(vnk_nullOrEmpty(String::fromLatin1("\xA0 \t").get()));
}

TEST(StringUUID, Case) {  // the form itself is the system UUID's
  EXPECT_TRUE(std::regex_match(vnk_UUID()->utf8(), std::regex("[0-9a-f-]{36}")));
  EXPECT_TRUE(std::regex_match(vnk_UUID(false)->utf8(), std::regex("[0-9A-F-]{36}")));
}

TEST(StringComparisons, EquivalencePrefixAndContainment) {
  const Ref<String> empty = S(""), a = S("a");
  // Equivalence: nil and "" are equal; otherwise literal, unit by unit, whatever the storage.
  const std::tuple<Ref<String>, Ref<String>, bool> pairs[] = {
      {nullptr, empty, true},
      {empty, nullptr, true},
      {nullptr, nullptr, true},
      {a, S("a"), true},
      {a, S("A"), false},
      {a, nullptr, false},
      {S(u"\u00E9"), S(u"e\u0301"), false},
      {String::fromLatin1("\xE9"), S(u"\u00E9"), true}};
  for (const auto& [x, y, equal] : pairs) {
    EXPECT_EQ(vnk_isStringEquivalentToString(x.get(), y.get()), equal)
        << (x ? x->utf8() : "<nil>") << " / " << (y ? y->utf8() : "<nil>");
  }
  // Prefix removal: once, exactly; otherwise (empty, nil, another case, longer) the receiver.
  const Ref<String> s = S("abcabc");
  EXPECT_EQ(vnk_deletePrefix(s.get(), S("abc").get())->utf8(), "abc");
  EXPECT_EQ(vnk_deletePrefix(s.get(), S("abcabc").get())->length(), 0u);
  for (const Ref<String>& p : {S(""), Ref<String>(), S("ABC"), S("abcabcd")}) {
    EXPECT_EQ(vnk_deletePrefix(s.get(), p.get()), s) << (p ? p->utf8() : "<nil>");
  }
  // The receiver itself even when it is mutable: callers compare the result with it.
  const auto m = make<MutableString>(NK_STR("abc"));
  for (const Ref<String>& p : {S(""), S("x")}) {
    EXPECT_EQ(vnk_deletePrefix(m.get(), p.get()).get(), m.get()) << p->utf8();
  }
  EXPECT_EQ(vnk_deletePrefix(nullptr, a.get()), nullptr);
  // A prefix ending in half a surrogate pair cuts by code units.
  EXPECT_EQ(vnk_deletePrefix(S(u"\U0001F600x").get(), S(u"\xD83D").get())->toUTF16(), u"\xDE00x");
  // Containment (the search itself is the system's); an empty or nil needle never matches.
  EXPECT_TRUE(vnk_containsCaseAndDiacriticInsensitive(S("Le RÉSUMÉ").get(), S("resume").get()));
  EXPECT_FALSE(vnk_containsCaseAndDiacriticInsensitive(S("Résumé").get(), S("").get()));
  EXPECT_FALSE(vnk_containsCaseAndDiacriticInsensitive(S("Résumé").get(), nullptr));
  EXPECT_FALSE(vnk_containsCaseAndDiacriticInsensitive(nullptr, a.get()));
}

TEST(StringPrefixClasses, DigitsAndSymbolicLinkIds) {
  // Digits of any script: ASCII, Arabic-Indic three, fullwidth seven.
  for (std::u16string_view yes : {u"1a", u"\u0663", u"\uFF17"}) {
    EXPECT_TRUE(vnk_startsWithNumericCharacter(S(yes).get())) << S(yes)->utf8();
  }
  // Not Nd: superscript two (No), Roman numeral eight (Nl). Only the first code unit
  // is read, so a digit beyond the BMP starts with a surrogate and does not count.
  for (std::u16string_view no : {u"", u" 1", u"-1", u"\u00B2", u"\u2167", u"\U0001D7CE"}) {
    EXPECT_FALSE(vnk_startsWithNumericCharacter(S(no).get())) << S(no)->utf8();
  }
  EXPECT_FALSE(vnk_startsWithNumericCharacter(nullptr));
  // "for" in any case, at the start only.
  for (const char* yes : {"for", "FoRxyz"}) EXPECT_TRUE(vnk_isSymbolicLinkId(S(yes).get())) << yes;
  for (const char* no : {"fo", " for", "afor"}) {
    EXPECT_FALSE(vnk_isSymbolicLinkId(S(no).get())) << no;
  }
  EXPECT_FALSE(vnk_isSymbolicLinkId(nullptr));
}

TEST(StringHosts, DefaultsAndConfiguration) {
  const HostSuffixes staging = stagingHostSuffixes();
  const HostSuffixes testing = testingHostSuffixes();
  // Each default matches anywhere in the host, in any case, and only its own class.
  for (const std::string& suffix : staging) {
    ASSERT_FALSE(suffix.empty());
    EXPECT_TRUE(vnk_isStaging(S("x." + suffix + ":443/path").get())) << suffix;
    EXPECT_FALSE(vnk_isTesting(S("files." + suffix).get())) << suffix;
  }
  for (const std::string& suffix : testing) {
    ASSERT_FALSE(suffix.empty());
    EXPECT_TRUE(vnk_isTesting(S("Api." + suffix).get())) << suffix;
    EXPECT_FALSE(vnk_isStaging(S("api." + suffix).get())) << suffix;
  }
  EXPECT_FALSE(vnk_isStaging(S("files.example.com").get()));
  EXPECT_FALSE(vnk_isStaging(nullptr));
  EXPECT_FALSE(vnk_isTesting(nullptr));

  // Hosts set by the application are stored lower-cased; empty ones never match.
  setStagingHostSuffixes({"Stage.Example.org", "", "beta.example.net"});
  EXPECT_EQ(stagingHostSuffixes()[0], "stage.example.org");
  EXPECT_TRUE(vnk_isStaging(S("a.STAGE.example.org").get()));
  EXPECT_FALSE(vnk_isStaging(S("example.org").get()));
  EXPECT_FALSE(vnk_isStaging(S(staging[0]).get()));
  setTestingHostSuffixes({"", "", ""});
  EXPECT_FALSE(vnk_isTesting(S("anything").get()));
  setStagingHostSuffixes(staging);
  setTestingHostSuffixes(testing);
  EXPECT_TRUE(vnk_isStaging(S(staging[2]).get()));
}

TEST(StringSplit, ComponentsAndRemoval) {
  EXPECT_THAT(units(split(u" a, ,b ,,", u",", true)), ElementsAre(u"a", u"b"));
  EXPECT_THAT(units(split(u" a, ,b ,,", u",", false)), ElementsAre(u" a", u" ", u"b ", u"", u""));
  // Components are trimmed of the whitespace class (Zs and tab), never of newlines.
  EXPECT_THAT(units(split(u"a,\n,b", u",", true)), ElementsAre(u"a", u"\n", u"b"));
  EXPECT_THAT(units(split(u"\u00A0a\t,\u3000", u",", true)), ElementsAre(u"a"));
  // No separator at all; nothing left once emptied.
  EXPECT_THAT(units(split(u"", u",", false)), ElementsAre(u""));
  EXPECT_THAT(units(split(u"  ", u",", true)), ElementsAre());
  // Multi-unit separators match exactly and do not overlap.
  EXPECT_THAT(units(split(u"a::b:::c", u"::", false)), ElementsAre(u"a", u"b", u":c"));
  EXPECT_THAT(units(split(u"aaaa", u"aa", false)), ElementsAre(u"", u"", u""));
  // A nil or empty separator never occurs.
  EXPECT_THAT(units(split(u"a,b", u"", false)), ElementsAre(u"a,b"));
  EXPECT_THAT(
      units(vnk_getComponentsSeparatedByStringRemoveEmptyEntries(S(" a ").get(), nullptr, true)),
      ElementsAre(u"a"));
  EXPECT_EQ(vnk_getComponentsSeparatedByStringRemoveEmptyEntries(nullptr, S(",").get(), true),
            nullptr);
}

TEST(StringSplit, StorageAndSurrogates) {
  // Surrogate pairs on either side of the separator stay whole; a separator beyond the BMP.
  EXPECT_THAT(units(split(u"\U0001F600,\U0001F601", u",", false)),
              ElementsAre(u"\U0001F600", u"\U0001F601"));
  EXPECT_THAT(units(split(u"a\U0001F600b\U0001F600", u"\U0001F600", false)),
              ElementsAre(u"a", u"b", u""));
  // Latin-1 receiver: a separator outside Latin-1 never occurs; one inside does.
  const Ref<String> latin = String::fromLatin1("a\xE9z");
  EXPECT_THAT(units(split(latin, u"\u0100", false)), ElementsAre(u"a\u00E9z"));
  EXPECT_THAT(units(split(latin, u"\u00E9", false)), ElementsAre(u"a", u"z"));
  // Embedded NULs are ordinary units, separators included.
  EXPECT_THAT(units(split(std::u16string_view(u"a\0b", 3), std::u16string_view(u"\0", 1), false)),
              ElementsAre(u"a", u"b"));
  // The one-component result of a mutable receiver is a snapshot.
  auto m = make<MutableString>(NK_STR("xy"));
  Ref<Array> parts = split(m, u",", false);
  m->appendUTF8("z");
  EXPECT_EQ(cast<String>(parts->objectAtIndex(0))->utf8(), "xy");
}

TEST(StringHelpers, HugeInputsStayLinear) {
  // 10 MB of units; a quadratic walk would not finish in any reasonable time.
  constexpr size_t kSize = 10 * 1024 * 1024;
  std::u16string text(kSize, u' ');
  text[kSize / 2] = u'x';
  text[0] = 0xFFFC;
  EXPECT_EQ(vnk_trim(S(text).get())->toUTF16(), u"x");
  EXPECT_FALSE(vnk_nullOrEmpty(S(text).get()));

  std::u16string list;
  list.reserve(kSize);
  while (list.size() + 4 < kSize) list += u"ab ,";
  Ref<Array> parts = split(list, u",", true);
  EXPECT_EQ(parts->count(), kSize / 4 - 1);
  EXPECT_EQ(cast<String>(parts->lastObject())->utf8(), "ab");

  // Pathological separator: many near-matches.
  std::u16string near(kSize / 10, u'a');
  EXPECT_EQ(split(near, u"aaab", false)->count(), 1u);
  EXPECT_FALSE(vnk_isStaging(S(near).get()));
}

}  // namespace
}  // namespace nk
