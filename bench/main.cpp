// Measures the daemon, and prints one table.
#include "road.h"
#include "steps.h"
#include "systemLog.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <runDir.h>

int main(int argc, char **argv)
try {
    RoadOptions options{.keld = KELD_BINARY, .rounds = 15, .observations = 20'000, .idleSeconds = 20};
    bool quick = false;
    CLI::App app("Measures the daemon beside the bare system calls and steps that its work needs.");
    app.add_option("--keld", options.keld, "another daemon than the one of this build");
    app.add_option("--rounds", options.rounds, "how often each is measured");
    app.add_flag("--quick", quick, "one short round: shows that everything runs, the figures mean nothing");
    CLI11_PARSE(app, argc, argv);
    if (quick) options = {.keld = options.keld, .rounds = 1, .observations = 200, .idleSeconds = 0.1};

    const std::string hostLog = OwnSystemLog();
    if (!hostLog.empty())
        std::printf("The log lines go to the host's own system log, if there is one: %s.\n",
                    hostLog.c_str());
    const RunDir directory;
    std::vector<Row> rows = MeasureRoad(options);
    const std::vector<Row> steps = MeasureSteps(quick);
    rows.insert(rows.end(), steps.begin(), steps.end());
    PrintTable(rows);
    return 0;
} catch (const std::exception &failure) {
    std::fprintf(stderr, "bench: %s\n", failure.what());
    return 1;
}
