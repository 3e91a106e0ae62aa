// A correlator under test: its table, with everything around it that a handler meets.
//
// Observations take the framework's own look-up; events take the real road to a receiver in a run
// directory of the test's own; the clock stands still until it is moved. No agent runs and no alarm
// thread: what a correlator would do on waking, a test calls.
#ifndef UNIT_CORRELATORFIXTURE_H
#define UNIT_CORRELATORFIXTURE_H

#include "eventSink.h"
#include "handClock.h"
#include "keldDomain.h"
#include "logCapture.h"
#include "observation.h"
#include "runDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kltlibs/ktime.h>
#include <string>
#include <vector>

// A null text for MakeKel. Volatile, since the compiler refuses a null for %s where it sees one.
inline const char *volatile kNullText = nullptr;

class CorrelatorTest : public testing::Test {
protected:
    // Lists of events compare as lists of lines: EXPECT_THAT(Events(), ElementsAre("nox...(vmnic0)")).
    using Lines = std::vector<std::string>;

    explicit CorrelatorTest(const KeldDomain &domain) : mDomain(domain), mTable(KeldDomainTable(domain))
    {
        KTime_SetSource(&clock);
    }

    // Observe(MakeKel("kel.net.vmnic.linkstate.down", "%s", "vmnic2"));
    void Observe(const TestKel &kel)
    {
        KeldCorrelate(mDomain.defaultHandler, mTable, kel.get());
    }

    // What has been posted since the last call: "nox.problem.net.connectivity.lost(vSwitch0, ...)".
    Lines Events() { return events.DrainTexts(); }

    // Lines of the log but for the trace lines that the framework writes of observations and events.
    Lines LogLines() const
    {
        Lines lines;
        for (const std::string &line : log.Lines())
            if (line.find("us: [") == line.npos) lines.push_back(line);
        return lines;
    }

    RunDir runDir;
    HandClock &clock = *new HandClock; // outlives the alarm thread, which a test may start
    EventSink events;
    LogCapture log;

private:
    const KeldDomain &mDomain;
    const KeldCorrelatorTable mTable;
};

#endif
