#include "labProcess.h"

#include "failure.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/socket.h>

LabLog::LabLog() : mFd(memfd_create("log", MFD_CLOEXEC))
{
    // Appending: the daemon's threads must not write over each other.
    if (!mFd || fcntl(mFd.Get(), F_SETFL, O_APPEND) != 0)
        throw Failure(kExitFailed, fmt::format("cannot keep a log: {}", std::strerror(errno)));
}

std::vector<std::string> LabLog::TakeLines()
{
    char buffer[16 * 1024];
    for (ssize_t count; (count = pread(mFd.Get(), buffer, sizeof buffer, mTaken)) > 0; mTaken += count)
        mRest.append(buffer, static_cast<size_t>(count));

    std::vector<std::string> lines;
    for (size_t end; (end = mRest.find('\n')) != std::string::npos; mRest.erase(0, end + 1)) {
        std::string_view line = std::string_view(mRest).substr(0, end);
        constexpr std::string_view kTime = "2026-03-01T12:00:00.000Z: ";
        if (line.size() >= kTime.size() && line.substr(kTime.size() - 3, 3) == "Z: ")
            line.remove_prefix(kTime.size());
        lines.emplace_back(line);
    }
    return lines;
}

// [NetCorrelator] 1772366400000000us: [kel.net.vmnic.linkstate.down] ...
std::optional<LabTrace> ParseLabTrace(std::string_view line)
{
    size_t nameEnd = line.find("] ");
    if (!line.starts_with('[') || nameEnd == std::string_view::npos) return std::nullopt;
    LabTrace trace{std::string(line.substr(1, nameEnd - 1)), 0, ""};
    std::string_view rest = line.substr(nameEnd + 2);
    auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), trace.timestamp);
    rest.remove_prefix(static_cast<size_t>(end - rest.data()));
    size_t idEnd = rest.find(']');
    if (error != std::errc() || !rest.starts_with("us: [") || idEnd == std::string_view::npos)
        return std::nullopt;
    trace.id = rest.substr(5, idEnd - 5);
    return trace;
}

LabProcess::LabProcess(const std::string &program, const std::string &errorFile, std::uint64_t seconds,
                       int logFd)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        throw Failure(kExitFailed, fmt::format("cannot start {}: {}", program, std::strerror(errno)));
    mChannel = UniqueFd(ends[0]);
    UniqueFd theirs(ends[1]);
    mDaemon.emplace(program, errorFile,
                    Inheritance{{{"KELD_LAB_FD", std::to_string(theirs.Get())},
                                 {"KELD_LAB_TIME", std::to_string(seconds)},
                                 {"KELD_LOG_FD", std::to_string(logFd)},
                                 {"TZ", "UTC"}},
                                {theirs.Get(), logFd}});
}

void LabProcess::Command(const std::string &line)
{
    std::string text = line + "\n";
    if (send(mChannel.Get(), text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size()))
        return;
    throw Failure(kExitFailed, mDaemon->AwaitEnd());
}

LabProcess::Answer LabProcess::TakeAnswer()
{
    char buffer[256];
    ssize_t count = recv(mChannel.Get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR))
        throw Failure(kExitFailed, mDaemon->AwaitEnd());
    if (count > 0) mAnswer.append(buffer, static_cast<size_t>(count));
    if (!mAnswer.ends_with('\n')) return {};

    Answer answer{true, 0, ""};
    std::from_chars(mAnswer.data(), mAnswer.data() + mAnswer.size(), answer.seconds);
    std::string what = mAnswer.substr(std::min(mAnswer.find(' '), mAnswer.size() - 1) + 1);
    mAnswer.clear();
    if (what != "ok\n") answer.busy = what.substr(0, what.size() - 1);
    return answer;
}
