#include "eventWords.h"

#include "jsonLine.h"
#include "text.h"

#include <fmt/format.h>

using json = nlohmann::ordered_json;

namespace {

constexpr size_t kHexBytesShown = 256;

std::optional<std::string> TextOf(const EventRecord &event, const std::optional<Catalogue> &catalogue)
{
    const CatalogueEvent *entry = catalogue ? catalogue->Find(event.typeId) : nullptr;
    return entry != nullptr ? std::optional(EventRecord_Render(event, entry->text)) : std::nullopt;
}

std::string ArgumentList(const EventRecord &event)
{
    std::string list;
    for (const EventArgument &argument : event.arguments) {
        if (!list.empty()) list += ", ";
        auto text = std::get_if<std::optional<std::string>>(&argument.value);
        list += text != nullptr && *text ? Quoted(**text) : argument.ToText();
    }
    return list;
}

json ArgumentJson(const EventArgument &argument)
{
    if (auto text = std::get_if<std::optional<std::string>>(&argument.value))
        return *text ? JsonText(**text) : json(nullptr);
    if (auto number = std::get_if<std::int64_t>(&argument.value)) return *number;
    return std::get<std::uint64_t>(argument.value);
}

std::string Coloured(const char *code, const std::string &text, bool colour)
{
    return colour ? fmt::format("\x1b[{}m{}\x1b[0m", code, text) : text;
}

} // namespace

std::string PlainEvent::ToText() const
{
    std::string text = Printable(type);
    for (const std::string &argument : arguments) {
        bool plain = !argument.empty() && argument.find_first_of(" \t\n\"'*?#\\") == std::string::npos;
        text += " " + (plain ? Printable(argument) : Quoted(argument));
    }
    return text;
}

PlainEvent ToPlainEvent(const ReceivedRecord &record)
{
    if (!record.event) return {fmt::format("malformed record ({})", record.malformed), {}};
    PlainEvent event{record.event->typeId, {}};
    for (const EventArgument &argument : record.event->arguments)
        event.arguments.push_back(argument.ToText());
    return event;
}

std::string EventClassOf(const std::string &typeId)
{
    for (const char *eventClass : {"problem", "audit", "clear"})
        if (typeId.starts_with(fmt::format("nox.{}.", eventClass))) return eventClass;
    return "";
}

std::string RecordLine(const ReceivedRecord &record, const std::optional<Catalogue> &catalogue, bool colour)
{
    if (!record.event)
        return fmt::format("{} {}: {}: {}", Coloured("35", "malformed record", colour), record.bytes.size(),
                           Printable(record.malformed), HexText(record.bytes, kHexBytesShown));
    const EventRecord &event = *record.event;
    std::string eventClass = EventClassOf(event.typeId);
    const char *code = eventClass == "problem" ? "31" : eventClass == "clear" ? "32" : "36";
    auto text = TextOf(event, catalogue);
    std::string detail = text ? Printable(*text) : ArgumentList(event);
    return fmt::format("{} {} {}{}{}", LocalTime(event.timestamp),
                       Coloured(code, fmt::format("{:<7}", eventClass), colour), Printable(event.typeId),
                       detail.empty() ? "" : "  ", detail);
}

json RecordJson(const ReceivedRecord &record, const std::optional<Catalogue> &catalogue)
{
    if (!record.event)
        return {{"malformed", record.malformed},
                {"length", record.bytes.size()},
                {"hex", HexText(record.bytes, record.bytes.size())}};
    const EventRecord &event = *record.event;
    json arguments = json::array();
    for (const EventArgument &argument : event.arguments)
        arguments.push_back(ArgumentJson(argument));
    auto text = TextOf(event, catalogue);
    return {{"time", UtcTime(event.timestamp)},           {"timestamp", event.timestamp},
            {"class", EventClassOf(event.typeId)},        {"id", JsonText(event.typeId)},
            {"text", text ? json(*text) : json(nullptr)}, {"arguments", std::move(arguments)},
            {"host", JsonText(event.hostIdentity)}};
}
