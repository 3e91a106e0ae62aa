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

// What the test producer sends, in its order. In a message, the texts come before the integers.
struct ExpectedObservation {
    const char *id;
    std::string message;
    int texts, integers; // that are read one by one
};

using Expected = std::array<ExpectedObservation, 21>;
constexpr std::size_t kTests = std::tuple_size_v<Expected>;

// Larger than the first record buffer.
std::string Long(char c) { return std::string(20000, c); }

// Made when the first test starts: nobody else has to carry it.
const Expected &ExpectedObservations()
{
    // clang-format off
    static const Expected &expected = *new Expected{{
        {"kel.tests.user.withoutParams",          "Nothing to read.", 0, 0},
        {"kel.tests.user.withPercent",            "100% of nothing.", 0, 0},
        {"kel.tests.user.withStringParam",        "NIC vmnic2.", 1, 0},
        {"kel.tests.user.withEmptyStringParam",   "NIC .", 1, 0},
        {"kel.tests.user.withNullStringParam",    "NIC (null).", 1, 0},
        {"kel.tests.user.withIntParam",           "-2147483648 degrees.", 0, 1},
        {"kel.tests.user.withUintParam",          "4294967295 pages.", 0, 1},
        {"kel.tests.user.withCharParam",          "Drive A.", 0, 1},
        {"kel.tests.user.withShortParams",        "-32768 255.", 0, 2},
        {"kel.tests.user.withStringAndIntParams", "vmnic2 and vmnic3: 2 of 3.", 2, 2},
        {"kel.tests.user.withFieldWidths",        "|vmnic2  |   42|0x0000002a|", 1, 2},
        {"kel.tests.async.withoutParams",         "Nothing to read.", 0, 0},
        {"kel.tests.async.withIntParams",         "-7 1f 77.", 0, 3},
        {"kel.tests.async.withIntParams",         "-2147483648 ffffffff 2147483647.", 0, 3},
        {"kel.tests.async.withUintParams",        "7 1f 77.", 0, 3},
        {"kel.tests.async.withUintParams",        "4294967295 ffffffff 4294967295.", 0, 3},
        {"kel.tests.async.withStringParams",      "naa.60003ff44dc75adc.", 1, 0},
        {"kel.tests.async.withStringParams",      "vmnic2 vmnic3 vmnic4.", 3, 0},
        {"kel.tests.async.withLongStringParam",   Long('l') + ".", 1, 0},
        {"kel.tests.async.withLongStringParams",  Long('l') + " " + Long('m') + ".", 2, 0},
        {"kel.tests.async.withMixedParams",       "hba1:C0:T0:L4 4 1000000.", 1, 2},
    }};
    // clang-format on
    return expected;
}

struct State {
    std::atomic<int> failures{0}; // the alarm thread's, too
    // The agent's own.
    bool postingTested = false;
    bool started = false;
    bool inCorruptWindow = false;
    std::uint32_t received = 0; // rows that were right
    int alarm = -1;
};
State &state = *new State;

void Say(const char *format, ...) __attribute__((format(printf, 1, 2)));
void Fail(const char *format, ...) __attribute__((format(printf, 1, 2)));

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // checked where they call
void Say(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}

void Fail(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
    ++state.failures;
}
#pragma GCC diagnostic pop

[[noreturn]] void Leave()
{
    std::fflush(stdout);
    // The status has eight bits: 256 failures must not look like none.
    _Exit(std::min(state.failures.load(), 255));
}

void OnTimeout()
{
    Fail("FAIL: Timeout.  Waited %u seconds, but got no kels.\n", kTimeoutSeconds);
    Leave();
}

void TestPosting()
{
    Say("INFO: Testing Pling_PostProblem.\n");
    KeldPostEvent(0, KeldEventClass::Problem, "@&!*@*@(nox.problem.keldtestcorrelator.test.0)No args");
    KeldPostEvent(0, KeldEventClass::Problem, "@&!*@*@(nox.problem.keldtestcorrelator.test.1d)%d args", 1);
    KeldPostEvent(0, KeldEventClass::Problem, "@&!*@*@(nox.problem.keldtestcorrelator.test.1s)%s args",
                  "One");
    const MallocPtr<char> huge(static_cast<char *>(std::malloc(kHugeBytes + 1)));
    if (huge == nullptr) {
        Fail("FAIL: Unable to allocate %zu bytes for 'hugestr'\n", kHugeBytes);
    } else {
        std::memset(huge.get(), 'x', kHugeBytes);
        huge.get()[kHugeBytes] = '\0';
        KeldPostEvent(0, KeldEventClass::Problem,
                      "@&!*@*@(nox.problem.keldtestcorrelator.test.hugestr)Huge string %s", huge.get());
        Keld_PostProblem(huge.get(), "Huge ID"); // too long an ID for the poster, which drops it
    }
    Say("INFO: Testing Pling_PostAudit.\n");
    KeldPostEvent(0, KeldEventClass::Audit, "@&!*@*@(nox.audit.keldtestcorrelator.test)%s (%d) args", "Two",
                  2);
    Say("INFO: Testing Pling_PostClear.\n");
    KeldPostEvent(0, KeldEventClass::Clear, "@&!*@*@(nox.clear.keldtestcorrelator.test)%s (%d) %ss",
                  "Three", 3, "arg");
    Say("INFO: Pling tests completed\n");
}

// ---- Markers --------------------------------------------------------------------------------------

void OnStart(const char *id)
{
    if (state.started) {
        Fail("FAILURE: Duplicate test start kels?!\n");
    } else {
        Say("INFO: Received 'test start' kel: %s\n", id);
        state.started = true;
        state.received = 0;
    }
    state.alarm = KeldAlarmRegister(OnTimeout);
    if (state.alarm < 0) {
        Fail("FAIL: Failed to set alarm handler\n");
        Leave();
    }
    Say("INFO: Alarm handler ready\n");
}

void OnEnd(const char *)
{
    if (!state.started) Say("FAILURE: Received END without matching start!\n");
    state.started = false;
    if (state.received != kTests)
        Fail("FAIL: No. of tests = %zu, but received only %u kels.\n", kTests, state.received);
    Say("INFO: Tests completed. Failures = %d\n", state.failures.load());
    Leave();
}

void OnCorruptionsStart(const char *)
{
    Say("INFO: Start corrupt KELs window.\n");
    state.inCorruptWindow = true;
}

void OnCorruptionsEnd(const char *)
{
    Say("INFO: End corrupt KELs window.\n");
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

// ---- Rows -----------------------------------------------------------------------------------------
// Each check is true when what it looks at is right; otherwise it has said so.

bool MessageIsRight(const Kel *kel, const ExpectedObservation &expected)
{
    char *text = nullptr;
    (void)Kel_GetMsg(kel, &text, nullptr);
    const MessageText message(text);
    if (text == nullptr)
        Fail("FAIL: Received NULL kelMsg for kelID = '%s'\n", expected.id);
    else if (expected.message != text)
        Fail("FAIL: Expected msg = '%s'; Got '%s'\n", expected.message.c_str(), text);
    else
        return true;
    return false;
}

// The arguments one by one: texts first, integers behind them. A lone one is named without its index.
bool ArgumentsAreRight(const Kel *kel, const ExpectedObservation &expected)
{
    for (int i = 0; i < expected.texts + expected.integers; ++i) {
        const bool isText = i < expected.texts;
        const char *text = nullptr;
        std::int32_t integer = 0;
        const int status = isText ? Kel_GetStringArg(kel, i, &text) : Kel_GetIntArg(kel, i, &integer);
        if (status == 0) continue;
        const char *reader = isText ? "Kel_GetStringArg" : "Kel_GetIntArg";
        if ((isText ? expected.texts : expected.integers) == 1)
            Fail("FAIL: %s returned %d\n", reader, status);
        else
            Fail("FAIL: %s returned %d @ i = %d\n", reader, status, i);
        return false;
    }
    return true;
}

bool SucceededFor(const char *id, int status)
{
    if (status != 0) Fail("FAIL: Kel_GetArgs failed for KEL %s: %s\n", id, std::strerror(status));
    return status == 0;
}

constexpr KeldArguments kInts = Args("%d %x %ld", "decimal, hexadecimal, long");
constexpr KeldArguments kWideInts = Args("%10d %10x %10ld", "decimal, hexadecimal, long");
constexpr KeldArguments kUints = Args("%u %x %lu", "decimal, hexadecimal, long");
constexpr KeldArguments kText = Args("%p", "text");
constexpr KeldArguments kTexts = Args("%p %p", "first, second");

template <const KeldArguments &kArguments, class Decimal, class Long>
bool NumbersAreRight(const Kel *kel, const char *id, const char *how)
{
    Decimal decimal = 0;
    std::uint32_t hexadecimal = 0;
    Long number = 0;
    if (!SucceededFor(id, KeldRead<kArguments>(kel, &decimal, &hexadecimal, &number))) return false;
    Say("PASS: Kel_GetArgs%s succeeded for KEL %s. Args: %d, %x, %ld\n", how, id, static_cast<int>(decimal),
        hexadecimal, static_cast<long>(number));
    return true;
}

bool IntsAreRight(const Kel *kel, const char *id)
{
    return NumbersAreRight<kInts, std::int32_t, std::int64_t>(kel, id, "") &&
           NumbersAreRight<kWideInts, std::int32_t, std::int64_t>(kel, id,
                                                                  " (with field width specifiers)");
}

bool UintsAreRight(const Kel *kel, const char *id)
{
    return NumbersAreRight<kUints, std::uint32_t, std::uint64_t>(kel, id, "");
}

bool TextIsRight(const Kel *kel, const char *id)
{
    const char *text = nullptr;
    if (!SucceededFor(id, KeldRead<kText>(kel, &text))) return false;
    Say("PASS: Kel_GetArgs succeeded for KEL %s. Args: %s\n", id, text);
    return true;
}

bool TextsAreRight(const Kel *kel, const char *id)
{
    const char *first = nullptr, *second = nullptr;
    if (!SucceededFor(id, KeldRead<kTexts>(kel, &first, &second))) return false;
    Say("PASS: Kel_GetArgs succeeded for KEL %s. Args: %s, %s\n", id, first, second);
    return true;
}

struct ReadInOneCall {
    const char *id;
    bool (*isRight)(const Kel *kel, const char *id);
};
constexpr ReadInOneCall kReadInOneCall[] = {
    {"kel.tests.async.withIntParams", IntsAreRight},
    {"kel.tests.async.withUintParams", UintsAreRight},
    {"kel.tests.async.withStringParams", TextIsRight},
    {"kel.tests.async.withLongStringParam", TextIsRight},
    {"kel.tests.async.withLongStringParams", TextsAreRight},
};

bool IsRight(const Kel *kel, const char *id, const ExpectedObservation &expected)
{
    if (!Kel_IsID(id, expected.id)) {
        Fail("FAIL: Expected kelId = '%s'; Got '%s'\n", expected.id, id);
        return false;
    }
    if (!MessageIsRight(kel, expected) || !ArgumentsAreRight(kel, expected)) return false;
    for (const ReadInOneCall &row : kReadInOneCall)
        if (Kel_IsID(id, row.id)) return row.isRight(kel, id);
    return true;
}

void OnObservation(const Kel *kel, const char *id)
{
    if (!state.started) {
        Say("WARNING: received kel %s before test 'START' kel. (Ignoring.)\n", id);
        return;
    }
    if (state.received >= kTests) {
        Fail("FAIL: More KELs receieved than expected! kelId = '%s'.  Did more get added to the "
             "testworld?\n",
             id);
        Leave();
    }
    if (state.inCorruptWindow) {
        Fail("FAIL: Kel %s received, but should get nothing during the corrupt kel window.  Dropping.\n",
             id);
    } else if (IsRight(kel, id, ExpectedObservations()[state.received])) {
        Say("PASS: [%u]: %s\n", state.received++, id);
    }
    // Whatever was found: a producer that stops behind a failure must not be waited for for ever.
    (void)KeldAlarmSet(state.alarm, kKeldAlarmOneShot, kTimeoutSeconds);
}

void KeldTestCorrelatorCheck(Kel *kel)
{
    if (!std::exchange(state.postingTested, true)) TestPosting();
    const char *id = nullptr;
    if (Kel_GetID(kel, &id) != 0) {
        Fail("FAIL: Received NULL kelID\n");
        return;
    }
    Say("INFO: Got kel: %s\n", id);
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
