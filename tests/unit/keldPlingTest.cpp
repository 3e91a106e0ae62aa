// The poster by itself: what becomes a record, what is dropped, and what waits for the first retry.

#include "keldPling.h"

#include "eventSink.h"
#include "handClock.h"
#include "keldAlarm.h"
#include "logCapture.h"
#include "runDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kltlibs/ktime.h>
#include <malloc.h>
#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class PlingTest : public testing::Test {
protected:
    PlingTest() { KTime_SetSource(&clock); }

    static void Post(int defer = 0)
    {
        KeldPostEvent(defer, KeldEventClass::Audit, "@&!*@*@(nox.audit.dcui.enabled)The DCUI is enabled.");
    }
    static void Post(int count, int defer)
    {
        for (; count > 0; --count)
            Post(defer);
    }

    RunDir runDir;
    HandClock &clock = *new HandClock; // outlives the alarm thread, which a test may start
    EventSink events;
    LogCapture log;
};
using PlingDeathTest = PlingTest;

// ---- The type ID ------------------------------------------------------------------------------------

TEST_F(PlingTest, TypeIdOf128CharactersIsPostedAndALongerOneDisappears)
{
    for (const std::size_t length : {127U, 128U, 129U}) {
        const std::string suffix(length - std::string("nox.problem.").size(), 'x');
        Keld_PostProblem(suffix.c_str(), "%s", "vmnic2");
        if (length <= 128)
            EXPECT_THAT(events.DrainTexts(), ElementsAre("nox.problem." + suffix + "(vmnic2)"));
        else
            EXPECT_THAT(events.DrainTexts(), IsEmpty());
        EXPECT_EQ("Using discouraged \"Keld_PostProblem\" interface for pling: " + suffix,
                  log.LinesWith("discouraged").back());
    }
    EXPECT_THAT(log.Lines(), SizeIs(3 + 2)); // a trace line for each that was posted
}

TEST_F(PlingTest, Kept_TheClassDecidesThePrefixWhateverTheTextSays)
{
    KeldPostEvent(0, KeldEventClass::Problem, "@&!*@*@(nox.clear.x.y)%d", 7);
    KeldPostEvent(0, KeldEventClass::Audit, "@&!*@*@(nox.clear.net.firewall.enabled)On (%s).", "vmnic2");
    KeldPostEvent(0, KeldEventClass::Clear, "@&!*@*@(nox.problem.net.firewall.disabled)Off.");
    EXPECT_THAT(events.DrainTexts(),
                ElementsAre("nox.problem.y(7)", "nox.audit.net.firewall.enabled(vmnic2)",
                            "nox.clear.m.net.firewall.disabled()"));
    EXPECT_TRUE(log.Lines().at(1).ends_with("us: [nox.audit.net.firewall.enabled] On (vmnic2)."));
}

TEST_F(PlingDeathTest, AnyOtherClassEndsTheDaemon)
{
    for (const int other : {-1, 3})
        EXPECT_DEATH(KeldPostEvent(0, static_cast<KeldEventClass>(other), "@&!*@*@(nox.audit.x)"),
                     "Keld - Panic: NOT_REACHED apps/keld/keldPling:608");
}

// ---- The arguments ----------------------------------------------------------------------------------

// Each buffer is filled to its last byte, and then asked for one more.
TEST_F(PlingTest, ArgumentsGoIntoFiveBuffersAndDisappearWhenTheyDoNotFitTheLast)
{
    constexpr std::size_t kAround = 68 + sizeof "nox.audit.vm.annotated" + 2 * 16 + sizeof "vm7" + 1 + 4;
    mallopt(M_PERTURB, 0x5A); // memory comes with rubbish in it, which the trailing bytes must not show
    for (const std::size_t buffer : {1171U, 2342U, 4684U, 9368U, 18736U})
        for (const std::size_t bytes : {buffer, buffer + 1}) {
            const std::string note(bytes - kAround, 'n');
            KeldPostEvent(0, KeldEventClass::Audit, "@&!*@*@(nox.audit.vm.annotated)%s: %s", "vm7",
                          note.c_str());
            const auto records = events.DrainRaw();
            ASSERT_EQ(bytes <= 18736 ? 1U : 0U, records.size()) << bytes;
            if (records.empty()) continue;
            EventRecord event;
            std::string error;
            EXPECT_EQ(0, EventRecord_Decode(records[0], &event, &error)) << bytes << ": " << error;
            EXPECT_EQ("nox.audit.vm.annotated(vm7, " + note + ")", ToText(event));
            EXPECT_EQ(bytes, records[0].size());
            EXPECT_EQ(std::vector<std::byte>(4), std::vector(records[0].end() - 4, records[0].end()));
        }
    EXPECT_THAT(log.Lines(), SizeIs(9)); // the trace lines: of the tenth there is not a word
}

// ---- Deferred ---------------------------------------------------------------------------------------

TEST_F(PlingTest, ADeferredEventIsFirstTriedByTheRetry)
{
    KeldPlingInit();
    KeldAlarmStart();
    clock.AwaitWaiter();
    Post(0x100); // only the low byte counts
    EXPECT_THAT(events.DrainTexts(), ElementsAre("nox.audit.dcui.enabled()"));
    EXPECT_THAT(log.LinesWith("event ("), IsEmpty());

    Post(1);
    Post(0x180);
    EXPECT_THAT(log.LinesWith("An event (nox.audit.dcui.enabled) could not be sent immediately to carad; "
                              "queueing for retry."),
                SizeIs(2));
    clock.Advance(179);
    EXPECT_THAT(events.DrainTexts(), IsEmpty());
    clock.Advance(1);
    EXPECT_THAT(events.DrainTexts(), SizeIs(2));
    EXPECT_THAT(log.LinesWith("Successfully sent event (nox.audit.dcui.enabled) after 1 failure."),
                SizeIs(2));
}

// ---- The rate ---------------------------------------------------------------------------------------

TEST_F(PlingTest, AThousandEventsPassInEachWindowOfSixtySeconds)
{
    const std::string dropped = "Event rate limit reached. Dropping pling: nox.audit.dcui.enabled";
    const auto passed = [this](int count) {
        Post(count, 0);
        return events.DrainTexts().size();
    };
    EXPECT_EQ(1000U, passed(1000));
    EXPECT_THAT(log.LinesWith("rate limit"), IsEmpty());
    EXPECT_EQ(0U, passed(1));
    clock.Set(HandClock::kStart + 59, 999999);
    EXPECT_EQ(0U, passed(1));
    EXPECT_THAT(log.LinesWith("rate limit"), ElementsAre(dropped, dropped));

    clock.Set(HandClock::kStart + 60); // a window of its own, with a thousand of its own
    EXPECT_EQ(1000U, passed(1001));
    clock.Set(HandClock::kStart + 119);
    EXPECT_EQ(0U, passed(1));
    clock.Set(HandClock::kStart - 7200); // set back: no reason to be silent for two hours
    EXPECT_EQ(1000U, passed(1001));
    EXPECT_THAT(log.LinesWith("rate limit"), SizeIs(5));
}

} // namespace
