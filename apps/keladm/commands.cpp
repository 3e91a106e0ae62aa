#include "commands.h"

#include "console.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <fmt/format.h>

namespace {

constexpr const char *kFooter = R"(
Every subcommand has a --help of its own, with examples.

The run directory is /var/run/kaltor, or what KALTOR_RUN_DIR names.

Exit status: 0 done; 1 failed, or an expectation was not met; 2 wrong usage;
3 no daemon, or a receiver is listening already.)";

int Report(const CLI::App &app, int status, const std::string &message)
{
    std::string name = app.get_name();
    for (auto chosen = app.get_subcommands(); !chosen.empty(); chosen = chosen.front()->get_subcommands())
        name += " " + chosen.front()->get_name();
    fmt::print(stderr, "{}: {}\n", name, message);
    return status;
}

} // namespace

int RunKeladm(int argc, char **argv)
{
    // A reader that has had enough (| head -1) shows as a failed write, so that cleaning up happens.
    std::signal(SIGPIPE, SIG_IGN);

    CLI::App app("Talks to keld, the kernel observation daemon, in the place of its host.", "keladm");
    app.require_subcommand(1);
    app.footer(kFooter);

    Command chosen;
    AddSendCommand(app, &chosen);
    AddReplayCommand(app, &chosen);
    AddReceiveCommand(app, &chosen);
    AddTraceCommand(app, &chosen);
    AddEventsCommand(app, &chosen);
    AddHostCommand(app, &chosen);
    AddCompletionCommand(app, &chosen);

    try {
        app.parse(argc, argv);
        return chosen();
    } catch (const CLI::Success &help) {
        return app.exit(help);
    } catch (const CLI::RequiredError &error) {
        std::string what = error.what();
        if (app.get_subcommands().empty() && argc > 1)
            what = fmt::format("\"{}\" is no subcommand", argv[1]);
        return Report(app, kExitUsage, what + "\nTry --help.");
    } catch (const CLI::ParseError &error) {
        return Report(app, kExitUsage, fmt::format("{}\nTry --help.", error.what()));
    } catch (const Failure &failure) {
        return Report(app, failure.status, failure.what());
    } catch (const OutputClosed &) {
        return kExitOk;
    } catch (const Stopped &) {
        return kExitOk;
    } catch (const std::exception &error) {
        return Report(app, kExitFailed, error.what());
    }
}
