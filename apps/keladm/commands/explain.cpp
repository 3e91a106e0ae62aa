#include "catalogue.h"
#include "commands.h"
#include "console.h"
#include "explanationWords.h"
#include "jsonLine.h"
#include "recorded.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

using json = nlohmann::ordered_json;

namespace {

struct ExplainOptions {
    std::vector<std::string> names;
    std::string catalogue;
    bool asJson = false;
};

bool Contains(const std::vector<std::string> &list, const std::string &name)
{
    return std::ranges::find(list, name) != list.end();
}

const CatalogueAgent *AgentOf(const Catalogue &catalogue, const CatalogueObservation &observation)
{
    const auto agent = std::ranges::find(catalogue.agents, observation.agent, &CatalogueAgent::name);
    return agent == catalogue.agents.end() ? nullptr : &*agent;
}

// Who emits the observations of one of the agent's domains.
std::string Emitter(const CatalogueAgent *agent, const std::string &domain)
{
    if (agent == nullptr) return "";
    const auto at = static_cast<size_t>(std::ranges::find(agent->domains, domain) - agent->domains.begin());
    return at < agent->emitters.size() ? agent->emitters[at] : "";
}

std::string Arguments(const std::vector<CatalogueArgument> &arguments, const std::string &object)
{
    return arguments.empty() ? "none" : ArgumentsText(arguments, object);
}

std::string WhatBecomes(const CatalogueObservation &observation)
{
    if (!observation.note.empty()) return observation.note;
    return "posted at once, one event for each";
}

// What leads to the event, each with what the daemon does with it.
std::string Leads(const Catalogue &catalogue, const CatalogueEvent &event)
{
    std::string leads;
    for (const CatalogueObservation &observation : catalogue.observations)
        if (Contains(observation.becomes, event.type))
            leads += Folded(leads.empty() ? "comes from" : "",
                            fmt::format("{}: {}", observation.id, WhatBecomes(observation)));
    for (const CatalogueAgent &agent : catalogue.agents)
        if (Contains(agent.becomes, event.type))
            leads +=
                Folded("comes from", fmt::format("any other kel.{}.*: {}",
                                                 fmt::join(agent.domains, ".*, kel."), agent.otherwise));
    return leads;
}

std::string Readable(const Catalogue &catalogue, const CatalogueEvent &event, const std::string &recorded)
{
    const bool ends = event.eventClass == "clear";
    return event.type + Folded("text", Printable(event.text)) +
           Folded("arguments", Arguments(event.arguments, event.object)) + ExplanationText(event) +
           Folded(ends ? "ends" : "ends with", EndText(catalogue, event)) + Leads(catalogue, event) +
           recorded;
}

std::string Readable(const Catalogue &catalogue, const CatalogueObservation &observation,
                     const std::string &recorded)
{
    const CatalogueAgent *agent = AgentOf(catalogue, observation);
    std::string text = observation.id + Folded("from", Emitter(agent, observation.domain)) +
                       Folded("arguments", Arguments(observation.arguments, observation.object)) +
                       Folded("read by", observation.agent) + Folded("becomes", WhatBecomes(observation)) +
                       recorded;
    for (const std::string &type : observation.becomes)
        if (const CatalogueEvent *event = catalogue.Find(type))
            text +=
                "\n\n  " + type + ExplanationText(*event) + Folded("ends with", EndText(catalogue, *event));
    return text;
}

json ToJson(const Catalogue &catalogue, const CatalogueEvent &event)
{
    json from = json::array();
    for (const CatalogueObservation &observation : catalogue.observations)
        if (Contains(observation.becomes, event.type)) from.push_back(observation.id);
    return {{"kind", "event"},
            {"id", event.type},
            {"text", event.text},
            {"meaning", event.explanation.meaning},
            {"impact", event.explanation.impact},
            {"action", event.explanation.action},
            {"clears", event.clears},
            {"clearedBy", event.clearedBy},
            {"pairedOn", event.pairedOn},
            {"observations", std::move(from)}};
}

json ToJson(const Catalogue &catalogue, const CatalogueObservation &observation)
{
    json arguments = json::array();
    for (const CatalogueArgument &argument : observation.arguments)
        arguments.push_back({{"name", argument.name}, {"type", argument.type}});
    return {{"kind", "observation"},
            {"id", observation.id},
            {"from", Emitter(AgentOf(catalogue, observation), observation.domain)},
            {"arguments", std::move(arguments)},
            {"agent", observation.agent},
            {"note", WhatBecomes(observation)},
            {"becomes", observation.becomes}};
}

// What becomes of an observation that is in no list: each agent that hears its domain says so.
std::string Unlisted(const Catalogue &catalogue, const std::string &id)
{
    std::string text;
    for (const CatalogueAgent &agent : catalogue.agents)
        for (const std::string &domain : agent.domains)
            if (id.starts_with(fmt::format("kel.{}.", domain)))
                text += Folded("from", Emitter(&agent, domain)) + Folded("read by", agent.name) +
                        Folded("becomes", "not listed, so " + agent.otherwise);
    return text.empty() ? "" : Printable(id) + text;
}

int Explain(const ExplainOptions &options)
{
    const Catalogue catalogue = NeededCatalogue(options.catalogue);
    Output out(STDOUT_FILENO);
    bool first = true;
    const auto show = [&](const std::string &text) {
        out.Line((first || options.asJson ? "" : "\n") + text);
        first = false;
    };
    for (const std::string &name : options.names) {
        size_t shown = 0;
        const bool exact = name.find_first_of("*?") == std::string::npos;
        const json recorded = exact ? AskRecording(name, options.catalogue) : json();
        const auto showAll = [&](const auto &entries, auto id) {
            for (const auto &entry : entries) {
                if (!GlobMatches(name, entry.*id)) continue;
                shown++;
                json line = ToJson(catalogue, entry);
                if (exact) line["recorded"] = recorded;
                show(options.asJson
                         ? JsonLine(line)
                         : Readable(catalogue, entry, Folded("recorded", RecordedText(recorded))));
            }
        };
        showAll(catalogue.events, &CatalogueEvent::type);
        showAll(catalogue.observations, &CatalogueObservation::id);
        if (shown != 0) continue;
        const std::string unlisted = options.asJson ? "" : Unlisted(catalogue, name);
        if (unlisted.empty())
            throw Failure(kExitFailed,
                          fmt::format("no event and no observation is {}; \"keladm events\" lists them, "
                                      "\"keladm events '*word*'\" those with a word in them",
                                      Quoted(name)));
        show(unlisted + Folded("recorded", RecordedText(recorded)));
    }
    out.Flush();
    return kExitOk;
}

} // namespace

void AddExplainCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<ExplainOptions>();

    CLI::App *explain = app.add_subcommand("explain", "Say what an event means and what to do about it");
    explain->add_option("TYPE", options->names, "Event types or observation IDs; * and ? are wild cards")
        ->required();
    AddCatalogueOption(*explain, &options->catalogue);
    explain->add_flag("--json", options->asJson, "One JSON object a line");
    explain->footer(R"(
Of an event: what it means, what it does to the host and its machines, what to do now,
what ends it, and which observations lead to it after which delay. Of an observation: who
emits it, with which arguments, and what becomes of it. <nic> stands for the argument of
that name. Where keld-record keeps a recording that you may read, "recorded" says how often
it came and what became of the last; not of names with wild cards.

Exit status: 1 when there is no such event or observation, and without a catalogue.

Examples:
  keladm explain nox.problem.storage.apd.start
  keladm explain kel.net.vmnic.linkstate.down
  keladm explain 'nox.problem.net.*')");
    explain->callback([options, chosen] { *chosen = [options] { return Explain(*options); }; });
}
