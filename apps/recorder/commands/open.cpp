#include "commands.h"
#include "console.h"
#include "evidence.h"
#include "jsonLine.h"
#include "recording.h"
#include "rows.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <unistd.h>

using json = nlohmann::ordered_json;

namespace {

struct OpenOptions {
    std::string file, catalogue;
    std::optional<std::int64_t> done;
    bool asJson = false;
};

struct OpenProblem {
    std::int64_t number = 0;
    std::string type, object;
    bool clearable = false;
    std::int64_t last = 0; // event
    std::uint64_t firstTime = 0, lastTime = 0;
    std::int64_t times = 0;
    bool orphan = false;
};

// A clear that needs what a daemon remembers cannot come from one that was started later.
bool IsOrphan(const OpenProblem &problem, const Rows &rows)
{
    const auto &known = rows.Known();
    const CatalogueEvent *entry = known ? known->Find(problem.type) : nullptr;
    if (entry == nullptr || entry->clearedBy.empty() || RunOf(problem.last) == rows.LastRun()) return false;
    return std::ranges::all_of(entry->clearedBy, [&](const std::string &type) {
        const CatalogueEvent *clear = known->Find(type);
        return clear != nullptr && clear->remembered;
    });
}

std::vector<OpenProblem> ReadProblems(Database &database, Rows &rows)
{
    std::vector<OpenProblem> problems;
    Statement read(database,
                   "SELECT problem, type, object, clearable, last, firstTime, lastTime, times FROM problem "
                   "WHERE aside IS NULL ORDER BY firstTime, problem");
    while (read.Step()) {
        problems.push_back({read.Integer(0), rows.NameText(read.Integer(1)), std::string(read.Text(2)),
                            read.Integer(3) == 1, read.Integer(4), read.Unsigned(5), read.Unsigned(6),
                            read.Integer(7), false});
        problems.back().orphan = IsOrphan(problems.back(), rows);
    }
    return problems;
}

std::string TimesText(const OpenProblem &problem)
{
    if (problem.times == 1) return "once";
    return fmt::format("{} times, last at {}", problem.times, ShortTime(problem.lastTime));
}

void Show(const std::vector<OpenProblem> &problems, std::uint64_t now, Rows &rows, Output *out)
{
    size_t clearable = 0;
    for (const OpenProblem &problem : problems) {
        if (!problem.clearable) continue;
        clearable++;
        auto event = rows.Event(problem.last);
        out->Line(fmt::format(
            "#{:<4} since {} ({}), {}  {}  {}{}", problem.number, ShortTime(problem.firstTime),
            ShortAge(now - std::min(now, problem.firstTime)), TimesText(problem), Printable(problem.type),
            Printable(problem.object),
            problem.orphan ? "  ORPHAN: the daemon was restarted and has forgotten it; its clear "
                             "cannot come"
                           : ""));
        if (event)
            out->Line(fmt::format("      {} {} ({})", rows.Label('e', event->key), rows.Detail(*event),
                                  rows.DeliveryText(*event)));
    }
    if (clearable == 0) out->Line("no problem waits for its clear");
    if (clearable == problems.size()) return;
    out->Line("\nWithout a clear of their own; --done N puts one aside:");
    for (const OpenProblem &problem : problems)
        if (!problem.clearable)
            out->Line(fmt::format("#{:<4} last at {} ({} ago), {}  {}  {}", problem.number,
                                  ShortTime(problem.lastTime),
                                  ShortAge(now - std::min(now, problem.lastTime)),
                                  problem.times == 1 ? "once" : fmt::format("{} times", problem.times),
                                  Printable(problem.type), Printable(problem.object)));
}

json ToJson(const OpenProblem &problem, Rows &rows)
{
    json line{{"kind", "problem"},
              {"number", problem.number},
              {"type", problem.type},
              {"object", problem.object},
              {"hasClear", problem.clearable},
              {"orphan", problem.orphan},
              {"since", UtcTime(problem.firstTime)},
              {"last", UtcTime(problem.lastTime)},
              {"times", problem.times}};
    if (auto event = rows.Event(problem.last)) line["event"] = rows.ToJson(*event);
    return line;
}

// Stays in the recording, as something that somebody decided.
int PutAside(const OpenOptions &options)
{
    const std::string file = RecordingFile(options.file);
    if (access(file.c_str(), W_OK) != 0 && errno != ENOENT)
        throw Failure(kExitFailed, fmt::format("{}: nothing can be put aside in it by this user: {}", file,
                                               std::strerror(errno)));
    Database database = OpenRecording(file, true);
    Rows rows(&database, std::nullopt);
    Transaction transaction(&database);
    Statement find(database, "SELECT type, object FROM problem WHERE problem = ? AND aside IS NULL");
    if (!find.With(*options.done).Step())
        throw Failure(kExitFailed, fmt::format("no open problem #{}", *options.done));
    std::string text = fmt::format("#{} {} {} was put aside by user {}", *options.done,
                                   rows.NameText(find.Integer(0)), find.Text(1), getuid());
    find.With();
    std::uint64_t now = WallMicroseconds();
    Statement(database, "UPDATE problem SET aside = ? WHERE problem = ?").With(now, *options.done).Run();
    Statement(database, "INSERT INTO notice(time, until, kind, text) VALUES(?, ?, ?, ?)")
        .With(now, now, NoticeKind::kAside, std::string_view(text))
        .Run();
    transaction.Commit();
    Output out(STDOUT_FILENO);
    out.Line(text);
    out.Flush();
    return kExitOk;
}

int Open(const OpenOptions &options)
{
    if (options.done) return PutAside(options);
    std::string file = RecordingFile(options.file);
    Database database = OpenRecording(file);
    Rows rows(&database, FindCatalogue(options.catalogue));
    bool recording = IsBeingRecorded(file);
    Output out(STDOUT_FILENO);

    // What is older than the recording cannot be known: the evidence is about the recording itself.
    auto heard = static_cast<std::uint64_t>(database.Number("SELECT max(until) FROM coverage"));
    std::uint64_t now = recording ? heard : std::max(heard, WallMicroseconds());
    Evidence evidence = FindEvidence(database, {RecordingBegin(database, now), now}, recording);
    std::vector<OpenProblem> problems = ReadProblems(database, rows);
    if (options.asJson) {
        out.Line(JsonLine(evidence.ToJson()));
        for (const OpenProblem &problem : problems)
            out.Line(JsonLine(ToJson(problem, rows)));
    } else {
        out.Line(evidence.ToText());
        Show(problems, now, rows, &out);
    }
    out.Flush();
    return kExitOk;
}

} // namespace

void AddOpenCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<OpenOptions>();
    AddFileOption(app, &options->file);
    app.add_option("--done", options->done,
                   "Put problem N aside, which is recorded; it comes back with its next event")
        ->type_name("N");
    app.add_flag("--json", options->asJson, "One JSON object a line");
    AddCatalogueOption(app, &options->catalogue);
    app.footer(R"(
A problem is open from its event until an event that ends it, as the catalogue pairs
them. ORPHAN marks one whose clear needs what the daemon remembered, and the daemon was
restarted since. Types that have no clear at all are listed apart.

Exit status: 1 when no problem N is open.

Examples:
  keladm open
  keladm open --done 12)");
    app.callback([options, chosen] { *chosen = [options] { return Open(*options); }; });
}
