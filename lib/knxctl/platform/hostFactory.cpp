// Alone in its file, so that a program can define the factory itself: the tests do, to let look-ups
// fail.

#include "knxctl/hostFactory.h"

#include "inventoryHost.h"

std::unique_ptr<NodeAdm::Host> NodeAdm::HostFactory::GetHost() { return MakeInventoryHost(); }
