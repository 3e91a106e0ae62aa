#include "catalogue.h"
#include "commands.h"
#include "console.h"
#include "observationCheck.h"
#include "sender.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <iostream>
#include <nlohmann/json.hpp>

namespace {

using nlohmann::json;

constexpr std::size_t kLineBytesMax = 256 * 1024;

// The digits of each number of a UUID that is sent as numbers: 8-8-4-2-2-2-2-2-2.
void AddUuid(const std::string &text, std::vector<ArgumentWord> *words)
{
    std::string digits;
    for (const char c : text)
        if (c != '-') digits += c;
    if (digits.size() != 32 || digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw Failure(kExitUsage, fmt::format("{} is no UUID", Quoted(text)));
    std::size_t at = 0;
    for (const std::size_t length : {8U, 8U, 4U, 2U, 2U, 2U, 2U, 2U, 2U}) {
        words->push_back({"0x" + digits.substr(at, length), false});
        at += length;
    }
}

void AddValue(const CatalogueArgument &argument, const json &value, std::vector<ArgumentWord> *words)
{
    const bool isText = argument.type == "string" || argument.type == "uuid";
    if (isText ? !value.is_string() : !value.is_number_integer())
        throw Failure(kExitUsage, fmt::format("argument {} is {}, not {}", argument.name, value.type_name(),
                                              isText ? "a text" : "a whole number"));
    if (argument.type == "uuid")
        AddUuid(value.get<std::string>(), words);
    else if (isText)
        words->push_back({value.get<std::string>(), true});
    else
        words->push_back({value.dump(), false});
}

// The arguments in the catalogue's order, given as a list or by their names.
std::vector<ArgumentWord> Words(const CatalogueObservation &known, const json &given)
{
    std::vector<ArgumentWord> words;
    if (!given.is_array() && !given.is_object())
        throw Failure(kExitUsage, "\"arguments\" is neither a list nor an object");
    for (const CatalogueArgument &argument : known.arguments) {
        const std::size_t place = static_cast<std::size_t>(&argument - known.arguments.data());
        if (given.is_array() ? place >= given.size() : !given.contains(argument.name))
            throw Failure(kExitUsage,
                          fmt::format("argument {} ({}) is missing", argument.name, argument.type));
        AddValue(argument, given.is_array() ? given[place] : given[argument.name], &words);
    }
    if (given.size() > known.arguments.size())
        throw Failure(kExitUsage, fmt::format("{} arguments; {} has {}", given.size(), known.id,
                                              known.arguments.size()));
    return words;
}

Observation ReadObservation(const std::string &line, const Catalogue &catalogue)
{
    if (line.size() > kLineBytesMax)
        throw Failure(kExitUsage, fmt::format("longer than {} bytes", kLineBytesMax));
    const json given = json::parse(line, nullptr, false);
    if (!given.is_object() || !given.contains("id") || !given["id"].is_string())
        throw Failure(kExitUsage, "no JSON object with an \"id\"");
    for (const auto &[key, value] : given.items())
        if (key != "id" && key != "arguments")
            throw Failure(kExitUsage, fmt::format("{} is neither id nor arguments", Quoted(key)));
    const std::string id = given["id"];
    const CatalogueObservation *known = catalogue.FindObservation(id);
    if (known == nullptr) throw Failure(kExitUsage, fmt::format("{} is not in the catalogue", Quoted(id)));
    const auto words = Words(*known, given.value("arguments", json::array()));
    return MakeObservation(KELPRODUCER_USER_CONTEXT, id, CheckedFormat(catalogue, id, std::nullopt, words),
                           words);
}

int Feed(const std::string &catalogueFile)
{
    const Catalogue catalogue = NeededCatalogue(catalogueFile);
    Sender sender;
    sender.Connect(KELPRODUCER_USER_CONTEXT);
    ExitStatus status = kExitOk;
    std::string line;
    for (std::uint64_t number = 1; std::getline(std::cin, line); ++number) {
        if (line.empty()) continue;
        std::optional<Observation> observation;
        try {
            observation = ReadObservation(line, catalogue);
        } catch (const Failure &refused) {
            Tell("feed", fmt::format("line {}: {}", number, refused.what()));
            status = kExitUsage;
        }
        if (observation) sender.Send(*observation);
    }
    sender.Close();
    return status;
}

} // namespace

void AddFeedCommand(CLI::App &app, Command *chosen)
{
    auto catalogue = std::make_shared<std::string>();

    CLI::App *feed =
        app.add_subcommand("feed", "Emit observations that come as JSON lines on standard input");
    AddCatalogueOption(*feed, catalogue.get());
    feed->footer(R"(
For agents and scripts that have something to tell: one object a line, {"id": ...,
"arguments": ...}, the arguments as a list in the catalogue's order or as an object by their
names. Each is checked against the catalogue; one that is refused is named with its line on
standard error, and the others are sent all the same. What has no observation of its own
goes out as kel.external.error, .warning or .info, with component, link and message.

Exit status: 0 the daemon has taken all; 2 some were refused here; 3 no daemon serves the run
directory; 4 when the daemon has turned this program away; 5 when it is not known whether the
daemon will still take the last ones.

Examples:
  echo '{"id": "kel.net.vmnic.linkstate.down", "arguments": ["vmnic0"]}' | keladm feed
  acme-agent --json | keladm feed)");
    feed->callback([catalogue, chosen] { *chosen = [catalogue] { return Feed(*catalogue); }; });
}
