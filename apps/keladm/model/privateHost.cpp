#include "privateHost.h"

#include "failure.h"
#include "runDirectory.h"

#include "kltlibs/kel.h"
#include "kltlibs/rundir.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <sstream>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr auto kStartLimit = std::chrono::minutes(1);
constexpr auto kStopLimit = std::chrono::seconds(60);
constexpr auto kForceAfter = std::chrono::seconds(10);
constexpr const char *kRunDirVariable = "KALTOR_RUN_DIR";

bool AllSocketsThere()
{
    auto there = [](const std::string &name) { return fs::exists(RunDirectoryPath(name)); };
    for (int context = 0; context < KELLIB_ASYNC_CONTEXTS; context++)
        if (!there(fmt::format("kel/async-{}.sock", context))) return false;
    return there("kel/user.sock") && there("keld-trace.sock");
}

bool IsProgram(const fs::path &path)
{
    std::error_code error;
    return fs::is_regular_file(path, error) && access(path.c_str(), X_OK) == 0;
}

// What was asked for, or the first program there is of these places, from this program's folder.
std::optional<fs::path> Find(const std::string &asked, std::initializer_list<const char *> places)
{
    if (!asked.empty()) {
        if (IsProgram(asked)) return asked;
        throw Failure(kExitFailed, fmt::format("{}: no program that can be started", asked));
    }
    fs::path folder = ExecutableFolder();
    for (const char *place : places)
        if (IsProgram(folder / place)) return folder / place;
    return std::nullopt;
}

} // namespace

PrivateRunDirectory::PrivateRunDirectory()
{
    const char *parent = std::getenv("TMPDIR");
    mPath = fmt::format("{}/keladm-XXXXXX", parent != nullptr && *parent == '/' ? parent : "/tmp");
    if (mPath.size() > KLT_RUN_DIR_BYTES_MAX) mPath = "/tmp/keladm-XXXXXX"; // no room for a socket's name
    if (mkdtemp(mPath.data()) == nullptr)
        throw Failure(kExitFailed, fmt::format("{}: {}", mPath, std::strerror(errno)));
    if (const char *before = std::getenv(kRunDirVariable)) mBefore = before;
    setenv(kRunDirVariable, mPath.c_str(), 1);
}

PrivateRunDirectory::~PrivateRunDirectory()
{
    std::error_code error;
    fs::remove_all(mPath, error);
    if (mBefore)
        setenv(kRunDirVariable, mBefore->c_str(), 1);
    else
        unsetenv(kRunDirVariable);
}

DaemonProcess::DaemonProcess(const std::string &program, const std::string &errorFile,
                             const Inheritance &inheritance)
    : mErrorFile(errorFile)
{
    UniqueFd errors(open(errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!errors) throw Failure(kExitFailed, fmt::format("{}: {}", errorFile, std::strerror(errno)));
    pid_t parent = getpid();
    mPid = fork();
    if (mPid < 0)
        throw Failure(kExitFailed, fmt::format("cannot start {}: {}", program, std::strerror(errno)));
    if (mPid == 0) {
        // A Ctrl-C is for this program, which then ends the daemon in its own time.
        setpgid(0, 0);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(127);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int signal : {SIGPIPE, SIGXFSZ}) // what this program ignores
            std::signal(signal, SIG_DFL);
        for (const auto &[name, value] : inheritance.variables)
            setenv(name.c_str(), value.c_str(), 1);
        for (int fd : inheritance.fds)
            fcntl(fd, F_SETFD, 0);
        dup2(errors.Get(), STDOUT_FILENO);
        dup2(errors.Get(), STDERR_FILENO);
        execl(program.c_str(), program.c_str(), static_cast<char *>(nullptr));
        dprintf(STDERR_FILENO, "%s: %s\n", program.c_str(), std::strerror(errno));
        _exit(127);
    }
    mEnded = UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, mPid, 0)));
}

DaemonProcess::~DaemonProcess()
{
    if (mPid < 0) return;
    kill(mPid, SIGTERM);
    if (WaitEnd(Clock::now() + kForceAfter)) return;
    kill(mPid, SIGKILL);
    WaitEnd(Clock::time_point::max());
}

void DaemonProcess::WaitReady(const StopSignal &stop)
{
    auto until = Clock::now() + kStartLimit;
    while (!AllSocketsThere()) {
        if (WaitEnd(Clock::now())) throw Failure(kExitFailed, "the daemon did not start: " + HowItEnded());
        if (Clock::now() >= until) throw Failure(kExitFailed, "the daemon does not open its channels");
        pollfd fds[] = {{stop.Get(), POLLIN, 0}, Watch()};
        PollUntil(fds, Clock::now() + std::chrono::milliseconds(5));
        if (fds[0].revents != 0) throw Stopped{};
    }
}

std::optional<std::string> DaemonProcess::Stop()
{
    bool early = WaitEnd(Clock::now());
    if (!early) {
        kill(mPid, SIGTERM);
        if (!WaitEnd(Clock::now() + kStopLimit)) return "the daemon does not end";
    }
    if (!early && WIFEXITED(mStatus) && WEXITSTATUS(mStatus) == 0) return std::nullopt;
    return fmt::format("the daemon {}: {}", early ? "ended early" : "ended badly", HowItEnded());
}

std::string DaemonProcess::AwaitEnd()
{
    WaitEnd(Clock::now() + kForceAfter);
    return Stop().value_or("the daemon has ended");
}

// Without a descriptor that tells, it looks every 20 milliseconds.
bool DaemonProcess::WaitEnd(Clock::time_point until)
{
    while (mPid >= 0) {
        if (waitpid(mPid, &mStatus, WNOHANG) == mPid) {
            mPid = -1;
            break;
        }
        if (Clock::now() >= until) return false;
        pollfd fds[] = {Watch()};
        PollUntil(fds, mEnded ? until : std::min(until, Clock::now() + std::chrono::milliseconds(20)));
    }
    return true;
}

std::string DaemonProcess::HowItEnded() const
{
    std::stringstream errors;
    errors << std::ifstream(mErrorFile).rdbuf();
    std::string text = WIFSIGNALED(mStatus) ? fmt::format("signal {}", WTERMSIG(mStatus))
                                            : fmt::format("status {}", WEXITSTATUS(mStatus));
    return errors.str().empty() ? text : fmt::format("{}; it wrote:\n{}", text, errors.str());
}

std::string FindDaemon(const std::string &named)
{
    const char *variable = std::getenv("KELD_DAEMON");
    if (auto found = Find(!named.empty()        ? named
                          : variable != nullptr ? variable
                                                : "",
                          {"keld", "../keld/keld", "../sbin/keld"}))
        return *found;
    const char *path = std::getenv("PATH");
    std::stringstream folders(path == nullptr ? "" : path);
    for (std::string entry; std::getline(folders, entry, ':');)
        if (IsProgram(fs::path(entry) / "keld")) return fs::path(entry) / "keld";
    throw Failure(kExitNoPeer, "no daemon to start: name it with --daemon or KELD_DAEMON");
}

std::string FindLab(const std::string &named)
{
    if (auto found = Find(named, {"keld-lab", "../libexec/keld/keld-lab"})) return *found;
    throw Failure(kExitNoPeer, "a story needs keld-lab, which is not where it is installed: name it with "
                               "--daemon");
}
