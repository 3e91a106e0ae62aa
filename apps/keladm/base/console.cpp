#include "console.h"

#include "failure.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/signalfd.h>
#include <system_error>
#include <unistd.h>

StopSignal::StopSignal()
{
    sigset_t stopping;
    sigemptyset(&stopping);
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction present {};
        if (sigaction(signal, nullptr, &present) == 0 && present.sa_handler != SIG_IGN)
            sigaddset(&stopping, signal);
    }
    sigprocmask(SIG_BLOCK, &stopping, &mBefore);
    mFd = UniqueFd(signalfd(-1, &stopping, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!mFd) throw std::system_error(errno, std::generic_category(), "cannot watch for signals");
}

StopSignal::~StopSignal()
{
    // A signal that ended this program has done its work.
    signalfd_siginfo info;
    while (read(mFd.Get(), &info, sizeof info) > 0) {
    }
    sigprocmask(SIG_SETMASK, &mBefore, nullptr);
}

Output::Output(int fd, int stopFd) : mFd(fd), mStopFd(stopFd), mTerminal(isatty(fd) == 1) {}

bool Output::Colour() const
{
    const char *noColour = std::getenv("NO_COLOR");
    return mTerminal && (noColour == nullptr || *noColour == '\0');
}

void Output::Text(std::string_view text)
{
    mWaiting += mTerminal ? PrintableLines(text) : std::string(text);
}

void Output::Line(std::string_view text)
{
    Text(text);
    mWaiting += '\n';
}

void Output::ColouredLine(std::string_view text)
{
    mWaiting += text;
    mWaiting += '\n';
}

void Output::Flush()
{
    size_t done = 0;
    while (done < mWaiting.size()) {
        pollfd fds[] = {{mFd, POLLOUT, 0}, {mStopFd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno == EINTR) continue;
        if (fds[0].revents == 0) throw Stopped{};

        // A pipe that is ready takes PIPE_BUF bytes without blocking.
        size_t count = std::min<size_t>(mWaiting.size() - done, PIPE_BUF);
        ssize_t written = write(mFd, mWaiting.data() + done, count);
        if (written >= 0)
            done += static_cast<size_t>(written);
        else if (errno == EPIPE || (errno == EIO && mTerminal)) // hung up
            throw OutputClosed{};
        else if (errno != EINTR && errno != EAGAIN)
            throw Failure(kExitFailed, fmt::format("cannot write the output: {}", std::strerror(errno)));
    }
    mWaiting.clear();
}

bool Ends::Stopping() const
{
    if ((fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) throw OutputClosed{};
    return fds[0].revents != 0;
}

void PollUntil(std::span<pollfd> fds, Clock::time_point until)
{
    timespec timeout{};
    timespec *limit = nullptr;
    if (until != Clock::time_point::max()) {
        auto left = std::max(until - Clock::now(), Clock::duration::zero());
        auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        timeout.tv_sec = seconds.count();
        timeout.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
        limit = &timeout;
    }
    if (ppoll(fds.data(), fds.size(), limit, nullptr) < 0) {
        for (pollfd &fd : fds)
            fd.revents = 0;
        if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "cannot wait");
    }
}

void Tell(std::string_view subcommand, std::string_view message)
{
    fmt::print(stderr, "keladm {}: {}\n", subcommand, PrintableLines(message));
}

void OpenStandardDescriptors()
{
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF)
            (void)open("/dev/null", O_RDWR); // the lowest: this one
}

std::string ExecutableFolder()
{
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path().string();
}
