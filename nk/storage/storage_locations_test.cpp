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
using FSH = NKFileSystemHelper;

// Puts the shared instances back on the Library base whatever the test configured.
struct ResetGroups {
  ~ResetGroups() {
    for (auto* helper : {FSH::instanceLegacy(), FSH::instanceFileProvider(),
                         FSH::instanceDPLogProvider(), FSH::instanceFPLogProvider()}) {
      helper->configure(nullptr);
    }
  }
};

// A fresh sandbox, and the shared instances left unconfigured afterwards.
class StorageRoots : public ::testing::Test {
 protected:
  StorageSandbox box;
  ResetGroups reset;
};

std::string pathOf(const Ref<URL>& url) { return url ? url->path()->utf8() : "<nil>"; }

TEST_F(StorageRoots, LibraryBaseWithoutGroup) {
  // The base is Library, and asking for it creates nothing.
  EXPECT_EQ(pathOf(FSH::instanceFileProvider()->baseURL()), box.library());
  EXPECT_FALSE(exists(box.library()));
  {  // each instance's root: a directory URL, created with its parents
    const std::pair<FSH*, const char*> roots[] = {
        {FSH::instanceLegacy(), "Private Documents"},
        {FSH::instanceFileProvider(), "File Provider Storage"},
        {FSH::instanceDPLogProvider(), "DPLogs"},
        {FSH::instanceFPLogProvider(), "FPLogs"}};
    for (const auto& [helper, folder] : roots) {
      auto url = helper->getApplicationOfflineStorageDir();
      ASSERT_TRUE(url) << folder;
      EXPECT_EQ(pathOf(url), box.library() + "/" + folder);
      EXPECT_EQ(url->absoluteString()->utf8().back(), '/') << folder;
      EXPECT_TRUE(isDirectory(box.library() + "/" + folder)) << folder;
    }
  }
  {  // a named folder beside the root
    auto url = FSH::instanceLegacy()->getApplicationOfflineStorageDir(S("Extra").get());
    EXPECT_EQ(pathOf(url), box.library() + "/Extra");
    EXPECT_TRUE(isDirectory(box.library() + "/Extra"));
  }
}

TEST_F(StorageRoots, ConfiguredGroup) {
  auto* helper = FSH::instanceFileProvider();
  const std::string container = box.dir / "data/group-containers/group.example";
  // The group's container replaces Library for that instance only.
  helper->configure(S("group.example").get());
  EXPECT_EQ(pathOf(helper->baseURL()), container);
  EXPECT_EQ(pathOf(helper->getApplicationOfflineStorageDir()),
            container + "/File Provider Storage");
  EXPECT_TRUE(isDirectory(container + "/File Provider Storage"));
  EXPECT_EQ(pathOf(FSH::instanceLegacy()->baseURL()), box.library());
  {  // the group is copied: changing the caller's string later changes nothing
    auto group = make<MutableString>(S("group.other").get());
    helper->setAppGroup(group.get());
    group->append(S(".changed").get());
    EXPECT_EQ(helper->appGroup()->utf8(), "group.other");
  }
  // Configuring nil goes back to Library.
  helper->configure(nullptr);
  EXPECT_EQ(pathOf(helper->baseURL()), box.library());
  {  // paths follow the environment of the moment: nothing is cached
    helper->configure(S("group.example").get());
    ScopedEnv data("XDG_DATA_HOME", box.dir / "data2");
    EXPECT_EQ(pathOf(helper->baseURL()), box.dir / "data2/group-containers/group.example");
  }
}

TEST_F(StorageRoots, GroupWithoutContainer) {
  auto* helper = FSH::instanceLegacy();
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

TEST_F(StorageRoots, UserStorageURLs) {
  const std::string providerRoot = box.library() + "/File Provider Storage";
  const std::string legacyRoot = box.library() + "/Private Documents";
  {  // relative mode: the ID alone, relative to the root; the user's folder is not made
    auto url = FSH::instanceFileProvider()->getUserStorageDirForUserID(S("user42").get());
    ASSERT_TRUE(url);
    EXPECT_EQ(url->relativeString()->utf8(), "user42");
    ASSERT_TRUE(url->baseURL());
    EXPECT_EQ(pathOf(url->baseURL()), providerRoot);
    EXPECT_EQ(pathOf(url), providerRoot + "/user42");
    EXPECT_FALSE(exists(providerRoot + "/user42"));
  }
  {  // absolute mode on instanceLegacy
    auto url = FSH::instanceLegacy()->getUserStorageDirForUserID(S("user42").get());
    ASSERT_TRUE(url);
    EXPECT_FALSE(url->baseURL());
    EXPECT_EQ(pathOf(url), legacyRoot + "/user42");
    EXPECT_FALSE(exists(legacyRoot + "/user42"));
  }
  // Text that is not a valid URL: nil in relative mode only.
  EXPECT_FALSE(FSH::instanceDPLogProvider()->getUserStorageDirForUserID(S("a b").get()));
  EXPECT_EQ(pathOf(FSH::instanceLegacy()->getUserStorageDirForUserID(S("a b").get())),
            legacyRoot + "/a b");
  {  // blank IDs give nil, yet the root is still created
    std::filesystem::remove_all(box.library());
    for (const Ref<String>& id : {Ref<String>(), S(" \n\t")}) {
      EXPECT_FALSE(FSH::instanceFPLogProvider()->getUserStorageDirForUserID(id.get()));
    }
    EXPECT_TRUE(isDirectory(box.library() + "/FPLogs"));
  }
}

class ClassFolders : public ::testing::Test {
 protected:
  StorageSandbox box;
};

TEST_F(ClassFolders, CacheAndDownloads) {
  {  // the cache is the application's own folder under XDG_CACHE_HOME, never TMPDIR
    auto cache = FSH::getNorvikCacheDir();
    EXPECT_EQ(pathOf(cache), box.cacheFolder());
    EXPECT_EQ(cache->absoluteString()->utf8().back(), '/');
  }
  {  // the download folder is computed, not made
    auto download = FSH::getTempDownloadDir();
    EXPECT_EQ(pathOf(download), box.cacheFolder() + "/download");
    EXPECT_EQ(download->absoluteString()->utf8().back(), '/');
    EXPECT_FALSE(exists(box.cacheFolder() + "/download"));
  }
  {  // the queue folder is made, with the download folder along the way
    auto queue = FSH::getTempQueueItemDir();
    ASSERT_TRUE(queue);
    EXPECT_EQ(queue->utf8(), box.cacheFolder() + "/download/Queue");
    EXPECT_TRUE(isDirectory(box.cacheFolder() + "/download/Queue"));
  }
  {  // without a home folder there is no cache
    ScopedEnv home("HOME", std::string("relative"));
    ScopedEnv cache("XDG_CACHE_HOME", std::nullopt);
    EXPECT_FALSE(FSH::getNorvikCacheDir());
    EXPECT_FALSE(FSH::getTempDownloadDir());
    EXPECT_FALSE(FSH::getTempQueueItemDir());
  }
}

TEST_F(ClassFolders, SearchPaths) {
  writeFile(box.dir / "config/user-dirs.dirs", "XDG_DOCUMENTS_DIR=\"$HOME/Papers\"\n");
  // Library is code 5, Documents code 9 (from user-dirs.dirs); other codes have no folder.
  EXPECT_EQ(pathOf(FSH::applicationLibraryDirectory()), box.library());
  EXPECT_EQ(pathOf(FSH::applicationPublicDocumentsDirectory()), box.dir / "home/Papers");
  EXPECT_FALSE(FSH::pathForSearchPath(1));
}

TEST_F(ClassFolders, LogGetters) {
  const std::string logs = box.library() + "/Logs";
  const std::string wrapped = box.documents() + "/VelmontLogs";
  // A missing log folder is returned but not created, in both forms.
  EXPECT_EQ(FSH::getNorvikLogsDirForWrappedApp(false)->utf8(), logs);
  EXPECT_EQ(FSH::getNorvikLogsDirForWrappedApp(true)->utf8(), wrapped);
  EXPECT_FALSE(exists(logs));
  EXPECT_FALSE(exists(wrapped));
  {  // an existing one is returned and kept
    std::filesystem::create_directories(wrapped);
    writeFile(wrapped + "/old.log", "x");
    EXPECT_EQ(FSH::getNorvikLogsDirForWrappedApp(true)->utf8(), wrapped);
    EXPECT_TRUE(exists(wrapped + "/old.log"));
  }
  // The upload folder is created when missing, Library included.
  EXPECT_EQ(FSH::getNorvikLogsToUploadDir()->utf8(), box.library() + "/LogsToUpload");
  EXPECT_TRUE(isDirectory(box.library() + "/LogsToUpload"));
  {  // a plain file in its place: creation fails silently, the path is still returned
    std::filesystem::remove_all(box.library() + "/LogsToUpload");
    writeFile(box.library() + "/LogsToUpload", "file");
    EXPECT_EQ(FSH::getNorvikLogsToUploadDir()->utf8(), box.library() + "/LogsToUpload");
    EXPECT_FALSE(isDirectory(box.library() + "/LogsToUpload"));
  }
  {  // no home folder: nil everywhere
    ScopedEnv home("HOME", std::string(""));
    ScopedEnv data("XDG_DATA_HOME", std::nullopt);
    EXPECT_FALSE(FSH::getNorvikLogsDirForWrappedApp(false));
    EXPECT_FALSE(FSH::getNorvikLogsDirForWrappedApp(true));
    EXPECT_FALSE(FSH::getNorvikLogsToUploadDir());
  }
}

TEST_F(ClassFolders, MainBundleContainesFile) {
  writeFile(box.dir / "bundle/Resources/archive.tar.gz", "x");
  writeFile(box.dir / "bundle/Resources/README", "x");
  writeFile(box.dir / "bundle/Resources/en.lproj/Help.html", "x");
  writeFile(box.dir / "library-bundle/Resources/Only.txt", "x");
  ScopedEnv lang("LANGUAGE", std::string("en"));
  // Split at the last extension; localised resources count; the library's bundle does not.
  for (const char* name : {"archive.tar.gz", "README", "Help.html"}) {
    EXPECT_TRUE(FSH::mainBundleContainesFile(S(name).get())) << name;
  }
  for (const char* name : {"archive.tar", "README.md", "Only.txt"}) {
    EXPECT_FALSE(FSH::mainBundleContainesFile(S(name).get())) << name;
  }
  EXPECT_FALSE(FSH::mainBundleContainesFile(nullptr));
}

}  // namespace
}  // namespace nk
