#include "journalWords.h"

#include "text.h"

#include <cstdlib>
#include <cstring>
#include <eventRecord.h>
#include <fmt/format.h>
#include <kltlibs/kel.h>
#include <memory>
#include <span>

using nlohmann::ordered_json;

namespace {

// What an observation's own bytes say; an empty ID when they are no record.
struct ObservationText {
    std::string id, message;
};
ObservationText Read(const JournalBytes &record)
{
    ObservationText text;
    const std::size_t length = record.bytes.size();
    std::unique_ptr<void, decltype(&std::free)> bytes(std::malloc(length), std::free);
    Kel *made = nullptr;
    if (bytes == nullptr) throw std::bad_alloc();
    std::memcpy(bytes.get(), record.bytes.data(), length);
    if (Kel_MakeKel(bytes.get(), static_cast<std::uint32_t>(length), &made) != 0) return text;
    (void)bytes.release();
    const std::unique_ptr<Kel, decltype(&Kel_Free)> kel(made, Kel_Free);
    const char *id = nullptr;
    char *message = nullptr;
    if (Kel_GetID(made, &id) == 0) text.id = id;
    if (Kel_GetMsg(made, &message, nullptr) == 0)
        text.message = std::unique_ptr<char, decltype(&std::free)>(message, std::free).get();
    return text;
}

std::vector<std::string> Arguments(const JournalBytes &record)
{
    EventRecord event;
    std::string error;
    std::vector<std::string> arguments;
    if (EventRecord_Decode(std::as_bytes(std::span(record.bytes)), &event, &error) == 0)
        for (const EventArgument &argument : event.arguments)
            arguments.push_back(argument.ToText());
    return arguments;
}

template <class... Cases> struct Overloaded : Cases... {
    using Cases::operator()...;
};

// The fields of each kind, in JSON: all else is made of these.
class Fields {
public:
    explicit Fields(const std::map<std::uint16_t, std::string> &agents) : mAgents(agents) {}

    ordered_json Of(const JournalUnknown &entry) const
    {
        return {{"kind", fmt::format("unknown kind {}", entry.kind)}};
    }
    ordered_json Of(const JournalHello &hello) const
    {
        ordered_json agents = ordered_json::array();
        for (const JournalAgent &agent : hello.agents)
            agents.push_back({{"number", agent.number}, {"name", agent.name}, {"ended", agent.ended != 0}});
        return {{"kind", "hello"},          {"format", hello.format},
                {"process", hello.process}, {"startTicks", hello.startTicks},
                {"boot", hello.boot},       {"since", UtcTime(hello.since)},
                {"version", hello.version}, {"agents", agents}};
    }
    ordered_json Of(const JournalBegin &begin) const
    {
        return {{"kind", "begin"},
                {"observations", begin.observations},
                {"events", begin.events},
                {"queued", Origins(begin.queued)}};
    }
    ordered_json Of(const JournalIn &in) const
    {
        const ObservationText text = Read(in.record);
        return {{"kind", "in"},  {"observation", in.observation}, {"channel", in.channel},
                {"id", text.id}, {"message", text.message},       {"to", Origins(in.to)}};
    }
    ordered_json Of(const JournalDropped &dropped) const
    {
        return {{"kind", "dropped"},
                {"channel", dropped.channel},
                {"bytes", dropped.bytes},
                {"text", dropped.why}};
    }
    ordered_json Of(const JournalFateEntry &entry) const
    {
        return {{"kind", "fate"},
                {"origin", Origin(entry.origin)},
                {"fate", JournalWord(entry.fate)},
                {"text", entry.text}};
    }
    ordered_json Of(const JournalOutcomeEntry &entry) const
    {
        return {{"kind", "outcome"},
                {"outcome", JournalWord(entry.outcome)},
                {"origins", Origins(entry.origins)},
                {"unnamed", entry.unnamed},
                {"text", entry.text}};
    }
    ordered_json Of(const JournalOut &out) const
    {
        return {{"kind", "out"},
                {"event", out.event},
                {"type", out.type},
                {"arguments", Arguments(out.record)},
                {"made", !out.record.bytes.empty()},
                {"origins", Origins(out.origins)},
                {"unnamed", out.unnamed}};
    }
    ordered_json Of(const JournalDeliveryEntry &entry) const
    {
        return {{"kind", "delivery"},
                {"event", entry.event},
                {"state", JournalWord(entry.state)},
                {"tries", entry.tries}};
    }
    ordered_json Of(const JournalLost &lost) const
    {
        return {{"kind", "lost"},
                {"agent", Name(lost.agent)},
                {"fate", JournalWord(lost.fate)},
                {"taken", lost.taken},
                {"queued", lost.queued}};
    }
    ordered_json Of(const JournalGap &gap) const { return {{"kind", "gap"}, {"last", gap.last}}; }
    ordered_json Of(const JournalEnd &end) const
    {
        return {{"kind", "end"},
                {"status", end.status},
                {"observations", end.observations},
                {"events", end.events}};
    }

private:
    std::string Name(std::uint16_t agent) const
    {
        const auto found = mAgents.find(agent);
        return found != mAgents.end() ? found->second : fmt::format("agent {}", agent);
    }
    ordered_json Origin(const JournalOrigin &origin) const
    {
        return {{"agent", Name(origin.agent)}, {"count", origin.count}};
    }
    ordered_json Origins(const std::vector<JournalOrigin> &origins) const
    {
        ordered_json list = ordered_json::array();
        for (const JournalOrigin &origin : origins)
            list.push_back(Origin(origin));
        return list;
    }

    const std::map<std::uint16_t, std::string> &mAgents;
};

// "NetCorrelator 3", a list of such between commas, or the value as it is.
std::string Value(const ordered_json &value)
{
    if (value.is_object() && value.contains("count"))
        return fmt::format("{} {}", value["agent"].get<std::string>(), value["count"].get<std::uint64_t>());
    if (value.is_object()) return value["name"].get<std::string>();
    if (value.is_string()) return Printable(value.get<std::string>());
    if (!value.is_array()) return value.dump();
    std::string list;
    for (const ordered_json &item : value)
        list += (list.empty() ? "" : ", ") + Value(item);
    return list;
}

} // namespace

void JournalWords::Learn(const JournalEntry &entry)
{
    if (const auto *hello = std::get_if<JournalHello>(&entry.body))
        for (const JournalAgent &agent : hello->agents)
            mAgents[agent.number] = agent.name;
}

ordered_json JournalWords::Json(const JournalEntry &entry)
{
    Learn(entry);
    ordered_json json{{"number", entry.number}, {"time", UtcTime(entry.microseconds)}};
    json.update(std::visit([&](const auto &body) { return Fields(mAgents).Of(body); }, entry.body));
    return json;
}

std::string JournalWords::Line(const JournalEntry &entry)
{
    std::string line = LocalTime(entry.microseconds);
    const ordered_json json = Json(entry);
    for (const auto &[key, value] : json.items()) {
        if (key == "time" || key == "number") continue;
        if (key == "kind")
            line += fmt::format(" {:<8}", value.get<std::string>());
        else if (const std::string text = Value(value); !text.empty())
            line += fmt::format(" {}={}", key,
                                value.is_string() && text.find(' ') != text.npos ? Quoted(text) : text);
    }
    return line;
}
