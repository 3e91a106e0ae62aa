#include "linkModel.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace {

// clang-format off
enum { kLinkUp, kLinkDown, kUplinkUp, kUplinkDown, kLacpUp, kLacpDown, kLagUp, kLagDown, kPeerSilent, kLinkWarning, kLinkInfo };
constexpr Row kRows[] = {
    {"kel.net.vmnic.linkstate.up",        "%s",          "a NIC that was reported down has its link back"},
    {"kel.net.vmnic.linkstate.down",      "%s",          "a NIC loses its carrier, is set down or is removed"},
    {"kel.net.pg.uplink.transition.up",   "%s %s %d",    "the same NIC serves a bridge, bond, team or VLAN again"},
    {"kel.net.pg.uplink.transition.down", "%s %s %d %d", "such a NIC serves a bridge, bond, team or VLAN no more"},
    {"kel.net.lacp.uplink.transition.up",   "%s %s", "a slave of an LACP bond is part of the aggregation group again"},
    {"kel.net.lacp.uplink.transition.down", "%s %s", "a slave of an LACP bond has left the aggregation group"},
    {"kel.net.lacp.lag.transition.up",      "%s %s", "an LACP bond has a slave in its aggregation group again"},
    {"kel.net.lacp.lag.transition.down",    "%s %s", "an LACP bond has none left"},
    {"kel.net.lacp.uplink.peer.noresponse", "%s",    "no LACP partner answers on a slave whose link is up"},
    {"kel.external.warning", kExternalFormat, "a NIC is removed, or taken out of a switch; a link that went down and up too fast to be told one by one"},
    {"kel.external.info",    kExternalFormat, "a NIC has another name"},
};
// clang-format on

constexpr int kDepthMax = 8;           // of switches on switches
constexpr std::size_t kToldMax = 4096; // beyond it, only what is there is remembered

std::string NicKey(const std::string &nic) { return "nic " + nic; }
std::string UplinkKey(const std::string &nic, const std::string &group)
{
    return "uplink " + nic + " " + group; // neither name can hold a blank
}

} // namespace

std::span<const Row> LinkModel::Rows() { return kRows; }

LinkModel::LinkModel(Emit emit, std::function<bool(const Link &)> isNic)
    : mEmit(std::move(emit)), mIsNic(std::move(isNic))
{
}

void LinkModel::Set(const Link &link)
{
    if (const Link *known = Find(link.index); known != nullptr) {
        Link same = *known;
        same.carrierChanges = link.carrierChanges;
        Count(link, *known);
        if (same == link) { // as nearly all notices are
            mLinks[link.index] = link;
            return;
        }
    }
    Links links = mLinks;
    links[link.index] = link;
    Become(std::move(links));
}

void LinkModel::Remove(int index)
{
    Links links = mLinks;
    if (links.erase(index) != 0) Become(std::move(links));
}

void LinkModel::SetAll(const std::vector<Link> &all)
{
    Links links;
    for (const Link &link : all) {
        links[link.index] = link;
        if (const Link *known = Find(link.index); known != nullptr) Count(link, *known);
    }
    Become(std::move(links));
}

// Ups before downs: of two uplinks that changed places, there is one left at any time.
void LinkModel::Become(Links links)
{
    links.swap(mLinks);
    const Links &before = links;
    for (const auto &[index, link] : mLinks)
        if (mIsNic(link) && link.IsUp()) mSeenUp.insert(index);
    const PortGroups groupsBefore = std::exchange(mPortGroups, FindPortGroups());

    TellNames(before);
    for (const Way way : {Way::Up, Way::Down}) {
        TellNics(way, before);
        TellUplinks(way, groupsBefore);
    }
    TellMembers(groupsBefore);
    TellLacp();
    std::erase_if(mSeenUp, [&](int index) { return Find(index) == nullptr; });
    std::erase_if(mSeenBundled, [&](int index) { return Find(index) == nullptr; });
    if (mTold.size() > kToldMax) ForgetThoseThatAreGone();
}

// Names that never come again, such as those of virtual machines' interfaces, would pile up.
void LinkModel::ForgetThoseThatAreGone()
{
    std::set<std::string> names;
    for (const auto &[index, link] : mLinks)
        names.insert(link.name);
    std::erase_if(mTold, [&](const std::string &what) {
        const auto name = what.find(' ') + 1;
        return !names.contains(what.substr(name, what.find(' ', name) - name));
    });
}

void LinkModel::Settle()
{
    for (const auto &[index, link] : mLinks) {
        if (mIsNic(link) && link.isSet) mSeenUp.insert(index);
        if (link.bundled) mSeenBundled.insert(index);
    }
    Become(mLinks);
}

bool LinkModel::IsUnsettled() const
{
    return std::any_of(mLinks.begin(), mLinks.end(), [&](const auto &entry) {
        const auto &[index, link] = entry;
        return (mIsNic(link) && link.isSet && !mSeenUp.contains(index)) ||
               (link.bundled && !mSeenBundled.contains(index));
    });
}

std::map<std::string, std::string> LinkModel::Switches() const
{
    std::map<std::string, std::string> switches;
    for (const auto &[name, group] : mPortGroups)
        switches[name] = group.onSwitch;
    return switches;
}

// ---- What hangs on what ---------------------------------------------------------------------------

LinkModel::PortGroups LinkModel::FindPortGroups() const
{
    std::set<int> hungOn; // bonds and teams that have something better to name than themselves
    for (const auto &[index, link] : mLinks) {
        if (link.kind == "vlan") hungOn.insert(link.lower);
        if (const Link *master = Find(link.master); master != nullptr && master->IsSwitch())
            hungOn.insert(index);
    }
    PortGroups groups;
    for (const auto &[index, link] : mLinks) {
        const bool isBare = link.IsSwitch() && !hungOn.contains(index);
        if (link.kind != "bridge" && !isBare && !HangsOnSwitch(link)) continue;
        PortGroup group{SwitchOf(link).name, {}};
        AddUplinks(link, &group.uplinks, kDepthMax);
        if (!group.uplinks.empty()) groups.emplace(link.name, std::move(group));
    }
    return groups;
}

// A VLAN on a switch. One that is itself a bridge's port is named by the bridge.
bool LinkModel::HangsOnSwitch(const Link &link) const
{
    const Link *lower = link.kind == "vlan" ? Find(link.lower) : nullptr;
    return lower != nullptr && lower->IsSwitch() && Find(link.master) == nullptr;
}

// A bridge whose only way out is a bond, a team or a VLAN on one is a port group of that; any other is its
// own switch.
const Link &LinkModel::SwitchOf(const Link &group) const
{
    const Link *below = nullptr;
    if (group.kind == "vlan") below = Find(group.lower);
    if (group.kind == "bridge") {
        for (const auto &[index, port] : mLinks) {
            std::map<int, std::string> uplinks;
            if (port.master == group.index) AddUplinks(port, &uplinks, kDepthMax);
            if (uplinks.empty()) continue;
            if (below != nullptr) return group;
            below = port.kind == "vlan" ? Find(port.lower) : &port;
        }
    }
    return below != nullptr && below->IsSwitch() ? *below : group;
}

void LinkModel::AddUplinks(const Link &link, std::map<int, std::string> *uplinks, int depthMax) const
{
    if (mIsNic(link)) {
        uplinks->emplace(link.index, link.name);
        return;
    }
    if (depthMax == 0) return; // what the kernel does not allow
    if (link.kind == "vlan") {
        if (const Link *lower = Find(link.lower); lower != nullptr)
            AddUplinks(*lower, uplinks, depthMax - 1);
    } else if (link.IsSwitch()) {
        for (const auto &[index, port] : mLinks)
            if (port.master == link.index) AddUplinks(port, uplinks, depthMax - 1);
    }
}

const Link *LinkModel::Find(int index) const
{
    const auto found = mLinks.find(index);
    return found == mLinks.end() ? nullptr : &found->second;
}

// ---- What is told ---------------------------------------------------------------------------------

void LinkModel::TellNames(const Links &before)
{
    for (const auto &[index, old] : before) {
        const Link *now = Find(index);
        if (!mIsNic(old)) continue;
        if (now == nullptr) {
            mEmit(kRows[kLinkWarning], External("network", fmt::format("NIC {} was removed", old.name)));
        } else if (now->name != old.name) {
            mEmit(kRows[kLinkInfo],
                  External("network", fmt::format("NIC {} is now called {}", old.name, now->name)));
            std::set<std::string> told;
            for (const std::string &what : mTold) {
                const std::string uplink = UplinkKey(old.name, "");
                if (what == NicKey(old.name))
                    told.insert(NicKey(now->name));
                else if (what.starts_with(uplink))
                    told.insert(UplinkKey(now->name, what.substr(uplink.size())));
                else
                    told.insert(what);
            }
            mTold = std::move(told);
        }
    }
}

void LinkModel::TellNics(Way way, const Links &before)
{
    for (const auto &[index, link] : mLinks) {
        if (!mIsNic(link) || link.IsUp() != (way == Way::Up) || !mSeenUp.contains(index)) continue;
        if (Tell(way, NicKey(link.name))) mEmit(kRows[way == Way::Up ? kLinkUp : kLinkDown], {link.name});
    }
    if (way == Way::Up) return;
    for (const auto &[index, link] : before)
        if (Find(index) == nullptr && mSeenUp.contains(index) && Tell(way, NicKey(link.name)))
            mEmit(kRows[kLinkDown], {link.name});
}

void LinkModel::TellUplinks(Way way, const PortGroups &before)
{
    for (const auto &[name, group] : mPortGroups) {
        for (const auto &[index, nic] : group.uplinks) {
            const Link *link = Find(index);
            const bool isUp = link->IsUp() && link->fit;
            if (isUp == (way == Way::Up) && mSeenUp.contains(index))
                TellUplink(way, nic, name, group, group.uplinks.size());
        }
    }
    if (way == Way::Up) return;
    for (const auto &[name, group] : before) { // those whose NIC is no longer there
        const auto now = mPortGroups.find(name);
        for (const auto &[index, nic] : group.uplinks)
            if (Find(index) == nullptr && mSeenUp.contains(index))
                TellUplink(way, nic, name, now == mPortGroups.end() ? PortGroup{} : now->second,
                           group.uplinks.size());
    }
}

void LinkModel::TellUplink(Way way, const std::string &nic, const std::string &name, const PortGroup &now,
                           std::size_t uplinks)
{
    if (!Tell(way, UplinkKey(nic, name))) return;
    const std::int32_t up = CountUp(name, now);
    if (way == Way::Up)
        mEmit(kRows[kUplinkUp], {nic, name, up});
    else
        mEmit(kRows[kUplinkDown], {nic, name, up, static_cast<std::int32_t>(uplinks)});
}

// A NIC that was taken out of a switch, and may be well, is not down: no row says that.
void LinkModel::TellMembers(const PortGroups &before)
{
    for (const auto &[name, group] : before) {
        const auto now = mPortGroups.find(name);
        for (const auto &[index, nic] : group.uplinks) {
            const bool wasDown = mTold.contains(UplinkKey(nic, name));
            const Link *link = Find(index);
            if (link == nullptr || (now != mPortGroups.end() && now->second.uplinks.contains(index)))
                continue;
            mTold.erase(UplinkKey(nic, name));
            if (wasDown || now == mPortGroups.end()) continue;
            const auto text =
                fmt::format("NIC {} was taken out of {}: {} of {} uplinks are left", link->name, name,
                            CountUp(name, now->second), group.uplinks.size());
            mEmit(kRows[kLinkWarning], External("network", text));
        }
    }
}

void LinkModel::TellLacp()
{
    for (const auto &[bondIndex, bond] : mLinks) {
        if (!bond.isLacp) continue;
        bool anyBundled = false, anySeen = false, anySilent = false;
        for (const auto &[index, slave] : mLinks) {
            if (slave.master != bondIndex || !slave.bundled) continue;
            if (*slave.bundled) mSeenBundled.insert(index);
            if (!mSeenBundled.contains(index)) continue;
            anySeen = true;
            anyBundled |= *slave.bundled;
            anySilent |= slave.peerSilent && slave.IsUp();
            const Way way = *slave.bundled ? Way::Up : Way::Down;
            if (Tell(way, "bundled " + slave.name + " " + bond.name))
                mEmit(kRows[way == Way::Up ? kLacpUp : kLacpDown], {slave.name, bond.name});
        }
        if (!anySeen) continue;
        const Way way = anyBundled ? Way::Up : Way::Down;
        if (Tell(way, "lag " + bond.name))
            mEmit(kRows[way == Way::Up ? kLagUp : kLagDown], {bond.name, bond.name});
        if (Tell(anySilent ? Way::Down : Way::Up, "peer " + bond.name) && anySilent)
            mEmit(kRows[kPeerSilent], {bond.name});
    }
}

bool LinkModel::Tell(Way way, const std::string &what)
{
    return way == Way::Down ? mTold.insert(what).second : mTold.erase(what) != 0;
}

// Those that the daemon takes to be up, while it is being told one change after the other.
std::int32_t LinkModel::CountUp(const std::string &name, const PortGroup &group) const
{
    return static_cast<std::int32_t>(
        std::count_if(group.uplinks.begin(), group.uplinks.end(), [&](const auto &uplink) {
            return mSeenUp.contains(uplink.first) && !mTold.contains(UplinkKey(uplink.second, name));
        }));
}

// The kernel joins changes that follow one another too fast, and drops notices when nobody reads them.
void LinkModel::Count(const Link &link, const Link &before)
{
    const std::uint32_t changes = link.carrierChanges - before.carrierChanges;
    const std::uint32_t seen = link.carrier != before.carrier ? 1 : 0;
    if (mIsNic(link) && changes > seen + 1) mCoalesced[link.name] += (changes - seen) / 2;
}

void LinkModel::TellCoalesced()
{
    for (const auto &[nic, times] : mCoalesced) {
        const auto text = fmt::format(
            "the link of NIC {} also went down and up again {} times, too fast to be told one by one", nic,
            times);
        mEmit(kRows[kLinkWarning], External("network", text));
    }
    mCoalesced.clear();
}
