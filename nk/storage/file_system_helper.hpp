// NKFileSystemHelper: where the client and the processes of its application group keep
// their files (four storage roots, the cache, the log folders), and the upkeep of those
// folders: creation, clearing with notifications, deletion with retries, backup marks.
#pragma once

#include <cstdint>

#include "nk/foundation/class.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"
#include "nk/foundation/url.hpp"

namespace nk {

// "AppGroup": for hosts; the library itself never reads it.
String* kAppGroupKey() noexcept;
// "Private Documents" and "File Provider Storage": the root folders of instanceLegacy and
// instanceFileProvider.
String* kAppOfflineStorageDirectoryName() noexcept;
String* kFileProviderStorageDirectoryName() noexcept;

// The notifications around a cache clear, posted on the default notification centre
// without a sender, and the keys of their user information.
String* kUtilsCacheDirectoryWillClearNotification() noexcept;  // "CacheDirectoryWillClear"
String* kUtilsCacheDirectoryDidClearNotification() noexcept;   // "CacheDirectoryDidClear"
String* kUtilsCacheDirectoryClearPath() noexcept;              // "Path": the cleared folder's path
String* kUtilsCacheDirectoryClearSuccess() noexcept;           // "Success": Boolean, all removed

// On Linux (each answer worked out again on every call, nothing cached):
//   Library     $XDG_DATA_HOME/<bundle id>/               (~/.local/share/<bundle id>/)
//   Documents   the XDG documents folder                  (~/Documents)
//   group       $XDG_DATA_HOME/group-containers/<group>/  made on first request
//   Cache       $XDG_CACHE_HOME/<bundle id>/              (~/.cache/<bundle id>/), 0700
// The Cache is the process's own temporary folder, never /tmp or $TMPDIR: clearing and
// sweeping empty it wholesale.
//
// Failures are reported only as false or nil; creation errors are dropped, and a getter
// that creates its folder returns the path even when the creation failed.
class NKFileSystemHelper final : public Object {
  NK_DECLARE_CLASS(NKFileSystemHelper, Object)

 public:
  // ----- The four shared storage roots ----------------------------------------------------

  // Made on first request (thread-safe) and kept for the life of the process:
  //   instanceLegacy         base/Private Documents/      absolute user URLs
  //   instanceFileProvider   base/File Provider Storage/  relative user URLs
  //   instanceDPLogProvider  base/DPLogs/                 relative user URLs
  //   instanceFPLogProvider  base/FPLogs/                 relative user URLs
  // where base is the group container once configure() has named a group, else Library.
  static NKFileSystemHelper* instanceLegacy();
  static NKFileSystemHelper* instanceFileProvider();
  static NKFileSystemHelper* instanceDPLogProvider();
  static NKFileSystemHelper* instanceFPLogProvider();

  // Sets appGroup; nil goes back to the Library base. Like the setters, not synchronised:
  // configure before other threads ask the instance for paths.
  void configure(const String* appGroup);

  // The group container of appGroup when it is set (an empty group counts as set and has
  // no container: nil), else the Library folder. Not created here.
  Ref<URL> baseURL() const;
  // base/`name`/ as a directory URL, created with its parents (the outcome is ignored).
  // nil when there is no base.
  Ref<URL> getApplicationOfflineStorageDir(const String* name) const;
  // The same for rootDir: the instance root.
  Ref<URL> getApplicationOfflineStorageDir() const;
  // The user's folder in the instance root, which is created; the user's folder is not.
  // nil for a nil or blank `userID` (vnk_nullOrEmpty) and when there is no root. With
  // provideRelativePaths the URL is `userID` relative to the root ("u1" -- file:///…/root/),
  // nil when `userID` is not valid URL text; otherwise root/`userID` as an absolute URL.
  Ref<URL> getUserStorageDirForUserID(const String* userID) const;

  bool provideRelativePaths() const noexcept { return provideRelativePaths_; }
  void setProvideRelativePaths(bool relative) noexcept { provideRelativePaths_ = relative; }
  // Copied on assignment.
  const Ref<String>& appGroup() const noexcept { return appGroup_; }
  void setAppGroup(const String* appGroup);
  const Ref<String>& rootDir() const noexcept { return rootDir_; }
  void setRootDir(const String* rootDir);

  // ----- Class-level folders (the same for every instance, whatever its group) -----------

  // The Cache as a directory URL; nil without a home folder to put it in.
  static Ref<URL> getNorvikCacheDir();
  // Cache/download/ as a directory URL; not created.
  static Ref<URL> getTempDownloadDir();
  // Cache/download/Queue as a path, created with its parents.
  static Ref<String> getTempQueueItemDir();
  // The group's container (made on first request); nil for an identifier that cannot name
  // a folder (empty, ".", "..", containing "/" or control characters).
  static Ref<URL> applicationGroupDirectory(const String* appGroup);
  // pathForSearchPath(5) and pathForSearchPath(9).
  static Ref<URL> applicationLibraryDirectory();
  static Ref<URL> applicationPublicDocumentsDirectory();
  // The last user-domain folder URL of a search-path code (5 Library, 9 Documents); nil for
  // other codes or without a home folder.
  static Ref<URL> pathForSearchPath(unsigned long directory);
  // Library/Logs, or Documents/VelmontLogs for a wrapped application, as a path. Gone
  // through creation only when the path exists (a no-op for a folder): a missing log folder
  // is not created here. nil without Library or Documents.
  static Ref<String> getNorvikLogsDirForWrappedApp(bool wrappedApp);
  // Library/LogsToUpload as a path, created when missing or not a folder; nil without
  // Library.
  static Ref<String> getNorvikLogsToUploadDir();
  // True when the main bundle has the resource `fileName`, split at its last extension:
  // "a.tar.gz" is resource "a.tar" of type "gz"; "README" has the empty type.
  static bool mainBundleContainesFile(const String* fileName);

  // ----- Upkeep: synchronous, on the caller's thread -------------------------------------
  //
  // Removal never follows a symbolic link found inside the folder being emptied: the link
  // is removed, its target untouched.

  // Creates the folder with its parents; true when it is there as a folder (already or
  // now). nil gives false.
  static bool createFolderWithFullPath(const URL* url);
  // `path`/`name`: true when it is a folder already or once made; false when a
  // non-folder is in the way or either argument is nil.
  static bool createDirectoryIfNeededAtPath(const String* name, const String* path);
  // With `createSubfolders`, makes Cache/images and Cache/download where nothing (of any
  // kind) is at those paths; true when both are there. Without it: true, nothing done.
  static bool createNorvikCacheDir(bool createSubfolders);
  // True when something exists at `path` (a symbolic link when its target does).
  static bool fileExistsAtPath(const String* path);

  // Removes every entry of the folder (hidden ones included), keeping the folder. An entry
  // whose removal fails is tried again until it has had `maxRetryCount` attempts in all
  // (0 and 1 mean one), back to back; it still counts as failed if a later attempt
  // succeeds. True only when every first attempt succeeded and for an empty folder; false
  // for nil and, logging the listing error, for a folder that cannot be listed.
  static bool deleteAllFilesInDirectoryWithFullPathAndMaxRetryCount(const URL* url,
                                                                    uint64_t maxRetryCount);
  // Sweeps the Cache: removes every entry, pausing 10 µs after each failed attempt. The
  // entries share one budget of attempts: the failing entries first met get five attempts
  // between them, and every later failing entry one. A ThrownObject raised during an
  // attempt counts as a failed attempt. Reports nothing.
  static void deleteTempDir();
  // clearCacheDirWithSubdirectory("download") and clearCacheDirWithSubdirectory(nil).
  static bool clearTempDownloadDir();
  static bool clearNorvikCacheDir();
  // Empties Cache/`subdirectory` (the Cache itself for nil or ""), one attempt per entry,
  // keeping the folder. Posts "CacheDirectoryWillClear" ("Path") before and
  // "CacheDirectoryDidClear" ("Path", "Success") after, both submitted asynchronously to
  // the main queue in that order: called on the main thread, they are delivered after this
  // returns. True when every entry went, and when the folder is missing, empty or cannot
  // be listed. `subdirectory` is a path below the Cache ("a/b"; empty and "." components
  // are ignored, so "." and "/" name the Cache itself); one with ".." is refused: false and
  // nothing posted. No symbolic link on the way is followed, from the Cache down: nothing is
  // removed and the result is true. False, with nothing posted, when there is no Cache.
  static bool clearCacheDirWithSubdirectory(const String* subdirectory);
  // Empties getNorvikLogsToUploadDir() (creating it when missing), one attempt per entry;
  // no notification. True when every entry went or there was nothing to remove (a
  // symbolic link in place of the folder is not followed).
  static bool clearNorvikLogsToUploadDir();
  // Walks the folder tree and reads whether each item is a folder; changes nothing.
  // Symbolic links are never walked into.
  static void enumerate(const URL* url);

  // Marks the item as excluded from backups (extended attribute user.xdg.robots.backup =
  // "false"); true when the mark is set.
  static bool setSkipBackupAttribOfFileWithURL(const URL* url);
  // setSkipBackupAttribOfFileWithURL for an existing file; false for nil or a missing file.
  // Meant for a persistent data store's file and for a file after its download.
  static bool setFilePropertiesForCDPersistentStoreWithPath(const URL* url);
  static bool setFilePropertiesAfterSuccessfulDownloadWithPath(const URL* url);

  // Use the shared instances.
  NKFileSystemHelper(const String* rootDir, bool provideRelativePaths);

 private:
  bool provideRelativePaths_ = false;
  Ref<String> appGroup_;
  Ref<String> rootDir_;
};

}  // namespace nk
