// Tests for Locale: the environment's locale, identifiers and text direction.
#include "nk/system/locale.hpp"

#include <gtest/gtest.h>
#include <unicode/locid.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace nk {
namespace {

// Restores the locale variables a test changes.
class LocaleEnvironment : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : kNames) {
      const char* v = std::getenv(name);
      saved_.push_back(v ? std::optional<std::string>(v) : std::nullopt);
      unsetenv(name);
    }
  }
  void TearDown() override {
    for (size_t i = 0; i < saved_.size(); ++i) {
      if (saved_[i]) {
        setenv(kNames[i], saved_[i]->c_str(), 1);
      } else {
        unsetenv(kNames[i]);
      }
    }
    Locale::current();
  }
  static constexpr const char* kNames[] = {"LC_ALL", "LC_MESSAGES", "LANG"};
  std::vector<std::optional<std::string>> saved_;
};

TEST_F(LocaleEnvironment, CurrentFollowsTheEnvironment) {
  // LANG alone, codeset dropped
  {
    setenv("LANG", "de_CH.UTF-8", 1);
    Ref<Locale> l = Locale::current();
    EXPECT_EQ(l->localeIdentifier()->utf8(), "de_CH");
    EXPECT_EQ(l->languageCode()->utf8(), "de");
    EXPECT_EQ(l->countryCode()->utf8(), "CH");
    EXPECT_STREQ(icu::Locale::getDefault().getName(), "de_CH");
  }
  // LC_MESSAGES over LANG, LC_ALL over both; re-read on each call
  {
    setenv("LC_MESSAGES", "fr_FR.UTF-8", 1);
    EXPECT_EQ(Locale::current()->localeIdentifier()->utf8(), "fr_FR");
    setenv("LC_ALL", "ar_EG.UTF-8", 1);
    EXPECT_EQ(Locale::current()->languageCode()->utf8(), "ar");
    EXPECT_STREQ(icu::Locale::getDefault().getLanguage(), "ar");
  }
  // an empty variable does not count
  {
    setenv("LC_ALL", "", 1);
    EXPECT_EQ(Locale::current()->localeIdentifier()->utf8(), "fr_FR");
  }
  // the POSIX locale, a modifier, nothing at all
  {
    unsetenv("LC_ALL");
    unsetenv("LC_MESSAGES");
    setenv("LANG", "C.UTF-8", 1);
    EXPECT_EQ(Locale::current()->localeIdentifier()->utf8(), "en_US_POSIX");
    setenv("LANG", "sr_RS@latin", 1);
    EXPECT_EQ(Locale::current()->localeIdentifier()->utf8(), "sr_RS");
    unsetenv("LANG");
    EXPECT_EQ(Locale::current()->languageCode()->utf8(), "en");
  }
}

TEST(Locale, Identifiers) {
  // ICU and POSIX spellings give the canonical identifier
  {
    EXPECT_EQ(Locale::withIdentifier("pt-BR")->localeIdentifier()->utf8(), "pt_BR");
    EXPECT_EQ(Locale::withIdentifier("ja_JP.eucJP")->localeIdentifier()->utf8(), "ja_JP");
    EXPECT_EQ(Locale::withIdentifier("en")->countryCode()->utf8(), "");
  }
  // ICU keywords survive after a codeset
  {
    Ref<Locale> l = Locale::withIdentifier("th_TH.UTF-8@calendar=gregorian");
    ASSERT_TRUE(l);
    EXPECT_NE(l->icuIdentifier().find("calendar=gregorian"), std::string::npos);
    EXPECT_EQ(l->localeIdentifier()->utf8(), "th_TH");
  }
  // nonsense is nil
  {
    EXPECT_FALSE(Locale::withIdentifier(""));
    EXPECT_FALSE(Locale::withIdentifier("en US"));
    EXPECT_FALSE(Locale::withIdentifier(std::string(300, 'a')));
  }
  // equality by identifier
  {
    EXPECT_TRUE(isEqual(Locale::withIdentifier("pt-BR"), Locale::withIdentifier("pt_BR")));
    EXPECT_FALSE(isEqual(Locale::withIdentifier("pt_PT"), Locale::withIdentifier("pt_BR")));
    EXPECT_EQ(Locale::withIdentifier("pt-BR")->hash(), Locale::withIdentifier("pt_BR")->hash());
  }
}

TEST(Locale, CharacterDirection) {
  // right-to-left scripts' languages
  {
    for (const char* code : {"ar", "he", "fa", "ur"}) {
      EXPECT_EQ(Locale::characterDirection(code), LanguageDirection::kRightToLeft) << code;
    }
  }
  // left-to-right ones, as a String too
  {
    for (const char* code : {"en", "fr", "ja", "ru"}) {
      EXPECT_EQ(Locale::characterDirection(code), LanguageDirection::kLeftToRight) << code;
    }
    EXPECT_EQ(Locale::characterDirection(NK_STR("he")), LanguageDirection::kRightToLeft);
  }
  // the platform's enumeration values
  {
    EXPECT_EQ(static_cast<int>(LanguageDirection::kUnknown), 0);
    EXPECT_EQ(static_cast<int>(LanguageDirection::kRightToLeft), 2);
  }
  // no language at all is unknown
  {
    EXPECT_EQ(Locale::characterDirection(static_cast<const String*>(nullptr)),
              LanguageDirection::kUnknown);
    EXPECT_EQ(Locale::characterDirection(""), LanguageDirection::kUnknown);
    EXPECT_EQ(Locale::characterDirection("a r"), LanguageDirection::kUnknown);
  }
}

}  // namespace
}  // namespace nk
