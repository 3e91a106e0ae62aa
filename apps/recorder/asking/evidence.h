// Whether what a recording has of a period is all that there was.
#ifndef RECORDER_EVIDENCE_H
#define RECORDER_EVIDENCE_H

#include "database.h"
#include "timeWords.h"

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

struct EvidenceGap {
    std::uint64_t from = 0;
    std::uint64_t until = 0;
    std::string why;
    std::optional<std::uint64_t> observations; // so many are missing; not known without
};

struct Evidence {
    TimeSpan span; // what was asked
    std::uint64_t observations = 0;
    std::vector<EvidenceGap> gaps;

    // "complete from 02:00:00 to 04:00:00, 18,201 observations, no gap", or what is missing, a line each.
    std::string ToText() const;
    nlohmann::ordered_json ToJson() const;
};

// beingRecorded: a recorder runs, so that its last time of listening goes on until now.
Evidence FindEvidence(Database &database, const TimeSpan &span, bool beingRecorded);

// From when on it is kept; now when nothing has been heard yet.
std::uint64_t RecordingBegin(Database &database, std::uint64_t now);

// "18,201"
std::string Grouped(std::uint64_t number);

// "1 observation"
std::string Observations(std::uint64_t number);

#endif
