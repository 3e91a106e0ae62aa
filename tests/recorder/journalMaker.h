// A journal as a daemon writes it, entry by entry, for what a recorder makes of it.
#ifndef TESTS_RECORDER_JOURNALMAKER_H
#define TESTS_RECORDER_JOURNALMAKER_H

#include "observationWords.h"

#include <functional>
#include <kltlibs/journalrecord.h>
#include <string>
#include <utility>
#include <vector>

constexpr std::uint64_t kNight = 1772334720'000'000; // 2026-03-01 03:12:00 UTC

class JournalMaker {
public:
    std::uint64_t time = kNight;

    // A daemon whose agents are NetCorrelator, 1, and VfatCorrelator, 2; each process is a run of its own.
    JournalMaker &Hello(std::uint32_t process)
    {
        JournalHello hello;
        hello.process = process;
        hello.since = time;
        hello.version = "0.1.0";
        hello.agents = {{1, 0, "NetCorrelator"}, {2, 0, "VfatCorrelator"}};
        return Add(hello);
    }
    JournalMaker &NewRun(std::uint32_t process)
    {
        mObservations = mEvents = 0;
        mCounts[1] = mCounts[2] = 0;
        return Hello(process);
    }
    JournalMaker &Begin()
    {
        return Add(JournalBegin{mObservations, mEvents, {{1, mCounts[1]}, {2, mCounts[2]}}});
    }

    // What passes while nobody listens.
    JournalMaker &Miss(std::uint64_t count)
    {
        mObservations += count;
        mCounts[1] += count;
        return *this;
    }

    // One observation for an agent; 0 for nobody.
    JournalOrigin In(std::uint16_t agent, const std::string &id, const std::vector<std::string> &arguments)
    {
        std::vector<ArgumentWord> words;
        for (const std::string &argument : arguments)
            words.push_back({argument, false});
        Observation observation = MakeObservation(0, id, std::nullopt, words);
        JournalIn in;
        in.observation = ++mObservations;
        in.channel = 3;
        if (agent != 0) in.to = {{agent, ++mCounts[agent]}};
        in.record.bytes = {observation.record.data(), observation.record.size()};
        Add(in);
        return in.to.empty() ? JournalOrigin{} : in.to.front();
    }
    JournalMaker &Fate(JournalOrigin origin, JournalFate fate, std::string_view text = "")
    {
        return Add(JournalFateEntry{origin, fate, text});
    }
    // An event with these texts as its arguments: its number.
    std::uint64_t Out(const std::vector<JournalOrigin> &origins, const std::string &type,
                      const std::vector<std::string> &arguments);
    JournalMaker &Deliver(std::uint64_t event, JournalDelivery state, std::uint32_t tries = 1)
    {
        return Add(JournalDeliveryEntry{event, state, tries});
    }
    template <class Entry> JournalMaker &Add(const Entry &entry)
    {
        std::string bytes;
        Journal_Append(&bytes, ++mNumber, time, entry);
        mEntries.push_back(std::move(bytes));
        return *this;
    }

    // What has been made since the last time.
    std::vector<std::string> Take() { return std::exchange(mEntries, {}); }

private:
    std::vector<std::string> mEntries;
    std::uint64_t mNumber = 0, mObservations = 0, mEvents = 0;
    std::uint64_t mCounts[3] = {};
};

#endif
