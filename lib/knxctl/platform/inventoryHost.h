// The host of the inventory, behind NodeAdm::HostFactory.
#ifndef KNXCTL_INVENTORYHOST_H
#define KNXCTL_INVENTORYHOST_H

#include <memory>

namespace NodeAdm {

class Host;
std::unique_ptr<Host> MakeInventoryHost();

} // namespace NodeAdm

#endif
