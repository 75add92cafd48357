// Files and standard input, read whole.
#include "tools/nkutil/read_input.hpp"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "tools/nkutil/output.hpp"

namespace nk::cli {

namespace {

bool isStdin(const std::string& file) { return file.empty() || file == "-"; }

}  // namespace

std::string inputName(const std::string& file) { return isStdin(file) ? "standard input" : file; }

std::optional<std::vector<uint8_t>> readInput(const std::string& file) {
  FILE* in = isStdin(file) ? stdin : std::fopen(file.c_str(), "rb");
  if (!in) {
    fail("Cannot open " + inputName(file) + ": " + std::strerror(errno) + ".");
    return std::nullopt;
  }
  std::vector<uint8_t> bytes;
  uint8_t buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0)
    bytes.insert(bytes.end(), buffer, buffer + n);
  const bool failed = std::ferror(in);
  const int readErrno = errno;
  if (in != stdin) std::fclose(in);
  if (failed) {
    fail("Cannot read " + inputName(file) + ": " + std::strerror(readErrno) + ".");
    return std::nullopt;
  }
  return bytes;
}

}  // namespace nk::cli
