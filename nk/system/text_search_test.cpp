// Tests for the case- and diacritic-insensitive search.
#include "nk/system/text_search.hpp"

#include <gtest/gtest.h>

namespace nk {
namespace {

Ref<String> s(std::u16string_view units) { return String::withCharacters(units); }

bool has(std::u16string_view haystack, std::u16string_view needle) {
  return textContainsIgnoringCaseAndDiacritics(s(haystack).get(), s(needle).get());
}

TextRange range(std::u16string_view haystack, std::u16string_view needle) {
  return textRangeIgnoringCaseAndDiacritics(s(haystack).get(), s(needle).get());
}

TEST(TextSearch, IgnoresCaseAndDiacritics) {
  struct Row {
    std::u16string_view haystack, needle;
    bool found;
  } rows[] = {
      // accents on either side, precomposed or decomposed
      {u"Résumé", u"resume", true},
      {u"resume", u"Résumé", true},
      {u"Re\u0301sume\u0301", u"RÉSUMÉ", true},
      // full case folding: sharp s, final sigma, Kelvin sign; Greek with tonos
      {u"Straße", u"STRASSE", true},
      {u"ΟΔΟΣ", u"οδος", true},
      {u"ΟΔΟΣ", u"οδοσ", true},
      {u"5 \u212A", u"k", true},
      {u"Ἀθῆναι", u"αθηναι", true},
      // letters that differ are still different
      {u"Résumé", u"resumes", false},
      {u"résumé", u"rasume", false},
      // an empty needle never matches, not even in an empty haystack; nor does a
      // needle of combining marks only, which folds to nothing
      {u"abc", u"", false},
      {u"", u"", false},
      {u"e\u0301", u"\u0301", false},
  };
  for (const Row& r : rows) {
    EXPECT_EQ(has(r.haystack, r.needle), r.found)
        << s(r.haystack)->utf8() << " / " << s(r.needle)->utf8();
  }
  EXPECT_EQ(range(u"abc", u"").location, kNotFound);
  EXPECT_FALSE(textContainsIgnoringCaseAndDiacritics(nullptr, s(u"a").get()));
  EXPECT_FALSE(textContainsIgnoringCaseAndDiacritics(s(u"a").get(), nullptr));
}

TEST(TextSearch, RangesInOriginalUnits) {
  // precomposed: the range covers the accented letters
  EXPECT_EQ(range(u"Le Résumé", u"RESUME"), (TextRange{3, 6}));
  // decomposed: the trailing mark belongs to the match
  EXPECT_EQ(range(u"Re\u0301sume\u0301!", u"resume"), (TextRange{0, 8}));
  // a supplementary character before the match counts two units
  EXPECT_EQ(range(u"\U0001F600Été", u"ete"), (TextRange{2, 3}));
  // a character that folds to two letters is in the range whole
  EXPECT_EQ(range(u"aßb", u"s"), (TextRange{1, 1}));
  EXPECT_EQ(range(u"aßb", u"ssb"), (TextRange{1, 2}));
  // the first occurrence wins; Latin-1 storage and UTF-16 storage agree
  Ref<String> latin1 = String::fromLatin1("xx\xC9t\xE9 \xE9t\xE9");
  ASSERT_TRUE(latin1);
  EXPECT_EQ(textRangeIgnoringCaseAndDiacritics(latin1.get(), s(u"ETE").get()), (TextRange{2, 3}));
}

}  // namespace
}  // namespace nk
