// The scenario parser, and which events meet an expectation.

#include "keladmFailure.h"
#include "scenario.h"

#include "kltlibs/kelrecord.h"

#include <gtest/gtest.h>

namespace {

template <typename Action> Action Only(const std::string &line)
{
    return std::get<Action>(ParseScenario(line).at(0).action);
}

// Context and message format.
std::string Sent(const std::string &line)
{
    const auto observation = Only<Observation>(line);
    return std::to_string(observation.context) + " " + KelRecord_MessageFormat(observation.record.data());
}

std::string Repeats(std::size_t depth)
{
    std::string text;
    for (std::size_t i = 0; i < depth; i++)
        text = "repeat 2\n" + text + "end\n";
    return text;
}

} // namespace

TEST(KeladmScenarioTest, StepsKnowTheirLinesAndRepeatsHoldTheirs)
{
    const auto steps =
        ParseScenario("# uplink loss\r\n\n  pause 2s   # long enough\r\n\t\nrepeat 3\n  pause 500ms\n"
                      "  repeat 2\n    pause 2s\n  end\nend\npause 1m");
    ASSERT_EQ(3U, steps.size());
    EXPECT_EQ(3U, steps[0].line);
    EXPECT_EQ(std::chrono::seconds(2), std::get<PauseAction>(steps[0].action).duration);
    EXPECT_EQ(5U, steps[1].line);
    const auto &outer = std::get<RepeatAction>(steps[1].action);
    EXPECT_EQ(3U, outer.count);
    ASSERT_EQ(2U, outer.steps.size());
    EXPECT_EQ(2U, std::get<RepeatAction>(outer.steps[1].action).count);
    EXPECT_EQ(11U, steps[2].line);
}

TEST(KeladmScenarioTest, ADoubleQuotedWordBehindTheIdIsTheFormat)
{
    EXPECT_EQ("22 %s %d", Sent("observe kel.net.vmnic.linkstate.down vmnic0 10"));
    EXPECT_EQ("3 NIC \"%s\" at %u", Sent(R"(observe @async-3 kel.x "NIC \"%s\" at %u" vmnic0 10)"));
    EXPECT_EQ("22 %s %s", Sent("observe kel.x '10' \"a # b\""));
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

TEST(KeladmScenarioTest, EveryErrorNamesItsLineAndWhatWouldBeRight)
{
    ExpectRefusals({{"clock +1.5s", "line 1: use: clock +2s, in whole seconds"},
                    {"clock set 11:00:00", "line 1: use: clock +2s, in whole seconds"},
                    {"restart\npause 1s", "line 2: nothing pauses"},
                    {"log", "line 1: use: log none"},
                    {"log 'a' b", "line 1: quote all"},
                    {"receiver gone", "line 1: use: receiver away"},
                    {"restart now", "line 1: nothing may stand"},
                    {"story", "line 1: use: story"},
                    {"repeat 2\nstory A.\nend", "line 2: a story inside"},
                    {"host set vms/1/name a\nclock +1s\nstory A.", "line 2: above the first"},
                    {"pause 1s\nobserv kel.x", "line 2: \"observ\": a line begins with observe,"},
                    {"pause", "a time is written 2s, 500ms or 1m"},
                    {"pause -1s", "a time is written"},
                    {"observe kel.x \"open", "the closing \" is missing"},
                    {"observe kel.x a\"b", "quote the whole word"},
                    {"\nhost set storage/devices/naa.6/pathRedundancy 4",
                     "line 2: storage/devices/naa.6/pathRedundancy: \"4\" is not an integer from 0 to 3"},
                    {"expect nox.problem.x", "use: expect within TIME"},
                    {"expect within 5s kel.x", "begins with nox.problem."},
                    {"repeat 1000000\nend", "no failure"},
                    {"repeat 0\nend", "a number from 1 to 1000000"},
                    {"repeat 1000001\nend", "a number from 1 to 1000000"},
                    {"pause 1s\nrepeat 2\n\n", "line 2: this repeat has no end"},
                    {"end", "an end without its repeat"},
                    {std::string("pause\0 1s", 9), "a NUL character"},
                    {Repeats(8), "no failure"},
                    {Repeats(9), "line 9: "}},
                   ParseScenario);
}

TEST(KeladmScenarioTest, ExpectedTypesAndArgumentsAreComparedAsTextInTheirOrder)
{
    const std::string down = "expect within 5s nox.problem.net.vmnic.linkstate.down";
    const struct {
        std::string expectation;
        std::vector<std::string> arguments;
        bool met;
    } rows[] = {{down, {"vmnic0", "3"}, true},
                {down + " vmnic? *", {"vmnic0", "3"}, true},
                {down + " ...", {}, true},
                {down + " vmnic0", {"vmnic0", "3"}, false},
                {down + " 3 vmnic0", {"vmnic0", "3"}, false},
                {down + " vmnic0 3 4 ...", {"vmnic0", "3"}, false},
                {down + " 'vmnic?'", {"vmnic0"}, false},
                {down + " 'a*'", {"a*"}, true},
                {"expect none within 2s", {}, true},
                {"expect within 2s nox.*.down", {}, true},
                {"expect within 2s nox.problem.net.vmnic.linkstate.dow", {}, false}};
    for (const auto &row : rows)
        EXPECT_EQ(row.met, Meets(Only<ExpectAction>(row.expectation),
                                 "nox.problem.net.vmnic.linkstate.down", row.arguments))
            << row.expectation;
}
