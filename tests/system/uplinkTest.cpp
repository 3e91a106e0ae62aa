// Uplinks that fail and recover, in the shipped daemon and in real time.

#include "systemTest.h"

namespace {

class UplinkSystemTest : public SystemTest {
protected:
    static constexpr int kNetContext = 3;

    void SetUp() override
    {
        host.Host("net/portgroups/Production", "vSwitch0");
        host.Host("net/portgroups/vMotion", "vSwitch0");
        Start(kShippedDaemon);
    }

    static void PortGroup(const char *direction, const char *nic, const char *portGroup, int uplinks)
    {
        Send(kNetContext, (std::string("kel.net.pg.uplink.transition.") + direction).c_str(), "%s %s %d %d",
             nic, portGroup, uplinks, 2);
    }
    static void DvPort(const char *direction, const char *nic, const char *port, int uplinks)
    {
        Send(kNetContext, (std::string("kel.net.dvport.uplink.transition.") + direction).c_str(),
             "%s %s %s %d %d", nic, "dvs-storage", port, uplinks, 2);
    }
};

TEST_F(UplinkSystemTest, TwoNicsThatFailAndRecoverAreReportedInOrder)
{
    PortGroup("down", "vmnic0", "Production", 0);
    PortGroup("down", "vmnic0", "vMotion", 1);
    DvPort("down", "vmnic0", "17", 1);
    PortGroup("down", "vmnic1", "Production", 0);
    EXPECT_EQ((Texts{"nox.problem.net.connectivity.lost(vSwitch0, vmnic0, Production)",
                     "nox.problem.net.redundancy.lost(vSwitch0, vmnic0, vMotion)",
                     "nox.problem.net.dvport.redundancy.lost(dvs-storage/17, vmnic0)",
                     "nox.problem.net.connectivity.lost(vSwitch0, vmnic1, Production)"}),
              receiver.WaitForTexts(4));

    PortGroup("up", "vmnic0", "Production", 1);
    PortGroup("up", "vmnic0", "vMotion", 2);
    DvPort("up", "vmnic0", "17", 2);
    EXPECT_EQ((Texts{"nox.clear.net.connectivity.restored(vSwitch0, Production, vmnic0)",
                     "nox.clear.net.redundancy.restored(vSwitch0, vMotion, vmnic0)",
                     "nox.clear.net.dvport.redundancy.restored(dvs-storage/17, vmnic0)"}),
              receiver.WaitForTexts(3));

    Send(kNetContext, "kel.net.vmnic.linkstate.down", "%s", "vmnic1");
    EXPECT_EQ(Texts{"nox.problem.net.vmnic.linkstate.down(vmnic1)"}, receiver.WaitForTexts(1));
    Send(kNetContext, "kel.net.vmnic.linkstate.up", "%s", "vmnic1");
    EXPECT_EQ(Texts{"nox.clear.net.vmnic.linkstate.up(vmnic1)"}, receiver.WaitForTexts(1));
    EXPECT_EQ(0, daemon->Terminate());
}

} // namespace
