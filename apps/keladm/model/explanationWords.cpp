#include "explanationWords.h"

#include "text.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <regex>

namespace {

constexpr size_t kColumns = 100;
constexpr size_t kIndent = 16;

// What a shell does not take for more than one plain word.
bool IsPlainWord(std::string_view text)
{
    return !text.empty() && text.front() != '-' &&
           text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._:/-") ==
               std::string_view::npos;
}

// The event's argument as its text shows it: a number in hexadecimal, say.
std::string ValueShown(const EventRecord &event, size_t index, const std::string &text)
{
    static const std::regex conversion("%[^%a-zA-Z]*[hl]*[a-zA-Z]");
    auto found = std::sregex_iterator(text.begin(), text.end(), conversion);
    for (size_t i = 0; i < index && found != std::sregex_iterator(); ++i)
        ++found;
    EventRecord alone;
    alone.arguments = {event.arguments[index]};
    return found == std::sregex_iterator() ? alone.arguments[0].ToText()
                                           : EventRecord_Render(alone, found->str());
}

std::string ArgumentShown(const std::string &name, const CatalogueEvent &entry, const EventRecord *event,
                          bool inCommand)
{
    for (size_t i = 0; event != nullptr && i < entry.arguments.size() && i < event->arguments.size(); ++i)
        if (entry.arguments[i].name == name) {
            const std::string value = Printable(ValueShown(*event, i, entry.text));
            if (inCommand ? IsPlainWord(value) : !value.empty()) return value;
        }
    return fmt::format("<{}>", name);
}

std::string WithArguments(const std::string &text, const CatalogueEvent &entry, const EventRecord *event)
{
    std::string shown;
    bool inCommand = false;
    for (size_t at = 0; at < text.size(); ++at) {
        const size_t end = text[at] == '{' ? text.find('}', at) : std::string::npos;
        if (end == std::string::npos) {
            inCommand ^= text[at] == '`';
            shown += text[at];
        } else {
            shown += ArgumentShown(text.substr(at + 1, end - at - 1), entry, event, inCommand);
            at = end;
        }
    }
    return shown;
}

// A command is one word: it is to be copied whole.
std::string_view TakeWord(std::string_view *rest)
{
    rest->remove_prefix(std::min(rest->find_first_not_of(' '), rest->size()));
    bool inCommand = false;
    size_t end = 0;
    for (; end < rest->size() && (inCommand || (*rest)[end] != ' '); ++end)
        inCommand ^= (*rest)[end] == '`';
    const std::string_view word = rest->substr(0, end);
    rest->remove_prefix(end);
    return word;
}

} // namespace

std::string Folded(std::string_view label, const std::string &text)
{
    std::string folded, line = fmt::format("    {:<{}}", label, kIndent - 4);
    std::string_view rest = text;
    for (std::string_view word; !(word = TakeWord(&rest)).empty();) {
        if (line.size() > kIndent && line.size() + 1 + word.size() > kColumns) {
            folded += "\n" + line;
            line.assign(kIndent, ' ');
        }
        line += (line.size() > kIndent ? " " : "") + std::string(word);
    }
    return line.size() > kIndent ? folded + "\n" + line : "";
}

std::string ExplanationText(const CatalogueEvent &entry, const EventRecord *event)
{
    return Folded("Meaning", WithArguments(entry.explanation.meaning, entry, event)) +
           Folded("Impact", WithArguments(entry.explanation.impact, entry, event)) +
           Folded("Action", WithArguments(entry.explanation.action, entry, event));
}

std::string EndText(const Catalogue &catalogue, const CatalogueEvent &entry)
{
    if (entry.eventClass == "problem" && entry.clearedBy.empty()) return "no clear: none is posted for it";
    if (entry.eventClass == "problem") {
        const bool forgotten = std::ranges::any_of(entry.clearedBy, [&](const std::string &type) {
            const CatalogueEvent *clear = catalogue.Find(type);
            return clear != nullptr && clear->remembered;
        });
        return fmt::format("{}, {}{}", fmt::join(entry.clearedBy, ", "),
                           entry.pairedOn.empty()
                               ? "whatever its arguments"
                               : fmt::format("of the same {}", fmt::join(entry.pairedOn, " and ")),
                           forgotten ? "; not once keld was restarted, which forgets what it posted" : "");
    }
    std::vector<std::string> ended;
    for (const std::string &type : entry.clears)
        if (const CatalogueEvent *problem = catalogue.Find(type))
            ended.push_back(problem->pairedOn.empty() ? "every " + type
                                                      : fmt::format("{} of the same {}", type,
                                                                    fmt::join(problem->pairedOn, " and ")));
    return fmt::format("{}", fmt::join(ended, ", "));
}
