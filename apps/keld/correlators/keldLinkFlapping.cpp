#include "keldLinkFlapping.h"

#include "keldHandler.h"

#include <knxctl/advancedOption.h>
#include <knxctl/sysinfo.h>

#include <algorithm>
#include <exception>
#include <map>
#include <vector>

namespace {

// By NIC, in wall-clock seconds.
auto &linkDownsOf = *new std::map<std::string, std::vector<std::uint64_t>>;

} // namespace

LinkFlapping CheckLinkFlapping(const std::string &nic)
{
    const std::uint64_t now = KeldNowSeconds();
    std::vector<std::uint64_t> &history = linkDownsOf[nic];
    history.push_back(now);
    history.erase(history.begin(), std::ranges::find_if(history, [&](std::uint64_t linkDown) {
                      return linkDown >= now - kFlapWindowSeconds;
                  }));
    const std::size_t linkDowns = history.size();

    std::uint64_t threshold = 0;
    try {
        threshold = KnxCtl::Adv::AdvancedIntegerOptionImpl({"Net"}, "LinkFlappingThreshold").GetValue();
    } catch (const std::exception &) {
        return {linkDowns, "Net/LinkFlappingThreshold cannot be read"};
    }
    if (threshold == 0) return {linkDowns, "Net/LinkFlappingThreshold is 0, never"};
    if (threshold >= linkDowns) return {linkDowns, "not above Net/LinkFlappingThreshold"};

    KnxCtl::Util::Sysinfo linkFlapping(KIF_NODE_net_pNics_linkFlapping);
    linkFlapping.AddInstancePath(nic);
    linkFlapping.AddInput(1);
    if (linkFlapping.Set() != KNX_OK) return {linkDowns, "flapping, but cannot be taken down"};
    KeldPost<kLinkFlapping>(nic.c_str());
    linkDownsOf.erase(nic);
    return {linkDowns, "flapping, taken down"};
}
