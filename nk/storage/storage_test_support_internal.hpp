// Helpers for the storage tests: a sandbox of temporary HOME, XDG and bundle folders so
// that nothing touches the user's files, removal failures injected through the file
// manager, and entries that even root cannot remove.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <string>

#include "nk/foundation/exception.hpp"
#include "nk/foundation/string.hpp"
#include "nk/foundation/url.hpp"
#include "nk/system/file_manager_internal.hpp"
#include "nk/system/test_support_internal.hpp"

namespace nk::test {

inline constexpr const char* kBundleIdentifier = "org.example.client";

// HOME, the XDG folders, TMPDIR and both bundles inside one temporary folder. The main
// bundle's identifier is kBundleIdentifier, so Library and the cache are named after it.
struct StorageSandbox {
  TempDir dir;
  ScopedEnv home{"HOME", dir / "home"};
  ScopedEnv data{"XDG_DATA_HOME", dir / "data"};
  ScopedEnv cache{"XDG_CACHE_HOME", dir / "cache"};
  ScopedEnv config{"XDG_CONFIG_HOME", dir / "config"};
  ScopedEnv tmp{"TMPDIR", dir / "tmp"};
  ScopedEnv mainBundle{"NK_MAIN_BUNDLE", dir / "bundle"};
  ScopedEnv libraryBundle{"NK_LIBRARY_BUNDLE", dir / "library-bundle"};

  StorageSandbox() {
    writeFile(dir / "bundle/Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
              "<key>CFBundleIdentifier</key><string>org.example.client</string></dict></plist>\n");
    ::mkdir((dir / "home").c_str(), 0700);
    ::mkdir((dir / "tmp").c_str(), 0700);
  }

  std::string library() const { return dir / "data/org.example.client"; }
  std::string cacheFolder() const { return dir / "cache/org.example.client"; }
  std::string documents() const { return dir / "home/Documents"; }
};

inline Ref<String> S(std::string_view utf8) { return String::fromUTF8(utf8); }
inline Ref<URL> directoryURL(const std::string& path) { return URL::fileURLWithPath(path, true); }

inline bool isDirectory(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Makes removals of chosen paths fail, counting every removal attempt by path.
class RemovalFaults {
 public:
  RemovalFaults() {
    setRemovalFaultHookForTesting([this](const std::string& path) {
      std::lock_guard<std::mutex> lock(lock_);
      int attempt = ++attempts_[path];
      auto plan = plans_.find(path);
      if (plan == plans_.end() || attempt > plan->second.failures) return 0;
      if (plan->second.raise) throw ThrownObject(S("removal raised"));
      return EBUSY;
    });
  }
  ~RemovalFaults() { setRemovalFaultHookForTesting(nullptr); }
  RemovalFaults(const RemovalFaults&) = delete;
  RemovalFaults& operator=(const RemovalFaults&) = delete;

  // The first `failures` removals of `path` fail (raise a ThrownObject, with `raise`).
  void fail(const std::string& path, int failures = 1 << 30, bool raise = false) {
    std::lock_guard<std::mutex> lock(lock_);
    plans_[path] = {failures, raise};
  }
  int attempts(const std::string& path) {
    std::lock_guard<std::mutex> lock(lock_);
    return attempts_[path];
  }

 private:
  struct Plan {
    int failures;
    bool raise;
  };
  std::mutex lock_;
  std::map<std::string, Plan> plans_;
  std::map<std::string, int> attempts_;
};

// A folder at `path` holding a file that cannot be removed, by the file system's own
// rules: the file is immutable (refused to root as well), or, where a process may not set
// that flag, the folder is read-only (refused to anyone but root). Destroy it before the
// sandbox so the sandbox can be removed.
class UndeletableFolder {
 public:
  explicit UndeletableFolder(std::string path) : path_(std::move(path)) {
    writeFile(path_ + "/locked", "x");
    if (setImmutable(true)) {
      mechanism_ = kImmutable;
    } else if (::geteuid() != 0 && ::chmod(path_.c_str(), 0500) == 0) {
      mechanism_ = kReadOnlyFolder;
    }
  }
  ~UndeletableFolder() {
    if (mechanism_ == kImmutable) setImmutable(false);
    if (mechanism_ == kReadOnlyFolder) ::chmod(path_.c_str(), 0700);
  }
  UndeletableFolder(const UndeletableFolder&) = delete;
  UndeletableFolder& operator=(const UndeletableFolder&) = delete;

  bool available() const { return mechanism_ != kNone; }
  bool stillThere() const { return exists(path_ + "/locked"); }

 private:
  bool setImmutable(bool on) {
    int fd = ::open((path_ + "/locked").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    int flags = 0;
    bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    if (done) {
      flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
      done = ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    }
    ::close(fd);
    return done;
  }

  enum Mechanism { kNone, kImmutable, kReadOnlyFolder };
  std::string path_;
  Mechanism mechanism_ = kNone;
};

}  // namespace nk::test
