#include "commands.h"
#include "console.h"
#include "hostEntries.h"
#include "jsonLine.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <span>
#include <unistd.h>

namespace {

constexpr size_t kNamedMax = 20; // of what would be removed

struct HostOptions {
    bool asJson = false;
    bool names = false;
    bool recursive = false;
    std::string name;
    std::string value;
};

int Get(const HostOptions &options)
{
    auto path = ParseHostName(options.name);
    const HostEntry &entry = KnownHostEntry(path);
    if (entry.value == HostValue::Directory)
        throw Failure(kExitUsage, fmt::format("{}: a directory; use \"keladm host list {}\"", options.name,
                                              options.name));
    int error = 0;
    auto value = HostInventory::ReadText(path, &error);
    if (!value && error == ENOENT)
        throw Failure(kExitFailed, fmt::format("{}: absent ({})", HostName(path), entry.meaning));
    if (!value) throw HostFailure(path, error);
    Output out(STDOUT_FILENO);
    out.Line(options.asJson ? JsonLine({{"name", JsonText(HostName(path))}, {"value", JsonText(*value)}})
                            : *value);
    out.Flush();
    return kExitOk;
}

void ListEntry(const HostInventory::Path &path, const HostOptions &options, Output &out)
{
    std::string name = HostName(path);
    if (options.names) {
        out.Line(Printable(name));
        return;
    }
    const HostEntry *entry = FindHostEntry(path);
    int error = 0;
    auto value = HostInventory::ReadText(path, &error);
    std::optional<std::string> trouble;
    if (!value)
        trouble = std::strerror(error);
    else if (entry == nullptr)
        trouble = "not an entry that the daemon knows";
    else
        trouble = CheckHostValue(*entry, *value);

    if (options.asJson) {
        nlohmann::ordered_json line{{"name", JsonText(name)}, {"value", JsonText(value.value_or(""))}};
        if (trouble) line["trouble"] = *trouble;
        out.Line(JsonLine(line));
    } else {
        out.Line(fmt::format("{} = {}{}", Printable(name), Printable(value.value_or("")),
                             trouble ? fmt::format("   ({})", *trouble) : ""));
    }
}

// Lists what is below a directory, and the directory itself when nothing is.
void ListBelow(const HostInventory::Path &path, const HostOptions &options, Output &out)
{
    auto all = HostEntriesBelow(path);
    if (all.empty() && !path.empty()) all.push_back(path);
    for (const HostInventory::Path &below : all) {
        if (!HostInventory::IsDirectory(below))
            ListEntry(below, options, out);
        else if (options.asJson)
            out.Line(JsonLine({{"name", JsonText(HostName(below))}, {"directory", true}}));
        else
            out.Line(Printable(HostName(below)) + "/");
    }
}

int List(const HostOptions &options)
{
    HostInventory::Path path;
    if (!options.name.empty()) path = ParseHostName(options.name);
    Output out(STDOUT_FILENO);
    int error = 0;
    if (HostInventory::IsDirectory(path))
        ListBelow(path, options, out);
    else if (HostInventory::ReadText(path, &error))
        ListEntry(path, options, out);
    else if (!path.empty()) {
        if (!IsInnerHostDirectory(path)) KnownHostEntry(path);
        throw HostFailure(path, error);
    }
    out.Flush();
    return kExitOk;
}

int Change(HostVerb verb, const HostOptions &options)
{
    ApplyHostChange(MakeHostChange(verb, options.name, options.value));
    return kExitOk;
}

// A directory goes with all that is in it: only when that was asked for.
int Remove(const HostOptions &options)
{
    HostChange change = MakeHostChange(HostVerb::Remove, options.name);
    bool full = HostInventory::IsDirectory(change.path) && !HostInventory::List(change.path).empty();
    if (full && !options.recursive) {
        auto below = HostEntriesBelow(change.path);
        std::string list;
        for (const HostInventory::Path &each : std::span(below).first(std::min(below.size(), kNamedMax)))
            list += fmt::format("\n  {}{}", HostName(each), HostInventory::IsDirectory(each) ? "/" : "");
        if (below.size() > kNamedMax) list += fmt::format("\n  and {} more", below.size() - kNamedMax);
        throw Failure(kExitUsage,
                      fmt::format("{}: a directory; nothing was removed. With --recursive, this "
                                  "would go with it:{}",
                                  options.name, list));
    }
    ApplyHostChange(change);
    return kExitOk;
}

std::string EntryTable()
{
    std::string table = "\nNames:\n";
    for (const HostEntry &entry : HostEntries())
        table += fmt::format("  {}\n      {}; {}\n", entry.pattern, WhatIsRight(entry), entry.meaning);
    return table + R"(
Write a "/" inside a name as %2F and a "%" as %25. A running daemon sees a change at
its next look; the signature, the UUID and the page threshold and its interval it reads
once. No daemon need run.

Exit status: 0 done; 1 when the entry is absent or cannot be changed; 2 for a name or a
value that the daemon would not understand, and nothing was changed.

Examples:
  keladm host set storage/paths/hba1:C0:T0:L4 naa.600508b1001c4d41
  keladm host set "net/portgroups/Production" vSwitch0
  keladm host mkdir kernel/nodes/net/pNics/vmnic2
  keladm host list storage)";
}

} // namespace

void AddHostCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<HostOptions>();
    CLI::App *host = app.add_subcommand("host", "Read and change the host that the daemon sees");
    host->require_subcommand(1);
    host->footer(EntryTable());

    auto add = [&](const char *name, const char *description, const char *example,
                   std::function<int(const HostOptions &)> run) {
        CLI::App *verb = host->add_subcommand(name, description);
        verb->footer(fmt::format(
            "\n\"keladm host --help\" lists the names.\n\nExample:\n  keladm host {} {}", name, example));
        verb->callback([options, chosen, run] { *chosen = [options, run] { return run(*options); }; });
        return verb;
    };
    auto addNamed = [&](const char *name, const char *description, const char *example,
                        std::function<int(const HostOptions &)> run) {
        CLI::App *named = add(name, description, example, std::move(run));
        named->add_option("NAME", options->name, "The entry")->required();
        return named;
    };
    auto change = [](HostVerb verb) {
        return [verb](const HostOptions &given) { return Change(verb, given); };
    };

    CLI::App *get = addNamed("get", "Print an entry's value", "vms/4711/name", Get);
    get->add_flag("--json", options->asJson, "A JSON object");
    addNamed("set", "Write an entry, making directories as needed",
             "storage/paths/hba1:C0:T0:L4 naa.600508b1001c4d41", change(HostVerb::Set))
        ->add_option("VALUE", options->value, "Its value")
        ->required();
    addNamed("mkdir", "Make a directory", "kernel/nodes/net/pNics/vmnic2", change(HostVerb::MakeDirectory));
    addNamed("remove", "Remove an entry", "--recursive vms/4711", Remove)
        ->add_flag("-r,--recursive", options->recursive, "A directory with all that is in it, too");
    CLI::App *list = add("list", "List all entries, or those below a directory", "--json storage", List);
    list->add_option("NAME", options->name, "The directory, or one entry");
    auto asJson = list->add_flag("--json", options->asJson, "One JSON object a line");
    list->add_flag("--names", options->names, "Only the names")->excludes(asJson);
}
