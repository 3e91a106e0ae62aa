// The host's links as the daemon is told of them: which NIC is up, and which port groups have how many
// uplinks left.
//
// Knows nothing of how links are read. Whatever it is given, one notice or the whole state at once, it
// compares with what has been told, and tells the difference: no transition twice, none missing.
#ifndef SOURCES_LINKMODEL_H
#define SOURCES_LINKMODEL_H

#include "row.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

// One network interface.
struct Link {
    int index = 0;
    std::string name;
    std::string kind;       // "bridge", "bond", "team", "vlan" ...; empty for a plain device
    int master = 0;         // the index of what it is a port or slave of; 0: of nothing
    int lower = 0;          // of a VLAN: what it stands on
    bool hasDevice = false; // a device stands behind it
    bool isSet = false;     // it is meant to be up
    bool carrier = false;
    bool fit = true;                  // its bond has not taken it out of use
    std::uint32_t carrierChanges = 0; // counted by the kernel, up and down each
    bool isLacp = false;              // of a bond: it speaks LACP
    std::optional<bool> bundled;      // of a slave of such a bond: part of the aggregation group
    bool peerSilent = false;          // likewise: no LACP partner answers

    bool operator==(const Link &) const = default;
    bool IsUp() const { return isSet && carrier; }
    bool IsSwitch() const { return kind == "bridge" || kind == "bond" || kind == "team"; }
};

class LinkModel {
public:
    // isNic says which interfaces are physical NICs of this host.
    LinkModel(Emit emit, std::function<bool(const Link &)> isNic);

    static std::span<const Row> Rows(); // all that it emits

    // One notice; others than NICs and switches need no filtering. Or the whole state, at the start and
    // after notices were lost.
    void Set(const Link &link);
    void Remove(int index);
    void SetAll(const std::vector<Link> &links);

    // A NIC counts as down only once it was seen up: when a host starts, links come up one after the other.
    // This ends the waiting for those that are still down.
    void Settle();
    bool IsUnsettled() const; // there is a NIC that Settle would find down

    // Tells of links that went down and up again in between, as the kernel's counters say.
    void TellCoalesced();
    bool HasCoalesced() const { return !mCoalesced.empty(); }

    // Each port group with its switch, for the inventory.
    std::map<std::string, std::string> Switches() const;

    // What the daemon was told is down, to be known again after a restart: before the first links.
    const std::set<std::string> &Told() const { return mTold; }
    void SetTold(std::set<std::string> told) { mTold = std::move(told); }

private:
    struct PortGroup {
        std::string onSwitch;
        std::map<int, std::string> uplinks; // NICs: index and name
    };
    using Links = std::map<int, Link>;
    using PortGroups = std::map<std::string, PortGroup>;
    enum class Way { Up, Down };

    void Become(Links links);
    void ForgetThoseThatAreGone();
    PortGroups FindPortGroups() const;
    bool HangsOnSwitch(const Link &link) const;
    const Link &SwitchOf(const Link &group) const;
    void AddUplinks(const Link &link, std::map<int, std::string> *uplinks, int depthMax) const;
    const Link *Find(int index) const;

    void Count(const Link &link, const Link &before);
    void TellNames(const Links &before);
    void TellNics(Way way, const Links &before);
    void TellUplinks(Way way, const PortGroups &before);
    void TellUplink(Way way, const std::string &nic, const std::string &name, const PortGroup &now,
                    std::size_t uplinks);
    void TellMembers(const PortGroups &before);
    void TellLacp();
    std::int32_t CountUp(const std::string &name, const PortGroup &group) const;
    bool Tell(Way way, const std::string &what); // true when it is news

    const Emit mEmit;
    const std::function<bool(const Link &)> mIsNic;
    Links mLinks;
    PortGroups mPortGroups;
    std::set<int> mSeenUp, mSeenBundled;             // or settled
    std::set<std::string> mTold;                     // what is down
    std::map<std::string, std::uint32_t> mCoalesced; // by NIC: times down
};

#endif
