// Trace lines, as the daemon writes them and as it never would.

#include "failure.h"
#include "traceLine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

const std::string kStart = "1714557600.123456789,IN,1714557600123000,kel.net.vmnic.linkstate.down,";

std::string FailureOf(const std::string &line)
{
    try {
        ParseTraceLine(line);
    } catch (const Failure &failure) {
        return failure.what();
    }
    return "no failure";
}

std::vector<std::string> Split(std::initializer_list<std::string> pieces)
{
    TraceSplitter splitter;
    std::vector<std::string> lines;
    for (const std::string &piece : pieces) {
        splitter.Append(piece);
        while (auto line = splitter.Next())
            lines.push_back(*line);
    }
    return lines;
}

} // namespace

TEST(KeladmTraceTest, ALineIsReadFieldByField)
{
    TraceLine line = ParseTraceLine(kStart + R"x(,7,-1,"a""b",18446744073709551615,???,"(null)")x");
    EXPECT_EQ("1714557600.123456789", line.seconds);
    EXPECT_TRUE(line.in);
    EXPECT_EQ(1714557600123000u, line.timestamp);
    EXPECT_EQ("kel.net.vmnic.linkstate.down", line.id);
    using A = TraceArgument;
    EXPECT_THAT(line.arguments, ElementsAre(A{A::Integer, "7"}, A{A::Integer, "-1"}, A{A::Text, "a\"b"},
                                            A{A::Integer, "18446744073709551615"}, A{A::Unreadable, "???"},
                                            A{A::Text, "(null)"}));
}

TEST(KeladmTraceTest, TextsMayHoldCommasQuotesAndNothing)
{
    EXPECT_EQ("a,b\n", ParseTraceLine(kStart + ",\"a,b\n\"").arguments[0].text);
    EXPECT_EQ("", ParseTraceLine(kStart + ",\"\"").arguments[0].text);
    EXPECT_EQ("\"", ParseTraceLine(kStart + ",\"\"\"\"").arguments[0].text);
    EXPECT_TRUE(ParseTraceLine(kStart).arguments.empty());
}

TEST(KeladmTraceTest, AMalformedLineIsRefusedWithItsField)
{
    EXPECT_THAT(FailureOf(""), HasSubstr("field 1"));
    EXPECT_THAT(FailureOf("1714557600.12,IN,1,kel.x,"), HasSubstr("field 1"));
    EXPECT_THAT(FailureOf("1714557600.123456789,UP,1,kel.x,"), HasSubstr("field 2: \"UP\" is neither"));
    EXPECT_THAT(FailureOf("1714557600.123456789,IN,-1,kel.x,"), HasSubstr("field 3"));
    EXPECT_THAT(FailureOf("1714557600.123456789,IN,18446744073709551616,kel.x,"), HasSubstr("field 3"));
    EXPECT_THAT(FailureOf("1714557600.123456789,IN,1,,"), HasSubstr("field 4"));
    EXPECT_THAT(FailureOf("1714557600.123456789,IN,1,kel.x"), HasSubstr("behind the ID"));
    EXPECT_THAT(FailureOf(kStart + "7"), HasSubstr("field 5: \"7\" where nothing may stand"));
    EXPECT_THAT(FailureOf(kStart + ",vmnic0"), HasSubstr("field 6: \"vmnic0\" is neither"));
    EXPECT_THAT(FailureOf(kStart + ",7,"), HasSubstr("field 7"));
    EXPECT_THAT(FailureOf(kStart + ",\"vmnic0"), HasSubstr("does not end"));
    EXPECT_THAT(FailureOf(kStart + ",\"vmnic0\"x"), HasSubstr("closing quote"));
}

TEST(KeladmTraceTest, LinesAreCutAtNewlinesOutsideTexts)
{
    EXPECT_THAT(Split({"one\ntwo", "\n\nthr", "ee\n", "rest"}), ElementsAre("one", "two", "", "three"));
    EXPECT_THAT(Split({"a,\"x\n", "\ny\"\"\n\"", ",1\nb\n"}), ElementsAre("a,\"x\n\ny\"\"\n\",1", "b"));
}

TEST(KeladmTraceTest, AQuoteThatNeverClosesDoesNotSwallowTheTraceForEver)
{
    auto lines = Split({"\"" + std::string(TraceSplitter::kLineBytesMax + 10, 'x'), "\nnext\n"});
    EXPECT_THAT(lines, testing::Contains("next"));
}
