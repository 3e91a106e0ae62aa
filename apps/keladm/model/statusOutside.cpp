#include "statusOutside.h"

#include "runDirectory.h"

#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <functional>
#include <kltlibs/uniquefd.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <sstream>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <vector>

namespace {

std::uint64_t Now(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

std::string FirstLine(const std::string &path)
{
    std::string line;
    std::ifstream file(path);
    std::getline(file, line);
    return line;
}

// ---- The process ----------------------------------------------------------------------------------

std::optional<StatusProcess> LookAtProcess(std::uint64_t process)
{
    const std::string folder = fmt::format("/proc/{}/", process);
    const std::string line = FirstLine(folder + "stat");
    const std::size_t behindName = line.rfind(')');
    if (behindName == line.npos) return std::nullopt;
    StatusProcess found;
    std::istringstream fields(line.substr(behindName + 1));
    fields >> found.state;
    std::string skipped;
    for (int field = 4; field < 22; ++field)
        fields >> skipped;
    fields >> found.start;
    std::error_code unreadable;
    const std::string program = std::filesystem::read_symlink(folder + "exe", unreadable).string();
    if (!unreadable) found.isReplaced = program.ends_with(" (deleted)");
    return found;
}

// Who holds the lock on a file: asked of the system's list, since trying it would take it.
std::optional<int> LockHolder(const std::string &path)
{
    struct stat file {};
    if (stat(path.c_str(), &file) != 0) return std::nullopt;
    const std::string wanted =
        fmt::format("{:02x}:{:02x}:{}", major(file.st_dev), minor(file.st_dev), file.st_ino);
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        std::istringstream words(line);
        std::string number, kind, manner, access, where;
        int process = 0;
        if (words >> number >> kind >> manner >> access >> process >> where && kind == "FLOCK" &&
            where == wanted)
            return process;
    }
    return std::nullopt;
}

// ---- Sockets --------------------------------------------------------------------------------------

struct UnixSocket {
    std::string path;
    bool listens = false;
    std::uint32_t waiting = 0; // bytes; connections, when it listens
    std::uint32_t room = 0;
};

bool Request(int netlink)
{
    struct {
        nlmsghdr header;
        unix_diag_req what;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.what.sdiag_family = AF_UNIX;
    request.what.udiag_states = ~0U;
    request.what.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_RQLEN;
    return send(netlink, &request, sizeof request, 0) == static_cast<ssize_t>(sizeof request);
}

template <class Type> Type Read(const char *at)
{
    Type value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

UnixSocket Decode(const char *message, std::size_t length)
{
    constexpr std::uint8_t kListens = 10; // as TCP_LISTEN
    UnixSocket found;
    found.listens = Read<unix_diag_msg>(message).udiag_state == kListens;
    for (std::size_t at = NLMSG_ALIGN(sizeof(unix_diag_msg)); at + sizeof(rtattr) <= length;) {
        const auto head = Read<rtattr>(message + at);
        if (head.rta_len < sizeof head || at + head.rta_len > length) break;
        const char *value = message + at + sizeof head;
        const std::size_t size = head.rta_len - sizeof head;
        if (head.rta_type == UNIX_DIAG_NAME) {
            found.path.assign(value, strnlen(value, size));
        } else if (head.rta_type == UNIX_DIAG_RQLEN && size >= sizeof(unix_diag_rqlen)) {
            const auto queue = Read<unix_diag_rqlen>(value);
            found.waiting = queue.udiag_rqueue;
            found.room = queue.udiag_wqueue;
        }
        at += RTA_ALIGN(head.rta_len);
    }
    return found;
}

// True when each socket of the system was shown.
bool EachUnixSocket(const std::function<void(const UnixSocket &)> &show)
{
    const UniqueFd netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    const timeval limit{.tv_sec = 0, .tv_usec = 300'000}; // the answer is there at once, or never
    if (!netlink || setsockopt(netlink.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
        !Request(netlink.Get()))
        return false;
    std::vector<char> answer(64 << 10);
    for (;;) {
        const ssize_t length = recv(netlink.Get(), answer.data(), answer.size(), 0);
        if (length <= 0) return false;
        for (std::size_t at = 0, end = static_cast<std::size_t>(length); at + sizeof(nlmsghdr) <= end;) {
            const auto head = Read<nlmsghdr>(&answer[at]);
            if (head.nlmsg_type == NLMSG_DONE) return true;
            if (head.nlmsg_type == NLMSG_ERROR || head.nlmsg_len < NLMSG_HDRLEN + sizeof(unix_diag_msg) ||
                at + head.nlmsg_len > end)
                return false;
            show(Decode(&answer[at + NLMSG_HDRLEN], head.nlmsg_len - NLMSG_HDRLEN));
            at += NLMSG_ALIGN(head.nlmsg_len);
        }
    }
}

std::optional<StatusSockets> LookAtSockets()
{
    const std::string receiver = RunDirectoryPath("carad-pling.sock");
    std::array<std::string, kKeldStatusChannels> channels;
    for (std::size_t i = 0; i < KELLIB_ASYNC_CONTEXTS; ++i)
        channels[i] = RunDirectoryPath(fmt::format("kel/async-{}.sock", i));
    channels[KELLIB_USER_CONTEXT] = RunDirectoryPath("kel/user.sock");

    StatusSockets sockets;
    const bool all = EachUnixSocket([&](const UnixSocket &each) {
        if (each.listens && each.path == receiver) sockets.receiver = {each.waiting, each.room};
        for (std::size_t i = 0; i < channels.size() && !each.listens; ++i)
            if (each.path == channels[i]) sockets.waitingBytes[i] += each.waiting;
    });
    return all ? std::optional(sockets) : std::nullopt;
}

} // namespace

StatusOutside LookOutside(std::uint64_t process)
{
    StatusOutside outside;
    outside.boot = FirstLine("/proc/sys/kernel/random/boot_id");
    outside.serving = LockHolder(RunDirectoryPath("kel/lock"));
    if (process != 0) outside.process = LookAtProcess(process);
    outside.sockets = LookAtSockets();
    outside.wall = Now(CLOCK_REALTIME);
    outside.monotonic = Now(CLOCK_MONOTONIC);
    return outside;
}
