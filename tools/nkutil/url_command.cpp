// nkutil url: the client's URL helpers, for people checking what a link carries.
#include <CLI/App.hpp>
#include <CLI/Validators.hpp>
#include <memory>
#include <string>
#include <vector>

#include "nk/foundation/dictionary.hpp"
#include "nk/foundation/exception.hpp"
#include "nk/foundation/url.hpp"
#include "nk/helpers/url_helpers.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/output.hpp"

namespace nk::cli {

namespace {

struct URLOptions {
  std::string url;
  std::vector<std::string> parameters;  // KEY=VALUE, for append
  bool json = false;
};

// A URL the library cannot parse is a mistake on the command line.
const CLI::Validator kValidURL(
    [](const std::string& text) {
      return URL::fromString(std::string_view(text)) ? std::string()
                                                     : "\"" + text + "\" is not a valid URL";
    },
    "URL");

const CLI::Validator kKeyValue(
    [](const std::string& text) {
      if (text.find('=') == std::string::npos)
        return "\"" + text + "\" is not of the form KEY=VALUE";
      return String::fromUTF8(text) ? std::string() : "\"" + text + "\" is not UTF-8 text";
    },
    "KEY=VALUE");

int runQuery(const URLOptions& options) {
  Ref<URL> url = URL::fromString(std::string_view(options.url));
  if (!url->query()) return fail(options.url + " has no query.");
  Ref<Dictionary> parameters;
  try {
    parameters = vnk_queryParameters(url.get());
  } catch (const ThrownObject&) {
    return fail("The query has a key that is not valid percent-encoded UTF-8.");
  }
  Report report;
  for (const auto& [key, value] : parameters->entries()) {
    std::string name = cast<String>(key)->utf8();
    report.add(name, name, value);
  }
  return report.print(options.json);
}

int runAuthority(const URLOptions& options) {
  return printValue(
      vnk_authorityStringRepresentation(URL::fromString(std::string_view(options.url)).get()),
      options.json);
}

int runAppend(const URLOptions& options) {
  auto parameters = MutableDictionary::make();
  for (const std::string& pair : options.parameters) {
    size_t equals = pair.find('=');
    parameters->setObjectForKey(String::fromUTF8(std::string_view(pair).substr(equals + 1)),
                                String::fromUTF8(std::string_view(pair).substr(0, equals)));
  }
  Ref<URL> url = vnk_URLByAppendingQueryParameters(
      URL::fromString(std::string_view(options.url)).get(), parameters.get());
  if (!url) return fail("The result is not a valid URL; percent-encode the keys and values first.");
  return printValue(url->absoluteString(), options.json);
}

// Adds `name` with its URL argument and --json; `run` is its work.
CLI::App* addURLCommand(CLI::App& url, const char* name, const char* description,
                        const std::shared_ptr<URLOptions>& options, CommandAction& action,
                        int (*run)(const URLOptions&)) {
  CLI::App* command = url.add_subcommand(name, description);
  command->add_option("URL", options->url, "An absolute URL")->required()->check(kValidURL);
  addJsonFlag(*command, options->json);
  command->callback([&action, options, run] { action = [options, run] { return run(*options); }; });
  return command;
}

}  // namespace

void addURLCommands(CLI::App& app, CommandAction& action) {
  CLI::App* url = app.add_subcommand("url", "URLs taken apart and put together as the client does");
  url->require_subcommand(1);
  auto options = std::make_shared<URLOptions>();
  addURLCommand(*url, "query", "The query's parameters, percent-decoded", options, action,
                runQuery);
  addURLCommand(*url, "authority", "The scheme, host and port alone", options, action,
                runAuthority);
  CLI::App* append =
      addURLCommand(*url, "append", "The URL with parameters added to its query, in order", options,
                    action, runAppend);
  append->add_option("KEY=VALUE", options->parameters, "Parameters, as they are to appear")
      ->required()
      ->check(kKeyValue);
}

}  // namespace nk::cli
