#include "commands.h"
#include "console.h"
#include "evidence.h"
#include "journalEntry.h"
#include "jsonLine.h"
#include "recording.h"
#include "rows.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <map>
#include <unistd.h>

using json = nlohmann::ordered_json;

namespace {

struct LedgerOptions {
    std::string file, catalogue, since = "-1d", until;
    bool asJson = false;
};

// total = the sum of its parts, or something is not accounted for.
struct Balance {
    std::string of;
    std::string unit;
    std::int64_t total = 0;
    std::vector<std::pair<std::string, std::int64_t>> parts;

    std::int64_t Open() const
    {
        std::int64_t open = total;
        for (const auto &[name, count] : parts)
            open -= count;
        return open;
    }
};

struct Sums {
    std::map<Sum, std::int64_t> plain;
    std::map<std::int64_t, std::int64_t> handed;                        // by agent
    std::map<std::int64_t, std::map<std::int64_t, std::int64_t>> fates; // by agent, by code
    std::map<std::int64_t, std::int64_t> deliveries;                    // by code
};

Sums ReadSums(Database &database, const TimeSpan &span)
{
    Sums sums;
    Statement read(database,
                   fmt::format("SELECT kind, agent, code, sum(count) FROM sum WHERE kind IN {} AND "
                               "minute >= ? AND minute < ? GROUP BY 1, 2, 3",
                               kEverySum));
    auto minute = static_cast<std::uint64_t>(kMinute);
    for (read.With(span.since / minute, span.until / minute); read.Step();) {
        auto kind = static_cast<Sum>(read.Integer(0));
        std::int64_t count = read.Integer(3);
        sums.plain[kind] += count;
        if (kind == Sum::Handed) sums.handed[read.Integer(1)] += count;
        if (kind == Sum::Fate) sums.fates[read.Integer(1)][read.Integer(2)] += count;
        if (kind == Sum::Delivery) sums.deliveries[read.Integer(2)] += count;
    }
    return sums;
}

std::vector<Balance> BalancesOf(Sums &sums, Rows &rows)
{
    std::vector<Balance> balances;
    balances.push_back({"events", "events", sums.plain[Sum::Events], {}});
    for (const auto &[code, count] : sums.deliveries)
        balances.back().parts.emplace_back(JournalWord(static_cast<JournalDelivery>(code)), count);
    for (const auto &[agent, handed] : sums.handed) {
        balances.push_back({rows.NameText(agent), "handed to it", handed, {}});
        for (const auto &[code, count] : sums.fates[agent])
            balances.back().parts.emplace_back(JournalWord(static_cast<JournalFate>(code)), count);
    }
    return balances;
}

std::string ToText(const Balance &balance)
{
    std::string parts;
    for (const auto &[name, count] : balance.parts)
        parts += fmt::format("{}{} {}", parts.empty() ? "" : " + ",
                             Grouped(static_cast<std::uint64_t>(count)), name);
    if (std::int64_t open = balance.Open(); open != 0)
        parts += fmt::format("{}{} {}", parts.empty() ? "" : " + ", open, "not told");
    return fmt::format("{:<20} {:>12} {:<13} = {}", balance.of,
                       Grouped(static_cast<std::uint64_t>(balance.total)), balance.unit,
                       parts.empty() ? "0" : parts);
}

json ToJson(const Balance &balance)
{
    json parts = json::object();
    for (const auto &[name, count] : balance.parts)
        parts[name] = count;
    return {{"kind", "balance"},
            {"of", balance.of},
            {"total", balance.total},
            {"parts", std::move(parts)},
            {"notTold", balance.Open()}};
}

int Ledger(const LedgerOptions &options)
{
    std::string file = RecordingFile(options.file);
    Database database = OpenRecording(file);
    Rows rows(&database, std::nullopt);
    TimeSpan span = ParseTimeSpan(options.since, options.until, WallMicroseconds());
    // Sums are by the minute.
    auto minute = static_cast<std::uint64_t>(kMinute);
    span = {span.since / minute * minute, (span.until + minute - 1) / minute * minute};
    Output out(STDOUT_FILENO);
    Evidence evidence = FindEvidence(database, span, IsBeingRecorded(file));
    Sums sums = ReadSums(database, span);
    auto plain = [&](Sum sum) { return sums.plain[sum]; };

    std::vector<Balance> balances = BalancesOf(sums, rows);
    std::ranges::stable_sort(balances, std::greater(),
                             [](const Balance &balance) { return balance.Open() != 0; });
    if (options.asJson) {
        out.Line(JsonLine(evidence.ToJson()));
        for (const Balance &balance : balances)
            out.Line(JsonLine(ToJson(balance)));
        out.Line(JsonLine({{"kind", "observations"},
                           {"total", plain(Sum::Observations)},
                           {"wantedByNobody", plain(Sum::Nobody)},
                           {"handed", plain(Sum::Observations) - plain(Sum::Nobody)},
                           {"refused", plain(Sum::Refused)},
                           {"missing", plain(Sum::Missing)}}));
        out.Flush();
        return kExitOk;
    }
    out.Line(evidence.ToText());
    for (const Balance &balance : balances)
        if (balance.Open() != 0) out.Line("DOES NOT BALANCE  " + ToText(balance));
    if (std::ranges::any_of(balances, [](const Balance &balance) { return balance.Open() != 0; }))
        out.Line("  (not told: it waits still, came in a gap, or its daemon was killed before it told)");
    auto number = [](std::int64_t count) { return Grouped(static_cast<std::uint64_t>(count)); };
    out.Line(fmt::format("{:<20} {:>12} {:<13} = {} wanted by nobody + {} handed to some agent",
                         "observations", number(plain(Sum::Observations)), "came",
                         number(plain(Sum::Nobody)),
                         number(plain(Sum::Observations) - plain(Sum::Nobody))));
    for (const Balance &balance : balances)
        if (balance.Open() == 0) out.Line(ToText(balance));
    if (plain(Sum::Missing) > 0)
        out.Line(fmt::format("besides: {} observations came in gaps and are not in these sums",
                             number(plain(Sum::Missing))));
    if (plain(Sum::Refused) > 0)
        out.Line(
            fmt::format("besides: channels refused {} malformed messages", number(plain(Sum::Refused))));
    out.Flush();
    return kExitOk;
}

} // namespace

void AddLedgerCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<LedgerOptions>();
    AddFileOption(app, &options->file);
    AddTimeOptions(app, &options->since, &options->until);
    app.add_flag("--json", options->asJson, "One JSON object a line");
    AddCatalogueOption(app, &options->catalogue);
    app.footer(R"(
Whole minutes. A fate is counted in the minute in which its observation came, a delivery
in that in which its event was made. "Not told" is what still waits, what was in a gap,
or what a daemon that was killed had not told; what does not balance stands first.

Examples:
  keladm ledger
  keladm ledger --since 'yesterday 22:00' --until 06:00)");
    app.callback([options, chosen] { *chosen = [options] { return Ledger(*options); }; });
}
