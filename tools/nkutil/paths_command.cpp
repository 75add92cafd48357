// nkutil paths: every folder of the storage layout, as the client works it out now.
#include <CLI/App.hpp>
#include <memory>
#include <string>

#include "nk/foundation/url.hpp"
#include "nk/storage/file_system_helper.hpp"
#include "tools/nkutil/arguments.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/output.hpp"
#include "tools/nkutil/storage_instances.hpp"

namespace nk::cli {

namespace {

struct PathsOptions {
  std::string group;  // empty: the instances keep the Library base
  bool json = false;
};

Id pathOf(const Ref<URL>& url) { return url ? Id(url->path()) : nullptr; }

int runPaths(const PathsOptions& options) {
  Ref<String> group = options.group.empty() ? nullptr : String::fromUTF8(options.group);
  if (group && !NKFileSystemHelper::applicationGroupDirectory(group.get())) {
    return fail("\"" + options.group +
                "\" cannot name an application group, so it has no container.");
  }
  Report report;
  for (const StorageInstance& instance : storageInstances()) {
    if (group) instance.helper->configure(group.get());
    const std::string key = instance.key;
    const std::string label = instance.label;
    report.add(key + "Base", label + " base", pathOf(instance.helper->baseURL()));
    report.add(key + "Root", label + " root", pathOf(storageRoot(*instance.helper)));
  }
  // The cache, the download queue and the upload folder are made by their getters, as
  // they are when the client asks.
  report.add("library", "Library", pathOf(NKFileSystemHelper::applicationLibraryDirectory()));
  report.add("documents", "Documents",
             pathOf(NKFileSystemHelper::applicationPublicDocumentsDirectory()));
  report.add("cache", "cache", pathOf(NKFileSystemHelper::getNorvikCacheDir()));
  report.add("download", "downloads", pathOf(NKFileSystemHelper::getTempDownloadDir()));
  report.add("downloadQueue", "download queue", NKFileSystemHelper::getTempQueueItemDir());
  report.add("logs", "logs", NKFileSystemHelper::getNorvikLogsDirForWrappedApp(false));
  report.add("wrappedAppLogs", "wrapped-app logs",
             NKFileSystemHelper::getNorvikLogsDirForWrappedApp(true));
  report.add("logsToUpload", "logs to upload", NKFileSystemHelper::getNorvikLogsToUploadDir());
  return report.print(options.json);
}

}  // namespace

void addPathsCommand(CLI::App& app, CommandAction& action) {
  CLI::App* paths =
      app.add_subcommand("paths", "Every folder of the storage layout, for each storage instance");
  auto options = std::make_shared<PathsOptions>();
  paths
      ->add_option("--group", options->group,
                   "Configure every instance with this application group, whose container "
                   "becomes their base (and is made, as in the client)")
      ->check(utf8Text());
  addJsonFlag(*paths, options->json);
  paths->callback([&action, options] { action = [options] { return runPaths(*options); }; });
}

}  // namespace nk::cli
