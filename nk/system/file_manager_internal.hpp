// FileManager's internals shared with the rest of the library: work on a folder's entries
// by their raw names, which need not be UTF-8 and so cannot always go through a String or
// a URL; and the seam for tests, failures injected into removals, for tests that need an
// item nobody can remove (root ignores permissions) or a removal that fails a set number
// of times.
#pragma once

#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "nk/foundation/error.hpp"
#include "nk/foundation/url.hpp"

namespace nk {

namespace file_internal {

// An open file descriptor, closed with its owner.
struct Fd {
  int fd = -1;
  explicit Fd(int f = -1) noexcept : fd(f) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  Fd(Fd&& o) noexcept : fd(std::exchange(o.fd, -1)) {}
  Fd& operator=(Fd&& o) noexcept {
    if (this != &o) {
      if (fd >= 0) ::close(fd);
      fd = std::exchange(o.fd, -1);
    }
    return *this;
  }
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

// `folder` + "/" + `name`, with one slash between them.
std::string joinPath(const std::string& folder, const std::string& name);

// Opens the folder `name` inside the folder open as `parentFd` (AT_FDCWD: `name` is a
// path), following a link there only when `followLink`. A name with a NUL in it names no
// folder: the system would read only the part before it. Invalid on failure, with errno.
Fd openFolderAt(int parentFd, const std::string& name, bool followLink);

// Appends the names in the open folder `fd`, without "." and "..", sorted. `fd` stays open.
bool readNames(int fd, std::vector<std::string>& names);

// Opens the folder of the file URL `url` and reads its entries' names. On failure, an
// invalid Fd and, in `error`, the error contentsOfDirectoryAtURL reports.
Fd openFolderListing(const URL* url, std::vector<std::string>& names, Ref<Error>* error);

// Removes the entry `name` of the folder open as `folderFd` (AT_FDCWD: `name` is a path),
// a folder with everything in it, never following a link. `path` is the entry's full path,
// passed to the removal fault hook. On failure `failedPath` names the item that stayed and
// errno says why.
bool removeItemAt(int folderFd, const std::string& name, const std::string& path,
                  std::string& failedPath);

}  // namespace file_internal

// Called with the item's path at the start of each removeItemAtPath and removeItemAtURL,
// and of each removeItemAt. A non-zero errno value fails that removal with it and leaves
// the item untouched; 0 lets the removal go on. The hook may throw, standing for the
// platform raising. An empty function removes the hook. Process-wide; called on whichever
// thread removes.
using RemovalFaultHook = std::function<int(const std::string& path)>;
void setRemovalFaultHookForTesting(RemovalFaultHook hook);

}  // namespace nk
