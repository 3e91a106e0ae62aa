// What the subcommands share: how they are added, and their common options.
#ifndef KELADM_COMMANDS_H
#define KELADM_COMMANDS_H

#include "commandLine.h"
#include "failure.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
}

// Each adds its subcommand to app; when the user names it, *chosen becomes what carries it out.
void AddSendCommand(CLI::App &app, Command *chosen);
void AddFeedCommand(CLI::App &app, Command *chosen);
void AddReplayCommand(CLI::App &app, Command *chosen);
void AddReceiveCommand(CLI::App &app, Command *chosen);
void AddTraceCommand(CLI::App &app, Command *chosen);
void AddJournalCommand(CLI::App &app, Command *chosen);
void AddEventsCommand(CLI::App &app, Command *chosen);
void AddExplainCommand(CLI::App &app, Command *chosen);
void AddHostCommand(CLI::App &app, Command *chosen);
void AddStatusCommand(CLI::App &app, Command *chosen);
void AddCompletionCommand(CLI::App &app, Command *chosen);
void AddExternalCommands(CLI::App &app); // for help and completion: RunExternalCommand carries them out

// Options that several subcommands have, in one form.
void AddCountOption(CLI::App &command, std::uint64_t *count, const std::string &what); // at least 1
void AddTimeoutOption(CLI::App &command, std::optional<std::chrono::milliseconds> *timeout);

// The whole program.
int RunKeladm(int argc, char **argv);

#endif
