#include "catalogue.h"
#include "commands.h"
#include "console.h"
#include "explanationWords.h"
#include "jsonLine.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

using json = nlohmann::ordered_json;

namespace {

struct EventsOptions {
    std::string match = "*";
    std::string catalogue;
    bool asJson = false;
    bool names = false;
    bool asLong = false;
};

json ArgumentsJson(const std::vector<CatalogueArgument> &arguments)
{
    json list = json::array();
    for (const CatalogueArgument &argument : arguments)
        list.push_back({{"name", argument.name}, {"type", argument.type}});
    return list;
}

std::string List(const std::vector<std::string> &texts)
{
    return fmt::format("{}", fmt::join(texts, ", "));
}

// The name, then what there is to say about it, one indented line each.
std::string Block(const std::string &name,
                  std::initializer_list<std::pair<const char *, std::string>> facts)
{
    std::string block = name;
    for (const auto &[label, text] : facts)
        if (!text.empty()) block += fmt::format("\n    {:<12}{}", label, Printable(text));
    return block;
}

// The clears of a problem, and what they have in common with it.
std::string ClearedBy(const CatalogueEvent &problem)
{
    if (problem.clearedBy.empty()) return "";
    return List(problem.clearedBy) +
           (problem.pairedOn.empty()
                ? " (whatever the arguments)"
                : fmt::format(" (of the same {})", fmt::join(problem.pairedOn, " and ")));
}

std::string Readable(const CatalogueEvent &event)
{
    return Block(event.type, {{"text", event.text},
                              {"arguments", ArgumentsText(event.arguments, event.object)},
                              {"clears", List(event.clears)},
                              {"cleared by", ClearedBy(event)}});
}

std::string Readable(const CatalogueObservation &observation)
{
    return Block(observation.id, {{"domain", observation.domain},
                                  {"arguments", ArgumentsText(observation.arguments, observation.object)},
                                  {"becomes", List(observation.becomes)},
                                  {"note", observation.note}});
}

// The agent's observations that are not listed, in one of its domains.
std::string Readable(const CatalogueAgent &agent, const std::string &name)
{
    return Block(name, {{"any other", fmt::format("{} (by {})", agent.otherwise, agent.name)},
                        {"becomes", List(agent.becomes)}});
}

json ToJson(const CatalogueEvent &event)
{
    json line{{"kind", "event"},
              {"id", event.type},
              {"class", event.eventClass},
              {"text", event.text},
              {"arguments", ArgumentsJson(event.arguments)}};
    if (!event.object.empty()) line["object"] = event.object;
    if (!event.clears.empty()) line["clears"] = event.clears;
    if (!event.clearedBy.empty()) {
        line["clearedBy"] = event.clearedBy;
        line["pairedOn"] = event.pairedOn;
    }
    return line;
}

json ToJson(const CatalogueObservation &observation)
{
    json line{{"kind", "observation"},
              {"id", observation.id},
              {"domain", observation.domain},
              {"arguments", ArgumentsJson(observation.arguments)},
              {"becomes", observation.becomes}};
    if (!observation.object.empty()) line["object"] = observation.object;
    if (!observation.note.empty()) line["note"] = observation.note;
    return line;
}

json ToJson(const CatalogueAgent &agent, const std::string &name)
{
    return {{"kind", "other observations"},
            {"id", name},
            {"agent", agent.name},
            {"becomes", agent.becomes},
            {"note", agent.otherwise}};
}

const std::string &NameOf(const CatalogueEvent &event) { return event.type; }
const std::string &NameOf(const CatalogueObservation &observation) { return observation.id; }

std::string LongText(const CatalogueEvent &event) { return ExplanationText(event); }
std::string LongText(const CatalogueObservation &) { return ""; }

bool AnyMatches(const std::string &glob, const std::vector<std::string> &types)
{
    return std::ranges::any_of(types, [&](const std::string &type) { return GlobMatches(glob, type); });
}

bool IsMeant(const CatalogueEvent &event, const std::string &glob) { return GlobMatches(glob, event.type); }

bool IsMeant(const CatalogueObservation &observation, const std::string &glob)
{
    return GlobMatches(glob, observation.id) || AnyMatches(glob, observation.becomes);
}

int Events(const EventsOptions &options)
{
    Catalogue catalogue = NeededCatalogue(options.catalogue);
    Output out(STDOUT_FILENO);
    size_t shown = 0;
    auto show = [&](const auto &entries) {
        for (const auto &entry : entries) {
            if (!IsMeant(entry, options.match)) continue;
            shown++;
            out.Line(options.names    ? NameOf(entry)
                     : options.asJson ? JsonLine(ToJson(entry))
                                      : Readable(entry) + (options.asLong ? LongText(entry) : ""));
        }
    };
    show(catalogue.observations);
    bool listed = shown > 0; // else the ID of an observation that is not may be meant
    for (const CatalogueAgent &agent : catalogue.agents)
        for (const std::string &domain : agent.domains) {
            std::string name = fmt::format("kel.{}.*", domain);
            bool meant = GlobMatches(options.match, name) || AnyMatches(options.match, agent.becomes) ||
                         (!listed && GlobMatches(name, options.match));
            if (!meant || options.names) continue;
            shown++;
            out.Line(options.asJson ? JsonLine(ToJson(agent, name)) : Readable(agent, name));
        }
    show(catalogue.events);
    out.Flush();
    if (shown == 0)
        throw Failure(kExitFailed, fmt::format("no observation and no event matches {0}; try '*{1}*'",
                                               Quoted(options.match), options.match));
    return kExitOk;
}

} // namespace

void AddEventsCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<EventsOptions>();

    CLI::App *events = app.add_subcommand("events", "List what is observed and what becomes of it");
    events->add_option("GLOB", options->match, "Only IDs that match, * and ? being wild cards");
    AddCatalogueOption(*events, &options->catalogue);
    auto asJson = events->add_flag("--json", options->asJson, "One JSON object a line");
    auto names = events->add_flag("--names", options->names, "Only the IDs")->excludes(asJson);
    events->add_flag("--long", options->asLong, "With what each event means, and what to do about it")
        ->excludes(asJson)
        ->excludes(names);
    events->footer(R"(
An observation is listed by its own ID and by those of the events that it leads to.
(object) marks the argument that an observation or an event is about. A problem shows
what clears it, and on which argument the two are matched; each domain, as "kel.net.*",
what becomes of any other observation.

Exit status: 1 when nothing matches, and without a catalogue.

Examples:
  keladm events
  keladm events 'nox.problem.net.*'
  keladm events nox.problem.net.vmnic.linkstate.down     with what leads to it
  keladm events --json kel.net.vmnic.linkstate.down)");
    events->callback([options, chosen] { *chosen = [options] { return Events(*options); }; });
}
