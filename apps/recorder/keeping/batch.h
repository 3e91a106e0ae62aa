// What has been heard and is not in the database yet. One transaction writes it, again if it must.
#ifndef RECORDER_BATCH_H
#define RECORDER_BATCH_H

#include "recording.h"

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

struct ObservationRow {
    std::int64_t key = 0;
    std::uint64_t time = 0;
    std::int64_t id = 0;
    std::optional<std::int64_t> object;
    std::optional<int> argument;
    int channel = 0;
    std::string record;
    std::string fates;
    std::string events;
    bool lost = false;
    std::optional<std::int64_t> origin;
};

struct EventRow {
    std::int64_t key = 0;
    std::uint64_t time = 0;
    std::int64_t type = 0;
    std::optional<std::int64_t> object;
    std::optional<int> argument;
    std::string record;
    std::string causes;
    std::uint32_t unnamed = 0;
    std::optional<int> delivery;
    std::uint32_t tries = 0;
    std::optional<std::uint64_t> delivered;
};

// Something about a row that is in the database already.
struct LateFate {
    std::int64_t key = 0;
    std::string was, is; // in fates
    bool lost = false;
    std::optional<std::int64_t> origin;
};
struct LateEvent {
    std::int64_t observation = 0;
    std::string events; // to append
};
struct LateDelivery {
    std::int64_t key = 0;
    int delivery = 0;
    std::uint32_t tries = 0;
    std::uint64_t time = 0;
};

struct OutcomeRow {
    std::int64_t observation = 0;
    std::uint64_t time = 0;
    int outcome = 0;
    std::string text;
};

// What an event does to the problems that are open.
struct ProblemStep {
    bool ends = false;
    std::int64_t type = 0; // a name's number
    std::string object;
    std::string pairing;
    bool clearable = false;
    std::int64_t event = 0;
    std::uint64_t time = 0;
};

// A row without a time ends the open notice of its kind: the one that has no until.
struct NoticeRow {
    std::uint64_t time = 0;
    std::uint64_t until = 0;
    std::string kind;
    std::string text;
    std::optional<std::uint64_t> count;
};

struct RunRow {
    std::int64_t run = 0;
    std::string identity;
    std::string version;
    std::uint64_t since = 0;
};

struct AgentRow {
    std::int64_t run = 0;
    int number = 0;
    std::int64_t name = 0;
};

// Why a time of listening ended. None: the recorder was killed, or it listens still. DaemonCame ends a time
// without a daemon.
enum class CoverageEnd : int {
    DaemonEnded = 1,
    DaemonGone = 2,
    RecorderStopped = 3,
    TooSlow = 4,
    DaemonCame = 5
};

struct CoverageRow {
    std::int64_t coverage = 0;
    std::int64_t run = 0; // 0: no daemon was there, which is why nothing was heard
    std::uint64_t time = 0;
    std::uint64_t until = 0;
    std::optional<std::uint64_t> before; // observations before the first one heard; none heard yet
    std::uint64_t last = 0;              // the number of the last one; what the row before says at first
    std::optional<CoverageEnd> ended;
};

struct InventoryRow {
    std::uint64_t time = 0;
    std::string path;
    std::string value;
    int change = 0; // as in the table
};

struct Batch {
    std::deque<ObservationRow> observations; // in the order of their keys
    std::deque<EventRow> events;
    std::vector<LateFate> lateFates;
    std::vector<LateEvent> lateEvents;
    std::vector<LateDelivery> lateDeliveries;
    std::vector<OutcomeRow> outcomes;
    std::vector<ProblemStep> problems;
    std::vector<NoticeRow> notices;
    std::vector<InventoryRow> inventory;
    std::vector<RunRow> runs;
    std::vector<AgentRow> agents;
    std::map<std::int64_t, CoverageRow> coverage; // by its number
    std::map<std::tuple<std::int64_t, Sum, std::int64_t, std::int64_t>, std::int64_t> sums;
    struct Noisy {
        std::int64_t count = 0, limited = 0;
    };
    std::map<std::tuple<std::int64_t, Noise, std::int64_t>, Noisy> noise;

    size_t Size() const
    {
        return observations.size() + events.size() + lateFates.size() + lateEvents.size() +
               lateDeliveries.size() + outcomes.size() + notices.size() + inventory.size() +
               coverage.size();
    }
    bool Empty() const { return Size() == 0 && sums.empty(); }

    // agent: a name's number, 0 without one.
    void Count(std::uint64_t time, Sum sum, std::int64_t agent = 0, std::int64_t code = 0,
               std::int64_t by = 1)
    {
        sums[{static_cast<std::int64_t>(time) / kMinute, sum, agent, code}] += by;
    }
    void CountNoise(std::uint64_t time, Noise kind, std::int64_t name, int count, int limited = 0)
    {
        Noisy &noisy = noise[{static_cast<std::int64_t>(time) / kMinute, kind, name}];
        noisy.count += count;
        noisy.limited += limited;
    }
};

#endif
