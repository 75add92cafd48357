// nkutil json: reads JSON with the library's reader and writes it back with its
// writer, so people see what the client would make of a document.
#include <CLI/App.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nk/foundation/json_reader.hpp"
#include "nk/foundation/json_writer.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/output.hpp"
#include "tools/nkutil/read_input.hpp"

namespace nk::cli {

namespace {

struct JsonOptions {
  bool pretty = false;
  bool sorted = false;
  std::string file;  // empty or "-": standard input
};

int runJson(const JsonOptions& options) {
  std::optional<std::vector<uint8_t>> bytes = readInput(options.file);
  if (!bytes) return kExitFailed;

  // A lone value ("3", "\"text\"") is a document people pass too.
  Ref<Error> error;
  Id object = readJSON(*bytes, kJSONReadingFragmentsAllowed, &error);
  if (!object) return fail(inputName(options.file) + ": " + error->localizedDescription()->utf8());

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
