// Packed arguments: packing, swizzling, and rendering what others have packed.
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <kltlibs/msgfmt.h>
#include <memory>
#include <string>
#include <vector>

namespace {

// A null text, which the compiler does not see coming.
const char *const volatile noText = nullptr;

// Packed arguments, in memory of their own size, so that a sanitizer sees a read behind it.
class Area {
public:
    explicit Area(const char *format, ...) __attribute__((format(printf, 2, 3))) : mBytes(4096)
    {
        std::size_t used = 0;
        va_list args;
        va_start(args, format);
        EXPECT_EQ(0, MsgFmt_GetArgsWithBuf(format, args, mBytes.data(), mBytes.size(), &used, &mCount));
        va_end(args);
        mPacked = Render(format, nullptr);
        MsgFmt_SwizzleArgs(mBytes.data(), mCount);
        mBytes.resize(used);
        mBytes.shrink_to_fit();
    }

    Area &Set(std::size_t offset, std::uint32_t value)
    {
        std::memcpy(mBytes.data() + offset, &value, sizeof value);
        return *this;
    }

    std::string Render(const char *format) const { return Render(format, End()); }

    // As it was rendered by its own format, before it was swizzled.
    const std::string &Packed() const { return mPacked; }

private:
    const char *End() const { return mBytes.data() + mBytes.size(); }

    std::string Render(const char *format, const char *end) const
    {
        char *text;
        std::size_t length;
        EXPECT_EQ(0, MsgFmt_Asprintf(&text, &length, format, mBytes.data(), mCount, end));
        const std::unique_ptr<char, void (*)(void *)> owner(text, std::free);
        EXPECT_EQ(length, std::strlen(text));
        return text;
    }

    std::vector<char> mBytes;
    std::uint32_t mCount = 0;
    std::string mPacked;
};

TEST(MsgFmtTest, AnIntegerHasTheTypeOfItsConversion)
{
    const Area area("%d %hhd %c %ld %zd %u %hx %lu %zu", -1, static_cast<signed char>(-1), 'c', -1L,
                    ssize_t{-1}, ~0U, static_cast<unsigned short>(9), ~0UL, ~std::size_t{0});
    EXPECT_EQ("-1 -1 c -1 -1 4294967295 9 18446744073709551615 18446744073709551615", area.Packed());
    EXPECT_EQ("-1 -1 99 -1 -1 ffffffff 9 ffffffffffffffff ffffffffffffffff",
              area.Render("%ld %lld %d %d %hd %x %ld %lx %zx"));
}

TEST(MsgFmtTest, RenderingKeepsFlagsWidthAndPrecisionAndGrows)
{
    const Area area("%s %d %u", "vmnic2", -5, 255U);
    EXPECT_EQ("[  vmnic2] [-5    ] [0x00ff]", area.Render("[%8s] [%-6d] [%#06x]"));
    EXPECT_EQ("[vm] [  -005] [377]", area.Render("[%.2s] [%6.3d] [%o]"));
    EXPECT_EQ("100% of vmnic2%", area.Render("100%% of %s%%"));
    const std::string name(3000, 'n');
    EXPECT_EQ(name + "/" + std::string(5000, ' ') + "5", Area("%s/%5001d", name.c_str(), 5).Packed());
}

TEST(MsgFmtTest, RenderingShowsWhatDoesNotFit)
{
    const Area area("%s %d", "vmnic2", 5);
    EXPECT_EQ("(null)", Area("%s", noText).Packed());
    EXPECT_EQ("(null)", Area("%s", noText).Render("%s"));
    EXPECT_EQ("(?) (?)", area.Render("%d %s")) << "of the other kind";
    EXPECT_EQ("vmnic2 5 (?)", area.Render("%s %d %d")) << "missing";
    EXPECT_EQ("(?)", Area("%s", "vmnic2").Set(4, 100).Render("%s")) << "malformed";
    EXPECT_EQ("(?)", Area("%d", 5).Set(0, 5).Render("%d")) << "of a reserved type";
    EXPECT_EQ("90% full: vmnic2", area.Render("90% full: %s")) << "no conversion at all";
    EXPECT_EQ("vmnic2 %", area.Render("%s %"));
    EXPECT_EQ("%2000000000d vmnic2", area.Render("%2000000000d %s")) << "a width that nobody needs";
}

} // namespace
