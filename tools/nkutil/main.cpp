// nkutil: what a support engineer runs to see the client's environment.
#include <cstdio>
#include <cstring>
#include <string_view>
#include <thread>

#include "nk/foundation/version.hpp"

namespace {

void printUsage(FILE* out) {
  std::fputs(
      "Usage: nkutil [status | --version | --help]\n"
      "\n"
      "  status     show what the library can report about this machine (default)\n"
      "  --version  print the library version\n",
      out);
}

int status() {
  std::string_view version = nk::libraryVersion();
  std::printf("nkutils %.*s\n", static_cast<int>(version.size()), version.data());
  std::printf("processors: %u\n", std::thread::hardware_concurrency());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || std::strcmp(argv[1], "status") == 0) return status();
  if (std::strcmp(argv[1], "--version") == 0) {
    std::string_view version = nk::libraryVersion();
    std::printf("%.*s\n", static_cast<int>(version.size()), version.data());
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
