// nkutil secret get | set | delete: the client's secrets, through NKKeychainUtils, so
// they are archived, kept and decoded exactly as the client keeps them.
#include <CLI/App.hpp>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nk/foundation/data.hpp"
#include "nk/foundation/json_reader.hpp"
#include "nk/keychain/keychain_utils.hpp"
#include "nk/system/bundle.hpp"
#include "tools/nkutil/arguments.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/output.hpp"
#include "tools/nkutil/read_input.hpp"

namespace nk::cli {

namespace {

// Where `set` takes its value from.
enum class ValueSource { kText, kJSON, kFile };

struct SecretOptions {
  std::string backend;  // empty: the library chooses
  std::string key;
  ValueSource source = ValueSource::kText;
  std::string value;  // set: the text, the JSON or the file's name
  bool printJSON = false;
};

// Secrets are kept under the main bundle's identifier: without one, the library
// would fail every operation silently.
bool hasBundleIdentifier() {
  Ref<Bundle> bundle = Bundle::mainBundle();
  if (bundle && bundle->bundleIdentifier()) return true;
  fail(
      "There is no main bundle identifier to keep secrets under: set NK_MAIN_BUNDLE to the "
      "client's folder, whose Info.plist has CFBundleIdentifier.");
  return false;
}

std::string quoted(const std::string& key) { return "\"" + key + "\""; }

// The value `set` was given; nil after reporting why it cannot be read.
Id valueToStore(const SecretOptions& options) {
  const std::string& given = options.value;
  switch (options.source) {
    case ValueSource::kText:
      return String::fromUTF8(given);
    case ValueSource::kJSON: {
      Ref<Error> error;
      Id value = readJSON({reinterpret_cast<const uint8_t*>(given.data()), given.size()},
                          kJSONReadingFragmentsAllowed, &error);
      if (!value) fail("The JSON value: " + error->localizedDescription()->utf8());
      return value;
    }
    case ValueSource::kFile: {
      std::optional<std::vector<uint8_t>> bytes = readInput(given);
      return bytes ? Id(Data::fromVector(std::move(*bytes))) : nullptr;
    }
  }
  return nullptr;
}

int runGet(const SecretOptions& options) {
  // Data widens the allow-list, so that what `set --from-file` stored comes back.
  Id value = NKKeychainUtils::getKeychainObjectForKeyOfClassType(
      String::fromUTF8(options.key).get(), &Data::staticClass());
  if (!value)
    return fail("No secret is kept under " + quoted(options.key) + ", or it cannot be decoded.");
  auto bytes = cast<Data>(value);
  if (!bytes) return printValue(value, options.printJSON);
  // JSON has no bytes: they go as Base64 text, under a key that says so.
  if (options.printJSON)
    return printValue(Dictionary::make({{NK_STR("base64"), bytes->base64Encoded()}}), true);
  // Bytes go out as they were stored, so that a file comes back whole.
  std::fwrite(bytes->bytes(), 1, bytes->length(), stdout);
  return std::fflush(stdout) == 0 ? kExitDone : fail("Standard output cannot be written.");
}

int runSet(const SecretOptions& options) {
  Id value = valueToStore(options);
  if (!value) return kExitFailed;
  if (!NKKeychainUtils::setKeychainObjectForKey(value.get(), String::fromUTF8(options.key).get()))
    return fail("The secret store did not keep " + quoted(options.key) + ".");
  return kExitDone;
}

int runDelete(const SecretOptions& options) {
  if (!NKKeychainUtils::deleteKeychainObjectForKey(String::fromUTF8(options.key).get()))
    return fail("No secret is kept under " + quoted(options.key) + ".");
  return kExitDone;
}

CLI::App* addSecretSubcommand(CLI::App& secret, const char* name, const char* description,
                              CommandAction& action, int (*run)(const SecretOptions&),
                              const std::shared_ptr<SecretOptions>& options) {
  CLI::App* command = secret.add_subcommand(name, description);
  command->add_option("KEY", options->key, "The name of the secret")->required()->check(utf8Text());
  // --backend may come after the subcommand too.
  command->fallthrough();
  command->callback([&action, run, options] {
    action = [run, options] {
      if (!options->backend.empty()) ::setenv("NK_KEYCHAIN_BACKEND", options->backend.c_str(), 1);
      return hasBundleIdentifier() ? run(*options) : kExitFailed;
    };
  });
  return command;
}

}  // namespace

void addSecretCommands(CLI::App& app, CommandAction& action) {
  CLI::App* secret = app.add_subcommand(
      "secret", "The client's secrets, archived and kept as the library keeps them");
  secret->require_subcommand(1);
  auto options = std::make_shared<SecretOptions>();
  secret
      ->add_option("--backend", options->backend,
                   "The secret store to use, instead of the one the library chooses "
                   "(sets NK_KEYCHAIN_BACKEND)")
      ->check(CLI::IsMember({"secret-service", "file"}));

  CLI::App* get = addSecretSubcommand(
      *secret, "get", "Print the decoded secret (stored bytes are written as they are)", action,
      runGet, options);
  addJsonFlag(*get, options->printJSON);

  CLI::App* set = addSecretSubcommand(
      *secret, "set", "Keep a value under KEY, replacing what was there", action, runSet, options);
  CLI::Option* text =
      set->add_option("VALUE", options->value, "The value, as text")->check(utf8Text(true));
  CLI::Option* json =
      set->add_option("--from-json", options->value, "The value, as a JSON document or lone value");
  CLI::Option* file = set->add_option("--from-file", options->value,
                                      "The value, as the bytes of a file (\"-\": standard input)");
  set->parse_complete_callback([options, text, json, file] {
    if (text->count() + json->count() + file->count() != 1)
      throw CLI::ValidationError("Give the value once: as VALUE, --from-json or --from-file");
    options->source = json->count()   ? ValueSource::kJSON
                      : file->count() ? ValueSource::kFile
                                      : ValueSource::kText;
  });

  addSecretSubcommand(*secret, "delete", "Remove the secret kept under KEY", action, runDelete,
                      options);
}

}  // namespace nk::cli
