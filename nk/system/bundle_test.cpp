// Tests of Bundle (folders, Info.plist in both forms, resources, localized
// strings and the language order) and of the string-table parser.
#include "nk/system/bundle.hpp"

#include <gtest/gtest.h>
#include <plist/plist.h>

#include <array>
#include <cstdlib>

#include "nk/foundation/number.hpp"
#include "nk/system/strings_table.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using test::ScopedEnv;
using test::TempDir;
using test::writeFile;

Ref<String> S(const std::string& text) { return String::fromUTF8(text); }

std::string xmlInfo(const std::string& identifier, const std::string& region = "en") {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist "
         "version=\"1.0\"><dict>"
         "<key>CFBundleIdentifier</key><string>" +
         identifier + "</string><key>CFBundleDevelopmentRegion</key><string>" + region +
         "</string><key>Count</key><integer>3</integer></dict></plist>\n";
}

std::string binaryInfo(const std::string& identifier) {
  plist_t root = plist_new_dict();
  plist_dict_set_item(root, "CFBundleIdentifier", plist_new_string(identifier.c_str()));
  plist_dict_set_item(root, "Flag", plist_new_bool(1));
  char* bytes = nullptr;
  uint32_t length = 0;
  plist_to_bin(root, &bytes, &length);
  std::string out(bytes, length);
  std::free(bytes);
  plist_free(root);
  return out;
}

// Language variables cleared, so the host's own locale cannot leak into a test.
struct Languages {
  ScopedEnv language{"LANGUAGE", std::nullopt};
  ScopedEnv all{"LC_ALL", std::nullopt};
  ScopedEnv messages{"LC_MESSAGES", std::nullopt};
  ScopedEnv lang{"LANG", std::nullopt};
};

TEST(Bundle, MainBundleFollowsTheVariable) {
  TempDir dir;
  writeFile(dir / "one/Info.plist", xmlInfo("org.example.one"));
  writeFile(dir / "two/Info.plist", binaryInfo("org.example.two"));
  // XML and binary Info.plist, re-resolved when NK_MAIN_BUNDLE changes
  ScopedEnv env("NK_MAIN_BUNDLE", dir / "one");
  auto one = Bundle::mainBundle();
  EXPECT_EQ(one->bundlePath()->utf8(), dir / "one");
  EXPECT_EQ(one->bundleIdentifier()->utf8(), "org.example.one");
  EXPECT_EQ(cast<Number>(one->objectForInfoDictionaryKey(NK_STR("Count")))->longValue(), 3);
  EXPECT_EQ(Bundle::mainBundle(), one);
  {
    ScopedEnv two("NK_MAIN_BUNDLE", dir / "two/");
    EXPECT_EQ(Bundle::mainBundle()->bundleIdentifier()->utf8(), "org.example.two");
    EXPECT_TRUE(cast<Number>(Bundle::mainBundle()->objectForInfoDictionaryKey(NK_STR("Flag")))
                    ->boolValue());
  }
  // a changed Info.plist is read again
  writeFile(dir / "one/Info.plist", xmlInfo("org.example.changed-and-longer"));
  EXPECT_EQ(Bundle::mainBundle()->bundleIdentifier()->utf8(), "org.example.changed-and-longer");
  // no Info.plist, or a broken one: empty info and no identifier
  writeFile(dir / "broken/Info.plist", "<plist><dict><key>x</key>");
  EXPECT_FALSE(Bundle::bundleWithPath(S(dir / "broken").get())->bundleIdentifier());
  ::mkdir((dir / "empty").c_str(), 0700);
  auto empty = Bundle::bundleWithPath(S(dir / "empty").get());
  EXPECT_EQ(empty->infoDictionary()->count(), 0u);
  EXPECT_FALSE(empty->bundleIdentifier());
  // without the variable: the executable's folder
  ScopedEnv unset("NK_MAIN_BUNDLE", std::nullopt);
  char exe[4096] = {};
  ASSERT_GT(::readlink("/proc/self/exe", exe, sizeof exe - 1), 0);
  std::string folder(exe);
  folder.resize(folder.rfind('/'));
  EXPECT_EQ(Bundle::mainBundle()->bundlePath()->utf8(), folder);
  // bundleWithPath refuses what is not a folder.
  EXPECT_FALSE(Bundle::bundleWithPath(S(dir / "missing").get()));
  EXPECT_FALSE(Bundle::bundleWithPath(S(dir / "one/Info.plist").get()));
}

TEST(Bundle, LibraryBundleAndClasses) {
  TempDir dir;
  ::mkdir((dir / "lib").c_str(), 0700);
  ::mkdir((dir / "host").c_str(), 0700);
  ScopedEnv env("NK_LIBRARY_BUNDLE", dir / "lib");
  EXPECT_EQ(Bundle::libraryBundle()->bundlePath()->utf8(), dir / "lib");
  EXPECT_EQ(Bundle::bundleForClass(Bundle::staticClass())->bundlePath()->utf8(), dir / "lib");
  Bundle::registerBundlePathForClass(String::staticClass(), S(dir / "host").get());
  EXPECT_EQ(Bundle::bundleForClass(String::staticClass())->bundlePath()->utf8(), dir / "host");
  Bundle::registerBundlePathForClass(String::staticClass(), nullptr);
  EXPECT_EQ(Bundle::bundleForClass(String::staticClass())->bundlePath()->utf8(), dir / "lib");
}

TEST(Bundle, ResourceLookup) {
  TempDir dir;
  writeFile(dir / "Resources/config.plist", "x");
  writeFile(dir / "Resources/README", "x");
  writeFile(dir / "Resources/fr.lproj/only-french.txt", "x");
  writeFile(dir / "secret.txt", "x");
  Languages clean;
  ScopedEnv lang("LANG", std::string("fr_FR.UTF-8"));
  auto bundle = Bundle::bundleWithPath(S(dir.path()).get());
  auto find = [&](const char* name, const String* type) {
    auto path = bundle->pathForResourceOfType(S(name).get(), type);
    return path ? path->utf8() : "<nil>";
  };
  EXPECT_EQ(bundle->resourcePath()->utf8(), dir / "Resources");
  EXPECT_EQ(find("config", NK_STR("plist")), dir / "Resources/config.plist");
  EXPECT_EQ(find("config", NK_STR(".plist")), dir / "Resources/config.plist");
  EXPECT_EQ(find("README", nullptr), dir / "Resources/README");
  EXPECT_EQ(find("README", String::empty()), dir / "Resources/README");
  EXPECT_EQ(find("only-french", NK_STR("txt")), dir / "Resources/fr.lproj/only-french.txt");
  EXPECT_EQ(find("missing", NK_STR("plist")), "<nil>");
  EXPECT_EQ(find("secret", NK_STR("txt")), "<nil>");
  EXPECT_EQ(find("../secret", NK_STR("txt")), "<nil>");
  EXPECT_EQ(find("fr", NK_STR("lproj/../../secret.txt")), "<nil>");
  // The system reads a path only up to a NUL: "README\0x" would be found as "README".
  const std::string withNul = std::string("README") + '\0' + "x";
  EXPECT_FALSE(bundle->pathForResourceOfType(S(withNul).get(), nullptr));
  EXPECT_FALSE(Bundle::bundleWithPath(S(dir.path() + '\0' + "x").get()));
  EXPECT_FALSE(bundle->pathForResourceOfType(nullptr, NK_STR("txt")));
}

TEST(Bundle, PreferredLanguages) {
  using List = std::vector<std::string>;
  Languages clean;
  EXPECT_EQ(Bundle::preferredLanguages(), List{});
  ScopedEnv lang("LANG", std::string("fr_FR.UTF-8"));
  EXPECT_EQ(Bundle::preferredLanguages(), (List{"fr_FR", "fr-FR", "fr"}));
  ScopedEnv messages("LC_MESSAGES", std::string("de_DE@euro"));
  EXPECT_EQ(Bundle::preferredLanguages(), (List{"de_DE", "de-DE", "de"}));
  {  // A modifier naming a script: Serbian in Latin letters before the Cyrillic default.
    ScopedEnv latin("LC_MESSAGES", std::string("sr_RS.UTF-8@latin"));
    EXPECT_EQ(Bundle::preferredLanguages(),
              (List{"sr-Latn-RS", "sr-Latn", "sr_RS", "sr-RS", "sr"}));
    ScopedEnv language("LANGUAGE", std::string("sr@latin"));
    EXPECT_EQ(Bundle::preferredLanguages(), (List{"sr-Latn", "sr"}));
  }
  ScopedEnv all("LC_ALL", std::string("C.UTF-8"));
  EXPECT_EQ(Bundle::preferredLanguages(), List{});
  ScopedEnv language("LANGUAGE", std::string("pt_BR:pt:en"));
  EXPECT_EQ(Bundle::preferredLanguages(), (List{"pt_BR", "pt-BR", "pt", "en"}));
  // Under the untranslated locale itself, or with no locale set, gettext ignores LANGUAGE:
  // `LC_ALL=C tool` must print untranslated text whatever the session's list says.
  for (const char* untranslated : {"C", "POSIX"}) {
    ScopedEnv plain("LC_ALL", std::string(untranslated));
    EXPECT_EQ(Bundle::preferredLanguages(), List{}) << untranslated;
  }
  ScopedEnv noAll("LC_ALL", std::nullopt), noMessages("LC_MESSAGES", std::nullopt),
      noLang("LANG", std::nullopt);
  EXPECT_EQ(Bundle::preferredLanguages(), List{});
}

TEST(Bundle, LocalizedStringsFallBackInOrder) {
  TempDir dir;
  writeFile(dir / "Info.plist", xmlInfo("org.example.l10n", "de"));
  writeFile(dir / "Resources/fr_FR.lproj/Localizable.strings", "\"greeting\" = \"Salut (FR)\";");
  writeFile(dir / "Resources/fr.lproj/Localizable.strings",
            "\"greeting\" = \"Bonjour\";\n\"bye\" = \"Au revoir\";\n");
  writeFile(dir / "Resources/de.lproj/Localizable.strings", "\"only-de\" = \"Nur Deutsch\";");
  writeFile(dir / "Resources/en.lproj/Localizable.strings", "\"only-en\" = \"English\";");
  writeFile(dir / "Resources/Base.lproj/Localizable.strings", "\"only-base\" = \"Base\";");
  writeFile(dir / "Resources/fr.lproj/Other.strings", "\"greeting\" = \"Autre\";");
  Languages clean;
  ScopedEnv lang("LANG", std::string("fr_FR.UTF-8"));
  auto bundle = Bundle::bundleWithPath(S(dir.path()).get());
  auto lookup = [&](const char* key, const char* value = nullptr, const char* table = nullptr) {
    return bundle
        ->localizedStringForKey(S(key).get(), value ? S(value).get() : nullptr,
                                table ? S(table).get() : nullptr)
        ->utf8();
  };
  // Region first, then language, development region, "en", "Base"; untranslated: the value
  // when not empty, else the key.
  // Key, value, table, expected.
  const std::array<const char*, 4> rows[] = {{"greeting", nullptr, nullptr, "Salut (FR)"},
                                             {"bye", nullptr, nullptr, "Au revoir"},
                                             {"only-de", nullptr, nullptr, "Nur Deutsch"},
                                             {"only-en", nullptr, nullptr, "English"},
                                             {"only-base", nullptr, nullptr, "Base"},
                                             {"untranslated", nullptr, nullptr, "untranslated"},
                                             {"untranslated", "", nullptr, "untranslated"},
                                             {"untranslated", "Fallback", nullptr, "Fallback"},
                                             {"greeting", "Fallback", nullptr, "Salut (FR)"},
                                             {"greeting", nullptr, "Other", "Autre"},
                                             {"bye", nullptr, "Other", "bye"}};
  for (const auto& [key, value, table, expected] : rows) {
    EXPECT_EQ(lookup(key, value, table), expected) << key << " " << (table ? table : "");
  }
  // A table name with a NUL names no table (the system would read "Other.strings").
  EXPECT_EQ(bundle
                ->localizedStringForKey(NK_STR("greeting"), nullptr,
                                        S(std::string("Other.strings") + '\0' + "x").get())
                ->utf8(),
            "greeting");
  // A rewritten table is read again; a malformed one counts as empty.
  writeFile(dir / "Resources/fr.lproj/Localizable.strings", "\"bye\" = \"Salut alors\";");
  EXPECT_EQ(lookup("bye"), "Salut alors");
  writeFile(dir / "Resources/fr.lproj/Localizable.strings", "\"bye\" = \"unterminated;");
  EXPECT_EQ(lookup("bye"), "bye");
  ScopedEnv language("LANGUAGE", std::string("de"));
  EXPECT_EQ(lookup("greeting"), "greeting");
  EXPECT_EQ(lookup("only-de"), "Nur Deutsch");
}

std::string utf16(const std::u16string& text, bool little) {
  std::string out = little ? std::string("\xFF\xFE") : std::string("\xFE\xFF");
  for (char16_t unit : text) {
    char lo = static_cast<char>(unit & 0xff), hi = static_cast<char>(unit >> 8);
    out += little ? std::string{lo, hi} : std::string{hi, lo};
  }
  return out;
}

std::string entry(const Dictionary* table, const char* key) {
  if (!table) return "<no table>";
  auto value = table->objectForKeyOfClass<String>(String::fromUTF8(key));
  return value ? value->utf8() : "<missing>";
}

TEST(StringsTable, SyntaxAndEscapes) {
  // comments, escapes and unquoted words
  auto table = parseStringsTable(
      "/* header\n comment */\n\"a\" = \"x\\\"y\\\\z\";  // trailing\n"
      "\"nl\" = \"1\\n2\\t3\";\nword = other.word;\n\"u\" = "
      "\"\\U00e9\\u20AC\";\n"
      "\"self\";\n\"a\" = \"later wins\";");
  ASSERT_TRUE(table);
  EXPECT_EQ(entry(table.get(), "a"), "later wins");
  EXPECT_EQ(entry(table.get(), "nl"), "1\n2\t3");
  EXPECT_EQ(entry(table.get(), "word"), "other.word");
  EXPECT_EQ(entry(table.get(), "u"), "é€");
  EXPECT_EQ(entry(table.get(), "self"), "self");
  EXPECT_EQ(table->count(), 5u);
  // UTF-16 in both byte orders, and UTF-8 with a byte-order mark
  for (bool little : {true, false}) {
    EXPECT_EQ(entry(parseStringsTable(utf16(u"\"k\" = \"\u00fcber\";", little)).get(), "k"), "über")
        << little;
  }
  EXPECT_EQ(entry(parseStringsTable("\xEF\xBB\xBF\"k\" = \"v\";").get(), "k"), "v");
  // empty input is an empty table
  auto empty = parseStringsTable("  // nothing\n");
  ASSERT_TRUE(empty);
  EXPECT_EQ(empty->count(), 0u);
}

TEST(StringsTable, MalformedInputGivesNil) {
  for (const char* bad :
       {"\"a\" = \"b\"", "\"a\" = ;", "\"a\" \"b\";", "\"a\" = \"b", "/* open", "\"a\" = \"b\\",
        "= \"b\";", "\"a\" = \"b\";;", "\xFF\xFE\x41", "\xC3\x28 = x;"}) {
    EXPECT_FALSE(parseStringsTable(bad)) << bad;
  }
  // An unpaired surrogate is no more UTF-16 than its three bytes are UTF-8.
  for (bool little : {true, false}) {
    EXPECT_FALSE(parseStringsTable(utf16(u"\"k\" = \"a\xD800\";", little))) << little;
    EXPECT_FALSE(parseStringsTable(utf16(u"\"k\" = \"\xDC00\";", little))) << little;
  }
}

}  // namespace
}  // namespace nk
