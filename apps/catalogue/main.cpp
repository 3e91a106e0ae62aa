// Writes the catalogue: every event that the daemon can post and every observation that it knows, read
// out of the daemon's own tables.
//
//     keld-catalogue --explain FOLDER --json FILE --markdown FILE
//
// The folder holds what explains the events (explanations.h). The JSON is for the tools, which render event
// texts from it; the Markdown is docs/events.md.

#include "explanations.h"
#include "keldDomain.h"
#include "keldDomains.h"
#include "markdown.h"

#include <CLI/CLI.hpp>
#include <fmt/args.h>
#include <fmt/format.h>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

using nlohmann::ordered_json;

namespace {

const char *TypeName(char letter)
{
    switch (letter) {
    case 's':
        return "string";
    case 'v':
        return "uuid"; // nine numbers as it travels; a text in the event
    case 'D':
        return "int64";
    case 'U':
        return "uint64";
    case 'u':
        return "uint32";
    default:
        return "int32";
    }
}

ordered_json ArgumentList(const KeldShape &shape, const KeldNames &names)
{
    ordered_json list = ordered_json::array();
    for (std::size_t i = 0; i < shape.count; ++i)
        list.push_back({{"name", names[i]}, {"type", TypeName(shape.at[i])}});
    return list;
}

std::vector<std::string> Split(const KeldNames &names)
{
    std::vector<std::string> split;
    for (std::size_t i = 0; i < names.Count(); ++i)
        split.emplace_back(names[i]);
    return split;
}

// Whole hours as such; any other number as it stands.
std::string InWords(const KeldLimit &limit)
{
    const bool hours = limit.unit == std::string_view("seconds") && limit.value % 3600 == 0;
    const std::uint64_t number = hours ? limit.value / 3600 : limit.value;
    std::string unit = hours ? "hours" : limit.unit;
    if (unit.empty()) return std::to_string(number);
    if (number == 1) unit.pop_back();
    return fmt::format("{} {}", number, unit);
}

// By name; nothing for a note without any.
void AddLimits(ordered_json *entry, const KeldNote &note)
{
    for (const KeldLimit &limit : note.limits)
        if (limit.name != nullptr) (*entry)["limits"][limit.name] = InWords(limit);
}

// The note with its numbers; throws when it shows one that is not beside it.
std::string Composed(const KeldNote &note)
{
    fmt::dynamic_format_arg_store<fmt::format_context> numbers;
    for (const KeldLimit &limit : note.limits)
        if (limit.name != nullptr) numbers.push_back(fmt::arg(limit.name, InWords(limit)));
    return fmt::vformat(note.text, numbers);
}

const char *ClassName(KeldEventClass cls)
{
    return cls == KeldEventClass::Problem ? "problem" : cls == KeldEventClass::Audit ? "audit" : "clear";
}

class Catalogue {
public:
    explicit Catalogue(std::span<const KeldCorrelatorEntry> correlators)
    {
        for (const KeldCorrelatorEntry &correlator : correlators)
            Add(correlator.domain);
        for (const auto &[type, pairing] : mPairings) {
            for (const std::string &ended : Split(pairing.clears))
                Pair(type, ended, Split(pairing.on));
            for (const std::string &clear : Split(pairing.clearedBy))
                Pair(clear, type, Split(pairing.on));
        }
        for (const ordered_json &event : mEvents)
            if (event["class"] == "clear" && !event.contains("clears"))
                throw std::runtime_error(fmt::format("{} ends nothing", event["type"].get<std::string>()));
    }

    ordered_json Json() const
    {
        return {{"version", 1}, {"agents", mAgents}, {"events", mEvents}, {"observations", mObservations}};
    }

private:
    void Add(const KeldDomain &domain)
    {
        ordered_json domains = ordered_json::array();
        for (const char *name : domain.domains)
            if (name != nullptr) domains.push_back(name);
        mAgents.push_back({{"name", std::string(domain.name) + "Correlator"},
                           {"domains", std::move(domains)},
                           {"otherwise", Composed(domain.otherwise)}});
        AddLimits(&mAgents.back(), domain.otherwise);
        for (const KeldObservation &row : domain.observations) {
            ordered_json becomes = ordered_json::array();
            for (const EventText *event : row.posts)
                if (event != nullptr) becomes.push_back(AddEvent(*event));
            AddObservation(domain, row.id, row.arguments, becomes, row.note);
        }
        for (const Translation &row : domain.translations.rows)
            AddObservation(domain, row.id, row.arguments, {AddEvent(row.event)}, "");
        if (domain.defaultPosts != nullptr)
            mAgents.back()["otherwiseBecomes"] = {AddEvent(*domain.defaultPosts)};
    }

    void AddObservation(const KeldDomain &domain, const char *id, const KeldArguments &arguments,
                        const ordered_json &becomes, const KeldNote &note)
    {
        ordered_json entry = {{"id", id},
                              {"domain", DomainOf(domain, id)},
                              {"agent", mAgents.back()["name"]},
                              {"arguments", ArgumentList(arguments.shape, arguments.names)}};
        AddObject(&entry, arguments.names);
        entry["becomes"] = becomes;
        if (const std::string text = Composed(note); !text.empty()) entry["note"] = text;
        AddLimits(&entry, note);
        mObservations.push_back(std::move(entry));
    }

    static void AddObject(ordered_json *entry, const KeldNames &names)
    {
        if (!names.Object().empty()) (*entry)["object"] = names.Object();
    }

    // The one of the agent's domains that the ID belongs to.
    static std::string DomainOf(const KeldDomain &domain, const std::string &id)
    {
        for (const char *name : domain.domains)
            if (name != nullptr && id.starts_with(fmt::format("kel.{}.", name))) return name;
        throw std::runtime_error(fmt::format("{} is of no domain that its agent subscribes to", id));
    }

    // Its type ID; an event that several observations lead to is listed once.
    std::string AddEvent(const EventText &event)
    {
        std::string type(event.TypeId());
        if (event.names.Count() != event.shape.count)
            throw std::runtime_error(fmt::format("{} does not name its arguments", type));
        ordered_json entry = {{"type", type},
                              {"class", ClassName(event.cls)},
                              {"text", event.Text()},
                              {"arguments", ArgumentList(event.shape, event.names)}};
        AddObject(&entry, event.names);
        if (event.pairing.remembered) entry["remembered"] = true;
        const auto same = Find(type);
        if (same == mEvents.end()) {
            mEvents.push_back(std::move(entry));
            mPairings.emplace_back(type, event.pairing);
        } else if (*same != entry)
            throw std::runtime_error(fmt::format("{} has two texts or two sets of arguments", type));
        return type;
    }

    std::vector<ordered_json>::iterator Find(const std::string &type)
    {
        return std::ranges::find_if(mEvents,
                                    [&](const ordered_json &event) { return event["type"] == type; });
    }

    // Names each on the other's side, and with the problem on which arguments they are matched.
    void Pair(const std::string &ending, const std::string &ended, const std::vector<std::string> &on)
    {
        const auto clear = Find(ending), problem = Find(ended);
        if (clear == mEvents.end() || (*clear)["class"] != "clear" || problem == mEvents.end() ||
            (*problem)["class"] != "problem")
            throw std::runtime_error(fmt::format("{} cannot end {}", ending, ended));
        for (const std::string &name : on)
            if (!HasArgument(*clear, name) || !HasArgument(*problem, name))
                throw std::runtime_error(
                    fmt::format("{} and {} do not both have the argument {}", ending, ended, name));
        if (problem->value("pairedOn", on) != on)
            throw std::runtime_error(fmt::format("{} is ended on different arguments", ended));
        (*clear)["clears"].push_back(ended);
        (*problem)["clearedBy"].push_back(ending);
        (*problem)["pairedOn"] = on;
    }

    static bool HasArgument(const ordered_json &event, const std::string &name)
    {
        return std::ranges::any_of(event["arguments"],
                                   [&](const ordered_json &argument) { return argument["name"] == name; });
    }

    ordered_json mAgents = ordered_json::array();
    std::vector<ordered_json> mEvents;
    std::vector<std::pair<std::string, KeldPairing>> mPairings; // by event type ID
    ordered_json mObservations = ordered_json::array();
};

void WriteFile(const std::string &file, const std::string &content)
{
    std::ofstream stream(file, std::ios::trunc);
    if (!(stream << content).flush())
        throw std::runtime_error(fmt::format("{}: {}", file, std::strerror(errno)));
}

} // namespace

int main(int argc, char **argv)
try {
    std::string explanations;
    std::string json;
    std::string markdown;
    CLI::App app{"Writes the catalogue of events and observations."};
    app.add_option("--explain", explanations, "the folder of explanations")->required();
    app.add_option("--json", json, "the catalogue for the tools");
    app.add_option("--markdown", markdown, "the catalogue for people");
    CLI11_PARSE(app, argc, argv);
    ordered_json catalogue = Catalogue(keldCorrelators).Json();
    AddExplanations(&catalogue, explanations);
    if (!json.empty()) WriteFile(json, catalogue.dump(1) + "\n");
    if (!markdown.empty()) WriteFile(markdown, Markdown(catalogue));
    return 0;
} catch (const std::exception &error) {
    std::fprintf(stderr, "keld-catalogue: %s\n", error.what());
    return 1;
}
