#include "systemLog.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

bool WriteFile(const char *path, const std::string &text)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) return false;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
}

// Mounts of its own; whoever is not root becomes it in a user namespace first.
bool OwnMounts()
{
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (unshare(CLONE_NEWNS | (user == 0 ? 0 : CLONE_NEWUSER)) != 0) return false;
    if (user != 0 && (!WriteFile("/proc/self/setgroups", "deny") ||
                      !WriteFile("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") ||
                      !WriteFile("/proc/self/gid_map", "0 " + std::to_string(group) + " 1")))
        return false;
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// An empty /dev with the null device in it.
bool OwnDev()
{
    const int null = open_tree(AT_FDCWD, "/dev/null", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC);
    if (null < 0 || mount("bench", "/dev", "tmpfs", 0, "mode=755") != 0) return false;
    const int place = open("/dev/null", O_CREAT | O_CLOEXEC, 0666);
    const bool moved = move_mount(null, "", AT_FDCWD, "/dev/null", MOVE_MOUNT_F_EMPTY_PATH) == 0;
    close(place);
    close(null);
    return moved;
}

void Drain(int fd)
{
    std::array<char, 8192> line;
    while (recv(fd, line.data(), line.size(), 0) > 0) {
    }
}

bool Listen()
{
    sockaddr_un address{AF_UNIX, "/dev/log"};
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return false;
    std::thread(Drain, fd).detach();
    return true;
}

} // namespace

std::string OwnSystemLog() { return OwnMounts() && OwnDev() && Listen() ? "" : std::strerror(errno); }
