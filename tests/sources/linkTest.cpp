// Network links: real ones in a network namespace of the test's own, and those that no kernel here makes.
#include <net/if.h> // before the kernel's own

#include "eventSink.h"
#include "linkMessage.h"
#include "sourcesTest.h"
#include "waitFor.h"

#include <cstdio>
#include <cstring>
#include <linux/if_bonding.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <map>
#include <netlink/msg.h>
#include <random>
#include <regex>
#include <sched.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr int kNics = 4;

// A bridge br0 with uplinks u0 to u3, whose cables end in p0 to p3.
class LinkTest : public SourcesTest {
protected:
    void SetUp() override
    {
        const std::string map = "0 " + std::to_string(getuid()) + " 1";
        const int spaces = getuid() == 0 ? CLONE_NEWNET : CLONE_NEWNET | CLONE_NEWUSER;
        if (unshare(spaces) != 0) GTEST_SKIP() << "no network namespace here: " << std::strerror(errno);
        if ((spaces & CLONE_NEWUSER) != 0) std::ofstream("/proc/self/uid_map") << map;
        ip = popen("ip -batch -", "we");
        ASSERT_NE(nullptr, ip);
        Ip("link add br0 type bridge");
        Ip("link set br0 up");
        for (int nic = 0; nic < kNics; ++nic) {
            const std::string number = std::to_string(nic);
            Ip("link add u" + number + " type veth peer name p" + number);
            Ip("link set u" + number + " master br0 up");
            Ip("link set p" + number + " up");
        }
        if (!Done("ready")) GTEST_SKIP() << "no bridge or no pairs of interfaces here";
        StartDaemon();
    }
    void TearDown() override
    {
        const bool ended = ip == nullptr || pclose(ip) == 0;
        EXPECT_TRUE(ended);
    }
    void Ip(const std::string &command)
    {
        std::fprintf(ip, "%s\n", command.c_str());
        std::fflush(ip);
    }
    // All commands so far have been carried out.
    bool Done(const std::string &marker)
    {
        Ip("link add " + marker + " type bridge");
        return WaitUntil([&] { return if_nametoindex(marker.c_str()) != 0; }, std::chrono::seconds(20));
    }
    void Start(const Texts &more = {})
    {
        Texts arguments{"--nics", "u?", "--without", "block,filesystem,clock,memory,service,journal"};
        arguments.insert(arguments.end(), more.begin(), more.end());
        StartSources(arguments);
        ASSERT_TRUE(WaitUntil([&] { return host.HostText("net/portgroups/br0") == "br0"; }));
    }

    // Pulls the cable of a NIC, or plugs it in again.
    int Toggle(std::size_t nic)
    {
        isUp[nic] = !isUp[nic];
        Ip("link set p" + std::to_string(nic) + (isUp[nic] ? " up" : " down"));
        return static_cast<int>(std::ranges::count(isUp, true));
    }
    std::size_t Any() { return random() % kNics; }

    FILE *ip = nullptr;
    std::array<bool, kNics> isUp{true, true, true, true};
    std::mt19937 random{20260301};
};

std::string Lost(std::size_t nic, int left)
{
    return "kel.net.pg.uplink.transition.down,,\"u" + std::to_string(nic) + "\",\"br0\"," +
           std::to_string(left) + ",4";
}

std::string Back(std::size_t nic, int up)
{
    return "kel.net.pg.uplink.transition.up,,\"u" + std::to_string(nic) + "\",\"br0\"," +
           std::to_string(up);
}

TEST_F(LinkTest, TwoHundredPullsAndJoinsAreToldOnceEachWithTheUplinksThatAreLeft)
{
    Start();
    for (int step = 0; step < 200; ++step) {
        const std::size_t nic = Any();
        const int left = Toggle(nic);
        const std::string link = isUp[nic] ? "up" : "down";
        ASSERT_EQ("kel.net.vmnic.linkstate." + link + ",,\"u" + std::to_string(nic) + "\"", Next());
        ASSERT_EQ(isUp[nic] ? Back(nic, left) : Lost(nic, left), Next()) << "step " << step;
    }
}

TEST_F(LinkTest, WhatIsLostWhenTheKernelDropsNoticesIsToldAsTheDifference)
{
    Start({"--receive-buffer", "2048"});
    program->Signal(SIGSTOP);
    for (int step = 0; step < 200; ++step)
        Toggle(random() % (kNics - 1));
    Toggle(3); // the last, by which the end is known
    ASSERT_TRUE(Done("stormed"));
    program->Signal(SIGCONT);

    std::array<bool, kNics> told{true, true, true, true};
    const std::regex transition(R"re(kel\.net\.pg\.uplink\.transition\.(up|down),,"u(\d)","br0",(\d).*)re");
    std::smatch found;
    for (std::string line; told[3] || told != isUp;) {
        line = Next();
        if (!std::regex_match(line, found, transition)) continue;
        bool &nic = told[static_cast<std::size_t>(std::stoi(found[2]))];
        ASSERT_NE(nic, found[1] == "up") << "twice: " << line;
        nic = found[1] == "up";
        ASSERT_EQ(std::ranges::count(told, true), std::stoi(found[3])) << line;
    }
    std::string line;
    while (line.find("too fast to be told one by one") == std::string::npos)
        ASSERT_NE("(nothing)", line = Next());
    EXPECT_EQ(isUp, told);
}

TEST_F(LinkTest, APulledCableBecomesEventsAndIsKnownAfterARestart)
{
    EventSink receiver;
    Start();
    Toggle(0), Toggle(1), Toggle(2);
    EXPECT_EQ(Toggle(3), 0);
    EXPECT_THAT(receiver.WaitForTexts(4),
                testing::Contains("nox.problem.net.connectivity.lost(br0, u3, br0)"));
    EXPECT_EQ(0, program->End());
    program.reset();
    Toggle(3); // while nobody looks
    Start();
    EXPECT_THAT(receiver.WaitForTexts(1), ElementsAre("nox.clear.net.connectivity.restored(br0, br0, u3)"));
}

TEST_F(LinkTest, AnEntryOfTheInventoryThatSomebodyElseWroteStays)
{
    Ip("link add br1 type bridge");
    Ip("link add u8 type veth peer name u9");
    Ip("link set u9 master br1 up");
    host.Host("net/portgroups/br1", "vSwitch7");
    Start();
    ASSERT_TRUE(WaitUntil([&] { return program->Errors() != ""; }));
    EXPECT_THAT(program->Errors(), HasSubstr("net/portgroups/br1 is somebody else's"));
    Ip("link del br0");
    EXPECT_TRUE(WaitUntil([&] { return !host.HostText("net/portgroups/br0"); }));
    EXPECT_EQ("vSwitch7", host.HostText("net/portgroups/br1"));
}

// ---- What no kernel here makes: messages laid out as rtnetlink's documentation has them -----------

struct Message {
    nl_msg *message = nlmsg_alloc_simple(RTM_NEWLINK, 0);
    ~Message() { nlmsg_free(message); }
    Message(int index, const char *name, bool up)
    {
        const unsigned flags = IFF_UP | (up ? 1U << 16 : 0); // lower up
        const ifinfomsg head{AF_UNSPEC, 0, 1, index, flags, 0};
        nlmsg_append(message, const_cast<ifinfomsg *>(&head), sizeof head, NLMSG_ALIGNTO);
        nla_put_string(message, IFLA_IFNAME, name);
    }
    Link Read() { return ReadLink(nlmsg_hdr(message)).value(); }
};

Link Slave(int index, const char *name, bool carrier, std::uint8_t lacpState)
{
    Message message(index, name, carrier);
    nla_put_u32(message.message, IFLA_MASTER, 10);
    nlattr *info = nla_nest_start(message.message, IFLA_LINKINFO);
    nla_put_string(message.message, IFLA_INFO_SLAVE_KIND, "bond");
    nlattr *slave = nla_nest_start(message.message, IFLA_INFO_SLAVE_DATA);
    nla_put_u8(message.message, IFLA_BOND_SLAVE_MII_STATUS, carrier ? BOND_LINK_UP : BOND_LINK_DOWN);
    nla_put_u8(message.message, IFLA_BOND_SLAVE_AD_ACTOR_OPER_PORT_STATE, lacpState);
    nla_nest_end(message.message, slave);
    nla_nest_end(message.message, info);
    return message.Read();
}

Link Upper(int index, const char *name, const char *kind, int lower)
{
    Message message(index, name, true);
    if (lower != 0) nla_put_u32(message.message, IFLA_LINK, static_cast<std::uint32_t>(lower));
    nlattr *info = nla_nest_start(message.message, IFLA_LINKINFO);
    nla_put_string(message.message, IFLA_INFO_KIND, kind);
    nlattr *data = nla_nest_start(message.message, IFLA_INFO_DATA);
    if (std::strcmp(kind, "bond") == 0) nla_put_u8(message.message, IFLA_BOND_MODE, BOND_MODE_8023AD);
    nla_nest_end(message.message, data);
    nla_nest_end(message.message, info);
    return message.Read();
}

constexpr std::uint8_t kBundled = 0x3D;   // active, aggregatable, in sync, collecting, distributing
constexpr std::uint8_t kNoPartner = 0x45; // active, aggregatable, defaulted

TEST(LinkModelTest, AVlanOnABondLosesItsUplinksWithTheBondsSlaves)
{
    Told told;
    LinkModel model(told.Taker(), [](const Link &link) { return link.name.starts_with("eno"); });
    model.SetAll({Slave(1, "eno1", true, kBundled), Slave(2, "eno2", true, kBundled),
                  Upper(10, "bond0", "bond", 0), Upper(11, "bond0.20", "vlan", 10)});
    EXPECT_THAT(told.Take(), IsEmpty());
    EXPECT_EQ((std::map<std::string, std::string>{{"bond0.20", "bond0"}}), model.Switches());

    model.Set(Slave(1, "eno1", false, 0));
    EXPECT_THAT(told.Take(), ElementsAre("kel.net.vmnic.linkstate.down(eno1)",
                                         "kel.net.pg.uplink.transition.down(eno1, bond0.20, 1, 2)",
                                         "kel.net.lacp.uplink.transition.down(eno1, bond0)"));
    model.Set(Slave(2, "eno2", true, kNoPartner));
    EXPECT_THAT(told.Take(), ElementsAre("kel.net.lacp.uplink.transition.down(eno2, bond0)",
                                         "kel.net.lacp.lag.transition.down(bond0, bond0)",
                                         "kel.net.lacp.uplink.peer.noresponse(bond0)"));
    // Both change places while nobody looks: there is never a moment without an uplink.
    model.SetAll({Slave(1, "eno1", true, kBundled), Slave(2, "eno2", false, 0),
                  Upper(10, "bond0", "bond", 0), Upper(11, "bond0.20", "vlan", 10)});
    EXPECT_THAT(told.Take(), ElementsAre("kel.net.vmnic.linkstate.up(eno1)",
                                         "kel.net.pg.uplink.transition.up(eno1, bond0.20, 2)",
                                         "kel.net.vmnic.linkstate.down(eno2)",
                                         "kel.net.pg.uplink.transition.down(eno2, bond0.20, 1, 2)",
                                         "kel.net.lacp.uplink.transition.up(eno1, bond0)",
                                         "kel.net.lacp.lag.transition.up(bond0, bond0)"));
}

Link Plain(int index, const char *name, bool isSet, bool carrier = false, int master = 0)
{
    Link link;
    link.index = index;
    link.name = name;
    link.isSet = isSet;
    link.carrier = carrier;
    link.master = master;
    return link;
}

TEST(LinkModelTest, ALinkThatWasNeverUpCountsAsDownOnlyOnceItHasHadItsTime)
{
    Told told;
    LinkModel model(told.Taker(), [](const Link &) { return true; });
    model.SetAll({Plain(1, "eno1", true), Plain(2, "eno2", false)});
    EXPECT_THAT(told.Take(), IsEmpty());
    EXPECT_TRUE(model.IsUnsettled());
    model.Settle();
    EXPECT_THAT(told.Take(), ElementsAre("kel.net.vmnic.linkstate.down(eno1)"));
    EXPECT_FALSE(model.IsUnsettled());
}

TEST(LinkModelTest, NamesThatNeverComeAgainAreForgottenInTheEnd)
{
    LinkModel model([](const Row &, const std::vector<Value> &) {}, [](const Link &) { return true; });
    model.Set(Plain(1, "eno1", true, true));
    model.Set(Plain(1, "eno1", true, false));
    for (int machine = 2; machine < 6000; ++machine) {
        model.Set(Plain(machine, ("vnet" + std::to_string(machine)).c_str(), true, true));
        model.Remove(machine);
    }
    EXPECT_GT(5000U, model.Told().size());
    EXPECT_TRUE(model.Told().contains("nic eno1"));
}

TEST(LinkModelTest, ANicThatIsTakenOutOfASwitchIsNotCalledDown)
{
    Told told;
    LinkModel model(told.Taker(), [](const Link &link) { return link.name.starts_with("eno"); });
    Link nic = Plain(1, "eno1", true, true, 9);
    model.SetAll({nic, Upper(9, "br0", "bridge", 0)});
    nic.master = 0;
    model.Set(nic);
    EXPECT_THAT(told.Take(), IsEmpty()); // the port group is gone with its last uplink
    nic.name = "eno7";
    model.Set(nic);
    model.Remove(1);
    EXPECT_THAT(told.Take(),
                ElementsAre(HasSubstr("NIC eno1 is now called eno7"), HasSubstr("NIC eno7 was removed"),
                            "kel.net.vmnic.linkstate.down(eno7)"));
}

} // namespace
