#include "keldUplinkBatch.h"

#include "keldHandler.h"

#include <knxctl/network.h>

#include <array>
#include <compare>
#include <exception>
#include <map>
#include <set>
#include <utility>
#include <vector>

using namespace KeldUplink;

namespace {

// ---- Two kinds of one item ------------------------------------------------------------------------

enum Loss { Connectivity, Redundancy, Degraded }; // with no uplink left, one, several

struct UplinkItem {
    std::string name;                 // a port group's, or a DVPort's: "switch/port"
    std::int32_t classificationCount; // uplinks left, or up again; 2 stands for several
    KeldOrigin origin;
};
using UplinkBatch = std::vector<UplinkItem>;
using ItemsByLoss = std::array<UplinkBatch, 3>;

struct LostItem {
    std::string nic, item;
    auto operator<=>(const LostItem &) const = default;
};
struct UplinkKind {
    bool hasVirtualSwitch;                    // asked for by the batch's first item
    std::array<std::set<LostItem>, 2> lost{}; // by Loss: reported and not yet restored, on all NICs
    UplinkBatch restoredRedundancy{};         // gathered until no redundancy is lost anywhere
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

// Any item that is still lost, of either kind; null when none is.
const LostItem *StillLost(Loss loss)
{
    for (const UplinkKind *kind : {&portGroups, &dvPorts})
        if (!kind->lost[loss].empty()) return &*kind->lost[loss].begin();
    return nullptr;
}

// Says the outcome of the items: "redundancy is still lost: Backup, vmnic1".
void Tell(const UplinkBatch &items, KeldOutcome outcome, const char *why, const std::string &name,
          const std::string &nic)
{
    KeldOrigins origins;
    for (const UplinkItem &item : items)
        origins.Add(item.origin);
    origins.Became(outcome, "%s: %s, %s", why, name.c_str(), nic.c_str());
}

// Sorts the items of a batch that went down by Loss; all of them are to be posted now. What has to come
// back is kept in mind.
ItemsByLoss SortLost(UplinkKind &kind, const std::string &nic, const UplinkBatch &batch)
{
    ItemsByLoss items;
    for (const UplinkItem &item : batch) {
        const auto &[name, uplinksLeft, origin] = item;
        if (uplinksLeft < 0) {
            Tell({item}, KeldOutcome::Discarded, "no number of uplinks left", name, nic);
            continue;
        }
        const Loss loss = uplinksLeft == 0 ? Connectivity : uplinksLeft == 1 ? Redundancy : Degraded;
        items[loss].push_back(item);
        if (loss != Degraded) kind.lost[loss].insert({nic, name});
    }
    return items;
}

// The same for a batch that came up: by Loss, the items that are to be posted as restored now. What has
// come back is no longer kept in mind.
//
// KEPT: items whose connectivity is back are named now or never. Those whose redundancy is back are named
// when no redundancy is lost any more on any NIC, under the switch of the batch that brings that about.
ItemsByLoss SortRestored(UplinkKind &kind, const std::string &nic, const UplinkBatch &batch)
{
    ItemsByLoss items;
    for (const UplinkItem &item : batch) {
        const auto &[name, uplinksUp, origin] = item;
        if (uplinksUp < 1) {
            Tell({item}, KeldOutcome::Discarded, "no uplink is up", name, nic);
            continue;
        }
        ForgetLost(Connectivity, nic, name);
        if (uplinksUp > 1) ForgetLost(Redundancy, nic, name);
        items[uplinksUp == 1 ? Connectivity : Redundancy].push_back(item);
    }
    if (const LostItem *lost = StillLost(Connectivity)) {
        Tell(items[Connectivity], KeldOutcome::Discarded, "connectivity is still lost", lost->item,
             lost->nic);
        items[Connectivity].clear();
    }
    UplinkBatch &gathered = kind.restoredRedundancy;
    gathered.insert(gathered.end(), items[Redundancy].begin(), items[Redundancy].end());
    if (const LostItem *lost = StillLost(Redundancy)) {
        Tell(items[Redundancy], KeldOutcome::StillOpen, "redundancy is still lost", lost->item, lost->nic);
        items[Redundancy].clear();
    } else {
        items[Redundancy] = std::exchange(gathered, {});
    }
    return items;
}

// Posts one text, which has the three words in an order of its own.
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
    ItemsByLoss (*sort)(UplinkKind &kind, const std::string &nic, const UplinkBatch &batch);
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

std::size_t AddToBatch(UplinkBatches &batches, const std::string &nic, const std::string &item,
                       std::int32_t count)
{
    UplinkBatch &batch = batches.byNic[nic];
    batch.push_back({item, count, KeldPresent()});
    return batch.size();
}

void ReportBatch(UplinkBatches &batches, const std::string &nic)
{
    const auto batch = batches.byNic.find(nic);
    if (batch == batches.byNic.end()) return;
    std::string virtualSwitch;
    if (batches.kind.hasVirtualSwitch) {
        const std::string &first = batch->second[0].name;
        virtualSwitch = VirtualSwitchOf(first);
        if (virtualSwitch.empty())
            return Tell(batch->second, KeldOutcome::StillOpen, "no virtual switch is found", first, nic);
    }
    const ItemsByLoss items = batches.sort(batches.kind, nic, batch->second);
    for (const Loss loss : {Connectivity, Redundancy, Degraded}) {
        if (items[loss].empty()) continue;
        KeldOrigins origins;
        std::string names;
        for (const UplinkItem &item : items[loss]) {
            names += (&item == &items[loss].front() ? "" : ", ") + item.name; // a name may be empty
            origins.Add(item.origin);
        }
        batches.events[loss]({virtualSwitch.c_str(), nic.c_str(), names.c_str()});
    }
    batches.byNic.erase(batch);
}

void HoldBatch(const UplinkBatches &batches, const std::string &nic, const char *why)
{
    const auto batch = batches.byNic.find(nic);
    if (batch != batches.byNic.end())
        Tell(batch->second, KeldOutcome::StillOpen, why, batch->second[0].name, nic);
}

void DropBatch(UplinkBatches &batches, const std::string &nic, const char *why)
{
    const auto batch = batches.byNic.find(nic);
    if (batch == batches.byNic.end()) return;
    Tell(batch->second, KeldOutcome::Discarded, why, batch->second[0].name, nic);
    batches.byNic.erase(batch);
}
