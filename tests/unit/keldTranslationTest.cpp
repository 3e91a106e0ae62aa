// Rows themselves, on a domain that has one of each kind.
#include "correlatorFixture.h"

#include <climits>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

void HandleOwn(Kel *) {}
void HandleShared(Kel *kel);
KeldTranslated sharedResult;

// clang-format off
constexpr Translation kRows[] = {
    {"kel.row.inorder", Args("%p %u %d", "*device, paths, state"),
     "@&!*@*@(nox.problem.row.inorder)%s has %u paths, state %d."},
    {"kel.row.none",    Args(""), "@&!*@*@(nox.clear.row.none)100%% of it."},
    {"kel.row.widths",  Args("%d %u %ld %lx", "small, paths, long, huge"), "@&!*@*@(nox.problem.row.widths)%d %#x %ld %lx"},
    {"kel.row.uuid",    Args("%p %U %p", "label, *volume, mode"), "@&!*@*@(nox.audit.row.uuid)%s (%s) %s"},
    {"kel.row.message", ByMessage("Page %lu of %s is 100%% lost.", "page, *file"),
     "@&!*@*@(nox.problem.row.message)Page %lu of %s."},
    {"kel.row.format",  Args("%p %d", "device, count"), "@&!*@*@(nox.problem.row.format)%s %d",
     {.failed = {"Failed to read %s: %d"}}},
    {"kel.row.index",   Indexed("%p %u %p", "device, count, path"), "@&!*@*@(nox.problem.row.index)%s %u %s",
     {.failed = {"No device: %d", "No count: %d"}}},
    {"kel.row.own",     Args("%d", "count"), "@&!*@*@(nox.problem.row.own)%d", {.handler = HandleOwn}},
    {"kel.row.shared",  Args("%d", "count"), "@&!*@*@(nox.problem.row.shared)%d", {.handler = HandleShared}},
};
// clang-format on

void HandleShared(Kel *kel) { sharedResult = KeldTranslateById<kRows, HandleShared>(kel); }

constexpr KeldObservation kObservations[] = {
    {"kel.row.observed", Args(""), HandleOwn, "known, and ignored"}};

constexpr KeldDomain kDomain{.name = "Row",
                             .domains = {"row"},
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
    EXPECT_EQ(HandleOwn, table.at("kel.row.observed"));
    EXPECT_EQ(HandleOwn, table.at("kel.row.own"));
}

TEST_F(TranslationRowTest, EventHasTheTextTheNamesAndTheObjectOfItsRow)
{
    const EventText &event = kRows[3].event;
    EXPECT_EQ("%s (%s) %s", event.Text());
    EXPECT_EQ("nox.audit.row.uuid", event.TypeId());
    EXPECT_EQ("label", event.names[0]);
    EXPECT_EQ("volume", event.names[1]);
    EXPECT_EQ("volume", event.names.Object());
    EXPECT_EQ("", kRows[5].event.names.Object());
}

TEST_F(TranslationRowTest, NumbersKeepTheirWidthAndSign)
{
    Observe(MakeKel("kel.row.inorder", "%s %u %d", "naa.1", 4000000000U, -3));
    Observe(MakeKel("kel.row.none", "%s", "ignored"));
    Observe(MakeKel("kel.row.widths", "%d %u %ld %lu", INT_MIN, UINT_MAX, LONG_MIN, ULONG_MAX));
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.row.inorder(naa.1, 4000000000, -3)", "nox.clear.row.none()",
                            "nox.problem.row.widths(-2147483648, 4294967295, -9223372036854775808, "
                            "18446744073709551615)"));
}

TEST_F(TranslationRowTest, UuidIsNineArgumentsAndOneText)
{
    Observe(MakeKel("kel.row.uuid", "%s %x-%x-%x-%x%x%x%x%x%x %s", "datastore1", 0xfU, 0xffffffffU, 0xabU,
                    0U, 1U, 0x10U, 0x7fU, 0x80U, 0xffU, "ro"));
    EXPECT_THAT(Events(),
                ElementsAre("nox.audit.row.uuid(datastore1, 0000000f-ffffffff-00ab-0001107f80ff, ro)"));
}

TEST_F(TranslationRowTest, WhatCannotBeReadIsNotPosted)
{
    Observe(MakeKel("kel.row.inorder", "%s %u %d", none, 2U, 0));
    Observe(MakeKel("kel.row.inorder", "%s %u", "naa.1", 2U));
    Observe(MakeKel("kel.row.inorder", "%s %lu %d", "naa.1", 0x100000000UL, 0));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty()) << "a row without a failure message fails silently";
}

TEST_F(TranslationRowTest, SharedHandlerDoesWhatTheRowOfTheIdSaysIfItIsOneOfItsOwn)
{
    Observe(MakeKel("kel.row.shared", "%d", 7));
    EXPECT_EQ(KeldTranslated::Posted, sharedResult);
    EXPECT_THAT(Events(), ElementsAre("nox.problem.row.shared(7)"));

    Observe(MakeKel("kel.row.shared", "%s", "seven"));
    EXPECT_EQ(KeldTranslated::NotRead, sharedResult);
    HandleShared(MakeKel("kel.row.own", "%d", 7).get());
    EXPECT_EQ(KeldTranslated::NoSuchRow, sharedResult);
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(TranslationRowTest, MessageTextIsItsOwnFormat)
{
    Observe(MakeKel("kel.row.message", "%lu %s", 77UL, "vm.swp"));
    Observe(MakeKel("kel.row.message", "%s %lu", "vm.swp", 77UL));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.row.message(77, vm.swp)"));
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
    Observe(MakeKel("kel.row.index", "%s %u %s", "naa.1", 3, "hba1:C0:T0:L4"));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.row.index(naa.1, 3, hba1:C0:T0:L4)"));

    Observe(MakeKel("kel.row.index", "%d", 1));
    Observe(MakeKel("kel.row.index", "%s", none)); // before what is missing behind it
    Observe(MakeKel("kel.row.index", "%s", "naa.1"));
    Observe(MakeKel("kel.row.index", "%s %u", "naa.1", 3)); // the third has none
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), ElementsAre("No device: 22", "No device: 22", "No count: 22"));
}

} // namespace
