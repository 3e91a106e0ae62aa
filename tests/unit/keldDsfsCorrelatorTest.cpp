#include "correlatorFixture.h"
#include "keldDomains.h"

#include <algorithm>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// A volume UUID as a kernel sends it, with leading zeros in every part.
#define UUID_FORMAT "%x-%x-%x-%x%x%x%x%x%x"
#define UUID_NUMBERS 0x5f3a1b2cU, 0x0004d2e7U, 0xabU, 0U, 0x1bU, 0x21U, 0xc0U, 0x0fU, 0xffU
constexpr const char *kUuid = "5f3a1b2c-0004d2e7-00ab-001b21c00fff";

TestKel LabelKel(const std::string &name, const char *label)
{
    return MakeKel(("kel.dsfs." + name).c_str(), UUID_FORMAT " %s", UUID_NUMBERS, label);
}

TestKel NfsKel(const std::string &name)
{
    return MakeKel(("kel.dsfs." + name).c_str(), "%s %s " UUID_FORMAT " %s", "filer1", "/exports/vol0",
                   UUID_NUMBERS, "nfsstore");
}

class DsfsCorrelatorTest : public CorrelatorTest {
protected:
    DsfsCorrelatorTest() : CorrelatorTest(keldDsfsDomain) {}

    static std::string TextOf(std::string_view id)
    {
        const auto rows = keldDsfsDomain.translations.rows;
        const auto row =
            std::find_if(rows.begin(), rows.end(), [&](const auto &each) { return each.id == id; });
        return row == rows.end() ? "no row" : std::string(row->event.Text());
    }

    const char *none = nullptr; // a literal one is a warning
};

TEST_F(DsfsCorrelatorTest, UuidIsOneTextWithEveryPartPadded)
{
    Observe(MakeKel("kel.dsfs.spanstate.incompatibility.detected", "%s " UUID_FORMAT, "datastore1",
                    UUID_NUMBERS));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.dsfs.spanstate.incompatibility.detected(datastore1, " +
                                      std::string(kUuid) + ")"));
}

TEST_F(DsfsCorrelatorTest, LockModesFollowTheVolumeInTheirOrder)
{
    Observe(MakeKel("kel.dsfs.lockmode.inconsistency.detected", "%s " UUID_FORMAT " %s %s %s", "datastore1",
                    UUID_NUMBERS, "public", "ATS-only", "private"));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.dsfs.lockmode.inconsistency.detected(datastore1, " +
                                      std::string(kUuid) + ", public, ATS-only, private)"));
}

TEST_F(DsfsCorrelatorTest, MountingIsAnAuditAndALostExtentAProblem)
{
    Observe(MakeKel("kel.dsfs.volume.mounted", "%s %s %s", "datastore1", "naa.60003ff44dc75adc:1",
                    "read-write"));
    Observe(MakeKel("kel.dsfs.volume.umounted", "%s %s", "datastore1", "naa.60003ff44dc75adc:1"));
    Observe(MakeKel("kel.dsfs.extent.offline", "%s %s", "naa.60003ff44dc75adc:1", "datastore1"));
    EXPECT_THAT(Events(),
                ElementsAre("nox.audit.dsfs.volume.mounted(datastore1, naa.60003ff44dc75adc:1, read-write)",
                            "nox.audit.dsfs.volume.umounted(datastore1, naa.60003ff44dc75adc:1)",
                            "nox.problem.dsfs.extent.offline(naa.60003ff44dc75adc:1, datastore1)"));
}

TEST_F(DsfsCorrelatorTest, OnlyAnExtentThatGoesOfflineMayLackItsDevice)
{
    Observe(MakeKel("kel.dsfs.extent.offline", "%s %s", none, "datastore1"));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.dsfs.extent.offline(, datastore1)"));

    Observe(MakeKel("kel.dsfs.extent.offline", "%s %s", "naa.60003ff44dc75adc:1", none));
    Observe(MakeKel("kel.dsfs.extent.online", "%s %s", none, "datastore1"));
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(DsfsCorrelatorTest, EachLabelledObservationBecomesAProblemOfItsOwn)
{
    for (const std::string name :
         {"heartbeat.timedout", "heartbeat.recovered", "journal.createfailed", "heartbeat.unrecoverable",
          "lock.corruptondisk.v2", "resource.corruptondisk", "heartbeat.corruptondisk"}) {
        Observe(LabelKel(name, "datastore1"));
        EXPECT_THAT(Events(), ElementsAre("nox.problem.dsfs." + name + "(" + kUuid + ", datastore1)"));
    }
}

TEST_F(DsfsCorrelatorTest, ServerObservationsPassTheirTextsOnInOrder)
{
    for (const std::string name : {"nfs.server.disconnect", "nfs.server.restored"}) {
        Observe(NfsKel(name));
        EXPECT_THAT(Events(), ElementsAre("nox.problem.dsfs." + name + "(filer1, /exports/vol0, " + kUuid +
                                          ", nfsstore)"));
    }
}

TEST_F(DsfsCorrelatorTest, WhatCannotBeReadOrIsNotKnownLeavesNothing)
{
    Observe(LabelKel("heartbeat.timedout", none));
    Observe(MakeKel("kel.dsfs.heartbeat.timedout", UUID_FORMAT, UUID_NUMBERS));
    Observe(MakeKel("kel.dsfs.nfs.server.restored", "%s %s", "filer1", "/exports/vol0"));
    Observe(MakeKel("kel.dsfs.ats.incompatibility.detected", "%s %s", "datastore1", kUuid));
    Observe(LabelKel("heartbeat.late", "datastore1"));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

using DsfsCorrelatorDeathTest = DsfsCorrelatorTest;

TEST_F(DsfsCorrelatorDeathTest, SharedHandlerPanicsWhenRegisteredForWhatItDoesNotKnow)
{
    const KeldCorrelatorTable table = KeldDomainTable(keldDsfsDomain);
    const KeldHandler nameAndLabel = table.at("kel.dsfs.heartbeat.timedout");
    const KeldHandler nfsVolume = table.at("kel.dsfs.nfs.server.restored");
    EXPECT_DEATH(nameAndLabel(LabelKel("heartbeat.late", "datastore1").get()),
                 "Keld - Panic: NOT_REACHED apps/keld/keldDsfsCorrelator:142");
    EXPECT_DEATH(nfsVolume(NfsKel("nfs.server.late").get()),
                 "Keld - Panic: NOT_REACHED apps/keld/keldDsfsCorrelator:646");
}

TEST_F(DsfsCorrelatorTest, Kept_RecoveriesArePostedAsProblems)
{
    Observe(MakeKel("kel.dsfs.extent.online", "%s %s", "naa.60003ff44dc75adc:1", "datastore1"));
    Observe(LabelKel("heartbeat.recovered", "datastore1"));
    Observe(NfsKel("nfs.server.restored"));
    EXPECT_THAT(Events(), ElementsAre(HasSubstr("nox.problem.dsfs.extent.online("),
                                      HasSubstr("nox.problem.dsfs.heartbeat.recovered("),
                                      HasSubstr("nox.problem.dsfs.nfs.server.restored(")));
}

TEST_F(DsfsCorrelatorTest, Kept_LostAtsSupportIsMisspelt)
{
    EXPECT_EQ(
        "ATS-Only DSFS volume '%s' will not be mounted. Host does notsupport ATS or ATS intialization has "
        "failed.",
        TextOf("kel.dsfs.ats.support.lost"));
}

} // namespace
