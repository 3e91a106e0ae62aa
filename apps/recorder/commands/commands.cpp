#include "commands.h"

#include "database.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fmt/format.h>

namespace {

struct Entry {
    std::string_view name;
    const char *description;
    void (*add)(CLI::App &, Command *);
};

constexpr Entry kCommands[] = {
    {"record", "Keeps what becomes of every observation in a recording.", AddRecordCommand},
    {"log", "Shows what was recorded, one line each, observations and events interleaved.", AddLogCommand},
    {"why", "Says what became of an observation, or where an event came from.", AddWhyCommand},
    {"ledger", "Sums up a period: what came, what became of it, what is missing.", AddLedgerCommand},
    {"open", "Lists the problems whose clear has not come, the oldest first.", AddOpenCommand},
};

int Run(CLI::App &app, int argc, char **argv, const Command &chosen)
{
    try {
        app.parse(argc, argv);
        return chosen();
    } catch (const CLI::Success &help) {
        return ShowHelp(app, help);
    } catch (const CLI::ParseError &error) {
        fmt::print(stderr, "{0}: {1}\nTry \"{0} --help\".\n", app.get_name(), error.what());
        return kExitUsage;
    }
}

} // namespace

void AddFileOption(CLI::App &app, std::string *file)
{
    app.add_option("-f,--file", *file, "The recording, instead of KELD_RECORDING or the recorder's own")
        ->type_name("FILE");
}

void AddTimeOptions(CLI::App &app, std::string *since, std::string *until)
{
    app.add_option(
           "-s,--since", *since,
           fmt::format(
               "From this time on, such as 03:12, -2h or \"yesterday 22:00\"; {} when it is not named",
               since->empty() ? "the beginning" : *since))
        ->type_name("TIME");
    app.add_option("-u,--until", *until, "Up to this time")->type_name("TIME");
}

std::uint64_t WallMicroseconds()
{
    using namespace std::chrono;
    return static_cast<std::uint64_t>(
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

int RunRecorder(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    std::string name = std::filesystem::path(argv[0]).filename().string();
    std::string_view command =
        std::string_view(name).substr(std::min<size_t>(name.find('-') + 1, name.size()));
    auto entry = std::ranges::find(kCommands, command, &Entry::name);
    if (entry == std::end(kCommands)) {
        fmt::print(stderr,
                   "{}: to be run as keladm-record, keladm-log, keladm-why, keladm-ledger or keladm-open\n",
                   name);
        return kExitUsage;
    }

    CLI::App app(entry->description, fmt::format("keladm {}", command));
    Command chosen;
    entry->add(app, &chosen);
    return CarryOut(
        [&] {
            try {
                if (argc == 4 && argv[1] == std::string_view("--complete"))
                    return Complete(app, argv[2], argv[3]);
                return Run(app, argc, argv, chosen);
            } catch (const DatabaseError &error) {
                throw Failure(kExitFailed, fmt::format("the recording: {}", error.what()));
            }
        },
        [&](int status, const std::string &why) {
            fmt::print(stderr, "{}: {}\n", app.get_name(), why);
            return status;
        });
}
