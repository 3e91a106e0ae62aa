// What the load is made of: the observations that the daemon and its floor are both given, and the event
// that one of them becomes.
#ifndef BENCH_LOAD_H
#define BENCH_LOAD_H

#include <cstddef>

namespace Load {

constexpr std::size_t kRecordBytes = 200; // of every observation

// Matches no subscription; matches the network correlator's, which has no handler for it (the number is
// the identifier's, of those that take turns); becomes an event.
constexpr char kUnmatchedId[] = "kel.bench.nobody.wants.this";
constexpr char kIgnoredIdFormat[] = "kel.net.bench.ignored.%04d";
constexpr char kPostedId[] = "kel.net.lacp.uplink.connected";

constexpr char kEventId[] = "nox.audit.net.lacp.uplink.connected";
constexpr char kEventText[] = "uplink %s on QSW %s got connected";
constexpr int kEventsPerWindow = 1000; // the rate limit

} // namespace Load

#endif
