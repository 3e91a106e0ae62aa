#include "inventory.h"

#include "stateFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <vector>

namespace {

using HostInventory::Path;

constexpr const char *kStateFile = "inventory";

std::string NameOf(const Path &path)
{
    std::string name;
    for (const std::string &part : path)
        name += (name.empty() ? "" : "/") + HostInventory::EscapeName(part);
    return name;
}

bool IsBelow(const Path &path, const Path &top)
{
    return path.size() > top.size() && std::equal(top.begin(), top.end(), path.begin());
}

void Complain(const Path &path, int error)
{
    if (error != 0 && error != ENOENT)
        fmt::print(stderr, "keld-sources: inventory entry {}: {}\n", NameOf(path), std::strerror(error));
}

} // namespace

Inventory::Inventory() : mOwn(ReadState<Entries>(kStateFile)) {}

void Inventory::Set(const Path &below, const Entries &entries)
{
    const Entries before = mOwn;
    std::vector<Path> gone;
    for (const auto &[path, text] : mOwn)
        if (IsBelow(path, below) && !entries.contains(path)) gone.push_back(path);
    for (const Path &path : gone)
        Remove(path);
    for (const auto &[path, text] : entries)
        Write(path, text);
    if (mOwn != before) Save();
}

bool Inventory::IsOurs(const Path &path)
{
    int error = 0;
    const auto now = HostInventory::ReadText(path, &error);
    if (!now && error == ENOENT) return true; // nobody's
    const auto own = mOwn.find(path);
    if (now && own != mOwn.end() && own->second == *now) return true;
    if (mForeign.insert(path).second)
        fmt::print(stderr, "keld-sources: inventory entry {} is somebody else's and stays as it is\n",
                   NameOf(path));
    return false;
}

void Inventory::Write(const Path &path, const std::string &text)
{
    if (!IsOurs(path)) {
        mOwn.erase(path);
        return;
    }
    const auto own = mOwn.find(path);
    if (own != mOwn.end() && own->second == text && HostInventory::ReadText(path) == text) return;
    const int error = HostInventory::WriteText(path, text);
    if (error == 0) mOwn[path] = text;
    Complain(path, error);
}

void Inventory::Remove(const Path &path)
{
    if (IsOurs(path)) Complain(path, HostInventory::Remove(path));
    mOwn.erase(path);
}

void Inventory::Save() const { WriteState(kStateFile, mOwn); }
