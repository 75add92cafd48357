// nkutil json: reads JSON with the library's reader and writes it back with its
// writer, so people see what the client would make of a document.
#include <CLI/App.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nk/foundation/json_reader.hpp"
#include "nk/foundation/json_writer.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/output.hpp"

namespace nk::cli {

namespace {

struct JsonOptions {
  bool pretty = false;
  bool sorted = false;
  std::string file;  // empty or "-": standard input
};

// Everything `in` holds; nullopt (errno set) when reading fails.
std::optional<std::vector<uint8_t>> readAll(FILE* in) {
  std::vector<uint8_t> bytes;
  uint8_t buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, in)) > 0)
    bytes.insert(bytes.end(), buffer, buffer + n);
  if (std::ferror(in)) return std::nullopt;
  return bytes;
}

int runJson(const JsonOptions& options) {
  const bool fromStdin = options.file.empty() || options.file == "-";
  const std::string name = fromStdin ? "standard input" : options.file;
  FILE* in = fromStdin ? stdin : std::fopen(options.file.c_str(), "rb");
  if (!in) return fail("Cannot open " + name + ": " + std::strerror(errno) + ".");
  std::optional<std::vector<uint8_t>> bytes = readAll(in);
  const int readErrno = errno;
  if (!fromStdin) std::fclose(in);
  if (!bytes) return fail("Cannot read " + name + ": " + std::strerror(readErrno) + ".");

  // A lone value ("3", "\"text\"") is a document people pass too.
  Ref<Error> error;
  Id object = readJSON(*bytes, kJSONReadingFragmentsAllowed, &error);
  if (!object) return fail(name + ": " + error->localizedDescription()->utf8());

  unsigned writing = kJSONWritingFragmentsAllowed;
  if (options.pretty) writing |= kJSONWritingPrettyPrinted;
  if (options.sorted) writing |= kJSONWritingSortedKeys;
  return printJSON(object.get(), writing);
}

}  // namespace

void addJsonCommand(CLI::App& app, CommandAction& action) {
  CLI::App* json =
      app.add_subcommand("json", "Read a JSON document as the client does and write it back");
  auto options = std::make_shared<JsonOptions>();
  json->add_flag("--pretty", options->pretty, "Indent the output");
  json->add_flag("--sorted", options->sorted, "Order the keys of each object");
  json->add_option("FILE", options->file, "The document; standard input when absent or \"-\"");
  json->callback([&action, options] { action = [options] { return runJson(*options); }; });
}

}  // namespace nk::cli
