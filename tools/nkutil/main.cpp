// nkutil: what a support engineer runs to see the client's environment.
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "nk/foundation/format.hpp"
#include "nk/foundation/version.hpp"
#include "nk/system/bundle.hpp"
#include "nk/system/locale.hpp"
#include "nk/system/process_info.hpp"
#include "nk/system/xdg_directories.hpp"

namespace {

void printUsage(FILE* out) {
  std::fputs(
      "Usage: nkutil [status | --version | --help]\n"
      "\n"
      "  status     show what the library can report about this machine (default)\n"
      "  --version  print the library version\n",
      out);
}

std::string text(const nk::Ref<nk::String>& s, const char* absent = "(none)") {
  return s ? s->utf8() : absent;
}

const char* directionName(nk::LanguageDirection d) {
  switch (d) {
    case nk::LanguageDirection::kLeftToRight:
      return "left to right";
    case nk::LanguageDirection::kRightToLeft:
      return "right to left";
    case nk::LanguageDirection::kTopToBottom:
      return "top to bottom";
    case nk::LanguageDirection::kBottomToTop:
      return "bottom to top";
    default:
      return "unknown";
  }
}

int status() {
  nk::ProcessInfo* process = nk::ProcessInfo::processInfo();
  nk::OperatingSystemVersion os = process->operatingSystemVersion();
  nk::Ref<nk::Bundle> bundle = nk::Bundle::mainBundle();
  nk::Ref<nk::Locale> locale = nk::Locale::current();
  nk::Ref<nk::String> language = locale->languageCode();

  std::printf("library version     %s\n", std::string(nk::libraryVersion()).c_str());
  std::printf("main bundle         %s\n", text(bundle ? bundle->bundlePath() : nullptr).c_str());
  std::printf("bundle identifier   %s\n",
              text(bundle ? bundle->bundleIdentifier() : nullptr).c_str());
  std::printf("system version      %ld.%ld.%ld\n", os.majorVersion, os.minorVersion,
              os.patchVersion);
  std::printf("computer name       %s\n", text(process->computerName()).c_str());
  std::printf("locale              %s (%s)\n", text(locale->localeIdentifier()).c_str(),
              directionName(nk::Locale::characterDirection(language.get())));
  std::printf("temporary folder    %s\n", text(nk::temporaryDirectory()).c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "status") == 0) return status();
  if (std::strcmp(argv[1], "--version") == 0) {
    std::printf("%s\n", std::string(nk::libraryVersion()).c_str());
    return 0;
  }
  if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
    printUsage(stdout);
    return 0;
  }
  std::fprintf(stderr, "nkutil: unknown command '%s'.\n", argv[1]);
  printUsage(stderr);
  return 2;
}
