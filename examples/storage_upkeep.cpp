// Storage upkeep in a host: a download leaves files in the cache, the host listens for
// the cache-clear notifications on the main queue, clears the download folder, and
// hears how it went.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include <nk/dispatch/run_loop.hpp>
#include <nk/foundation/array.hpp>
#include <nk/foundation/dictionary.hpp>
#include <nk/foundation/number.hpp>
#include <nk/storage/file_system_helper.hpp>
#include <nk/system/file_manager.hpp>
#include <nk/system/notification_center.hpp>

namespace {

// The last component of the path a notification carries.
std::string clearedFolder(const nk::Notification* notification) {
  auto path = nk::cast<nk::String>(
      notification->userInfo()->objectForKey(nk::kUtilsCacheDirectoryClearPath()));
  std::string text = path ? path->utf8() : "";
  return text.substr(text.rfind('/') + 1);
}

size_t entriesIn(const nk::String* path) {
  nk::Ref<nk::Array> names =
      nk::FileManager::defaultManager()->contentsOfDirectoryAtPath(path, nullptr);
  return names ? names->count() : 0;
}

}  // namespace

int main() {
  // Made by its getter: Cache/download/Queue, under $XDG_CACHE_HOME/<bundle id>/.
  nk::Ref<nk::String> queue = nk::NKFileSystemHelper::getTempQueueItemDir();
  for (const char* name : {"part-1", "part-2"})
    std::ofstream(queue->utf8() + "/" + name) << "bytes";

  nk::NotificationCenter* center = nk::NotificationCenter::defaultCenter();
  nk::Id willClear = center->addObserver(
      nk::kUtilsCacheDirectoryWillClearNotification(), nullptr,
      [](const nk::Notification* n) { std::printf("clearing %s\n", clearedFolder(n).c_str()); });
  bool heard = false;
  nk::Id didClear = center->addObserver(
      nk::kUtilsCacheDirectoryDidClearNotification(), nullptr, [&heard](const nk::Notification* n) {
        auto success = nk::cast<nk::Number>(
            n->userInfo()->objectForKey(nk::kUtilsCacheDirectoryClearSuccess()));
        std::printf("cleared %s: %s\n", clearedFolder(n).c_str(),
                    success && success->boolValue() ? "everything went" : "something stayed");
        heard = true;
      });

  // Synchronous; the notifications are posted to the main queue and arrive once the
  // main loop runs (a GTK or Qt host's loop does this by itself).
  const bool cleared = nk::NKFileSystemHelper::clearTempDownloadDir();
  using namespace std::chrono_literals;
  nk::RunLoop::main().runUntil([&heard] { return heard; }, 10s);
  center->removeObserver(willClear.get());
  center->removeObserver(didClear.get());

  nk::Ref<nk::URL> download = nk::NKFileSystemHelper::getTempDownloadDir();
  std::printf("download now holds %zu entries\n", entriesIn(download->path().get()));
  return cleared && heard ? 0 : 1;
}
