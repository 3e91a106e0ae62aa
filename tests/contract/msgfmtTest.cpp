// Packed arguments: packing, swizzling, and rendering what others have packed.
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <kltlibs/msgfmt.h>
#include <memory>
#include <string>

namespace {

// A null text, which the compiler does not see coming.
const char *const volatile noText = nullptr;

// An area in memory of its own size, so that a sanitizer sees a read behind it.
class Area {
public:
    explicit Area(const char *format, ...) __attribute__((format(printf, 2, 3)))
    {
        std::array<char, 4096> packed;
        std::size_t used = 0;
        va_list args;
        va_start(args, format);
        EXPECT_EQ(0, MsgFmt_GetArgsWithBuf(format, args, packed.data(), packed.size(), &used, &mCount));
        va_end(args);
        MsgFmt_SwizzleArgs(packed.data(), mCount);
        mBytes.assign(packed.data(), packed.data() + used);
    }

    Area &Set(std::size_t offset, std::uint32_t value)
    {
        std::memcpy(mBytes.data() + offset, &value, sizeof value);
        return *this;
    }

    // "0 vmnic2", or the error.
    std::string String(std::uint32_t index) const
    {
        const char *text = "untouched";
        const int error =
            MsgFmt_GetSwizzledString(mBytes.data(), mCount, index, mBytes.data() + mBytes.size(), &text);
        return std::to_string(error) + (text == nullptr ? "" : " " + std::string(text));
    }

    std::string Render(const char *format) const
    {
        char *text;
        std::size_t length;
        EXPECT_EQ(0, MsgFmt_Asprintf(&text, &length, format, mBytes.data(), mCount,
                                     mBytes.data() + mBytes.size()));
        const std::unique_ptr<char, void (*)(void *)> owner(text, std::free);
        EXPECT_EQ(length, std::strlen(text));
        return text;
    }

private:
    std::vector<char> mBytes;
    std::uint32_t mCount = 0;
};

__attribute__((format(printf, 2, 3))) int PackInto(std::size_t room, const char *format, ...)
{
    const std::unique_ptr<char[]> buffer(new char[room]);
    std::size_t used;
    std::uint32_t count;
    va_list args;
    va_start(args, format);
    const int error = MsgFmt_GetArgsWithBuf(format, args, buffer.get(), room, &used, &count);
    va_end(args);
    return error;
}

} // namespace

TEST(MsgFmtTest, PacksIntoExactlyTheRoomItNeeds)
{
    for (std::size_t room = 0; room < 2 * 16 + 7; ++room)
        EXPECT_EQ(ENOSPC, PackInto(room, "%d %s", 1, "vmnic2")) << room;
    EXPECT_EQ(0, PackInto(2 * 16 + 7, "%d %s", 1, "vmnic2"));
    EXPECT_EQ(0, PackInto(0, "no arguments"));
}

TEST(MsgFmtTest, AnIntegerHasTheTypeOfItsConversion)
{
    const Area area("%d %hhd %c %ld %zd %u %hx %lu %zu", -1, -1, 'c', -1L, ssize_t{-1}, ~0U,
                    static_cast<unsigned short>(9), ~0UL, ~std::size_t{0});
    EXPECT_EQ("-1 -1 c -1 -1 4294967295 9 18446744073709551615 18446744073709551615",
              area.Render("%d %hhd %c %ld %zd %u %hx %lu %zu"));
    EXPECT_EQ("-1 -1 99 -1 -1 ffffffff 9 ffffffffffffffff ffffffffffffffff",
              area.Render("%ld %lld %d %d %hd %x %ld %lx %zx"));
}

TEST(MsgFmtTest, StringsAreFoundAfterTheAreaHasMoved)
{
    const Area area("%s %s %s %d", "vmnic2", "", noText, 5);
    EXPECT_EQ("0 vmnic2", area.String(0));
    EXPECT_EQ("0 ", area.String(1));
    EXPECT_EQ("0", area.String(2));
    EXPECT_EQ("22", area.String(3)) << "an integer is no string";
    EXPECT_EQ("22", area.String(4)) << "there is no fifth";
}

TEST(MsgFmtTest, AStringThatLiesElsewhereIsRefused)
{
    // One entry of 16 bytes, then "vmnic2" and its NUL at 16 to 22.
    const auto refused = [](std::uint32_t offset, std::uint32_t length) {
        return Area("%s", "vmnic2").Set(8, offset).Set(4, length).String(0) == "22";
    };
    EXPECT_FALSE(refused(16, 7));
    EXPECT_FALSE(refused(19, 4)) << "a part of it, with the NUL";
    EXPECT_TRUE(refused(16, 6)) << "not terminated";
    EXPECT_TRUE(refused(16, 8)) << "behind the end";
    EXPECT_TRUE(refused(17, 7)) << "behind the end";
    EXPECT_TRUE(refused(15, 8)) << "in the array";
    EXPECT_TRUE(refused(0, 7)) << "in the array";
    EXPECT_TRUE(refused(16, 0)) << "an offset without a length";
    EXPECT_TRUE(refused(0xFFFFFFFF, 7));
    EXPECT_TRUE(refused(16, 0xFFFFFFFF));
    EXPECT_TRUE(refused(0xFFFFFFF9, 7)) << "the sum wraps";
    EXPECT_EQ("22", Area("%s", "vmnic2").Set(12, 1).String(0)) << "the upper half of the offset counts";
    EXPECT_EQ("22", Area("%s", "vmnic2").Set(16, 0x6d006d76).String(0)) << "a NUL inside";
    EXPECT_EQ("22", Area("%s", "vmnic2").Set(0, MSGFMT_TYPE_UINT64).String(0));
}

TEST(MsgFmtTest, RenderingKeepsFlagsWidthAndPrecision)
{
    const Area area("%s %d %u", "vmnic2", -5, 255U);
    EXPECT_EQ("[  vmnic2] [-5    ] [0x00ff]", area.Render("[%8s] [%-6d] [%#06x]"));
    EXPECT_EQ("[vm] [  -005] [377]", area.Render("[%.2s] [%6.3d] [%o]"));
    EXPECT_EQ("100% of vmnic2%", area.Render("100%% of %s%%"));
}

TEST(MsgFmtTest, RenderingShowsWhatDoesNotFit)
{
    EXPECT_EQ("(null)", Area("%s", noText).Render("%s"));
    const Area area("%s %d", "vmnic2", 5);
    EXPECT_EQ("(?) (?)", area.Render("%d %s")) << "of the other kind";
    EXPECT_EQ("vmnic2 5 (?)", area.Render("%s %d %d")) << "missing";
    EXPECT_EQ("(?)", Area("%s", "vmnic2").Set(4, 100).Render("%s")) << "malformed";
    EXPECT_EQ("(?)", Area("%d", 5).Set(0, 5).Render("%d")) << "of a reserved type";
    EXPECT_EQ("90% full: vmnic2", area.Render("90% full: %s")) << "no conversion at all";
    EXPECT_EQ("vmnic2 %", area.Render("%s %"));
    EXPECT_EQ("%2000000000d vmnic2", area.Render("%2000000000d %s")) << "a width that nobody needs";
}

TEST(MsgFmtTest, RenderingGrowsWithTheText)
{
    const std::string name(3000, 'n');
    EXPECT_EQ(name + "/" + std::string(5000, ' ') + "5",
              Area("%s %d", name.c_str(), 5).Render("%s/%5001d"));
}

TEST(MsgFmtTest, RendersAnAreaAsPackedThroughItsPointers)
{
    std::array<char, 100> buffer;
    const auto pack = [&](const char *format, ...) {
        va_list args;
        va_start(args, format);
        std::size_t used;
        std::uint32_t count = 0;
        EXPECT_EQ(0, MsgFmt_GetArgsWithBuf(format, args, buffer.data() + 1, 99, &used, &count));
        va_end(args);
        return count;
    };
    const std::uint32_t count = pack("%s %s", "vmnic2", nullptr);
    char *text;
    ASSERT_EQ(0, MsgFmt_Asprintf(&text, nullptr, "%s %s", buffer.data() + 1, count, nullptr));
    EXPECT_STREQ("vmnic2 (null)", text);
    std::free(text);
}
