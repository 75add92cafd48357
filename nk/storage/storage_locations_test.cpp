// Tests of NKFileSystemHelper's locations: the shared roots with and without a group,
// user URLs, the cache and search-path folders, the log getters and the bundle lookup.
#include "nk/storage/file_system_helper.hpp"

#include <gtest/gtest.h>

#include <filesystem>

#include "nk/storage/storage_test_support_internal.hpp"

namespace nk {
namespace {

using test::directoryURL;
using test::exists;
using test::isDirectory;
using test::S;
using test::ScopedEnv;
using test::StorageSandbox;
using test::writeFile;

// Puts the shared instances back on the Library base whatever the test configured.
struct ResetGroups {
  ~ResetGroups() {
    for (auto* helper :
         {NKFileSystemHelper::instanceLegacy(), NKFileSystemHelper::instanceFileProvider(),
          NKFileSystemHelper::instanceDPLogProvider(),
          NKFileSystemHelper::instanceFPLogProvider()}) {
      helper->configure(nullptr);
    }
  }
};

std::string pathOf(const Ref<URL>& url) { return url ? url->path()->utf8() : "<nil>"; }

TEST(StorageRoots, LibraryBaseWithoutGroup) {
  StorageSandbox box;
  ResetGroups reset;
  {  // the base is Library, and asking for it creates nothing
    auto base = NKFileSystemHelper::instanceFileProvider()->baseURL();
    EXPECT_EQ(pathOf(base), box.library());
    EXPECT_FALSE(exists(box.library()));
  }
  {  // each instance's root: a directory URL, created with its parents
    const struct {
      NKFileSystemHelper* helper;
      const char* folder;
    } roots[] = {{NKFileSystemHelper::instanceLegacy(), "Private Documents"},
                 {NKFileSystemHelper::instanceFileProvider(), "File Provider Storage"},
                 {NKFileSystemHelper::instanceDPLogProvider(), "DPLogs"},
                 {NKFileSystemHelper::instanceFPLogProvider(), "FPLogs"}};
    for (const auto& root : roots) {
      auto url = root.helper->getApplicationOfflineStorageDir();
      ASSERT_TRUE(url) << root.folder;
      EXPECT_EQ(pathOf(url), box.library() + "/" + root.folder);
      EXPECT_EQ(url->absoluteString()->utf8().back(), '/') << root.folder;
      EXPECT_TRUE(isDirectory(box.library() + "/" + root.folder)) << root.folder;
    }
  }
  {  // a named folder beside the root
    auto url =
        NKFileSystemHelper::instanceLegacy()->getApplicationOfflineStorageDir(S("Extra").get());
    EXPECT_EQ(pathOf(url), box.library() + "/Extra");
    EXPECT_TRUE(isDirectory(box.library() + "/Extra"));
  }
}

TEST(StorageRoots, ConfiguredGroup) {
  StorageSandbox box;
  ResetGroups reset;
  auto* helper = NKFileSystemHelper::instanceFileProvider();
  const std::string container = box.dir / "data/group-containers/group.example";
  {  // the group's container replaces Library for that instance only
    helper->configure(S("group.example").get());
    EXPECT_EQ(pathOf(helper->baseURL()), container);
    EXPECT_EQ(pathOf(helper->getApplicationOfflineStorageDir()),
              container + "/File Provider Storage");
    EXPECT_TRUE(isDirectory(container + "/File Provider Storage"));
    EXPECT_EQ(pathOf(NKFileSystemHelper::instanceLegacy()->baseURL()), box.library());
  }
  {  // the group is copied: changing the caller's string later changes nothing
    auto group = make<MutableString>(S("group.other").get());
    helper->setAppGroup(group.get());
    group->append(S(".changed").get());
    EXPECT_EQ(helper->appGroup()->utf8(), "group.other");
  }
  {  // configuring nil goes back to Library
    helper->configure(nullptr);
    EXPECT_EQ(pathOf(helper->baseURL()), box.library());
  }
  {  // paths follow the environment of the moment: nothing is cached
    helper->configure(S("group.example").get());
    ScopedEnv data("XDG_DATA_HOME", box.dir / "data2");
    EXPECT_EQ(pathOf(helper->baseURL()), box.dir / "data2/group-containers/group.example");
  }
}

TEST(StorageRoots, GroupWithoutContainer) {
  StorageSandbox box;
  ResetGroups reset;
  auto* helper = NKFileSystemHelper::instanceLegacy();
  // "" counts as a configured group; none of these can name a container.
  for (const char* group : {"", "a/b", "..", "bad\tname"}) {
    helper->configure(S(group).get());
    EXPECT_FALSE(helper->baseURL()) << group;
    EXPECT_FALSE(helper->getApplicationOfflineStorageDir()) << group;
    EXPECT_FALSE(helper->getApplicationOfflineStorageDir(S("Named").get())) << group;
    EXPECT_FALSE(helper->getUserStorageDirForUserID(S("user1").get())) << group;
  }
  EXPECT_FALSE(exists(box.dir / "data")) << "nothing may be created without a container";
}

TEST(StorageRoots, UserStorageURLs) {
  StorageSandbox box;
  ResetGroups reset;
  const std::string providerRoot = box.library() + "/File Provider Storage";
  const std::string legacyRoot = box.library() + "/Private Documents";
  {  // relative mode: the ID alone, relative to the root; the user's folder is not made
    auto url =
        NKFileSystemHelper::instanceFileProvider()->getUserStorageDirForUserID(S("user42").get());
    ASSERT_TRUE(url);
    EXPECT_EQ(url->relativeString()->utf8(), "user42");
    ASSERT_TRUE(url->baseURL());
    EXPECT_EQ(pathOf(url->baseURL()), providerRoot);
    EXPECT_EQ(pathOf(url), providerRoot + "/user42");
    EXPECT_FALSE(exists(providerRoot + "/user42"));
  }
  {  // absolute mode on instanceLegacy
    auto url = NKFileSystemHelper::instanceLegacy()->getUserStorageDirForUserID(S("user42").get());
    ASSERT_TRUE(url);
    EXPECT_FALSE(url->baseURL());
    EXPECT_EQ(pathOf(url), legacyRoot + "/user42");
    EXPECT_FALSE(exists(legacyRoot + "/user42"));
  }
  {  // text that is not a valid URL: nil in relative mode only
    EXPECT_FALSE(
        NKFileSystemHelper::instanceDPLogProvider()->getUserStorageDirForUserID(S("a b").get()));
    EXPECT_EQ(
        pathOf(NKFileSystemHelper::instanceLegacy()->getUserStorageDirForUserID(S("a b").get())),
        legacyRoot + "/a b");
  }
  {  // blank IDs give nil, yet the root is still created
    std::filesystem::remove_all(box.library());
    const Ref<String> blanks[] = {nullptr, S(""), S(" \n\t"), S("\xEF\xBF\xBC ")};
    for (const auto& id : blanks) {
      EXPECT_FALSE(
          NKFileSystemHelper::instanceFPLogProvider()->getUserStorageDirForUserID(id.get()));
    }
    EXPECT_TRUE(isDirectory(box.library() + "/FPLogs"));
  }
}

TEST(ClassFolders, CacheAndDownloads) {
  StorageSandbox box;
  {  // the cache is the application's own folder under XDG_CACHE_HOME, never TMPDIR
    auto cache = NKFileSystemHelper::getNorvikCacheDir();
    EXPECT_EQ(pathOf(cache), box.cacheFolder());
    EXPECT_EQ(cache->absoluteString()->utf8().back(), '/');
  }
  {  // the download folder is computed, not made
    auto download = NKFileSystemHelper::getTempDownloadDir();
    EXPECT_EQ(pathOf(download), box.cacheFolder() + "/download");
    EXPECT_EQ(download->absoluteString()->utf8().back(), '/');
    EXPECT_FALSE(exists(box.cacheFolder() + "/download"));
  }
  {  // the queue folder is made, with the download folder along the way
    auto queue = NKFileSystemHelper::getTempQueueItemDir();
    ASSERT_TRUE(queue);
    EXPECT_EQ(queue->utf8(), box.cacheFolder() + "/download/Queue");
    EXPECT_TRUE(isDirectory(box.cacheFolder() + "/download/Queue"));
  }
  {  // without a home folder there is no cache
    ScopedEnv home("HOME", std::string("relative"));
    ScopedEnv cache("XDG_CACHE_HOME", std::nullopt);
    EXPECT_FALSE(NKFileSystemHelper::getNorvikCacheDir());
    EXPECT_FALSE(NKFileSystemHelper::getTempDownloadDir());
    EXPECT_FALSE(NKFileSystemHelper::getTempQueueItemDir());
  }
}

TEST(ClassFolders, SearchPaths) {
  StorageSandbox box;
  writeFile(box.dir / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"$HOME/Papers\"\n");
  // Library is code 5, Documents code 9 (from user-dirs.dirs); other codes have no folder.
  EXPECT_EQ(pathOf(NKFileSystemHelper::applicationLibraryDirectory()), box.library());
  EXPECT_EQ(pathOf(NKFileSystemHelper::applicationPublicDocumentsDirectory()),
            box.dir / "home/Papers");
  EXPECT_FALSE(NKFileSystemHelper::pathForSearchPath(1));
}

TEST(ClassFolders, LogGetters) {
  StorageSandbox box;
  const std::string logs = box.library() + "/Logs";
  const std::string wrapped = box.documents() + "/VelmontLogs";
  {  // a missing log folder is returned but not created, in both forms
    EXPECT_EQ(NKFileSystemHelper::getNorvikLogsDirForWrappedApp(false)->utf8(), logs);
    EXPECT_EQ(NKFileSystemHelper::getNorvikLogsDirForWrappedApp(true)->utf8(), wrapped);
    EXPECT_FALSE(exists(logs));
    EXPECT_FALSE(exists(wrapped));
  }
  {  // an existing one is returned and kept
    std::filesystem::create_directories(wrapped);
    writeFile(wrapped + "/old.log", "x");
    EXPECT_EQ(NKFileSystemHelper::getNorvikLogsDirForWrappedApp(true)->utf8(), wrapped);
    EXPECT_TRUE(exists(wrapped + "/old.log"));
  }
  {  // the upload folder is created when missing, Library included
    EXPECT_EQ(NKFileSystemHelper::getNorvikLogsToUploadDir()->utf8(),
              box.library() + "/LogsToUpload");
    EXPECT_TRUE(isDirectory(box.library() + "/LogsToUpload"));
  }
  {  // a plain file in its place: creation fails silently, the path is still returned
    std::filesystem::remove_all(box.library() + "/LogsToUpload");
    writeFile(box.library() + "/LogsToUpload", "file");
    EXPECT_EQ(NKFileSystemHelper::getNorvikLogsToUploadDir()->utf8(),
              box.library() + "/LogsToUpload");
    EXPECT_FALSE(isDirectory(box.library() + "/LogsToUpload"));
  }
  {  // no home folder: nil everywhere
    ScopedEnv home("HOME", std::string(""));
    ScopedEnv data("XDG_DATA_HOME", std::nullopt);
    EXPECT_FALSE(NKFileSystemHelper::getNorvikLogsDirForWrappedApp(false));
    EXPECT_FALSE(NKFileSystemHelper::getNorvikLogsDirForWrappedApp(true));
    EXPECT_FALSE(NKFileSystemHelper::getNorvikLogsToUploadDir());
  }
}

TEST(ClassFolders, MainBundleContainesFile) {
  StorageSandbox box;
  writeFile(box.dir / "bundle/Resources/archive.tar.gz", "x");
  writeFile(box.dir / "bundle/Resources/README", "x");
  writeFile(box.dir / "bundle/Resources/en.lproj/Help.html", "x");
  writeFile(box.dir / "library-bundle/Resources/Only.txt", "x");
  ScopedEnv lang("LANGUAGE", std::string("en"));
  EXPECT_TRUE(NKFileSystemHelper::mainBundleContainesFile(S("archive.tar.gz").get()));
  EXPECT_TRUE(NKFileSystemHelper::mainBundleContainesFile(S("README").get()));
  EXPECT_TRUE(NKFileSystemHelper::mainBundleContainesFile(S("Help.html").get()));
  EXPECT_FALSE(NKFileSystemHelper::mainBundleContainesFile(S("archive.tar").get()));
  EXPECT_FALSE(NKFileSystemHelper::mainBundleContainesFile(S("README.md").get()));
  EXPECT_FALSE(NKFileSystemHelper::mainBundleContainesFile(S("Only.txt").get()));
  EXPECT_FALSE(NKFileSystemHelper::mainBundleContainesFile(S("").get()));
  EXPECT_FALSE(NKFileSystemHelper::mainBundleContainesFile(nullptr));
}

}  // namespace
}  // namespace nk
