// nkutil cache clear | cache sweep | logs clear: the library's upkeep of the cache and
// of the logs waiting for upload, with a listing of what is there before and after so
// that people see what went and what stayed.
#include <sys/stat.h>

#include <CLI/App.hpp>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "nk/foundation/array.hpp"
#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/json_writer.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/url.hpp"
#include "nk/storage/file_system_helper.hpp"
#include "tools/nkutil/arguments.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/folder_contents.hpp"
#include "tools/nkutil/folder_progress.hpp"
#include "tools/nkutil/output.hpp"

namespace nk::cli {

namespace {

struct UpkeepOptions {
  std::string subfolder;  // cache clear only; empty: the whole cache
  bool dryRun = false;
  bool json = false;
};

std::string entryText(const FolderEntry& entry) {
  std::string text = entry.path + "  (" + sizeText(static_cast<int64_t>(entry.bytes));
  if (entry.entries > 1) text += ", " + std::to_string(entry.entries) + " entries";
  return text + ")";
}

std::string countText(uint64_t entries, uint64_t bytes) {
  return std::to_string(entries) + (entries == 1 ? " entry" : " entries") + " (" +
         sizeText(static_cast<int64_t>(bytes)) + ")";
}

// What an upkeep command did, or would do with --dry-run.
struct UpkeepAnswer {
  std::string folder;
  bool dryRun = false;
  uint64_t removedEntries = 0;
  uint64_t removedBytes = 0;
  std::vector<FolderEntry> listed;  // --dry-run: what would go
  std::vector<FolderEntry> kept;    // what could not be removed, as it is now
};

Ref<Number> countOf(uint64_t n) { return Number::withUnsignedLongLong(n); }

int printJSONAnswer(const UpkeepAnswer& answer) {
  Ref<MutableArray> kept = MutableArray::make();
  for (const FolderEntry& entry : answer.kept) {
    kept->addObject(Dictionary::make({{NK_STR("path"), String::fromUTF8(entry.path)},
                                      {NK_STR("entries"), countOf(entry.entries)},
                                      {NK_STR("bytes"), countOf(entry.bytes)}}));
  }
  Ref<MutableDictionary> fields = MutableDictionary::make();
  fields->setObjectForKey(String::fromUTF8(answer.folder), NK_STR("folder"));
  fields->setObjectForKey(Number::withBool(answer.dryRun), NK_STR("dryRun"));
  fields->setObjectForKey(countOf(answer.removedEntries), NK_STR("removedEntries"));
  fields->setObjectForKey(countOf(answer.removedBytes), NK_STR("removedBytes"));
  fields->setObjectForKey(kept, NK_STR("notRemoved"));
  return printJSON(fields.get(), kJSONWritingPrettyPrinted);
}

int printTextAnswer(const UpkeepAnswer& answer) {
  for (const FolderEntry& entry : answer.listed) std::printf("%s\n", entryText(entry).c_str());
  std::printf("%s %s from %s.\n", answer.dryRun ? "Would remove" : "Removed",
              countText(answer.removedEntries, answer.removedBytes).c_str(), answer.folder.c_str());
  for (const FolderEntry& entry : answer.kept)
    std::printf("Could not remove %s.\n", entryText(entry).c_str());
  return std::fflush(stdout) == 0 ? kExitDone : fail("Standard output cannot be written.");
}

// Lists what would go, or has `remove` (the library's operation, true when it reports
// success) empty `folder` and tells what went and what stayed.
int runUpkeep(const std::string& folder, const UpkeepOptions& options,
              const std::function<bool()>& remove) {
  const FolderContents before = listFolder(folder);
  UpkeepAnswer answer{folder, options.dryRun, before.totalEntries(), before.totalBytes(), {}, {}};
  bool succeeded = true;
  if (options.dryRun) {
    answer.listed = before.entries;
  } else {
    {
      FolderProgress progress(folder, before.totalEntries());
      succeeded = remove();
    }
    // What stayed is shown as it is now, leaving out what appeared meanwhile. A folder
    // that stayed may have lost part of what it held: that part counts as removed.
    std::set<std::string> seen;
    for (const FolderEntry& entry : before.entries) seen.insert(entry.path);
    FolderContents kept;
    for (const FolderEntry& entry : listFolder(folder).entries)
      if (seen.contains(entry.path)) kept.entries.push_back(entry);
    const auto less = [](uint64_t total, uint64_t part) { return total > part ? total - part : 0; };
    answer.removedEntries = less(before.totalEntries(), kept.totalEntries());
    answer.removedBytes = less(before.totalBytes(), kept.totalBytes());
    answer.kept = std::move(kept.entries);
  }

  const int printed = options.json ? printJSONAnswer(answer) : printTextAnswer(answer);
  if (printed != kExitDone) return printed;
  if (!answer.kept.empty()) {
    const uint64_t left = before.totalEntries() - answer.removedEntries;
    return fail(std::to_string(left) + " of " + std::to_string(before.totalEntries()) +
                " entries could not be removed.");
  }
  if (!succeeded) return fail("Some entries could not be removed at the first attempt.");
  return kExitDone;
}

std::string pathOf(const Ref<URL>& url) { return url ? url->path()->utf8() : std::string(); }

int runCacheClear(const UpkeepOptions& options) {
  Ref<URL> folder = NKFileSystemHelper::getNorvikCacheDir();
  if (!folder) return fail("There is no cache folder: the home folder is not set.");
  Ref<String> subfolder = String::fromUTF8(options.subfolder);
  if (!options.subfolder.empty()) {
    folder = folder->URLByAppendingPathComponent(subfolder.get(), true);
    // The library reports success when there is nothing to clear, even for a name
    // mistyped or a symbolic link, which it does not follow.
    struct stat st;
    if (::lstat(pathOf(folder).c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
      return fail("There is no folder " + options.subfolder + " in the cache.");
  }
  return runUpkeep(pathOf(folder), options, [&subfolder] {
    return NKFileSystemHelper::clearCacheDirWithSubdirectory(subfolder.get());
  });
}

int runCacheSweep(const UpkeepOptions& options) {
  Ref<URL> folder = NKFileSystemHelper::getNorvikCacheDir();
  if (!folder) return fail("There is no cache folder: the home folder is not set.");
  return runUpkeep(pathOf(folder), options, [] {
    NKFileSystemHelper::deleteTempDir();
    return true;  // the sweep reports nothing; what stayed tells
  });
}

int runLogsClear(const UpkeepOptions& options) {
  Ref<String> folder = NKFileSystemHelper::getNorvikLogsToUploadDir();
  if (!folder) return fail("There is no Library folder for the logs: the home folder is not set.");
  return runUpkeep(folder->utf8(), options,
                   [] { return NKFileSystemHelper::clearNorvikLogsToUploadDir(); });
}

// A folder directly in the cache: never a path that could lead out of it.
std::string checkSubfolder(const std::string& name) {
  if (name == "." || name == ".." || name.find('/') != std::string::npos)
    return "SUBFOLDER must name a folder directly in the cache";
  return {};
}

CLI::App* addUpkeep(CLI::App& group, const char* name, const char* description,
                    CommandAction& action, int (*run)(const UpkeepOptions&),
                    const std::shared_ptr<UpkeepOptions>& options) {
  CLI::App* command = group.add_subcommand(name, description);
  command->add_flag("--dry-run", options->dryRun, "List what would be removed; remove nothing");
  addJsonFlag(*command, options->json);
  command->callback([&action, run, options] { action = [run, options] { return run(*options); }; });
  return command;
}

}  // namespace

void addUpkeepCommands(CLI::App& app, CommandAction& action) {
  CLI::App* cache = app.add_subcommand("cache", "Empty the client's cache folder");
  cache->require_subcommand(1);
  auto clearOptions = std::make_shared<UpkeepOptions>();
  CLI::App* clear = addUpkeep(
      *cache, "clear",
      "Remove everything in the cache, or in one folder of it, as the client does (with its "
      "notifications)",
      action, runCacheClear, clearOptions);
  clear
      ->add_option("SUBFOLDER", clearOptions->subfolder,
                   "A folder directly in the cache, such as download")
      ->check(utf8Text())
      ->check(checkSubfolder);
  addUpkeep(*cache, "sweep", "Remove everything in the cache, retrying failed removals", action,
            runCacheSweep, std::make_shared<UpkeepOptions>());

  CLI::App* logs = app.add_subcommand("logs", "Empty the folder of logs waiting for upload");
  logs->require_subcommand(1);
  addUpkeep(*logs, "clear", "Remove every log waiting for upload", action, runLogsClear,
            std::make_shared<UpkeepOptions>());
}

}  // namespace nk::cli
