// What a folder of the storage layout holds, seen without following symbolic links:
// nkutil lists and counts with it, before and after the library's upkeep does the
// removing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace nk::cli {

// One entry directly in the folder, with everything under it.
struct FolderEntry {
  std::string path;
  uint64_t entries = 0;  // the entry itself and all that lie under it
  uint64_t bytes = 0;    // the sizes of the regular files among them
};

struct FolderContents {
  // False when the path is missing, is not a folder, or is a symbolic link.
  bool isFolder = false;
  std::vector<FolderEntry> entries;  // sorted by path

  uint64_t totalEntries() const;
  uint64_t totalBytes() const;
};

// The entries of the folder at `path`. Entries that vanish or cannot be read while
// the walk goes on count as far as they were seen.
FolderContents listFolder(const std::string& path);

// The number of entries under the folder at `path`, for watching it empty.
uint64_t countEntries(const std::string& path);

}  // namespace nk::cli
