// The folder-emptying progress bar: "[#####.....]  51%  2034 of 4000 entries".
#include "tools/nkutil/folder_progress.hpp"

#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "tools/nkutil/folder_contents.hpp"

namespace nk::cli {

namespace {

constexpr int kWidth = 40;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

}  // namespace

FolderProgress::FolderProgress(std::string path, uint64_t total)
    : path_(std::move(path)), total_(total) {
  if (total_ < kManyEntries || !::isatty(STDERR_FILENO)) return;
  draw(total_);
  watcher_ = std::thread([this] {
    std::unique_lock guard(lock_);
    while (!wake_.wait_for(guard, kRedrawInterval, [this] { return done_; })) {
      guard.unlock();
      draw(countEntries(path_));
      guard.lock();
    }
  });
}

FolderProgress::~FolderProgress() {
  if (!watcher_.joinable()) return;
  {
    std::lock_guard guard(lock_);
    done_ = true;
  }
  wake_.notify_one();
  watcher_.join();
  draw(countEntries(path_));
  std::fputc('\n', stderr);
}

void FolderProgress::draw(uint64_t left) const {
  const uint64_t removed = left < total_ ? total_ - left : 0;
  const int filled = static_cast<int>(removed * kWidth / total_);
  std::fprintf(stderr, "\r[%.*s%.*s] %3d%%  %llu of %llu entries", filled,
               "########################################", kWidth - filled,
               "........................................", static_cast<int>(removed * 100 / total_),
               static_cast<unsigned long long>(removed), static_cast<unsigned long long>(total_));
  std::fflush(stderr);
}

}  // namespace nk::cli
