#include "commands.h"
#include "console.h"
#include "evidence.h"
#include "fateWords.h"
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

constexpr size_t kCausesShown = 20;

struct WhyOptions {
    std::string file, catalogue, since, until, what;
    bool asJson = false;
};

class Why {
public:
    explicit Why(const WhyOptions &options)
        : mOptions(options), mFile(RecordingFile(options.file)), mDatabase(OpenRecording(mFile)),
          mRows(&mDatabase, FindCatalogue(options.catalogue)), mOut(STDOUT_FILENO),
          mSpan(ParseTimeSpan(options.since.empty() ? "1970-01-02" : options.since, options.until,
                              WallMicroseconds()))
    {
        if (options.since.empty()) mSpan.since = RecordingBegin(mDatabase, mSpan.until);
    }

    int Run();

private:
    bool AskNumber(const std::string &text);
    void AskObservationId(const std::string &id);
    void AskEventType(const std::string &type);
    void Explain(const RecordedObservation &row);
    void Explain(const RecordedEvent &row);
    std::string EarlierOf(std::pair<char, std::int64_t> label);
    void ExplainNever(const std::string &id);
    void ShowEvidence(const TimeSpan &span);
    void Say(int indent, const std::string &text);
    void SayExplanation(int indent, const Explanation &explanation);

    // The newest one of a name, and how often it came.
    template <class Row> std::optional<Row> Newest(const std::string &name);

    const WhyOptions &mOptions;
    std::string mFile;
    Database mDatabase;
    Rows mRows;
    Output mOut;
    TimeSpan mSpan;
    std::uint64_t mTimes = 0; // the name that was asked; 0 of a number
};

int Why::Run()
{
    if (!AskNumber(mOptions.what)) {
        ShowEvidence(mSpan);
        if (mOptions.what.starts_with("nox."))
            AskEventType(mOptions.what);
        else
            AskObservationId(mOptions.what);
    }
    mOut.Flush();
    return kExitOk;
}

void Why::Say(int indent, const std::string &text)
{
    if (!mOptions.asJson) mOut.Line(std::string(static_cast<size_t>(indent), ' ') + text);
}

void Why::SayExplanation(int indent, const Explanation &explanation)
{
    Say(indent, explanation.because);
    if (!explanation.different.empty()) Say(indent, "To be different: " + explanation.different);
}

void Why::ShowEvidence(const TimeSpan &span)
{
    Evidence evidence = FindEvidence(mDatabase, span, IsBeingRecorded(mFile));
    mOut.Line(mOptions.asJson ? JsonLine(evidence.ToJson()) : evidence.ToText());
}

// False when it is no number.
bool Why::AskNumber(const std::string &text)
{
    auto label = mRows.ParseLabel(text);
    if (!label) return false;
    std::optional<RecordedObservation> observation;
    std::optional<RecordedEvent> event;
    if (label->first != 'e') observation = mRows.Observation(label->second);
    if (label->first != 'o') event = mRows.Event(label->second);
    if (!observation && !event)
        throw Failure(kExitFailed,
                      fmt::format("{} is not in the recording: it never was, it came in a gap, or it is "
                                  "not kept any more; \"keladm log\" shows the gaps{}",
                                  text, EarlierOf(*label)));
    // From what it came from to what became of it.
    std::uint64_t from = observation ? observation->time : event->time, until = from;
    if (event) {
        if (!event->causes.empty())
            if (auto cause = mRows.Observation(event->causes.front())) from = std::min(from, cause->time);
        until = std::max({until, event->time, event->delivered});
    }
    ShowEvidence({from, until + 1});
    if (observation) Explain(*observation);
    if (event) Explain(*event);
    return true;
}

// Where the daemon's last run has no such number, an earlier one may: numbers begin anew with each.
std::string Why::EarlierOf(std::pair<char, std::int64_t> label)
{
    for (std::int64_t run = RunOf(label.second) - 1; run > 0; run--) {
        std::int64_t key = KeyOf(run, static_cast<std::uint64_t>(NumberOf(label.second)));
        for (char kind : {'o', 'e'})
            if (label.first != (kind == 'o' ? 'e' : 'o') &&
                (kind == 'o' ? mRows.Observation(key).has_value() : mRows.Event(key).has_value()))
                return fmt::format(". The daemon was started anew since: there is {}",
                                   mRows.Label(kind, key));
    }
    return "";
}

void Why::Explain(const RecordedObservation &row)
{
    json line = mRows.ToJson(row);
    Say(0, fmt::format("{} {} came at {} by {}{}", mRows.Label('o', row.key), Printable(row.id),
                       LocalTime(row.time), ChannelName(row.channel),
                       row.record.empty() ? "" : ": " + mRows.Detail(row)));
    json &fates = line["fates"];
    for (size_t i = 0; i < row.fates.size(); i++) {
        Explanation explanation = ExplainFate(row.fates[i]);
        SayExplanation(2, explanation);
        fates[i]["because"] = explanation.because;
        fates[i]["toBeDifferent"] = explanation.different;
    }
    if (row.fates.empty()) {
        Say(2, "It went to no agent, because none has subscribed to the domain of its ID.");
        Say(2, "To be different: The ID would have to begin with a domain that \"keladm events\" lists.");
    }
    Statement outcomes(mDatabase,
                       "SELECT time, outcome, text FROM outcome WHERE observation = ? ORDER BY time");
    for (outcomes.With(row.key); outcomes.Step();) {
        std::string sentence =
            OutcomeSentence(static_cast<int>(outcomes.Integer(1)), std::string(outcomes.Text(2)));
        Say(2, fmt::format("At {}: {}.", ShortTime(outcomes.Unsigned(0)), sentence));
        line["outcomes"].push_back({{"time", UtcTime(outcomes.Unsigned(0))}, {"text", sentence}});
    }
    auto waits = [](const RecordedFate &fate) {
        return fate.code == static_cast<int>(JournalFate::Gathered);
    };
    if (!line.contains("outcomes") && std::ranges::any_of(row.fates, waits))
        Say(2, "What became of what was gathered is not recorded: it was still to come, or is missing in a "
               "gap.");
    for (std::int64_t key : row.events)
        if (auto event = mRows.Event(key))
            Say(2, fmt::format("It led to {} {}: {} ({})", mRows.Label('e', key), Printable(event->type),
                               mRows.Detail(*event), mRows.DeliveryText(*event)));
    if (mTimes > 0) line["times"] = mTimes;
    if (mOptions.asJson) mOut.Line(JsonLine(line));
}

void Why::Explain(const RecordedEvent &row)
{
    json line = mRows.ToJson(row);
    Say(0, fmt::format("{} {} was made at {}: {}", mRows.Label('e', row.key), Printable(row.type),
                       LocalTime(row.time), mRows.Detail(row)));
    Explanation delivery = ExplainDelivery(row, mRows.IsOfADaemonGone(row.key));
    SayExplanation(2, delivery);
    line["deliveryBecause"] = delivery.because;
    if (row.causes.empty())
        Say(2, row.unnamed > 0
                   ? fmt::format("It came from {} observations that were not recorded.", row.unnamed)
                   : "It came from no observation of its own, because a timer of its agent posted it.");
    else
        Say(2, fmt::format("It came from {} {}:", row.causes.size() + row.unnamed,
                           row.causes.size() + row.unnamed == 1 ? "observation" : "observations"));
    size_t shown = 0;
    for (std::int64_t key : row.causes) {
        if (shown == kCausesShown) break;
        auto cause = mRows.Observation(key);
        if (!cause) continue;
        shown++;
        Say(4, fmt::format("{} {} {}  {}", LocalTime(cause->time), mRows.Label('o', key),
                           Printable(cause->id), mRows.Detail(*cause)));
        for (const RecordedFate &fate : cause->fates)
            Say(6, ExplainFate(fate).because);
    }
    if (size_t all = row.causes.size() + row.unnamed; !row.causes.empty() && shown < all)
        Say(4, fmt::format("and {} more", all - shown));
    if (mTimes > 0) line["times"] = mTimes;
    if (mOptions.asJson) mOut.Line(JsonLine(line));
}

template <class Row> std::optional<Row> Why::Newest(const std::string &name)
{
    constexpr bool isEvent = std::is_same_v<Row, RecordedEvent>;
    mTimes = 0;
    Statement count(mDatabase, "SELECT total(count) FROM noise INDEXED BY noiseName WHERE kind = ? AND "
                               "name = ? AND minute BETWEEN ? AND ?");
    for (std::int64_t number : mRows.NamesOf(name)) {
        auto minute = static_cast<std::uint64_t>(kMinute);
        count.With(isEvent ? Noise::EventType : Noise::Id, number, mSpan.since / minute,
                   mSpan.until / minute);
        if (count.Step()) mTimes += count.Unsigned(0);
    }
    RowFilter filter{mSpan, name, {}, false, 0, 1};
    std::vector<Row> rows;
    if constexpr (isEvent)
        rows = mRows.Events(filter);
    else
        rows = mRows.Observations(filter);
    return rows.empty() ? std::nullopt : std::optional(rows.back());
}

void Why::AskObservationId(const std::string &id)
{
    auto row = Newest<RecordedObservation>(id);
    if (!row) return ExplainNever(id);
    Say(0,
        fmt::format("{} came {} {}; the last one:", id, Grouped(mTimes), mTimes == 1 ? "time" : "times"));
    Explain(*row);
}

void Why::ExplainNever(const std::string &id)
{
    json line{{"kind", "never"}, {"id", id}};
    auto say = [&](const std::string &text) {
        Say(0, text);
        line["text"] = text;
    };
    const auto &known = mRows.Known();
    if (!known)
        say(fmt::format(
            "{} did not come. Whether anybody would know it cannot be told without a catalogue.", id));
    else if (const CatalogueObservation *entry = known->FindObservation(id))
        say(fmt::format(
            "{} did not come. The daemon knows it, in its domain {}: its producer has not sent it, or "
            "it came in a gap.",
            id, entry->domain));
    else {
        auto subscribed = [&](const CatalogueAgent &agent) {
            return std::ranges::any_of(agent.domains, [&](const std::string &domain) {
                return id.starts_with("kel." + domain + ".");
            });
        };
        auto agent = std::ranges::find_if(known->agents, subscribed);
        say(agent == known->agents.end()
                ? fmt::format(
                      "{} did not come, and nobody knows it: no agent has subscribed to its domain, so it "
                      "would reach none.",
                      id)
                : fmt::format(
                      "{} did not come, and nobody knows it: {} would get it, and what it does with an ID "
                      "that it does not know is: {}.",
                      id, agent->name, agent->otherwise));
    }
    if (mOptions.asJson) mOut.Line(JsonLine(line));
}

// Of one that was not posted: what became of the observations that lead to it.
void Why::AskEventType(const std::string &type)
{
    if (auto row = Newest<RecordedEvent>(type)) {
        Say(0, fmt::format("{} was made {} {}; the last one:", type, Grouped(mTimes),
                           mTimes == 1 ? "time" : "times"));
        return Explain(*row);
    }
    const auto &known = mRows.Known();
    if (!known || known->Find(type) == nullptr) {
        std::string text =
            fmt::format("{} was not made{}.", type,
                        known ? ", and nobody knows it: \"keladm events\" lists what there is" : "");
        Say(0, text);
        if (mOptions.asJson) mOut.Line(JsonLine({{"kind", "never"}, {"id", type}, {"text", text}}));
        return;
    }
    Say(0, fmt::format("{} was not made. It would come from:", type));
    if (mOptions.asJson) mOut.Line(JsonLine({{"kind", "never"}, {"id", type}, {"text", "was not made"}}));
    for (const CatalogueObservation &observation : known->observations) {
        if (std::ranges::find(observation.becomes, type) == observation.becomes.end()) continue;
        if (auto row = Newest<RecordedObservation>(observation.id)) {
            Say(0, fmt::format("{}, which came {} {}; the last one:", observation.id, Grouped(mTimes),
                               mTimes == 1 ? "time" : "times"));
            Explain(*row);
        } else {
            ExplainNever(observation.id);
        }
    }
}

} // namespace

void AddWhyCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<WhyOptions>();
    app.add_option("WHAT", options->what,
                   "A number such as o18201 or e312, an observation ID, or an event type")
        ->required();
    AddFileOption(app, &options->file);
    AddTimeOptions(app, &options->since, &options->until);
    app.add_flag("--json", options->asJson, "One JSON object a line");
    AddCatalogueOption(app, &options->catalogue);
    app.footer(R"(
An ID and an event type stand for the last one between --since and --until. Of an event
type that was not posted, it says what became of the observations that lead to it.

Exit status: 1 when a number is not in the recording.

Examples:
  keladm why e312
  keladm why kel.net.vmnic.linkstate.down
  keladm why nox.problem.net.connectivity.lost --since 03:00)");
    app.callback([options, chosen] { *chosen = [options] { return Why(*options).Run(); }; });
}
