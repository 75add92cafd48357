// The Linux answers for the platform's folder questions; see
// xdg_directories.hpp.
#include "nk/system/xdg_directories.hpp"

#include <errno.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <vector>

#include "nk/system/bundle.hpp"
#include "nk/system/process_info.hpp"

namespace nk {
namespace {

std::optional<std::string> absoluteVariable(const char* name) {
  const char* value = std::getenv(name);
  if (!value || value[0] != '/') return std::nullopt;
  return std::string(value);
}

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// `folder`/`name`, without a doubled "/" when `folder` is the root (HOME=/ is common for
// service accounts): "//.cache" would be a different text for the same folder.
std::string inside(const std::string& folder, std::string_view name) {
  std::string path = withoutTrailingSlashes(folder);
  if (path != "/") path += '/';
  path += name;
  return path;
}

std::optional<std::string> baseDirectory(const char* variable, const char* fallback) {
  if (auto value = absoluteVariable(variable)) return withoutTrailingSlashes(*value);
  auto home = homeDirectory();
  if (!home) return std::nullopt;
  return inside(*home, fallback);
}

// One value of user-dirs.dirs: shell double-quoted, "$HOME" only at its start.
std::optional<std::string> parseUserDirValue(std::string_view value, const std::string& home) {
  if (value.size() < 2 || value.front() != '"') return std::nullopt;
  std::string text;
  size_t i = 1;
  bool closed = false;
  for (; i < value.size(); ++i) {
    char c = value[i];
    if (c == '\\' && i + 1 < value.size()) {
      text.push_back(value[++i]);
    } else if (c == '"') {
      closed = true;
      break;
    } else {
      text.push_back(c);
    }
  }
  if (!closed) return std::nullopt;
  if (text.rfind("$HOME", 0) == 0 && (text.size() == 5 || text[5] == '/')) {
    text = inside(home, text.size() > 5 ? std::string_view(text).substr(6) : "");
  }
  if (text.empty() || text[0] != '/') return std::nullopt;
  return withoutTrailingSlashes(text);
}

}  // namespace

std::optional<std::string> homeDirectory() {
  if (const char* home = std::getenv("HOME")) {
    if (home[0] != '/') return std::nullopt;
    return std::string(home);
  }
  std::vector<char> buffer(16384);
  struct passwd entry;
  struct passwd* result = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &result) != 0 || !result ||
      !result->pw_dir || result->pw_dir[0] != '/') {
    return std::nullopt;
  }
  return std::string(result->pw_dir);
}

std::optional<std::string> xdgDataHome() { return baseDirectory("XDG_DATA_HOME", ".local/share"); }
std::optional<std::string> xdgCacheHome() { return baseDirectory("XDG_CACHE_HOME", ".cache"); }
std::optional<std::string> xdgConfigHome() { return baseDirectory("XDG_CONFIG_HOME", ".config"); }

std::optional<std::string> userDocumentsDirectory() {
  auto home = homeDirectory();
  if (!home) return std::nullopt;
  if (auto config = xdgConfigHome()) {
    std::ifstream in(inside(*config, "user-dirs.dirs"));
    std::string line;
    std::optional<std::string> found;
    while (in && std::getline(in, line)) {
      size_t start = line.find_first_not_of(" \t");
      if (start == std::string::npos || line[start] == '#') continue;
      std::string_view rest(line);
      rest.remove_prefix(start);
      constexpr std::string_view kKey = "XDG_DOCUMENTS_DIR=";
      if (rest.substr(0, kKey.size()) != kKey) continue;
      rest.remove_prefix(kKey.size());
      // The last valid assignment wins, as when the shell sources the file.
      if (auto value = parseUserDirValue(rest, *home)) found = value;
    }
    if (found) return found;
  }
  return inside(*home, "Documents");
}

bool isSafeFolderName(std::string_view identifier) noexcept {
  if (identifier.empty() || identifier == "." || identifier == "..") return false;
  for (unsigned char c : identifier) {
    if (c == '/' || c < 0x20 || c == 0x7f) return false;
  }
  return true;
}

std::string applicationFolderName() {
  if (auto bundle = Bundle::mainBundle()) {
    if (auto identifier = bundle->bundleIdentifier()) {
      std::string text = identifier->utf8();
      if (isSafeFolderName(text)) return text;
    }
  }
  std::string name = ProcessInfo::processInfo()->processName()->utf8();
  return isSafeFolderName(name) ? name : std::string("nkutils");
}

bool makeDirectories(const std::string& path, unsigned mode) {
  if (path.empty()) {
    errno = ENOENT;
    return false;
  }
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) return true;
    errno = EEXIST;
    return false;
  }
  size_t position = 0;
  while (position != std::string::npos) {
    position = path.find('/', position + 1);
    std::string prefix = path.substr(0, position);
    if (prefix.empty() || prefix.back() == '/') continue;
    if (mkdir(prefix.c_str(), mode) != 0) {
      int saved = errno;
      if (saved != EEXIST || stat(prefix.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        errno = saved == EEXIST ? ENOTDIR : saved;
        return false;
      }
    }
  }
  return true;
}

Ref<String> temporaryDirectory() {
  auto cache = xdgCacheHome();
  if (!cache) return nullptr;
  std::string path = inside(*cache, applicationFolderName());
  if (!makeDirectories(path, 0700)) return nullptr;
  return String::fromUTF8(path + "/");
}

std::optional<std::string> libraryDirectory() {
  auto data = xdgDataHome();
  if (!data) return std::nullopt;
  return inside(*data, applicationFolderName());
}

std::optional<std::string> groupContainerDirectory(std::string_view identifier) {
  if (!isSafeFolderName(identifier)) return std::nullopt;
  auto data = xdgDataHome();
  if (!data) return std::nullopt;
  std::string path = inside(*data, "group-containers/" + std::string(identifier));
  if (!makeDirectories(path, 0700)) return std::nullopt;
  return path;
}

}  // namespace nk
