#include "daemon.h"

#include "unixSocket.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace {

// The descriptors of the daemon's side, as its environment names them.
constexpr int kLogFd = 3;
constexpr int kLabFd = 4;

[[noreturn]] void Fail(const char *what) { throw std::system_error(errno, std::generic_category(), what); }

std::vector<std::string> Environment(const DaemonProgram &program, const std::vector<std::string> &more)
{
    std::vector<std::string> all;
    std::string sanitizer = "ASAN_OPTIONS=verify_asan_link_order=0";
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        if (text.starts_with("ASAN_OPTIONS="))
            sanitizer.append(":").append(text.substr(text.find('=') + 1));
        else
            all.emplace_back(text);
    }
    // The shim would stand before the sanitizer's library, which otherwise insists on being first.
    all.push_back(sanitizer);
    all.push_back("KELD_LOG_FD=" + std::to_string(kLogFd));
    all.push_back("KELD_LAB_FD=" + std::to_string(kLabFd));
    if (!program.preload.empty()) all.push_back("LD_PRELOAD=" + program.preload);
    all.insert(all.end(), more.begin(), more.end());
    return all;
}

std::vector<char *> Pointers(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (std::string &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

Daemon::Daemon(const DaemonProgram &program, const std::vector<std::string> &arguments,
               const std::vector<std::string> &environment)
{
    std::vector<std::string> words{program.path};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> variables = Environment(program, environment);
    const std::vector<char *> argv = Pointers(words);
    const std::vector<char *> envp = Pointers(variables);
    int lab[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, lab) != 0) Fail("socketpair");
    const pid_t parent = getpid();
    mPid = fork();
    if (mPid < 0) Fail("fork");
    if (mPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        if (getppid() != parent) _exit(127);
        // Out of the way first: the numbers that are to be set may be in use.
        const int log = fcntl(mLog.Fd(), F_DUPFD_CLOEXEC, 10);
        const int output = fcntl(mOutput.Fd(), F_DUPFD_CLOEXEC, 10);
        const int control = fcntl(lab[1], F_DUPFD_CLOEXEC, 10);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        dup2(log, kLogFd);
        dup2(control, kLabFd);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(lab[1]);
    mLabFd.Reset(lab[0]);
    mPidFd.Reset(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0))); // the library's has no C linkage here
    if (!mPidFd) Fail("pidfd_open");
}

Daemon::~Daemon()
{
    if (mExitStatus < 0) {
        EXPECT_EQ(0, Terminate()) << Output();
    }
}

// The trace socket is the last that the daemon opens.
bool Daemon::WaitUntilReady()
{
    bool listening = false;
    WaitUntil([&] { return (listening = IsListening(RunPath("keld-trace.sock"))) || !IsRunning(); });
    return listening;
}

std::string Daemon::Written(bool told) const
{
    constexpr std::string_view kTold = "keld: ";
    std::istringstream all(mOutput.Text());
    std::string text;
    for (std::string line; std::getline(all, line);)
        if (line.starts_with(kTold) == told) text += line.substr(told ? kTold.size() : 0) + "\n";
    return text;
}

int Daemon::Terminate(int signal, std::chrono::milliseconds limit)
{
    Signal(signal);
    return WaitForExit(limit);
}

int Daemon::WaitForExit(std::chrono::milliseconds limit)
{
    if (mExitStatus >= 0) return mExitStatus;
    if (WaitForEvents(mPidFd.Get(), POLLIN, limit) == 0) {
        ADD_FAILURE() << "the daemon does not stop:\n" << mLog.Raw() << Output();
        Signal(SIGKILL);
    }
    int status = 0;
    waitpid(mPid, &status, 0);
    mExitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return mExitStatus;
}

bool Daemon::IsRunning()
{
    return mExitStatus < 0 && WaitForEvents(mPidFd.Get(), POLLIN, std::chrono::milliseconds(0)) == 0;
}

void Daemon::Signal(int signal)
{
    if (mExitStatus < 0) kill(mPid, signal);
}

void Daemon::StopAndContinue()
{
    Signal(SIGSTOP);
    EXPECT_TRUE(WaitUntil([this] { return State() == 'T'; }));
    Signal(SIGCONT);
    EXPECT_TRUE(WaitUntil([this] { return State() != 'T'; }));
}

// Of the main thread: the word behind its name in parentheses.
char Daemon::State() const
{
    std::ifstream file("/proc/" + std::to_string(mPid) + "/stat");
    std::string stat;
    std::getline(file, stat);
    return stat.at(stat.rfind(')') + 2);
}

std::chrono::nanoseconds Daemon::ProcessorTime() const
{
    clockid_t clock;
    timespec used;
    if (clock_getcpuclockid(mPid, &clock) != 0 || clock_gettime(clock, &used) != 0)
        throw std::runtime_error("the daemon has ended");
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

std::size_t Daemon::ThreadCount() const { return CountEntries("task"); }

std::size_t Daemon::DescriptorCount() const { return CountEntries("fd"); }

std::size_t Daemon::CountEntries(const char *directory) const
{
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(mPid) + "/" + directory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

std::size_t Daemon::ResidentBytes() const
{
    std::ifstream file("/proc/" + std::to_string(mPid) + "/statm");
    std::size_t pages = 0, resident = 0;
    file >> pages >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

void Daemon::Advance(std::uint64_t seconds)
{
    const std::string line = "advance " + std::to_string(seconds) + "\n";
    char answer[256] = {};
    if (send(mLabFd.Get(), line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size()) ||
        WaitForEvents(mLabFd.Get(), POLLIN, 2 * kWaitLimit) == 0 ||
        read(mLabFd.Get(), answer, sizeof answer - 1) <= 0 || !std::string_view(answer).ends_with(" ok\n"))
        throw std::runtime_error("the clock does not obey: " + line + answer + Output());
}
