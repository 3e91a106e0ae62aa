// A link as rtnetlink tells of it.
#ifndef SOURCES_LINKMESSAGE_H
#define SOURCES_LINKMESSAGE_H

#include "linkModel.h"

#include <optional>

struct nlmsghdr;

// Nothing for a message of another kind, or one that is not whole. What stands behind the interface is
// not in it.
std::optional<Link> ReadLink(nlmsghdr *message);

// Whether a device stands behind the interface, as sysfs below root says.
bool HasDevice(const std::string &name, const std::string &root);

#endif
