#include "keldUplinkBatch.h"

#include "keldHandler.h"

#include <knxctl/network.h>

#include <array>
#include <compare>
#include <exception>
#include <map>
#include <set>
#include <vector>

using namespace KeldUplink;

namespace {

// ---- Two kinds of one item ------------------------------------------------------------------------

enum Loss { Connectivity, Redundancy, Degraded }; // with no uplink left, one, several
using NamesByLoss = std::array<std::vector<std::string>, 3>;

struct UplinkItem {
    std::string name;                 // a port group's, or a DVPort's: "switch/port"
    std::int32_t classificationCount; // uplinks left, or up again; 2 stands for several
};
using UplinkBatch = std::vector<UplinkItem>;

struct LostItem {
    std::string nic, item;
    auto operator<=>(const LostItem &) const = default;
};
struct UplinkKind {
    bool hasVirtualSwitch;                         // asked for by the batch's first item
    std::array<std::set<LostItem>, 2> lost{};      // by Loss: reported and not yet restored, on all NICs
    std::vector<std::string> restoredRedundancy{}; // gathered until no redundancy is lost anywhere
};

UplinkKind &portGroups = *new UplinkKind{.hasVirtualSwitch = true};
UplinkKind &dvPorts = *new UplinkKind{.hasVirtualSwitch = false};

// KEPT: the item is looked for among the port groups also when it is a DVPort; a DVPort is forgotten by
// its NIC alone. Looked for in its own table, a DVPort whose other uplink came up would be forgotten with
// its first NIC still down, and connectivity would be called restored sooner than receivers expect.
void ForgetLost(Loss loss, const std::string &nic, const std::string &item)
{
    std::erase_if(portGroups.lost[loss],
                  [&](const auto &lost) { return lost.nic == nic || lost.item == item; });
    std::erase_if(dvPorts.lost[loss], [&](const auto &lost) { return lost.nic == nic; });
}

bool NothingIsLost(Loss loss) { return portGroups.lost[loss].empty() && dvPorts.lost[loss].empty(); }

// Of a batch's items, by Loss, what is to be posted now. What has to come back is kept in mind.
NamesByLoss SortLost(UplinkKind &kind, const std::string &nic, const UplinkBatch &batch)
{
    NamesByLoss names;
    for (const auto &[name, uplinksLeft] : batch) {
        if (uplinksLeft < 0) continue;
        const Loss loss = uplinksLeft == 0 ? Connectivity : uplinksLeft == 1 ? Redundancy : Degraded;
        names[loss].push_back(name);
        if (loss != Degraded) kind.lost[loss].insert({nic, name});
    }
    return names;
}

// The same of a batch that came up. What comes back is forgotten.
//
// KEPT: items whose connectivity is back are named now or never, those whose redundancy is back are named
// when nothing is lost any more on any NIC, under the switch of the batch that brings that about.
NamesByLoss SortRestored(UplinkKind &kind, const std::string &nic, const UplinkBatch &batch)
{
    NamesByLoss names;
    for (const auto &[name, uplinksUp] : batch) {
        if (uplinksUp < 1) continue;
        ForgetLost(Connectivity, nic, name);
        if (uplinksUp == 1) {
            names[Connectivity].push_back(name);
        } else {
            ForgetLost(Redundancy, nic, name);
            kind.restoredRedundancy.push_back(name);
        }
    }
    if (!NothingIsLost(Connectivity)) names[Connectivity].clear();
    if (NothingIsLost(Redundancy)) names[Redundancy].swap(kind.restoredRedundancy);
    return names;
}

// Posts one text; each has its words in an order of its own.
enum Word { Switch, Nic, Items };
template <const EventText &kText, Word... kOrder> void Post(const std::array<const char *, 3> &words)
{
    KeldPost<kText>(words[kOrder]...);
}

// The virtual switch of a port group; empty when it cannot be found.
std::string VirtualSwitchOf(const std::string &portGroup)
{
    try {
        return NodeAdm::Network::NetworkFactory::GetPortGroupByName(portGroup)->GetVirtualSwitchName();
    } catch (const std::exception &) {
        return {};
    }
}

} // namespace

// ---- Batches --------------------------------------------------------------------------------------

struct UplinkBatches {
    UplinkKind &kind;
    NamesByLoss (*sort)(UplinkKind &kind, const std::string &nic, const UplinkBatch &batch);
    std::array<void (*)(const std::array<const char *, 3> &words), 3> events; // by Loss
    std::map<std::string, UplinkBatch> byNic{};
};
// clang-format off
UplinkBatches &pgDownBatches = *new UplinkBatches{portGroups, SortLost,
    {Post<kConnectivityLost, Switch, Nic, Items>, Post<kRedundancyLost, Switch, Nic, Items>,
     Post<kRedundancyDegraded, Switch, Nic, Items>}};
UplinkBatches &pgUpBatches = *new UplinkBatches{portGroups, SortRestored,
    {Post<kConnectivityRestored, Switch, Items, Nic>, Post<kRedundancyRestored, Switch, Items, Nic>}};
UplinkBatches &dvPortDownBatches = *new UplinkBatches{dvPorts, SortLost,
    {Post<kDvPortConnectivityLost, Items, Nic>, Post<kDvPortRedundancyLost, Items, Nic>,
     Post<kDvPortRedundancyDegraded, Items, Nic>}};
UplinkBatches &dvPortUpBatches = *new UplinkBatches{dvPorts, SortRestored,
    {Post<kDvPortConnectivityRestored, Items, Nic>, Post<kDvPortRedundancyRestored, Items, Nic>}};
// clang-format on

bool HasBatch(const UplinkBatches &batches, const std::string &nic) { return batches.byNic.contains(nic); }

void AddToBatch(UplinkBatches &batches, const std::string &nic, const std::string &item, std::int32_t count)
{
    batches.byNic[nic].push_back({item, count});
}

void ReportBatch(UplinkBatches &batches, const std::string &nic)
{
    const auto batch = batches.byNic.find(nic);
    if (batch == batches.byNic.end()) return;
    std::string virtualSwitch;
    if (batches.kind.hasVirtualSwitch) {
        virtualSwitch = VirtualSwitchOf(batch->second[0].name);
        if (virtualSwitch.empty()) return;
    }
    const NamesByLoss names = batches.sort(batches.kind, nic, batch->second);
    for (const Loss loss : {Connectivity, Redundancy, Degraded}) {
        if (names[loss].empty()) continue;
        std::string items = names[loss][0];
        for (std::size_t i = 1; i < names[loss].size(); ++i)
            items += ", " + names[loss][i];
        batches.events[loss]({virtualSwitch.c_str(), nic.c_str(), items.c_str()});
    }
    batches.byNic.erase(batch);
}

void DropBatch(UplinkBatches &batches, const std::string &nic) { batches.byNic.erase(nic); }
