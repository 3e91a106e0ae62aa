// Trace lines, as the daemon writes them and as it never would.

#include "keladmFailure.h"
#include "traceLine.h"

#include <gtest/gtest.h>

using testing::ElementsAre;

namespace {

const std::string kTime = "1714557600.123456789,";
const std::string kStart = kTime + "IN,1714557600123000,kel.net.vmnic.linkstate.down,";

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
    const TraceLine line = ParseTraceLine(
        kStart + R"x(,7,-1,"a""b",18446744073709551615,???,"(null)","a,b)x" + "\n\",\"\",\"\"\"\"");
    EXPECT_EQ("1714557600.123456789", line.seconds);
    EXPECT_TRUE(line.in);
    EXPECT_EQ(1714557600123000U, line.timestamp);
    EXPECT_EQ("kel.net.vmnic.linkstate.down", line.id);
    using A = TraceArgument;
    EXPECT_THAT(line.arguments,
                ElementsAre(A{A::Integer, "7"}, A{A::Integer, "-1"}, A{A::Text, "a\"b"},
                            A{A::Integer, "18446744073709551615"}, A{A::Unreadable, "???"},
                            A{A::Text, "(null)"}, A{A::Text, "a,b\n"}, A{A::Text, ""}, A{A::Text, "\""}));
    EXPECT_TRUE(ParseTraceLine(kStart).arguments.empty());
}

TEST(KeladmTraceTest, AMalformedLineIsRefusedWithItsField)
{
    ExpectRefusals({{"", "field 1"},
                    {kTime + "UP,1,kel.x,", "field 2: \"UP\" is neither"},
                    {kTime + "IN,18446744073709551616,kel.x,", "field 3"},
                    {kTime + "IN,1,,", "field 4"},
                    {kStart + "7", "field 5: \"7\" where nothing may stand"},
                    {kStart + ",vmnic0", "field 6: \"vmnic0\" is neither"},
                    {kStart + ",7,", "field 7"},
                    {kStart + ",\"vmnic0", "does not end"},
                    {kStart + ",\"vmnic0\"x", "closing quote"}},
                   ParseTraceLine);
}

TEST(KeladmTraceTest, LinesAreCutAtNewlinesOutsideTexts)
{
    EXPECT_THAT(Split({"one\ntwo", "\n\nthr", "ee\n", "rest"}), ElementsAre("one", "two", "", "three"));
    EXPECT_THAT(Split({"a,\"x\n", "\ny\"\"\n\"", ",1\nb\n"}), ElementsAre("a,\"x\n\ny\"\"\n\",1", "b"));
    // A quote that never closes does not swallow the trace for ever.
    EXPECT_THAT(Split({"\"" + std::string(TraceSplitter::kLineBytesMax + 10, 'x'), "\nnext\n"}),
                testing::Contains("next"));
}
