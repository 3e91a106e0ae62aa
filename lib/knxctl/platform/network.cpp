#include "knxctl/network.h"

#include "knxctl/nodeAdmException.h"

#include <hostInventory.h>
#include <optional>

namespace NodeAdm::Network {

std::unique_ptr<PortGroup> NetworkFactory::GetPortGroupByName(const std::string &name)
{
    std::optional<std::string> virtualSwitch = HostInventory::ReadText({"net", "portgroups", name});
    if (!virtualSwitch) throw Lib::NodeAdmException("No port group " + name);
    return std::make_unique<PortGroup>(std::move(*virtualSwitch));
}

} // namespace NodeAdm::Network
