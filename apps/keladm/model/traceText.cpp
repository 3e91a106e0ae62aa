#include "traceText.h"

#include "eventRecord.h"
#include "text.h"

#include "kltlibs/msgfmt.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace {

constexpr size_t kUuidNumbers = 9;

std::string Shown(const TraceArgument &argument)
{
    return argument.kind == TraceArgument::Text ? Quoted(argument.text) : argument.text;
}

std::uint64_t Number(const TraceArgument &argument)
{
    const char *end = argument.text.data() + argument.text.size();
    std::uint64_t magnitude = 0;
    std::int64_t number = 0;
    if (std::from_chars(argument.text.data(), end, magnitude).ec == std::errc()) return magnitude;
    std::from_chars(argument.text.data(), end, number);
    return static_cast<std::uint64_t>(number);
}

std::string Uuid(const TraceArgument *numbers)
{
    std::uint64_t at[kUuidNumbers];
    std::transform(numbers, numbers + kUuidNumbers, at, Number);
    return fmt::format("{:08x}-{:08x}-{:04x}-{:02x}{:02x}{:02x}{:02x}{:02x}{:02x}", at[0] & 0xFFFFFFFF,
                       at[1] & 0xFFFFFFFF, at[2] & 0xFFFF, at[3] & 0xFF, at[4] & 0xFF, at[5] & 0xFF,
                       at[6] & 0xFF, at[7] & 0xFF, at[8] & 0xFF);
}

// Null for an ID that is not listed.
const std::vector<CatalogueArgument> *Listed(const TraceLine &line,
                                             const std::optional<Catalogue> &catalogue)
{
    if (!catalogue) return nullptr;
    if (line.in) {
        auto observation = catalogue->FindObservation(line.id);
        return observation == nullptr ? nullptr : &observation->arguments;
    }
    auto event = catalogue->Find(line.id);
    return event == nullptr ? nullptr : &event->arguments;
}

} // namespace

std::vector<std::pair<std::string, std::string>> NamedArguments(const TraceLine &line,
                                                                const std::optional<Catalogue> &catalogue)
{
    std::vector<std::pair<std::string, std::string>> shown;
    auto listed = Listed(line, catalogue);
    for (size_t at = 0, name = 0; at < line.arguments.size(); name++) {
        bool named = listed != nullptr && name < listed->size();
        bool uuid = named && line.in && (*listed)[name].type == "uuid" &&
                    line.arguments.size() - at >= kUuidNumbers;
        shown.emplace_back(named ? (*listed)[name].name : "",
                           uuid ? Uuid(&line.arguments[at]) : Shown(line.arguments[at]));
        at += uuid ? kUuidNumbers : 1;
    }
    return shown;
}

std::optional<std::string> MessageOf(const TraceLine &line, const std::optional<Catalogue> &catalogue)
{
    const CatalogueEvent *entry = catalogue && !line.in ? catalogue->Find(line.id) : nullptr;
    if (entry == nullptr) return std::nullopt;
    EventRecord event;
    for (const TraceArgument &argument : line.arguments) {
        EventArgument &given = event.arguments.emplace_back();
        given.type = argument.kind == TraceArgument::Integer ? MSGFMT_TYPE_UINT64 : MSGFMT_TYPE_STRING;
        if (argument.kind == TraceArgument::Integer)
            given.value = Number(argument);
        else
            given.value = std::optional(argument.text);
    }
    return EventRecord_Render(event, entry->text);
}
