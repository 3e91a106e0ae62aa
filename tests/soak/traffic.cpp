#include "traffic.h"

#include <charconv>
#include <cstring>
#include <kltlibs/msgfmt.h>
#include <stdexcept>

namespace {

constexpr std::string_view kTagMark = "soak-";
constexpr std::size_t kScriptMax = 20'000;

// How often each sort comes: one-to-one rows make most of the traffic. What is gathered over time comes
// seldom, as on a host: thousands in one batch would make an event that is too large to be posted.
constexpr std::size_t kRowWeight = 40;
constexpr std::size_t kOtherWeight = 40;
constexpr std::size_t kStateWeight = 4;
constexpr std::size_t kUplinkWeight = 1;

bool IsUnder(std::string_view id, const KeldDomain &domain)
{
    for (const char *name : domain.domains)
        if (name != nullptr && id.starts_with("kel." + std::string(name) + ".")) return true;
    return false;
}

bool Knows(const KeldDomain &domain, std::string_view id)
{
    for (const Translation &row : domain.translations.rows)
        if (row.id == id) return true;
    for (const KeldObservation &row : domain.observations)
        if (row.id == id) return true;
    return false;
}

// Who leaves a trace line of it.
std::uint32_t LoggedBy(std::string_view id)
{
    std::uint32_t agents = 0;
    for (std::size_t agent = 0; agent < kAgents; ++agent) {
        const KeldDomain &domain = keldCorrelators[agent].domain;
        if (!IsUnder(id, domain)) continue;
        const std::string_view otherwise = domain.otherwise.text;
        if (Knows(domain, id) || otherwise.starts_with("written to the log")) agents |= 1U << agent;
    }
    return agents;
}

Dice DiceFor(std::uint64_t seed, Serial serial) { return Dice(seed ^ serial.ToTimestamp()); }

// The arguments of one observation, and how an event shows each.
struct Values {
    std::string format;
    std::vector<std::string> texts;
    std::vector<KelProducerArg> args;
    std::vector<std::string> shown;

    Values(const TrafficKind &kind, Serial serial, Dice dice)
    {
        if (kind.arguments == nullptr) return;
        const KeldArguments &arguments = *kind.arguments;
        texts.reserve(arguments.shape.count); // args point into it
        for (std::size_t i = 0; i < arguments.shape.count; ++i)
            Add(arguments.shape.at[i], arguments.names[i], kind.tag == i ? serial.ToTag() : std::string(),
                dice);
    }

    void Add(char letter, std::string_view name, const std::string &tag, Dice &dice)
    {
        switch (letter) {
        case 's':
            texts.push_back(TextFor(name, dice) + tag);
            Push("%s ", {MSGFMT_TYPE_STRING, 0, texts.back().c_str()});
            shown.push_back(texts.back());
            return;
        case 'v': {
            const auto number = static_cast<unsigned>(dice.Below(250));
            for (unsigned part = 0; part < 9; ++part)
                Push("%x ", {MSGFMT_TYPE_UINT32, number + part % 5, nullptr});
            char text[40];
            std::snprintf(text, sizeof text, "%08x-%08x-%04x-%02x%02x%02x%02x%02x%02x", number, number + 1,
                          number + 2, number + 3, number + 4, number, number + 1, number + 2, number + 3);
            shown.emplace_back(text);
            return;
        }
        case 'D':
            return AddNumber("%ld ", MSGFMT_TYPE_INT64, dice.Below(1ULL << 40));
        case 'U':
            return AddNumber("%lu ", MSGFMT_TYPE_UINT64, dice.Below(1ULL << 40));
        case 'u':
            return AddNumber("%u ", MSGFMT_TYPE_UINT32, dice.Below(1ULL << 31));
        default: // of what has narrower forms: what fits each
            return AddNumber("%d ", MSGFMT_TYPE_INT32, dice.Below(name.starts_with("uplinks") ? 3 : 100));
        }
    }

    void AddNumber(const char *conversion, std::uint32_t type, std::uint64_t number)
    {
        Push(conversion, {type, number, nullptr});
        shown.push_back(std::to_string(number));
    }

    // Few names of each sort, as a host has.
    static std::string TextFor(std::string_view name, Dice &dice)
    {
        const std::string number = std::to_string(dice.Below(4));
        if (name == "nic") return "vmnic" + number;
        if (name == "portGroup") return "PG-" + number;
        if (name == "path") return "hba1:C0:T0:L" + number;
        return std::string(name) + "-" + number;
    }

    void Push(const char *conversion, KelProducerArg arg)
    {
        format += conversion;
        args.push_back(arg);
    }
};

} // namespace

std::uint64_t Dice::Next()
{
    std::uint64_t z = mState += 0x9E3779B97F4A7C15;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
}

Serial Serial::FromTimestamp(std::uint64_t timestamp)
{
    const std::uint64_t serial = timestamp - kObservationTime;
    return {static_cast<std::uint32_t>(serial >> 20), static_cast<std::uint32_t>(serial & kNumberMax)};
}

std::string Serial::ToTag() const
{
    return "." + std::string(kTagMark) + std::to_string(producer) + "-" + std::to_string(number) + "-";
}

std::optional<Serial> Serial::FromText(std::string_view text)
{
    const std::size_t mark = text.find(kTagMark);
    if (mark == text.npos) return std::nullopt;
    Serial serial;
    const char *const end = text.data() + text.size();
    const char *at = std::from_chars(text.data() + mark + kTagMark.size(), end, serial.producer).ptr;
    if (at == end || std::from_chars(at + 1, end, serial.number).ec != std::errc()) return std::nullopt;
    return serial;
}

Traffic::Traffic(std::uint64_t seed) : mSeed(seed)
{
    for (std::size_t agent = 0; agent < kAgents; ++agent) {
        const KeldDomain &domain = keldCorrelators[agent].domain;
        for (const Translation &row : domain.translations.rows)
            AddRow(agent, row);
        for (const KeldObservation &row : domain.observations)
            AddObservation(agent, row);
    }
    AddOthers();
}

void Traffic::AddRow(std::size_t agent, const Translation &row)
{
    TrafficKind kind{row.id, &row.arguments, LoggedBy(row.id), false, &row, agent, {}, {}};
    for (std::size_t place = 0; place < row.event.shape.count && !kind.tag; ++place)
        if (row.arguments.shape.at[place] == 's') kind.tag = kind.tagShown = place;
    const std::string type(row.event.TypeId());
    if (!mPosters.emplace(type, agent).second && mPosters[type] != agent)
        throw std::logic_error(type + " is posted by two agents");
    mTags[type].insert(kind.tagShown);
    Add(std::move(kind), kRowWeight);
}

void Traffic::AddObservation(std::size_t agent, const KeldObservation &row)
{
    for (const EventText *event : row.posts)
        if (event != nullptr) {
            mPosters.emplace(event->TypeId(), agent);
            mWithState.emplace(event->TypeId());
            mTags[std::string(event->TypeId())].insert(std::nullopt);
        }
    const std::string_view id = row.id;
    // A watchdog holds its NIC's batches back, for good when nothing comes up: they would only grow.
    if (id == "kel.net.uplink.watchdog.timeout") return;
    const bool uplink = id.starts_with("kel.net.");
    Add({row.id, &row.arguments, LoggedBy(id), false, nullptr, agent, {}, {}},
        uplink ? kUplinkWeight : kStateWeight);
}

// What no table knows: ignored, written to the log, or named there as unknown.
void Traffic::AddOthers()
{
    for (std::size_t agent = 0; agent < kAgents; ++agent) {
        const KeldDomain &domain = keldCorrelators[agent].domain;
        const std::string_view otherwise = domain.otherwise.text;
        const std::string id = "kel." + std::string(domain.domains[0]) + ".unheard.of";
        const bool named = otherwise == "named in the log" || otherwise == "reported in the log as unknown";
        Add({id, nullptr, named ? 1U << agent : LoggedBy(id), named, nullptr, 0, {}, {}}, kOtherWeight);
        if (domain.defaultPosts == nullptr) continue;
        const std::string type(domain.defaultPosts->TypeId());
        mPosters.emplace(type, agent);
        mWithState.insert(type);
        mTags[type].insert(std::nullopt);
    }
    Add({"kel.nobody.listens", nullptr, 0, false, nullptr, 0, {}, {}}, kOtherWeight);
}

void Traffic::Add(TrafficKind kind, std::size_t weight)
{
    mWeighted.insert(mWeighted.end(), weight, static_cast<std::uint16_t>(mKinds.size()));
    mKinds.push_back(std::move(kind));
}

std::vector<std::uint16_t> Traffic::Script(std::uint32_t producer) const
{
    Dice dice(mSeed ^ (std::uint64_t{producer} << 32));
    std::vector<std::uint16_t> script(1 + dice.Below(kScriptMax));
    for (std::uint16_t &kind : script)
        kind = mWeighted[dice.Below(mWeighted.size())];
    return script;
}

void Traffic::Append(RecordBytes &batch, std::size_t kind, Serial serial) const
{
    const TrafficKind &what = mKinds[kind];
    const Values values(what, serial, DiceFor(mSeed, serial));
    const std::string id = what.unheard ? what.id + serial.ToTag() : what.id;
    std::byte record[4096];
    std::size_t length = 0;
    const int error =
        KelRecord_BuildFromArgs(record, sizeof record, &length, serial.ToTimestamp(), id.c_str(),
                                values.format.c_str(), values.args.data(), values.args.size());
    if (error != 0) throw std::runtime_error(id + ": " + std::strerror(error));
    batch.insert(batch.end(), record, record + length);
}

std::vector<std::string> Traffic::Shown(std::size_t kind, Serial serial) const
{
    const TrafficKind &what = mKinds[kind];
    const Values values(what, serial, DiceFor(mSeed, serial));
    std::vector<std::string> shown;
    for (std::size_t place = 0; place < what.row->event.shape.count; ++place)
        shown.push_back(values.shown[place]);
    return shown;
}

std::optional<std::size_t> Traffic::TagOf(const std::string &type) const
{
    const auto found = mTags.find(type);
    return found == mTags.end() || found->second.size() != 1 ? std::nullopt : *found->second.begin();
}
