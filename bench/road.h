// The whole road, through the daemon as it is shipped: what observations and events cost, how long they
// take, what the daemon uses when nothing happens.
#ifndef BENCH_ROAD_H
#define BENCH_ROAD_H

#include "table.h"

struct RoadOptions {
    std::string keld;     // the program
    int rounds = 0;       // of the daemon and of its floor, in turns, each started anew
    int observations = 0; // of each kind in a round
    double idleSeconds = 0;
};

// In the run directory named in KALTOR_RUN_DIR. Throws std::runtime_error when one of the two fails.
std::vector<Row> MeasureRoad(const RoadOptions &options);

#endif
