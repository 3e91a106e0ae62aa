#include "evidence.h"

#include "batch.h"
#include "text.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

// How long an idle recorder may be silent.
constexpr std::uint64_t kHeartbeat = 30'000'000;

const char *WhyEnded(const CoverageRow &row)
{
    if (!row.ended) return "the recorder was killed";
    switch (*row.ended) {
    case CoverageEnd::TooSlow:
        return "the recorder could not keep up with the journal";
    case CoverageEnd::RecorderStopped:
        return "the recorder was stopped";
    case CoverageEnd::DaemonGone:
        return "the daemon was killed, or has shut the recorder out";
    case CoverageEnd::DaemonEnded:
    case CoverageEnd::DaemonCame:
        break;
    }
    return "no recorder ran";
}

struct Listening : CoverageRow {
    std::uint64_t runSince = 0;
};

std::vector<Listening> ReadListening(Database &database)
{
    std::vector<Listening> rows;
    Statement read(database, "SELECT coverage, coverage.run, time, until, before, last, ended, since "
                             "FROM coverage LEFT JOIN run USING(run) ORDER BY coverage");
    while (read.Step()) {
        Listening row;
        row.coverage = read.Integer(0);
        row.run = read.Integer(1);
        row.time = read.Unsigned(2);
        row.until = read.Unsigned(3);
        if (!read.IsNull(4)) row.before = read.Unsigned(4);
        row.last = read.Unsigned(5);
        if (!read.IsNull(6)) row.ended = static_cast<CoverageEnd>(read.Integer(6));
        row.runSince = read.Unsigned(7);
        // A daemon that is listened to again was there all the time, and had shut the recorder out.
        auto heard =
            std::find_if(rows.rbegin(), rows.rend(), [](const Listening &each) { return each.run != 0; });
        if (row.run != 0 && heard != rows.rend() && heard->run == row.run)
            rows.erase(heard.base(), rows.end());
        rows.push_back(row);
    }
    return rows;
}

// Between two times of listening, or of waiting for a daemon. When both were to the same run of the daemon,
// its numbers tell exactly how much is missing.
void FindGap(const Listening &before, const Listening &after, std::vector<EvidenceGap> *gaps)
{
    if (before.run == after.run) {
        std::optional<std::uint64_t> missing;
        if (after.before) missing = *after.before - std::min(*after.before, before.last);
        gaps->push_back({before.until, after.time, WhyEnded(before), missing});
        return;
    }
    bool daemonLeft = before.ended == CoverageEnd::DaemonEnded || before.ended == CoverageEnd::DaemonGone;
    if (before.ended == CoverageEnd::DaemonGone)
        gaps->push_back({before.until, before.until, "the daemon was killed, with what it had not told yet",
                         std::nullopt});
    else if (!daemonLeft && before.ended != CoverageEnd::DaemonCame)
        gaps->push_back({before.until, std::max(before.until, after.run != 0 ? after.runSince : after.time),
                         before.run == 0
                             ? WhyEnded(before)
                             : fmt::format("{}, and the daemon ended meanwhile", WhyEnded(before)),
                         std::nullopt});
    if (after.before.value_or(0) > 0)
        gaps->push_back(
            {after.runSince, after.time, "the daemon ran before the recorder listened", after.before});
}

// Exact for any period: whole minutes from their sums, the rest from the rows.
std::uint64_t CountBetween(Database &database, std::uint64_t from, std::uint64_t to)
{
    if (from >= to) return 0;
    auto since = static_cast<std::int64_t>(from), until = static_cast<std::int64_t>(to);
    std::int64_t first = (since + kMinute - 1) / kMinute, last = until / kMinute; // minutes [first, last)
    Statement rows(database, "SELECT count(*) FROM observation WHERE time >= ? AND time < ?");
    auto count = [&](std::int64_t begin, std::int64_t end) {
        return rows.With(begin, end).Step() ? rows.Unsigned(0) : 0;
    };
    if (first >= last) return count(since, until);
    Statement sums(database, "SELECT total(count) FROM sum WHERE minute >= ? AND minute < ? AND kind = ?");
    sums.With(first, last, Sum::Observations).Step();
    return sums.Unsigned(0) + count(since, first * kMinute) + count(last * kMinute, until);
}

// What was heard from beginning to end has its number in itself: a month is not added up minute by minute.
std::uint64_t CountObservations(Database &database, const TimeSpan &span,
                                const std::vector<Listening> &rows)
{
    std::uint64_t count = 0;
    for (const Listening &row : rows) {
        if (!row.before) continue;
        if (row.time >= span.since && row.until < span.until)
            count += row.last - std::min(row.last, *row.before);
        else
            count +=
                CountBetween(database, std::max(span.since, row.time), std::min(span.until, row.until + 1));
    }
    return count;
}

} // namespace

Evidence FindEvidence(Database &database, const TimeSpan &span, bool beingRecorded)
{
    std::vector<EvidenceGap> gaps;
    std::vector<Listening> rows = ReadListening(database);
    std::uint64_t kept = static_cast<std::uint64_t>(database.Number("SELECT since FROM kept"));
    Evidence evidence{
        span, CountObservations(database, {std::max(span.since, kept), span.until}, rows), {}};
    std::uint64_t begin = rows.empty() ? span.until : std::max(rows.front().time, kept);
    if (span.since < begin)
        gaps.push_back({span.since,
                        begin,
                        kept >= begin ? "what is older is not kept any more" : "nothing was recorded yet",
                        {}});
    for (size_t i = 1; i < rows.size(); i++)
        FindGap(rows[i - 1], rows[i], &gaps);
    if (!rows.empty()) {
        const Listening &last = rows.back();
        bool waits = beingRecorded && (last.run == 0 || last.ended == CoverageEnd::DaemonEnded);
        if (!waits && span.until > last.until + (beingRecorded ? kHeartbeat : 0))
            gaps.push_back(
                {last.until, span.until, beingRecorded ? "no daemon tells anything" : WhyEnded(last), {}});
    }
    for (const EvidenceGap &gap : gaps)
        if (gap.from <= span.until && gap.until >= span.since) evidence.gaps.push_back(gap);
    return evidence;
}

std::uint64_t RecordingBegin(Database &database, std::uint64_t now)
{
    Statement find(database,
                   "SELECT max(ifnull(min(time), ?), ifnull((SELECT since FROM kept), 0)) FROM coverage");
    return find.With(now).Step() ? find.Unsigned(0) : now;
}

std::string Grouped(std::uint64_t number)
{
    std::string text = std::to_string(number);
    for (size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, ",");
    return text;
}

std::string Observations(std::uint64_t number)
{
    return fmt::format("{} {}", Grouped(number), number == 1 ? "observation" : "observations");
}

std::string Evidence::ToText() const
{
    std::string head = fmt::format("from {} to {}, {}", ShortTime(span.since), ShortTime(span.until),
                                   Observations(observations));
    if (gaps.empty()) return fmt::format("complete {}, no gap", head);
    std::string text =
        fmt::format("INCOMPLETE {}, {} {}:", head, gaps.size(), gaps.size() == 1 ? "gap" : "gaps");
    for (const EvidenceGap &gap : gaps)
        text += fmt::format(
            "\n  {}  {} missing: {}",
            gap.from == gap.until ? fmt::format("at {}", ShortTime(gap.from))
                                  : fmt::format("{} to {}", ShortTime(gap.from), ShortTime(gap.until)),
            gap.observations ? Observations(*gap.observations) : "it is not known how many are", gap.why);
    return text;
}

nlohmann::ordered_json Evidence::ToJson() const
{
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const EvidenceGap &gap : gaps)
        list.push_back({{"from", UtcTime(gap.from)},
                        {"until", UtcTime(gap.until)},
                        {"why", gap.why},
                        {"observationsMissing", gap.observations ? nlohmann::ordered_json(*gap.observations)
                                                                 : nlohmann::ordered_json(nullptr)}});
    return {{"kind", "evidence"},           {"complete", gaps.empty()},     {"since", UtcTime(span.since)},
            {"until", UtcTime(span.until)}, {"observations", observations}, {"gaps", std::move(list)}};
}
