// Tests of NKFileSystemHelper's upkeep: creation, cache clearing and its notifications,
// deletion with retries, the sweep's shared attempt budget, links that must not be
// followed, the private temporary folder, backup marks and the walk.
#include "nk/storage/file_system_helper.hpp"

#include <gtest/gtest.h>
#include <sys/xattr.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "nk/dispatch/main_thread.hpp"
#include "nk/dispatch/run_loop.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/log.hpp"
#include "nk/foundation/number.hpp"
#include "nk/storage/storage_test_support_internal.hpp"
#include "nk/system/file_manager.hpp"
#include "nk/system/notification_center.hpp"

namespace nk {
namespace {

using namespace std::chrono_literals;
using test::directoryURL;
using test::exists;
using test::isDirectory;
using test::RemovalFaults;
using test::S;
using test::ScopedEnv;
using test::StorageSandbox;
using test::UndeletableFolder;
using test::writeFile;

namespace fs = std::filesystem;
using FSH = NKFileSystemHelper;

// Runs what is already queued on the main loop.
void drainMainLoop() {
  while (RunLoop::main().runOnce(false)) {
  }
}

// What one cache notification carried.
struct Heard {
  std::string name;
  std::string path;
  std::optional<bool> success;
  bool onMainThread;
};

// Listens for both cache notifications on the default centre; waitFor runs the main loop.
class CacheNotifications {
 public:
  CacheNotifications() {
    drainMainLoop();  // deliveries left over from earlier tests must not reach this listener
    for (String* name : {kUtilsCacheDirectoryWillClearNotification(),
                         kUtilsCacheDirectoryDidClearNotification()}) {
      tokens_.push_back(NotificationCenter::defaultCenter()->addObserver(
          name, nullptr, [this](const Notification* note) { record(note); }));
    }
  }
  ~CacheNotifications() {
    for (const auto& token : tokens_)
      NotificationCenter::defaultCenter()->removeObserver(token.get());
  }

  bool waitFor(size_t count, std::chrono::milliseconds patience = 5s) {
    return RunLoop::main().runUntil([&] { return heard.size() >= count; }, patience);
  }

  std::vector<Heard> heard;

 private:
  void record(const Notification* note) {
    Heard h{note->name()->utf8(), "", std::nullopt, isMainThread()};
    if (auto path = cast<String>(note->userInfo()->objectForKey(kUtilsCacheDirectoryClearPath()))) {
      h.path = path->utf8();
    }
    if (auto success =
            cast<Number>(note->userInfo()->objectForKey(kUtilsCacheDirectoryClearSuccess()))) {
      h.success = success->boolValue();
    }
    heard.push_back(std::move(h));
  }
  std::vector<Id> tokens_;
};

// Waits for the pair of notices one clearing posts, and checks them.
void expectClearPair(CacheNotifications& notes, const std::string& path, bool success) {
  ASSERT_TRUE(notes.waitFor(2));
  const std::vector<Heard>& heard = notes.heard;
  ASSERT_EQ(heard.size(), 2u);
  EXPECT_EQ(heard[0].name, "CacheDirectoryWillClear");
  EXPECT_EQ(heard[0].path, path);
  EXPECT_FALSE(heard[0].success.has_value());
  EXPECT_EQ(heard[1].name, "CacheDirectoryDidClear");
  EXPECT_EQ(heard[1].path, path);
  EXPECT_EQ(heard[1].success, std::optional<bool>(success));
  EXPECT_TRUE(heard[0].onMainThread && heard[1].onMainThread);
}

bool deleteAll(const std::string& folder, uint64_t maxRetryCount) {
  return FSH::deleteAllFilesInDirectoryWithFullPathAndMaxRetryCount(directoryURL(folder).get(),
                                                                    maxRetryCount);
}

size_t entryCount(const std::string& folder) {
  return static_cast<size_t>(std::distance(fs::directory_iterator(folder), {}));
}

// A small tree: files (one hidden), a nested folder with files.
void plantTree(const std::string& folder) {
  writeFile(folder + "/a.bin", "a");
  writeFile(folder + "/.hidden", "h");
  writeFile(folder + "/nested/deeper/b.bin", "b");
}

TEST(Creation, Folders) {
  StorageSandbox box;
  // With parents; an existing folder is success; a file in the way is not.
  EXPECT_FALSE(FSH::createFolderWithFullPath(nullptr));
  EXPECT_TRUE(FSH::createFolderWithFullPath(directoryURL(box.dir / "x/y/z").get()));
  EXPECT_TRUE(isDirectory(box.dir / "x/y/z"));
  EXPECT_TRUE(FSH::createFolderWithFullPath(directoryURL(box.dir / "x/y").get()));
  writeFile(box.dir / "file", "f");
  EXPECT_FALSE(FSH::createFolderWithFullPath(directoryURL(box.dir / "file").get()));
  // createDirectoryIfNeededAtPath: made, found, or blocked by a file.
  EXPECT_TRUE(FSH::createDirectoryIfNeededAtPath(S("new").get(), S(box.dir.path()).get()));
  EXPECT_TRUE(isDirectory(box.dir / "new"));
  EXPECT_TRUE(FSH::createDirectoryIfNeededAtPath(S("new").get(), S(box.dir.path()).get()));
  EXPECT_FALSE(FSH::createDirectoryIfNeededAtPath(S("file").get(), S(box.dir.path()).get()));
  EXPECT_FALSE(FSH::createDirectoryIfNeededAtPath(S("n").get(), nullptr));
  // The cache subfolders: nothing without the flag.
  EXPECT_TRUE(FSH::createNorvikCacheDir(false));
  EXPECT_FALSE(exists(box.cacheFolder() + "/images"));
  EXPECT_FALSE(exists(box.cacheFolder() + "/download"));
  // With it, a plain file named "images" counts as done.
  writeFile(box.cacheFolder() + "/images", "not a folder");
  EXPECT_TRUE(FSH::createNorvikCacheDir(true));
  EXPECT_FALSE(isDirectory(box.cacheFolder() + "/images"));
  EXPECT_TRUE(isDirectory(box.cacheFolder() + "/download"));
}

TEST(CacheClearing, NotificationsOnTheMainQueue) {
  StorageSandbox box;
  const std::string download = box.cacheFolder() + "/download";
  {  // clearing the download folder: entries go, the folder stays, notices come afterwards
    CacheNotifications notes;
    plantTree(download);
    writeFile(box.cacheFolder() + "/keep.bin", "k");
    EXPECT_TRUE(FSH::clearTempDownloadDir());
    EXPECT_TRUE(notes.heard.empty()) << "posted before the clearing returned";
    EXPECT_TRUE(isDirectory(download));
    EXPECT_EQ(entryCount(download), 0u);
    EXPECT_TRUE(exists(box.cacheFolder() + "/keep.bin"));
    expectClearPair(notes, download, true);
  }
  // Nil, "" and the names of the cache itself clear the cache.
  for (const Ref<String>& sub : {Ref<String>(), S(""), S("."), S("/"), S("./")}) {
    CacheNotifications notes;
    plantTree(box.cacheFolder());
    EXPECT_TRUE(FSH::clearCacheDirWithSubdirectory(sub.get()));
    EXPECT_EQ(entryCount(box.cacheFolder()), 0u) << (sub ? sub->utf8() : "nil");
    expectClearPair(notes, box.cacheFolder(), true);
  }
  {  // a missing download folder: both notices, success
    CacheNotifications notes;
    EXPECT_TRUE(FSH::clearTempDownloadDir());
    expectClearPair(notes, download, true);
  }
  {  // cleared from another thread: still delivered on the main thread, in order
    CacheNotifications notes;
    plantTree(download);
    bool result = false;
    std::thread([&] { result = FSH::clearTempDownloadDir(); }).join();
    EXPECT_TRUE(result);
    expectClearPair(notes, download, true);
  }
  {  // no cache folder at all: false and nothing posted
    CacheNotifications notes;
    ScopedEnv home("HOME", std::string("relative"));
    ScopedEnv cache("XDG_CACHE_HOME", std::nullopt);
    EXPECT_FALSE(FSH::clearNorvikCacheDir());
    EXPECT_FALSE(notes.waitFor(1, 100ms));
  }
}

TEST(CacheClearing, UndeletableEntry) {
  StorageSandbox box;
  const std::string download = box.cacheFolder() + "/download";
  {  // one failing entry: the others still go; false in the result and the notice
    CacheNotifications notes;
    RemovalFaults faults;
    writeFile(download + "/a", "a");
    writeFile(download + "/b", "b");
    writeFile(download + "/c/d", "d");
    faults.fail(download + "/b");
    EXPECT_FALSE(FSH::clearTempDownloadDir());
    EXPECT_EQ(faults.attempts(download + "/b"), 1);
    EXPECT_TRUE(exists(download + "/b"));
    EXPECT_FALSE(exists(download + "/a"));
    EXPECT_FALSE(exists(download + "/c"));
    expectClearPair(notes, download, false);
  }
  {  // the same with an entry the file system itself refuses to remove
    CacheNotifications notes;
    writeFile(download + "/x", "x");
    UndeletableFolder locked(download + "/locked");
    if (!locked.available()) GTEST_SKIP() << "cannot make an undeletable entry here";
    EXPECT_FALSE(FSH::clearTempDownloadDir());
    EXPECT_TRUE(locked.stillThere());
    EXPECT_FALSE(exists(download + "/x"));
    expectClearPair(notes, download, false);
  }
}

TEST(CacheClearing, LogsToUpload) {
  StorageSandbox box;
  const std::string upload = box.library() + "/LogsToUpload";
  // Missing: created, nothing to remove.
  EXPECT_TRUE(FSH::clearNorvikLogsToUploadDir());
  EXPECT_TRUE(isDirectory(upload));
  // Entries removed, folder kept.
  plantTree(upload);
  EXPECT_TRUE(FSH::clearNorvikLogsToUploadDir());
  EXPECT_EQ(entryCount(upload), 0u);
  {  // one failing entry: false, the rest removed
    RemovalFaults faults;
    plantTree(upload);
    faults.fail(upload + "/a.bin");
    EXPECT_FALSE(FSH::clearNorvikLogsToUploadDir());
    EXPECT_EQ(faults.attempts(upload + "/a.bin"), 1);
    EXPECT_EQ(entryCount(upload), 1u);
  }
}

TEST(DeleteAllFiles, RetryArithmetic) {
  StorageSandbox box;
  const std::string folder = box.dir / "work";
  // Everything goes, hidden entries and subfolders included; the folder stays.
  plantTree(folder);
  EXPECT_TRUE(deleteAll(folder, 3));
  EXPECT_TRUE(isDirectory(folder));
  EXPECT_EQ(entryCount(folder), 0u);
  EXPECT_TRUE(deleteAll(folder, 3)) << "an empty folder";
  {  // first attempt fails, second succeeds: three attempts in all, still a failure
    RemovalFaults faults;
    plantTree(folder);
    faults.fail(folder + "/a.bin", 1);
    EXPECT_FALSE(deleteAll(folder, 3));
    EXPECT_EQ(faults.attempts(folder + "/a.bin"), 3);
    EXPECT_EQ(entryCount(folder), 0u);
  }
  // 0 and 1 mean one attempt; N attempts for a permanent failure; later entries go.
  for (uint64_t n : {0u, 1u, 5u}) {
    RemovalFaults faults;
    plantTree(folder);
    faults.fail(folder + "/.hidden");
    EXPECT_FALSE(deleteAll(folder, n));
    EXPECT_EQ(faults.attempts(folder + "/.hidden"), n < 2 ? 1 : static_cast<int>(n)) << n;
    EXPECT_FALSE(exists(folder + "/a.bin")) << n;
    EXPECT_FALSE(exists(folder + "/nested")) << n;
    fs::remove_all(folder);
  }
  {  // not a folder, missing, nil: false; the listing error is logged
    std::vector<std::string> lines;
    LogSink previous = setLogSink([&](std::string_view line) { lines.emplace_back(line); });
    writeFile(box.dir / "plain", "p");
    EXPECT_FALSE(deleteAll(box.dir / "plain", 2));
    EXPECT_FALSE(deleteAll(box.dir / "missing", 2));
    EXPECT_FALSE(FSH::deleteAllFilesInDirectoryWithFullPathAndMaxRetryCount(nullptr, 2));
    setLogSink(previous);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("Error Domain=NSCocoaErrorDomain"), std::string::npos) << lines[0];
    EXPECT_TRUE(exists(box.dir / "plain"));
  }
}

TEST(TempDirSweep, SharedAttemptBudget) {
  StorageSandbox box;
  const std::string temp = box.cacheFolder();
  {  // two undeletable entries: five attempts for the first, one for the second
    RemovalFaults faults;
    for (const char* name : {"a", "b", "c"}) writeFile(temp + "/" + name, name);
    faults.fail(temp + "/a");
    faults.fail(temp + "/b");
    FSH::deleteTempDir();
    EXPECT_EQ(faults.attempts(temp + "/a"), 5);
    EXPECT_EQ(faults.attempts(temp + "/b"), 1);
    EXPECT_EQ(faults.attempts(temp + "/c"), 1);
    EXPECT_FALSE(exists(temp + "/c"));
  }
  {  // the counter is shared, not reset per entry: a's two failures leave b three attempts
    RemovalFaults faults;
    for (const char* name : {"a", "b"}) writeFile(temp + "/" + name, name);
    faults.fail(temp + "/a", 2);
    faults.fail(temp + "/b");
    FSH::deleteTempDir();
    EXPECT_EQ(faults.attempts(temp + "/a"), 3);
    EXPECT_FALSE(exists(temp + "/a"));
    EXPECT_EQ(faults.attempts(temp + "/b"), 3);
    fs::remove(temp + "/b");
  }
  {  // a raised platform exception counts as a failed attempt; the sweep goes on
    RemovalFaults faults;
    plantTree(temp);
    faults.fail(temp + "/a.bin", 1 << 30, /*raise=*/true);
    FSH::deleteTempDir();
    EXPECT_EQ(faults.attempts(temp + "/a.bin"), 5);
    EXPECT_EQ(entryCount(temp), 1u);
    fs::remove(temp + "/a.bin");
  }
  // Other C++ exceptions pass through.
  setRemovalFaultHookForTesting([](const std::string&) -> int { throw std::runtime_error("x"); });
  writeFile(temp + "/a", "a");
  EXPECT_THROW(FSH::deleteTempDir(), std::runtime_error);
  setRemovalFaultHookForTesting(nullptr);
  {  // a real undeletable entry does not stop the others
    writeFile(temp + "/z", "z");
    UndeletableFolder locked(temp + "/locked");
    if (!locked.available()) GTEST_SKIP() << "cannot make an undeletable entry here";
    FSH::deleteTempDir();
    EXPECT_TRUE(locked.stillThere());
    EXPECT_FALSE(exists(temp + "/z"));
  }
}

// Links from every folder the operations empty to a folder outside, which must survive.
TEST(Safety, LinksAreRemovedNeverFollowed) {
  StorageSandbox box;
  const std::string outside = box.dir / "outside";
  plantTree(outside);
  auto outsideIntact = [&] {
    return exists(outside + "/a.bin") && exists(outside + "/.hidden") &&
           exists(outside + "/nested/deeper/b.bin");
  };
  auto plantLinks = [&](const std::string& folder) {
    fs::create_directories(folder + "/sub");
    fs::create_directory_symlink(outside, folder + "/to-folder");
    fs::create_symlink(outside + "/a.bin", folder + "/to-file");
    fs::create_directory_symlink(outside + "/nested", folder + "/sub/to-nested");
  };
  auto linksGone = [&](const std::string& folder) {
    return !exists(folder + "/to-folder") && !exists(folder + "/to-file") &&
           !exists(folder + "/sub");
  };
  const std::string download = box.cacheFolder() + "/download";
  // Clearing a subfolder and the whole cache.
  plantLinks(download);
  EXPECT_TRUE(FSH::clearTempDownloadDir());
  EXPECT_TRUE(linksGone(download));
  EXPECT_TRUE(outsideIntact());
  plantLinks(box.cacheFolder());
  EXPECT_TRUE(FSH::clearNorvikCacheDir());
  EXPECT_TRUE(linksGone(box.cacheFolder()));
  EXPECT_TRUE(outsideIntact());
  {  // the sweep
    plantLinks(box.cacheFolder());
    FSH::deleteTempDir();
    EXPECT_TRUE(linksGone(box.cacheFolder()));
    EXPECT_TRUE(outsideIntact());
  }
  // Deletion with retries and the upload folder.
  plantLinks(box.dir / "work");
  EXPECT_TRUE(deleteAll(box.dir / "work", 3));
  EXPECT_TRUE(linksGone(box.dir / "work"));
  plantLinks(box.library() + "/LogsToUpload");
  EXPECT_TRUE(FSH::clearNorvikLogsToUploadDir());
  EXPECT_TRUE(linksGone(box.library() + "/LogsToUpload"));
  EXPECT_TRUE(outsideIntact());
  // A link in place of the download or upload folder leads nowhere.
  fs::create_directories(box.cacheFolder());
  fs::create_directory_symlink(outside, download);
  EXPECT_TRUE(FSH::clearTempDownloadDir());
  fs::remove_all(box.library() + "/LogsToUpload");
  fs::create_directory_symlink(outside, box.library() + "/LogsToUpload");
  EXPECT_TRUE(FSH::clearNorvikLogsToUploadDir());
  EXPECT_TRUE(outsideIntact());
  // Nor does a link in the middle of a subfolder's path.
  EXPECT_TRUE(FSH::clearCacheDirWithSubdirectory(S("download/nested").get()));
  EXPECT_TRUE(outsideIntact());
  {  // a "subfolder" that climbs out of the cache is refused, and nothing is removed
    fs::remove(download);
    const std::string sibling = box.cacheFolder() + "/../sibling";
    plantTree(sibling);
    plantTree(box.cacheFolder() + "/kept");
    for (const char* name : {"..", "../sibling", "kept/../..", "kept/.."}) {
      EXPECT_FALSE(FSH::clearCacheDirWithSubdirectory(String::fromUTF8(name).get())) << name;
    }
    // Nor does a name that reads as ".." up to a NUL in it.
    FSH::clearCacheDirWithSubdirectory(String::fromUTF8(std::string("..\0x", 4)).get());
    EXPECT_TRUE(exists(sibling + "/a.bin"));
    EXPECT_TRUE(exists(box.cacheFolder() + "/kept/a.bin"));
  }
  drainMainLoop();
}

TEST(CacheClearing, SpellingsOfASubfolder) {
  StorageSandbox box;
  const std::string nested = box.cacheFolder() + "/download/nested";
  for (const char* name : {"download/", "./download", "/download", "download//nested/."}) {
    CacheNotifications notes;
    plantTree(nested);
    writeFile(box.cacheFolder() + "/keep.bin", "k");
    EXPECT_TRUE(FSH::clearCacheDirWithSubdirectory(S(name).get())) << name;
    EXPECT_TRUE(exists(box.cacheFolder() + "/keep.bin")) << name;
    const bool wholeDownload = std::string_view(name).find("nested") == std::string_view::npos;
    EXPECT_EQ(exists(nested), !wholeDownload) << name;
    EXPECT_EQ(entryCount(wholeDownload ? box.cacheFolder() + "/download" : nested), 0u) << name;
    expectClearPair(notes, wholeDownload ? box.cacheFolder() + "/download" : nested, true);
  }
}

// Names that are not UTF-8 have no String or URL that leads back to them.
TEST(Safety, NamesThatAreNotUTF8) {
  StorageSandbox box;
  const std::string name = "caf\xe9.txt";
  const std::string work = box.dir / "work";
  writeFile(work + "/" + name, "x");
  writeFile(work + "/sub/" + name, "x");
  EXPECT_TRUE(deleteAll(work, 3));
  EXPECT_EQ(entryCount(work), 0u);
  writeFile(box.cacheFolder() + "/" + name, "x");
  writeFile(box.cacheFolder() + "/download/" + name, "x");
  EXPECT_TRUE(FSH::clearTempDownloadDir());
  EXPECT_EQ(entryCount(box.cacheFolder() + "/download"), 0u);
  EXPECT_TRUE(FSH::clearNorvikCacheDir());
  EXPECT_EQ(entryCount(box.cacheFolder()), 0u);
  writeFile(box.library() + "/LogsToUpload/" + name, "x");
  EXPECT_TRUE(FSH::clearNorvikLogsToUploadDir());
  EXPECT_EQ(entryCount(box.library() + "/LogsToUpload"), 0u);
  writeFile(box.cacheFolder() + "/" + name, "x");
  FSH::deleteTempDir();
  EXPECT_EQ(entryCount(box.cacheFolder()), 0u);
  drainMainLoop();
}

TEST(Safety, TemporaryFolderIsPrivate) {
  StorageSandbox box;
  // TMPDIR and XDG_CACHE_HOME both point at test folders; only the latter may be touched.
  writeFile(box.dir / "tmp/shared.bin", "s");
  writeFile(box.dir / "cache/other-app/file", "o");
  EXPECT_EQ(FSH::getNorvikCacheDir()->path()->utf8(), box.cacheFolder());
  plantTree(box.cacheFolder());
  EXPECT_TRUE(FSH::clearNorvikCacheDir());
  plantTree(box.cacheFolder());
  FSH::deleteTempDir();
  EXPECT_EQ(entryCount(box.cacheFolder()), 0u);
  EXPECT_TRUE(exists(box.dir / "tmp/shared.bin"));
  EXPECT_TRUE(exists(box.dir / "cache/other-app/file"));
  EXPECT_EQ(fs::status(box.cacheFolder()).permissions() & fs::perms::all, fs::perms::owner_all);
  drainMainLoop();
}

TEST(BackupMark, ReadBack) {
  StorageSandbox box;
  const std::string file = box.dir / "store.sqlite";
  writeFile(file, "db");
  if (::setxattr(file.c_str(), "user.nk-probe", "1", 1, 0) != 0) {
    GTEST_SKIP() << "the file system keeps no user extended attributes";
  }
  auto marked = [](const URL* url) {
    Id value;
    return getResourceValue(url, &value, kURLIsExcludedFromBackupKey(), nullptr) &&
           cast<Number>(value) && cast<Number>(value)->boolValue();
  };
  auto url = URL::fileURLWithPath(file, false);
  {  // the setters mark an existing file or folder
    EXPECT_FALSE(marked(url.get()));
    EXPECT_TRUE(FSH::setFilePropertiesForCDPersistentStoreWithPath(url.get()));
    EXPECT_TRUE(marked(url.get()));
    auto folder = directoryURL(box.dir / "tmp");
    EXPECT_TRUE(FSH::setSkipBackupAttribOfFileWithURL(folder.get()));
    EXPECT_TRUE(marked(folder.get()));
  }
  {  // a missing file: false, and nothing is created
    auto missing = URL::fileURLWithPath(box.dir / "missing.bin", false);
    EXPECT_FALSE(FSH::setFilePropertiesAfterSuccessfulDownloadWithPath(missing.get()));
    EXPECT_FALSE(FSH::setFilePropertiesForCDPersistentStoreWithPath(missing.get()));
    EXPECT_FALSE(FSH::setSkipBackupAttribOfFileWithURL(missing.get()));
    EXPECT_FALSE(exists(box.dir / "missing.bin"));
  }
}

TEST(Enumerate, PureWalkThatEnds) {
  StorageSandbox box;
  const std::string root = box.dir / "walk";
  plantTree(root);
  writeFile(root + "/nested/deeper/deepest/c.bin", "c");
  // Two links back to the root: followed, each level would double the walks for ever.
  fs::create_directory_symlink(root, root + "/nested/up");
  fs::create_directory_symlink(root, root + "/nested/deeper/up");
  // A deep chain: walks started from every folder met, rather than from those directly
  // inside the one being walked, would take 2^39 walks of its bottom.
  std::string chain = root;
  for (int depth = 0; depth < 40; ++depth) chain += "/d";
  fs::create_directories(chain);
  auto snapshot = [&] {
    std::vector<std::string> items;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
      items.push_back(entry.path().string());
    }
    std::sort(items.begin(), items.end());
    return items;
  };
  const auto before = snapshot();
  FSH::enumerate(directoryURL(root).get());
  FSH::enumerate(nullptr);
  EXPECT_EQ(snapshot(), before);
}

}  // namespace
}  // namespace nk
