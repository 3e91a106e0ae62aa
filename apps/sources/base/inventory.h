// The entries of the host inventory that this program keeps, and only those.
//
// What it wrote is written down in the run directory, so that it is known again after a restart. An entry
// that is not its own, or that somebody has changed since, is left as it is for good, and named once in
// the log.
#ifndef SOURCES_INVENTORY_H
#define SOURCES_INVENTORY_H

#include "hostInventory.h"

#include <map>
#include <set>
#include <string>

// Event loop's thread only.
class Inventory {
public:
    Inventory(); // reads what earlier runs wrote down

    using Entries = std::map<HostInventory::Path, std::string>;

    // The entries below these paths are to be these: writes those that are new or changed, removes its own
    // that are no longer there. below is one source's own, such as {"net", "portgroups"}.
    void Set(const HostInventory::Path &below, const Entries &entries);

private:
    bool IsOurs(const HostInventory::Path &path);
    void Write(const HostInventory::Path &path, const std::string &text);
    void Remove(const HostInventory::Path &path);
    void Save() const;

    Entries mOwn; // as last written
    std::set<HostInventory::Path> mForeign;
};

#endif
