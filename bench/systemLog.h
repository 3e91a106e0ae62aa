// A system log of the benchmark's own: /dev/log, drained by a thread, seen by this process and its
// children only.
#ifndef BENCH_SYSTEMLOG_H
#define BENCH_SYSTEMLOG_H

#include <string>

// Gives the calling process a /dev of its own. Before the first thread and the first child; for good.
// Empty, or what made it impossible (a container may forbid it): the log is then the host's.
std::string OwnSystemLog();

#endif
