#include "markdown.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

using nlohmann::ordered_json;

namespace {

std::string Text(const ordered_json &text) { return text.get<std::string>(); }

// With the arguments that it names as <nic>, outside commands marked as code.
std::string Explained(const std::string &text)
{
    std::string explained;
    bool inCommand = false;
    for (const char c : text) {
        if (c == '`') inCommand = !inCommand;
        if (c == '{')
            explained += inCommand ? "<" : "`<";
        else if (c == '}')
            explained += inCommand ? ">" : ">`";
        else
            explained += c;
    }
    return explained;
}

// A text as one line of a table cell.
std::string Cell(std::string text)
{
    std::string escaped;
    for (const char c : text) {
        if (c == '|') escaped += '\\';
        if (c == '\t')
            escaped += "\\t";
        else
            escaped += c;
    }
    return escaped;
}

// The arguments of an event or observation, its object in bold.
std::string NameList(const ordered_json &entry)
{
    std::string list;
    for (const ordered_json &argument : entry["arguments"]) {
        const bool isObject = entry.value("object", "") == argument["name"];
        list += fmt::format("{0}{1}{2}{1} ({3})", list.empty() ? "" : ", ", isObject ? "**" : "",
                            Text(argument["name"]), Text(argument["type"]));
    }
    return list;
}

std::string CodeList(const ordered_json &names)
{
    std::string list;
    for (const ordered_json &name : names)
        list += fmt::format("{}`{}`", list.empty() ? "" : ", ", Text(name));
    return list;
}

} // namespace

std::string Markdown(const ordered_json &catalogue)
{
    std::string page =
        "# Events and observations\n\n"
        "Written by `keld-catalogue` from the daemon's own tables when it is built; do not edit. "
        "`keladm events` lists the same. The argument in bold is the object: what the event or observation "
        "is about.\n\n## Events\n";
    for (const char *cls : {"problem", "clear", "audit"}) {
        page += fmt::format(
            "\n### Class {}\n\n| Event type | Text | Arguments | Pairing |\n|---|---|---|---|\n", cls);
        for (const ordered_json &event : catalogue["events"]) {
            if (event["class"] != cls) continue;
            std::string pairing;
            if (event.contains("clears"))
                pairing = "ends " + CodeList(event["clears"]);
            else if (event.contains("clearedBy"))
                pairing = "ended by " + CodeList(event["clearedBy"]);
            if (event.contains("clearedBy"))
                pairing += event["pairedOn"].empty()
                               ? ", whatever the arguments"
                               : fmt::format(
                                     " of the same {}",
                                     fmt::join(event["pairedOn"].get<std::vector<std::string>>(), " and "));
            page += fmt::format("| `{}` | {} | {} | {} |\n", Text(event["type"]), Cell(Text(event["text"])),
                                NameList(event), pairing);
        }
    }
    page += "\n## What they mean\n\n`keladm explain` shows the same, with what leads to an event and what "
            "ends it.\n";
    for (const ordered_json &event : catalogue["events"]) {
        const ordered_json &texts = event["explanation"];
        page += fmt::format("\n### {}\n\n**Meaning:** {}\n\n**Impact:** {}\n\n**Action:** {}\n",
                            Text(event["type"]), Explained(texts["meaning"]), Explained(texts["impact"]),
                            Explained(texts["action"]));
    }
    page += "\n## Observations\n";
    for (const ordered_json &agent : catalogue["agents"]) {
        std::string below;
        for (const ordered_json &domain : agent["domains"])
            below += fmt::format("{}`kel.{}.`", below.empty() ? "" : " and ", Text(domain));
        page += fmt::format("\n### {} ({})\n\n", Text(agent["name"]), below);
        for (const ordered_json &emitter : agent["emitters"])
            page += Text(emitter) + "\n\n";
        std::string rows;
        for (const ordered_json &row : catalogue["observations"]) {
            if (row["agent"] != agent["name"]) continue;
            std::string becomes = CodeList(row["becomes"]);
            if (row.contains("note")) becomes += (becomes.empty() ? "" : ": ") + Text(row["note"]);
            rows += fmt::format("| `{}` | {} | {} |\n", Text(row["id"]), NameList(row), Cell(becomes));
        }
        if (!rows.empty()) page += "| Observation | Arguments | Becomes |\n|---|---|---|\n" + rows + "\n";
        page += "Any other: " + Text(agent["otherwise"]);
        if (agent.contains("otherwiseBecomes")) page += ", " + CodeList(agent["otherwiseBecomes"]);
        page += ".\n";
    }
    return page;
}
