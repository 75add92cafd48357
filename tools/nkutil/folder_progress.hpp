// A progress bar on standard error while the library empties a folder: a thread of
// its own counts what is left and redraws the bar, so that the removal itself stays
// the library's, on the calling thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace nk::cli {

class FolderProgress {
 public:
  // From this many entries on, a removal is long enough to show its progress.
  static constexpr uint64_t kManyEntries = 500;

  // Watches the folder at `path`, which holds `total` entries, when standard error is
  // a terminal and `total` is at least kManyEntries; otherwise does nothing.
  FolderProgress(std::string path, uint64_t total);
  // Draws the finished bar and ends its line.
  ~FolderProgress();

  FolderProgress(const FolderProgress&) = delete;
  FolderProgress& operator=(const FolderProgress&) = delete;

 private:
  void draw(uint64_t left) const;

  const std::string path_;
  const uint64_t total_;
  std::mutex lock_;
  std::condition_variable wake_;
  bool done_ = false;
  std::thread watcher_;
};

}  // namespace nk::cli
