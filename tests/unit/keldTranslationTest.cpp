// Rows themselves, on a domain that has one of each kind.
#include "correlatorFixture.h"

#include <climits>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// clang-format off
constexpr Translation kRows[] = {
    {"kel.row.inorder",   Args("device:%p, paths:%u, state:%d"),
     "@&!*@*@(nox.problem.row.inorder)%s has %u paths, state %d."},
    {"kel.row.reordered", Args("component:%p, count:%u, message:%p"),
     "@&!*@*@(nox.audit.row.reordered)%s from %s: %u times. %s", {.shows = "2 0 1 2"}},
    {"kel.row.fewer",     Args("device:%p, count:%u"), "@&!*@*@(nox.clear.row.fewer)%u", {.shows = "1"}},
    {"kel.row.none",      Args(""), "@&!*@*@(nox.problem.row.none)100%% of it."},
    {"kel.row.widths",    Args("byte:%hhu, small:%hhd, word:%hx, short:%hd, long:%ld, huge:%lx, letter:%c"),
     "@&!*@*@(nox.problem.row.widths)%hhu %hhd %#hx %hd %ld %lx %c"},
    {"kel.row.uuid",      Args("label:%p, volume:%U, mode:%p"),
     "@&!*@*@(nox.problem.row.uuid)%s (%s) %s", {.shows = "1 0 2"}},
    {"kel.row.nullas",    Args("device:%p, path:%p").NullAs(1, "(none)"), "@&!*@*@(nox.problem.row.nullas)%s %s"},
    {"kel.row.message",   ByMessage("Page %lu of %s is 100%% lost.", "page, file"),
     "@&!*@*@(nox.problem.row.message)Page %lu of %s."},
    {"kel.row.format",    Args("device:%p, count:%d"), "@&!*@*@(nox.problem.row.format)%s %d",
     {.failed = {"Failed to read %s: %d"}}},
    {"kel.row.index",     Indexed("device:%p, path:%p, count:%d"), "@&!*@*@(nox.problem.row.index)%s %s %d",
     {.failed = {"No device: %d", "No path of %s: %d", "No count of %s: %d"}}},
};
// clang-format on

void HandleOwn(Kel *) {}
constexpr KeldObservation kObservations[] = {{"kel.row.own", Args(""), HandleOwn, "known, and ignored"}};

constexpr KeldDomain kDomain{.name = "Row",
                             .domains = {"row"},
                             .defaultHandler = KeldCorrelatorIgnore,
                             .otherwise = "ignored",
                             .translations = KeldTranslations<kRows>,
                             .observations = kObservations};

class TranslationRowTest : public CorrelatorTest {
protected:
    TranslationRowTest() : CorrelatorTest(kDomain) {}
    const char *none = nullptr; // a literal one is a warning
};

TEST_F(TranslationRowTest, TableHasEveryRowAndEveryObservation)
{
    const KeldCorrelatorTable table = KeldDomainTable(kDomain);
    EXPECT_EQ(std::size(kRows) + std::size(kObservations), table.size());
    EXPECT_EQ(HandleOwn, table.at("kel.row.own"));
}

TEST_F(TranslationRowTest, PlaceholdersShowTheArgumentsThatTheRowSays)
{
    Observe(MakeKel("kel.row.inorder", "%s %u %d", "naa.1", 4000000000U, -3));
    Observe(MakeKel("kel.row.reordered", "%s %u %s", "acme-raid", 7U, "rebuild"));
    Observe(MakeKel("kel.row.fewer", "%s %u", "naa.1", 2U));
    Observe(MakeKel("kel.row.none", "%s", "ignored"));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.row.inorder(naa.1, 4000000000, -3)",
                                      "nox.audit.row.reordered(rebuild, acme-raid, 7, rebuild)",
                                      "nox.clear.row.fewer(2)", "nox.problem.row.none()"));
}

TEST_F(TranslationRowTest, NamesFollowThePlaceholders)
{
    const KeldNames &names = kRows[1].event.names;
    EXPECT_THAT(std::vector<std::string>(names.begin(), names.begin() + 4),
                ElementsAre("message", "component", "count", "message"));
    EXPECT_EQ("%s from %s: %u times. %s", kRows[1].event.Text());
    EXPECT_EQ("nox.audit.row.reordered", kRows[1].event.TypeId());
}

TEST_F(TranslationRowTest, NumbersKeepTheirWidthAndSign)
{
    Observe(MakeKel("kel.row.widths", "%u %d %u %d %ld %lu %c", 255U, -128, 0xffffU, -32768, LONG_MIN,
                    ULONG_MAX, 'x'));
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.row.widths(255, -128, 65535, -32768, -9223372036854775808, "
                            "18446744073709551615, 120)"));
}

TEST_F(TranslationRowTest, NumberThatDoesNotFitIsNotPosted)
{
    Observe(MakeKel("kel.row.widths", "%u %d %u %d %ld %lu %c", 255U, -128, 0x10000U, 0, 0L, 0UL, 'x'));
    Observe(MakeKel("kel.row.fewer", "%s %ld", "naa.1", 0x100000000L));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(TranslationRowTest, UuidIsNineArgumentsAndOneText)
{
    Observe(MakeKel("kel.row.uuid", "%s %x-%x-%x-%x%x%x%x%x%x %s", "datastore1", 0xfU, 0xffffffffU, 0xabU,
                    0U, 1U, 0x10U, 0x7fU, 0x80U, 0xffU, "ro"));
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.row.uuid(0000000f-ffffffff-00ab-0001107f80ff, datastore1, ro)"));
}

TEST_F(TranslationRowTest, NullTextFailsUnlessTheRowSaysWhatItBecomes)
{
    Observe(MakeKel("kel.row.nullas", "%s %s", "naa.1", none));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.row.nullas(naa.1, (none))"));
    Observe(MakeKel("kel.row.nullas", "%s %s", none, "vmhba1:C0:T0:L4"));
    Observe(MakeKel("kel.row.inorder", "%s %u %d", none, 2U, 0));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty()) << "a row without a failure message fails silently";
}

TEST_F(TranslationRowTest, MessageTextIsItsOwnFormat)
{
    Observe(MakeKel("kel.row.message", "%lu %s", 77UL, "vm.vswp"));
    Observe(MakeKel("kel.row.message", "%s %lu", "vm.vswp", 77UL));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.row.message(77, vm.vswp)"));
}

TEST_F(TranslationRowTest, FailedReadOfAFormatNamesTheObservationAndTheStatus)
{
    Observe(MakeKel("kel.row.format", "%s", "naa.1"));
    Observe(MakeKel("kel.row.format", "%s %d", none, 1));
    Observe(MakeKel("kel.row.format", "%s %ld", "naa.1", LONG_MAX));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(),
                ElementsAre("Failed to read kel.row.format: 22", "Failed to read kel.row.format: 22",
                            "Failed to read kel.row.format: 34"));
}

TEST_F(TranslationRowTest, FailedReadByIndexHasAMessageOfItsOwn)
{
    Observe(MakeKel("kel.row.index", "%s %s %d", "naa.1", "vmhba1:C0:T0:L4", 3));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.row.index(naa.1, vmhba1:C0:T0:L4, 3)"));

    Observe(MakeKel("kel.row.index", "%d", 1));
    Observe(MakeKel("kel.row.index", "%s", none)); // before what is missing behind it
    Observe(MakeKel("kel.row.index", "%s", "naa.1"));
    Observe(MakeKel("kel.row.index", "%s %s %s", "naa.1", "vmhba1:C0:T0:L4", "three"));
    Observe(MakeKel("kel.row.index", "%s %s %d", "naa.1", none, 3));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), ElementsAre("No device: 22", "No device: 22", "No path of naa.1: 22",
                                        "No count of naa.1: 22", "No path of naa.1: 22"));
}

} // namespace
