// The observation record as bytes: what producers build, and what they cannot.
#include "observation.h"

#include <cerrno>
#include <climits>
#include <gtest/gtest.h>
#include <kltlibs/kelrecord.h>
#include <string>
#include <string_view>

namespace {

// A null text, which the compiler does not see coming.
const char *const volatile noText = nullptr;

using namespace std::string_literals;

std::string Bytes(const RecordBytes &record)
{
    return std::string(reinterpret_cast<const char *>(record.data()), record.size());
}

int BuildResult(const char *id, std::size_t size = 1000)
{
    char buffer[1000];
    std::size_t length;
    return KelRecord_Build(buffer, size, &length, 0, id, "%s", "vmnic2");
}

// A format as it is, unchecked by the compiler; its arguments are not reached when it is refused.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
int FormatResult(const char *format)
{
    char buffer[1000];
    std::size_t length;
    return KelRecord_Build(buffer, sizeof buffer, &length, 0, "kel.user.test", format, 1L, 2L, 3L);
}
#pragma GCC diagnostic pop

} // namespace

TEST(RecordTest, IsBuiltByteForByte)
{
    char buffer[200];
    std::size_t length = 0;
    ASSERT_EQ(0, KelRecord_Build(buffer, sizeof buffer, &length, 0x0102030405060708, "kel.net.up",
                                 "%s port %d at %lx, %s", "vmnic2", -2, 0xfedcba9876543210UL, noText));
    const std::string expected = "\x08\x07\x06\x05\x04\x03\x02\x01" // time stamp
                                 "KEL1"
                                 "\x04\0\0\0"              // arguments
                                 "\x88\0\0\0"              // total length: 136
                                 "\x2b\0\0\0"              // message format: 43
                                 "\x41\0\0\0"              // argument area: 65
                                 "\x0b\0\0\0"              // ID with its NUL: 11
                                 "kel.net.up\0"            // 32
                                 "%s port %d at %lx, %s\0" // 43
                                 "\x06\0\0\0\x07\0\0\0\x40\0\0\0\0\0\0\0"
                                 "\x01\0\0\0\0\0\0\0\xfe\xff\xff\xff\xff\xff\xff\xff"
                                 "\x04\0\0\0\0\0\0\0\x10\x32\x54\x76\x98\xba\xdc\xfe"
                                 "\x06\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
                                 "vmnic2\0"s;
    EXPECT_EQ(expected, std::string(buffer, length));
}

TEST(RecordTest, LiesAtAnyAddress)
{
    const RecordBytes record = MakeRecord("kel.net.up", "%s %d", "vmnic2", 7);
    for (std::size_t shift = 0; shift < 8; ++shift) {
        char buffer[208];
        std::size_t length;
        ASSERT_EQ(0, KelRecord_Build(buffer + shift, 200, &length, kObservationTime, "kel.net.up", "%s %d",
                                     "vmnic2", 7));
        EXPECT_EQ(Bytes(record), std::string(buffer + shift, length));
        EXPECT_STREQ("kel.net.up", KelRecord_ID(buffer + shift));
        EXPECT_EQ(length, KelRecord_TotalLength(buffer + shift));
    }
}

TEST(RecordTest, TakesIdsOf127CharactersAndNoOthers)
{
    EXPECT_EQ(0, BuildResult(std::string(127, 'k').c_str()));
    EXPECT_EQ(EINVAL, BuildResult(std::string(128, 'k').c_str()));
    EXPECT_EQ(EINVAL, BuildResult(""));
    EXPECT_EQ(0, BuildResult("kel.A-Z_0.9"));
    for (const char *id : {"kel net", "kel/net", "kel.n\xc3\xa9t", "kel:net", "kel.net\n"})
        EXPECT_EQ(EINVAL, BuildResult(id)) << id;
}

TEST(RecordTest, TakesPackableFormatsAndNoOthers)
{
    for (const char *format : {"100%%", "%d", "%-5.3hd", "%hhu %hx %c", "%+lld %zu %#llo", "%zd", "% 08X"})
        EXPECT_EQ(0, FormatResult(format)) << format;
    for (const char *format : {"%p", "%f", "%n", "%*d", "%.*s", "%", "100%", "%l", "%ls", "%lc", "%Lf",
                               "%jd", "%5", "%3$d", "%100000d", "%.100000d"})
        EXPECT_EQ(EINVAL, FormatResult(format)) << format;
}

TEST(RecordTest, TakesAtMost32Arguments)
{
    std::string format;
    for (int i = 0; i < 33; ++i)
        format += "%%%%"; // literal percent signs are no arguments
    EXPECT_EQ(0, FormatResult(format.c_str()));
    format.clear();
    for (int i = 0; i < 33; ++i)
        format += "%d";
    EXPECT_EQ(EINVAL, FormatResult(format.c_str()));
#define EIGHT "%d%d%d%d%d%d%d%d"
    EXPECT_EQ(32U, KelRecord_ArgumentCount(MakeRecord("kel.a", EIGHT EIGHT EIGHT EIGHT, 1, 2, 3, 4, 5, 6, 7,
                                                      8, 1, 2, 3, 4, 5, 6, 7, 8, 1, 2, 3, 4, 5, 6, 7, 8, 1,
                                                      2, 3, 4, 5, 6, 7, 8)
                                               .data()));
}

TEST(RecordTest, NeedsRoomForItsLastByte)
{
    const std::size_t length = MakeRecord("kel.net.up", "%s", "vmnic2").size();
    for (std::size_t size = 0; size < length; ++size)
        EXPECT_EQ(ENOSPC, BuildResult("kel.net.up", size)) << size;
    EXPECT_EQ(0, BuildResult("kel.net.up", length));
}

TEST(RecordTest, IsNeverLargerThanABatch)
{
    const std::size_t rest = MakeRecord("kel.a", "%s", "").size();
    RecordBytes buffer(0x40000);
    std::size_t length;
    const std::string fits(KELPRODUCER_RECORD_BYTES_MAX - rest, 'x'), tooLong = fits + 'x';
    EXPECT_EQ(0, KelRecord_Build(buffer.data(), buffer.size(), &length, 0, "kel.a", "%s", fits.c_str()));
    EXPECT_EQ(0x1FFFFU, length);
    EXPECT_EQ(ENOSPC,
              KelRecord_Build(buffer.data(), buffer.size(), &length, 0, "kel.a", "%s", tooLong.c_str()));
}

TEST(RecordTest, OfArgumentsKnownAtRunTimeIsTheSame)
{
    const KelProducerArg args[] = {
        {6, 0, "vmnic2"}, {1, static_cast<std::uint64_t>(-2), nullptr}, {6, 0, nullptr}};
    const RecordBytes expected = MakeRecord("kel.net.up", "%s %d %s", "vmnic2", -2, noText);
    RecordBytes record(expected.size());
    const auto build = [&](const char *format, std::size_t count, std::size_t size) {
        std::size_t length;
        return KelRecord_BuildFromArgs(record.data(), size, &length, kObservationTime, "kel.net.up", format,
                                       args, count);
    };
    EXPECT_EQ(0, build("%s %d %s", 3, record.size()));
    EXPECT_EQ(Bytes(expected), Bytes(record));
    EXPECT_EQ(ENOSPC, build("%s %d %s", 3, record.size() - 1));
    EXPECT_EQ(0, build("", 0, 44)) << "header, ID and an empty message";
    for (const char *format : {"%s %d", "%s %d %s %s", "%s %u %s", "%s %ld %s", "%s %p %s"})
        EXPECT_EQ(EINVAL, build(format, 3, record.size())) << format;
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
    setenv("KALTOR_RUN_DIR", ("/" + std::string(80, 'x')).c_str(), 1);
    EXPECT_EQ(EINVAL, KelProducer_Open(0, &producer));
    KelProducer_Close(nullptr);
}
