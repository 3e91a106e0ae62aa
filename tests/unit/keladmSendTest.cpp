// Observations from words: which types they become, and what is said about those that cannot.

#include "failure.h"
#include "observationWords.h"

#include "kltlibs/kel.h"
#include "kltlibs/kelrecord.h"
#include "kltlibs/msgfmt.h"

#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

namespace {

std::vector<ArgumentWord> Words(std::initializer_list<const char *> texts)
{
    std::vector<ArgumentWord> words;
    for (const char *text : texts)
        words.push_back({text, false});
    return words;
}

std::string GuessOf(const char *text) { return GuessFormat(Words({text})); }

// The message of the failure, or what came instead.
template <typename Call> std::string FailureOf(Call call)
{
    try {
        call();
    } catch (const Failure &failure) {
        return failure.what();
    }
    return "no failure";
}

std::string FailureOfArguments(const char *format, std::initializer_list<const char *> texts)
{
    return FailureOf([&] { ReadArguments(format, Words(texts)); });
}

// The record as the daemon sees it: ID, rendered text, number of arguments.
std::string SeenByDaemon(const Observation &observation)
{
    void *record = std::malloc(observation.record.size());
    std::memcpy(record, observation.record.data(), observation.record.size());
    Kel *kel = nullptr;
    if (Kel_MakeKel(record, static_cast<uint32_t>(observation.record.size()), &kel) != 0) {
        std::free(record);
        return "refused";
    }
    const char *id = nullptr;
    char *text = nullptr;
    Kel_GetID(kel, &id);
    Kel_GetMsg(kel, &text, nullptr);
    std::string seen = std::string(id) + ": " + text + " (" +
                       std::to_string(KelRecord_ArgumentCount(observation.record.data())) + ")";
    std::free(text);
    Kel_Free(kel);
    return seen;
}

} // namespace

TEST(KeladmSendTest, ANumberIsGuessedAsTheNarrowestTypeThatHoldsIt)
{
    EXPECT_EQ("%d", GuessOf("2147483647"));
    EXPECT_EQ("%u", GuessOf("2147483648"));
    EXPECT_EQ("%u", GuessOf("0xFFFFFFFF"));
    EXPECT_EQ("%ld", GuessOf("4294967296"));
    EXPECT_EQ("%d", GuessOf("-2147483648"));
    EXPECT_EQ("%ld", GuessOf("-2147483649"));
    EXPECT_EQ("%ld", GuessOf("-9223372036854775808"));
    EXPECT_EQ("%lu", GuessOf("9223372036854775808"));
    EXPECT_EQ("%lu", GuessOf("18446744073709551615"));
}

TEST(KeladmSendTest, WhatIsNoPlainNumberIsGuessedAsText)
{
    for (const char *text : {"vmnic0", "", "-", "0x", "12ab", "+5", " 5", "5 ", "007", "1.5", "--5", "0x-1",
                             "18446744073709551616", "-9223372036854775809"})
        EXPECT_EQ("%s", GuessOf(text)) << text;
    EXPECT_EQ("%s", GuessFormat(std::vector<ArgumentWord>{{"5", true}}));
}

TEST(KeladmSendTest, ArgumentsFollowTheConversionsOfTheFormat)
{
    auto arguments = ReadArguments("%s at 100%% %5d %08x %llu %c", Words({"007", "-7", "0xff", "9", "a"}));
    std::vector<TypedArgument> expected = {{MSGFMT_TYPE_STRING, 0, "007"},
                                           {MSGFMT_TYPE_INT32, std::uint64_t(-7), {}},
                                           {MSGFMT_TYPE_UINT32, 255, {}},
                                           {MSGFMT_TYPE_UINT64, 9, {}},
                                           {MSGFMT_TYPE_INT32, 'a', {}}};
    EXPECT_EQ(expected, arguments);
}

TEST(KeladmSendTest, NullIsANullTextUnlessItIsQuoted)
{
    auto arguments = ReadArguments("%s %s", std::vector<ArgumentWord>{{"(null)", false}, {"(null)", true}});
    EXPECT_EQ(std::nullopt, arguments[0].text);
    EXPECT_EQ("(null)", arguments[1].text);
}

TEST(KeladmSendTest, AWrongArgumentIsNamedWithWhatWouldBeRight)
{
    EXPECT_THAT(FailureOfArguments("%s %d", {"vmnic0", "ten"}),
                HasSubstr("argument 2: \"ten\" does not fit %d, which takes a decimal or 0x number from "
                          "-2147483648 to 2147483647"));
    EXPECT_THAT(FailureOfArguments("%u", {"-1"}), HasSubstr("from 0 to 4294967295"));
    EXPECT_THAT(FailureOfArguments("%d", {"2147483648"}), HasSubstr("argument 1"));
    EXPECT_THAT(FailureOfArguments("%c", {"ab"}), HasSubstr("one character"));
    EXPECT_THAT(FailureOfArguments("%s %s", {"vmnic0"}), HasSubstr("argument 2, for %s, is missing"));
    EXPECT_THAT(FailureOfArguments("%s", {"vmnic0", "up"}),
                HasSubstr("argument 2 (\"up\") is one too many"));
    EXPECT_THAT(FailureOfArguments("%d %p", {"1", "2"}), HasSubstr("conversion 2 cannot be sent"));
    EXPECT_THAT(FailureOfArguments("%*d", {"1"}), HasSubstr("conversion 1 cannot be sent"));
    EXPECT_THAT(FailureOfArguments("50%", {}), HasSubstr("conversion 1 cannot be sent"));
}

TEST(KeladmSendTest, TheDaemonReadsTheRecordAsItWasMeant)
{
    EXPECT_EQ(
        "kel.net.vmnic.linkstate.down: vmnic0 -3 (2)",
        SeenByDaemon(MakeObservation(22, "kel.net.vmnic.linkstate.down", {}, Words({"vmnic0", "-3"}))));
    EXPECT_EQ("kel.x: [00ff] 18446744073709551615 (null) '' (4)",
              SeenByDaemon(MakeObservation(3, "kel.x", "[%04x] %lu %s '%s'",
                                           Words({"255", "18446744073709551615", "(null)", ""}))));
    EXPECT_EQ("kel.x:  (0)", SeenByDaemon(MakeObservation(0, "kel.x", {}, {})));
}

TEST(KeladmSendTest, LimitsOfTheRecordAreKeptOnBothSides)
{
    auto make = [](size_t idLength, size_t count) {
        return FailureOf([&] {
            std::vector<ArgumentWord> words(count, {"5", false});
            EXPECT_NE("refused", SeenByDaemon(MakeObservation(22, std::string(idLength, 'k'), {}, words)));
        });
    };
    EXPECT_EQ("no failure", make(127, 32));
    EXPECT_THAT(make(128, 0), HasSubstr("128 characters; an ID is 1 to 127 characters"));
    EXPECT_THAT(make(0, 0), HasSubstr("0 characters"));
    EXPECT_THAT(make(1, 33), HasSubstr("at most 32"));

    // Header, "k", "%s", one entry, the text and its NUL.
    const size_t textMax = 0x1FFFF - (32 + 2 + 3 + 16 + 1);
    auto makeText = [](size_t length) {
        return FailureOf([&] {
            std::vector<ArgumentWord> words{{std::string(length, 'x'), false}};
            EXPECT_NE("refused", SeenByDaemon(MakeObservation(22, "k", {}, words)));
        });
    };
    EXPECT_EQ("no failure", makeText(textMax));
    EXPECT_THAT(makeText(textMax + 1), HasSubstr("larger than 131071 bytes"));
    EXPECT_THAT(FailureOf([] { MakeObservation(22, "kel.a b", {}, {}); }),
                HasSubstr("character 6 is \" \""));
}

TEST(KeladmSendTest, ContextsAreNamedOrNumbered)
{
    EXPECT_EQ(22, ParseContext("user"));
    EXPECT_EQ(22, ParseContext("22"));
    EXPECT_EQ(0, ParseContext("0"));
    EXPECT_EQ(21, ParseContext("async-21"));
    for (const char *text : {"", "23", "-1", "async-22", "async-", "async--1", "3x", "User"})
        EXPECT_THAT(FailureOf([&] { ParseContext(text); }), HasSubstr("0 to 21")) << text;
}

TEST(KeladmSendTest, RunTimeArgumentsThatDoNotFitTheFormatAreRefused)
{
    char buffer[256];
    size_t length = 0;
    KelProducerArg text{MSGFMT_TYPE_STRING, 0, "vmnic0"};
    KelProducerArg both[] = {text, text};
    auto build = [&](const char *format, const KelProducerArg *args, size_t count, size_t size) {
        return KelRecord_BuildFromArgs(buffer, size, &length, 7, "kel.x", format, args, count);
    };
    EXPECT_EQ(0, build("%s", &text, 1, sizeof buffer));
    EXPECT_EQ(EINVAL, build("%d", &text, 1, sizeof buffer));
    EXPECT_EQ(EINVAL, build("%s", both, 2, sizeof buffer));
    EXPECT_EQ(EINVAL, build("%s %s", &text, 1, sizeof buffer));

    // 32 bytes of header, "kel.x", "%s", an entry and "vmnic0".
    EXPECT_EQ(0, build("%s", &text, 1, 32 + 6 + 3 + 16 + 7));
    EXPECT_EQ(32u + 6 + 3 + 16 + 7, length);
    EXPECT_EQ(ENOSPC, build("%s", &text, 1, length - 1));
}
