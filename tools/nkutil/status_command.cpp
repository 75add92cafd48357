// nkutil status: one screen of what the library knows about this process and machine.
#include <CLI/App.hpp>
#include <memory>
#include <string>

#include "nk/environment/global_utils.hpp"
#include "nk/foundation/format.hpp"
#include "nk/foundation/number.hpp"
#include "nk/foundation/version.hpp"
#include "nk/system/bundle.hpp"
#include "nk/system/locale.hpp"
#include "nk/system/process_info.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/output.hpp"

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
