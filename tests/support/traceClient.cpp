#include "traceClient.h"

#include "waitFor.h"

#include <cerrno>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

TraceClient::TraceClient(const std::string &path) : mFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(mFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return;
    const int error = errno;
    close(mFd);
    throw std::system_error(error, std::generic_category(), path);
}

TraceClient::~TraceClient()
{
    if (mFd >= 0) close(mFd);
}

TraceClient::TraceClient(TraceClient &&other) noexcept
    : mFd(std::exchange(other.mFd, -1)), mRead(std::move(other.mRead)), mTaken(other.mTaken),
      mBytesRead(other.mBytesRead)
{
}

std::string TraceClient::Line()
{
    std::size_t newline;
    while ((newline = mRead.find('\n', mTaken)) == mRead.npos) {
        pollfd readable{.fd = mFd, .events = POLLIN, .revents = 0};
        if (poll(&readable, 1, static_cast<int>(std::chrono::milliseconds(kWaitLimit).count())) != 1)
            return "(nothing)";
        if (!Read()) return "(end)";
    }
    std::string line = mRead.substr(mTaken, newline - mTaken);
    mTaken = newline + 1;
    return line;
}

std::vector<std::string> TraceClient::History()
{
    std::vector<std::string> lines;
    for (std::string line = Line(); !line.empty() && line != "(end)" && line != "(nothing)"; line = Line())
        lines.push_back(std::move(line));
    return lines;
}

bool TraceClient::Fetch()
{
    pollfd readable{.fd = mFd, .events = POLLIN, .revents = 0};
    return poll(&readable, 1, 0) == 1 && Read();
}

bool TraceClient::Read()
{
    char bytes[65536];
    const ssize_t count = read(mFd, bytes, sizeof bytes);
    if (count <= 0) return false;
    mRead.erase(0, std::exchange(mTaken, 0)).append(bytes, static_cast<std::size_t>(count));
    mBytesRead += static_cast<std::size_t>(count);
    return true;
}
