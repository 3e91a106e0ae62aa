// The self-test.
//
// Arrives    what the test producer sends: a start marker, 21 observations, an end marker; between the
//            markers of the corrupt window nothing, as what is sent there must never get this far.
// Remembers  how far it has come.
// Posts      with its first observation, a fixed set of events through every entry of the poster.
// Time       5 s without an observation after one that was checked end the test.
//
// Findings go to standard output, one line each. The end marker, the time-out and one observation too
// many end the process, by _Exit: other threads are still at work.

#include "keldDomains.h"

#include "keldAlarm.h"
#include "keldDomain.h"
#include "keldOwn.h"
#include "keldTestObservations.h"

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr std::uint32_t kTimeoutSeconds = 5;
constexpr std::size_t kHugeBytes = 10485760;

// The agent's own.
struct State {
    bool postingTested = false;
    bool started = false;
    bool inCorruptWindow = false;
    std::uint32_t received = 0; // rows that were right
    int alarm = -1;
};
State &state = *new State;

[[noreturn]] void Leave()
{
    std::fflush(stdout);
    // The status has eight bits: 256 failures must not look like none.
    _Exit(std::min(KeldTestFailures(), 255));
}

void OnTimeout()
{
    KeldTestFail("FAIL: Timeout.  Waited %u seconds, but got no kels.\n", kTimeoutSeconds);
    Leave();
}

void TestPosting()
{
    KeldTestSay("INFO: Testing Pling_PostProblem.\n");
    KeldPostEvent(0, KeldEventClass::Problem, "@&!*@*@(nox.problem.keldtestcorrelator.test.0)No args");
    KeldPostEvent(0, KeldEventClass::Problem, "@&!*@*@(nox.problem.keldtestcorrelator.test.1d)%d args", 1);
    KeldPostEvent(0, KeldEventClass::Problem, "@&!*@*@(nox.problem.keldtestcorrelator.test.1s)%s args",
                  "One");
    const MallocPtr<char> huge(static_cast<char *>(std::malloc(kHugeBytes + 1)));
    if (huge == nullptr) {
        KeldTestFail("FAIL: Unable to allocate %zu bytes for 'hugestr'\n", kHugeBytes);
    } else {
        std::memset(huge.get(), 'x', kHugeBytes);
        huge.get()[kHugeBytes] = '\0';
        KeldPostEvent(0, KeldEventClass::Problem,
                      "@&!*@*@(nox.problem.keldtestcorrelator.test.hugestr)Huge string %s", huge.get());
        Keld_PostProblem(huge.get(), "Huge ID"); // too long an ID for the poster, which drops it
    }
    KeldTestSay("INFO: Testing Pling_PostAudit.\n");
    KeldPostEvent(0, KeldEventClass::Audit, "@&!*@*@(nox.audit.keldtestcorrelator.test)%s (%d) args", "Two",
                  2);
    KeldTestSay("INFO: Testing Pling_PostClear.\n");
    KeldPostEvent(0, KeldEventClass::Clear, "@&!*@*@(nox.clear.keldtestcorrelator.test)%s (%d) %ss",
                  "Three", 3, "arg");
    KeldTestSay("INFO: Pling tests completed\n");
}

void OnStart(const char *id)
{
    if (state.started) {
        KeldTestFail("FAILURE: Duplicate test start kels?!\n");
    } else {
        KeldTestSay("INFO: Received 'test start' kel: %s\n", id);
        state.started = true;
        state.received = 0;
    }
    state.alarm = KeldAlarmRegister(OnTimeout);
    if (state.alarm < 0) {
        KeldTestFail("FAIL: Failed to set alarm handler\n");
        Leave();
    }
    KeldTestSay("INFO: Alarm handler ready\n");
}

void OnEnd(const char *)
{
    if (!state.started) KeldTestSay("FAILURE: Received END without matching start!\n");
    state.started = false;
    if (state.received != kKeldTestObservations)
        KeldTestFail("FAIL: No. of tests = %zu, but received only %u kels.\n", kKeldTestObservations,
                     state.received);
    KeldTestSay("INFO: Tests completed. Failures = %d\n", KeldTestFailures());
    Leave();
}

void OnCorruptionsStart(const char *)
{
    KeldTestSay("INFO: Start corrupt KELs window.\n");
    state.inCorruptWindow = true;
}

void OnCorruptionsEnd(const char *)
{
    KeldTestSay("INFO: End corrupt KELs window.\n");
    state.inCorruptWindow = false;
}

struct Marker {
    const char *id;
    void (*handle)(const char *id);
};
constexpr Marker kMarkers[] = {
    {"kel.tests.marker.start", OnStart},
    {"kel.tests.marker.end", OnEnd},
    {"kel.tests.marker.corruptions.start", OnCorruptionsStart},
    {"kel.tests.marker.corruptions.end", OnCorruptionsEnd},
};

void OnObservation(const Kel *kel, const char *id)
{
    if (!state.started) {
        KeldTestSay("WARNING: received kel %s before test 'START' kel. (Ignoring.)\n", id);
        return;
    }
    if (state.received >= kKeldTestObservations) {
        KeldTestFail("FAIL: More KELs receieved than expected! kelId = '%s'.  Did more get added to the "
                     "testworld?\n",
                     id);
        Leave();
    }
    if (state.inCorruptWindow) {
        KeldTestFail(
            "FAIL: Kel %s received, but should get nothing during the corrupt kel window.  Dropping.\n",
            id);
    } else if (KeldTestIsRight(kel, id, state.received)) {
        KeldTestSay("PASS: [%u]: %s\n", state.received++, id);
    }
    // Whatever was found: a producer that stops behind a failure must not be waited for for ever.
    (void)KeldAlarmSet(state.alarm, kKeldAlarmOneShot, kTimeoutSeconds);
}

void KeldTestCorrelatorCheck(Kel *kel)
{
    if (!std::exchange(state.postingTested, true)) TestPosting();
    const char *id = nullptr;
    if (Kel_GetID(kel, &id) != 0) {
        KeldTestFail("FAIL: Received NULL kelID\n");
        return;
    }
    KeldTestSay("INFO: Got kel: %s\n", id);
    KeldSay(KeldFate::Noted, "checked; told on standard output");
    (void)KeldAlarmSet(state.alarm, kKeldAlarmOneShot, 0);
    for (const Marker &marker : kMarkers) {
        if (!Kel_IsID(id, marker.id)) continue;
        marker.handle(id);
        return;
    }
    OnObservation(kel, id);
}

} // namespace

const KeldDomain keldTestDomain{
    .name = "KeldTest",
    .domains = {"tests"},
    .defaultHandler = KeldTestCorrelatorCheck,
    .otherwise = "checked against what the test producer is known to send",
};

void KeldCorrelator_StartTest()
{
    (void)std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ); // whoever watches sees each finding as it is made
    KeldDomainRun(keldTestDomain);
}
