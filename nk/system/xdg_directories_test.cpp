// Tests of the Linux folder answers: temporary folder, Library and Documents
// folders, group containers, and the rules for XDG variables and HOME.
#include "nk/system/xdg_directories.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "nk/system/file_manager.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk {
namespace {

using test::ScopedEnv;
using test::TempDir;
using test::writeFile;

// A home folder and a main bundle "org.example.app" in a temporary folder.
struct Sandbox {
  TempDir dir;
  ScopedEnv home{"HOME", dir / "home"};
  ScopedEnv data{"XDG_DATA_HOME", std::nullopt};
  ScopedEnv cache{"XDG_CACHE_HOME", std::nullopt};
  ScopedEnv config{"XDG_CONFIG_HOME", std::nullopt};
  ScopedEnv bundle{"NK_MAIN_BUNDLE", dir / "bundle"};
  Sandbox() {
    writeFile(dir / "bundle/Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
              "<key>CFBundleIdentifier</key><string>org.example.app</string></dict></plist>\n");
    ::mkdir((dir / "home").c_str(), 0700);
  }
};

// The one user-domain answer for `directory`, or "<none>".
std::string userPath(unsigned long directory) {
  auto urls = FileManager::defaultManager()->URLsForDirectory(directory, kUserDomainMask);
  return urls->count() == 1 ? cast<URL>(urls->objectAtIndex(0))->path()->utf8() : "<none>";
}

TEST(TemporaryDirectory, PrivateCacheFolderNeverTmp) {
  Sandbox box;
  ScopedEnv tmpdir("TMPDIR", box.dir / "elsewhere");
  // the default: ~/.cache/<id>/ with a trailing slash, made 0700
  auto path = temporaryDirectory();
  ASSERT_TRUE(path);
  EXPECT_EQ(path->utf8(), box.dir / "home/.cache/org.example.app/");
  struct stat st;
  ASSERT_EQ(::stat((box.dir / "home/.cache/org.example.app").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  // XDG_CACHE_HOME counts unless relative; TMPDIR never does
  ScopedEnv cache("XDG_CACHE_HOME", box.dir / "cache");
  EXPECT_EQ(NSTemporaryDirectory()->utf8(), box.dir / "cache/org.example.app/");
  ScopedEnv relative("XDG_CACHE_HOME", std::string("relative/cache"));
  EXPECT_EQ(temporaryDirectory()->utf8(), box.dir / "home/.cache/org.example.app/");
  // without a bundle identifier the process name names the folder
  ScopedEnv bundle("NK_MAIN_BUNDLE", box.dir / "no-bundle");
  path = temporaryDirectory();
  ASSERT_TRUE(path);
  EXPECT_NE(path->utf8(), "/tmp/");
  EXPECT_EQ(path->utf8(), box.dir / "home/.cache/" + applicationFolderName() + "/");
  EXPECT_NE(applicationFolderName(), "org.example.app");
  // an empty or relative HOME is an error, not a relative folder
  ScopedEnv home("HOME", std::string("relative-home"));
  EXPECT_FALSE(temporaryDirectory());
  ScopedEnv empty("HOME", std::string(""));
  EXPECT_FALSE(temporaryDirectory());
  EXPECT_FALSE(homeDirectory());
}

TEST(SearchPathDirectories, LibraryAndDocuments) {
  Sandbox box;
  auto* manager = FileManager::defaultManager();
  {  // Library: $XDG_DATA_HOME/<id>, default ~/.local/share/<id>
    EXPECT_EQ(userPath(kLibraryDirectory), box.dir / "home/.local/share/org.example.app");
    ScopedEnv data("XDG_DATA_HOME", box.dir / "data");
    EXPECT_EQ(userPath(kLibraryDirectory), box.dir / "data/org.example.app");
  }
  // Only the user domain answers.
  EXPECT_EQ(manager->URLsForDirectory(kLibraryDirectory, kSystemDomainMask)->count(), 0u);
  EXPECT_EQ(manager->URLsForDirectory(kLibraryDirectory, kAllDomainsMask)->count(), 1u);
  EXPECT_EQ(manager->URLsForDirectory(99, kUserDomainMask)->count(), 0u);
  // Documents without user-dirs.dirs: ~/Documents
  EXPECT_EQ(userPath(kDocumentDirectory), box.dir / "home/Documents");
  // user-dirs.dirs: $HOME expanded, comments skipped, last assignment wins
  writeFile(box.dir / "home/.config/user-dirs.dirs",
            "# written by a tool\nXDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
            "XDG_DOCUMENTS_DIR=\"$HOME/Old\"\nXDG_DOCUMENTS_DIR=\"$HOME/My \\\"Docs\\\"\"\n");
  EXPECT_EQ(userDocumentsDirectory(), box.dir.path() + "/home/My \"Docs\"");
  // an absolute value in XDG_CONFIG_HOME's file; relative values are ignored
  ScopedEnv config("XDG_CONFIG_HOME", box.dir / "config");
  writeFile(box.dir / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"/srv/docs/\"\n");
  EXPECT_EQ(userDocumentsDirectory(), std::string("/srv/docs"));
  writeFile(box.dir / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"docs\"\n");
  EXPECT_EQ(userDocumentsDirectory(), box.dir / "home/Documents");
  // A home or data folder at the root gives "/.config", not "//.config": the texts are
  // compared and joined by callers. (Only names are worked out; nothing is made in "/".)
  {
    ScopedEnv root("HOME", std::string("/"));
    {
      ScopedEnv noConfig("XDG_CONFIG_HOME", std::nullopt);
      EXPECT_EQ(xdgConfigHome(), std::string("/.config"));
    }
    EXPECT_EQ(xdgCacheHome(), std::string("/.cache"));
    writeFile(box.dir / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"$HOME/Docs\"\n");
    EXPECT_EQ(userDocumentsDirectory(), std::string("/Docs"));
    ScopedEnv rootData("XDG_DATA_HOME", std::string("/"));
    EXPECT_EQ(libraryDirectory(), std::string("/org.example.app"));
  }
  // no home: no answers
  ScopedEnv home("HOME", std::string("rel"));
  EXPECT_EQ(manager->URLsForDirectory(kDocumentDirectory, kUserDomainMask)->count(), 0u);
  EXPECT_EQ(manager->URLsForDirectory(kLibraryDirectory, kUserDomainMask)->count(), 0u);
}

TEST(GroupContainer, MadeOnRequestAndIdentifiersChecked) {
  Sandbox box;
  ScopedEnv data("XDG_DATA_HOME", box.dir / "data");
  auto* manager = FileManager::defaultManager();
  // a valid identifier: the folder is made, the URL ends in "/"
  auto url = manager->containerURLForSecurityApplicationGroupIdentifier(NK_STR("group.a.b"));
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path()->utf8(), box.dir / "data/group-containers/group.a.b");
  EXPECT_TRUE(url->absoluteString()->utf8().ends_with("/"));
  struct stat st;
  ASSERT_EQ(::stat((box.dir / "data/group-containers/group.a.b").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  // Identifiers that could escape or confuse have no container.
  for (const char* bad : {"", ".", "..", "a/b", "../x", "tab\there", "nl\n"}) {
    EXPECT_FALSE(
        manager->containerURLForSecurityApplicationGroupIdentifier(String::fromUTF8(bad).get()))
        << bad;
  }
  EXPECT_FALSE(manager->containerURLForSecurityApplicationGroupIdentifier(nullptr));
  EXPECT_FALSE(test::exists(box.dir / "data/x"));
  // a relative XDG_DATA_HOME falls back to the home default
  ScopedEnv relative("XDG_DATA_HOME", std::string("data"));
  url = manager->containerURLForSecurityApplicationGroupIdentifier(NK_STR("g"));
  ASSERT_TRUE(url);
  EXPECT_EQ(url->path()->utf8(), box.dir / "home/.local/share/group-containers/g");
}

}  // namespace
}  // namespace nk
