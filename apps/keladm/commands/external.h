// Subcommands that are programs of their own, because they need more than the tools' own package does.
#ifndef KELADM_EXTERNAL_H
#define KELADM_EXTERNAL_H

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct ExternalCommand {
    const char *name; // its program is keladm-<name>
    const char *package;
    const char *description;
};

// All that there are, installed or not: help and completion show every one.
std::span<const ExternalCommand> ExternalCommands();

// Becomes the program keladm-<name>, beside this one in a build, in ../libexec/keld when installed.
// Throws Failure, naming the package that has it, when the program is not there.
[[noreturn]] void BecomeProgram(const std::string &name, const std::string &package,
                                const std::vector<std::string> &arguments);

// What the program keladm-<name> prints, for a question on the way to something else. Nothing when it is
// not installed, fails, or takes longer than limit; it is killed then.
std::optional<std::string> AskProgram(const std::string &name, const std::vector<std::string> &arguments,
                                      std::chrono::milliseconds limit);

// Becomes the program of the external command that the first argument names; returns when it names none.
void RunExternalCommand(int argc, char **argv);

#endif
