// NKFileSystemHelper's locations: the shared instances and every path they and the class
// compute, from the platform's folder answers (group container, Library, Documents, the
// process's temporary folder).
#include <utility>

#include "nk/dispatch/once.hpp"
#include "nk/foundation/array.hpp"
#include "nk/helpers/string_helpers.hpp"
#include "nk/storage/file_system_helper.hpp"
#include "nk/storage/path_components_internal.hpp"
#include "nk/system/bundle.hpp"
#include "nk/system/file_manager.hpp"

namespace nk {

NK_DEFINE_CLASS(NKFileSystemHelper, "NKFileSystemHelper");

String* kAppGroupKey() noexcept { return NK_STR("AppGroup"); }
String* kAppOfflineStorageDirectoryName() noexcept { return NK_STR("Private Documents"); }
String* kFileProviderStorageDirectoryName() noexcept { return NK_STR("File Provider Storage"); }

namespace {

using storage_internal::appendingPathComponent;

FileManager* files() { return FileManager::defaultManager(); }

Ref<String> copied(const String* text) { return text ? cast<String>(text->copy()) : nullptr; }

NKFileSystemHelper* sharedInstance(OnceFlag& flag, NKFileSystemHelper*& instance,
                                   const char* rootDir, bool provideRelativePaths) {
  once(flag, [&] {
    // Never released: the shared instances live as long as the process.
    instance =
        make<NKFileSystemHelper>(String::fromUTF8(rootDir).get(), provideRelativePaths).leak();
  });
  return instance;
}

Ref<String> pathOf(const URL* url) { return url ? url->path() : nullptr; }

Ref<String> libraryPath(std::string_view component) {
  return appendingPathComponent(
      pathOf(NKFileSystemHelper::applicationLibraryDirectory().get()).get(), component);
}

void createDirectoryAtPath(const String* path) {
  files()->createDirectoryAtPath(path, true, nullptr, nullptr);
}

}  // namespace

NKFileSystemHelper::NKFileSystemHelper(const String* rootDir, bool provideRelativePaths)
    : provideRelativePaths_(provideRelativePaths), rootDir_(copied(rootDir)) {}

NKFileSystemHelper* NKFileSystemHelper::instanceLegacy() {
  static OnceFlag flag;
  static NKFileSystemHelper* instance;
  return sharedInstance(flag, instance, "Private Documents", false);
}

NKFileSystemHelper* NKFileSystemHelper::instanceFileProvider() {
  static OnceFlag flag;
  static NKFileSystemHelper* instance;
  return sharedInstance(flag, instance, "File Provider Storage", true);
}

NKFileSystemHelper* NKFileSystemHelper::instanceDPLogProvider() {
  static OnceFlag flag;
  static NKFileSystemHelper* instance;
  return sharedInstance(flag, instance, "DPLogs", true);
}

NKFileSystemHelper* NKFileSystemHelper::instanceFPLogProvider() {
  static OnceFlag flag;
  static NKFileSystemHelper* instance;
  return sharedInstance(flag, instance, "FPLogs", true);
}

void NKFileSystemHelper::configure(const String* appGroup) { setAppGroup(appGroup); }

void NKFileSystemHelper::setAppGroup(const String* appGroup) { appGroup_ = copied(appGroup); }

void NKFileSystemHelper::setRootDir(const String* rootDir) { rootDir_ = copied(rootDir); }

Ref<URL> NKFileSystemHelper::baseURL() const {
  if (appGroup_) return applicationGroupDirectory(appGroup_.get());
  return applicationLibraryDirectory();
}

Ref<URL> NKFileSystemHelper::getApplicationOfflineStorageDir(const String* name) const {
  Ref<URL> base = baseURL();
  if (!base || !name) return nullptr;
  Ref<URL> folder = base->URLByAppendingPathComponent(name, true);
  files()->createDirectoryAtURL(folder.get(), true, nullptr, nullptr);
  return folder;
}

Ref<URL> NKFileSystemHelper::getApplicationOfflineStorageDir() const {
  return getApplicationOfflineStorageDir(rootDir_.get());
}

Ref<URL> NKFileSystemHelper::getUserStorageDirForUserID(const String* userID) const {
  Ref<URL> root = getApplicationOfflineStorageDir();
  if (vnk_nullOrEmpty(userID) || !root) return nullptr;
  if (provideRelativePaths_) return URL::fromStringRelativeTo(userID, root.get());
  return root->URLByAppendingPathComponent(userID);
}

Ref<URL> NKFileSystemHelper::getNorvikCacheDir() {
  return URL::fileURLWithPath(NSTemporaryDirectory().get(), true);
}

Ref<URL> NKFileSystemHelper::getTempDownloadDir() {
  Ref<URL> cache = getNorvikCacheDir();
  return cache ? cache->URLByAppendingPathComponent(NK_STR("download"), true) : nullptr;
}

Ref<String> NKFileSystemHelper::getTempQueueItemDir() {
  Ref<String> download = pathOf(getTempDownloadDir().get());
  (void)createDirectoryIfNeededAtPath(NK_STR("Queue"), download.get());
  return appendingPathComponent(download.get(), "Queue");
}

Ref<URL> NKFileSystemHelper::applicationGroupDirectory(const String* appGroup) {
  return files()->containerURLForSecurityApplicationGroupIdentifier(appGroup);
}

Ref<URL> NKFileSystemHelper::applicationLibraryDirectory() {
  return pathForSearchPath(kLibraryDirectory);
}

Ref<URL> NKFileSystemHelper::applicationPublicDocumentsDirectory() {
  return pathForSearchPath(kDocumentDirectory);
}

Ref<URL> NKFileSystemHelper::pathForSearchPath(unsigned long directory) {
  return cast<URL>(files()->URLsForDirectory(directory, kUserDomainMask)->lastObject());
}

Ref<String> NKFileSystemHelper::getNorvikLogsDirForWrappedApp(bool wrappedApp) {
  Ref<String> path = libraryPath("Logs");
  if (wrappedApp) {
    path = appendingPathComponent(pathOf(applicationPublicDocumentsDirectory().get()).get(),
                                  "VelmontLogs");
  }
  if (!path) return nullptr;
  // The flag starts YES and a missing path leaves it so: a missing log folder is not made
  // here, while an existing one goes through (harmless) creation again.
  bool isDirectory = true;
  const bool exists = files()->fileExistsAtPath(path.get(), &isDirectory);
  if (exists || !isDirectory) createDirectoryAtPath(path.get());
  return path;
}

Ref<String> NKFileSystemHelper::getNorvikLogsToUploadDir() {
  Ref<String> path = libraryPath("LogsToUpload");
  if (!path) return nullptr;
  bool isDirectory = true;
  const bool exists = files()->fileExistsAtPath(path.get(), &isDirectory);
  if (!exists || !isDirectory) createDirectoryAtPath(path.get());
  return path;
}

bool NKFileSystemHelper::mainBundleContainesFile(const String* fileName) {
  if (!fileName) return false;
  // The extension is what follows the last "." of the last component, unless that "." is
  // the component's first character (a hidden file's name) or its last.
  std::string name = fileName->utf8();
  std::string type;
  const size_t slash = name.rfind('/');
  const size_t componentStart = slash == std::string::npos ? 0 : slash + 1;
  const size_t dot = name.rfind('.');
  if (dot != std::string::npos && dot > componentStart && dot + 1 < name.size()) {
    type = name.substr(dot + 1);
    name.resize(dot);
  }
  Ref<Bundle> bundle = Bundle::mainBundle();
  if (!bundle) return false;
  Ref<String> path =
      bundle->pathForResourceOfType(String::fromUTF8(name).get(), String::fromUTF8(type).get());
  return path && path->length() > 0;
}

}  // namespace nk
