// The poster by itself: what becomes a record, and what is dropped without a word.

#include "keldPling.h"

#include "eventSink.h"
#include "logCapture.h"
#include "runDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class PlingTest : public testing::Test {
protected:
    RunDir runDir;
    EventSink events;
    LogCapture log;
};
using PlingDeathTest = PlingTest;

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
    KeldPostEvent(0, KeldEventClass::Audit, "@&!*@*@(nox.audit.net.firewall.enabled)On (%s).", "vmnic2");
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
            const auto posted = events.Drain(); // strictly decoded: the trailing bytes are zero
            ASSERT_EQ(bytes <= 18736 ? 1U : 0U, posted.size()) << bytes;
            for (const EventRecord &event : posted)
                EXPECT_EQ("nox.audit.vm.annotated(vm7, " + note + ")", ToText(event));
        }
    EXPECT_THAT(log.Lines(), SizeIs(9)); // the trace lines: of the tenth there is not a word
}

// Of the number that says whether an event is deferred, only the low byte counts.
TEST_F(PlingTest, ADeferredEventIsNotTriedAtOnce)
{
    const auto post = [](int defer) {
        KeldPostEvent(defer, KeldEventClass::Audit, "@&!*@*@(nox.audit.lcon.enabled)The LCON is enabled.");
    };
    post(0x100);
    EXPECT_THAT(events.DrainTexts(), SizeIs(1));
    post(1);
    post(0x180);
    EXPECT_THAT(events.DrainTexts(), IsEmpty());
    EXPECT_THAT(log.LinesWith("event (nox.audit.lcon.enabled) could not be sent immediately to carad"),
                SizeIs(2));
}

} // namespace
