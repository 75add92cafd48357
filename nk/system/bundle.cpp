// Bundle: folder resolution, Info.plist reading, resource lookup and the cache
// of parsed string tables.
#include "nk/system/bundle.hpp"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <unordered_map>

#include "nk/foundation/array.hpp"
#include "nk/foundation/log.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/property_list.hpp"
#include "nk/system/bundle_internal.hpp"
#include "nk/system/locale.hpp"
#include "nk/system/strings_table.hpp"

#ifndef NK_LIBRARY_BUNDLE_DIR
#define NK_LIBRARY_BUNDLE_DIR "/usr/local/share/nkutils"
#endif

namespace nk {

NK_DEFINE_CLASS(Bundle, "Bundle");

std::optional<std::string> bundle_internal::readFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return std::nullopt;
  std::optional<std::string> bytes;
  struct stat st;
  if (::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) &&
      static_cast<uint64_t>(st.st_size) <= kMaxFileSize) {
    bytes.emplace();
    char buffer[65536];
    for (;;) {
      const ssize_t got = ::read(fd, buffer, sizeof buffer);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0 || bytes->size() + static_cast<size_t>(got) > kMaxFileSize) {
        bytes.reset();  // unreadable, or grown past the limit since fstat
        break;
      }
      if (got == 0) break;
      bytes->append(buffer, static_cast<size_t>(got));
    }
  }
  ::close(fd);
  return bytes;
}

namespace {

struct FileStamp {
  bool exists = false;
  int64_t mtimeNs = 0;
  int64_t size = 0;
  int64_t inode = 0;
  friend bool operator==(const FileStamp&, const FileStamp&) = default;
};

FileStamp stampOf(const std::string& path) {
  struct stat st;
  FileStamp stamp;
  if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return stamp;
  stamp.exists = true;
  stamp.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  stamp.size = st.st_size;
  stamp.inode = static_cast<int64_t>(st.st_ino);
  return stamp;
}

Ref<Dictionary> readInfoPlist(const std::string& path) {
  auto bytes = bundle_internal::readFile(path);
  if (!bytes || bytes->empty()) return nullptr;
  Ref<Error> error;
  Id root = readPropertyList(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes->data()), bytes->size()),
      &error);
  if (!root) {
    Log("Bundle: %s is not a property list: %@", path, error);
    return nullptr;
  }
  return cast<Dictionary>(root);
}

std::string trimmedPath(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

bool isFolder(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// One Bundle object per folder.
struct Registry {
  std::mutex lock;
  std::unordered_map<std::string, Ref<Bundle>> bundles;
  std::unordered_map<const Class*, std::string> classPaths;
};

Registry& registry() {
  static Registry* const shared = new Registry();
  return *shared;
}

Ref<Bundle> bundleFor(const std::string& path) {
  Registry& r = registry();
  std::lock_guard guard(r.lock);
  auto& slot = r.bundles[path];
  if (!slot) {
    auto text = String::fromUTF8(path);
    slot = nk::make<Bundle>(text ? text : String::fromLatin1(path));
  }
  return slot;
}

// Parsed string tables by path; a changed file is read again.
struct TableCache {
  std::mutex lock;
  std::unordered_map<std::string, std::pair<FileStamp, Ref<Dictionary>>> tables;
};

Ref<Dictionary> stringTable(const std::string& path) {
  static TableCache* const cache = new TableCache();
  FileStamp stamp = stampOf(path);
  if (!stamp.exists) return nullptr;
  {
    std::lock_guard guard(cache->lock);
    auto found = cache->tables.find(path);
    if (found != cache->tables.end() && found->second.first == stamp) return found->second.second;
  }
  auto bytes = bundle_internal::readFile(path);
  Ref<Dictionary> table = bytes ? parseStringsTable(*bytes) : nullptr;
  if (!table) {
    Log("Bundle: the string table %s is malformed; it is treated as empty", path);
    table = Dictionary::make();
  }
  std::lock_guard guard(cache->lock);
  cache->tables[path] = {stamp, table};
  return table;
}

// Whether `name`, taken relative to a folder, names a file inside it: not absolute, no ".."
// component, and no NUL (the system would cut the path there: "README\0x" is "README").
bool staysInside(std::string_view name) {
  if (name.empty() || name[0] == '/' || name.find('\0') != std::string_view::npos) return false;
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('/', start);
    if (end == std::string_view::npos) end = name.size();
    if (name.substr(start, end - start) == "..") return false;
    start = end + 1;
  }
  return true;
}

void addLanguage(std::vector<std::string>& out, std::string language) {
  for (const auto& existing : out) {
    if (existing == language) return;
  }
  out.push_back(std::move(language));
}

// "fr_FR.UTF-8@euro" → "fr_FR", "fr-FR", "fr"; a modifier naming a script puts the names
// with that script first: "sr_RS@latin" → "sr-Latn-RS", "sr-Latn", then "sr_RS", "sr-RS", "sr".
void addLocale(std::vector<std::string>& out, std::string_view locale) {
  const std::string_view script = scriptOfPosixLocale(locale);
  locale = locale.substr(0, locale.find_first_of(".@"));
  if (locale.empty() || locale == "C" || locale == "POSIX") return;
  std::string name(locale);
  size_t separator = name.find_first_of("_-");
  if (!script.empty()) {
    const std::string language = name.substr(0, separator);
    const std::string withScript = language + "-" + std::string(script);
    if (separator != std::string::npos) {
      addLanguage(out, withScript + "-" + name.substr(separator + 1));
    }
    addLanguage(out, withScript);
  }
  if (separator == std::string::npos) {
    addLanguage(out, name);
    return;
  }
  std::string underscored = name, dashed = name;
  underscored[separator] = '_';
  dashed[separator] = '-';
  addLanguage(out, underscored);
  addLanguage(out, dashed);
  addLanguage(out, name.substr(0, separator));
}

}  // namespace

struct Bundle::InfoCache {
  std::mutex lock;
  FileStamp stamp;
  bool loaded = false;
  Ref<Dictionary> info;
};

Bundle::Bundle(Ref<String> path) : path_(std::move(path)), info_(std::make_unique<InfoCache>()) {}
Bundle::~Bundle() = default;

Ref<Bundle> Bundle::mainBundle() {
  const char* chosen = std::getenv("NK_MAIN_BUNDLE");
  if (chosen && *chosen) return bundleFor(trimmedPath(chosen));
  char buffer[4096];
  ssize_t size = ::readlink("/proc/self/exe", buffer, sizeof buffer - 1);
  if (size <= 0) return bundleFor("/");
  std::string exe(buffer, static_cast<size_t>(size));
  size_t slash = exe.rfind('/');
  return bundleFor(slash == 0 || slash == std::string::npos ? "/" : exe.substr(0, slash));
}

Ref<Bundle> Bundle::bundleWithPath(const String* path) {
  if (!path || path->isEmpty()) return nullptr;
  std::string folder = trimmedPath(path->utf8());
  if (folder.find('\0') != std::string::npos || !isFolder(folder)) return nullptr;
  return bundleFor(folder);
}

Ref<Bundle> Bundle::libraryBundle() {
  const char* chosen = std::getenv("NK_LIBRARY_BUNDLE");
  return bundleFor(trimmedPath(chosen && *chosen ? chosen : NK_LIBRARY_BUNDLE_DIR));
}

Ref<Bundle> Bundle::bundleForClass(const Class& cls) {
  std::optional<std::string> path;
  {
    Registry& r = registry();
    std::lock_guard guard(r.lock);
    auto found = r.classPaths.find(&cls);
    if (found != r.classPaths.end()) path = found->second;
  }
  return path ? bundleFor(*path) : libraryBundle();
}

void Bundle::registerBundlePathForClass(const Class& cls, const String* path) {
  Registry& r = registry();
  std::lock_guard guard(r.lock);
  if (path && !path->isEmpty()) {
    r.classPaths[&cls] = trimmedPath(path->utf8());
  } else {
    r.classPaths.erase(&cls);
  }
}

Ref<String> Bundle::resourcePath() const { return path_->appending(NK_STR("/Resources")); }

Ref<Dictionary> Bundle::infoDictionary() const {
  std::string file = path_->utf8() + "/Info.plist";
  FileStamp stamp = stampOf(file);
  std::lock_guard guard(info_->lock);
  if (!info_->loaded || !(info_->stamp == stamp)) {
    info_->info = stamp.exists ? readInfoPlist(file) : nullptr;
    if (!info_->info) info_->info = Dictionary::make();
    info_->stamp = stamp;
    info_->loaded = true;
  }
  return info_->info;
}

Id Bundle::objectForInfoDictionaryKey(const String* key) const {
  if (!key) return nullptr;
  return infoDictionary()->objectForKey(key);
}

Ref<String> Bundle::bundleIdentifier() const {
  auto identifier = infoDictionary()->objectForKeyOfClass<String>(NK_STR("CFBundleIdentifier"));
  return identifier && !identifier->isEmpty() ? identifier : nullptr;
}

Ref<String> Bundle::developmentRegion() const {
  auto region = infoDictionary()->objectForKeyOfClass<String>(NK_STR("CFBundleDevelopmentRegion"));
  return region && !region->isEmpty() ? region : Ref<String>(NK_STR("en"));
}

Ref<String> Bundle::pathForResourceOfType(const String* name, const String* type) const {
  if (!name || name->isEmpty()) return nullptr;
  std::string file = name->utf8();
  if (type && !type->isEmpty()) {
    std::string extension = type->utf8();
    file += extension[0] == '.' ? extension : "." + extension;
  }
  // Checked with the extension on: "lproj/../../x" after "en" climbs out as well.
  if (!staysInside(file)) return nullptr;
  std::string resources = path_->utf8() + "/Resources/";
  std::vector<std::string> candidates{resources + file};
  for (const auto& language : preferredLanguages()) {
    candidates.push_back(resources + language + ".lproj/" + file);
  }
  candidates.push_back(resources + developmentRegion()->utf8() + ".lproj/" + file);
  candidates.push_back(resources + "Base.lproj/" + file);
  for (const auto& candidate : candidates) {
    if (::access(candidate.c_str(), F_OK) == 0) return String::fromUTF8(candidate);
  }
  return nullptr;
}

Ref<String> Bundle::localizedStringForKey(const String* key, const String* value,
                                          const String* table) const {
  auto fallback = [&]() -> Ref<String> {
    if (value && !value->isEmpty()) return Ref<String>(const_cast<String*>(value));
    if (key) return Ref<String>(const_cast<String*>(key));
    return String::empty();
  };
  if (!key) return fallback();
  std::string tableName = table && !table->isEmpty() ? table->utf8() : "Localizable";
  if (!staysInside(tableName)) return fallback();
  std::vector<std::string> languages = preferredLanguages();
  addLanguage(languages, developmentRegion()->utf8());
  addLanguage(languages, "en");
  addLanguage(languages, "Base");
  std::string resources = path_->utf8() + "/Resources/";
  for (const auto& language : languages) {
    auto strings = stringTable(resources + language + ".lproj/" + tableName + ".strings");
    if (!strings) continue;
    if (auto found = strings->objectForKeyOfClass<String>(key)) return found;
  }
  return fallback();
}

std::vector<std::string> Bundle::preferredLanguages() {
  std::string_view locale = posixMessagesLocale();
  if (locale.empty()) locale = "C";  // what the C library uses when nothing is set
  std::vector<std::string> out;
  // As in gettext: under the untranslated locale ("C" or "POSIX" exactly, not "C.UTF-8")
  // LANGUAGE is ignored, so that `LC_ALL=C tool` gives untranslated text; otherwise a
  // LANGUAGE list replaces the locale's language instead of preceding it.
  if (locale == "C" || locale == "POSIX") return out;
  if (const char* list = std::getenv("LANGUAGE")) {
    std::string_view rest(list);
    while (!rest.empty()) {
      size_t colon = rest.find(':');
      addLocale(out, rest.substr(0, colon));
      if (colon == std::string_view::npos) break;
      rest.remove_prefix(colon + 1);
    }
  }
  if (out.empty()) addLocale(out, locale);
  return out;
}

}  // namespace nk
