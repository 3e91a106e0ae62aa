#include "eventProgram.h"

#include "console.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <kltlibs/uniquefd.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kNotStarted = 127;

// A file in memory, so that nobody waits for a program that does not read.
UniqueFd InputOf(std::string_view text)
{
    UniqueFd file(memfd_create("event", MFD_CLOEXEC));
    while (file && !text.empty()) {
        const ssize_t written = write(file.Get(), text.data(), text.size());
        if (written < 0) return UniqueFd();
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    if (file) lseek(file.Get(), 0, SEEK_SET);
    return file;
}

} // namespace

void EventProgram::Run(const std::string &input) const
{
    const auto tell = [&](const std::string &what) { Tell("receive", fmt::format("{}: {}", mPath, what)); };
    const UniqueFd in = InputOf(input + '\n');
    const pid_t child = in ? fork() : -1;
    if (child == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        std::signal(SIGPIPE, SIG_DFL);
        std::signal(SIGXFSZ, SIG_DFL);
        setpgid(0, 0); // with all that it starts
        dup2(in.Get(), STDIN_FILENO);
        dup2(STDERR_FILENO, STDOUT_FILENO);
        execl(mPath.c_str(), mPath.c_str(), nullptr);
        _exit(kNotStarted);
    }
    if (child < 0) return tell(std::strerror(errno));
    setpgid(child, child);

    const UniqueFd ended(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    std::array fds{pollfd{ended.Get(), POLLIN, 0}, pollfd{mStopFd, POLLIN, 0}};
    for (const auto until = Clock::now() + mLimit;
         fds[0].revents == 0 && fds[1].revents == 0 && Clock::now() < until;)
        PollUntil(fds, until);
    const bool isLate = fds[0].revents == 0;
    if (isLate) kill(-child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (isLate)
        tell("took too long, and was killed");
    else if (WIFSIGNALED(status))
        tell(fmt::format("ended by signal {}", WTERMSIG(status)));
    else if (WEXITSTATUS(status) == kNotStarted)
        tell("cannot be run");
    else if (WEXITSTATUS(status) != 0)
        tell(fmt::format("exit status {}", WEXITSTATUS(status)));
}
