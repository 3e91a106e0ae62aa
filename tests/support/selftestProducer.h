// The producer that the daemon's self-test is written for.
#ifndef TESTSUPPORT_SELFTESTPRODUCER_H
#define TESTSUPPORT_SELFTESTPRODUCER_H

#include "observation.h"

#include <vector>

// The 21 observations that the self-test expects, in order.
std::vector<RecordBytes> SelftestObservations();

// One of its markers: "start", "end", "corruptions.start", "corruptions.end".
RecordBytes SelftestMarker(const char *name);

#endif
