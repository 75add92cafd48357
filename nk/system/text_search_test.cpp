// Tests for the case- and diacritic-insensitive search.
#include "nk/system/text_search.hpp"

#include <gtest/gtest.h>

namespace nk {
namespace {

Ref<String> s(std::u16string_view units) { return String::withCharacters(units); }

bool has(std::u16string_view haystack, std::u16string_view needle) {
  return textContainsIgnoringCaseAndDiacritics(s(haystack).get(), s(needle).get());
}

TEST(TextSearch, IgnoresCaseAndDiacritics) {
  // accents on either side, precomposed or decomposed
  {
    EXPECT_TRUE(has(u"Résumé", u"resume"));
    EXPECT_TRUE(has(u"resume", u"Résumé"));
    EXPECT_TRUE(has(u"Re\u0301sume\u0301", u"RÉSUMÉ"));
    EXPECT_TRUE(has(u"Crème brûlée", u"BRULEE"));
    EXPECT_TRUE(has(u"Ångström", u"angstrom"));
  }
  // full case folding: sharp s, final sigma, Kelvin sign; Greek with tonos
  {
    EXPECT_TRUE(has(u"Straße", u"STRASSE"));
    EXPECT_TRUE(has(u"ΟΔΟΣ", u"οδος"));
    EXPECT_TRUE(has(u"ΟΔΟΣ", u"οδοσ"));
    EXPECT_TRUE(has(u"5 \u212A", u"k"));
    EXPECT_TRUE(has(u"Ἀθῆναι", u"αθηναι"));
  }
  // letters that differ are still different
  {
    EXPECT_FALSE(has(u"Résumé", u"resumes"));
    EXPECT_FALSE(has(u"résumé", u"rasume"));
    EXPECT_FALSE(has(u"abc", u"abd"));
  }
}

TEST(TextSearch, EmptyAndNil) {
  // an empty needle never matches, not even in an empty haystack
  {
    EXPECT_FALSE(has(u"abc", u""));
    EXPECT_FALSE(has(u"", u""));
    EXPECT_EQ(textRangeIgnoringCaseAndDiacritics(s(u"abc").get(), s(u"").get()).location,
              kNotFound);
  }
  // a needle of combining marks only folds to nothing
  { EXPECT_FALSE(has(u"e\u0301", u"\u0301")); }
  // nil on either side
  {
    EXPECT_FALSE(textContainsIgnoringCaseAndDiacritics(nullptr, s(u"a").get()));
    EXPECT_FALSE(textContainsIgnoringCaseAndDiacritics(s(u"a").get(), nullptr));
  }
}

TEST(TextSearch, RangesInOriginalUnits) {
  // precomposed: the range covers the accented letters
  {
    EXPECT_EQ(textRangeIgnoringCaseAndDiacritics(s(u"Le Résumé").get(), s(u"RESUME").get()),
              (TextRange{3, 6}));
  }
  // decomposed: the trailing mark belongs to the match
  {
    EXPECT_EQ(
        textRangeIgnoringCaseAndDiacritics(s(u"Re\u0301sume\u0301!").get(), s(u"resume").get()),
        (TextRange{0, 8}));
  }
  // a supplementary character before the match counts two units
  {
    EXPECT_EQ(textRangeIgnoringCaseAndDiacritics(s(u"\U0001F600Été").get(), s(u"ete").get()),
              (TextRange{2, 3}));
  }
  // a character that folds to two letters is in the range whole
  {
    EXPECT_EQ(textRangeIgnoringCaseAndDiacritics(s(u"aßb").get(), s(u"s").get()),
              (TextRange{1, 1}));
    EXPECT_EQ(textRangeIgnoringCaseAndDiacritics(s(u"aßb").get(), s(u"ssb").get()),
              (TextRange{1, 2}));
  }
  // the first occurrence wins; Latin-1 storage and UTF-16 storage agree
  {
    Ref<String> latin1 = String::fromLatin1("xx\xC9t\xE9 \xE9t\xE9");
    ASSERT_TRUE(latin1);
    EXPECT_EQ(textRangeIgnoringCaseAndDiacritics(latin1.get(), s(u"ETE").get()), (TextRange{2, 3}));
  }
}

}  // namespace
}  // namespace nk
