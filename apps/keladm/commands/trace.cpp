#include "commands.h"
#include "console.h"
#include "jsonLine.h"
#include "runDirectory.h"
#include "text.h"
#include "traceConnection.h"
#include "traceText.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <fmt/format.h>
#include <unistd.h>

namespace {

nlohmann::ordered_json ArgumentJson(const TraceArgument &argument)
{
    if (argument.kind == TraceArgument::Text) return JsonText(argument.text);
    if (argument.kind == TraceArgument::Unreadable) return {{"unreadable", true}};
    return nlohmann::ordered_json::parse(argument.text, nullptr, false);
}

// A trace line's time in microseconds.
std::uint64_t Microseconds(const std::string &text)
{
    std::uint64_t seconds = 0, nanoseconds = 0;
    const char *start = text.data();
    const char *end = start + text.size();
    const char *point = std::from_chars(start, end, seconds).ptr;
    if (point != end) std::from_chars(point + 1, end, nanoseconds);
    return seconds * 1000000 + nanoseconds / 1000;
}

struct TraceOptions {
    bool in = false, out = false, history = false, asJson = false, raw = false, text = false;
    std::string match = "*";
    std::string catalogueFile;
    std::optional<Catalogue> catalogue; // with text
    std::uint64_t count = 0;            // 0: no end
    std::optional<std::chrono::milliseconds> timeout;
};

std::string ReadableLine(const TraceLine &line, const TraceOptions &options, bool colour)
{
    std::string arguments;
    for (const auto &[name, value] : NamedArguments(line, options.catalogue))
        arguments += (arguments.empty() ? "  " : ", ") + (name.empty() ? "" : name + "=") + value;
    auto message = MessageOf(line, options.catalogue);
    std::string direction = line.in ? "IN " : "OUT";
    if (colour) direction = fmt::format("\x1b[{}m{}\x1b[0m", line.in ? 36 : 33, direction);
    return fmt::format("{} {} {}{}{}", LocalTime(Microseconds(line.seconds)), direction, Printable(line.id),
                       arguments, message ? "  " + Printable(*message) : "");
}

nlohmann::ordered_json LineJson(const TraceLine &line, const TraceOptions &options)
{
    nlohmann::ordered_json arguments = nlohmann::ordered_json::array();
    for (const TraceArgument &argument : line.arguments)
        arguments.push_back(ArgumentJson(argument));
    nlohmann::ordered_json json{{"time", UtcTime(Microseconds(line.seconds))},
                                {"direction", line.in ? "in" : "out"},
                                {"timestamp", line.timestamp},
                                {"id", JsonText(line.id)},
                                {"arguments", std::move(arguments)}};
    if (options.text) {
        auto names = nlohmann::ordered_json::array();
        for (const auto &[name, value] : NamedArguments(line, options.catalogue))
            names.push_back(name);
        json["names"] = std::move(names);
        auto message = MessageOf(line, options.catalogue);
        json["text"] = message ? nlohmann::ordered_json(*message) : nullptr;
    }
    return json;
}

// What to show of a line: nothing where the options leave it out.
std::optional<std::string> Shown(const std::string &text, const TraceOptions &options, bool colour)
{
    TraceLine line;
    try {
        line = ParseTraceLine(text);
    } catch (const Failure &failure) {
        if (options.raw) return text;
        if (options.asJson) return JsonLine({{"malformed", failure.what()}, {"line", JsonText(text)}});
        return fmt::format("malformed line: {}: {}", failure.what(), Printable(text));
    }
    bool both = options.in == options.out;
    if (!both && line.in != options.in) return std::nullopt;
    if (!GlobMatches(options.match, line.id)) return std::nullopt;
    if (options.raw) return text;
    return options.asJson ? JsonLine(LineJson(line, options)) : ReadableLine(line, options, colour);
}

// A hole in what is shown stands where it is; between raw lines it has no place.
void ShowGap(const TraceConnection::Item &gap, const TraceOptions &options, Output &out)
{
    if (options.asJson) {
        auto time = [](const std::string &text) {
            return text.empty() ? nlohmann::ordered_json()
                                : nlohmann::ordered_json(UtcTime(Microseconds(text)));
        };
        nlohmann::ordered_json said{
            {"after", time(gap.after)}, {"until", time(gap.until)}, {"reason", gap.line}};
        out.Line(JsonLine({{"gap", std::move(said)}}));
        return;
    }
    auto time = [](const std::string &text, const char *none) {
        return text.empty() ? none : LocalTime(Microseconds(text));
    };
    std::string said = fmt::format("lines are missing after {}, until {}: {}", time(gap.after, "the start"),
                                   time(gap.until, "now"), gap.line);
    if (options.raw)
        Tell("trace", said);
    else
        out.Line("---- " + said);
}

int Trace(const TraceOptions &options)
{
    auto until = options.timeout ? Clock::now() + *options.timeout : Clock::time_point::max();
    StopSignal stop;
    Output out(STDOUT_FILENO, stop.Get());
    Ends ends(stop, out);
    TraceConnection trace;

    std::uint64_t shown = 0;
    for (;;) {
        pollfd fds[] = {trace.Watch(), ends.fds[0], ends.fds[1]};
        PollUntil(fds, std::min(until, trace.Again()));
        ends.fds[0] = fds[1];
        ends.fds[1] = fds[2];
        if (ends.Stopping()) return kExitOk;
        if (Clock::now() >= until) {
            if (!trace.IsConnected()) throw Failure(kExitNoPeer, NoDaemonText());
            if (options.count == 0) return kExitOk;
            throw Failure(kExitFailed, fmt::format("{} of {} lines came", shown, options.count));
        }
        if (fds[0].revents == 0 && Clock::now() < trace.Again()) continue;

        if (auto news = trace.Proceed()) Tell("trace", *news);
        while (auto item = trace.Next()) {
            if (item->isGap) ShowGap(*item, options, out);
            if (item->isGap || (item->isHistory && !options.history)) continue;
            if (auto text = Shown(item->line, options, out.Colour())) {
                options.raw ? out.Line(*text) : out.ColouredLine(*text);
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
    auto text =
        trace->add_flag("--text", options->text, "With the catalogue's texts and names of arguments");
    trace->add_flag("--raw", options->raw, "The lines as the daemon writes them")
        ->excludes(asJson)
        ->excludes(text);
    AddCatalogueOption(*trace, &options->catalogueFile);
    trace->footer(R"(
When the connection ends, it says why and connects again, also to a daemon that is only
just being restarted. What passed meanwhile is shown as far as the daemon remembers it; a
line beginning "----", or a JSON object "gap", stands where lines are missing.

Exit status: 0 when --count lines came, on SIGINT, SIGTERM and SIGHUP, and when nobody
reads the output any more; 1 when --timeout came before --count lines; 3 when no daemon
serves the run directory, at the start or when --timeout comes.

Examples:
  keladm trace
  keladm trace --text --in
  keladm trace --out --match 'nox.problem.*'
  keladm trace --history --json --timeout 1s)");
    trace->callback([options, chosen] {
        *chosen = [options] {
            if (options->text) options->catalogue = NeededCatalogue(options->catalogueFile);
            return Trace(*options);
        };
    });
}
