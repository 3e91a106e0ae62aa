#include "commands.h"
#include "console.h"
#include "hostEntries.h"
#include "jsonLine.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <unistd.h>

namespace {

struct HostOptions {
    bool asJson = false;
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
    out.Line(options.asJson ? JsonLine({{"name", HostName(path)}, {"value", *value}}) : *value);
    out.Flush();
    return kExitOk;
}

void ListEntry(const HostInventory::Path &path, bool asJson, Output &out)
{
    std::string name = HostName(path);
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

    if (asJson) {
        nlohmann::ordered_json line{{"name", name}, {"value", value.value_or("")}};
        if (trouble) line["trouble"] = *trouble;
        out.Line(JsonLine(line));
    } else {
        out.Line(fmt::format("{} = {}{}", Printable(name), Printable(value.value_or("")),
                             trouble ? fmt::format("   ({})", *trouble) : ""));
    }
}

// Lists what is below a directory, and the directory itself when nothing is.
void ListBelow(const HostInventory::Path &path, bool asJson, Output &out)
{
    int error = 0;
    auto names = HostInventory::List(path, &error);
    if (error != 0) throw HostFailure(path, error);
    if (names.empty() && !path.empty())
        out.Line(asJson ? JsonLine({{"name", HostName(path)}, {"directory", true}})
                        : Printable(HostName(path)) + "/");
    for (std::string &name : names) {
        auto below = path;
        below.push_back(std::move(name));
        if (HostInventory::IsDirectory(below))
            ListBelow(below, asJson, out);
        else
            ListEntry(below, asJson, out);
    }
}

int List(const HostOptions &options)
{
    HostInventory::Path path;
    if (!options.name.empty()) path = ParseHostName(options.name);
    Output out(STDOUT_FILENO);
    int error = 0;
    if (HostInventory::IsDirectory(path))
        ListBelow(path, options.asJson, out);
    else if (HostInventory::ReadText(path, &error))
        ListEntry(path, options.asJson, out);
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
    auto addChange = [&](const char *name, const char *description, const char *example, HostVerb verb) {
        CLI::App *change = add(name, description, example,
                               [verb](const HostOptions &given) { return Change(verb, given); });
        change->add_option("NAME", options->name, "The entry")->required();
        return change;
    };

    CLI::App *get = add("get", "Print an entry's value", "vms/4711/name", Get);
    get->add_option("NAME", options->name, "The entry")->required();
    get->add_flag("--json", options->asJson, "A JSON object");
    addChange("set", "Write an entry, making directories as needed",
              "storage/paths/hba1:C0:T0:L4 naa.600508b1001c4d41", HostVerb::Set)
        ->add_option("VALUE", options->value, "Its value")
        ->required();
    addChange("mkdir", "Make a directory", "kernel/nodes/net/pNics/vmnic2", HostVerb::MakeDirectory);
    addChange("remove", "Remove an entry, or a directory with all that is in it", "vms/4711",
              HostVerb::Remove);
    CLI::App *list = add("list", "List all entries, or those below a directory", "--json storage", List);
    list->add_option("NAME", options->name, "The directory, or one entry");
    list->add_flag("--json", options->asJson, "One JSON object a line");
}
