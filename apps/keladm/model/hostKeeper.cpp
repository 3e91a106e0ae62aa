#include "hostKeeper.h"

#include "console.h"

#include <algorithm>
#include <cerrno>
#include <fmt/format.h>

HostKeeper::HostKeeper(std::span<const ScenarioStep> steps)
{
    AddChanged(steps);
    Collect({}, &mBefore);
}

HostKeeper::~HostKeeper()
{
    try {
        PutBack();
    } catch (const std::exception &error) {
        Tell("replay", fmt::format("the inventory is not as it was: {}", error.what()));
    }
}

void HostKeeper::PutBack() const
{
    Entries now;
    Collect({}, &now);
    for (const auto &[path, text] : now) { // parents come first, with what is in them
        auto before = mBefore.find(path);
        bool otherKind = before != mBefore.end() && before->second.has_value() != text.has_value();
        if (Concerns(path) && (before == mBefore.end() || otherKind)) TakeAway(path);
    }
    for (const auto &[path, text] : mBefore) {
        auto present = now.find(path);
        if (!Concerns(path) || (present != now.end() && present->second == text)) continue;
        ApplyHostChange({text ? HostVerb::Set : HostVerb::MakeDirectory, path, text.value_or("")});
    }
}

// Removes what was not there before, and the directories above it that were not there either, unless
// somebody else has put something into them.
void HostKeeper::TakeAway(HostInventory::Path path) const
{
    int error = HostInventory::Remove(path);
    if (error != 0 && error != ENOENT) throw HostFailure(path, error);
    for (path.pop_back(); !path.empty() && !mBefore.contains(path); path.pop_back()) {
        if (!HostInventory::List(path).empty()) return;
        HostInventory::Remove(path);
    }
}

void HostKeeper::Collect(const HostInventory::Path &directory, Entries *entries)
{
    for (std::string &name : HostInventory::List(directory)) {
        auto path = directory;
        path.push_back(std::move(name));
        int error = 0;
        auto text = HostInventory::ReadText(path, &error);
        if (!text && error != EISDIR && error != ENOENT) throw HostFailure(path, error);
        if (error == EISDIR) Collect(path, entries);
        if (error != ENOENT) entries->emplace(std::move(path), std::move(text));
    }
}

void HostKeeper::AddChanged(std::span<const ScenarioStep> steps)
{
    for (const ScenarioStep &step : steps) {
        if (auto change = std::get_if<HostChange>(&step.action)) mChanged.push_back(change->path);
        if (auto repeat = std::get_if<RepeatAction>(&step.action)) AddChanged(repeat->steps);
    }
}

bool HostKeeper::Concerns(const HostInventory::Path &path) const
{
    auto isBelow = [&](const HostInventory::Path &changed) {
        return changed.size() <= path.size() && std::equal(changed.begin(), changed.end(), path.begin());
    };
    return IsWrittenByDaemon(path) || std::ranges::any_of(mChanged, isBelow);
}
