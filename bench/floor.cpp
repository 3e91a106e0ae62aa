// The floor: the bare chain of what an observation's road through the daemon cannot do without.
//
// The same descriptors, threads and texts as the daemon, with nothing around them: 24 polled descriptors,
// every datagram that waits read in one go, each observation checked, traced and matched, what is an
// agent's written to its pipe, read from it, looked up in the agent's table, logged, and made an event,
// which is logged, traced and sent over a connection of its own. It knows its load (load.h) and is right
// for that load only.
//
// Called with "shape" it goes through each observation by itself: written to the pipe alone, read from it
// as header and rest, checked again, looked up in a copy of the table, logged by libc. That was the shape
// of the daemon for long, and stays what its figures are compared with over the years. Without it, what can
// be done for many observations at once is: one write for each agent and batch, one read for all that waits
// in a pipe, lines for the log on a socket of its own.
//
// Runs until it is killed; serves the same run directory as the daemon.

#include "bareSteps.h"
#include "load.h"

#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <kltlibs/rundir.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::size_t kBufferBytes = 8192; // as the daemon's, which no load here makes grow
constexpr std::size_t kPipeBytes = 65536;
constexpr int kChannels = 22;

struct Agent {
    int pipe[2];
    Bare::Table table;
};
Agent agents[Bare::kAgents];
Bare::History history;
std::atomic<int> posted{0};
bool shape = false; // fixed after start

[[noreturn]] void Fail(const char *what)
{
    std::perror(what);
    std::_Exit(1);
}

sockaddr_un Address(const char *name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (KltRunDir_Path(name, address.sun_path, sizeof address.sun_path) != 0) Fail("run directory");
    return address;
}

void LogTraceLine(std::uint64_t microseconds, const char *id, const char *message)
{
    (shape ? Bare::LogTraceLine : Bare::SendTraceLine)("NetCorrelator", microseconds, id, message);
}

void LogLimit()
{
    if (!shape)
        return Bare::SendLogLine({"Event rate limit reached. Dropping pling: ", Load::kEventId, "\n"});
    char prefix[32];
    Bare::LogPrefix(prefix, sizeof prefix);
    syslog(LOG_INFO, "%sEvent rate limit reached. Dropping pling: %s\n", prefix, Load::kEventId);
}

void SendEvent(const char *record, std::size_t length)
{
    static const sockaddr_un address = Address("carad-pling.sock");
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        send(fd, record, length, MSG_NOSIGNAL) < 0)
        Fail("send");
    close(fd);
}

// The handler of the one observation that becomes an event.
void Post(char *observation)
{
    const void *read = KelRecord_ArgumentArea(observation);
    timeval now;
    gettimeofday(&now, nullptr); // for the rate limit
    if (posted.fetch_add(1, std::memory_order_relaxed) >= Load::kEventsPerWindow) return LogLimit();
    auto *record = static_cast<char *>(std::calloc(1, 1171));
    constexpr std::size_t idAt = 68, areaAt = idAt + sizeof Load::kEventId;
    std::memcpy(record + idAt, Load::kEventId, sizeof Load::kEventId);
    gettimeofday(&now, nullptr); // the stamp
    const auto microseconds =
        static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(now.tv_usec);
    std::memcpy(record, &microseconds, sizeof microseconds);
    constexpr std::uint32_t count = 2;
    std::size_t used = count * Bare::kEntryBytes;
    for (std::uint32_t i = 0; i < count; ++i) {
        const char *text = Bare::TextAt(read, i);
        const std::size_t length = std::strlen(text) + 1;
        const Bare::Argument argument{6, static_cast<std::uint32_t>(length), used};
        std::memcpy(record + areaAt + i * Bare::kEntryBytes, &argument, sizeof argument);
        std::memcpy(record + areaAt + used, text, length);
        used += length;
    }
    const auto total = static_cast<std::uint32_t>(areaAt + used + 4);
    const std::uint32_t words[] = {total, count, sizeof Load::kEventId};
    std::memcpy(record + 56, words, sizeof words);

    char *text = Bare::Message(Load::kEventText, record + areaAt);
    LogTraceLine(microseconds, Load::kEventId, text);
    std::free(text);
    Bare::Trace(history, ",OUT,", microseconds, Load::kEventId, record + areaAt, count);
    SendEvent(record, total);
    std::free(record);
}

void Correlate(const Bare::Table &table, char *record)
{
    const Bare::Handler handler = (shape ? Bare::LookUpInCopy : Bare::LookUp)(table, KelRecord_ID(record));
    if (handler == nullptr) return;
    char *text = Bare::Message(KelRecord_MessageFormat(record), KelRecord_ArgumentArea(record));
    LogTraceLine(KelRecord_Timestamp(record), KelRecord_ID(record), text);
    std::free(text);
    handler(record);
}

void Await(int fd, short events)
{
    pollfd waiting{fd, events, 0};
    if (poll(&waiting, 1, -1) != 1) Fail("poll");
}

void TakeOne(const Agent &agent)
{
    auto *record = static_cast<char *>(std::malloc(KELRECORD_HEADER_BYTES));
    if (read(agent.pipe[0], record, KELRECORD_HEADER_BYTES) != KELRECORD_HEADER_BYTES) Fail("read");
    const std::uint32_t total = KelRecord_TotalLength(record);
    record = static_cast<char *>(std::realloc(record, total));
    const std::size_t rest = total - KELRECORD_HEADER_BYTES;
    if (read(agent.pipe[0], record + KELRECORD_HEADER_BYTES, rest) != static_cast<ssize_t>(rest))
        Fail("read");
    if (Bare::Valid(record, total)) Correlate(agent.table, record);
    std::free(record);
}

void TakeAll(const Agent &agent, char *buffer, std::size_t *used)
{
    const ssize_t count = read(agent.pipe[0], buffer + *used, kPipeBytes);
    if (count <= 0) Fail("read");
    *used += static_cast<std::size_t>(count);
    char *record = buffer;
    for (; *used >= Load::kRecordBytes; record += Load::kRecordBytes, *used -= Load::kRecordBytes)
        Correlate(agent.table, record);
    std::memmove(buffer, record, *used);
}

void RunAgent(const Agent &agent)
{
    std::vector<char> buffer(shape ? 0 : kPipeBytes + Load::kRecordBytes);
    for (std::size_t used = 0;;) {
        Await(agent.pipe[0], POLLIN);
        if (shape)
            TakeOne(agent);
        else
            TakeAll(agent, buffer.data(), &used);
    }
}

void WriteFully(int fd, const char *bytes, std::size_t length)
{
    while (length > 0) {
        const ssize_t count = write(fd, bytes, length);
        if (count < 0 && errno != EAGAIN) Fail("write");
        if (count < 0) Await(fd, POLLOUT);
        bytes += std::max<ssize_t>(count, 0);
        length -= static_cast<std::size_t>(std::max<ssize_t>(count, 0));
    }
}

void WriteWanted(std::uint32_t wanted, const char *bytes, std::size_t length)
{
    for (int i = 0; i < Bare::kAgents; ++i)
        if ((wanted >> i & 1) != 0) WriteFully(agents[i].pipe[1], bytes, length);
}

// What waits together in a channel is all of one kind, in this load.
void Dispatch(const char *bytes, std::size_t length)
{
    std::uint32_t wanted = 0;
    for (std::size_t at = 0; at < length; at += KelRecord_TotalLength(bytes + at)) {
        const char *record = bytes + at;
        Bare::Trace(history, ",IN,", KelRecord_Timestamp(record), KelRecord_ID(record),
                    KelRecord_ArgumentArea(record), KelRecord_ArgumentCount(record));
        wanted = Bare::AgentsFor(KelRecord_ID(record));
        if (shape) WriteWanted(wanted, record, KelRecord_TotalLength(record));
    }
    if (!shape) WriteWanted(wanted, bytes, length);
}

void ReadChannel(int fd)
{
    static char buffer[2 * kBufferBytes]; // no datagram of the load is larger than half of it
    std::size_t used = 0;
    while (used + Load::kRecordBytes <= kBufferBytes) {
        const ssize_t received = recv(fd, buffer + used, sizeof buffer - used, MSG_DONTWAIT);
        if (received < 0) break;
        const std::size_t end = used + static_cast<std::size_t>(received);
        std::size_t at = used;
        while (at < end && Bare::Valid(buffer + at, end - at))
            at += KelRecord_TotalLength(buffer + at);
        if (at == end) used = end;
    }
    Dispatch(buffer, used);
}

pollfd Open(const char *name, int type)
{
    const sockaddr_un address = Address(name);
    unlink(address.sun_path);
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) Fail(address.sun_path);
    if (type != SOCK_DGRAM && listen(fd, 128) != 0) Fail("listen");
    return {fd, POLLIN, 0};
}

} // namespace

int main(int argc, char **argv)
{
    shape = argc > 1 && std::strcmp(argv[1], "shape") == 0;
    for (Agent &agent : agents) {
        if (pipe2(agent.pipe, O_CLOEXEC) != 0 || fcntl(agent.pipe[1], F_SETFL, O_NONBLOCK) != 0)
            Fail("pipe");
        agent.table = Bare::MakeTable(Load::kPostedId, Post);
        std::thread(RunAgent, std::ref(agent)).detach();
    }
    pollfd slots[kChannels + 2];
    mkdir(Address("kel").sun_path, 0755);
    for (int i = 0; i < kChannels; ++i)
        slots[i] = Open(("kel/async-" + std::to_string(i) + ".sock").c_str(), SOCK_DGRAM);
    slots[kChannels] = Open("kel/user.sock", SOCK_SEQPACKET);
    slots[kChannels + 1] = Open("keld-trace.sock", SOCK_STREAM);
    for (;;) {
        if (ppoll(slots, std::size(slots), nullptr, nullptr) < 0) Fail("ppoll");
        for (int i = 0; i < kChannels; ++i)
            if ((slots[i].revents & POLLIN) != 0) ReadChannel(slots[i].fd);
    }
}
