#include "rows.h"

#include "eventWords.h"
#include "journalEntry.h"
#include "knowledge.h"
#include "recording.h"
#include "text.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <kltlibs/kel.h>
#include <span>
#include <sstream>

using json = nlohmann::ordered_json;

namespace {

constexpr const char *kObservationColumns = "key, time, id, object, channel, record, fates, events";
constexpr const char *kEventColumns =
    "key, time, type, object, record, causes, unnamed, delivery, tries, delivered";
constexpr size_t kNamesMax = 64; // searched for one by one

const char *ColumnsOf(const std::string &table)
{
    return table == "event" ? kEventColumns : kObservationColumns;
}

ReceivedRecord Decoded(const std::string &record)
{
    ReceivedRecord received;
    EventRecord event;
    if (EventRecord_Decode(std::as_bytes(std::span(record)), &event, &received.malformed) == 0)
        received.event = std::move(event);
    return received;
}

} // namespace

std::string ChannelName(int channel)
{
    return channel == KELLIB_USER_CONTEXT ? "user" : fmt::format("async-{}", channel);
}

Rows::Rows(Database *database, std::optional<Catalogue> catalogue)
    : mDatabase(database), mCatalogue(std::move(catalogue)), mLastRun(::LastRun(*database))
{
}

std::string Rows::NameText(std::int64_t name)
{
    auto known = mNames.find(name);
    if (known == mNames.end()) {
        Statement find(*mDatabase, "SELECT text FROM name WHERE name = ?");
        std::string text = find.With(name).Step() ? std::string(find.Text(0)) : "?";
        known = mNames.emplace(name, std::move(text)).first;
    }
    return known->second;
}

std::vector<std::int64_t> Rows::NamesOf(const std::string &pattern)
{
    bool exact = pattern.find_first_of("*?") == std::string::npos;
    Statement find(*mDatabase, exact ? "SELECT name, text FROM name WHERE text = ?1"
                                     : "SELECT name, text FROM name WHERE ?1 <> ''");
    std::vector<std::int64_t> names;
    for (find.With(std::string_view(pattern)); find.Step();)
        if (exact || GlobMatches(pattern, find.Text(1))) names.push_back(find.Integer(0));
    return names;
}

std::string Rows::AgentName(std::int64_t run, std::int64_t number)
{
    auto known = mAgents.find({run, number});
    if (known == mAgents.end()) {
        Statement find(*mDatabase, "SELECT name FROM agent WHERE run = ? AND number = ?");
        std::string text =
            find.With(run, number).Step() ? NameText(find.Integer(0)) : fmt::format("agent {}", number);
        known = mAgents.emplace(std::pair(run, number), std::move(text)).first;
    }
    return known->second;
}

void Rows::Read(Statement &row, RecordedObservation *observation)
{
    observation->key = row.Integer(0);
    observation->time = row.Unsigned(1);
    observation->id = NameText(row.Integer(2));
    if (!row.IsNull(3)) observation->object = NameText(row.Integer(3));
    observation->channel = static_cast<int>(row.Integer(4));
    observation->record = row.Text(5);
    std::istringstream fates{std::string(row.Text(6))};
    for (std::string line; std::getline(fates, line);) {
        std::istringstream words(line);
        RecordedFate fate;
        std::int64_t agent = 0;
        if (!(words >> agent >> fate.count >> fate.code)) continue;
        words.get();
        std::getline(words, fate.text);
        fate.agent = AgentName(RunOf(observation->key), agent);
        observation->fates.push_back(std::move(fate));
    }
    std::istringstream events{std::string(row.Text(7))};
    for (std::uint64_t number = 0; events >> number;)
        observation->events.push_back(KeyOf(RunOf(observation->key), number));
}

void Rows::Read(Statement &row, RecordedEvent *event)
{
    event->key = row.Integer(0);
    event->time = row.Unsigned(1);
    event->type = NameText(row.Integer(2));
    if (!row.IsNull(3)) event->object = NameText(row.Integer(3));
    event->record = row.Text(4);
    for (const json &number : json::parse(row.Text(5), nullptr, false))
        event->causes.push_back(KeyOf(RunOf(event->key), number.get<std::uint64_t>()));
    event->unnamed = static_cast<std::uint32_t>(row.Integer(6));
    event->delivery = static_cast<int>(row.Integer(7));
    event->tries = static_cast<std::uint32_t>(row.Integer(8));
    event->delivered = row.Unsigned(9);
}

// Searches by the index that fits. When there are few names, each is searched for by itself, so that each
// search ends at the limit.
template <class Row>
std::vector<Row> Rows::Find(const std::string &table, const char *nameColumn, const char *flaw,
                            const RowFilter &filter)
{
    std::vector<Row> found;
    auto search = [&](const std::string &index, const std::string &condition, std::int64_t name) {
        Statement rows(*mDatabase,
                       fmt::format("SELECT {} FROM {} INDEXED BY {} WHERE {} time >= ?2 AND time < ?3 AND "
                                   "key > ?4 {} AND ?1 <> -1 ORDER BY time DESC, key DESC LIMIT ?5",
                                   ColumnsOf(table), table, index, condition,
                                   filter.flawed ? fmt::format("AND {}", flaw) : ""));
        rows.With(name, filter.span.since, filter.span.until, filter.after, filter.linesMax);
        while (rows.Step())
            Read(rows, &found.emplace_back());
    };
    std::string all = table + (!filter.flawed ? "Time" : table == "event" ? "Undelivered" : "Lost");
    std::vector<std::int64_t> names, objects;
    if (filter.name) names = NamesOf(*filter.name);
    if (filter.object) objects = NamesOf(*filter.object);
    if (filter.object && objects.size() <= kNamesMax) {
        for (std::int64_t object : objects)
            search(table + "Object",
                   !filter.name
                       ? "object = ?1 AND"
                       : fmt::format("object = ?1 AND {} IN ({}) AND", nameColumn, fmt::join(names, ",")),
                   object);
    } else if (filter.name && names.size() <= kNamesMax && !filter.object) {
        for (std::int64_t name : names)
            search(table + (table == "event" ? "Type" : "Id"), fmt::format("{} = ?1 AND", nameColumn),
                   name);
    } else {
        std::string condition;
        if (filter.name) condition += fmt::format("{} IN ({}) AND ", nameColumn, fmt::join(names, ","));
        if (filter.object) condition += fmt::format("object IN ({}) AND ", fmt::join(objects, ","));
        search(all, condition, 0);
    }
    std::ranges::sort(found, {}, [](const Row &row) { return std::pair(row.time, row.key); });
    if (found.size() > filter.linesMax)
        found.erase(found.begin(), found.end() - static_cast<std::ptrdiff_t>(filter.linesMax));
    return found;
}

std::vector<RecordedObservation> Rows::Observations(const RowFilter &filter)
{
    return Find<RecordedObservation>("observation", "id", "lost = 1", filter);
}

std::vector<RecordedEvent> Rows::Events(const RowFilter &filter)
{
    return Find<RecordedEvent>("event", "type", "delivery IS NOT 1", filter);
}

std::optional<RecordedObservation> Rows::Observation(std::int64_t key)
{
    Statement find(*mDatabase,
                   fmt::format("SELECT {} FROM observation WHERE key = ?", kObservationColumns));
    if (!find.With(key).Step()) return std::nullopt;
    RecordedObservation row;
    Read(find, &row);
    return row;
}

std::optional<RecordedEvent> Rows::Event(std::int64_t key)
{
    Statement find(*mDatabase, fmt::format("SELECT {} FROM event WHERE key = ?", kEventColumns));
    if (!find.With(key).Step()) return std::nullopt;
    RecordedEvent row;
    Read(find, &row);
    return row;
}

bool Rows::IsOfADaemonGone(std::int64_t key) const { return RunOf(key) < mLastRun; }

std::string Rows::Label(char kind, std::int64_t key) const
{
    std::string run = RunOf(key) == mLastRun ? "" : fmt::format("r{}:", RunOf(key));
    return fmt::format("{}{}{}", run, kind, NumberOf(key));
}

std::optional<std::pair<char, std::int64_t>> Rows::ParseLabel(std::string_view text)
{
    auto number = [](std::string_view digits) -> std::optional<std::int64_t> {
        std::int64_t value = 0;
        auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (error != std::errc() || end != digits.data() + digits.size() || value < 0) return std::nullopt;
        return value;
    };
    std::int64_t run = mLastRun;
    if (size_t colon = text.find(':'); text.starts_with('r') && colon != std::string_view::npos) {
        auto named = number(text.substr(1, colon - 1));
        if (!named) return std::nullopt;
        run = *named;
        text.remove_prefix(colon + 1);
    }
    char kind = text.starts_with('o') || text.starts_with('e') ? text.front() : ' ';
    auto value = number(kind == ' ' ? text : text.substr(1));
    if (!value) return std::nullopt;
    return std::pair(kind, KeyOf(run, static_cast<std::uint64_t>(*value)));
}

std::string Rows::Detail(const RecordedObservation &observation) const
{
    std::string text;
    for (const std::string &argument : ArgumentTexts(observation.record))
        text += (text.empty() ? "" : ", ") + Printable(argument);
    return text;
}

std::string Rows::Detail(const RecordedEvent &event) const
{
    ReceivedRecord record = Decoded(event.record);
    if (!record.event && !event.record.empty()) return record.malformed;
    if (!record.event)
        return fmt::format("(no text{}{})", event.causes.empty() ? "" : "; it came from ",
                           event.causes.empty() ? "" : Label('o', event.causes.front()));
    const CatalogueEvent *entry = mCatalogue ? mCatalogue->Find(event.type) : nullptr;
    if (entry != nullptr) return Printable(EventRecord_Render(*record.event, entry->text));
    std::string text;
    for (const EventArgument &argument : record.event->arguments)
        text += (text.empty() ? "" : ", ") + Printable(argument.ToText());
    return text;
}

std::string Rows::FatesText(const RecordedObservation &observation)
{
    if (observation.fates.empty()) return "wanted by nobody";
    std::string text;
    for (const RecordedFate &fate : observation.fates) {
        text += fmt::format("{}{}: {}", text.empty() ? "" : "; ", fate.agent,
                            fate.code == 0 ? "not told" : JournalWord(static_cast<JournalFate>(fate.code)));
        if (!fate.text.empty()) text += fmt::format(" ({})", Printable(fate.text));
    }
    for (std::int64_t event : observation.events)
        text += fmt::format(", {}", Label('e', event));
    return text;
}

std::string Rows::DeliveryText(const RecordedEvent &event) const
{
    if (event.delivery == 0) return "delivery not told";
    std::string text(JournalWord(static_cast<JournalDelivery>(event.delivery)));
    if (event.delivery == static_cast<int>(JournalDelivery::Limited))
        text += fmt::format(": dropped, over {} in a minute", kEventLimitPerMinute);
    if (event.tries > 1 || event.delivery == static_cast<int>(JournalDelivery::Waiting))
        text += fmt::format(", try {} of 6", event.tries);
    if (event.delivery == static_cast<int>(JournalDelivery::Waiting) && IsOfADaemonGone(event.key))
        return text + ", then lost with the daemon";
    if (event.delivered > event.time + 1'000'000)
        text += fmt::format(", {} later", ShortAge(event.delivered - event.time));
    return text;
}

json Rows::ToJson(const RecordedObservation &observation)
{
    json fates = json::array(), events = json::array();
    for (const RecordedFate &fate : observation.fates)
        fates.push_back(
            {{"agent", fate.agent},
             {"fate", fate.code == 0 ? "not told" : JournalWord(static_cast<JournalFate>(fate.code))},
             {"text", fate.text}});
    for (std::int64_t event : observation.events)
        events.push_back(Label('e', event));
    return {{"kind", "observation"},
            {"time", UtcTime(observation.time)},
            {"number", Label('o', observation.key)},
            {"id", observation.id},
            {"object", observation.object ? json(*observation.object) : json(nullptr)},
            {"channel", ChannelName(observation.channel)},
            {"arguments", ArgumentTexts(observation.record)},
            {"fates", std::move(fates)},
            {"events", std::move(events)}};
}

json Rows::ToJson(const RecordedEvent &event)
{
    json causes = json::array();
    for (std::int64_t cause : event.causes)
        causes.push_back(Label('o', cause));
    ReceivedRecord record = Decoded(event.record);
    json body = record.event ? RecordJson(record, mCatalogue) : json::object();
    return {{"kind", "event"},
            {"time", UtcTime(event.time)},
            {"number", Label('e', event.key)},
            {"id", event.type},
            {"object", event.object ? json(*event.object) : json(nullptr)},
            {"text", body.value("text", json(nullptr))},
            {"arguments", body.value("arguments", json::array())},
            {"causes", std::move(causes)},
            {"causesUnnamed", event.unnamed},
            {"delivery",
             event.delivery == 0 ? "not told" : JournalWord(static_cast<JournalDelivery>(event.delivery))},
            {"deliveryTime", event.delivery == 0 ? json(nullptr) : json(UtcTime(event.delivered))},
            {"tries", event.tries},
            {"lostWithDaemon",
             event.delivery == static_cast<int>(JournalDelivery::Waiting) && IsOfADaemonGone(event.key)}};
}
