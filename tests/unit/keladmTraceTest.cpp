// Trace lines, as the daemon writes them and as it never would.

#include "keladmFailure.h"
#include "runDir.h"
#include "traceConnection.h"
#include "traceText.h"
#include "unixSocket.h"

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

// Another connection begins with what the daemon remembers. What has been seen of it does not come again;
// where it does not reach back far enough, that is said.
TEST(KeladmTraceTest, AConnectionThatEndsIsTakenUpAgainAndTheGapIsNamed)
{
    const RunDir run;
    const UniqueFd listener = ListenAt(RunPath("keld-trace.sock"), 8);
    UniqueFd peer;
    TraceConnection trace;
    const auto line = [](int second) { return std::to_string(second) + ".000000000,IN,1,kel.x,,7"; };
    // The daemon sends lines, of which 0 is the blank one, and part of another; the client reads all of it.
    const auto serve = [&](std::initializer_list<int> seconds) {
        if (!peer) peer.Reset(accept(listener.Get(), nullptr, nullptr));
        std::string text;
        for (const int second : seconds)
            text += (second == 0 ? "" : line(second)) + "\n";
        EXPECT_LT(0, send(peer.Get(), (text + "4.0").data(), text.size() + 3, MSG_NOSIGNAL));
        trace.Proceed();
        std::vector<std::string> shown;
        while (const auto item = trace.Next())
            shown.push_back(item->isGap ? "gap " + item->after + " " + item->until
                                        : (item->isHistory ? "history " : "") + item->line);
        return shown;
    };
    const auto cut = [&] {
        peer.Reset();
        return trace.Proceed().value_or("nothing");
    };
    EXPECT_THAT(serve({1, 0, 2, 3, 3}), ElementsAre("history " + line(1), line(2), line(3), line(3)));
    EXPECT_THAT(cut(), testing::HasSubstr("has cut this connection off"));
    EXPECT_THAT(serve({1, 2, 3, 3, 3, 4, 0, 5}), ElementsAre(line(3), line(4), line(5)));
    cut();
    EXPECT_THAT(serve({7, 8, 0, 9}), ElementsAre("gap 5.000000000 7.000000000", line(7), line(8), line(9)));
}

TEST(KeladmTraceTest, TheCatalogueNamesArgumentsAndTellsTheEvent)
{
    const std::optional catalogue = ParseCatalogue(R"({"version": 1,
        "events": [{"type": "nox.problem.x", "class": "problem", "text": "NIC %s: %d.",
                    "arguments": [{"name": "nic", "type": "string"}, {"name": "left", "type": "int32"}]}],
        "observations": [{"id": "kel.x", "domain": "x", "arguments": [{"name": "disk", "type": "uuid"},
                                                                      {"name": "left", "type": "int32"}]}]})");
    using testing::Pair;
    const TraceLine out = ParseTraceLine(kTime + R"(OUT,1,nox.problem.x,,"vmnic0",-2,3)");
    EXPECT_THAT(NamedArguments(out, catalogue),
                ElementsAre(Pair("nic", "\"vmnic0\""), Pair("left", "-2"), Pair("", "3")));
    EXPECT_EQ("NIC vmnic0: -2.", MessageOf(out, catalogue));
    const TraceLine in = ParseTraceLine(kTime + "IN,1,kel.x,,1,2,3,4,5,6,7,8,-1,7");
    EXPECT_THAT(NamedArguments(in, catalogue),
                ElementsAre(Pair("disk", "00000001-00000002-0003-0405060708ff"), Pair("left", "7")));
}
