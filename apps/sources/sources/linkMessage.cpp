#include "linkMessage.h"

#include <array>
#include <linux/if.h>
#include <linux/if_bonding.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netlink/attr.h>
#include <netlink/msg.h>
#include <unistd.h>

namespace {

// What one nest of attributes says, by type; those of a wrong size make the whole nest wrong.
template <int kMax> struct Attributes {
    std::array<nlattr *, kMax + 1> found{};

    bool Read(nlattr *nest, std::array<nla_policy, kMax + 1> policy)
    {
        return nest == nullptr || nla_parse_nested(found.data(), kMax, nest, policy.data()) == 0;
    }
    std::string Text(int type) const
    {
        const auto *attribute = found[static_cast<std::size_t>(type)];
        return attribute == nullptr ? "" : nla_get_string(attribute);
    }
    std::uint8_t Byte(int type, std::uint8_t without = 0) const
    {
        const auto *attribute = found[static_cast<std::size_t>(type)];
        return attribute == nullptr ? without : nla_get_u8(attribute);
    }
    std::uint32_t Word(int type) const
    {
        const auto *attribute = found[static_cast<std::size_t>(type)];
        return attribute == nullptr ? 0 : nla_get_u32(attribute);
    }
    nlattr *Nest(int type) const { return found[static_cast<std::size_t>(type)]; }
};

template <int kMax>
std::array<nla_policy, kMax + 1> Policy(std::initializer_list<std::pair<int, std::uint16_t>> types)
{
    std::array<nla_policy, kMax + 1> policy{};
    for (const auto &[type, kind] : types)
        policy[static_cast<std::size_t>(type)].type = kind;
    return policy;
}

constexpr std::uint8_t kLacpInGroup = 0x10 | 0x20;   // collecting and distributing
constexpr std::uint8_t kLacpNoPartner = 0x40 | 0x80; // defaulted or expired

// What a bond says of its slave.
bool ReadSlave(nlattr *data, Link *link)
{
    Attributes<IFLA_BOND_SLAVE_MAX> slave;
    if (!slave.Read(data,
                    Policy<IFLA_BOND_SLAVE_MAX>({{IFLA_BOND_SLAVE_MII_STATUS, NLA_U8},
                                                 {IFLA_BOND_SLAVE_AD_ACTOR_OPER_PORT_STATE, NLA_U8}})))
        return false;
    link->fit = slave.Byte(IFLA_BOND_SLAVE_MII_STATUS, BOND_LINK_UP) == BOND_LINK_UP;
    if (slave.Nest(IFLA_BOND_SLAVE_AD_ACTOR_OPER_PORT_STATE) != nullptr) {
        const std::uint8_t state = slave.Byte(IFLA_BOND_SLAVE_AD_ACTOR_OPER_PORT_STATE);
        link->bundled = (state & kLacpInGroup) == kLacpInGroup;
        link->peerSilent = (state & kLacpNoPartner) != 0;
    }
    return true;
}

bool ReadInfo(nlattr *nest, Link *link)
{
    Attributes<IFLA_INFO_MAX> info;
    if (!info.Read(nest, Policy<IFLA_INFO_MAX>({{IFLA_INFO_KIND, NLA_STRING},
                                                {IFLA_INFO_DATA, NLA_NESTED},
                                                {IFLA_INFO_SLAVE_KIND, NLA_STRING},
                                                {IFLA_INFO_SLAVE_DATA, NLA_NESTED}})))
        return false;
    link->kind = info.Text(IFLA_INFO_KIND);
    if (link->kind == "bond") {
        Attributes<IFLA_BOND_MAX> bond;
        if (!bond.Read(info.Nest(IFLA_INFO_DATA), Policy<IFLA_BOND_MAX>({{IFLA_BOND_MODE, NLA_U8}})))
            return false;
        link->isLacp = bond.Byte(IFLA_BOND_MODE) == BOND_MODE_8023AD;
    }
    return info.Text(IFLA_INFO_SLAVE_KIND) != "bond" || ReadSlave(info.Nest(IFLA_INFO_SLAVE_DATA), link);
}

} // namespace

std::optional<Link> ReadLink(nlmsghdr *message)
{
    if (message->nlmsg_type != RTM_NEWLINK && message->nlmsg_type != RTM_DELLINK) return std::nullopt;
    if (!nlmsg_valid_hdr(message, sizeof(ifinfomsg))) return std::nullopt;
    const auto *head = static_cast<const ifinfomsg *>(nlmsg_data(message));
    if (head->ifi_family != AF_UNSPEC) return std::nullopt; // a bridge's own view of a port

    Attributes<IFLA_MAX> attributes;
    auto policy = Policy<IFLA_MAX>({{IFLA_IFNAME, NLA_STRING},
                                    {IFLA_MASTER, NLA_U32},
                                    {IFLA_LINK, NLA_U32},
                                    {IFLA_CARRIER_CHANGES, NLA_U32},
                                    {IFLA_LINKINFO, NLA_NESTED}});
    policy[IFLA_IFNAME].maxlen = IFNAMSIZ;
    if (nlmsg_parse(message, sizeof(ifinfomsg), attributes.found.data(), IFLA_MAX, policy.data()) != 0)
        return std::nullopt;

    Link link;
    link.index = head->ifi_index;
    link.name = attributes.Text(IFLA_IFNAME);
    link.isSet = (head->ifi_flags & IFF_UP) != 0;
    link.carrier = (head->ifi_flags & IFF_LOWER_UP) != 0;
    link.master = static_cast<int>(attributes.Word(IFLA_MASTER));
    link.lower = static_cast<int>(attributes.Word(IFLA_LINK));
    link.carrierChanges = attributes.Word(IFLA_CARRIER_CHANGES);
    if (!ReadInfo(attributes.Nest(IFLA_LINKINFO), &link)) return std::nullopt;
    if (link.kind != "vlan") link.lower = 0; // of others, it may be of another network namespace
    if (link.name.empty() || link.name.find('/') != std::string::npos) return std::nullopt;
    return link;
}

bool HasDevice(const std::string &name, const std::string &root)
{
    return access((root + "/sys/class/net/" + name + "/device").c_str(), F_OK) == 0;
}
