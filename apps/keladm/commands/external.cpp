#include "external.h"

#include "commands.h"
#include "console.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <kltlibs/uniquefd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr ExternalCommand kCommands[] = {
    {"record", "keld-record", "Keep what becomes of every observation"},
    {"log", "keld-record", "Show what was recorded, one line each"},
    {"why", "keld-record", "Say what became of an observation, or where an event came from"},
    {"ledger", "keld-record", "Sum up a period: what came, what became of it, what is missing"},
    {"open", "keld-record", "List the problems whose clear has not come"},
};

class Arguments {
public:
    Arguments(const std::string &program, const std::vector<std::string> &arguments) : mWords{program}
    {
        mWords.insert(mWords.end(), arguments.begin(), arguments.end());
        for (std::string &word : mWords)
            mPointers.push_back(word.data());
        mPointers.push_back(nullptr);
    }
    char *const *Get() const { return mPointers.data(); }

private:
    std::vector<std::string> mWords;
    std::vector<char *> mPointers;
};

// Where keladm-<name> may be: in a build, and installed.
std::vector<std::string> Places(const std::string &name)
{
    const std::string folder = ExecutableFolder();
    return {folder + "/keladm-" + name, folder + "/../libexec/keld/keladm-" + name};
}

// Without standard input and standard error. -1 when it is not there.
pid_t Start(const std::string &name, const std::vector<std::string> &arguments, int output)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const Arguments argv("keladm-" + name, arguments);
    pid_t started = -1;
    for (const std::string &program : Places(name))
        if (pid_t process; started < 0 && posix_spawn(&process, program.c_str(), &actions, nullptr,
                                                      argv.Get(), environ) == 0)
            started = process;
    posix_spawn_file_actions_destroy(&actions);
    return started;
}

// All of it, or nothing when its end has not come in time.
std::optional<std::string> ReadUntil(int fd, Clock::time_point end)
{
    std::string text;
    char buffer[16 * 1024];
    for (;;) {
        pollfd ready[] = {{fd, POLLIN, 0}};
        PollUntil(ready, end);
        if (ready[0].revents == 0) {
            if (Clock::now() >= end) return std::nullopt;
            continue;
        }
        ssize_t bytes = read(fd, buffer, sizeof buffer);
        if (bytes <= 0) return text;
        text.append(buffer, static_cast<size_t>(bytes));
    }
}

} // namespace

std::span<const ExternalCommand> ExternalCommands() { return kCommands; }

void BecomeProgram(const std::string &name, const std::string &package,
                   const std::vector<std::string> &arguments)
{
    const Arguments argv("keladm-" + name, arguments);
    for (const std::string &program : Places(name)) {
        execv(program.c_str(), argv.Get());
        if (errno != ENOENT)
            throw Failure(kExitFailed, fmt::format("{}: {}", program, std::strerror(errno)));
    }
    throw Failure(kExitFailed,
                  fmt::format("{} is in the package {}, which is not installed", name, package));
}

std::optional<std::string> AskProgram(const std::string &name, const std::vector<std::string> &arguments,
                                      std::chrono::milliseconds limit)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
    UniqueFd reader(ends[0]), writer(ends[1]);
    const pid_t process = Start(name, arguments, writer.Get());
    if (process < 0) return std::nullopt;
    writer.Reset();
    std::optional<std::string> text = ReadUntil(reader.Get(), Clock::now() + limit);
    if (!text) kill(process, SIGKILL);
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
    }
    return status == 0 ? text : std::nullopt;
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
