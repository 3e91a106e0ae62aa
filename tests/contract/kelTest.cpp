// One observation: what Kel_MakeKel takes in and what comes out of it.
#include "observation.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

// A null text, which the compiler does not see coming.
const char *const volatile noText = nullptr;

// The result of reading the first argument into a Value that held 42 in every byte: "0 = -5", or "34"
// when nothing was written.
template <typename Value> std::string Read(const TestKel &kel, const char *format)
{
    Value value;
    std::memset(&value, 42, sizeof value);
    const Value before = value;
    const int error = Kel_GetArgs(kel.get(), 0, format, &value);
    std::string result = std::to_string(error);
    if (error == 0) result += " = " + std::to_string(value);
    return error == 0 || value == before ? result : result + " but written";
}

TEST(KelTest, GivesItsIdAndTime)
{
    const TestKel kel = MakeKel("kel.net.vmnic.linkstate.down", "%s", "vmnic2");
    const char *id;
    std::uint64_t time;
    ASSERT_EQ(0, Kel_GetID(kel.get(), &id));
    ASSERT_EQ(0, Kel_GetTimestamp(kel.get(), &time));
    EXPECT_STREQ("kel.net.vmnic.linkstate.down", id);
    EXPECT_EQ(kObservationTime, time);
    EXPECT_TRUE(Kel_IsID(id, "kel.net.vmnic.linkstate.down"));
    EXPECT_FALSE(Kel_IsID(id, "kel.net.vmnic.linkstate"));
    EXPECT_FALSE(Kel_IsID(nullptr, "kel.net"));
    EXPECT_EQ(EINVAL, Kel_GetID(nullptr, &id));
    EXPECT_EQ(nullptr, id);
}

TEST(KelTest, ItsMessageIsWhatPrintfWouldMakeOfIt)
{
    const std::string name(3000, 'n');
    const std::pair<TestKel, std::string> rendered[] = {
        {MakeKel("kel.a", "%d %hhd %c %ld %zd %u %hx %lu %zu", -1, static_cast<signed char>(-1), 'c', -1L,
                 ssize_t{-1}, ~0U, static_cast<unsigned short>(9), ~0UL, ~std::size_t{0}),
         "-1 -1 c -1 -1 4294967295 9 18446744073709551615 18446744073709551615"},
        {MakeKel("kel.a", "[%8s] [%-6d] [%#06x] 100%%", "vmnic2", -5, 255U),
         "[  vmnic2] [-5    ] [0x00ff] 100%"},
        {MakeKel("kel.a", "[%.2s] [%6.3d] [%o] [%s]", "vmnic2", -5, 255U, noText),
         "[vm] [  -005] [377] [(null)]"},
        {MakeKel("kel.a", "%s/%5001d", name.c_str(), 5), name + "/" + std::string(5000, ' ') + "5"}};
    for (const auto &[kel, expected] : rendered) {
        char *text;
        std::size_t length;
        ASSERT_EQ(0, Kel_GetMsg(kel.get(), &text, &length));
        EXPECT_EQ(expected, std::string(text, length));
        std::free(text);
    }
}

TEST(KelTest, ReadsAllArgumentsInOneStepOrNone)
{
    const TestKel kel =
        MakeKel("kel.a", "%s %d %u %lx %s %c", "vmnic2", -5, 4000000000U, 1UL << 40, noText, 'c');
    const char *name = "untouched", *none = "untouched";
    std::int32_t number = 42, more = 42;
    std::uint32_t large;
    std::uint64_t huge;
    char letter;
    EXPECT_EQ(EINVAL, Kel_GetArgs(kel.get(), 0, "%p %p", &name, &name)) << "an integer read as a string";
    EXPECT_EQ(EINVAL, Kel_GetArgs(kel.get(), 0, "%p %d %", &name, &number)) << "a format that breaks off";
    EXPECT_EQ(EINVAL, Kel_GetArgs(kel.get(), 0, "%p %d %u %lx %p %c %d", &name, &number, &large, &huge,
                                  &none, &letter, &more))
        << "more than there are";
    EXPECT_STREQ("untouched", name);
    EXPECT_EQ(42, number);
    ASSERT_EQ(0, Kel_GetArgs(kel.get(), 0, "%p %d,%08x%% and %#10.3lx%p%c", &name, &number, &large, &huge,
                             &none, &letter));
    EXPECT_STREQ("vmnic2", name);
    EXPECT_EQ(-5, number);
    EXPECT_EQ(4000000000U, large);
    EXPECT_EQ(1UL << 40, huge);
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ('c', letter);
    EXPECT_EQ(EINVAL, Kel_GetArgs(kel.get(), 0, nullptr));
    EXPECT_EQ(EINVAL, Kel_GetArgs(nullptr, 0, ""));
}

TEST(KelTest, AConversionNamesTheKindAndTheWidthOfItsDestination)
{
    const TestKel number = MakeKel("kel.a", "%d", 5), text = MakeKel("kel.a", "%s", "vmnic2");
    for (const char *format : {"%d", "%i", "%u", "%x", "%X", "%o"})
        EXPECT_EQ("0 = 5", Read<std::int32_t>(number, format)) << format;
    for (const char *format : {"%ld", "%lld", "%Ld", "%zd", "%lx", "%llu", "%zu", "%lo"})
        EXPECT_EQ("0 = 5", Read<std::int64_t>(number, format)) << format;
    for (const char *format : {"%hd", "%hu", "%hx"})
        EXPECT_EQ("0 = 5", Read<std::int16_t>(number, format)) << format;
    for (const char *format : {"%hhd", "%hhx", "%c", "%hhc", "%hc"})
        EXPECT_EQ("0 = 5", Read<signed char>(number, format)) << format;
    for (const char *format :
         {"%f", "%n", "%*d", "%l", "%5", "%-", "%lc", "%jd", "%td", "%lhd", "%d%", "%p"})
        EXPECT_EQ("22", Read<std::int64_t>(number, format)) << format;
    for (const char *format : {"%s", "%lp", "%hp", "%d"})
        EXPECT_EQ("22", Read<std::int64_t>(text, format)) << format;
    EXPECT_TRUE(Read<std::int64_t>(text, "%-8p").starts_with("0 = "));
}

TEST(KelTest, AnIntegerIsReadWhereItsDestinationHoldsItSignedOrUnsigned)
{
    const auto wide = [](long value) { return MakeKel("kel.a", "%ld", value); };
    const auto narrow = [](int value) { return MakeKel("kel.a", "%d", value); };

    EXPECT_EQ("0 = -2147483648", Read<std::int32_t>(wide(-(1L << 31)), "%d"));
    EXPECT_EQ("34", Read<std::int32_t>(wide(-(1L << 31) - 1), "%d"));
    EXPECT_EQ("0 = -1", Read<std::int32_t>(wide((1L << 32) - 1), "%d"));
    EXPECT_EQ("34", Read<std::int32_t>(wide(1L << 32), "%d"));
    EXPECT_EQ("0 = 4294967291", Read<std::uint32_t>(narrow(-5), "%x"));
    EXPECT_EQ("0 = -32768", Read<std::int16_t>(narrow(-32768), "%hd"));
    EXPECT_EQ("34", Read<std::int16_t>(narrow(-32769), "%hd"));
    EXPECT_EQ("0 = 65535", Read<std::uint16_t>(narrow(65535), "%hu"));
    EXPECT_EQ("34", Read<std::uint16_t>(narrow(65536), "%hu"));
    EXPECT_EQ("0 = -128", Read<signed char>(narrow(-128), "%hhd"));
    EXPECT_EQ("34", Read<signed char>(narrow(-129), "%hhd"));
    EXPECT_EQ("0 = 255", Read<unsigned char>(narrow(255), "%hhx"));
    EXPECT_EQ("34", Read<unsigned char>(narrow(256), "%c"));
    EXPECT_EQ("0 = -5", Read<std::int64_t>(narrow(-5), "%ld")) << "sign-extended";
    EXPECT_EQ("0 = 4294967295", Read<std::int64_t>(MakeKel("kel.a", "%u", ~0U), "%ld")) << "zero-extended";
    EXPECT_EQ("0 = 18446744073709551615", Read<std::uint64_t>(MakeKel("kel.a", "%lu", ~0UL), "%lx"));
    EXPECT_EQ("34", Read<std::int32_t>(MakeKel("kel.a", "%lu", ~0UL), "%d")) << "it is not -1";
}

TEST(KelTest, OneArgumentIsReadByItsIndex)
{
    const TestKel kel = MakeKel("kel.a", "%s %d %ld %s", "vmnic2", -5, 1L << 32, noText);
    const char *text = "untouched";
    std::int32_t number = 42;
    for (const int index : {-1, 1, 4})
        EXPECT_EQ(EINVAL, Kel_GetStringArg(kel.get(), index, &text)) << index;
    EXPECT_STREQ("untouched", text);
    EXPECT_EQ(EINVAL, Kel_GetIntArg(kel.get(), 0, &number));
    EXPECT_EQ(ERANGE, Kel_GetIntArg(kel.get(), 2, &number));
    EXPECT_EQ(42, number);
    EXPECT_EQ(0, Kel_GetIntArg(kel.get(), 1, &number));
    EXPECT_EQ(-5, number);
    EXPECT_EQ(0, Kel_GetStringArg(kel.get(), 0, &text));
    EXPECT_STREQ("vmnic2", text);
    EXPECT_EQ(0, Kel_GetStringArg(kel.get(), 3, &text));
    EXPECT_EQ(nullptr, text);
}

} // namespace
