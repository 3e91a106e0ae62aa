#include "knxctl/resourceInfo.h"

#include "inventoryText.h"

#include <optional>
#include <utility>

namespace KnxCtl::Resource {

VirtualMachine::VirtualMachine(std::uint32_t worldId, std::string name)
    : mWorldId(worldId), mName(std::move(name))
{
}

void VirtualMachine::Terminate(bool graceful)
{
    const std::string world = std::to_string(mWorldId);
    const int error = HostInventory::WriteText({"vms", world, "terminated"}, graceful ? "1" : "0");
    if (error != 0) Fail("Terminating virtual machine " + world, error);
}

std::unique_ptr<VirtualMachine> ResourceInfoImpl::GetVirtualMachineByWorldId(std::uint32_t worldId) const
{
    const std::string world = std::to_string(worldId);
    std::optional<std::string> name = HostInventory::ReadText({"vms", world, "name"});
    if (!name) throw NodeAdm::Lib::NodeAdmException("No virtual machine with world ID " + world);
    return std::make_unique<VirtualMachine>(worldId, std::move(*name));
}

} // namespace KnxCtl::Resource
