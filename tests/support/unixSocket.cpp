#include "unixSocket.h"

#include <cerrno>
#include <fstream>
#include <kltlibs/rundir.h>
#include <stdexcept>
#include <sys/un.h>
#include <system_error>

namespace {

struct Address : sockaddr_un {
    explicit Address(const std::string &path) : sockaddr_un{AF_UNIX, {}}
    {
        path.copy(sun_path, sizeof sun_path - 1);
    }
    const sockaddr *Get() const { return reinterpret_cast<const sockaddr *>(this); }
};

UniqueFd Require(bool good, UniqueFd fd, const std::string &path)
{
    if (!good) throw std::system_error(errno, std::generic_category(), path);
    return fd;
}

} // namespace

std::string RunPath(const std::string &name)
{
    char path[KLT_RUN_PATH_BYTES];
    if (KltRunDir_Path(name.c_str(), path, sizeof path) != 0) throw std::runtime_error("no run directory");
    return path;
}

UniqueFd ConnectTo(const std::string &path, int type)
{
    const Address address(path);
    UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    const bool good = connect(fd.Get(), address.Get(), sizeof(sockaddr_un)) == 0;
    return Require(good, std::move(fd), path);
}

UniqueFd ListenAt(const std::string &path, int backlog)
{
    const Address address(path);
    unlink(address.sun_path);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const bool good =
        bind(fd.Get(), address.Get(), sizeof(sockaddr_un)) == 0 && listen(fd.Get(), backlog) == 0;
    return Require(good, std::move(fd), path);
}

UniqueFd BindDatagramSocket(const std::string &path)
{
    const Address address(path);
    unlink(address.sun_path);
    UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const bool good = bind(fd.Get(), address.Get(), sizeof(sockaddr_un)) == 0;
    return Require(good, std::move(fd), path);
}

bool IsListening(const std::string &path)
{
    const std::string end = " " + path;
    // Address, references, protocol, flags, type, state, inode, path.
    std::ifstream sockets("/proc/net/unix");
    for (std::string line; std::getline(sockets, line);)
        if (line.ends_with(end) && line.find(" 00010000 ") != line.npos) return true;
    return false;
}
