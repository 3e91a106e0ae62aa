#include "external.h"

#include "commands.h"
#include "console.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <unistd.h>

namespace {

constexpr ExternalCommand kCommands[] = {
    {"record", "keld-record", "Keep what becomes of every observation"},
    {"log", "keld-record", "Show what was recorded, one line each"},
    {"why", "keld-record", "Say what became of an observation, or where an event came from"},
    {"ledger", "keld-record", "Sum up a period: what came, what became of it, what is missing"},
    {"open", "keld-record", "List the problems whose clear has not come"},
};

} // namespace

std::span<const ExternalCommand> ExternalCommands() { return kCommands; }

void BecomeProgram(const std::string &name, const std::string &package,
                   const std::vector<std::string> &arguments)
{
    std::vector<std::string> words{"keladm-" + name};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char *> argv;
    for (std::string &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    for (const char *place : {"/", "/../libexec/keld/"}) {
        std::string program = ExecutableFolder() + place + words.front();
        execv(program.c_str(), argv.data());
        if (errno != ENOENT)
            throw Failure(kExitFailed, fmt::format("{}: {}", program, std::strerror(errno)));
    }
    throw Failure(kExitFailed,
                  fmt::format("{} is in the package {}, which is not installed", name, package));
}

void RunExternalCommand(int argc, char **argv)
{
    if (argc < 2) return;
    auto command = std::ranges::find(kCommands, std::string_view(argv[1]), &ExternalCommand::name);
    if (command != std::end(kCommands))
        BecomeProgram(command->name, command->package, {argv + 2, argv + argc});
}

void AddExternalCommands(CLI::App &app)
{
    for (const ExternalCommand &command : kCommands)
        app.add_subcommand(command.name, command.description)->set_help_flag("");
}
