// The scenario parser, and which events meet an expectation.

#include "failure.h"
#include "scenario.h"

#include "kltlibs/kelrecord.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

std::string FailureOf(const std::string &scenario)
{
    try {
        ParseScenario(scenario);
    } catch (const Failure &failure) {
        return failure.what();
    }
    return "no failure";
}

template <typename Action> Action Only(const std::string &line)
{
    auto steps = ParseScenario(line);
    return std::get<Action>(steps.at(0).action);
}

std::string FormatOf(const Observation &observation)
{
    return KelRecord_MessageFormat(observation.record.data());
}

bool MeetsEvent(const std::string &expectation, const std::vector<std::string> &arguments)
{
    return Meets(Only<ExpectAction>(expectation), "nox.problem.net.vmnic.linkstate.down", arguments);
}

} // namespace

TEST(KeladmScenarioTest, CommentsAndBlankLinesCountOnlyAsLines)
{
    auto steps = ParseScenario("# uplink loss\r\n\n  pause 2s   # long enough\r\n\t\npause 500ms");
    ASSERT_EQ(2u, steps.size());
    EXPECT_EQ(3u, steps[0].line);
    EXPECT_EQ(std::chrono::milliseconds(2000), std::get<PauseAction>(steps[0].action).duration);
    EXPECT_EQ(5u, steps[1].line);
    EXPECT_EQ(std::chrono::milliseconds(500), std::get<PauseAction>(steps[1].action).duration);
}

TEST(KeladmScenarioTest, ADoubleQuotedWordBehindTheIdIsTheFormat)
{
    auto guessed = Only<Observation>("observe kel.net.vmnic.linkstate.down vmnic0 10");
    EXPECT_EQ("%s %d", FormatOf(guessed));
    EXPECT_EQ(22, guessed.context);
    auto given = Only<Observation>(R"(observe @async-3 kel.x "NIC \"%s\" at %u" vmnic0 10)");
    EXPECT_EQ("NIC \"%s\" at %u", FormatOf(given));
    EXPECT_EQ(3, given.context);
    EXPECT_EQ("%s %s", FormatOf(Only<Observation>("observe kel.x '10' \"a # b\"")));
}

TEST(KeladmScenarioTest, RepeatsHoldTheirStepsAndEachOther)
{
    auto steps = ParseScenario("repeat 3\n  pause 1s\n  repeat 2\n    pause 2s\n  end\nend\npause 3s\n");
    ASSERT_EQ(2u, steps.size());
    const auto &outer = std::get<RepeatAction>(steps[0].action);
    EXPECT_EQ(3u, outer.count);
    ASSERT_EQ(2u, outer.steps.size());
    EXPECT_EQ(2u, std::get<RepeatAction>(outer.steps[1].action).count);
}

TEST(KeladmScenarioTest, HostChangesAreCheckedBeforeAnythingIsPlayed)
{
    auto change = Only<HostChange>("host set 'net/portgroups/Production' vSwitch0");
    EXPECT_EQ((HostInventory::Path{"net", "portgroups", "Production"}), change.path);
    EXPECT_THAT(
        FailureOf("\nhost set storage/devices/naa.6/pathRedundancy 4"),
        StartsWith("line 2: storage/devices/naa.6/pathRedundancy: \"4\" is not an integer from 0 to 3"));
}

TEST(KeladmScenarioTest, EveryErrorNamesItsLineAndWhatWouldBeRight)
{
    EXPECT_THAT(FailureOf("pause 1s\nobserv kel.x"),
                StartsWith("line 2: \"observ\": a line begins with observe,"));
    EXPECT_THAT(FailureOf("pause 2"), HasSubstr("no failure"));
    EXPECT_THAT(FailureOf("pause"), HasSubstr("a time is written 2s, 500ms or 1m"));
    EXPECT_THAT(FailureOf("pause -1s"), HasSubstr("a time is written"));
    EXPECT_THAT(FailureOf("pause 1s 2s"), HasSubstr("use: pause TIME"));
    EXPECT_THAT(FailureOf("observe"), HasSubstr("the observation ID is missing"));
    EXPECT_THAT(FailureOf("observe kel.x \"%d\" ten"),
                StartsWith("line 1: argument 1: \"ten\" does not fit %d"));
    EXPECT_THAT(FailureOf("observe @99 kel.x"), HasSubstr("context \"99\""));
    EXPECT_THAT(FailureOf("observe kel.x \"open"), HasSubstr("the closing \" is missing"));
    EXPECT_THAT(FailureOf("observe kel.x \"a\\q\""), HasSubstr("a backslash stands before"));
    EXPECT_THAT(FailureOf("observe kel.x \"a\"b"), HasSubstr("a blank is missing"));
    EXPECT_THAT(FailureOf("observe kel.x a\"b"), HasSubstr("quote the whole word"));
    EXPECT_THAT(FailureOf("host set a"), HasSubstr("host set NAME VALUE"));
    EXPECT_THAT(FailureOf("expect nox.problem.x"), HasSubstr("use: expect within TIME"));
    EXPECT_THAT(FailureOf("expect within 5s"), HasSubstr("type ID is missing"));
    EXPECT_THAT(FailureOf("expect within 5s kel.x"), HasSubstr("begins with nox.problem."));
    EXPECT_THAT(FailureOf("repeat 0\nend"), HasSubstr("a number from 1 to 1000000"));
    EXPECT_THAT(FailureOf("repeat 1000001\nend"), HasSubstr("a number from 1 to 1000000"));
    EXPECT_THAT(FailureOf("pause 1s\nrepeat 2\n\n"), StartsWith("line 2: this repeat has no end"));
    EXPECT_THAT(FailureOf("end"), HasSubstr("an end without its repeat"));
    EXPECT_THAT(FailureOf(std::string("pause\0 1s", 9)), HasSubstr("a NUL character"));
}

TEST(KeladmScenarioTest, RepeatsInsideEachOtherAreBounded)
{
    auto nested = [](size_t depth) {
        std::string text;
        for (size_t i = 0; i < depth; i++)
            text += "repeat 2\n";
        for (size_t i = 0; i < depth; i++)
            text += "end\n";
        return FailureOf(text);
    };
    EXPECT_EQ("no failure", nested(8));
    EXPECT_THAT(nested(9), StartsWith("line 9: "));
}

TEST(KeladmScenarioTest, ExpectedArgumentsAreComparedAsTextInTheirOrder)
{
    const std::string expect = "expect within 5s nox.problem.net.vmnic.linkstate.down";
    EXPECT_TRUE(MeetsEvent(expect, {"vmnic0", "3"}));
    EXPECT_TRUE(MeetsEvent(expect + " vmnic0 3", {"vmnic0", "3"}));
    EXPECT_TRUE(MeetsEvent(expect + " vmnic? *", {"vmnic0", "3"}));
    EXPECT_TRUE(MeetsEvent(expect + " vmnic0 ...", {"vmnic0", "3"}));
    EXPECT_TRUE(MeetsEvent(expect + " ...", {}));
    EXPECT_FALSE(MeetsEvent(expect + " vmnic0", {"vmnic0", "3"}));
    EXPECT_FALSE(MeetsEvent(expect + " 3 vmnic0", {"vmnic0", "3"}));
    EXPECT_FALSE(MeetsEvent(expect + " vmnic0 3 4 ...", {"vmnic0", "3"}));
    EXPECT_FALSE(MeetsEvent(expect + " 'vmnic?'", {"vmnic0"}));
    EXPECT_TRUE(MeetsEvent(expect + " 'a*'", {"a*"}));
}

TEST(KeladmScenarioTest, TheExpectedTypeMayBeAPattern)
{
    EXPECT_TRUE(MeetsEvent("expect none within 2s", {}));
    EXPECT_TRUE(MeetsEvent("expect within 2s nox.problem.*", {}));
    EXPECT_TRUE(MeetsEvent("expect within 2s nox.*.down", {}));
    EXPECT_FALSE(MeetsEvent("expect within 2s nox.*.up", {}));
    EXPECT_FALSE(MeetsEvent("expect within 2s nox.problem.net.vmnic.linkstate.dow", {}));
}

TEST(KeladmScenarioTest, OneLineForAHandMovedClockMakesAStory)
{
    EXPECT_FALSE(NeedsHandClock(ParseScenario("expect within 1s nox.problem.*\npause 1s\n")));
    for (const char *line :
         {"story It's quoted # by nobody.", "clock +2m", "log none", "receiver deaf", "restart"}) {
        const std::string text =
            std::string(line) + "\nexpect nox.problem.*\nexpect within 1s nox.clear.*\n";
        EXPECT_TRUE(NeedsHandClock(ParseScenario(text))) << line;
    }
    EXPECT_EQ(120u, Only<ClockAction>("clock +2m").forward);
    EXPECT_EQ(1772362800u, Only<ClockAction>("clock set 2026-03-01T11:00:00Z").setTo);
    EXPECT_EQ("Abandoned event (*)", Only<LogAction>("log Abandoned  event (*)").text.text);
    EXPECT_EQ("It's quoted # by nobody.", Only<StoryAction>(" story  It's quoted # by nobody. ").heading);
}

TEST(KeladmScenarioTest, EveryErrorOfAStoryNamesItsLine)
{
    for (const char *clock : {"clock", "clock 2s", "clock +1.5s", "clock set", "clock set 11:00:00",
                              "clock set 2026-03-01T11:00:00"})
        EXPECT_THAT(FailureOf(clock), StartsWith("line 1: use: clock +2s, in whole seconds"));
    EXPECT_THAT(FailureOf("restart\npause 1s"), StartsWith("line 2: nothing pauses"));
    EXPECT_THAT(FailureOf("log"), StartsWith("line 1: use: log none"));
    EXPECT_THAT(FailureOf("log 'a' b"), StartsWith("line 1: quote all"));
    EXPECT_THAT(FailureOf("receiver gone"), StartsWith("line 1: use: receiver away"));
    EXPECT_THAT(FailureOf("restart now"), StartsWith("line 1: nothing may stand"));
    EXPECT_THAT(FailureOf("story"), StartsWith("line 1: use: story"));
    EXPECT_THAT(FailureOf("repeat 2\nstory A.\nend"), StartsWith("line 2: a story inside"));
    EXPECT_THAT(FailureOf("host set vms/1/name a\nclock +1s\nstory A."),
                StartsWith("line 2: above the first"));
}
