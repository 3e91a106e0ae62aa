#include "commands.h"

#include "console.h"
#include "external.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <csignal>
#include <fmt/format.h>

namespace {

constexpr const char *kFooter = R"(
Every subcommand has a --help of its own, with examples and what its exit status means.

The run directory is /var/run/kaltor, or what KALTOR_RUN_DIR names. Colours come on a
terminal only, and not when NO_COLOR is set.

Exit status:
  0  done; also when nobody reads the output any more (| head -1)
  1  failed, or not as expected
  2  wrong usage: an option, an argument, a line of a scenario
  3  no daemon serves the run directory, or another receiver listens there
  4  the daemon serves as many programs as it can, and has not taken what was sent
  5  the daemon did not say in time whether it has taken what was sent

Examples:
  keladm receive                                   in one terminal: the events
  keladm send kel.net.vmnic.linkstate.down vmnic0  in another: what leads to one
  keladm events 'nox.problem.net.*'                what the daemon can post
  keladm replay --check scenarios/uplink-failure.kel)";

// "keladm host set": the words that lead to the subcommand that was named.
std::string CommandName(const CLI::App &app)
{
    std::string name = app.get_name();
    for (auto chosen = app.get_subcommands(); !chosen.empty(); chosen = chosen.front()->get_subcommands())
        name += " " + chosen.front()->get_name();
    return name;
}

int Report(const CLI::App &app, int status, const std::string &message)
{
    fmt::print(stderr, "{}: {}\n", CommandName(app), PrintableLines(message));
    return status;
}

int ReportUsage(const CLI::App &app, const std::string &message)
{
    return Report(app, kExitUsage, fmt::format("{}\nTry \"{} --help\".", message, CommandName(app)));
}

// For a word that is neither an option nor a subcommand.
int ReportUnknown(const CLI::App &app, const std::string &word)
{
    return ReportUsage(
        app, fmt::format("{} is no {}", Quoted(word), word.starts_with('-') ? "option" : "subcommand"));
}

int Run(CLI::App &app, int argc, char **argv, const Command &chosen)
{
    try {
        app.parse(argc, argv);
        return chosen();
    } catch (const CLI::Success &help) {
        if (auto unknown = app.remaining(true); !unknown.empty())
            return ReportUnknown(app, unknown.front());
        return ShowHelp(app, help);
    } catch (const CLI::RequiredError &error) {
        auto unknown = app.remaining(true);
        if (unknown.empty()) return ReportUsage(app, error.what());
        return ReportUnknown(app, unknown.front());
    } catch (const CLI::ParseError &error) {
        return ReportUsage(app, error.what());
    }
}

} // namespace

void AddCountOption(CLI::App &command, std::uint64_t *count, const std::string &what)
{
    command.add_option("-n,--count", *count, "End after N " + what)
        ->type_name("N")
        ->check([](const std::string &text) -> std::string {
            std::uint64_t number = 0;
            const char *end = text.data() + text.size();
            auto [stop, status] = std::from_chars(text.data(), end, number);
            if (status == std::errc() && stop == end && number > 0) return "";
            return fmt::format("{} is not a number from 1 up", Quoted(text));
        });
}

void AddTimeoutOption(CLI::App &command, std::optional<std::chrono::milliseconds> *timeout)
{
    command
        .add_option_function<std::string>(
            "-t,--timeout",
            [timeout](const std::string &text) {
                *timeout = ParseDuration(text);
                if (!*timeout)
                    throw CLI::ValidationError(
                        "--timeout", fmt::format("{} is no time such as 5s, 500ms or 2m", Quoted(text)));
            },
            "End after this time, such as 5s, 500ms or 2m")
        ->type_name("TIME");
}

int RunKeladm(int argc, char **argv)
{
    OpenStandardDescriptors();
    // A reader that has had enough (| head -1) and a file that may not grow show as failed writes, so
    // that cleaning up happens.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);

    CLI::App app("Talks to keld, the kernel observation daemon, in the place of its host.", "keladm");
    app.require_subcommand(1);
    app.set_version_flag("--version", "keladm " KELADM_VERSION);
    app.footer(kFooter);

    Command chosen;
    AddSendCommand(app, &chosen);
    AddFeedCommand(app, &chosen);
    AddReplayCommand(app, &chosen);
    AddReceiveCommand(app, &chosen);
    AddTraceCommand(app, &chosen);
    AddJournalCommand(app, &chosen);
    AddEventsCommand(app, &chosen);
    AddExplainCommand(app, &chosen);
    AddHostCommand(app, &chosen);
    AddStatusCommand(app, &chosen);
    AddCompletionCommand(app, &chosen);
    AddExternalCommands(app);

    return CarryOut(
        [&] {
            RunExternalCommand(argc, argv);
            return Run(app, argc, argv, chosen);
        },
        [&](int status, const std::string &why) { return Report(app, status, why); });
}
