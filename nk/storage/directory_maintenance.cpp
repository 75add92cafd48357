// NKFileSystemHelper's upkeep of the storage folders: creation, clearing with the cache
// notifications, deletion with retries, the sweep of the temporary folder, the walk and
// the backup mark. Everything runs on the caller's thread; only the notifications go to
// the main queue.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "nk/dispatch/queue.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/log.hpp"
#include "nk/foundation/number.hpp"
#include "nk/storage/file_system_helper.hpp"
#include "nk/storage/path_components_internal.hpp"
#include "nk/system/file_manager.hpp"
#include "nk/system/file_manager_internal.hpp"
#include "nk/system/notification_center.hpp"

namespace nk {

String* kUtilsCacheDirectoryWillClearNotification() noexcept {
  return NK_STR("CacheDirectoryWillClear");
}
String* kUtilsCacheDirectoryDidClearNotification() noexcept {
  return NK_STR("CacheDirectoryDidClear");
}
String* kUtilsCacheDirectoryClearPath() noexcept { return NK_STR("Path"); }
String* kUtilsCacheDirectoryClearSuccess() noexcept { return NK_STR("Success"); }

namespace {

using storage_internal::appendingPathComponent;

FileManager* files() { return FileManager::defaultManager(); }

Ref<String> pathOf(const URL* url) { return url ? url->path() : nullptr; }

using file_internal::Fd;
using file_internal::joinPath;
using file_internal::openFolderAt;
using file_internal::readNames;
using file_internal::removeItemAt;

// Appends the components of a folder path below the cache, leaving out the empty and "."
// ones: "download/", "./download" and "download" name the same folder, "." and "/" the
// cache itself. False for a path that climbs out with "..".
bool innerComponents(std::string_view path, std::vector<std::string>& components) {
  for (;;) {
    const size_t slash = path.find('/');
    const std::string_view component = path.substr(0, slash);
    if (component == "..") return false;
    if (!component.empty() && component != ".") components.emplace_back(component);
    if (slash == std::string_view::npos) return true;
    path.remove_prefix(slash + 1);
  }
}

bool isSymbolicLink(const String* path) {
  Ref<Dictionary> attributes = files()->attributesOfItemAtPath(path, nullptr);
  return attributes &&
         isEqual(attributes->objectForKey(kFileTypeKey()).get(), kFileTypeSymbolicLink());
}

void postOnMainQueue(Ref<String> name, Ref<Dictionary> userInfo) {
  Queue::main().async([name = std::move(name), userInfo = std::move(userInfo)] {
    NotificationCenter::defaultCenter()->postNotificationName(name.get(), nullptr, userInfo.get());
  });
}

// Removes every entry of the open folder at `path`, one attempt each, and tells whether all
// went. A folder that cannot be listed has nothing to remove.
bool removeEntries(const Fd& folder, const std::string& path) {
  std::vector<std::string> names;
  if (folder.fd < 0 || !readNames(folder.fd, names)) return true;
  bool removedAll = true;
  std::string failed;
  for (const auto& name : names) {
    removedAll = removeItemAt(folder.fd, name, joinPath(path, name), failed) && removedAll;
  }
  return removedAll;
}

// The backup mark, for an item that exists.
bool markExistingFile(const URL* url) {
  if (!url || !files()->fileExistsAtPath(url->path().get())) return false;
  return NKFileSystemHelper::setSkipBackupAttribOfFileWithURL(url);
}

// The pause after each failed attempt of the sweep.
constexpr useconds_t kSweepRetryPauseMicroseconds = 10;
// The attempt counter at which the sweep stops retrying the first failing entries.
constexpr uint64_t kSweepSharedAttemptLimit = 4;

}  // namespace

bool NKFileSystemHelper::createFolderWithFullPath(const URL* url) {
  if (!url) return false;
  return files()->createDirectoryAtURL(url, true, nullptr, nullptr);
}

bool NKFileSystemHelper::createDirectoryIfNeededAtPath(const String* name, const String* path) {
  Ref<String> folder = appendingPathComponent(path, name);
  if (!folder) return false;
  bool isDirectory = false;
  if (files()->fileExistsAtPath(folder.get(), &isDirectory) && isDirectory) return true;
  return files()->createDirectoryAtPath(folder.get(), true, nullptr, nullptr);
}

bool NKFileSystemHelper::createNorvikCacheDir(bool createSubfolders) {
  if (!createSubfolders) return true;
  Ref<String> cache = NSTemporaryDirectory();
  auto ensure = [&](std::string_view name) {
    Ref<String> path = appendingPathComponent(cache.get(), name);
    if (!path) return false;
    return files()->fileExistsAtPath(path.get()) ||
           files()->createDirectoryAtPath(path.get(), true, nullptr, nullptr);
  };
  const bool images = ensure("images");
  const bool download = ensure("download");
  return images && download;
}

bool NKFileSystemHelper::fileExistsAtPath(const String* path) {
  return files()->fileExistsAtPath(path);
}

bool NKFileSystemHelper::deleteAllFilesInDirectoryWithFullPathAndMaxRetryCount(
    const URL* url, uint64_t maxRetryCount) {
  if (!url) return false;
  Ref<Error> error;
  std::vector<std::string> names;
  Fd folder = file_internal::openFolderListing(url, names, &error);
  if (folder.fd < 0) {
    Log("%@", error.get());
    return false;
  }
  const std::string path = url->path()->utf8();
  bool removedAll = true;
  std::string failed;
  for (const auto& name : names) {
    const std::string entry = joinPath(path, name);
    if (removeItemAt(folder.fd, name, entry, failed)) continue;
    // A later success does not make the entry count as removed.
    removedAll = false;
    for (uint64_t attempt = 1; attempt < maxRetryCount; ++attempt) {
      (void)removeItemAt(folder.fd, name, entry, failed);
    }
  }
  return removedAll;
}

void NKFileSystemHelper::deleteTempDir() {
  Ref<String> temporary = NSTemporaryDirectory();
  if (!temporary) return;
  const std::string path = temporary->utf8();
  Fd folder = openFolderAt(AT_FDCWD, path, true);
  std::vector<std::string> names;
  if (folder.fd < 0 || !readNames(folder.fd, names)) return;
  // One counter for the whole sweep, on purpose: once the first failing entries have used
  // up the shared attempts, every later failing entry gets a single attempt, so a folder
  // full of undeletable entries cannot stall the sweep.
  uint64_t attempts = 0;
  std::string failed;
  for (const auto& name : names) {
    const std::string entry = joinPath(path, name);
    const uint64_t limit =
        attempts > kSweepSharedAttemptLimit ? attempts : kSweepSharedAttemptLimit;
    for (;;) {
      try {
        // Existence through a link, as fileExistsAtPath sees it.
        struct stat st;
        if (::fstatat(folder.fd, name.c_str(), &st, 0) != 0) break;
        if (removeItemAt(folder.fd, name, entry, failed)) break;
      } catch (const ThrownObject&) {
        // Counts as a failed attempt.
      }
      ::usleep(kSweepRetryPauseMicroseconds);
      if (attempts == limit) {
        attempts = limit + 1;
        break;
      }
      ++attempts;
    }
  }
}

bool NKFileSystemHelper::clearTempDownloadDir() {
  return clearCacheDirWithSubdirectory(NK_STR("download"));
}

bool NKFileSystemHelper::clearNorvikCacheDir() { return clearCacheDirWithSubdirectory(nullptr); }

bool NKFileSystemHelper::clearCacheDirWithSubdirectory(const String* subdirectory) {
  // Only the cache and folders inside it are cleared: a name that climbs out is refused
  // before anything is touched.
  std::vector<std::string> components;
  if (subdirectory && subdirectory->length() > 0 &&
      !innerComponents(subdirectory->utf8(), components)) {
    return false;
  }
  Ref<String> cache = pathOf(getNorvikCacheDir().get());
  Ref<String> path = cache;
  for (const auto& component : components) path = appendingPathComponent(path.get(), component);
  if (!path || path->length() == 0) return false;

  postOnMainQueue(kUtilsCacheDirectoryWillClearNotification(),
                  Dictionary::make({{kUtilsCacheDirectoryClearPath(), path}}));
  // Down from the cache one folder at a time, never through a link: a link anywhere on the
  // way would lead the clearing out of the cache. A folder on the way that is missing, a
  // link or no folder leaves nothing to remove.
  Fd folder = openFolderAt(AT_FDCWD, cache->utf8(), true);
  for (const auto& component : components) {
    if (folder.fd < 0) break;
    folder = openFolderAt(folder.fd, component, false);
  }
  const bool success = removeEntries(folder, path->utf8());
  postOnMainQueue(
      kUtilsCacheDirectoryDidClearNotification(),
      Dictionary::make({{kUtilsCacheDirectoryClearPath(), path},
                        {kUtilsCacheDirectoryClearSuccess(), Number::withBool(success)}}));
  return success;
}

bool NKFileSystemHelper::clearNorvikLogsToUploadDir() {
  Ref<String> path = getNorvikLogsToUploadDir();
  if (!path) return true;
  // The folder lies inside Library: a link in its place is not followed.
  return removeEntries(openFolderAt(AT_FDCWD, path->utf8(), false), path->utf8());
}

void NKFileSystemHelper::enumerate(const URL* url) {
  if (!url) return;
  // Each folder is walked in full, and each folder directly inside it again as a walk of its
  // own, so every subtree is walked once for each folder above it: the work grows with
  // items times depth. Walks started from every folder the deep walk meets would double it
  // at each level. A work list instead of recursion keeps deep trees off the call stack.
  std::vector<Ref<URL>> pending{Ref<URL>(const_cast<URL*>(url))};
  while (!pending.empty()) {
    Ref<URL> folder = std::move(pending.back());
    pending.pop_back();
    Ref<DirectoryEnumerator> walk = files()->enumeratorAtURL(folder.get(), nullptr, 0, nullptr);
    if (!walk) continue;
    while (Ref<URL> item = walk->nextObject()) {
      Id isDirectory;
      if (!getResourceValue(item.get(), &isDirectory, kURLIsDirectoryKey(), nullptr)) continue;
      const auto* flag = cast<Number>(isDirectory.get());
      if (walk->level() == 1 && flag && flag->boolValue() && !isSymbolicLink(item->path().get())) {
        pending.push_back(std::move(item));
      }
    }
  }
}

bool NKFileSystemHelper::setSkipBackupAttribOfFileWithURL(const URL* url) {
  return setResourceValue(url, Number::yes(), kURLIsExcludedFromBackupKey(), nullptr);
}

bool NKFileSystemHelper::setFilePropertiesForCDPersistentStoreWithPath(const URL* url) {
  return markExistingFile(url);
}

bool NKFileSystemHelper::setFilePropertiesAfterSuccessfulDownloadWithPath(const URL* url) {
  return markExistingFile(url);
}

}  // namespace nk
