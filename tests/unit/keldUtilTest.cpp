#include "keldUtil.h"

#include "observation.h"
#include "runDir.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

namespace {

// Reads "gold" by the message text given: what is at the destination then, or the status and that.
std::string ReadText(const char *text)
{
    const TestKel kel = MakeKel("kel.swap.test", "%s", "gold");
    const char *value = "untouched";
    const int status = KeldGetArgsByFormat(kel.get(), text, &value);
    return (status == 0 ? "" : std::to_string(status) + " ") + value;
}

// Reads 77 by the message text given, which is to write a T: neither less nor more.
template <class T> void ReadNumber(const char *text)
{
    constexpr T kUntouched = static_cast<T>(-1);
    T values[2] = {kUntouched, kUntouched};
    EXPECT_EQ(0, KeldGetArgsByFormat(MakeKel("kel.swap.test", "%u", 77).get(), text, &values[0])) << text;
    EXPECT_EQ(T{77}, values[0]) << text;
    EXPECT_EQ(kUntouched, values[1]) << text;
}

} // namespace

TEST(KeldGetArgsByFormat, ReadsWhatTheTextShows)
{
    const TestKel kel = MakeKel("kel.vm.fault", "%s %lu %s", "/dsfs/volumes/gold/a.nvx", 1234567890123UL,
                                "/dsfs/volumes/gold/a.swp");
    const char *configuration = nullptr, *swapFile = nullptr;
    std::uint64_t pages = 0;
    EXPECT_EQ(0, KeldGetArgsByFormat(kel.get(), "100%% of %s: %#lx pages are\nin %-20.3s.", &configuration,
                                     &pages, &swapFile));
    EXPECT_STREQ("/dsfs/volumes/gold/a.nvx", configuration);
    EXPECT_EQ(1234567890123U, pages);
    EXPECT_STREQ("/dsfs/volumes/gold/a.swp", swapFile);
}

TEST(KeldGetArgsByFormat, FlagWidthAndPrecisionSayNothingAboutTheDestination)
{
    for (const char *text : {"%s", "%-8s", "% s", "%010s", "%.s", "%5.2s", "%%%s%%"})
        EXPECT_EQ("gold", ReadText(text)) << text;
}

TEST(KeldGetArgsByFormat, LengthModifiersChooseTheDestination)
{
    ReadNumber<std::uint8_t>("%5.2hhu");
    ReadNumber<std::int16_t>("%hd");
    ReadNumber<std::uint32_t>("%X");
    ReadNumber<std::uint32_t>("%o");
    ReadNumber<std::int32_t>("%+i");
    ReadNumber<std::uint64_t>("%#lx");
    ReadNumber<std::uint64_t>("%llu");
    ReadNumber<std::uint64_t>("%Lu");
    ReadNumber<char>("%c");
}

TEST(KeldGetArgsByFormat, TextThatIsNotAcceptedReadsNothing)
{
    for (const char *text : {"%p", "%+-s", "%5 s", "%-8-s", "%1.2.3s", "%.-1s", "%n", "%S", "% %", "%s %",
                             "%s %l", "%s %5", "%s %.", "%s %-", "%s %f"})
        EXPECT_EQ("22 untouched", ReadText(text)) << text;
    // These the library itself would take.
    for (const char *text : {"%+-u", "%zu", "%u%p", "%5 u"}) {
        std::uint64_t value = 99;
        EXPECT_EQ(EINVAL, KeldGetArgsByFormat(MakeKel("kel.swap.test", "%u", 77).get(), text, &value))
            << text;
        EXPECT_EQ(99U, value) << text;
    }
    // These it would not take either, but not before the first number, which is too big: ERANGE.
    for (const char *text : {"%hhu %hlu", "%hhu %lhu", "%hhu %lllu", "%hhu %hhhu", "%hhu %LLu", "%hhu %l5u",
                             "%hhu %h.u", "%hhu %llLu"}) {
        std::uint8_t big = 99;
        std::uint64_t value = 99;
        EXPECT_EQ(EINVAL,
                  KeldGetArgsByFormat(MakeKel("kel.swap.test", "%u %u", 300, 77).get(), text, &big, &value))
            << text;
    }
}

TEST(KeldGetArgsByFormat, FailsAsTheLibraryDoes)
{
    const TestKel kel = MakeKel("kel.swap.test", "%s", "gold");
    const char *first = nullptr, *second = nullptr;
    EXPECT_EQ(0, KeldGetArgsByFormat(kel.get(), ""));
    EXPECT_EQ(0, KeldGetArgsByFormat(kel.get(), "no conversion, 100%%"));
    EXPECT_EQ(EINVAL, KeldGetArgsByFormat(nullptr, "%s", &first));
    EXPECT_EQ(EINVAL, KeldGetArgsByFormat(kel.get(), "%s and %s", &first, &second));
    EXPECT_EQ(nullptr, first);
}

class KeldLookupDatastoreTest : public testing::Test {
protected:
    void Mount(const std::string &entry, const std::string &uuid, const std::string &name)
    {
        runDir.Host("storage/filesystems/" + entry + "/uuid", uuid);
        runDir.Host("storage/filesystems/" + entry + "/name", name);
    }

    RunDir runDir;
};

TEST_F(KeldLookupDatastoreTest, GivesTheComponentAsItStandsInThePath)
{
    Mount("0", "5f3c1d2e-8a7b6c5d-1e2f-0050569a0001", "ds-gold");
    Mount("1", "5f3c1d2e-8a7b6c5d-1e2f-0050569a0002", "ds silver");
    EXPECT_EQ("ds-gold", KeldLookupDatastore("/dsfs/volumes/ds-gold/vm1/vm1.swp"));
    EXPECT_EQ("ds silver", KeldLookupDatastore("/dsfs/volumes/ds silver"));
    EXPECT_EQ("5f3c1d2e-8a7b6c5d-1e2f-0050569a0002",
              KeldLookupDatastore("/dsfs/volumes/5f3c1d2e-8a7b6c5d-1e2f-0050569a0002/"));
}

TEST_F(KeldLookupDatastoreTest, ComparesWholeNamesExactly)
{
    Mount("0", "5f3c1d2e", "ds-gold");
    for (const char *path : {"/dsfs/volumes/ds-gol/x", "/dsfs/volumes/ds-gold2/x",
                             "/dsfs/volumes/DS-GOLD/x", "/dsfs/volumes/", "/dsfs/volumes//ds-gold"})
        EXPECT_EQ("(unknown)", KeldLookupDatastore(path)) << path;
    for (const char *path : {"/dsfs/volumes", "/DSFS/volumes/ds-gold", "dsfs/volumes/ds-gold",
                             "/dsfs/volume", " /dsfs/volumes/ds-gold", ""})
        EXPECT_EQ("(invalid)", KeldLookupDatastore(path)) << path;
    EXPECT_EQ("(invalid)", KeldLookupDatastore(nullptr));
}

TEST_F(KeldLookupDatastoreTest, NothingMountedKnowsNoDatastore)
{
    EXPECT_EQ("(unknown)", KeldLookupDatastore("/dsfs/volumes/ds-gold/x"));
}

TEST_F(KeldLookupDatastoreTest, FileSystemThatCannotReportIsPassedOver)
{
    runDir.Host("storage/filesystems/0/name", "ds-gold"); // the UUID is asked for first
    EXPECT_EQ("(unknown)", KeldLookupDatastore("/dsfs/volumes/ds-gold/x"));
    runDir.Host("storage/filesystems/1/uuid", "5f3c1d2e");
    EXPECT_EQ("5f3c1d2e", KeldLookupDatastore("/dsfs/volumes/5f3c1d2e/x")); // its name is not needed
    Mount("2", "600d", "ds-gold");
    EXPECT_EQ("ds-gold", KeldLookupDatastore("/dsfs/volumes/ds-gold/x"));
}
