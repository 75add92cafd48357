// Tests of NKLocalizationUtils against a temporary main bundle with string tables.

#include "nk/environment/localization_utils.hpp"

#include <gtest/gtest.h>

#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using namespace test;

std::string lookUp(std::string_view key, std::string_view comment) {
  return NKLocalizationUtils::deviceSpecificLocalizedStringWithComment(
             String::fromUTF8(key).get(), String::fromUTF8(comment).get())
      ->utf8();
}

TEST(NKLocalizationUtils, DeviceSpecificLocalizedString) {
  TempDir dir;
  writeFile(dir / "app/Info.plist",
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
            "<key>CFBundleIdentifier</key><string>com.example.app</string></dict></plist>\n");
  writeFile(dir / "app/Resources/en.lproj/Localizable.strings",
            "/* shown on the sign-in page */\n\"sign_in\" = \"Sign in\";\n");
  writeFile(dir / "app/Resources/en.lproj/Other.strings", "\"other_key\" = \"Other value\";\n");
  ScopedEnv bundle("NK_MAIN_BUNDLE", dir / "app");
  ScopedEnv language("LANGUAGE", "en");
  // The comment does not matter; keys found only in another table come back as they are.
  EXPECT_EQ(lookUp("sign_in", "Sign-in button"), "Sign in");
  EXPECT_EQ(lookUp("not_translated", "whatever"), "not_translated");
  EXPECT_EQ(lookUp("other_key", "lives in Other.strings"), "other_key");
}

}  // namespace
}  // namespace nk
