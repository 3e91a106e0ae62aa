// Measures the daemon, and prints one table.
#include "road.h"
#include "steps.h"
#include "systemLog.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <runDir.h>
#include <unistd.h>

int main(int argc, char **argv)
try {
    RoadOptions options{.keld = KELD_BINARY, .rounds = 40, .observations = 5000, .idleSeconds = 20};
    bool quick = false;
    CLI::App app("Measures the daemon beside the bare system calls and steps that its work needs.");
    app.add_option("--keld", options.keld, "another daemon than the one of this build");
    app.add_option("--rounds", options.rounds, "how often each is measured");
    app.add_flag("--quick", quick, "one short round: shows that everything runs, the figures mean nothing");
    CLI11_PARSE(app, argc, argv);
    if (quick) options = {.keld = options.keld, .rounds = 1, .observations = 200, .idleSeconds = 0.1};

    const std::string hostLog = OwnSystemLog();
    const RunDir directory;
    double load = 0;
    (void)getloadavg(&load, 1);
    const std::string log = hostLog.empty() ? "a receiver of the benchmark's own"
                                            : "the host's log, if it has one (no own one: " + hostLog + ")";
    std::printf("Medians of %d rounds; %ld processors, %.1f busy at the start; log lines go to %s.\n\n",
                options.rounds, sysconf(_SC_NPROCESSORS_ONLN), load, log.c_str());
    std::fflush(stdout);
    const std::vector<Row> road = MeasureRoad(options);
    PrintTable({{"The road, in the daemon as shipped", road}, {"Its steps", MeasureSteps(quick)}});
    return 0;
} catch (const std::exception &failure) {
    std::fprintf(stderr, "bench: %s\n", failure.what());
    return 1;
}
