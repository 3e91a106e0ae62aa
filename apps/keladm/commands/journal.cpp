#include "commands.h"
#include "console.h"
#include "journalWords.h"
#include "jsonLine.h"
#include "runDirectory.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

struct JournalOptions {
    bool asJson = false;
    std::uint64_t count = 0; // 0: no end
    std::optional<std::chrono::milliseconds> timeout;
};

int ShowJournal(const JournalOptions &options)
{
    auto until = options.timeout ? Clock::now() + *options.timeout : Clock::time_point::max();
    StopSignal stop;
    Output out(STDOUT_FILENO, stop.Get());
    Ends ends(stop, out);
    UniqueFd journal = ConnectToJournal();

    JournalStream stream;
    JournalWords words;
    std::uint64_t shown = 0;
    char buffer[64 * 1024];
    for (;;) {
        pollfd fds[] = {{journal.Get(), POLLIN, 0}, ends.fds[0], ends.fds[1]};
        PollUntil(fds, until);
        ends.fds[0] = fds[1];
        ends.fds[1] = fds[2];
        if (ends.Stopping()) return kExitOk;
        if (Clock::now() >= until) {
            if (options.count == 0) return kExitOk;
            throw Failure(kExitFailed, fmt::format("{} of {} entries came", shown, options.count));
        }
        if (fds[0].revents == 0) continue;

        ssize_t count = read(journal.Get(), buffer, sizeof buffer);
        if (count <= 0) {
            if (shown == 0) throw Failure(kExitNoPeer, "the daemon has two listeners already");
            throw Failure(kExitNoPeer, "the daemon has ended the journal");
        }
        stream.Add({buffer, static_cast<size_t>(count)});
        while (auto entry = stream.Take()) {
            out.Line(options.asJson ? JsonLine(words.Json(*entry)) : words.Line(*entry));
            if (++shown == options.count || std::holds_alternative<JournalEnd>(entry->body)) {
                out.Flush();
                return kExitOk;
            }
        }
        out.Flush();
        if (!stream.Error().empty()) throw Failure(kExitFailed, "no journal: " + stream.Error());
    }
}

} // namespace

void AddJournalCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<JournalOptions>();

    CLI::App *journal = app.add_subcommand("journal", "Watch what becomes of every observation and event");
    AddCountOption(*journal, &options->count, "entries");
    AddTimeoutOption(*journal, &options->timeout);
    journal->add_flag("--json", options->asJson, "One JSON object a line");
    journal->footer(R"(
Exit status: 0 when --count entries came, at the daemon's end, on SIGINT, SIGTERM and
SIGHUP, and when nobody reads the output any more; 1 when --timeout came before --count
entries; 3 when no daemon serves the run directory, when two others listen already, and
when the daemon is killed.

Examples:
  keladm journal
  keladm journal --json --timeout 1m)");
    journal->callback([options, chosen] { *chosen = [options] { return ShowJournal(*options); }; });
}
