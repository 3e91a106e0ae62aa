// The host's virtual networks.
#ifndef KNXCTL_NETWORK_H
#define KNXCTL_NETWORK_H

#include <memory>
#include <string>
#include <utility>

namespace NodeAdm::Network {

class PortGroup {
public:
    explicit PortGroup(std::string virtualSwitchName) : mVirtualSwitchName(std::move(virtualSwitchName)) {}

    // The standard virtual switch that the port group belongs to.
    const std::string &GetVirtualSwitchName() const { return mVirtualSwitchName; }

private:
    std::string mVirtualSwitchName;
};

class NetworkFactory {
public:
    // The port group as it is now; never null. Throws NodeAdm::Lib::NodeAdmException when the host has
    // none of that name. Any thread.
    static std::unique_ptr<PortGroup> GetPortGroupByName(const std::string &name);
};

} // namespace NodeAdm::Network

#endif
