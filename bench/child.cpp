#include "child.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <kltlibs/rundir.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace {

constexpr std::chrono::seconds kLimit{30};

void Pause(std::chrono::microseconds time) { std::this_thread::sleep_for(time); }

// The number behind "name:" in a status file; 0 for a thread that has just ended.
std::uint64_t StatusNumber(const std::filesystem::path &file, const std::string &name)
{
    std::ifstream status(file);
    for (std::string word; status >> word;) {
        std::uint64_t number = 0;
        if (word == name && status >> number) return number;
    }
    return 0;
}

std::filesystem::path Proc(pid_t pid) { return "/proc/" + std::to_string(pid); }

bool AllSleep(pid_t pid)
{
    for (const auto &task : std::filesystem::directory_iterator(Proc(pid) / "task")) {
        std::ifstream stat(task.path() / "stat");
        std::string line;
        std::getline(stat, line);
        if (line.find(") S ") == std::string::npos) return false;
    }
    return true;
}

// Asked with a socket of another kind, so that the listener is not disturbed.
bool IsBound(const char *name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (KltRunDir_Path(name, address.sun_path, sizeof address.sun_path) != 0) return false;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int result = connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
    const bool bound = result != 0 && errno == EPROTOTYPE;
    close(fd);
    return bound;
}

} // namespace

Child::Child(const std::string &program, const char *argument) : mSaid(memfd_create("said", MFD_CLOEXEC))
{
    const pid_t parent = getpid();
    mPid = fork();
    if (mPid < 0) throw std::runtime_error("fork failed");
    if (mPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(mSaid, STDERR_FILENO);
        if (getppid() == parent) execl(program.c_str(), program.c_str(), argument, nullptr);
        _exit(127);
    }
}

Child::~Child()
{
    kill(mPid, SIGTERM);
    waitpid(mPid, nullptr, 0);
    close(mSaid);
}

void Child::WaitUntilReady() const
{
    const auto limit = std::chrono::steady_clock::now() + kLimit;
    while (!IsBound("keld-trace.sock")) {
        if (waitpid(mPid, nullptr, WNOHANG) != 0 || std::chrono::steady_clock::now() > limit)
            throw std::runtime_error("the child has not become ready: " + Said());
        Pause(std::chrono::microseconds(50));
    }
}

std::chrono::steady_clock::time_point Child::WaitUntilIdle() const
{
    constexpr int looks = 5;
    auto lastRun = std::chrono::steady_clock::now();
    auto before = ProcessorTime();
    for (int quiet = 0; quiet < looks;) {
        Pause(std::chrono::milliseconds(4));
        const auto now = ProcessorTime();
        if (now != before) lastRun = std::chrono::steady_clock::now();
        quiet = now == before && AllSleep(mPid) ? quiet + 1 : 0;
        before = now;
    }
    return lastRun;
}

std::chrono::nanoseconds Child::ProcessorTime() const
{
    clockid_t clock;
    timespec used;
    if (clock_getcpuclockid(mPid, &clock) != 0 || clock_gettime(clock, &used) != 0)
        throw std::runtime_error("the child has ended");
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

std::uint64_t Child::Wakeups() const
{
    std::uint64_t sum = 0;
    for (const auto &task : std::filesystem::directory_iterator(Proc(mPid) / "task"))
        sum += StatusNumber(task.path() / "status", "voluntary_ctxt_switches:");
    return sum;
}

std::string Child::Said() const
{
    std::string text(4096, '\0');
    const ssize_t length = pread(mSaid, text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return text;
}

std::uint64_t Child::ResidentKiB() const { return StatusNumber(Proc(mPid) / "status", "VmRSS:"); }
