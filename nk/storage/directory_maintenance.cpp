// NKFileSystemHelper's upkeep of the storage folders: creation, clearing with the cache
// notifications, deletion with retries, the sweep of the temporary folder, the walk and
// the backup mark. Everything runs on the caller's thread; only the notifications go to
// the main queue.
#include <unistd.h>

#include <vector>

#include "nk/dispatch/queue.hpp"
#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/log.hpp"
#include "nk/foundation/number.hpp"
#include "nk/storage/file_system_helper.hpp"
#include "nk/storage/path_components_internal.hpp"
#include "nk/system/file_manager.hpp"
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

// True for "name" or "name/name…": relative, and every component an ordinary name.
bool isInnerRelativePath(std::string_view path) {
  if (path.empty()) return false;
  for (;;) {
    const size_t slash = path.find('/');
    const std::string_view component = path.substr(0, slash);
    if (component.empty() || component == "." || component == "..") return false;
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

// Removes every entry of the folder at `path`, one attempt each, and tells whether all
// went. A folder that is missing or cannot be listed has nothing to remove.
bool removeEntriesAtPath(const String* path) {
  if (!files()->fileExistsAtPath(path)) return true;
  Ref<Array> names = files()->contentsOfDirectoryAtPath(path, nullptr);
  if (!names) return true;
  bool removedAll = true;
  for (size_t i = 0; i < names->count(); ++i) {
    auto entry = appendingPathComponent(path, cast<String>(names->objectAtIndex(i)).get());
    removedAll = files()->removeItemAtPath(entry.get(), nullptr) && removedAll;
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
  Ref<Array> entries = files()->contentsOfDirectoryAtURL(url, nullptr, 0, &error);
  if (error) {
    Log("%@", error.get());
    return false;
  }
  if (!entries) return false;
  bool removedAll = true;
  for (size_t i = 0; i < entries->count(); ++i) {
    const auto* entry = cast<URL>(entries->objectAtIndex(i).get());
    if (files()->removeItemAtURL(entry, nullptr)) continue;
    // A later success does not make the entry count as removed.
    removedAll = false;
    for (uint64_t attempt = 1; attempt < maxRetryCount; ++attempt) {
      (void)files()->removeItemAtURL(entry, nullptr);
    }
  }
  return removedAll;
}

void NKFileSystemHelper::deleteTempDir() {
  Ref<String> temporary = NSTemporaryDirectory();
  if (!temporary) return;
  Ref<Array> names = files()->contentsOfDirectoryAtPath(temporary.get(), nullptr);
  if (!names) return;
  // One counter for the whole sweep, on purpose: once the first failing entries have used
  // up the shared attempts, every later failing entry gets a single attempt, so a folder
  // full of undeletable entries cannot stall the sweep.
  uint64_t attempts = 0;
  for (size_t i = 0; i < names->count(); ++i) {
    const auto* name = cast<String>(names->objectAtIndex(i).get());
    const uint64_t limit =
        attempts > kSweepSharedAttemptLimit ? attempts : kSweepSharedAttemptLimit;
    for (;;) {
      try {
        Ref<String> path = appendingPathComponent(temporary.get(), name);
        if (!files()->fileExistsAtPath(path.get())) break;
        if (files()->removeItemAtPath(path.get(), nullptr)) break;
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
  const bool named = subdirectory && subdirectory->length() > 0;
  // Only folders inside the cache are cleared: a name that climbs out, or names the
  // cache itself in another way, is refused before anything is touched.
  if (named && !isInnerRelativePath(subdirectory->utf8())) return false;
  Ref<URL> folder = getNorvikCacheDir();
  if (folder && named) folder = folder->URLByAppendingPathComponent(subdirectory);
  Ref<String> path = pathOf(folder.get());
  if (!path || path->length() == 0) return false;

  postOnMainQueue(kUtilsCacheDirectoryWillClearNotification(),
                  Dictionary::make({{kUtilsCacheDirectoryClearPath(), path}}));
  // A subfolder replaced by a link would lead the clearing out of the cache.
  const bool success = (named && isSymbolicLink(path.get())) || removeEntriesAtPath(path.get());
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
  return isSymbolicLink(path.get()) || removeEntriesAtPath(path.get());
}

void NKFileSystemHelper::enumerate(const URL* url) {
  if (!url) return;
  // Each folder met is walked again in full, as a walk of its own; a work list instead of
  // recursion keeps deep trees off the call stack.
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
      if (flag && flag->boolValue() && !isSymbolicLink(item->path().get())) {
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
