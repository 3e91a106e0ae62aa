// What keladm and the recorder have in common on their command lines: commands, help, and how they end.
#ifndef KELADM_COMMANDLINE_H
#define KELADM_COMMANDLINE_H

#include <functional>
#include <string>

namespace CLI {
class App;
class Success;
} // namespace CLI

// Carries out a command whose options have been read; gives the exit status, or throws Failure.
using Command = std::function<int()>;

// Shows what --help and --version ask for: the exit status. Throws as Output::Flush does.
int ShowHelp(const CLI::App &app, const CLI::Success &help);

// Carries out command. Why it has failed goes through report, which gives the exit status back; a reader
// that has gone and a stop signal are no failures.
int CarryOut(const Command &command, const std::function<int(int status, const std::string &why)> &report);

// An option that commands of several programs have, in one form.
void AddCatalogueOption(CLI::App &command, std::string *file);

#endif
