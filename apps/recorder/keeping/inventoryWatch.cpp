#include "inventoryWatch.h"

#include "failure.h"
#include "runDirectory.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <hostInventory.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace {

HostInventory::Path Split(const std::string &path)
{
    HostInventory::Path parts;
    for (size_t at = 0; at < path.size();) {
        size_t end = std::min(path.find('/', at), path.size());
        parts.push_back(HostInventory::UnescapeName(path.substr(at, end - at)).value_or(""));
        at = end + 1;
    }
    return parts;
}

} // namespace

InventoryWatch::InventoryWatch() : mFd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    if (!mFd)
        throw Failure(kExitFailed,
                      fmt::format("cannot watch the host inventory: {}", std::strerror(errno)));
}

void InventoryWatch::Look(const std::function<void(const std::string &, const std::string &, int)> &tell)
{
    char events[16 * 1024];
    while (read(mFd.Get(), events, sizeof events) > 0) {
    }
    Entries entries;
    // The run directory, in which the inventory may come to be later; then each folder before it is read.
    inotify_add_watch(mFd.Get(), RunDirectoryPath("").c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    Read("", &entries);

    for (const auto &[path, value] : entries) {
        auto known = mEntries.find(path);
        if (known == mEntries.end() || known->second != value) tell(path, value, mLooked ? 1 : 0);
    }
    for (const auto &[path, value] : mEntries)
        if (!entries.contains(path)) tell(path, value, 2);
    mEntries = std::move(entries);
    mLooked = true;
}

void InventoryWatch::Read(const std::string &folder, Entries *entries)
{
    std::string path = RunDirectoryPath("host") + (folder.empty() ? "" : "/" + folder);
    inotify_add_watch(mFd.Get(), path.c_str(),
                      IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_CLOSE_WRITE | IN_ONLYDIR);
    HostInventory::Path parts = Split(folder);
    for (const std::string &name : HostInventory::List(parts)) {
        std::string entry = (folder.empty() ? "" : folder + "/") + HostInventory::EscapeName(name);
        parts.push_back(name);
        if (HostInventory::IsDirectory(parts))
            Read(entry, entries);
        else if (auto value = HostInventory::ReadText(parts))
            (*entries)[entry] = *value;
        parts.pop_back();
    }
}
