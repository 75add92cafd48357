// The command groups of nkutil. Each adds its subcommands to the application; when
// parsing picks one of them, it stores that command's work in the action.
#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace nk::cli {

// The work of the command the user chose, run once parsing has succeeded; returns
// the exit code.
using CommandAction = std::function<int()>;

// nkutil status [--json]
void addStatusCommand(CLI::App& app, CommandAction& action);
// nkutil json [--pretty] [--sorted] [FILE]
void addJsonCommand(CLI::App& app, CommandAction& action);
// nkutil format size BYTES [--binary] | duration SECONDS
void addFormatCommands(CLI::App& app, CommandAction& action);
// nkutil url query | authority | append URL ...
void addURLCommands(CLI::App& app, CommandAction& action);
// nkutil paths [--group ID] [--json]
void addPathsCommand(CLI::App& app, CommandAction& action);
// nkutil cache clear [SUBFOLDER] | cache sweep | logs clear, each [--dry-run]
void addUpkeepCommands(CLI::App& app, CommandAction& action);
// nkutil secret [--backend NAME] get | set | delete KEY ...
void addSecretCommands(CLI::App& app, CommandAction& action);
// nkutil reach [TARGET] [--watch] [--json]
void addReachCommand(CLI::App& app, CommandAction& action);

// The work of `nkutil status`, which is also what nkutil does without a command.
int runStatus(bool json);

}  // namespace nk::cli
