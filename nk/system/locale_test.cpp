// Tests for Locale: the environment's locale, identifiers and text direction.
#include "nk/system/locale.hpp"

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <string>

#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using test::ScopedEnv;

std::string currentIdentifier() { return Locale::current()->localeIdentifier()->utf8(); }

// Declared before the variables it outlives: resets ICU's default from the restored ones.
struct ResyncIcuDefault {
  ~ResyncIcuDefault() { Locale::current(); }
};

TEST(Locale, CurrentFollowsTheEnvironment) {
  ResyncIcuDefault resync;
  ScopedEnv all("LC_ALL", std::nullopt), messages("LC_MESSAGES", std::nullopt),
      lang("LANG", std::string("de_CH.UTF-8"));
  // LANG alone, codeset dropped, ICU's default set too
  Ref<Locale> l = Locale::current();
  EXPECT_EQ(l->localeIdentifier()->utf8(), "de_CH");
  EXPECT_EQ(l->languageCode()->utf8(), "de");
  EXPECT_EQ(l->countryCode()->utf8(), "CH");
  EXPECT_STREQ(icu::Locale::getDefault().getName(), "de_CH");
  {  // LC_MESSAGES over LANG, LC_ALL over both; re-read on each call; empty does not count
    ScopedEnv m("LC_MESSAGES", std::string("fr_FR.UTF-8"));
    EXPECT_EQ(currentIdentifier(), "fr_FR");
    ScopedEnv a("LC_ALL", std::string("ar_EG.UTF-8"));
    EXPECT_EQ(Locale::current()->languageCode()->utf8(), "ar");
    EXPECT_STREQ(icu::Locale::getDefault().getLanguage(), "ar");
    ScopedEnv empty("LC_ALL", std::string(""));
    EXPECT_EQ(currentIdentifier(), "fr_FR");
  }
  // the POSIX locale, a modifier, nothing at all
  ScopedEnv posix("LANG", std::string("C.UTF-8"));
  EXPECT_EQ(currentIdentifier(), "en_US_POSIX");
  // A modifier naming a script picks it (Serbian in Latin letters, Uzbek in Cyrillic);
  // others say nothing about the language.
  for (auto [posixName, icuName] :
       {std::pair{"sr_RS@latin", "sr_Latn_RS"}, std::pair{"uz_UZ.UTF-8@cyrillic", "uz_Cyrl_UZ"},
        std::pair{"de_DE@euro", "de_DE"}, std::pair{"sr_Latn_RS@latin", "sr_Latn_RS"}}) {
    ScopedEnv modifier("LANG", std::string(posixName));
    EXPECT_EQ(currentIdentifier(), icuName) << posixName;
  }
  ScopedEnv none("LANG", std::nullopt);
  EXPECT_EQ(Locale::current()->languageCode()->utf8(), "en");
}

TEST(Locale, Identifiers) {
  // ICU and POSIX spellings give the canonical identifier; equality goes by it.
  EXPECT_EQ(Locale::withIdentifier("pt-BR")->localeIdentifier()->utf8(), "pt_BR");
  EXPECT_EQ(Locale::withIdentifier("ja_JP.eucJP")->localeIdentifier()->utf8(), "ja_JP");
  EXPECT_EQ(Locale::withIdentifier("en")->countryCode()->utf8(), "");
  EXPECT_TRUE(isEqual(Locale::withIdentifier("pt-BR"), Locale::withIdentifier("pt_BR")));
  EXPECT_FALSE(isEqual(Locale::withIdentifier("pt_PT"), Locale::withIdentifier("pt_BR")));
  EXPECT_EQ(Locale::withIdentifier("pt-BR")->hash(), Locale::withIdentifier("pt_BR")->hash());
  // ICU keywords survive after a codeset.
  Ref<Locale> l = Locale::withIdentifier("th_TH.UTF-8@calendar=gregorian");
  ASSERT_TRUE(l);
  EXPECT_NE(l->icuIdentifier().find("calendar=gregorian"), std::string::npos);
  EXPECT_EQ(l->localeIdentifier()->utf8(), "th_TH");
  for (const std::string& nonsense : {std::string(), std::string("en US"), std::string(300, 'a')}) {
    EXPECT_FALSE(Locale::withIdentifier(nonsense)) << nonsense;
  }
}

TEST(Locale, CharacterDirection) {
  using enum LanguageDirection;
  for (auto [code, direction] :
       {std::pair{"ar", kRightToLeft}, std::pair{"en", kLeftToRight}, std::pair{"ja", kLeftToRight},
        std::pair{"", kUnknown}, std::pair{"a r", kUnknown}}) {
    EXPECT_EQ(Locale::characterDirection(code), direction) << code;
  }
  EXPECT_EQ(Locale::characterDirection(NK_STR("he")), kRightToLeft);
  EXPECT_EQ(Locale::characterDirection(static_cast<const String*>(nullptr)), kUnknown);
}

}  // namespace
}  // namespace nk
