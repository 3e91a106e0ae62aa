// Plausible traffic of a whole host, made from one number.
//
// What can be sent is taken from the daemon's tables; what is sent follows from the seed, the producer
// and its count alone. So each observation can be made anew wherever its serial is known: nothing that
// was sent has to be kept to say what must have come of it.
#ifndef TESTS_SOAK_TRAFFIC_H
#define TESTS_SOAK_TRAFFIC_H

#include "observation.h"

#include <array>
#include <cstdint>
#include <keldDomain.h>
#include <keldDomains.h>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

constexpr std::size_t kAgents = std::tuple_size_v<decltype(keldCorrelators)>;

// A small generator of even numbers, the same on every machine.
class Dice {
public:
    explicit Dice(std::uint64_t seed) : mState(seed) {}
    std::uint64_t Next();
    std::uint64_t Below(std::uint64_t end) { return Next() % end; }

private:
    std::uint64_t mState;
};

// Which observation it is: the number-th of a producer. An observation carries it as its time stamp, and
// an event, where one of its texts comes from the observation, in that text.
struct Serial {
    std::uint32_t producer = 0;
    std::uint32_t number = 0;
    auto operator<=>(const Serial &) const = default;

    static constexpr std::uint32_t kNumberMax = (1U << 20) - 1;
    std::uint64_t ToTimestamp() const
    {
        return kObservationTime + (std::uint64_t{producer} << 20 | number);
    }
    static Serial FromTimestamp(std::uint64_t timestamp);
    std::string ToTag() const; // "naa.soak-12-345-"
    static std::optional<Serial> FromText(std::string_view text);
};

// One kind of observation, and what must come of it.
struct TrafficKind {
    std::string id;
    const KeldArguments *arguments = nullptr;
    std::uint32_t takers = 0; // agents that leave a line in the log, a bit each: its trace line,
    bool unheard = false;     // or its ID as that of something unknown

    bool IsTakenBy(std::size_t agent) const { return (takers >> agent & 1) != 0; }

    // Exactly one event, and nothing in between: who posts it, and where its serial is.
    const Translation *row = nullptr;
    std::size_t postedBy = 0;
    std::optional<std::size_t> tag;      // the argument
    std::optional<std::size_t> tagShown; // its place in the event
};

class Traffic {
public:
    explicit Traffic(std::uint64_t seed);

    const TrafficKind &Kind(std::size_t index) const { return mKinds[index]; }

    // What one producer sends, in order.
    std::vector<std::uint16_t> Script(std::uint32_t producer) const;

    // Appends one observation to a batch.
    void Append(RecordBytes &batch, std::size_t kind, Serial serial) const;

    // The arguments of the event that it must become, as texts.
    std::vector<std::string> Shown(std::size_t kind, Serial serial) const;

    // By whom an event type is posted; what has state, and posts it when it sees fit.
    const std::map<std::string, std::size_t, std::less<>> &Posters() const { return mPosters; }
    bool HasState(std::string_view type) const { return mWithState.find(type) != mWithState.end(); }
    // The place of the serial in events of the type; none where any row or state posts it without.
    std::optional<std::size_t> TagOf(const std::string &type) const;

private:
    void AddRow(std::size_t agent, const Translation &row);
    void AddObservation(std::size_t agent, const KeldObservation &row);
    void AddOthers();
    void Add(TrafficKind kind, std::size_t weight);

    std::uint64_t mSeed;
    std::vector<TrafficKind> mKinds;
    std::vector<std::uint16_t> mWeighted; // each kind as often as it weighs
    std::map<std::string, std::size_t, std::less<>> mPosters;
    std::map<std::string, std::set<std::optional<std::size_t>>, std::less<>> mTags;
    std::set<std::string, std::less<>> mWithState;
};

#endif
