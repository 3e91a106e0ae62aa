#include "traceConnection.h"

#include "failure.h"
#include "runDirectory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr auto kTryAgainAfter = std::chrono::milliseconds(200);

bool NobodyThere(int error) { return error == ENOENT || error == ECONNREFUSED; }

std::string TimeOf(const std::string &line) { return line.substr(0, line.find(',')); }

} // namespace

TraceConnection::TraceConnection()
{
    int error = Connect();
    if (NobodyThere(error)) throw Failure(kExitNoPeer, NoDaemonText());
    if (error != 0)
        throw Failure(kExitFailed,
                      fmt::format("{}: {}", RunDirectoryPath("keld-trace.sock"), std::strerror(error)));
}

int TraceConnection::Connect()
{
    sockaddr_un address = SocketAddress(RunDirectoryPath("keld-trace.sock"));
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd || connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return errno;
    ucred peer{};
    socklen_t size = sizeof peer;
    getsockopt(fd.Get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
    mSameDaemon = peer.pid == mDaemon;
    mDaemon = peer.pid;
    mFd = std::move(fd);
    return 0;
}

std::optional<std::string> TraceConnection::Proceed()
{
    if (!mFd) return TryAgain();
    char buffer[64 * 1024];
    ssize_t count = read(mFd.Get(), buffer, sizeof buffer);
    if (count > 0) {
        mSplitter.Append({buffer, static_cast<size_t>(count)});
        return std::nullopt;
    }
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return std::nullopt;
    mFd.Reset();
    mEnded = Clock::now();
    mSplitter = {}; // what has come of a line that was cut comes again, or is missing
    mResumed.clear();
    mResumedNext = 0;
    mPhase = Resuming;
    if (auto again = TryAgain()) return again;
    return fmt::format("the daemon (process {}) has ended; waiting for the next", mDaemon);
}

std::optional<std::string> TraceConnection::TryAgain()
{
    int error = Connect();
    if (error != 0) {
        if (!NobodyThere(error) && error != EAGAIN)
            throw Failure(kExitFailed, fmt::format("cannot connect again: {}", std::strerror(error)));
        mAgain = Clock::now() + kTryAgainAfter;
        return std::nullopt;
    }
    if (mSameDaemon)
        return fmt::format("the daemon (process {}) has cut this connection off, as it does when 16 MiB of "
                           "lines wait for a client that does not read; connected again",
                           mDaemon);
    std::chrono::duration<double> away = Clock::now() - mEnded;
    return fmt::format("connected to another daemon (process {}), {:.1f} s after the last connection ended",
                       mDaemon, away.count());
}

std::optional<TraceConnection::Item> TraceConnection::Next()
{
    if (mPhase == Resuming) return Resume();
    if (mResumedNext < mResumed.size()) return Item{mResumed[mResumedNext++], false, "", "", false};
    auto line = mSplitter.Next();
    if (line && line->empty() && mPhase == History) { // the blank line before what happens now
        mPhase = Live;
        line = mSplitter.Next();
    }
    if (!line) return std::nullopt;
    Note(*line);
    return Item{*line, false, "", "", mPhase == History};
}

// Collects the whole history; what the connection before has brought is not shown again.
std::optional<TraceConnection::Item> TraceConnection::Resume()
{
    for (;;) {
        auto line = mSplitter.Next();
        if (!line) return std::nullopt;
        if (line->empty()) break;
        mResumed.push_back(std::move(*line));
    }
    mPhase = Live;
    auto seen = mLast.empty() ? mResumed.end() : std::ranges::find(mResumed, mLast);
    bool whole = seen != mResumed.end() || (mLast.empty() && mSameDaemon);
    if (seen != mResumed.end()) {
        for (size_t times = mLastTimes; times > 0 && seen != mResumed.end() && *seen == mLast; times--)
            ++seen;
        mResumedNext = static_cast<size_t>(seen - mResumed.begin());
    }
    std::string after = TimeOf(mLast), until = mResumed.empty() ? "" : TimeOf(mResumed.front());
    for (size_t i = mResumedNext; i < mResumed.size(); i++)
        Note(mResumed[i]);
    if (whole) return Next();
    return Item{mSameDaemon ? "the connection was cut off for not being read" : "the daemon was restarted",
                true, after, until, false};
}

void TraceConnection::Note(const std::string &line)
{
    mLastTimes = line == mLast ? mLastTimes + 1 : 1;
    mLast = line;
}
