#include "catalogue.h"

#include "console.h"
#include "failure.h"
#include "text.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <nlohmann/json.hpp>

using nlohmann::json;

namespace {

using Texts = std::vector<std::string>;

constexpr std::string_view kArgumentTypes[] = {"string", "int32", "uint32", "int64", "uint64", "uuid"};

std::vector<CatalogueArgument> ReadArgumentList(const json &entry)
{
    std::vector<CatalogueArgument> arguments;
    for (const json &item : entry.at("arguments")) {
        CatalogueArgument argument{item.at("name").get<std::string>(), item.at("type").get<std::string>()};
        if (std::ranges::find(kArgumentTypes, argument.type) == std::end(kArgumentTypes))
            throw std::runtime_error(
                fmt::format("argument \"{}\": unknown type \"{}\"", argument.name, argument.type));
        arguments.push_back(std::move(argument));
    }
    return arguments;
}

CatalogueEvent ReadEvent(const json &entry)
{
    CatalogueEvent event;
    event.type = entry.at("type").get<std::string>();
    event.eventClass = entry.at("class").get<std::string>();
    event.text = entry.at("text").get<std::string>();
    event.arguments = ReadArgumentList(entry);
    event.object = entry.value("object", "");
    event.clears = entry.value("clears", Texts{});
    event.clearedBy = entry.value("clearedBy", Texts{});
    event.pairedOn = entry.value("pairedOn", Texts{});
    event.remembered = entry.value("remembered", false);
    const json explanation = entry.value("explanation", json::object());
    event.explanation = {explanation.value("meaning", ""), explanation.value("impact", ""),
                         explanation.value("action", "")};
    if (!event.type.starts_with("nox." + event.eventClass + "."))
        throw std::runtime_error(
            fmt::format("type \"{}\" is not of the class \"{}\"", event.type, event.eventClass));
    return event;
}

CatalogueObservation ReadObservation(const json &entry)
{
    return {entry.at("id").get<std::string>(), entry.at("domain").get<std::string>(),
            ReadArgumentList(entry),           entry.value("object", ""),
            entry.value("becomes", Texts{}),   entry.value("note", ""),
            entry.value("agent", "")};
}

CatalogueAgent ReadAgent(const json &entry)
{
    return {entry.at("name").get<std::string>(), entry.at("domains").get<Texts>(),
            entry.at("otherwise").get<std::string>(), entry.value("otherwiseBecomes", Texts{}),
            entry.value("emitters", Texts{})};
}

// Reads every entry of one of the lists.
template <typename Entry>
std::vector<Entry> ReadList(const json &document, const char *name, Entry (*read)(const json &))
{
    std::vector<Entry> entries;
    for (const json &item : document.at(name)) {
        try {
            entries.push_back(read(item));
        } catch (const std::exception &error) {
            throw Failure(kExitFailed, fmt::format("{}[{}]: {}", name, entries.size(), error.what()));
        }
    }
    return entries;
}

Catalogue LoadCatalogue(const std::string &file)
{
    std::string content = ReadFile(file);
    try {
        return ParseCatalogue(content);
    } catch (const Failure &failure) {
        throw Failure(failure.status, fmt::format("{}: {}", file, failure.what()));
    }
}

} // namespace

const CatalogueEvent *Catalogue::Find(std::string_view type) const
{
    auto found = std::ranges::find(events, type, &CatalogueEvent::type);
    return found == events.end() ? nullptr : &*found;
}

const CatalogueObservation *Catalogue::FindObservation(std::string_view id) const
{
    auto found = std::ranges::find(observations, id, &CatalogueObservation::id);
    return found == observations.end() ? nullptr : &*found;
}

std::string ArgumentsText(const std::vector<CatalogueArgument> &arguments, const std::string &object)
{
    std::string list;
    for (const CatalogueArgument &argument : arguments)
        list += fmt::format("{}{} {}{}", list.empty() ? "" : ", ", argument.type, argument.name,
                            argument.name == object ? " (object)" : "");
    return list;
}

Catalogue ParseCatalogue(std::string_view text)
{
    try {
        json document = json::parse(text);
        if (document.at("version") != 1)
            throw Failure(kExitFailed, "version is not 1, the only one that is known");
        return {document.contains("agents") ? ReadList(document, "agents", ReadAgent)
                                            : std::vector<CatalogueAgent>(),
                ReadList(document, "events", ReadEvent),
                ReadList(document, "observations", ReadObservation)};
    } catch (const json::exception &error) {
        std::string_view what = error.what(); // behind the library's own "[json.exception...] "
        throw Failure(kExitFailed, fmt::format("not a catalogue: {}", what.substr(what.find("] ") + 2)));
    }
}

std::optional<Catalogue> FindCatalogue(const std::string &file)
{
    if (!file.empty()) return LoadCatalogue(file);
    const char *named = std::getenv("KELD_CATALOGUE");
    if (named != nullptr && *named != '\0') return LoadCatalogue(named);
    for (const std::string &place : CataloguePlaces())
        if (std::error_code error; std::filesystem::exists(place, error)) return LoadCatalogue(place);
    return std::nullopt;
}

Catalogue NeededCatalogue(const std::string &file)
{
    if (auto catalogue = FindCatalogue(file)) return *catalogue;
    throw Failure(
        kExitFailed,
        fmt::format("no catalogue; name one with --catalogue or KELD_CATALOGUE, or put it in one of:\n  {}",
                    fmt::join(CataloguePlaces(), "\n  ")));
}

std::vector<std::string> CataloguePlaces()
{
    std::string folder = ExecutableFolder();
    return {folder + "/../share/keld/events.json", folder + "/../../share/keld/events.json",
            folder + "/../catalogue/events.json", folder + "/../../catalogue/events.json"};
}
