#include "commands.h"
#include "console.h"
#include "jsonLine.h"
#include "runDirectory.h"
#include "text.h"
#include "traceLine.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string ArgumentText(const TraceArgument &argument)
{
    return argument.kind == TraceArgument::Text ? Quoted(argument.text) : argument.text;
}

nlohmann::ordered_json ArgumentJson(const TraceArgument &argument)
{
    if (argument.kind == TraceArgument::Text) return argument.text;
    if (argument.kind == TraceArgument::Unreadable) return {{"unreadable", true}};
    return nlohmann::ordered_json::parse(argument.text, nullptr, false);
}

// The line's own time in microseconds.
std::uint64_t Microseconds(const TraceLine &line)
{
    std::uint64_t seconds = 0, nanoseconds = 0;
    const char *start = line.seconds.data();
    const char *end = start + line.seconds.size();
    const char *point = std::from_chars(start, end, seconds).ptr;
    std::from_chars(point + 1, end, nanoseconds);
    return seconds * 1000000 + nanoseconds / 1000;
}

std::string ReadableLine(const TraceLine &line, bool colour)
{
    std::string arguments;
    for (const TraceArgument &argument : line.arguments)
        arguments += (arguments.empty() ? "  " : ", ") + ArgumentText(argument);
    std::string direction = line.in ? "IN " : "OUT";
    if (colour) direction = fmt::format("\x1b[{}m{}\x1b[0m", line.in ? 36 : 33, direction);
    return fmt::format("{} {} {}{}", LocalTime(Microseconds(line)), direction, Printable(line.id),
                       arguments);
}

nlohmann::ordered_json LineJson(const TraceLine &line)
{
    nlohmann::ordered_json arguments = nlohmann::ordered_json::array();
    for (const TraceArgument &argument : line.arguments)
        arguments.push_back(ArgumentJson(argument));
    return {{"time", UtcTime(Microseconds(line))},
            {"direction", line.in ? "in" : "out"},
            {"timestamp", line.timestamp},
            {"id", line.id},
            {"arguments", std::move(arguments)}};
}

struct TraceOptions {
    bool in = false, out = false, history = false, asJson = false, raw = false;
    std::string match = "*";
    std::uint64_t count = 0; // 0: no end
    std::optional<std::chrono::milliseconds> timeout;
};

UniqueFd ConnectToTrace()
{
    std::string path = RunDirectoryPath("keld-trace.sock");
    sockaddr_un address = SocketAddress(path);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd && connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        return fd;
    if (errno == ENOENT || errno == ECONNREFUSED) throw Failure(kExitNoPeer, NoDaemonText());
    throw Failure(kExitFailed, fmt::format("{}: {}", path, std::strerror(errno)));
}

// What to show of a line: nothing where the options leave it out.
std::optional<std::string> Shown(const std::string &text, const TraceOptions &options, bool colour)
{
    TraceLine line;
    try {
        line = ParseTraceLine(text);
    } catch (const Failure &failure) {
        if (options.raw) return text;
        if (options.asJson) return JsonLine({{"malformed", failure.what()}, {"line", text}});
        return fmt::format("malformed line: {}: {}", failure.what(), Printable(text));
    }
    bool both = options.in == options.out;
    if (!both && line.in != options.in) return std::nullopt;
    if (!GlobMatches(options.match, line.id)) return std::nullopt;
    if (options.raw) return text;
    return options.asJson ? JsonLine(LineJson(line)) : ReadableLine(line, colour);
}

int Trace(const TraceOptions &options)
{
    auto until = options.timeout ? Clock::now() + *options.timeout : Clock::time_point::max();
    StopSignal stop;
    Output out(STDOUT_FILENO, stop.Get());
    Ends ends(stop, out);
    UniqueFd trace = ConnectToTrace();

    TraceSplitter splitter;
    bool live = false;
    std::uint64_t shown = 0;
    char buffer[64 * 1024];
    for (;;) {
        pollfd fds[] = {{trace.Get(), POLLIN, 0}, ends.fds[0], ends.fds[1]};
        PollUntil(fds, until);
        ends.fds[0] = fds[1];
        ends.fds[1] = fds[2];
        if (ends.Stopping()) return kExitOk;
        if (Clock::now() >= until) {
            if (options.count == 0) return kExitOk;
            throw Failure(kExitFailed, fmt::format("{} of {} lines came", shown, options.count));
        }
        if (fds[0].revents == 0) continue;

        ssize_t count = read(trace.Get(), buffer, sizeof buffer);
        if (count <= 0) throw Failure(kExitNoPeer, "the daemon has ended the trace");
        splitter.Append({buffer, static_cast<size_t>(count)});
        while (auto line = splitter.Next()) {
            if (line->empty() && !live) {
                live = true; // the blank line between the history and what happens now
                continue;
            }
            if (!live && !options.history) continue;
            if (auto text = Shown(*line, options, out.Colour())) {
                out.Line(*text);
                if (++shown == options.count) break;
            }
        }
        out.Flush();
        if (options.count != 0 && shown == options.count) return kExitOk;
    }
}

} // namespace

void AddTraceCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<TraceOptions>();

    CLI::App *trace = app.add_subcommand("trace", "Watch the observations and events that pass the daemon");
    trace->add_flag("--in", options->in, "Observations that come in");
    trace->add_flag("--out", options->out, "Events that go out; both when neither is named");
    trace->add_option("--match", options->match, "Only IDs that match, * and ? being wild cards")
        ->type_name("GLOB");
    trace->add_flag("--history", options->history, "Begin with what the daemon remembers");
    AddCountOption(*trace, &options->count, "lines");
    AddTimeoutOption(*trace, &options->timeout);
    auto asJson = trace->add_flag("--json", options->asJson, "One JSON object a line");
    trace->add_flag("--raw", options->raw, "The lines as the daemon writes them")->excludes(asJson);
    trace->footer(R"(
Exit status: 0 when --count lines came, on SIGINT, SIGTERM and SIGHUP, and when nobody
reads the output any more; 1 when --timeout came before --count lines; 3 when no daemon
serves the run directory, and when the daemon ends the trace.

Examples:
  keladm trace
  keladm trace --out --match 'nox.problem.*'
  keladm trace --history --json --timeout 1s)");
    trace->callback([options, chosen] { *chosen = [options] { return Trace(*options); }; });
}
