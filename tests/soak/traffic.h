// Plausible traffic of a whole host, made from one number.
//
// What can be sent is taken from the catalogue; what is sent follows from the seed and the observation's
// serial alone. So each observation can be made anew wherever its serial is known: nothing that was sent
// has to be kept to say what must have come of it.
#ifndef TESTS_SOAK_TRAFFIC_H
#define TESTS_SOAK_TRAFFIC_H

#include "observation.h"

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>

// A small generator of even numbers, the same on every machine.
struct Dice {
    std::uint64_t state;
    std::uint64_t Below(std::uint64_t end);
};

// Which observation it is: the producer, and in the low bits how many that one has sent before. An
// observation carries it behind its time stamp and in its texts; so an event that shows a text does, too.
using Serial = std::uint64_t;
constexpr unsigned kSerialBits = 20;
std::string ToTag(Serial serial); // "-soak12345-"
std::optional<Serial> FindTag(const std::string &text);

// One kind of observation, and what must come of it.
struct TrafficKind {
    struct Argument {
        std::string name;
        std::string type;
    };
    std::string id;
    std::vector<Argument> arguments{};
    std::size_t agent = SIZE_MAX; // that knows it, if any, and posts the event
    std::uint32_t takers = 0;     // agents that leave a line in the log, a bit each: its trace line,
    bool isNamed = false;         // or its ID as that of something unknown
    // Where it becomes exactly one event, with nothing in between: its type, and which arguments it shows.
    std::string event{};
    std::vector<std::string> shows{};

    bool IsTakenBy(std::size_t taker) const { return taker < 32 && (takers >> taker & 1) != 0; }
};

struct TrafficObservation {
    RecordBytes record;
    std::vector<std::string> shown{}; // the arguments of the event that it must become, as texts
};

class Traffic {
public:
    Traffic(const std::string &catalogueFile, std::uint64_t seed);

    struct Agent {
        std::string name;
        std::vector<std::string> domains;
        bool logsAll; // of its domains
    };
    const std::vector<Agent> &Agents() const { return mAgents; }

    // True for an event type that some kind becomes; others are posted when state says so.
    bool IsOfAKind(const std::string &event) const { return mEvents.count(event) != 0; }

    const TrafficKind &KindOf(Serial serial) const;
    TrafficObservation Make(Serial serial) const;

private:
    void AddListed(const nlohmann::json &row, const nlohmann::json &events);
    void Add(TrafficKind kind, std::size_t weight);

    std::uint64_t mSeed;
    std::vector<Agent> mAgents;
    std::set<std::string> mEvents;
    std::vector<TrafficKind> mKinds;
    std::vector<std::size_t> mWeighted; // each kind as often as it weighs
};

#endif
