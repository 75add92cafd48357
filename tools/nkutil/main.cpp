// nkutil: what a support engineer or a client developer runs on a user's machine to
// see and repair the client's environment. Parses the command line and runs the
// chosen command; without one, it shows the status.
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <exception>
#include <string>

#include "nk/foundation/log.hpp"
#include "nk/foundation/version.hpp"
#include "tools/nkutil/commands.hpp"
#include "tools/nkutil/output.hpp"

namespace {

// "nkutil format size": the commands the parser had reached.
std::string commandPath(const CLI::App& app) {
  std::string path = app.get_name();
  for (const CLI::App* sub = &app; !sub->get_subcommands().empty();) {
    sub = sub->get_subcommands().front();
    path += " " + sub->get_name();
  }
  return path;
}

// Lets the application's own options, such as --verbose, come after any subcommand.
void passUnknownOptionsUp(CLI::App& app) {
  for (CLI::App* sub : app.get_subcommands({})) {
    sub->fallthrough();
    passUnknownOptionsUp(*sub);
  }
}

}  // namespace

int main(int argc, char** argv) {
  using namespace nk::cli;
  CLI::App app("See and repair the environment of the file-sharing client on this machine.",
               "nkutil");
  app.set_version_flag("--version", std::string(nk::libraryVersion()),
                       "Print the library version and exit");
  app.require_subcommand(0, 1);
  bool verbose = false;
  app.add_flag("--verbose", verbose, "Also write the library's log messages to standard error");
  // Subcommands take the footer the application has when they are added.
  const std::string exitStatus =
      "Exit status: 0 done, 1 what was asked about is absent or failed, 2 the command line is "
      "wrong.";
  app.footer(exitStatus);

  CommandAction action;
  addStatusCommand(app, action);
  addJsonCommand(app, action);
  addFormatCommands(app, action);
  addURLCommands(app, action);
  addPathsCommand(app, action);
  addUpkeepCommands(app, action);
  addSecretCommands(app, action);
  addReachCommand(app, action);
  app.footer("Without a command, nkutil shows the status. " + exitStatus);
  passUnknownOptionsUp(app);

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    const std::string path = commandPath(app);
    fail(std::string(e.what()) + " (see " + path + " --help).");
    return kExitUsage;
  }

  // The library logs what a long-running client wants on record, such as where the
  // secret store keeps items; in a one-off command it would only blur the answer.
  if (!verbose) nk::setLogSink([](std::string_view) {});
  try {
    return action ? action() : runStatus(false);
  } catch (const std::exception& e) {
    // What the library raises (a ThrownObject) reads as its reason.
    return fail(e.what());
  }
}
