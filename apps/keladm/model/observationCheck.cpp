#include "observationCheck.h"

#include "failure.h"
#include "text.h"

#include "kltlibs/msgfmt.h"

#include <algorithm>
#include <fmt/format.h>
#include <numeric>

namespace {

constexpr const char *kUuidFormat = "%08x-%08x-%04hx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx";

// The conversions that an argument of this type travels in.
std::string ConversionsOf(const std::string &type)
{
    if (type == "uuid") return kUuidFormat;
    return type == "string"   ? "%s"
           : type == "int32"  ? "%d"
           : type == "uint32" ? "%u"
           : type == "int64"  ? "%ld"
                              : "%lu";
}

std::string FormatOf(const CatalogueObservation &observation)
{
    std::string format;
    for (const CatalogueArgument &argument : observation.arguments)
        format += (format.empty() ? "" : " ") + ConversionsOf(argument.type);
    return format;
}

// 's' for each conversion that takes a text, 'n' for each that takes a number.
std::string KindsOf(const std::string &format)
{
    std::string kinds;
    const char *rest = format.c_str();
    const char *start = rest;
    MsgFmtType type = MSGFMT_TYPE_INVALID;
    while (MsgFmt_NextConversion(&rest, &start, &type) == 0)
        kinds += type == MSGFMT_TYPE_STRING ? 's' : 'n';
    return kinds;
}

// The edit distance: how many characters must be inserted, removed or replaced to make one of the other.
size_t Distance(const std::string &one, const std::string &other)
{
    std::vector<size_t> row(other.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < one.size(); i++) {
        size_t diagonal = row[0]++;
        for (size_t j = 0; j < other.size(); j++) {
            size_t exchanged = diagonal + (one[i] == other[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({diagonal + 1, row[j] + 1, exchanged});
        }
    }
    return row.back();
}

Failure Wrong(const std::string &what)
{
    return Failure(kExitUsage, what + "\nNothing was sent; --force sends it all the same.");
}

// For an event's type in the place of an observation's ID: what leads to the event may be meant.
Failure EventInPlace(const Catalogue &catalogue, const CatalogueEvent &event)
{
    std::string leading;
    for (const CatalogueObservation &observation : catalogue.observations)
        if (std::ranges::find(observation.becomes, event.type) != observation.becomes.end())
            leading += "\n  " + WhatItTakes(observation);
    return Wrong(
        fmt::format("{} is an event, not an observation; what leads to it:{}", event.type, leading));
}

// Null for an ID that is not listed but belongs to an agent that posts something for any ID of its domain.
const CatalogueObservation *Known(const Catalogue &catalogue, const std::string &id)
{
    if (auto observation = catalogue.FindObservation(id)) return observation;
    if (auto event = catalogue.Find(id)) throw EventInPlace(catalogue, *event);
    for (const CatalogueAgent &agent : catalogue.agents)
        for (const std::string &domain : agent.domains)
            if (!agent.becomes.empty() && id.starts_with(fmt::format("kel.{}.", domain))) return nullptr;
    auto distance = [&](const CatalogueObservation &observation) { return Distance(id, observation.id); };
    auto nearest = std::ranges::min_element(catalogue.observations, {}, distance);
    bool near = nearest != catalogue.observations.end() && distance(*nearest) <= id.size() / 2;
    throw Wrong(
        fmt::format("{} is no observation that the daemon knows; {}", Quoted(id),
                    near ? "the nearest:\n  " + WhatItTakes(*nearest) : "\"keladm events\" lists them"));
}

} // namespace

std::string WhatItTakes(const CatalogueObservation &observation)
{
    bool uuid = std::ranges::find(observation.arguments, "uuid", &CatalogueArgument::type) !=
                observation.arguments.end();
    return fmt::format("{} takes: {}{}", observation.id,
                       observation.arguments.empty()
                           ? "no arguments"
                           : ArgumentsText(observation.arguments, observation.object),
                       uuid ? fmt::format("; a uuid is nine numbers, {}", kUuidFormat) : "");
}

std::optional<std::string> CheckedFormat(const Catalogue &catalogue, const std::string &id,
                                         const std::optional<std::string> &format,
                                         std::span<const ArgumentWord> words)
{
    const CatalogueObservation *observation = Known(catalogue, id);
    if (observation == nullptr) return format;
    std::string right = FormatOf(*observation), wanted = KindsOf(right);
    std::string kinds = format ? KindsOf(*format) : std::string(words.size(), '?');
    if (kinds.size() != wanted.size())
        throw Wrong(fmt::format("{} argument{}; {}", kinds.size(), kinds.size() == 1 ? "" : "s",
                                WhatItTakes(*observation)));
    if (!format) return right;
    auto [wrong, instead] = std::ranges::mismatch(kinds, wanted);
    if (wrong != kinds.end())
        throw Wrong(fmt::format("argument {}: the format sends a {} where a {} belongs; {}",
                                wrong - kinds.begin() + 1, *wrong == 's' ? "text" : "number",
                                *wrong == 's' ? "number" : "text", WhatItTakes(*observation)));
    return format;
}
