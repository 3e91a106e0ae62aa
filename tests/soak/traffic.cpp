#include "traffic.h"

#include <algorithm>
#include <fstream>
#include <kltlibs/msgfmt.h>
#include <map>
#include <nlohmann/json.hpp>
#include <stdexcept>

using nlohmann::json;

namespace {

// How often each sort comes: one-to-one rows make most of the traffic. What is gathered over time comes
// seldom, as on a host: thousands in one batch would make an event that is too large to be posted.
constexpr std::size_t kRowWeight = 40;
constexpr std::size_t kStateWeight = 4;
constexpr std::size_t kUplinkWeight = 1;

} // namespace

std::uint64_t Dice::Below(std::uint64_t end)
{
    std::uint64_t z = state += 0x9E3779B97F4A7C15;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return (z ^ (z >> 31)) % end;
}

std::string ToTag(Serial serial) { return "-soak" + std::to_string(serial) + "-"; }

std::optional<Serial> FindTag(const std::string &text)
{
    const std::size_t at = text.find("-soak");
    if (at == text.npos) return std::nullopt;
    return std::strtoull(text.c_str() + at + 5, nullptr, 10);
}

Traffic::Traffic(const std::string &catalogueFile, std::uint64_t seed) : mSeed(seed)
{
    std::ifstream file(catalogueFile);
    const json catalogue = json::parse(file);
    for (const json &agent : catalogue["agents"])
        mAgents.push_back({agent["name"], agent["domains"],
                           agent["otherwise"].get<std::string>().starts_with("written to the log")});
    for (const json &row : catalogue["observations"])
        AddListed(row, catalogue["events"]);
    // What no table knows: ignored, written to the log, or named there as unknown.
    for (std::size_t agent = 0; agent < mAgents.size(); ++agent) {
        const json &entry = catalogue["agents"][agent];
        TrafficKind kind{.id = "kel." + mAgents[agent].domains.front() + ".unheard.of"};
        kind.isNamed = entry["otherwise"] == "named in the log" ||
                       entry["otherwise"] == "reported in the log as unknown";
        if (kind.isNamed) kind.agent = agent;
        Add(std::move(kind), kRowWeight);
    }
    Add({.id = "kel.nobody.listens"}, kRowWeight);
}

void Traffic::AddListed(const json &row, const json &events)
{
    TrafficKind kind{.id = row["id"]};
    const auto agent = std::ranges::find(mAgents, row["agent"].get<std::string>(), &Agent::name);
    kind.agent = static_cast<std::size_t>(agent - mAgents.begin());
    for (const json &argument : row["arguments"])
        kind.arguments.push_back({argument["name"], argument["type"]});
    // A watchdog holds its NIC's batches back, for good when nothing comes up: they would only grow.
    if (kind.id == "kel.net.uplink.watchdog.timeout") return;
    std::size_t weight = kind.id.starts_with("kel.net.") ? kUplinkWeight : kStateWeight;
    if (!row.contains("note")) { // which tells what state or a decision makes of it
        weight = kRowWeight;
        mEvents.insert(kind.event = row["becomes"].at(0));
        for (const json &event : events)
            if (event["type"] == kind.event)
                for (const json &argument : event["arguments"])
                    kind.shows.push_back(argument["name"]);
    }
    Add(std::move(kind), weight);
}

void Traffic::Add(TrafficKind kind, std::size_t weight)
{
    for (std::size_t agent = 0; agent < mAgents.size(); ++agent)
        for (const std::string &domain : mAgents[agent].domains)
            if (kind.id.starts_with("kel." + domain + ".") &&
                (agent == kind.agent || mAgents[agent].logsAll))
                kind.takers |= 1U << agent;
    mWeighted.insert(mWeighted.end(), weight, mKinds.size());
    mKinds.push_back(std::move(kind));
}

const TrafficKind &Traffic::KindOf(Serial serial) const
{
    return mKinds[mWeighted[Dice{mSeed ^ serial}.Below(mWeighted.size())]];
}

TrafficObservation Traffic::Make(Serial serial) const
{
    const TrafficKind &kind = KindOf(serial);
    const std::string tag = ToTag(serial);
    Dice dice{~mSeed ^ serial};
    std::string format;
    std::vector<KelProducerArg> args;
    std::map<std::string, std::string> shown; // by name
    for (const auto &[name, type] : kind.arguments) {
        const std::uint64_t n = dice.Below(name.starts_with("uplinks") ? 3 : 100);
        shown[name] = std::to_string(n);
        if (type == "string") { // few of each sort, as a host has; what goes into state stays so
            shown[name] = name + "-" + std::to_string(n % 4) + (kind.event.empty() ? "" : tag);
            format += "%s ";
            args.push_back({MSGFMT_TYPE_STRING, 0, shown[name].c_str()});
        } else if (type == "uuid") { // nine numbers as it travels
            shown[name] = "00000001-00000002-0003-040506070809";
            format += "%d %d %d %d %d %d %d %d %d ";
            for (std::uint64_t part = 1; part <= 9; ++part)
                args.push_back({MSGFMT_TYPE_INT32, part, nullptr});
        } else {
            format += "%d ";
            args.push_back({MSGFMT_TYPE_INT32, n, nullptr});
        }
    }
    const std::string id = kind.isNamed ? kind.id + tag : kind.id;
    TrafficObservation made{RecordBytes(4096)};
    std::size_t length = 0;
    if (KelRecord_BuildFromArgs(made.record.data(), made.record.size(), &length, kObservationTime + serial,
                                id.c_str(), format.c_str(), args.data(), args.size()) != 0)
        throw std::logic_error(id + " cannot be built");
    made.record.resize(length);
    for (const std::string &name : kind.shows)
        made.shown.push_back(shown.at(name));
    return made;
}
