// A walk of a folder tree that counts a symbolic link as an entry and never walks into
// it (O_NOFOLLOW, AT_SYMLINK_NOFOLLOW), with a work list so a deep tree does not use
// the stack.
#include "tools/nkutil/folder_contents.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace nk::cli {

namespace {

int openFolder(std::string path) {
  // With a trailing "/", open() would follow a link in the last place.
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Totals of what lies under the folder at `path`. Folders wait as paths, not open
// descriptors, so that a wide tree cannot run out of them; reading only, a race
// with a rename can at worst miscount.
FolderEntry walk(const std::string& path) {
  FolderEntry total;
  std::vector<std::string> pending{path};
  while (!pending.empty()) {
    const std::string folder = std::move(pending.back());
    pending.pop_back();
    const int fd = openFolder(folder);
    DIR* dir = fd < 0 ? nullptr : ::fdopendir(fd);
    if (!dir) {
      if (fd >= 0) ::close(fd);
      continue;
    }
    while (const dirent* entry = ::readdir(dir)) {
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
      struct stat st;
      if (::fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
      ++total.entries;
      if (S_ISREG(st.st_mode)) total.bytes += static_cast<uint64_t>(st.st_size);
      if (S_ISDIR(st.st_mode)) pending.push_back(folder + "/" + entry->d_name);
    }
    ::closedir(dir);
  }
  return total;
}

}  // namespace

uint64_t FolderContents::totalEntries() const {
  uint64_t sum = 0;
  for (const FolderEntry& entry : entries) sum += entry.entries;
  return sum;
}

uint64_t FolderContents::totalBytes() const {
  uint64_t sum = 0;
  for (const FolderEntry& entry : entries) sum += entry.bytes;
  return sum;
}

FolderContents listFolder(const std::string& path) {
  FolderContents contents;
  const int fd = openFolder(path);
  DIR* dir = fd < 0 ? nullptr : ::fdopendir(fd);
  if (!dir) {
    if (fd >= 0) ::close(fd);
    return contents;
  }
  contents.isFolder = true;
  const std::string prefix = path.ends_with('/') ? path : path + "/";
  while (const dirent* entry = ::readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    struct stat st;
    if (::fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
    std::string entryPath = prefix + entry->d_name;
    FolderEntry item = S_ISDIR(st.st_mode) ? walk(entryPath) : FolderEntry{};
    if (S_ISREG(st.st_mode)) item.bytes = static_cast<uint64_t>(st.st_size);
    item.path = std::move(entryPath);
    ++item.entries;
    contents.entries.push_back(std::move(item));
  }
  ::closedir(dir);
  std::sort(contents.entries.begin(), contents.entries.end(),
            [](const FolderEntry& a, const FolderEntry& b) { return a.path < b.path; });
  return contents;
}

uint64_t countEntries(const std::string& path) { return walk(path).entries; }

}  // namespace nk::cli
