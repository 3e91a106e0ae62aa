// What runs on the host: virtual machines.
#ifndef KNXCTL_RESOURCEINFO_H
#define KNXCTL_RESOURCEINFO_H

#include <cstdint>
#include <memory>
#include <string>

namespace KnxCtl::Resource {

class VirtualMachine {
public:
    VirtualMachine(std::uint32_t worldId, std::string name);

    const std::string &GetName() const { return mName; }

    // Tells the virtual machine to stop: at once, or by asking its guest (graceful). Does not wait for
    // it. Throws NodeAdm::Lib::NodeAdmException when it cannot be told.
    void Terminate(bool graceful);

private:
    std::uint32_t mWorldId;
    std::string mName;
};

class ResourceInfoImpl {
public:
    // The virtual machine as it is now; never null. Throws NodeAdm::Lib::NodeAdmException when none of
    // that world ID runs. Any thread.
    std::unique_ptr<VirtualMachine> GetVirtualMachineByWorldId(std::uint32_t worldId) const;
};

} // namespace KnxCtl::Resource

#endif
