#include "explanations.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>

using nlohmann::ordered_json;

namespace {

constexpr std::size_t kSentencesMax = 3;
constexpr std::size_t kWordsOfItsOwn = 16; // at least so many differ between two events' texts

constexpr const char *kEventLabels[] = {"Meaning", "Impact", "Action"};

struct Entry {
    std::string place; // for messages: "net.txt: nox.problem..."
    std::string heading;
    std::map<std::string, std::string> texts; // by label
};

[[noreturn]] void Refuse(const Entry &entry, const std::string &why)
{
    throw std::runtime_error(fmt::format("{}: {}", entry.place, why));
}

// Lines are joined; what stands before the first heading is for the reader of the file.
std::vector<Entry> ReadEntries(const std::filesystem::path &file)
{
    static const std::regex labelled("([A-Z][a-z]+): (.*)");
    std::ifstream stream(file);
    if (!stream) throw std::runtime_error(fmt::format("{} cannot be read", file.string()));
    std::vector<Entry> entries;
    std::string *text = nullptr;
    for (std::string line; std::getline(stream, line);) {
        std::smatch match;
        if (line.starts_with("## ")) {
            const std::string heading = line.substr(3);
            entries.push_back({fmt::format("{}: {}", file.filename().string(), heading), heading, {}});
            text = nullptr;
        } else if (!entries.empty() && std::regex_match(line, match, labelled)) {
            text = &entries.back().texts[match[1]];
            if (!text->empty()) Refuse(entries.back(), fmt::format("two texts \"{}\"", match[1].str()));
            *text = match[2];
        } else if (!entries.empty() && !line.empty()) {
            if (text == nullptr) Refuse(entries.back(), "a text without a label");
            *text += " " + line;
        }
    }
    return entries;
}

// The first word of each line.
std::set<std::string> ReadCommands(const std::filesystem::path &file)
{
    std::set<std::string> commands{"keladm"};
    std::ifstream stream(file);
    for (std::string line; std::getline(stream, line);)
        if (!line.empty() && !line.starts_with('#')) commands.insert(line.substr(0, line.find(' ')));
    return commands;
}

std::string Lower(std::string text)
{
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::vector<std::smatch> AllOf(const std::string &text, const std::regex &pattern)
{
    return {std::sregex_iterator(text.begin(), text.end(), pattern), std::sregex_iterator()};
}

// Null when none of the list has it.
template <class Json> Json *Find(Json &list, const char *key, const std::string &value)
{
    const auto found = std::find_if(list.begin(), list.end(),
                                    [&](const ordered_json &entry) { return entry[key] == value; });
    return found == list.end() ? nullptr : &*found;
}

bool Names(const ordered_json &list, const std::string &name)
{
    return std::find(list.begin(), list.end(), name) != list.end();
}

// The words by which a reader tells one explanation from another: without names and IDs, which differ
// between any two events.
std::multiset<std::string> WordsOf(const Entry &entry)
{
    static const std::regex word("[A-Za-z]+");
    static const std::regex name("\\{[^}]*\\}|[a-z]+\\.[A-Za-z0-9.]+");
    std::multiset<std::string> words;
    for (const auto &[label, text] : entry.texts) {
        const std::string plain = std::regex_replace(text, name, "");
        for (const std::smatch &match : AllOf(plain, word))
            words.insert(match.str());
    }
    return words;
}

class Explainer {
public:
    Explainer(ordered_json *catalogue, const std::filesystem::path &folder)
        : mCatalogue(*catalogue), mCommands(ReadCommands(folder / "commands.txt"))
    {
        for (ordered_json &agent : mCatalogue["agents"]) {
            agent["emitters"] = ordered_json::array();
            std::string name = Lower(agent["name"].get<std::string>());
            name.resize(name.rfind("correlator"));
            for (Entry &entry : ReadEntries(folder / (name + ".txt")))
                Take(&agent, &entry);
            if (agent["emitters"].size() != agent["domains"].size())
                throw std::runtime_error(
                    fmt::format("{}.txt: not every domain says who emits its observations", name));
        }
        for (const ordered_json &event : mCatalogue["events"])
            if (!event.contains("explanation"))
                throw std::runtime_error(
                    fmt::format("{} has no explanation", event["type"].get<std::string>()));
    }

private:
    void Take(ordered_json *agent, Entry *entry)
    {
        for (auto &[label, text] : entry->texts)
            Prove(*entry, label, text);
        const std::size_t emitters = (*agent)["emitters"].size();
        if (emitters < (*agent)["domains"].size() &&
            entry->heading == fmt::format("kel.{}.*", (*agent)["domains"][emitters].get<std::string>())) {
            (*agent)["emitters"].push_back(Text(*entry, "From"));
            return;
        }
        ordered_json *event =
            const_cast<ordered_json *>(Find(mCatalogue["events"], "type", entry->heading));
        if (event == nullptr) Refuse(*entry, "there is no such event, nor such a domain of the agent here");
        if (!IsPostedBy(*agent, entry->heading)) Refuse(*entry, "another agent's event");
        if (event->contains("explanation")) Refuse(*entry, "explained twice");
        for (const char *label : kEventLabels)
            (*event)["explanation"][Lower(label)] = Composed(*entry, *event, Text(*entry, label));
        if (const std::string object = event->value("object", "");
            !object.empty() && !NamesArgument((*event)["explanation"], object))
            Refuse(*entry, fmt::format("the object, {}, is not named", object));
        if (entry->texts.size() != std::size(kEventLabels)) Refuse(*entry, "a text with an unknown label");
        RefuseTwin(*entry);
    }

    static bool NamesArgument(const ordered_json &explanation, const std::string &name)
    {
        return explanation.dump().find(fmt::format("{{{}}}", name)) != std::string::npos;
    }

    static const std::string &Text(const Entry &entry, const char *label)
    {
        const auto found = entry.texts.find(label);
        if (found == entry.texts.end()) Refuse(entry, fmt::format("no text \"{}\"", label));
        return found->second;
    }

    // What must hold for every text.
    void Prove(const Entry &entry, const std::string &label, const std::string &text) const
    {
        static const std::regex sentenceEnd("[.?!]( |$)"), command("`([^ `]+)[^`]*`");
        static const std::regex id("\\b(kel|nox)(\\.[A-Za-z0-9*]+)+");
        const std::size_t sentences = AllOf(text, sentenceEnd).size();
        if (sentences == 0 || sentences > kSentencesMax || !text.ends_with('.'))
            Refuse(entry, fmt::format("{} is not one to {} sentences", label, kSentencesMax));
        for (const std::smatch &match : AllOf(text, command))
            if (!mCommands.contains(match[1]))
                Refuse(entry,
                       fmt::format("{} names {}, which is not in commands.txt", label, match[1].str()));
        if (std::ranges::count(text, '`') % 2 != 0) Refuse(entry, label + " has an odd backquote");
        for (const std::smatch &match : AllOf(text, id))
            if (match.str().find('*') == std::string::npos && !IsKnown(match.str()))
                Refuse(entry, fmt::format("{} names {}, which does not exist", label, match.str()));
    }

    bool IsKnown(const std::string &id) const
    {
        return Find(mCatalogue["events"], "type", id) != nullptr ||
               Find(mCatalogue["observations"], "id", id) != nullptr;
    }

    bool IsPostedBy(const ordered_json &agent, const std::string &type) const
    {
        const auto leads = [&](const ordered_json &list) { return Names(list, type); };
        return (agent.contains("otherwiseBecomes") && leads(agent["otherwiseBecomes"])) ||
               std::ranges::any_of(mCatalogue["observations"], [&](const ordered_json &observation) {
                   return observation["agent"] == agent["name"] && leads(observation["becomes"]);
               });
    }

    // The text with its limits filled in; the names of arguments stay as they are.
    std::string Composed(const Entry &entry, const ordered_json &event, const std::string &text) const
    {
        static const std::regex reference("\\{([^}]*)\\}");
        std::string composed;
        std::size_t done = 0;
        for (const std::smatch &match : AllOf(text, reference)) {
            const auto at = static_cast<std::size_t>(match.position());
            composed += text.substr(done, at - done);
            composed += Find(event["arguments"], "name", match[1]) != nullptr
                            ? match.str()
                            : Limit(entry, event["type"], match[1]);
            done = at + static_cast<std::size_t>(match.length());
        }
        return composed + text.substr(done);
    }

    // "delay" or "kel.net.vmnic.linkstate.down/delay".
    std::string Limit(const Entry &entry, const std::string &type, const std::string &reference) const
    {
        const std::size_t slash = reference.find('/');
        const std::string id = slash == std::string::npos ? "" : reference.substr(0, slash);
        const std::string name = slash == std::string::npos ? reference : reference.substr(slash + 1);
        std::set<std::string> found;
        const auto look = [&](const ordered_json &from, const char *becomes) {
            if (from.contains(becomes) && from.contains("limits") && from["limits"].contains(name) &&
                Names(from[becomes], type))
                found.insert(from["limits"][name].get<std::string>());
        };
        for (const ordered_json &observation : mCatalogue["observations"])
            if (id.empty() || observation["id"] == id) look(observation, "becomes");
        for (const ordered_json &agent : mCatalogue["agents"])
            if (id.empty()) look(agent, "otherwiseBecomes");
        if (found.size() != 1)
            Refuse(entry, fmt::format("{{{}}} is no argument, and {} limits", reference,
                                      found.empty() ? "none of its" : "several of its"));
        return *found.begin();
    }

    void RefuseTwin(const Entry &entry)
    {
        const std::multiset<std::string> words = WordsOf(entry);
        for (const auto &[place, others] : mWords) {
            std::vector<std::string> differing;
            std::ranges::set_symmetric_difference(words, others, std::back_inserter(differing));
            if (differing.size() < kWordsOfItsOwn) Refuse(entry, "the same as " + place);
        }
        mWords.emplace_back(entry.place, words);
    }

    ordered_json &mCatalogue;
    std::set<std::string> mCommands;
    std::vector<std::pair<std::string, std::multiset<std::string>>> mWords; // of each explanation so far
};

} // namespace

void AddExplanations(ordered_json *catalogue, const std::filesystem::path &folder)
{
    const Explainer explainer(catalogue, folder);
}
