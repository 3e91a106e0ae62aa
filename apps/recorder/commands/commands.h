// The recorder and its questions are one program, which is told by its name which of them it is.
#ifndef RECORDER_COMMANDS_H
#define RECORDER_COMMANDS_H

#include "commandLine.h"
#include "failure.h"

#include <cstdint>
#include <string>

namespace CLI {
class App;
}

// Each gives app its options; parsing makes *chosen what carries it out.
void AddRecordCommand(CLI::App &app, Command *chosen);
void AddLogCommand(CLI::App &app, Command *chosen);
void AddWhyCommand(CLI::App &app, Command *chosen);
void AddLedgerCommand(CLI::App &app, Command *chosen);
void AddOpenCommand(CLI::App &app, Command *chosen);

// Options that several commands have, in one form.
void AddFileOption(CLI::App &app, std::string *file);
void AddTimeOptions(CLI::App &app, std::string *since, std::string *until);

// What may follow in a shell: one word a line, options of app or values of the option before. Never fails.
int Complete(const CLI::App &app, const std::string &before, const std::string &word);

// Wall clock, microseconds since the epoch.
std::uint64_t WallMicroseconds();

int RunRecorder(int argc, char **argv);

#endif
