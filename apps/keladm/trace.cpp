#include "trace.h"

#include "commands.h"
#include "console.h"
#include "receive.h"
#include "runDirectory.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

bool IsDigits(std::string_view text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Takes the fields of a line one by one.
class FieldReader {
public:
    explicit FieldReader(std::string_view line) : mRest(line) {}

    bool AtEnd() const { return mEnded; }

    [[noreturn]] void Fail(const std::string &what) const
    {
        throw Failure(kExitFailed, fmt::format("field {}: {}", mField, what));
    }

    std::string_view Plain()
    {
        StartField();
        std::string_view text = mRest.substr(0, mRest.find(','));
        mRest.remove_prefix(text.size());
        EndField();
        return text;
    }

    TraceArgument Argument()
    {
        if (!mRest.starts_with('"')) return PlainArgument();
        StartField();
        TraceArgument argument{TraceArgument::Text, ""};
        for (size_t i = 1;; i++) {
            if (i >= mRest.size()) Fail("a text that does not end");
            if (mRest[i] == '"' && (i + 1 >= mRest.size() || mRest[i + 1] != '"')) {
                mRest.remove_prefix(i + 1);
                break;
            }
            if (mRest[i] == '"') i++;
            argument.text += mRest[i];
        }
        EndField();
        return argument;
    }

private:
    void StartField()
    {
        mField++;
        if (mEnded) Fail("missing");
    }

    void EndField()
    {
        mEnded = mRest.empty();
        if (!mEnded && mRest[0] != ',') Fail("more behind a text's closing quote");
        if (!mEnded) mRest.remove_prefix(1);
    }

    TraceArgument PlainArgument()
    {
        std::string text(Plain());
        if (text == "???") return {TraceArgument::Unreadable, text};
        std::int64_t number = 0;
        std::uint64_t magnitude = 0;
        const char *end = text.data() + text.size();
        auto whole = [&](auto result) { return result.ec == std::errc() && result.ptr == end; };
        if (!whole(std::from_chars(text.data(), end, number)) &&
            !whole(std::from_chars(text.data(), end, magnitude)))
            Fail(fmt::format("{} is neither an integer nor a text", Quoted(text)));
        return {TraceArgument::Integer, text};
    }

    std::string_view mRest;
    size_t mField = 0;
    bool mEnded = false;
};

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

TraceLine ParseTraceLine(std::string_view text)
{
    FieldReader reader(text);
    TraceLine line;

    line.seconds = reader.Plain();
    size_t point = line.seconds.find('.');
    bool time = point != std::string::npos && IsDigits(line.seconds.substr(0, point)) &&
                IsDigits(line.seconds.substr(point + 1)) && line.seconds.size() - point == 10;
    if (!time) reader.Fail(fmt::format("{} is no time with nine decimals", Quoted(line.seconds)));

    std::string direction(reader.Plain());
    line.in = direction == "IN";
    if (!line.in && direction != "OUT")
        reader.Fail(fmt::format("{} is neither IN nor OUT", Quoted(direction)));

    std::string_view timestamp = reader.Plain();
    auto [end, status] =
        std::from_chars(timestamp.data(), timestamp.data() + timestamp.size(), line.timestamp);
    if (!IsDigits(timestamp) || status != std::errc() || end != timestamp.data() + timestamp.size())
        reader.Fail(fmt::format("{} is no time in microseconds", Quoted(timestamp)));

    line.id = reader.Plain();
    if (line.id.empty()) reader.Fail("the ID is empty");

    // The line has a "," behind the ID, and every argument one of its own.
    if (reader.AtEnd()) reader.Fail("the \",\" behind the ID is missing");
    std::string_view between = reader.Plain();
    if (!between.empty()) reader.Fail(fmt::format("{} where nothing may stand", Quoted(between)));
    while (!reader.AtEnd())
        line.arguments.push_back(reader.Argument());
    return line;
}

void TraceSplitter::Append(std::string_view bytes) { mWaiting += bytes; }

std::optional<std::string> TraceSplitter::Next()
{
    for (; mLooked < mWaiting.size(); mLooked++) {
        char c = mWaiting[mLooked];
        // A doubled quote ends a text and starts it again.
        if (c == '"') mInText = !mInText;
        if ((c != '\n' || mInText) && mLooked < kLineBytesMax) continue;

        std::string line = mWaiting.substr(0, mLooked);
        mWaiting.erase(0, c == '\n' ? mLooked + 1 : mLooked);
        mLooked = 0;
        mInText = false;
        return line;
    }
    return std::nullopt;
}

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
