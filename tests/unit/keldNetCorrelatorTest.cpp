// What the network reports beside uplinks.

#include "correlatorFixture.h"
#include "keldAlarm.h"
#include "keldDomains.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class NetCorrelatorTest : public CorrelatorTest {
protected:
    NetCorrelatorTest() : CorrelatorTest(keldNetDomain) {}
};

TEST_F(NetCorrelatorTest, KnowsFortyTwoObservations)
{
    EXPECT_EQ(35U + 7U, KeldDomainTable(keldNetDomain).size());
}

TEST_F(NetCorrelatorTest, AFenceThatCannotBeSetIsReportedWithTheReason)
{
    for (const int status : {0xbad0007, 0xbad0002, 0, 0xbad0014})
        Observe(MakeKel("kel.net.fence.port.fail", "%s %s %d %d", "port-17", "dvs", status, 5));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.net.fence.port.badfenceid(5, port-17, dvs)",
                                      "nox.problem.net.fence.switch.unavailable(5, port-17, dvs)",
                                      "nox.problem.net.fence.resource.limited(5, port-17, dvs)",
                                      "nox.problem.net.fence.resource.limited(5, port-17, dvs)"));
}

// Names that differ from the observation's, a number before a text, no argument at all.
TEST_F(NetCorrelatorTest, TellingTranslations)
{
    Observe(MakeKel("kel.net.portset.port.connect.fail", "%s %s %s", "00:50:56:9a:00:01", "17", "dvs"));
    Observe(MakeKel("kel.net.migrate.bindtoknx.failed", "%s", "knx9"));
    Observe(MakeKel("kel.net.lacp.uplink.fail.speed", "%s %s", "dvs", "vmnic3"));
    Observe(
        MakeKel("kel.net.migrate.unsupported.latency", "%u %s %s", 4000000000U, "10.0.0.1", "10.0.0.2"));
    Observe(MakeKel("kel.net.uplink.mtu.failed", "%d %s", 9000, "vmnic3"));
    Observe(MakeKel("kel.net.firewall.disabled", " "));
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.net.proxyswitch.port.unavailable(00:50:56:9a:00:01, 17, dvs)",
                            "nox.problem.net.migrate.bindtoknx(knx9)",
                            "nox.problem.net.lacp.uplink.fail.speed(dvs, vmnic3)",
                            "nox.problem.net.migrate.unsupported.latency(4000000000, 10.0.0.1, 10.0.0.2)",
                            "nox.problem.net.uplink.mtu.failed(9000, vmnic3)",
                            "nox.audit.net.firewall.disabled()"));
}

TEST_F(NetCorrelatorTest, Kept_AMissingPeersTypeIdHasNoUplinkButATwo)
{
    Observe(MakeKel("kel.net.lacp.uplink.peer.noresponse", "%s", "dvs"));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.net.lacp.peer.noresponse.2(dvs)"));
}

TEST_F(NetCorrelatorTest, WhatCannotBeReadAndWhatIsUnknownIsDroppedWithoutAWord)
{
    Observe(MakeKel("kel.net.heap.belowthreshold", "%s", "netGPHeap"));
    Observe(MakeKel("kel.net.fence.port.fail", "%s %s %d", "port-17", "dvs", 0));
    Observe(MakeKel("kel.net.gateway.set.failed", "%s", kNullText));
    Observe(MakeKel("kel.net.uplink.mtu.failed", "%s %d", "vmnic3", 9000));
    Observe(MakeKel("kel.net.firewall.port.vanished", "%s", "50331650"));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(NetCorrelatorTest, WithoutAnAlarmTheAgentEndsWithoutAWord)
{
    while (KeldAlarmRegister([] {}) != -1) {
    }
    KeldCorrelator_StartNet();
    EXPECT_THAT(LogLines(), IsEmpty());
}

} // namespace
