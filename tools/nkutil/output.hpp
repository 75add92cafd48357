// How nkutil answers: text for people or JSON for scripts, exit codes, and errors
// on standard error as one sentence each.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/object.hpp"

namespace CLI {
class App;
}

namespace nk::cli {

// What nkutil exits with; scripts rely on these.
enum ExitCode : int {
  kExitDone = 0,
  kExitFailed = 1,  // the thing asked about is absent, or the operation failed
  kExitUsage = 2,   // the command line is wrong
};

// Writes "nkutil: <sentence>" and a newline to standard error; returns kExitFailed.
int fail(std::string_view sentence);

// Gives `command` the --json flag, which sets `json`.
void addJsonFlag(CLI::App& command, bool& json);

// Prints `object` with the library's JSON writer and `options` (JSONWritingOptions;
// "/" is never escaped), then a newline. kExitFailed, with the writer's reason, when
// it refuses the object.
int printJSON(const Object* object, unsigned options);

// Prints one answer: for people as Report shows a value, for scripts as a JSON value
// (a string becomes a quoted JSON string).
int printValue(const Id& value, bool json);

// A byte count as the client shows it to people ("1.5 MB").
std::string sizeText(int64_t bytes);

// Named facts, printed as aligned "label   value" lines for people, or as one JSON
// object (keys in the order added) for scripts.
class Report {
 public:
  Report();

  // In text, a string shows as itself, a Boolean as "yes" or "no", nil and Null as
  // "(none)", anything else as its description. In JSON, nil is null.
  void add(std::string_view key, std::string_view label, const Id& value);
  // The same with a text of its own for people.
  void add(std::string_view key, std::string_view label, const Id& value, std::string text);

  // Prints the report to standard output; kExitDone unless writing fails.
  int print(bool json) const;

 private:
  Ref<MutableDictionary> fields_;
  std::vector<std::pair<std::string, std::string>> lines_;
};

}  // namespace nk::cli
