#include "eventListener.h"

#include "failure.h"
#include "runDirectory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int kBacklog = 1024;

[[noreturn]] void Fail(const std::string &path, const char *what)
{
    throw Failure(kExitFailed, fmt::format("{}: {}: {}", path, what, std::strerror(errno)));
}

UniqueFd NewSocket() { return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

// Removes a socket that an earlier receiver left behind; only asking it tells whether one still listens.
void RemoveStale(const std::string &path, const sockaddr_un &address)
{
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0) return;
    if (!S_ISSOCK(status.st_mode))
        throw Failure(kExitFailed, fmt::format("{}: in the way, and no socket", path));

    UniqueFd probe = NewSocket();
    if (connect(probe.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 ||
        errno == EAGAIN)
        throw Failure(kExitNoPeer, fmt::format("{}: a receiver is listening there already", path));
    if (errno != ECONNREFUSED && errno != ENOENT) Fail(path, "cannot ask who listens there");
    if (unlink(path.c_str()) != 0 && errno != ENOENT) Fail(path, "cannot remove the socket left behind");
}

ReceivedRecord Decode(std::string bytes, const std::string &trouble)
{
    ReceivedRecord record;
    EventRecord event;
    std::string error;
    if (EventRecord_Decode(std::as_bytes(std::span(bytes)), &event, &error) == 0)
        record.event = std::move(event);
    else
        record.malformed = trouble.empty() ? error : trouble + "; " + error;
    record.bytes = std::move(bytes);
    return record;
}

} // namespace

EventListener::EventListener(ListenerLimits limits)
    : mLimits(limits), mPath(RunDirectoryPath("carad-pling.sock"))
{
    std::error_code error;
    std::filesystem::create_directories(RunDirectoryPath(""), error);
    if (error) throw Failure(kExitFailed, fmt::format("{}: {}", RunDirectoryPath(""), error.message()));

    sockaddr_un address = SocketAddress(mPath);
    RemoveStale(mPath, address);
    mListener = NewSocket();
    struct stat status {};
    if (bind(mListener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        stat(mPath.c_str(), &status) != 0 || listen(mListener.Get(), kBacklog) != 0)
        Fail(mPath, "cannot listen");
    mDevice = status.st_dev;
    mInode = status.st_ino;
}

EventListener::~EventListener()
{
    struct stat status {};
    if (stat(mPath.c_str(), &status) == 0 && status.st_dev == mDevice && status.st_ino == mInode)
        unlink(mPath.c_str());
}

void EventListener::SetDeaf(bool deaf)
{
    mFillers.clear();
    if (listen(mListener.Get(), deaf ? 0 : kBacklog) != 0) Fail(mPath, "cannot listen");
    if (!deaf) return;
    sockaddr_un address = SocketAddress(mPath);
    for (;;) {
        UniqueFd filler = NewSocket();
        if (!filler) Fail(mPath, "cannot be made deaf");
        if (connect(filler.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
            return;
        mFillers.push_back(std::move(filler));
    }
}

std::vector<ReceivedRecord> EventListener::Wait(Clock::time_point until, std::span<pollfd> others)
{
    std::vector<ReceivedRecord> records;
    for (;;) {
        auto now = Clock::now();
        bool exhausted = now < mAcceptAgain;
        bool accepting = !exhausted && mFillers.empty() && mConnections.size() < mLimits.connectionsMax;
        auto wake = exhausted ? std::min(until, mAcceptAgain) : until;

        std::vector<pollfd> fds(others.begin(), others.end());
        fds.push_back({accepting ? mListener.Get() : -1, POLLIN, 0});
        for (const Connection &connection : mConnections) {
            fds.push_back({connection.fd.Get(), POLLIN, 0});
            wake = std::min(wake, connection.lastHeard + IdleLimit());
        }
        PollUntil(fds, wake);

        now = Clock::now();
        auto next = fds.begin();
        bool otherReady = false;
        for (pollfd &other : others) {
            other.revents = (next++)->revents;
            otherReady = otherReady || other.revents != 0;
        }
        if ((next++)->revents != 0) Accept(now);

        // Those just accepted stand behind the polled ones and have mostly brought their record along.
        auto idle = IdleLimit();
        for (auto connection = mConnections.begin(); connection != mConnections.end();) {
            bool ready = next == fds.end() || (next++)->revents != 0;
            bool ended = ready && !Read(*connection, now);
            std::string trouble;
            if (connection->bytes.size() > mLimits.bytesMax)
                trouble = fmt::format("more than {} bytes", mLimits.bytesMax);
            else if (!ended && now - connection->lastHeard >= idle)
                trouble = "the connection stayed open and silent";
            if (!ended && trouble.empty()) {
                ++connection;
                continue;
            }
            if (!connection->bytes.empty())
                records.push_back(Decode(std::move(connection->bytes), trouble));
            connection = mConnections.erase(connection);
        }
        if (!records.empty() || otherReady || now >= until) return records;
    }
}

void EventListener::Accept(Clock::time_point now)
{
    while (mConnections.size() < mLimits.connectionsMax) {
        UniqueFd fd(accept4(mListener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd) {
            bool exhausted = errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS;
            if (exhausted) mAcceptAgain = now + std::chrono::milliseconds(100);
            return;
        }
        mConnections.push_back({std::move(fd), {}, now});
    }
}

bool EventListener::Read(Connection &connection, Clock::time_point now)
{
    char buffer[16 * 1024];
    while (connection.bytes.size() <= mLimits.bytesMax) {
        ssize_t count = read(connection.fd.Get(), buffer, sizeof buffer);
        if (count == 0) return false;
        if (count < 0) return errno == EAGAIN || errno == EINTR;
        connection.bytes.append(buffer, static_cast<size_t>(count));
        connection.lastHeard = now;
    }
    return true;
}

std::chrono::milliseconds EventListener::IdleLimit() const
{
    return mConnections.size() < mLimits.connectionsMax ? mLimits.idle : mLimits.idleWhenFull;
}
