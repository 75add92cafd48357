// FileManager: file operations over POSIX calls, with the platform's errors.
#include "nk/system/file_manager.hpp"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "nk/foundation/class.hpp"
#include "nk/foundation/date.hpp"
#include "nk/foundation/number.hpp"
#include "nk/system/file_manager_internal.hpp"
#include "nk/system/xdg_directories.hpp"

namespace nk {

NK_DEFINE_CLASS(FileManager, "FileManager");
NK_DEFINE_CLASS(DirectoryEnumerator, "DirectoryEnumerator");

String* kFilePathErrorKey() noexcept { return NK_STR("NSFilePath"); }
String* kFileSizeKey() noexcept { return NK_STR("NSFileSize"); }
String* kFileTypeKey() noexcept { return NK_STR("NSFileType"); }
String* kFileModificationDateKey() noexcept { return NK_STR("NSFileModificationDate"); }
String* kFilePosixPermissionsKey() noexcept { return NK_STR("NSFilePosixPermissions"); }
String* kFileTypeDirectory() noexcept { return NK_STR("NSFileTypeDirectory"); }
String* kFileTypeRegular() noexcept { return NK_STR("NSFileTypeRegular"); }
String* kFileTypeSymbolicLink() noexcept { return NK_STR("NSFileTypeSymbolicLink"); }
String* kFileTypeUnknown() noexcept { return NK_STR("NSFileTypeUnknown"); }
String* kURLIsDirectoryKey() noexcept { return NK_STR("NSURLIsDirectoryKey"); }
String* kURLIsExcludedFromBackupKey() noexcept { return NK_STR("NSURLIsExcludedFromBackupKey"); }

namespace file_internal {

std::string joinPath(const std::string& folder, const std::string& name) {
  if (!folder.empty() && folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

Fd openFolderAt(int parentFd, const std::string& name, bool followLink) {
  if (name.find('\0') != std::string::npos) {
    errno = ENOENT;
    return Fd();
  }
  const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY | (followLink ? 0 : O_NOFOLLOW);
  return Fd(::openat(parentFd, name.c_str(), flags));
}

bool readNames(int fd, std::vector<std::string>& names) {
  int copy = ::dup(fd);
  if (copy < 0) return false;
  DIR* dir = ::fdopendir(copy);
  if (!dir) {
    int saved = errno;
    ::close(copy);
    errno = saved;
    return false;
  }
  ::rewinddir(dir);
  errno = 0;
  while (struct dirent* entry = ::readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    names.emplace_back(entry->d_name);
  }
  int saved = errno;
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  errno = saved;
  return saved == 0;
}

}  // namespace file_internal

using file_internal::Fd;
using file_internal::joinPath;
using file_internal::openFolderAt;
using file_internal::readNames;

namespace {

long codeFor(int posixError, bool writing) {
  switch (posixError) {
    case ENOENT:
      return writing ? kFileNoSuchFileError : kFileReadNoSuchFileError;
    case EACCES:
    case EPERM:
      return writing ? kFileWriteNoPermissionError : kFileReadNoPermissionError;
    case EEXIST:
      return writing ? kFileWriteFileExistsError : kFileReadUnknownError;
    case ENOSPC:
    case EDQUOT:
      return writing ? kFileWriteOutOfSpaceError : kFileReadUnknownError;
    case EROFS:
      return writing ? kFileWriteVolumeReadOnlyError : kFileReadUnknownError;
    default:
      return writing ? kFileWriteUnknownError : kFileReadUnknownError;
  }
}

void setError(Ref<Error>* out, int posixError, const std::string& path, bool writing) {
  if (!out) return;
  *out = fileError(posixError, String::fromUTF8(path).get(), writing);
}

void setSchemeError(Ref<Error>* out, const URL* url, bool writing) {
  if (!out) return;
  auto info = MutableDictionary::make();
  if (url) info->setObjectForKey(Ref<URL>(const_cast<URL*>(url)), NK_STR("NSURL"));
  *out = Error::make(kCocoaErrorDomain(),
                     writing ? kFileWriteUnsupportedSchemeError : kFileReadUnsupportedSchemeError,
                     info);
}

// The file-system path of `path`, or "" (no such file) when it has none. The system
// would cut a path at a NUL: "cache/..\0x" would name the folder above the cache.
std::string pathOf(const String* path) {
  if (!path) return std::string();
  std::string bytes = path->utf8();
  if (bytes.find('\0') != std::string::npos) return std::string();
  return bytes;
}

// The file-system path of a file URL, as above; nullopt for other URLs.
std::optional<std::string> pathOf(const URL* url) {
  if (!url || !url->isFileURL()) return std::nullopt;
  auto path = url->path();
  if (!path || path->isEmpty()) return std::nullopt;
  return pathOf(path.get());
}

bool isDirectoryAt(int folderFd, const std::string& name) {
  struct stat st;
  return ::fstatat(folderFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
}

Ref<URL> fileURL(const std::string& path, bool directory) {
  return URL::fileURLWithPath(std::string_view(path), directory);
}

// Empties the folder open as `rootFd` without following any link. On failure,
// `failedPath` names the item that could not be removed and errno says why.
bool removeContents(int rootFd, const std::string& rootPath, std::string& failedPath) {
  struct Frame {
    Fd fd;  // closed for folders far above the one being emptied
    std::string path;
    std::vector<std::string> names;
    size_t next = 0;
    dev_t dev = 0;
    ino_t ino = 0;
  };
  // One descriptor per level would run out on a deep tree: only the innermost levels
  // keep theirs, and a folder above is opened again from its child through "..",
  // checked to be the same folder.
  constexpr size_t kOpenLevels = 32;
  std::vector<Frame> stack;
  {
    Frame root{Fd(::dup(rootFd)), rootPath, {}, 0};
    struct stat st;
    if (root.fd.fd < 0 || ::fstat(root.fd.fd, &st) != 0 || !readNames(root.fd.fd, root.names)) {
      failedPath = rootPath;
      return false;
    }
    root.dev = st.st_dev;
    root.ino = st.st_ino;
    stack.push_back(std::move(root));
  }
  while (!stack.empty()) {
    Frame& top = stack.back();
    if (top.next == top.names.size()) {
      // The folder is empty now: remove it from its parent (the root stays for
      // the caller).
      Fd child = std::move(top.fd);
      stack.pop_back();
      if (stack.empty()) return true;
      Frame& parent = stack.back();
      if (parent.fd.fd < 0) {
        parent.fd = Fd(::openat(child.fd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY));
        struct stat st;
        if (parent.fd.fd < 0 || ::fstat(parent.fd.fd, &st) != 0 || st.st_dev != parent.dev ||
            st.st_ino != parent.ino) {
          if (parent.fd.fd >= 0) errno = ESTALE;  // moved meanwhile
          failedPath = parent.path;
          return false;
        }
      }
      const std::string& childName = parent.names[parent.next - 1];
      if (::unlinkat(parent.fd.fd, childName.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        failedPath = joinPath(parent.path, childName);
        return false;
      }
      continue;
    }
    const std::string& name = top.names[top.next++];
    std::string path = joinPath(top.path, name);
    if (::unlinkat(top.fd.fd, name.c_str(), 0) == 0 || errno == ENOENT) continue;
    if (errno != EISDIR && errno != EPERM) {
      failedPath = path;
      return false;
    }
    // A folder: open it without following a link, so a folder swapped for a
    // link fails here (ELOOP or ENOTDIR) and is then unlinked as the link it
    // has become.
    Fd child = openFolderAt(top.fd.fd, name, false);
    if (child.fd < 0) {
      if ((errno == ELOOP || errno == ENOTDIR) && ::unlinkat(top.fd.fd, name.c_str(), 0) == 0) {
        continue;
      }
      if (errno == ENOENT) continue;
      failedPath = path;
      return false;
    }
    Frame frame{std::move(child), path, {}, 0};
    struct stat st;
    if (::fstat(frame.fd.fd, &st) != 0 || !readNames(frame.fd.fd, frame.names)) {
      failedPath = path;
      return false;
    }
    frame.dev = st.st_dev;
    frame.ino = st.st_ino;
    if (stack.size() >= kOpenLevels) stack[stack.size() - kOpenLevels].fd = Fd();
    stack.push_back(std::move(frame));
  }
  return true;
}

std::atomic<bool> removalHookSet{false};
std::mutex removalHookLock;

RemovalFaultHook& removalHook() {
  static RemovalFaultHook hook;
  return hook;
}

// The errno a test wants this removal to fail with, or 0.
int injectedRemovalFailure(const std::string& path) {
  if (!removalHookSet.load(std::memory_order_acquire)) return 0;
  RemovalFaultHook hook;
  {
    std::lock_guard<std::mutex> lock(removalHookLock);
    hook = removalHook();
  }
  return hook ? hook(path) : 0;
}

}  // namespace

namespace file_internal {

bool removeItemAt(int folderFd, const std::string& name, const std::string& path,
                  std::string& failedPath) {
  failedPath = path;
  if (int injected = injectedRemovalFailure(path)) {
    errno = injected;
    return false;
  }
  struct stat st;
  if (::fstatat(folderFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (!S_ISDIR(st.st_mode)) {
    if (::unlinkat(folderFd, name.c_str(), 0) == 0) return true;
    if (errno != EISDIR) return false;
  }
  Fd fd = openFolderAt(folderFd, name, false);
  if (fd.fd < 0) {
    // Swapped for a link or a file since the check: remove that instead.
    return (errno == ELOOP || errno == ENOTDIR) && ::unlinkat(folderFd, name.c_str(), 0) == 0;
  }
  if (!removeContents(fd.fd, path, failedPath)) return false;
  return ::unlinkat(folderFd, name.c_str(), AT_REMOVEDIR) == 0;
}

Fd openFolderListing(const URL* url, std::vector<std::string>& names, Ref<Error>* error) {
  auto folder = pathOf(url);
  if (!folder) {
    setSchemeError(error, url, false);
    return Fd();
  }
  Fd fd = openFolderAt(AT_FDCWD, *folder, true);
  if (fd.fd < 0 || !readNames(fd.fd, names)) {
    setError(error, errno, *folder, false);
    return Fd();
  }
  return fd;
}

}  // namespace file_internal

void setRemovalFaultHookForTesting(RemovalFaultHook hook) {
  std::lock_guard<std::mutex> lock(removalHookLock);
  removalHookSet.store(static_cast<bool>(hook), std::memory_order_release);
  removalHook() = std::move(hook);
}

Ref<Error> fileError(int posixError, const String* path, bool writing) {
  auto info = MutableDictionary::make();
  if (path) info->setObjectForKey(Ref<String>(const_cast<String*>(path)), kFilePathErrorKey());
  info->setObjectForKey(Error::make(kPOSIXErrorDomain(), posixError), kUnderlyingErrorKey());
  return Error::make(kCocoaErrorDomain(), codeFor(posixError, writing), info);
}

FileManager* FileManager::defaultManager() noexcept {
  static FileManager* const shared = [] {
    auto* manager = new FileManager();
    manager->makeImmortal();
    return manager;
  }();
  return shared;
}

bool FileManager::fileExistsAtPath(const String* path) const {
  return fileExistsAtPath(path, nullptr);
}

bool FileManager::fileExistsAtPath(const String* path, bool* isDirectory) const {
  const std::string target = pathOf(path);
  struct stat st;
  if (target.empty() || ::stat(target.c_str(), &st) != 0) return false;
  if (isDirectory) *isDirectory = S_ISDIR(st.st_mode);
  return true;
}

bool FileManager::createDirectoryAtPath(const String* path, bool withIntermediateDirectories,
                                        const Dictionary* attributes, Ref<Error>* error) const {
  std::string target = pathOf(path);
  if (target.empty()) {
    setError(error, ENOENT, target, true);
    return false;
  }
  bool hasMode = false;
  mode_t mode = 0777;
  if (attributes) {
    if (auto permissions = attributes->objectForKeyOfClass<Number>(kFilePosixPermissionsKey())) {
      hasMode = true;
      mode = static_cast<mode_t>(permissions->unsignedLongValue() & 07777);
    }
  }
  auto makeOne = [&](const std::string& one) {
    if (::mkdir(one.c_str(), mode) != 0) return false;
    // mkdir's mode passes through the umask; asked-for permissions are set
    // exactly.
    if (hasMode) ::chmod(one.c_str(), mode);
    return true;
  };
  if (!withIntermediateDirectories) {
    if (makeOne(target)) return true;
    setError(error, errno, target, true);
    return false;
  }
  while (target.size() > 1 && target.back() == '/') target.pop_back();
  struct stat st;
  if (::stat(target.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    setError(error, EEXIST, target, true);
    return false;
  }
  size_t position = 0;
  while (position != std::string::npos) {
    position = target.find('/', position + 1);
    std::string prefix = target.substr(0, position);
    if (prefix.empty() || prefix.back() == '/') continue;
    if (makeOne(prefix)) continue;
    int saved = errno;
    if (saved == EEXIST && ::stat(prefix.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) continue;
    setError(error, saved, prefix, true);
    return false;
  }
  return true;
}

bool FileManager::createDirectoryAtURL(const URL* url, bool withIntermediateDirectories,
                                       const Dictionary* attributes, Ref<Error>* error) const {
  auto path = pathOf(url);
  if (!path) {
    setSchemeError(error, url, true);
    return false;
  }
  return createDirectoryAtPath(String::fromUTF8(*path).get(), withIntermediateDirectories,
                               attributes, error);
}

Ref<Array> FileManager::contentsOfDirectoryAtPath(const String* path, Ref<Error>* error) const {
  std::string folder = pathOf(path);
  Fd fd = openFolderAt(AT_FDCWD, folder, true);
  std::vector<std::string> names;
  if (fd.fd < 0 || !readNames(fd.fd, names)) {
    setError(error, folder.empty() ? ENOENT : errno, folder, false);
    return nullptr;
  }
  std::vector<Id> items;
  items.reserve(names.size());
  for (const auto& name : names) {
    auto text = String::fromUTF8(name);
    items.push_back(text ? text : String::fromLatin1(name));
  }
  return Array::make(std::move(items));
}

Ref<Array> FileManager::contentsOfDirectoryAtURL(const URL* url, const Array* /*keys*/,
                                                 unsigned options, Ref<Error>* error) const {
  std::vector<std::string> names;
  Fd fd = file_internal::openFolderListing(url, names, error);
  if (fd.fd < 0) return nullptr;
  const std::string folder = *pathOf(url);
  std::vector<Id> items;
  for (const auto& name : names) {
    if ((options & kDirectoryEnumerationSkipsHiddenFiles) && name[0] == '.') continue;
    if (auto item = fileURL(joinPath(folder, name), isDirectoryAt(fd.fd, name))) {
      items.push_back(item);
    }
  }
  return Array::make(std::move(items));
}

bool FileManager::removeItemAtPath(const String* path, Ref<Error>* error) const {
  std::string target = pathOf(path);
  while (target.size() > 1 && target.back() == '/') target.pop_back();
  if (target.empty()) {
    setError(error, ENOENT, target, true);
    return false;
  }
  std::string failed;
  if (!file_internal::removeItemAt(AT_FDCWD, target, target, failed)) {
    setError(error, errno, failed, true);
    return false;
  }
  return true;
}

bool FileManager::removeItemAtURL(const URL* url, Ref<Error>* error) const {
  auto path = pathOf(url);
  if (!path) {
    setSchemeError(error, url, true);
    return false;
  }
  return removeItemAtPath(String::fromUTF8(*path).get(), error);
}

Ref<DirectoryEnumerator> FileManager::enumeratorAtURL(const URL* url, const Array* /*keys*/,
                                                      unsigned options,
                                                      DirectoryErrorHandler handler) const {
  auto path = pathOf(url);
  if (!path) return nullptr;
  return nk::make<DirectoryEnumerator>(*path, options, std::move(handler));
}

Ref<Dictionary> FileManager::attributesOfItemAtPath(const String* path, Ref<Error>* error) const {
  std::string target = pathOf(path);
  struct stat st;
  if (target.empty() || ::lstat(target.c_str(), &st) != 0) {
    setError(error, target.empty() ? ENOENT : errno, target, false);
    return nullptr;
  }
  String* type = kFileTypeUnknown();
  if (S_ISDIR(st.st_mode)) type = kFileTypeDirectory();
  if (S_ISREG(st.st_mode)) type = kFileTypeRegular();
  if (S_ISLNK(st.st_mode)) type = kFileTypeSymbolicLink();
  double modified = static_cast<double>(st.st_mtim.tv_sec) + st.st_mtim.tv_nsec / 1e9;
  return Dictionary::make({
      {kFileSizeKey(), Number::withUnsignedLongLong(static_cast<unsigned long long>(st.st_size))},
      {kFileTypeKey(), type},
      {kFileModificationDateKey(), Date::fromTimeIntervalSince1970(modified)},
      {kFilePosixPermissionsKey(), Number::withUnsignedShort(st.st_mode & 07777)},
  });
}

Ref<Array> FileManager::URLsForDirectory(unsigned long directory, unsigned long domainMask) const {
  if (!(domainMask & kUserDomainMask)) return Array::make();
  std::optional<std::string> path;
  if (directory == kLibraryDirectory) path = libraryDirectory();
  if (directory == kDocumentDirectory) path = userDocumentsDirectory();
  if (!path) return Array::make();
  auto url = fileURL(*path, true);
  return url ? Array::make({url}) : Array::make();
}

Ref<URL> FileManager::containerURLForSecurityApplicationGroupIdentifier(
    const String* groupIdentifier) const {
  if (!groupIdentifier) return nullptr;
  std::string identifier;
  if (!groupIdentifier->toUTF8(identifier)) return nullptr;
  auto path = groupContainerDirectory(identifier);
  return path ? fileURL(*path, true) : nullptr;
}

Ref<String> NSTemporaryDirectory() { return temporaryDirectory(); }

// ----- Resource values
// ----------------------------------------------------------------------

bool getResourceValue(const URL* url, Id* value, const String* key, Ref<Error>* error) {
  if (value) *value = nullptr;
  auto path = pathOf(url);
  if (!path) {
    setSchemeError(error, url, false);
    return false;
  }
  struct stat st;
  if (::stat(path->c_str(), &st) != 0) {
    setError(error, errno, *path, false);
    return false;
  }
  if (nk::isEqual(key, kURLIsDirectoryKey())) {
    if (value) *value = Number::withBool(S_ISDIR(st.st_mode));
    return true;
  }
  if (nk::isEqual(key, kURLIsExcludedFromBackupKey())) {
    char buffer[16] = {};
    ssize_t size = ::getxattr(path->c_str(), kBackupAttributeName, buffer, sizeof buffer - 1);
    bool excluded = false;
    if (size >= 0) {
      excluded = std::string_view(buffer, static_cast<size_t>(size)) == "false";
    } else if (errno != ENODATA && errno != ENOTSUP && errno != ERANGE) {
      setError(error, errno, *path, false);
      return false;
    }
    if (value) *value = Number::withBool(excluded);
    return true;
  }
  return true;
}

bool setResourceValue(const URL* url, const Object* value, const String* key, Ref<Error>* error) {
  auto path = pathOf(url);
  if (!path) {
    setSchemeError(error, url, true);
    return false;
  }
  if (!nk::isEqual(key, kURLIsExcludedFromBackupKey())) {
    setError(error, EINVAL, *path, true);
    return false;
  }
  auto flag = cast<Number>(value);
  bool exclude = flag && flag->boolValue();
  if (exclude) {
    if (::setxattr(path->c_str(), kBackupAttributeName, "false", 5, 0) == 0) return true;
    setError(error, errno, *path, true);
    return false;
  }
  if (::removexattr(path->c_str(), kBackupAttributeName) == 0 || errno == ENODATA ||
      errno == ENOTSUP) {
    // Without the attribute there is nothing to unmark, but the item must still
    // exist.
    struct stat st;
    if (::stat(path->c_str(), &st) == 0) return true;
  }
  setError(error, errno, *path, true);
  return false;
}

// ----- DirectoryEnumerator
// ------------------------------------------------------------------

struct DirectoryEnumerator::Level {
  Fd fd;
  std::string path;
  std::vector<std::string> names;
  size_t next = 0;
};

DirectoryEnumerator::DirectoryEnumerator(std::string root, unsigned options,
                                         DirectoryErrorHandler handler)
    : root_(std::move(root)), options_(options), handler_(std::move(handler)) {}

DirectoryEnumerator::~DirectoryEnumerator() = default;

void DirectoryEnumerator::report(int posixError, const std::string& path) {
  if (!handler_) return;
  auto error = fileError(posixError, String::fromUTF8(path).get(), false);
  auto url = fileURL(path, false);
  if (!handler_(url.get(), error.get())) stopped_ = true;
}

bool DirectoryEnumerator::openLevel(int parentFd, const std::string& name,
                                    const std::string& path) {
  int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOCTTY;
  // The root may be reached through a link, as the caller named it; below it
  // nothing is.
  int fd = parentFd < 0 ? ::open(path.c_str(), flags)
                        : ::openat(parentFd, name.c_str(), flags | O_NOFOLLOW);
  if (fd < 0) {
    report(errno, path);
    return false;
  }
  auto level = std::make_unique<Level>();
  level->fd.fd = fd;
  level->path = path;
  if (!readNames(fd, level->names)) {
    report(errno, path);
    return false;
  }
  stack_.push_back(std::move(level));
  return true;
}

Ref<URL> DirectoryEnumerator::nextObject() {
  if (stopped_) return nullptr;
  if (!started_) {
    started_ = true;
    if (!openLevel(-1, root_, root_)) return nullptr;
  }
  if (hasPending_) {
    hasPending_ = false;
    if (!skipPending_ && !(options_ & kDirectoryEnumerationSkipsSubdirectoryDescendants) &&
        !stack_.empty()) {
      openLevel(stack_.back()->fd.fd, pendingName_, pendingDirectory_);
      if (stopped_) return nullptr;
    }
  }
  skipPending_ = false;
  while (!stack_.empty()) {
    Level& top = *stack_.back();
    if (top.next == top.names.size()) {
      stack_.pop_back();
      continue;
    }
    const std::string& name = top.names[top.next++];
    if ((options_ & kDirectoryEnumerationSkipsHiddenFiles) && name[0] == '.') continue;
    std::string path = joinPath(top.path, name);
    bool directory = isDirectoryAt(top.fd.fd, name);
    lastLevel_ = stack_.size();
    if (directory) {
      hasPending_ = true;
      pendingName_ = name;
      pendingDirectory_ = path;
    }
    if (auto url = fileURL(path, directory)) return url;
  }
  return nullptr;
}

Ref<Array> DirectoryEnumerator::allObjects() {
  auto result = MutableArray::make();
  while (auto url = nextObject()) result->addObject(url);
  return result;
}

}  // namespace nk
