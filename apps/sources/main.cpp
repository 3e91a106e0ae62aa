// keld-sources: tells the daemon what a Linux host says of itself.
//
// One event loop; each source works from it on its own. What they tell goes into the outbox, and from there
// to the daemon when it is there.

#include "failure.h"
#include "jsonLine.h"
#include "outbox.h"
#include "source.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <systemd/sd-daemon.h>

namespace {

struct Options {
    bool list = false;
    bool asJson = false;
    std::vector<std::string> without;
    int periodSeconds = 15;
    SourceOptions sources;
};

std::vector<std::string> Names()
{
    std::vector<std::string> names;
    for (const SourceKind *kind : SourceKinds())
        names.emplace_back(kind->name);
    return names;
}

void List()
{
    for (const SourceKind *kind : SourceKinds()) {
        fmt::print("{}\n  watches  {}\n  needs    {}\n", kind->name, kind->watches, kind->needs);
        for (const Row &row : kind->rows)
            fmt::print("  {}\n      {}\n", row.id, row.when);
    }
}

void ListAsJson()
{
    for (const SourceKind *kind : SourceKinds()) {
        nlohmann::ordered_json json{
            {"source", kind->name}, {"watches", kind->watches}, {"needs", kind->needs}};
        for (const Row &row : kind->rows)
            json["emits"].push_back({{"id", row.id}, {"format", row.format}, {"when", row.when}});
        fmt::print("{}\n", JsonLine(json));
    }
}

int Run(const Options &options)
{
    EventLoop loop(std::chrono::seconds(options.periodSeconds));
    Inventory inventory;
    Outbox outbox(loop);
    const Emit emit = [&outbox](const Row &row, const std::vector<Value> &values) {
        outbox.Add(row, values);
    };
    const Host host{loop, inventory, emit, options.sources};
    std::vector<std::unique_ptr<Source>> sources;
    for (const SourceKind *kind : SourceKinds()) {
        if (std::ranges::find(options.without, kind->name) != options.without.end()) continue;
        try {
            sources.push_back(kind->start(host));
        } catch (const CannotRun &reason) {
            fmt::print(stderr, "keld-sources: {} cannot run here: {}\n", kind->name, reason.what());
        }
    }
    if (sources.empty()) throw Failure(kExitFailed, "no source can run here");
    sd_notify(0, "READY=1");
    loop.Run();
    return kExitOk;
}

} // namespace

int main(int argc, char **argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    Options options;
    CLI::App app("Tells keld, the kernel observation daemon, what this Linux host says of itself.",
                 "keld-sources");
    app.set_version_flag("--version", "keld-sources " KELD_SOURCES_VERSION);
    app.add_flag("--list", options.list, "Show the sources: what each needs, watches and emits");
    app.add_flag("--json", options.asJson, "With --list: one JSON object a line");
    app.add_option("--without", options.without, "Leave this source out; may be given more than once")
        ->type_name("SOURCE")
        ->delimiter(',')
        ->check(CLI::IsMember(Names()));
    app.add_option("--nics", options.sources.nics,
                   "Interfaces that count as NICs although no device stands behind them, as patterns")
        ->type_name("PATTERN,...")
        ->delimiter(',');
    app.add_option("--period", options.periodSeconds, "How often what tells nothing by itself is looked at")
        ->type_name("SECONDS")
        ->check(CLI::Range(10, 3600))
        ->capture_default_str();
    app.add_option("--receive-buffer", options.sources.receiveBytes,
                   "Room for the kernel's notices that wait")
        ->type_name("BYTES")
        ->check(CLI::Range(2048, 16 * 1024 * 1024))
        ->capture_default_str();
    app.add_option("--root", options.sources.root, "Look below this folder instead of /; for a trial")
        ->type_name("FOLDER");
    try {
        app.parse(argc, argv);
        if (options.list) {
            options.asJson ? ListAsJson() : List();
            return kExitOk;
        }
        return Run(options);
    } catch (const CLI::Success &help) {
        return app.exit(help);
    } catch (const CLI::ParseError &error) {
        fmt::print(stderr, "keld-sources: {}\n", error.what());
        return kExitUsage;
    } catch (const Failure &failure) {
        fmt::print(stderr, "keld-sources: {}\n", failure.what());
        return failure.status;
    } catch (const std::exception &error) {
        fmt::print(stderr, "keld-sources: {}\n", error.what());
        return kExitFailed;
    }
}
