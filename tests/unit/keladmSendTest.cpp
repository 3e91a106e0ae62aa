// Observations from words: which types they become, and what is said about those that cannot.

#include "keladmFailure.h"
#include "observation.h"
#include "observationCheck.h"
#include "observationWords.h"

#include "kltlibs/kelrecord.h"

#include <gtest/gtest.h>
#include <sstream>

namespace {

std::vector<ArgumentWord> Words(const std::string &text)
{
    std::vector<ArgumentWord> words;
    std::istringstream stream(text);
    for (std::string word; stream >> word;)
        words.push_back({word, false});
    return words;
}

std::string MessageOf(const Observation &observation)
{
    const TestKel kel = MakeKel(std::as_bytes(std::span(observation.record)));
    char *text = nullptr;
    EXPECT_EQ(0, Kel_GetMsg(kel.get(), &text, nullptr));
    const std::unique_ptr<char, void (*)(void *)> owner(text, std::free);
    return text;
}

} // namespace

TEST(KeladmSendTest, AWordIsGuessedAsTheNarrowestNumberThatHoldsItOrAsText)
{
    EXPECT_EQ("%d %u %u %ld", GuessFormat(Words("2147483647 2147483648 0xFFFFFFFF 4294967296")));
    EXPECT_EQ("%d %ld %ld", GuessFormat(Words("-2147483648 -2147483649 -9223372036854775808")));
    EXPECT_EQ("%lu %lu", GuessFormat(Words("9223372036854775808 18446744073709551615")));
    for (const char *text : {"vmnic0", "", "-", "0x", "12ab", "+5", " 5", "5 ", "007", "1.5", "--5", "0x-1",
                             "18446744073709551616", "-9223372036854775809"})
        EXPECT_EQ("%s", GuessFormat(std::vector<ArgumentWord>{{text, false}})) << text;
    EXPECT_EQ("%s", GuessFormat(std::vector<ArgumentWord>{{"5", true}}));
}

TEST(KeladmSendTest, AWrongArgumentIsNamedWithWhatWouldBeRight)
{
    const auto read = [](const std::string &text) { // "format | words"
        const std::size_t mark = text.find(" |");
        ReadArguments(text.substr(0, mark), Words(text.substr(mark + 2)));
    };
    ExpectRefusals(
        {{"%s %d | vmnic0 ten", "argument 2: \"ten\" does not fit %d, which takes a decimal or 0x "
                                "number from -2147483648 to 2147483647"},
         {"%u | -1", "from 0 to 4294967295"},
         {"%d | 2147483648", "argument 1"},
         {"%c | ab", "one character"},
         {"%s %s | vmnic0", "argument 2, for %s, is missing"},
         {"%s | vmnic0 up", "argument 2 (\"up\") is one too many"},
         {"%d %p | 1 2", "conversion 2 cannot be sent"},
         {"50% |", "conversion 1 cannot be sent"}},
        read);
}

TEST(KeladmSendTest, WhatTheCatalogueDoesNotKnowIsRefusedWithWhatIsNearest)
{
    const Catalogue catalogue = ParseCatalogue(R"({"version": 1,
        "agents": [{"name": "NetCorrelator", "domains": ["net"], "otherwise": "ignored"},
                   {"name": "QuillfsCorrelator", "domains": ["quillfs"], "otherwise": "becomes a problem",
                    "otherwiseBecomes": ["nox.problem.quillfs.failure"]}],
        "events": [{"type": "nox.problem.net.heap", "class": "problem", "text": "", "arguments": []}],
        "observations": [
            {"id": "kel.net.heap", "domain": "net", "object": "heap", "becomes": ["nox.problem.net.heap"],
             "arguments": [{"name": "heap", "type": "string"}, {"name": "free", "type": "int64"}]},
            {"id": "kel.net.disk", "domain": "net", "arguments": [{"name": "disk", "type": "uuid"}]}]})");
    const auto format = [&](const std::string &text) { // "ID | words" or "ID, format | words"
        const std::size_t mark = text.find(" |"), comma = text.substr(0, mark).find(", ");
        std::optional<std::string> given;
        if (comma != text.npos) given = text.substr(comma + 2, mark - comma - 2);
        return CheckedFormat(catalogue, text.substr(0, std::min(mark, comma)), given,
                             Words(text.substr(mark + 2)));
    };
    EXPECT_EQ("%s %ld", format("kel.net.heap | 7 7")); // whatever the words look like
    EXPECT_EQ("%s at %u", format("kel.net.heap, %s at %u | netGPHeap 7"));
    EXPECT_EQ("%08x-%08x-%04hx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx",
              format("kel.net.disk | 1 2 3 4 5 6 7 8 9"));
    EXPECT_EQ(std::nullopt, format("kel.quillfs.new | 7"));
    const std::string takes = "kel.net.heap takes: string heap (object), int64 free\nNothing was sent";
    ExpectRefusals(
        {{"kel.net.heep | a 7", "\"kel.net.heep\" is no observation that the daemon knows; the "
                                "nearest:\n  " +
                                    takes},
         {"kel.x | a", "\"keladm events\" lists them"},
         {"nox.problem.net.heap | a 7", "is an event, not an observation; what leads to it:\n  " + takes},
         {"kel.net.heap | a", "1 argument; " + takes},
         {"kel.net.heap | a 7 7", "3 arguments; " + takes},
         {"kel.net.heap, %d %d | 7 7",
          "argument 1: the format sends a number where a text belongs; " + takes},
         {"kel.net.heap, %s %s | a 7",
          "argument 2: the format sends a text where a number belongs; " + takes}},
        format);
}

TEST(KeladmSendTest, TheDaemonReadsTheRecordAsItWasMeant)
{
    EXPECT_EQ("[00ff] 18446744073709551615 (null) '007' a 100% -7",
              MessageOf(MakeObservation(3, "kel.x", "[%04x] %lu %s '%s' %c 100%% %d",
                                        Words("0xff 18446744073709551615 (null) 007 a -7"))));
    const std::vector<ArgumentWord> null{{"(null)", false}, {"(null)", true}}; // unless it is quoted
    EXPECT_EQ(std::nullopt, ReadArguments("%s %s", null)[0].text);
    EXPECT_EQ("(null)", ReadArguments("%s %s", null)[1].text);
}

TEST(KeladmSendTest, LimitsOfTheRecordAreKeptOnBothSides)
{
    MessageOf(MakeObservation(22, std::string(127, 'k'), {}, std::vector<ArgumentWord>(32, {"5", false})));
    // Header, "k", "%s", one entry, the text and its NUL.
    const std::string longest(0x1FFFF - (32 + 2 + 3 + 16 + 1), 'x');
    MessageOf(MakeObservation(22, "k", {}, Words(longest)));
    const auto make = [](const std::string &text) { // "ID words"
        MakeObservation(22, text.substr(0, text.find(' ')), {}, Words(text.substr(text.find(' '))));
    };
    std::string tooMany = "k";
    for (int i = 0; i < 33; ++i)
        tooMany += " 5";
    ExpectRefusals({{tooMany, "at most 32"},
                    {"k " + longest + "x", "larger than 131071 bytes"},
                    {std::string(128, 'k') + " 5", "128 characters; an ID is 1 to 127 characters"},
                    {" 5", "0 characters"},
                    {"kel/a 5", "character 4 is \"/\""}},
                   make);
}

TEST(KeladmSendTest, ContextsAreNamedOrNumbered)
{
    EXPECT_EQ(22, ParseContext("user"));
    EXPECT_EQ(22, ParseContext("22"));
    EXPECT_EQ(0, ParseContext("0"));
    EXPECT_EQ(21, ParseContext("async-21"));
    for (const char *text : {"", "23", "-1", "async-22", "async-", "async--1", "3x", "User"})
        ExpectRefusals({{text, "0 to 21"}}, ParseContext);
}
