// What a story cannot tell of the correlators: a library that fails, a state that only a fault of the
// program's own leads to. What they do otherwise is told in tests/stories.
#include "correlatorFixture.h"
#include "keldAlarm.h"
#include "keldDomains.h"

#include <knxctl/hostFactory.h>
#include <stdexcept>
#include <sys/inotify.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

// ---- A host of one device, whose answers fail -----------------------------------------------------

namespace {

constexpr const char *kDevice = "naa.60a98000572d";

std::uint32_t redundancy = 2;
unsigned lookUps = 0;       // so far
unsigned failingLookUp = 0; // counted from 1; 0: none

template <class T> T Answer(T answer)
{
    if (++lookUps == failingLookUp) throw std::runtime_error("the host does not answer");
    return answer;
}

class TestDisk : public NodeAdm::Storage::DiskLun {
    std::string GetName() const override { return kDevice; }
    std::uint32_t GetPathRedundancy() const override { return Answer(redundancy); }
    std::vector<std::int32_t> GetPartitions() const override
    {
        return Answer<std::vector<std::int32_t>>({1, 2});
    }
};

class TestHost : public NodeAdm::Host, public NodeAdm::Storage::StorageInfo {
    std::unique_ptr<StorageInfo> GetStorageInfo() const override
    {
        return Answer(std::make_unique<TestHost>());
    }
    std::string GetDeviceNameOfPath(const std::string &path) const override
    {
        return Answer(path.empty() ? throw std::out_of_range("no path") : kDevice);
    }
    std::unique_ptr<NodeAdm::Storage::Lun> GetLun(const std::string &) const override
    {
        return Answer(std::make_unique<TestDisk>());
    }
    std::string GetDatastoreOn(const std::string &place) const override { return Answer("on " + place); }
};

} // namespace

std::unique_ptr<NodeAdm::Host> NodeAdm::HostFactory::GetHost()
{
    return Answer(std::make_unique<TestHost>());
}

namespace {

class ScsiFaultTest : public CorrelatorTest {
protected:
    ScsiFaultTest() : CorrelatorTest(keldScsiDomain) {}

    void Goes(const char *id, const char *previousState)
    {
        Observe(MakeKel(id, "%s %s", "hba1:C0:T0:L4", previousState));
    }
    void GoesDown() { Goes("kel.scsi.scsipath.pathstate.dead", "on"); }
    void GoesUp() { Goes("kel.scsi.scsipath.pathstate.on", "dead"); }
};

// Whatever the host leaves unanswered, a complete event or none comes, and the agent goes on.
TEST_F(ScsiFaultTest, LookUpThatThrowsCostsTheEventOrItsDatastores)
{
    const std::string event = "nox.problem.storage.redundancy.lost(naa.60a98000572d, hba1:C0:T0:L4, ";
    GoesDown();
    EXPECT_THAT(Events(), ElementsAre(event + "\"on naa.60a98000572d:1\", \"on naa.60a98000572d:2\")"));
    const unsigned all = std::exchange(lookUps, 0);
    Lines posted;
    for (failingLookUp = 1; failingLookUp <= all; ++failingLookUp, lookUps = 0) {
        GoesDown();
        for (const std::string &text : Events())
            posted.push_back(text);
        clock.Advance(601); // forgets how often the path has changed
    }
    EXPECT_EQ(Lines(6, event + "Unknown)"), posted) << "host, storage, device, partitions, two datastores";
}

TEST_F(ScsiFaultTest, ImpossibleRedundancyEndsTheDaemonOnTheWayUpOnly)
{
    redundancy = 4;
    GoesDown();
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_DEATH(GoesUp(), "Keld - Panic: NOT_REACHED apps/keld/keldScsiCorrelator:1049");
}

TEST_F(ScsiFaultTest, ResetsWithoutAPathAreThoseOfADevice)
{
    for (int i = 0; i < 11; ++i) // a fresh daemon forgets the first
        Observe(MakeKel("kel.scsi.scsipath.por", "%s", ""));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.storage.connectivity.devicepor(, \"on "
                                      "naa.60a98000572d:1\", \"on naa.60a98000572d:2\")"));
}

// ---- The other domains ----------------------------------------------------------------------------

TEST(DsfsFaultTest, SharedHandlerPanicsWhenRegisteredForWhatItDoesNotKnow)
{
    const KeldCorrelatorTable table = KeldDomainTable(keldDsfsDomain);
    const TestKel label = MakeKel("kel.dsfs.heartbeat.late", "%x %x %x %x %x %x %x %x %x %s", 1U, 2U, 3U,
                                  4U, 5U, 6U, 7U, 8U, 9U, "gold");
    const TestKel server =
        MakeKel("kel.dsfs.nfs.server.late", "%s %s %x %x %x %x %x %x %x %x %x %s", "filer1",
                "/exports/vol0", 1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 9U, "nfs-gold");
    EXPECT_DEATH(table.at("kel.dsfs.heartbeat.timedout")(label.get()),
                 "Keld - Panic: NOT_REACHED apps/keld/keldDsfsCorrelator:142");
    EXPECT_DEATH(table.at("kel.dsfs.nfs.server.restored")(server.get()),
                 "Keld - Panic: NOT_REACHED apps/keld/keldDsfsCorrelator:646");
}

class PageRetireFaultTest : public CorrelatorTest {
protected:
    PageRetireFaultTest() : CorrelatorTest(keldPageRetireDomain) {}

    void FirmwareAsks()
    {
        Observe(MakeKel("kel.pageretire.platform.retire.request", "%s %s", "DIMM_A3", "SEL 12"));
    }
    void Inject(int count)
    {
        for (; count > 0; --count)
            Observe(MakeKel("kel.pageretire.mce.injected", "%x %d", 0x1F00U, 4711));
    }
};

TEST_F(PageRetireFaultTest, UnreadableSettingsEndTheDaemon)
{
    runDir.Host("kernel/options/PageRetire/ThresholdInterval", "ten");
    EXPECT_DEATH(KeldPageRetireReadSettings(), "NOT_REACHED apps/keld/keldPageRetireCorrelator:189");
    runDir.Host("kernel/nodes/system/pageRetire/threshold", "-1");
    EXPECT_DEATH(KeldPageRetireReadSettings(), "NOT_REACHED apps/keld/keldPageRetireCorrelator:178");
    runDir.Host("kernel/options/PageRetire/ApeiLoggingEnabled", "");
    EXPECT_DEATH(FirmwareAsks(), "NOT_REACHED apps/keld/keldPageRetireCorrelator:126");
}

TEST_F(PageRetireFaultTest, Kept_IntervalAboveOneHundredPercentPostsEveryCount)
{
    runDir.Host("kernel/options/PageRetire/ThresholdInterval", "150");
    KeldPageRetireReadSettings();
    for (const unsigned long count : {1001UL, 1001UL, 1002UL})
        Observe(MakeKel("kel.pageretire.selectedmpnthreshold.host.exceeded", "%lu", count));
    EXPECT_THAT(Events(), testing::SizeIs(3));
}

TEST_F(PageRetireFaultTest, VirtualMachineThatCannotBeStoppedIsReportedOnce)
{
    runDir.Host("vms/4711/name", "web01");
    runDir.HostDirectory("vms/4711/terminated");
    Inject(49);
    clock.Advance(2);
    Inject(10);
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.mce.injected.2(web01, 50, 7936)"));
}

// The name of the machine is a directory: there to be looked at, and nothing to read.
TEST_F(PageRetireFaultTest, VirtualMachineThatIsGoneIsLookedForOnceForAnInjection)
{
    runDir.HostDirectory("vms/4711/name");
    Inject(49);
    clock.Advance(2);
    Inject(10);
    const int watch = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    ASSERT_NE(-1, inotify_add_watch(watch, runDir.Path("host/vms/4711/name").c_str(), IN_OPEN | IN_CLOSE));
    Inject(5);
    std::array<inotify_event, 200> seen{};
    EXPECT_EQ(5 * 2 * sizeof seen[0], static_cast<std::size_t>(read(watch, seen.data(), sizeof seen)))
        << "opened and closed";
    close(watch);
}

TEST(NetFaultTest, WithoutAnAlarmTheAgentEndsWithoutAWord)
{
    const LogCapture log;
    while (KeldAlarmRegister([] {}) != -1) {
    }
    KeldCorrelator_StartNet();
    EXPECT_THAT(log.Lines(), IsEmpty());
}

} // namespace
