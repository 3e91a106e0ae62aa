// The steps of an observation's road, one by one.
#ifndef BENCH_STEPS_H
#define BENCH_STEPS_H

#include "table.h"

// Runs each of the daemon's own functions beside the bare step, in random order, repeatedly.
std::vector<Row> MeasureSteps(bool quick);

#endif
