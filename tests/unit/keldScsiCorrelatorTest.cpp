#include "keldDomains.h"

#include "correlatorFixture.h"

#include <knxctl/hostFactory.h>

#include <optional>
#include <stdexcept>

using testing::ElementsAre;
using testing::IsEmpty;

// ---- The host: the inventory, until a test makes it answer otherwise ------------------------------

namespace NodeAdm {
std::unique_ptr<Host> MakeInventoryHost(); // what the library's own factory gives
}

namespace {

std::optional<std::uint32_t> redundancyInstead; // of every device, when set
unsigned lookUps = 0;                           // since a test began
unsigned failingLookUp = 0;                     // fails, counted from 1; 0: none

void CountLookUp()
{
    if (++lookUps == failingLookUp) throw std::runtime_error("the host does not answer");
}

class WatchedLun : public NodeAdm::Storage::DiskLun {
public:
    explicit WatchedLun(std::unique_ptr<Lun> lun) : mLun(std::move(lun)) {}

    std::string GetName() const override { return mLun->GetName(); }
    std::uint32_t GetPathRedundancy() const override
    {
        CountLookUp();
        return redundancyInstead ? *redundancyInstead : mLun->GetPathRedundancy();
    }
    std::vector<std::int32_t> GetPartitions() const override
    {
        CountLookUp();
        const auto *disk = dynamic_cast<DiskLun *>(mLun.get());
        return disk == nullptr ? std::vector<std::int32_t>{} : disk->GetPartitions();
    }

private:
    const std::unique_ptr<Lun> mLun;
};

class WatchedHost : public NodeAdm::Host, public NodeAdm::Storage::StorageInfo {
public:
    std::unique_ptr<StorageInfo> GetStorageInfo() const override
    {
        CountLookUp();
        return std::make_unique<WatchedHost>();
    }
    std::string GetDeviceNameOfPath(const std::string &path) const override
    {
        CountLookUp();
        return mStorage->GetDeviceNameOfPath(path);
    }
    std::unique_ptr<NodeAdm::Storage::Lun> GetLun(const std::string &device) const override
    {
        CountLookUp();
        return std::make_unique<WatchedLun>(device.empty() ? nullptr : mStorage->GetLun(device));
    }
    std::string GetDatastoreOn(const std::string &deviceAndPartition) const override
    {
        CountLookUp();
        return mStorage->GetDatastoreOn(deviceAndPartition);
    }

private:
    const std::unique_ptr<StorageInfo> mStorage = NodeAdm::MakeInventoryHost()->GetStorageInfo();
};

} // namespace

std::unique_ptr<NodeAdm::Host> NodeAdm::HostFactory::GetHost()
{
    CountLookUp();
    return std::make_unique<WatchedHost>();
}

// ---- Two paths to a device with two datastores ----------------------------------------------------

namespace {

constexpr const char *kDevice = "naa.60a98000";
constexpr const char *kPath = "hba1:C0:T0:L4";
constexpr const char *kOther = "hba2:C0:T1:L4";

class ScsiTest : public CorrelatorTest {
protected:
    ScsiTest() : CorrelatorTest(keldScsiDomain)
    {
        runDir.Host("storage/paths/hba1:C0:T0:L4", kDevice);
        runDir.Host("storage/paths/hba2:C0:T1:L4", kDevice);
        runDir.Host("storage/devices/naa.60a98000/partitions/2", "gold");
        runDir.Host("storage/devices/naa.60a98000/partitions/10", "silver");
        Redundancy("3");
    }

    void Redundancy(const char *value)
    {
        runDir.Host("storage/devices/naa.60a98000/pathRedundancy", value);
    }

    void Goes(const char *path, const std::string &state, const char *previousState)
    {
        Observe(MakeKel(("kel.scsi.scsipath.pathstate." + state).c_str(), "%s %s", path, previousState));
    }

    // State changes that say nothing but that they happened; the problems among the events they bring.
    Lines Changes(int count, const char *path = kPath)
    {
        for (int i = 0; i < count; ++i)
            Goes(path, "dead", "off");
        return Events();
    }
    Lines Resets(int count, const char *path = kPath)
    {
        for (int i = 0; i < count; ++i)
            Observe(MakeKel("kel.scsi.scsipath.por", "%s", path));
        return Events();
    }
    void Add(const char *path) { Observe(MakeKel("kel.scsi.scsipath.add", "%s", path)); }

    // A daemon that has been counting before: what comes first on a fresh one is forgotten at once.
    void SettleCounters()
    {
        Changes(1, "hba9:C0:T0:L0");
        Resets(1, "hba9:C0:T0:L0");
    }

    const Lines mFrequentChanges{"nox.problem.storage.connectivity.pathstatechanges(hba1:C0:T0:L4, "
                                 "naa.60a98000, \"gold\", \"silver\")"};
    const Lines mFrequentResets{
        "nox.problem.storage.connectivity.pathpor(hba1:C0:T0:L4, naa.60a98000, \"gold\", \"silver\")"};
};

} // namespace

TEST_F(ScsiTest, LostPathIsPostedByThePathsThatAreLeft)
{
    Goes(kPath, "dead", "on");
    Redundancy("2");
    Goes(kPath, "off", "standby");
    Redundancy("1");
    Goes(kPath, "dead", "on");
    Redundancy("0");
    Goes(kPath, "dead", "on");
    EXPECT_THAT(
        Events(),
        ElementsAre(
            "nox.problem.storage.redundancy.degraded(naa.60a98000, hba1:C0:T0:L4, \"gold\", \"silver\")",
            "nox.problem.storage.redundancy.lost(naa.60a98000, hba1:C0:T0:L4, \"gold\", \"silver\")",
            "nox.problem.storage.connectivity.lost(naa.60a98000, hba1:C0:T0:L4, \"gold\", \"silver\")"));
}

TEST_F(ScsiTest, RestoredPathIsClearedByThePathsThatAreThereAgain)
{
    for (const char *value : {"2", "3", "1", "0"}) {
        Redundancy("1");
        Goes(kPath, "dead", "on");
        EXPECT_EQ(1U, Events().size());
        Redundancy(value);
        Goes(kPath, "on", "dead");
        const std::string shown = "(naa.60a98000, \"gold\", \"silver\", hba1:C0:T0:L4)";
        if (*value == '2')
            EXPECT_THAT(Events(), ElementsAre("nox.clear.storage.connectivity.restored" + shown));
        else if (*value == '3')
            EXPECT_THAT(Events(), ElementsAre("nox.clear.storage.redundancy.restored" + shown));
        else
            EXPECT_THAT(Events(), IsEmpty()) << value;
    }
}

TEST_F(ScsiTest, OnlyAUsablePathCanBeLostAndOnlyADeadOneRestored)
{
    for (const char *previous : {"off", "dead", "On", "", "standby "})
        Goes(kPath, "dead", previous);
    EXPECT_THAT(Events(), IsEmpty());

    Redundancy("2");
    Goes(kPath, "dead", "on");
    EXPECT_EQ(1U, Events().size());
    for (const char *previous : {"standby", "on", "unknown"})
        Goes(kPath, "standby", previous);
    EXPECT_THAT(Events(), IsEmpty());
    Goes(kPath, "standby", "off");
    EXPECT_EQ(1U, Events().size());
}

TEST_F(ScsiTest, ClearNeedsAProblemOfThatVeryPathAndDevice)
{
    Redundancy("0");
    Goes(kPath, "dead", "on"); // posts nothing
    Redundancy("3");
    Goes(kPath, "on", "dead");
    EXPECT_THAT(Events(), IsEmpty());

    Goes(kPath, "dead", "on");
    EXPECT_EQ(1U, Events().size());
    Goes(kOther, "on", "dead");
    runDir.Host("storage/paths/hba1:C0:T0:L4", "naa.other"); // the path leads elsewhere now
    runDir.Host("storage/devices/naa.other/pathRedundancy", "3");
    Goes(kPath, "on", "dead");
    EXPECT_THAT(Events(), IsEmpty());
    runDir.Host("storage/paths/hba1:C0:T0:L4", kDevice);
    Goes(kPath, "on", "dead");
    EXPECT_EQ(1U, Events().size());
    Goes(kPath, "on", "dead"); // cleared already
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(ScsiTest, DatastoresAreEmptyWithoutAnyAndUnknownWhenTheyCannotBeRead)
{
    Redundancy("2");
    runDir.HostDirectory("storage/devices/naa.60a98000/partitions/3");
    Goes(kPath, "dead", "on");
    runDir.RemoveHost("storage/devices/naa.60a98000/partitions/3");
    runDir.RemoveHost("storage/devices/naa.60a98000/partitions/2");
    runDir.Host("storage/devices/naa.60a98000/partitions/5", ""); // none is mounted on it
    Goes(kPath, "dead", "on");
    runDir.RemoveHost("storage/devices/naa.60a98000/partitions");
    Goes(kPath, "dead", "on");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.storage.redundancy.lost(naa.60a98000, hba1:C0:T0:L4, Unknown)",
                            "nox.problem.storage.redundancy.lost(naa.60a98000, hba1:C0:T0:L4, \"silver\")",
                            "nox.problem.storage.redundancy.lost(naa.60a98000, hba1:C0:T0:L4, )"));
}

// Whatever the host leaves unanswered, a complete event or none comes, and the agent goes on.
TEST_F(ScsiTest, LookUpThatThrowsCostsTheEventOrItsDatastores)
{
    Redundancy("2");
    lookUps = 0;
    Goes(kPath, "dead", "on");
    EXPECT_EQ(1U, Events().size());
    const unsigned all = lookUps;
    ASSERT_LT(8U, all);
    unsigned withoutDatastores = 0;
    for (unsigned failing = 1; failing <= all; ++failing) {
        clock.Advance(601); // forgets how often the path has changed
        lookUps = 0;
        failingLookUp = failing;
        Goes(kPath, "dead", "on");
        failingLookUp = 0;
        for (const std::string &event : Events()) {
            EXPECT_EQ("nox.problem.storage.redundancy.lost(naa.60a98000, hba1:C0:T0:L4, Unknown)", event);
            ++withoutDatastores;
        }
    }
    EXPECT_EQ(6U, withoutDatastores); // host, storage, device, partitions, two datastores
}

TEST_F(ScsiTest, PathsAndDevicesThatTheHostDoesNotKnowPostNothing)
{
    Goes("hba9:C0:T0:L0", "dead", "on");
    runDir.RemoveHost("storage/devices/naa.60a98000/pathRedundancy");
    Goes(kPath, "dead", "on");
    runDir.RemoveHost("storage/devices");
    Goes(kPath, "dead", "on");
    Goes(kPath, "on", "dead");
    EXPECT_THAT(Events(), IsEmpty());
}

TEST_F(ScsiTest, ImpossibleRedundancyEndsTheDaemonOnTheWayUpOnly)
{
    redundancyInstead = 4;
    Goes(kPath, "dead", "on");
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_DEATH(Goes(kPath, "on", "dead"), "Keld - Panic: NOT_REACHED apps/keld/keldScsiCorrelator:1049");
}

// ---- Counting -------------------------------------------------------------------------------------

TEST_F(ScsiTest, TenthChangeIsReportedOnceUntilTheCountsAreReset)
{
    SettleCounters();
    EXPECT_THAT(Changes(9), IsEmpty());
    EXPECT_EQ(mFrequentChanges, Changes(1));
    EXPECT_THAT(Changes(90), IsEmpty());
    clock.Advance(600);
    EXPECT_THAT(Changes(20), IsEmpty());
    clock.Advance(1);
    EXPECT_THAT(Changes(9), IsEmpty());
    EXPECT_EQ(mFrequentChanges, Changes(1));
}

TEST_F(ScsiTest, PathThatComesUpChangesItsStateToo)
{
    SettleCounters();
    for (int i = 0; i < 5; ++i)
        for (const char *state : {"on", "standby"})
            Goes(kPath, state, "standby");
    EXPECT_EQ(mFrequentChanges, Events());
}

TEST_F(ScsiTest, CountsBelowTenAreForgottenAfterMoreThanAMinute)
{
    SettleCounters();
    Changes(8);
    clock.Advance(60);
    EXPECT_THAT(Changes(1), IsEmpty());
    EXPECT_EQ(mFrequentChanges, Changes(1)); // ten in 60 seconds

    Changes(8, kOther);
    clock.Advance(1);
    Changes(1, "hba9:C0:T0:L0"); // 61 seconds: every count is looked at
    EXPECT_THAT(Changes(9, kOther), IsEmpty());
    EXPECT_EQ(1U, Changes(1, kOther).size());
}

TEST_F(ScsiTest, Kept_TenthChangeAfterAPauseIsReportedBeforeTheOthersAreForgotten)
{
    SettleCounters();
    Changes(9);
    clock.Advance(61);
    EXPECT_EQ(mFrequentChanges, Changes(1));
}

TEST_F(ScsiTest, Kept_FirstChangeOfAFreshDaemonDoesNotCount)
{
    EXPECT_THAT(Changes(10), IsEmpty());
    EXPECT_EQ(mFrequentChanges, Changes(1));
    EXPECT_THAT(Resets(10), IsEmpty());
    EXPECT_EQ(mFrequentResets, Resets(1));
}

TEST_F(ScsiTest, ClockThatWasSetBackResetsTheCounts)
{
    SettleCounters();
    Changes(9);
    clock.Set(HandClock::kStart - 1);
    EXPECT_THAT(Changes(1), IsEmpty());
}

TEST_F(ScsiTest, AddingAKnownPathCountsAndRemovingOneForgets)
{
    SettleCounters();
    Add(kPath); // begins at none
    Changes(8);
    Add(kPath);
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_EQ(mFrequentChanges, Changes(1));

    Changes(9, kOther);
    Observe(MakeKel("kel.scsi.scsipath.remove", "%s", kOther));
    EXPECT_THAT(Changes(9, kOther), IsEmpty());
    Add(kOther);
    EXPECT_EQ(1U, Events().size()); // an addition can be the tenth
}

TEST_F(ScsiTest, PathsAreCountedApartAndStateChangesApartFromResets)
{
    SettleCounters();
    EXPECT_THAT(Changes(9), IsEmpty());
    EXPECT_THAT(Changes(9, kOther), IsEmpty());
    EXPECT_THAT(Resets(9), IsEmpty());
    EXPECT_EQ(mFrequentChanges, Changes(1));
    EXPECT_EQ(mFrequentResets, Resets(1));
}

TEST_F(ScsiTest, FrequentChangesNeedADeviceAndItsRedundancy)
{
    SettleCounters();
    EXPECT_THAT(Changes(10, "hba8:C0:T0:L0"), IsEmpty());
    Redundancy("none");
    EXPECT_THAT(Changes(10, kOther), IsEmpty());
    Redundancy("0");
    EXPECT_THAT(Changes(10), ElementsAre("nox.problem.storage.connectivity.pathstatechanges(hba1:C0:T0:L4, "
                                         "naa.60a98000, Unknown)"));
}

TEST_F(ScsiTest, ResetsAreReportedOnceAndForgottenLikeStateChanges)
{
    SettleCounters();
    Resets(9);
    clock.Advance(61);
    Resets(1, "hba9:C0:T0:L0");
    EXPECT_THAT(Resets(9), IsEmpty());
    EXPECT_EQ(mFrequentResets, Resets(1));
    EXPECT_THAT(Resets(50), IsEmpty());
    clock.Advance(540); // 601 seconds since the first; more than 60 since counts were last forgotten
    EXPECT_THAT(Resets(10), IsEmpty());
    EXPECT_EQ(mFrequentResets, Resets(1));
}

TEST_F(ScsiTest, ResetsOfAnUnknownPathAreThoseOfADeviceOfThatName)
{
    SettleCounters();
    EXPECT_THAT(Resets(10, kDevice), ElementsAre("nox.problem.storage.connectivity.pathpor(naa.60a98000, "
                                                 "naa.60a98000, \"gold\", \"silver\")"));
    EXPECT_THAT(Resets(10, "naa.unknown"), IsEmpty());
    Redundancy("0");
    EXPECT_THAT(Resets(10),
                ElementsAre("nox.problem.storage.connectivity.pathpor(hba1:C0:T0:L4, naa.60a98000, "
                            "Unknown)"));
    redundancyInstead = 0; // also of a device without a name, which the inventory cannot hold
    EXPECT_THAT(Resets(10, ""), ElementsAre("nox.problem.storage.connectivity.devicepor(, Unknown)"));
}

// ---- One event for one observation ----------------------------------------------------------------

TEST_F(ScsiTest, ObservationsBecomeEventsWithTheirArgumentsInOrder)
{
    Observe(MakeKel("kel.scsi.device.state.on", "%s", kDevice));
    Observe(MakeKel("kel.scsi.scsipath.limitreached", "%d %s", 4096, kPath));
    Observe(MakeKel("kel.scsi.device.latency.raised", "%s %u %u", kDevice, 1200U, 4000000000U));
    Observe(MakeKel("kel.scsi.device.capacity.changed", "%s %lx %lx", kDevice, 1UL, 0x123456789abUL));
    Observe(MakeKel("kel.scsi.scsipath.badpath.wrongdevice", "%s %s %s", kPath, kDevice, "naa.other"));
    EXPECT_THAT(
        Events(),
        ElementsAre(
            "nox.clear.scsi.device.state.on(naa.60a98000)",
            "nox.problem.scsi.scsipath.limitreached(4096, hba1:C0:T0:L4)",
            "nox.problem.scsi.device.latency.raised(naa.60a98000, 1200, 4000000000)",
            "nox.problem.scsi.device.capacity.changed(naa.60a98000, 1, 1250999896491)",
            "nox.problem.scsi.scsipath.badpath.wrongdevice(hba1:C0:T0:L4, naa.60a98000, naa.other)"));
}

TEST_F(ScsiTest, ArgumentsThatCannotBeReadAreLoggedAndPostNothing)
{
    Observe(MakeKel("kel.scsi.device.state.permanentloss", " "));
    Observe(MakeKel("kel.scsi.device.thinprov.atquota", "%d", 1));
    Observe(MakeKel("kel.scsi.scsipath.limitreached", "%s %s", "many", kPath));
    Observe(MakeKel("kel.scsi.device.limitreached", "%d", 512));
    Observe(MakeKel("kel.scsi.device.nmp.satp.option.failed", "%s %s", "enable_local",
                    static_cast<const char *>(nullptr)));
    Observe(MakeKel("kel.scsi.scsipath.badpath.unreachpe", " "));
    Observe(MakeKel("kel.scsi.scsipath.badpath.unreachpe", "%s", kPath));
    Observe(MakeKel("kel.scsi.device.latency.raised", "%s %u", kDevice, 7U));
    Observe(MakeKel("kel.scsi.adapter.reset", "%s %ld", "hba1", 1L << 40));
    Observe(MakeKel("kel.scsi.scsipath.add", " "));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(),
                ElementsAre("Failed to get device name: 22",
                            "Failed to get thin provisioned device name: 22",
                            "Failed to get path limit reached path count: 22",
                            "Failed to get device limit reached plugin name: 22",
                            "Failed to get path name: 22", "Failed to get path name: 22",
                            "Failed to get PE-incapable adapter name for path hba1:C0:T0:L4 : 22",
                            "Failed to get params for correlation kel.scsi.device.latency.raised: 22",
                            "Failed to correlate kel.scsi.adapter.reset: 34",
                            "Failed to get path add remove path name: 22"));
}

TEST_F(ScsiTest, UnknownObservationIsLogged)
{
    Observe(MakeKel("kel.scsi.device.vanished", "%s", kDevice));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), ElementsAre("No correlator for kel.scsi.device.vanished "));
}

TEST_F(ScsiTest, PathStatesAndResetsThatCannotBeReadAreDroppedSilently)
{
    SettleCounters();
    for (int i = 0; i < 12; ++i) {
        Observe(MakeKel("kel.scsi.scsipath.pathstate.dead", "%s", kPath));
        Observe(
            MakeKel("kel.scsi.scsipath.pathstate.on", "%s %s", kPath, static_cast<const char *>(nullptr)));
        Observe(MakeKel("kel.scsi.scsipath.por", "%d", 1));
    }
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}
