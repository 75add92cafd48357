// nkutil status: one screen of what the library knows about this process and machine.
#include <CLI/App.hpp>
#include <memory>
#include <string>

#include "nk/environment/global_utils.hpp"
#include "nk/foundation/format.hpp"
#include "nk/foundation/null.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/version.hpp"
#include "nk/keychain/keychain_backend.hpp"
#include "nk/reachability/reachability.hpp"
#include "nk/system/bundle.hpp"
#include "nk/system/locale.hpp"
#include "nk/system/process_info.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/folder_contents.hpp"
#include "tools/nkutil/output.hpp"
#include "tools/nkutil/reachability_answer.hpp"
#include "tools/nkutil/storage_instances.hpp"

namespace nk::cli {

namespace {

struct Direction {
  const char* key;   // for scripts
  const char* text;  // for people
};

Direction directionOf(LanguageDirection direction) {
  switch (direction) {
    case LanguageDirection::kLeftToRight:
      return {"ltr", "left to right"};
    case LanguageDirection::kRightToLeft:
      return {"rtl", "right to left"};
    case LanguageDirection::kTopToBottom:
      return {"ttb", "top to bottom"};
    case LanguageDirection::kBottomToTop:
      return {"btt", "bottom to top"};
    case LanguageDirection::kUnknown:
      break;
  }
  return {"unknown", "unknown"};
}

// Each storage root: where it is, and whether it exists and with how many bytes,
// looked at without making it.
void addStorageRoots(Report& report) {
  for (const StorageInstance& instance : storageInstances()) {
    Ref<URL> root = storageRoot(*instance.helper);
    Ref<String> path = root ? root->path() : nullptr;
    const FolderContents contents = listFolder(path ? path->utf8() : std::string());
    const auto bytes = static_cast<int64_t>(contents.totalBytes());
    Ref<Dictionary> value =
        Dictionary::make({{NK_STR("path"), path ? Id(path) : Id(Null::null())},
                          {NK_STR("exists"), Number::withBool(contents.isFolder)},
                          {NK_STR("bytes"), Number::withLongLong(bytes)}});
    std::string text = "(none)";
    if (path) {
      text = path->utf8() + " (" + (contents.isFolder ? sizeText(bytes) : std::string("missing")) +
             ")";
    }
    report.add(std::string(instance.key) + "Root", std::string(instance.label) + " root", value,
               std::move(text));
  }
}

void addSecretStore(Report& report) {
  const KeychainBackendStatus store = keychainBackendStatus();
  report.add("secretStore", "secret store",
             Dictionary::make({{NK_STR("backend"), String::fromUTF8(store.name)},
                               {NK_STR("reason"), String::fromUTF8(store.reason)},
                               {NK_STR("location"), String::fromUTF8(store.location)}}),
             store.name + " at " + store.location + ", as " + store.reason);
  report.add("secretStoreAnswers", "secret store answers", Number::withBool(store.answering));
}

void addInternet(Report& report) {
  Ref<NKReachability> internet = NKReachability::reachabilityForInternetConnection();
  const ReachabilityAnswer answer = reachabilityAnswer(*internet);
  report.add("internet", "internet", answer.json(), answer.text());
}

}  // namespace

int runStatus(bool json) {
  Ref<Bundle> bundle = Bundle::mainBundle();
  OperatingSystemVersion os = ProcessInfo::processInfo()->operatingSystemVersion();
  Ref<Locale> locale = Locale::current();
  Direction direction = directionOf(Locale::characterDirection(locale->languageCode().get()));

  Report report;
  report.add("libraryVersion", "library version", String::fromUTF8(libraryVersion()));
  report.add("mainBundle", "main bundle", bundle ? Id(bundle->bundlePath()) : nullptr);
  report.add("bundleIdentifier", "bundle identifier",
             bundle ? Id(bundle->bundleIdentifier()) : nullptr);
  report.add("systemVersion", "system version",
             format("%ld.%ld.%ld", os.majorVersion, os.minorVersion, os.patchVersion));
  report.add("deviceName", "device name", NKGlobalUtils::getDeviceNameForRemote());
  report.add("locale", "locale", locale->localeIdentifier());
  report.add("textDirection", "text direction", String::fromUTF8(direction.key), direction.text);
  report.add("beta", "beta build", Number::withBool(NKGlobalUtils::isBetaApp()));
  addStorageRoots(report);
  addSecretStore(report);
  addInternet(report);
  return report.print(json);
}

void addStatusCommand(CLI::App& app, CommandAction& action) {
  CLI::App* status =
      app.add_subcommand("status", "What the library knows about this process and machine");
  auto json = std::make_shared<bool>(false);
  addJsonFlag(*status, *json);
  status->callback([&action, json] { action = [json] { return runStatus(*json); }; });
}

}  // namespace nk::cli
