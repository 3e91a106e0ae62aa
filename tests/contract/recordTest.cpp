// The observation record as bytes: what producers build, and what they cannot.
#include "observation.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <kltlibs/kelrecord.h>
#include <string>

namespace {

using namespace std::string_literals;

// A null text, which the compiler does not see coming.
const char *const volatile noText = nullptr;

// A format as it is, unchecked by the compiler; its arguments are not reached when it is refused.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
int BuildResult(const char *id, const char *format, std::size_t size = 1000)
{
    char buffer[1000];
    std::size_t length;
    return KelRecord_Build(buffer, size, &length, 0, id, format, 1L, 2L, 3L);
}
#pragma GCC diagnostic pop

TEST(RecordTest, OfArgumentsKnownAtRunTimeIsTheSame)
{
    const KelProducerArg args[] = {
        {6, 0, "vmnic2"}, {1, static_cast<std::uint64_t>(-2), nullptr}, {6, 0, nullptr}};
    const RecordBytes expected = MakeRecord("kel.net.up", "%s %d %s", "vmnic2", -2, noText);
    RecordBytes record(expected.size());
    std::size_t length = 0;
    EXPECT_EQ(0, KelRecord_BuildFromArgs(record.data(), record.size(), &length, kObservationTime,
                                         "kel.net.up", "%s %d %s", args, 3));
    EXPECT_EQ(expected, record);
}

TEST(RecordTest, TakesIdsOf127CharactersAndNoOthers)
{
    EXPECT_EQ(0, BuildResult("kel.A-Z_0.9", ""));
    EXPECT_EQ(0, BuildResult(std::string(127, 'k').c_str(), ""));
    for (const std::string &id :
         {std::string(128, 'k'), ""s, "kel net"s, "kel/net"s, "kel.n\xc3\xa9t"s, "kel:net"s, "kel.net\n"s})
        EXPECT_EQ(EINVAL, BuildResult(id.c_str(), "")) << id;
}

TEST(RecordTest, TakesPackableFormatsAndNoOthers)
{
    for (const char *format :
         {"100%%", "%d", "%-5.3hd", "%hhu %hx %c", "%+lld %zu %#llo", "%zd", "% 08X", "%.00002d"})
        EXPECT_EQ(0, BuildResult("kel.user.test", format)) << format;
    for (const char *format : {"%p", "%f", "%n", "%*d", "%.*s", "%", "100%", "%l", "%ls", "%lc", "%Lf",
                               "%jd", "%5", "%3$d", "%100000d", "%.100000d"})
        EXPECT_EQ(EINVAL, BuildResult("kel.user.test", format)) << format;
}

TEST(RecordTest, TakesAtMost32Arguments)
{
#define EIGHT "%d%d%d%d%d%d%d%d"
#define EIGHT_ARGS 1, 2, 3, 4, 5, 6, 7, 8
    EXPECT_EQ(32U, KelRecord_ArgumentCount(MakeRecord("kel.a", "%%" EIGHT EIGHT EIGHT EIGHT, EIGHT_ARGS,
                                                      EIGHT_ARGS, EIGHT_ARGS, EIGHT_ARGS)
                                               .data()));
    EXPECT_EQ(EINVAL, BuildResult("kel.a", EIGHT EIGHT EIGHT EIGHT "%d"));
}

TEST(RecordTest, NeedsRoomForItsLastByteAndIsNeverLargerThanABatch)
{
    const std::size_t length = MakeRecord("kel.a", "%ld", 1L).size();
    for (std::size_t size = 0; size < length; ++size)
        EXPECT_EQ(ENOSPC, BuildResult("kel.a", "%ld", size)) << size;
    EXPECT_EQ(0, BuildResult("kel.a", "%ld", length));

    RecordBytes buffer(0x40000);
    const std::size_t rest = MakeRecord("kel.a", "%s", "").size();
    const auto build = [&](std::size_t bytes) {
        std::size_t built;
        return KelRecord_Build(buffer.data(), buffer.size(), &built, 0, "kel.a", "%s",
                               std::string(bytes - rest, 'x').c_str());
    };
    EXPECT_EQ(0, build(0x1FFFF));
    EXPECT_EQ(ENOSPC, build(0x20000));
}

TEST(ProducerTest, NamesWhatKeepsItFromOpening)
{
    KelProducer *producer;
    setenv("KALTOR_RUN_DIR", "/nonexistent/kaltor", 1);
    EXPECT_EQ(ENOENT, KelProducer_Open(0, &producer));
    EXPECT_EQ(ENOENT, KelProducer_Open(22, &producer));
    EXPECT_EQ(EINVAL, KelProducer_Open(23, &producer));
    EXPECT_EQ(EINVAL, KelProducer_Open(-1, &producer));
    setenv("KALTOR_RUN_DIR", "relative", 1);
    EXPECT_EQ(EINVAL, KelProducer_Open(0, &producer));
    KelProducer_Close(nullptr);
}

} // namespace
