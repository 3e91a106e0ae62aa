// Changes of the host inventory, whoever makes them.
#ifndef RECORDER_INVENTORYWATCH_H
#define RECORDER_INVENTORYWATCH_H

#include <functional>
#include <kltlibs/uniquefd.h>
#include <map>
#include <string>

class InventoryWatch {
public:
    InventoryWatch();

    // For a poll: readable when something has changed.
    int Get() const { return mFd.Get(); }

    // Looks at the inventory and tells each difference from the last look: path, value, and 0 for what is
    // there at the first look, 1 for what is set, 2 for what is removed. What changes twice between two
    // looks is told once.
    void Look(const std::function<void(const std::string &, const std::string &, int)> &tell);

private:
    using Entries = std::map<std::string, std::string>;
    void Read(const std::string &folder, Entries *entries);

    UniqueFd mFd;
    bool mLooked = false;
    Entries mEntries;
};

#endif
