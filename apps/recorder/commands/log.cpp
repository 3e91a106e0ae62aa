#include "commands.h"
#include "console.h"
#include "evidence.h"
#include "jsonLine.h"
#include "recording.h"
#include "rows.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <unistd.h>

using json = nlohmann::ordered_json;

namespace {

constexpr auto kFollowEvery = std::chrono::milliseconds(500);
constexpr int kNoisiest = 10;

struct LogOptions {
    std::string file, catalogue, since = "-1h", until;
    std::optional<std::string> object, type;
    bool undelivered = false, lost = false, follow = false, summary = false, asJson = false;
    size_t lines = 1000;
};

struct Line {
    std::uint64_t time = 0;
    enum Order { RunStarts, In, Out, Notice, RunEnds } order = In; // of the same time
    std::string text;                                              // readable, or JSON
};

class Log {
public:
    Log(const LogOptions &options, const StopSignal &stop)
        : mOptions(options), mFile(RecordingFile(options.file)), mDatabase(OpenRecording(mFile)),
          mRows(&mDatabase, FindCatalogue(options.catalogue)), mStop(stop), mOut(STDOUT_FILENO, stop.Get()),
          mSpan(ParseTimeSpan(options.since, options.until, WallMicroseconds()))
    {
    }

    int Run()
    {
        Evidence evidence = FindEvidence(mDatabase, mSpan, IsBeingRecorded(mFile));
        mOut.Line(mOptions.asJson ? JsonLine(evidence.ToJson()) : evidence.ToText());
        if (mOptions.summary) {
            Summary();
        } else {
            Show(Find(mOptions.lines), true);
            if (mOptions.follow) Follow();
        }
        mOut.Flush();
        return kExitOk;
    }

private:
    std::vector<Line> Find(size_t linesMax);
    void AddNotices(std::vector<Line> *lines);
    void AddRuns(std::vector<Line> *lines);
    void Add(std::vector<Line> *lines, std::uint64_t time, Line::Order order, const char *kind,
             const std::string &text, const json &body);
    void Show(std::vector<Line> lines, bool first);
    void Follow();
    void Summary();
    void SummaryOf(Noise kind, const char *title, bool events);

    const LogOptions &mOptions;
    std::string mFile;
    Database mDatabase;
    Rows mRows;
    const StopSignal &mStop;
    Output mOut;
    TimeSpan mSpan;
    std::int64_t mLastObservation = 0, mLastEvent = 0, mLastNotice = 0, mLastChange = 0, mLastStart = 0,
                 mLastEnd = 0; // what has been shown
};

std::vector<Line> Log::Find(size_t linesMax)
{
    std::vector<Line> lines;
    auto add = [&](Line::Order order, const auto &row, char kind, const std::string &name,
                   const std::string &became) {
        std::string text = mOptions.asJson
                               ? JsonLine(mRows.ToJson(row))
                               : fmt::format("{}  {:<4} {:>8}  {}  {}  -> {}", LocalTime(row.time),
                                             kind == 'o' ? "IN" : "OUT", mRows.Label(kind, row.key),
                                             Printable(name), mRows.Detail(row), became);
        lines.push_back({row.time, order, std::move(text)});
    };
    RowFilter filter{mSpan, mOptions.type, mOptions.object, mOptions.lost, mLastObservation, linesMax};
    if (!mOptions.undelivered || mOptions.lost)
        for (const RecordedObservation &row : mRows.Observations(filter)) {
            mLastObservation = std::max(mLastObservation, row.key);
            add(Line::In, row, 'o', row.id, mRows.FatesText(row));
        }
    filter.flawed = mOptions.undelivered;
    filter.after = mLastEvent;
    if (!mOptions.lost || mOptions.undelivered)
        for (const RecordedEvent &row : mRows.Events(filter)) {
            mLastEvent = std::max(mLastEvent, row.key);
            add(Line::Out, row, 'e', row.type, mRows.DeliveryText(row));
        }
    if (!mOptions.type && !mOptions.object && !mOptions.undelivered) AddNotices(&lines);
    if (!mOptions.type && !mOptions.object && !mOptions.undelivered && !mOptions.lost) AddRuns(&lines);
    std::ranges::stable_sort(lines, {}, [](const Line &line) { return std::pair(line.time, line.order); });
    return lines;
}

void Log::Add(std::vector<Line> *lines, std::uint64_t time, Line::Order order, const char *kind,
              const std::string &text, const json &body)
{
    json line{{"kind", kind}, {"time", UtcTime(time)}};
    line.update(body);
    lines->push_back({time, order,
                      mOptions.asJson
                          ? JsonLine(line)
                          : fmt::format("{}  {:<13}  {}", LocalTime(time), kind, Printable(text))});
}

void Log::AddNotices(std::vector<Line> *lines)
{
    Statement notices(mDatabase,
                      "SELECT * FROM (SELECT notice, time, until, kind, text, count FROM notice WHERE "
                      "time >= ? AND time < ? AND notice > ? ORDER BY time DESC, notice DESC LIMIT ?) "
                      "ORDER BY time, notice");
    notices.With(mSpan.since, mSpan.until, mLastNotice, mOptions.lines);
    while (notices.Step()) {
        mLastNotice = std::max(mLastNotice, notices.Integer(0));
        std::uint64_t time = notices.Unsigned(1), until = notices.Unsigned(2);
        std::string kind(notices.Text(3)), text(notices.Text(4));
        if (mOptions.lost && kind != NoticeKind::kLost && kind != NoticeKind::kRefused) continue;
        json body{{"text", text}};
        if (until > time) text += fmt::format(" until {} ({})", ShortTime(until), ShortAge(until - time));
        if (until == 0) text += ", and still takes none";
        if (kind == NoticeKind::kReceiver && !notices.IsNull(5))
            text += fmt::format(", {} {} failed", notices.Unsigned(5),
                                notices.Unsigned(5) == 1 ? "try" : "tries");
        body["until"] = until == 0 ? json(nullptr) : json(UtcTime(until));
        body["count"] = notices.IsNull(5) ? json(nullptr) : json(notices.Unsigned(5));
        Add(lines, time, Line::Notice, kind.c_str(), text, body);
    }
    if (mOptions.lost) return;
    Statement changes(mDatabase,
                      "SELECT * FROM (SELECT rowid AS row, time, path, value, change FROM inventory WHERE "
                      "time >= ? AND time < ? AND rowid > ? AND change > 0 ORDER BY time DESC, rowid DESC "
                      "LIMIT ?) ORDER BY time, row");
    changes.With(mSpan.since, mSpan.until, mLastChange, mOptions.lines);
    while (changes.Step()) {
        mLastChange = std::max(mLastChange, changes.Integer(0));
        std::string path(changes.Text(2)), value(changes.Text(3));
        bool removed = changes.Integer(4) == 2;
        Add(lines, changes.Unsigned(1), Line::Notice, "host",
            path + (removed ? " removed, it was " : " = ") + value,
            {{"path", path}, {"value", value}, {"removed", removed}});
    }
}

// When daemons came and went.
void Log::AddRuns(std::vector<Line> *lines)
{
    auto within = [&](std::uint64_t time) { return time >= mSpan.since && time < mSpan.until; };
    Statement runs(mDatabase, "SELECT coverage, coverage.run, since, version, until, ended, identity, "
                              "coverage.run = lag(coverage.run) OVER (ORDER BY coverage), "
                              "coverage.run = lead(coverage.run) OVER (ORDER BY coverage) "
                              "FROM coverage JOIN run USING(run) ORDER BY coverage");
    while (runs.Step()) {
        std::int64_t coverage = runs.Integer(0);
        std::string run = fmt::format("r{}", runs.Integer(1));
        if (coverage > mLastStart && runs.Integer(7) == 0 && within(runs.Unsigned(2)))
            Add(lines, runs.Unsigned(2), Line::RunStarts, "daemon",
                fmt::format("keld {} runs, as {}", runs.Text(3), run),
                {{"run", run}, {"version", runs.Text(3)}, {"state", "started"}});
        mLastStart = std::max(mLastStart, coverage);
        bool killed = runs.Integer(5) == 2 && runs.Integer(8) == 0; // else it was only shut out
        if (coverage <= mLastEnd || (!killed && runs.Integer(5) != 1)) continue;
        mLastEnd = coverage;
        if (within(runs.Unsigned(4)))
            Add(lines, runs.Unsigned(4), Line::RunEnds, "daemon",
                fmt::format("{} {}", run,
                            killed ? "was killed, or ended without a word" : "ended as it should"),
                {{"run", run}, {"state", killed ? "killed" : "ended"}});
    }
}

void Log::Show(std::vector<Line> lines, bool first)
{
    size_t skipped = lines.size() > mOptions.lines ? lines.size() - mOptions.lines : 0;
    bool more = first && (skipped > 0 || lines.size() >= mOptions.lines);
    if (more && !mOptions.asJson)
        mOut.Line(fmt::format("(the last {} lines; --lines shows more, --summary what was noisiest)",
                              mOptions.lines));
    for (size_t i = skipped; i < lines.size(); i++)
        mOut.Line(lines[i].text);
    mOut.Flush();
}

void Log::Follow()
{
    Ends ends(mStop, mOut);
    mSpan.until = INT64_MAX;
    for (;;) {
        PollUntil(ends.fds, Clock::now() + kFollowEvery);
        if (ends.Stopping()) return;
        Show(Find(mOptions.lines), false);
    }
}

void Log::Summary()
{
    SummaryOf(Noise::Id, "observation IDs", false);
    SummaryOf(Noise::Object, "objects of observations", false);
    SummaryOf(Noise::EventType, "event types", true);
    SummaryOf(Noise::EventObject, "objects of events", true);
}

// The shares are of calendar minutes. The limit itself counts by minutes of its own, which begin with an
// event.
void Log::SummaryOf(Noise kind, const char *title, bool events)
{
    Statement noisy(mDatabase,
                    "SELECT name, sum(count), sum(limited), max(count), minute FROM noise WHERE kind = ? "
                    "AND minute >= ? AND minute <= ? GROUP BY name ORDER BY 2 DESC LIMIT ?");
    noisy.With(kind, mSpan.since / static_cast<std::uint64_t>(kMinute),
               mSpan.until / static_cast<std::uint64_t>(kMinute), kNoisiest);
    if (!mOptions.asJson) mOut.Line(fmt::format("\nThe noisiest {}:", title));
    while (noisy.Step()) {
        std::string name = mRows.NameText(noisy.Integer(0));
        std::uint64_t count = noisy.Unsigned(1), limited = noisy.Unsigned(2), most = noisy.Unsigned(3);
        std::uint64_t busiest = noisy.Unsigned(4) * static_cast<std::uint64_t>(kMinute);
        std::uint64_t percent = std::min<std::uint64_t>(most * 100 / kEventLimitPerMinute, 100);
        if (mOptions.asJson) {
            json line{{"kind", "summary"},
                      {"of", title},
                      {"name", name},
                      {"count", count},
                      {"busiestMinute", UtcTime(busiest)},
                      {"countInIt", most}};
            if (events) line.update({{"limited", limited}, {"limitPercent", percent}});
            mOut.Line(JsonLine(line));
            continue;
        }
        std::string text = fmt::format("  {:>10}  {}", Grouped(count), Printable(name));
        if (events && percent + limited > 0)
            text +=
                fmt::format("  ({}% of the event limit at {}{})", percent, ShortTime(busiest).substr(0, 16),
                            limited > 0 ? fmt::format("; {} dropped by it", Grouped(limited)) : "");
        mOut.Line(text);
    }
}

} // namespace

void AddLogCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<LogOptions>();
    AddFileOption(app, &options->file);
    AddTimeOptions(app, &options->since, &options->until);
    app.add_option("-o,--object", options->object,
                   "Only what is about this object; * and ? are wild cards");
    app.add_option("--type", options->type, "Only these IDs and event types; * and ? are wild cards")
        ->type_name("GLOB");
    app.add_flag("--undelivered", options->undelivered, "Only events that the receiver has not got");
    app.add_flag("--lost", options->lost, "Only observations that were lost");
    auto follow = app.add_flag("--follow", options->follow, "Go on with what comes");
    app.add_flag("--summary", options->summary, "Instead: what was noisiest")->excludes(follow);
    app.add_option("-n,--lines", options->lines, "The last N lines; 1000 when it is not named")
        ->type_name("N")
        ->check(CLI::Range(size_t{1}, size_t{100'000'000}));
    app.add_flag("--json", options->asJson, "One JSON object a line");
    AddCatalogueOption(app, &options->catalogue);
    app.footer(R"(
The first line says whether the evidence is complete, or where its gaps are. o18201 is an
observation and e312 an event of the last run of the daemon, r2:o18201 one of its second;
"keladm why" explains each.

Examples:
  keladm log --since 03:00 --until 03:30
  keladm log --object vmnic2 --since 'yesterday 22:00'
  keladm log --undelivered --since -1d
  keladm log --summary --since -1d)");
    app.callback([options, chosen] {
        *chosen = [options] {
            StopSignal stop;
            return Log(*options, stop).Run();
        };
    });
}
