// FileManager: the platform's file operations on Linux (existence, folders,
// listing, removal that never follows a symbolic link, deep enumeration,
// attributes, resource values) with the platform's error domain and codes, and
// the platform's folder questions.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/error.hpp"
#include "nk/foundation/object.hpp"
#include "nk/foundation/string.hpp"
#include "nk/foundation/url.hpp"

namespace nk {

// File-error codes (in kCocoaErrorDomain(), with the errno under
// kUnderlyingErrorKey() in kPOSIXErrorDomain()) and the path's key.
String* kFilePathErrorKey() noexcept;  // "NSFilePath"
enum FileErrorCode : long {
  kFileNoSuchFileError = 4,
  kFileReadUnknownError = 256,
  kFileReadNoPermissionError = 257,
  kFileReadNoSuchFileError = 260,
  kFileReadUnsupportedSchemeError = 262,
  kFileWriteUnknownError = 512,
  kFileWriteNoPermissionError = 513,
  kFileWriteFileExistsError = 516,
  kFileWriteUnsupportedSchemeError = 518,
  kFileWriteOutOfSpaceError = 640,
  kFileWriteVolumeReadOnlyError = 642,
};

// Makes the platform's error for a failed file operation: domain
// "NSCocoaErrorDomain", the code for `posixError` (a read or a write failure),
// and user information with "NSFilePath" (when `path` is not nil) and
// "NSUnderlyingError" (domain "NSPOSIXErrorDomain", code errno).
Ref<Error> fileError(int posixError, const String* path, bool writing);

// Attribute keys of attributesOfItemAtPath and createDirectoryAtPath.
String* kFileSizeKey() noexcept;              // "NSFileSize": Number (unsigned long long)
String* kFileTypeKey() noexcept;              // "NSFileType": one of the kFileType values
String* kFileModificationDateKey() noexcept;  // "NSFileModificationDate": Date
String* kFilePosixPermissionsKey() noexcept;  // "NSFilePosixPermissions": Number
String* kFileTypeDirectory() noexcept;        // "NSFileTypeDirectory"
String* kFileTypeRegular() noexcept;          // "NSFileTypeRegular"
String* kFileTypeSymbolicLink() noexcept;     // "NSFileTypeSymbolicLink"
String* kFileTypeUnknown() noexcept;          // "NSFileTypeUnknown" (sockets, devices, pipes)

// Resource-value keys of URLs.
String* kURLIsDirectoryKey() noexcept;           // "NSURLIsDirectoryKey"
String* kURLIsExcludedFromBackupKey() noexcept;  // "NSURLIsExcludedFromBackupKey"

// The extended attribute that marks a file or folder as excluded from backups
// (value "false"), from the freedesktop.org common extended attributes.
inline constexpr const char* kBackupAttributeName = "user.xdg.robots.backup";

// Reads a resource value of a file URL into `*value`:
//  - "NSURLIsDirectoryKey": a Boolean, symbolic links followed.
//  - "NSURLIsExcludedFromBackupKey": YES when the item carries the backup
//  attribute with the
//    value "false"; NO otherwise, including on file systems without user
//    extended attributes (nothing there can be marked).
// Unknown keys give true with `*value` nil. A missing item, a non-file URL or a
// read failure gives false and an Error (260 for a missing item).
bool getResourceValue(const URL* url, Id* value, const String* key, Ref<Error>* error);

// Writes a resource value of a file URL. Only "NSURLIsExcludedFromBackupKey" is
// writable: YES sets the backup attribute to "false"; NO removes the attribute
// (leaving no mark rather than a "true" mark, so the item looks exactly like
// one never marked). A file system that refuses user extended attributes gives
// an Error when marking (code 512, underlying EOPNOTSUPP); unmarking there
// succeeds, as there is nothing to remove. Other keys give false and an Error
// (512, underlying EINVAL).
bool setResourceValue(const URL* url, const Object* value, const String* key, Ref<Error>* error);

// Options of listing and enumerating folders (the platform's values).
enum DirectoryEnumerationOptions : unsigned {
  kDirectoryEnumerationNone = 0,
  kDirectoryEnumerationSkipsSubdirectoryDescendants = 1u << 0,
  kDirectoryEnumerationSkipsPackageDescendants = 1u << 1,  // accepted; Linux has no packages
  kDirectoryEnumerationSkipsHiddenFiles = 1u << 2,
};

// Search-path questions of URLsForDirectory.
enum SearchPathDirectory : unsigned long {
  kLibraryDirectory = 5,
  kDocumentDirectory = 9,
};
enum SearchPathDomainMask : unsigned long {
  kUserDomainMask = 1,
  kLocalDomainMask = 2,
  kNetworkDomainMask = 4,
  kSystemDomainMask = 8,
  kAllDomainsMask = 0x0ffff,
};

// Called for an item the enumerator cannot read; return true to go on, false to
// stop.
using DirectoryErrorHandler = std::function<bool(const URL* url, const Error* error)>;

// A deep, pre-order walk of a folder: each folder comes before its contents,
// and symbolic links are reported but never descended into. Siblings come in
// byte order of their names. Holds one open descriptor per level of the walk;
// not for sharing between threads.
//
//   auto walk = FileManager::defaultManager()->enumeratorAtURL(url, nullptr, 0,
//   nullptr); while (auto item = walk->nextObject()) { ... if (boring)
//   walk->skipDescendants(); }
class DirectoryEnumerator final : public Object {
  NK_DECLARE_CLASS(DirectoryEnumerator, Object)

 public:
  // The next item's URL (a folder's URL ends in "/"), nil at the end.
  Ref<URL> nextObject();
  // Do not descend into the folder nextObject() returned last.
  void skipDescendants() noexcept { skipPending_ = true; }
  // The depth of the item nextObject() returned last: 1 for the folder's own
  // children.
  size_t level() const noexcept { return lastLevel_; }
  // Everything not yet returned.
  Ref<Array> allObjects();

  struct Level;
  DirectoryEnumerator(std::string root, unsigned options, DirectoryErrorHandler handler);
  ~DirectoryEnumerator() override;

 private:
  bool openLevel(int parentFd, const std::string& name, const std::string& path);
  void report(int posixError, const std::string& path);

  std::string root_;
  unsigned options_;
  DirectoryErrorHandler handler_;
  std::vector<std::unique_ptr<Level>> stack_;
  std::string pendingDirectory_;  // path of the folder returned last, to enter next
  std::string pendingName_;
  bool hasPending_ = false;
  bool skipPending_ = false;
  bool started_ = false;
  bool stopped_ = false;
  size_t lastLevel_ = 0;
};

class FileManager final : public Object {
  NK_DECLARE_CLASS(FileManager, Object)

 public:
  // The shared manager. Its operations keep no state and are safe from any
  // thread.
  static FileManager* defaultManager() noexcept;

  // True when something exists at `path`; a symbolic link counts when its
  // target exists.
  bool fileExistsAtPath(const String* path) const;
  // As above, and sets `*isDirectory` (when not null) for an existing item. For
  // a missing item `*isDirectory` is left untouched.
  bool fileExistsAtPath(const String* path, bool* isDirectory) const;

  // Creates a folder. Without intermediates, a missing parent fails (4) and an
  // existing item at `path` fails (516). With intermediates, every missing
  // parent is made and an existing folder (or a link to one) is success; an
  // existing non-folder fails (516). `attributes` may carry
  // "NSFilePosixPermissions", applied to every folder made here; otherwise 0777
  // less the umask. nil `attributes` is fine.
  bool createDirectoryAtPath(const String* path, bool withIntermediateDirectories,
                             const Dictionary* attributes, Ref<Error>* error) const;
  bool createDirectoryAtURL(const URL* url, bool withIntermediateDirectories,
                            const Dictionary* attributes, Ref<Error>* error) const;

  // The names in a folder (hidden ones included, "." and ".." not), in byte
  // order. A symbolic link to a folder is listed. nil with an Error for a
  // missing folder (260), a file (256) or an unreadable folder (257).
  Ref<Array> contentsOfDirectoryAtPath(const String* path, Ref<Error>* error) const;
  // The same as URLs (folders' URLs end in "/"); `keys` is ignored; honours
  // kDirectoryEnumerationSkipsHiddenFiles.
  Ref<Array> contentsOfDirectoryAtURL(const URL* url, const Array* keys, unsigned options,
                                      Ref<Error>* error) const;

  // Removes a file, a symbolic link (never its target) or a folder with
  // everything in it. Inside the folder nothing is followed: links are unlinked
  // and the walk holds directory descriptors opened without following links, so
  // swapping a folder for a link while the removal runs cannot send it outside.
  // A missing item fails with 4; the first failure stops the removal and names
  // the item that could not go.
  bool removeItemAtPath(const String* path, Ref<Error>* error) const;
  bool removeItemAtURL(const URL* url, Ref<Error>* error) const;

  // A deep enumerator of the folder at `url`; `keys` is ignored. `handler` (may
  // be empty) hears of unreadable items; without it they are skipped. nil for a
  // non-file URL.
  Ref<DirectoryEnumerator> enumeratorAtURL(const URL* url, const Array* keys, unsigned options,
                                           DirectoryErrorHandler handler) const;

  // Size, type, modification date and permissions of an item, not following a
  // final symbolic link. nil with an Error (260) when it is missing.
  Ref<Dictionary> attributesOfItemAtPath(const String* path, Ref<Error>* error) const;

  // The folder URLs for a search-path question: the Library folder (5) and the
  // Documents folder (9) of the user domain. Other domains, other codes, or no
  // home folder: empty.
  Ref<Array> URLsForDirectory(unsigned long directory, unsigned long domainMask) const;
  // The application-group container's URL (ending in "/"), made on first
  // request; nil for an identifier that is empty, contains "/", is "." or "..",
  // or has control characters.
  Ref<URL> containerURLForSecurityApplicationGroupIdentifier(const String* groupIdentifier) const;

 private:
  FileManager() noexcept = default;
};

// The process's temporary folder as the platform's NSTemporaryDirectory answers
// it (see temporaryDirectory() in xdg_directories.hpp):
// `$XDG_CACHE_HOME/<bundle id>/`.
Ref<String> NSTemporaryDirectory();

}  // namespace nk
