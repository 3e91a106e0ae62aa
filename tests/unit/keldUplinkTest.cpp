// Uplink tracking under a storm. What becomes of a burst is told in tests/stories/uplinks.kel.

#include "keldUplink.h"
#include "correlatorFixture.h"
#include "keldDomains.h"

#include <array>
#include <map>

namespace {

class UplinkStormTest : public CorrelatorTest {
protected:
    static constexpr int kNics = 64, kTransitions = 10'000;

    UplinkStormTest() : CorrelatorTest(keldNetDomain) { runDir.Host("net/portgroups/PG-0", "vSwitch0"); }

    // 10,000 transitions, the NICs in turn, port groups and DVPorts in turn; gives what has to be posted of
    // them when both kinds are told by these events.
    Lines Storm(const char *direction, int count, bool nicLast, const std::string &event,
                const std::string &dvPortEvent)
    {
        const std::string id = std::string(".uplink.transition.") + direction;
        std::map<std::string, std::array<std::string, 2>> items; // by NIC: port groups, DVPorts
        for (int i = 0; i < kTransitions; ++i) {
            const std::string nic = "vmnic" + std::to_string(i % kNics), item = std::to_string(i / kNics);
            const std::string group = "PG-" + item;
            const bool dvPort = i / kNics % 2 != 0;
            if (dvPort)
                Observe(MakeKel(("kel.net.dvport" + id).c_str(), "%s %s %s %d %d", nic.c_str(), "dvs",
                                item.c_str(), count, 4));
            else
                Observe(MakeKel(("kel.net.pg" + id).c_str(), "%s %s %d %d", nic.c_str(), group.c_str(),
                                count, 4));
            std::string &list = items[nic][dvPort];
            list += (list.empty() ? "" : ", ") + (dvPort ? "dvs/" + item : group);
        }
        Lines demanded;
        for (const auto &[nic, lists] : items) {
            const auto &[groups, dvPorts] = lists;
            demanded.push_back(event + "(vSwitch0, " +
                               (nicLast ? groups + ", " + nic : nic + ", " + groups) + ")");
            demanded.push_back(dvPortEvent + "(" + dvPorts + ", " + nic + ")");
        }
        return demanded;
    }
};

TEST_F(UplinkStormTest, EveryTransitionIsNamedOnceInItsPlaceAndLeavesNothingBehind)
{
    ASSERT_NE(-1, KeldUplinkInit());
    for (int round = 0; round < 2; ++round) {
        const Lines lost = Storm("down", 0, false, "nox.problem.net.connectivity.lost",
                                 "nox.problem.net.dvport.connectivity.lost");
        clock.Advance(2);
        ProcessUplinkTimeouts();
        EXPECT_EQ(lost, Events());
        const Lines restored = Storm("up", 2, true, "nox.clear.net.redundancy.restored",
                                     "nox.clear.net.dvport.redundancy.restored");
        clock.Advance(2);
        ProcessUplinkTimeouts();
        EXPECT_EQ(restored, Events());
    }
}

} // namespace
