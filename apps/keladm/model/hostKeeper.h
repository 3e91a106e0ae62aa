// The host inventory as it was before a scenario changed it.
#ifndef KELADM_HOSTKEEPER_H
#define KELADM_HOSTKEEPER_H

#include "hostEntries.h"
#include "scenario.h"

#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

// Puts back, when it ends, what the steps change and what the daemon writes in answer. What others change
// meanwhile stays.
class HostKeeper {
public:
    // Throws Failure.
    explicit HostKeeper(std::span<const ScenarioStep> steps);
    ~HostKeeper(); // tells what could not be put back
    HostKeeper(const HostKeeper &) = delete;
    HostKeeper &operator=(const HostKeeper &) = delete;

private:
    using Entries = std::map<HostInventory::Path, std::optional<std::string>>; // a directory has no text

    static void Collect(const HostInventory::Path &directory, Entries *entries);
    void AddChanged(std::span<const ScenarioStep> steps);
    bool Concerns(const HostInventory::Path &path) const;
    void TakeAway(HostInventory::Path path) const;
    void PutBack() const;

    std::vector<HostInventory::Path> mChanged;
    Entries mBefore;
};

#endif
