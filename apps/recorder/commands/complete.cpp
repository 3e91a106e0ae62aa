// Words for a shell: options, and what the recording and the catalogue know.

#include "catalogue.h"
#include "commands.h"
#include "console.h"
#include "recording.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <set>
#include <unistd.h>

namespace {

constexpr size_t kWordsMax = 2000;

void AddNames(const std::string &word, bool objects, std::set<std::string> *words)
{
    Database database = OpenRecording(RecordingFile(""));
    // What is neither an ID, a type nor an agent is an object. Names are few beside the rows.
    Statement names(database,
                    fmt::format("SELECT text FROM name WHERE text >= ?1 AND text < ?1 || char(1114111) AND "
                                "{} ORDER BY text LIMIT ?2",
                                objects ? "text NOT GLOB 'kel.*' AND text NOT GLOB 'nox.*' AND name NOT IN "
                                          "(SELECT name FROM agent)"
                                        : "(text GLOB 'kel.*' OR text GLOB 'nox.*')"));
    for (names.With(std::string_view(word), kWordsMax); names.Step();)
        words->emplace(names.Text(0));
}

void AddCatalogue(std::set<std::string> *words)
{
    auto catalogue = FindCatalogue("");
    if (!catalogue) return;
    for (const CatalogueObservation &observation : catalogue->observations)
        words->insert(observation.id);
    for (const CatalogueEvent &event : catalogue->events)
        words->insert(event.type);
}

} // namespace

int Complete(const CLI::App &app, const std::string &before, const std::string &word)
{
    std::set<std::string> words;
    try {
        bool what = app.get_name() == "keladm why" && !before.starts_with('-');
        if (before == "--object" || before == "-o") {
            AddNames(word, true, &words);
        } else if (before == "--type" || (what && !word.starts_with('-'))) {
            AddCatalogue(&words);
            AddNames(word, false, &words);
        } else if (before == "--since" || before == "--until") {
            words = {"-1h", "-1d", "today", "yesterday"};
        } else {
            for (const CLI::Option *option : app.get_options())
                for (const std::string &name : option->get_lnames())
                    words.insert("--" + name);
        }
    } catch (const std::exception &) { // no recording, no catalogue: fewer words
    }
    Output out(STDOUT_FILENO);
    for (const std::string &candidate : words)
        if (candidate.starts_with(word)) out.Line(candidate);
    out.Flush();
    return kExitOk;
}
