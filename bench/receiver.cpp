#include "receiver.h"

#include <cerrno>
#include <kltlibs/rundir.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr int kBacklog = 4096; // so that the sender never waits for it
constexpr int kLimitMilliseconds = 30'000;

} // namespace

Receiver::Receiver() : mFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    KltRunDir_Path("carad-pling.sock", address.sun_path, sizeof address.sun_path);
    unlink(address.sun_path);
    if (bind(mFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(mFd, kBacklog) != 0)
        throw std::system_error(errno, std::generic_category(), address.sun_path);
}

Receiver::~Receiver() { close(mFd); }

void Receiver::Take() const
{
    pollfd coming{mFd, POLLIN, 0};
    if (poll(&coming, 1, kLimitMilliseconds) != 1) throw std::runtime_error("an event has not come");
    const int fd = accept4(mFd, nullptr, nullptr, SOCK_CLOEXEC);
    char record[4096];
    while (read(fd, record, sizeof record) > 0) {
    }
    close(fd);
}
