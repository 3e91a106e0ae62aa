#include "commands.h"
#include "console.h"
#include "journalEntry.h"
#include "jsonLine.h"
#include "runDirectory.h"
#include "statusFormats.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <unistd.h>

namespace {

struct StatusOptions {
    bool asJson = false;
    bool asMetrics = false;
};

// One line of the report, under a short heading.
void Row(Output &out, const char *heading, const std::string &text)
{
    out.Line(fmt::format("{:<13} {}", heading, Printable(text)));
}

std::string ThreadText(const StatusThread &thread)
{
    if (!thread.alive) return thread.stands;
    return fmt::format("{} for {}", thread.stands, AgeText(thread.microseconds));
}

std::string CountsText(const StatusCounts &counts)
{
    std::string text;
    for (const auto &[word, count] : counts)
        text += fmt::format("{}{} {}", text.empty() ? "" : ", ", word, count);
    return text.empty() ? "none" : text;
}

void ShowAgents(Output &out, const StatusReport &report)
{
    out.Line(fmt::format("\n{:<24} {:>9} {:>8}  {}", "agent", "received", "waiting",
                         report.running ? "stands in" : "stood in"));
    std::size_t others = 0;
    for (const StatusThread &agent : report.agents) {
        if (agent.idle && agent.received + agent.waiting == 0) {
            ++others;
            continue;
        }
        out.Line(fmt::format("{:<24} {:>9} {:>8}  {}", Printable(agent.name), agent.received, agent.waiting,
                             Printable(ThreadText(agent))));
        if (!agent.fates.empty()) out.Line("  " + CountsText(agent.fates));
    }
    if (others != 0) out.Line(fmt::format("{} others have received nothing yet, and wait for it", others));
}

void ShowChannels(Output &out, const StatusReport &report)
{
    std::string quiet;
    for (const StatusChannel &channel : report.channels) {
        if (channel.observations == 0 && channel.waitingBytes == 0) continue;
        if (quiet.empty())
            out.Line(quiet = fmt::format("\n{:<24} {:>12} {:>12}", "channel", "observations", "bytes"));
        out.Line(fmt::format("{:<24} {:>12} {:>12}{}", channel.name, channel.observations, channel.bytes,
                             channel.waitingBytes != 0 ? "  more waits to be read" : ""));
    }
}

std::string ReceiverText(const StatusSockets &sockets)
{
    if (!sockets.receiver) return "nobody listens";
    return fmt::format("listens; {} of {} connections wait to be accepted", sockets.receiver->waiting,
                       sockets.receiver->room);
}

void ShowCounts(Output &out, const StatusReport &report)
{
    Row(out, "process",
        fmt::format("{}, version {}, since {}", report.process, report.version,
                    LocalTime(report.startedAt).substr(0, 19)));
    if (report.endedAt != 0) Row(out, "last seen", LocalTime(report.endedAt).substr(0, 19));
    Row(out, "main thread", ThreadText(report.main));
    Row(out, "alarm thread", ThreadText(report.alarm));
    Row(out, "observations", fmt::format("{} came in", report.observations));
    StatusCounts events = report.deliveries;
    for (auto &[word, count] : events) // how many wait now, not every try that failed
        if (word == JournalWord(JournalDelivery::Waiting)) count = report.eventsWaiting;
    std::erase_if(events, [](const auto &event) { return event.second == 0; });
    Row(out, "events", CountsText(events));
    if (report.running && report.limitMax != 0)
        Row(out, "event limit",
            fmt::format("{} of {} in this minute ({} %)", report.limitUsed, report.limitMax,
                        report.limitUsed * 100 / report.limitMax));
    if (report.running && report.sockets) Row(out, "receiver", ReceiverText(*report.sockets));
    Row(out, "trace", fmt::format("{} client{}", report.traceClients, report.traceClients == 1 ? "" : "s"));
    Row(out, "system log", fmt::format("{} lines lost", report.lostLogLines));
    ShowChannels(out, report);
    ShowAgents(out, report);
}

int Status(const StatusOptions &options)
{
    const StatusFile file = ReadStatusFile(RunDirectoryPath(kKeldStatusName));
    const StatusReport report = JudgeStatus(
        file, LookOutside(file.kind == StatusFile::Kind::Good ? file.content.process : 0), KELADM_VERSION);
    Output out(STDOUT_FILENO);
    if (options.asJson) {
        out.Line(JsonLine(StatusJson(report)));
    } else if (options.asMetrics) {
        out.Text(StatusMetrics(report));
    } else {
        out.Line(Printable(report.Sentence()));
        for (std::size_t i = 1; i < report.findings.size(); ++i)
            out.Line("  also: " + Printable(report.findings[i].Text()));
        Row(out, "run directory", RunDirectoryPath(""));
        if (report.counted) ShowCounts(out, report);
    }
    out.Flush();
    return static_cast<int>(report.OverallHealth());
}

} // namespace

void AddStatusCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<StatusOptions>();

    CLI::App *status = app.add_subcommand("status", "Show how the daemon is, even when it answers nobody");
    auto asJson = status->add_flag("--json", options->asJson, "One JSON object");
    status->add_flag("--prometheus", options->asMetrics, "Metrics in the text exposition format")
        ->excludes(asJson);
    status->footer(R"(
Asks nobody: reads the file that the daemon counts in, and the system's own lists. It
answers at once, also when every thread is stuck, and shows the last counts of a daemon
that was killed. While much happens, two counts may be a moment apart.

Exit status: 0 well; 1 degraded: it works, but not as it should; 2 stuck: for five
seconds or more something has not gone on (or an option is wrong); 3 not running. The
first line says which, and what to do.

Examples:
  keladm status
  keladm status --json | jq .sentence
  keladm status --prometheus > keld.prom)");
    status->callback([options, chosen] { *chosen = [options] { return Status(*options); }; });
}
