// Life of a line: rendered by the thread that has the record, without the lock; appended under it to
// the history and to the waiting list of every client; written by each client's writer, again without
// it, so that a slow client delays nobody.
//
// Life of a client: its serve thread gives it the history and a blank line, starts its writer and
// reads until the connection ends, whoever ended it; it lets the writer give what waits, shuts the
// socket down if that takes long, so that a writer that is stuck comes back, joins it and closes the
// descriptor.
//
// Memory is bounded on every side: the history and the list of a client that is gone to 128 KiB of
// text, the list of a client that does not read to 16 MiB.

#include "keldTrace.h"

#include "keldLog.h"
#include "keldMutex.h"
#include "keldOwn.h"

#include <kltlibs/kelrecord.h>
#include <kltlibs/ktime.h>
#include <kltlibs/msgfmt.h>
#include <kltlibs/plingrecord.h>
#include <kltlibs/rundir.h>
#include <kltlibs/str.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <map>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::size_t kHistoryBytesMax = 131072;
constexpr std::size_t kWaitingBytesMax = std::size_t{16} << 20;
// What is kept for a client that has ended its connection: the history and the blank line behind it.
constexpr std::size_t kClosingBytesMax = kHistoryBytesMax + 1;
constexpr time_t kDrainSecondsMax = 1;
constexpr int kBacklog = 128;
constexpr int kAcceptPauseMilliseconds = 10;
static_assert(kHistoryBytesMax < kWaitingBytesMax, "a client has room for the history that it is given");
static_assert(sizeof(sockaddr_un::sun_path) == KLT_RUN_PATH_BYTES);

// Finished lines, each with its newline, oldest first.
struct Lines {
    std::deque<std::string> lines;
    std::size_t bytes = 0;

    void Append(std::string line)
    {
        bytes += line.size();
        lines.push_back(std::move(line));
    }
    void TrimTo(std::size_t bytesMax)
    {
        for (; bytes > bytesMax; lines.pop_front())
            bytes -= lines.front().size();
    }
};

struct Client {
    Lines waiting;
    bool closing = false; // while it is clear, the descriptor is open
};

struct State {
    KeldMutex traceMutex;
    std::condition_variable linesAvailable;
    Lines history GUARDED_BY(traceMutex);
    // By descriptor. KEPT: an entry stays when its client has gone, and goes on collecting lines until a
    // later client gets the same descriptor: descriptors are few, and so are the entries.
    std::map<int, Client> clients GUARDED_BY(traceMutex);
};
State &state = *new State; // the clients' threads outlive main

// To be given up when there are no more descriptors; main thread only.
UniqueFd &spare = *new UniqueFd;

// ---- Rendering ------------------------------------------------------------------------------------

struct TracedRecord {
    std::string_view direction;
    std::uint64_t timestamp; // microseconds
    const char *id;
    std::uint32_t argumentCount;
    const void *argumentArea;
    const void *end;
};

template <class Number> void AppendNumber(std::string &line, Number value)
{
    char digits[20]; // -2^63 and 2^64-1 both take as many
    line.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
}

void AppendNow(std::string &line)
{
    timespec now{};
    (void)KTime_GetRealtime(&now);
    char digits[] = ".000000000";
    for (long rest = now.tv_nsec, at = 9; at > 0; --at, rest /= 10)
        digits[at] = static_cast<char>('0' + rest % 10);
    AppendNumber(line, static_cast<std::int64_t>(now.tv_sec));
    line.append(digits, sizeof digits - 1);
}

void AppendQuoted(std::string &line, std::string_view text)
{
    line += '"';
    for (std::size_t quote; (quote = text.find('"')) != text.npos; text.remove_prefix(quote + 1))
        line.append(text.substr(0, quote + 1)) += '"';
    line.append(text) += '"';
}

// False when it is a text that cannot be read.
bool AppendArgument(std::string &line, const TracedRecord &record, std::uint32_t index)
{
    MsgFmtArg argument;
    MsgFmt_GetArg(record.argumentArea, index, &argument);
    line += ',';
    switch (argument.type) {
    case MSGFMT_TYPE_INT32:
        AppendNumber(line, static_cast<std::int32_t>(argument.value));
        return true;
    case MSGFMT_TYPE_INT64:
        AppendNumber(line, static_cast<std::int64_t>(argument.value));
        return true;
    case MSGFMT_TYPE_UINT32:
        AppendNumber(line, static_cast<std::uint32_t>(argument.value));
        return true;
    case MSGFMT_TYPE_UINT64:
        AppendNumber(line, argument.value);
        return true;
    case MSGFMT_TYPE_STRING: {
        const char *text = nullptr;
        if (MsgFmt_GetSwizzledString(record.argumentArea, record.argumentCount, index, record.end, &text) !=
            0)
            return false;
        AppendQuoted(line, text == nullptr ? "(null)" : text);
        return true;
    }
    default:
        line += "???";
        return true;
    }
}

// The whole line, or an empty one when there is none to show.
std::string Render(const TracedRecord &record)
{
    // Room for nearly every line at once. Not for more: an area may be large and its texts small.
    constexpr std::size_t kBeforeIdBytes = 50, kArgumentBytes = 6, kAreaBytesMax = 1024;
    const auto areaBytes = static_cast<std::size_t>(static_cast<const char *>(record.end) -
                                                    static_cast<const char *>(record.argumentArea));
    const std::string_view id = record.id;
    std::string line;
    line.reserve(kBeforeIdBytes + id.size() + record.argumentCount * kArgumentBytes +
                 std::min(areaBytes, kAreaBytesMax));
    AppendNow(line);
    line.append(record.direction);
    AppendNumber(line, record.timestamp);
    line += ',';
    // KEPT: the comma behind the ID and the one before each argument leave an empty field between
    // them; clients count fields.
    line.append(id) += ',';
    for (std::uint32_t index = 0; index < record.argumentCount; ++index) {
        if (!AppendArgument(line, record, index)) {
            KeldLog("Invalid argument in kel with ID %s", record.id);
            return {};
        }
    }
    line += '\n';
    return line;
}

void Trace(const TracedRecord &record)
{
    std::string line = Render(record);
    if (line.empty()) return;
    {
        const KeldLock lock(state.traceMutex);
        for (auto &[descriptor, client] : state.clients) {
            client.waiting.Append(line);
            if (!client.closing && client.waiting.bytes > kWaitingBytesMax) {
                KeldLog("Trace client %d does not read; disconnecting it.\n", descriptor);
                client.closing = true;
                shutdown(descriptor, SHUT_RDWR);
            }
            if (client.closing) client.waiting.TrimTo(kClosingBytesMax);
        }
        state.history.Append(std::move(line));
        state.history.TrimTo(kHistoryBytesMax);
    }
    state.linesAvailable.notify_all(); // no system call while nobody waits
}

// ---- One client -----------------------------------------------------------------------------------

void *ToArgument(int descriptor)
{
    return reinterpret_cast<void *>(static_cast<std::intptr_t>(descriptor));
}
int FromArgument(void *argument) { return static_cast<int>(reinterpret_cast<std::intptr_t>(argument)); }

// 0, or -1 with errno.
int WriteFully(int descriptor, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
        if (written >= 0)
            text.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EINTR)
            return -1;
    }
    return 0;
}

int WriteAll(int descriptor, const Lines &lines)
{
    for (const std::string &line : lines.lines)
        if (WriteFully(descriptor, line) != 0) return -1;
    return 0;
}

// Waits until the client has lines, and takes them; none when it is closing and has none left.
Lines TakeLines(int descriptor)
{
    KeldLock lock(state.traceMutex);
    Client &client = state.clients[descriptor];
    while (client.waiting.lines.empty() && !client.closing)
        state.linesAvailable.wait(lock.Waitable());
    return std::exchange(client.waiting, {});
}

void *KeldTraceWriter(void *argument)
{
    const int descriptor = FromArgument(argument);
    while (true) {
        const Lines taken = TakeLines(descriptor);
        if (taken.lines.empty()) return nullptr;
        if (WriteAll(descriptor, taken) != 0) {
            if (errno != EPIPE) KeldLog("Unexpected write error %s", std::strerror(errno));
            shutdown(descriptor, SHUT_RDWR); // the serve thread would wait for a peer that may never close
            return nullptr;
        }
    }
}

// Enters the client with the history and a blank line waiting: from here on, it misses no line.
void Admit(int descriptor)
{
    const KeldLock lock(state.traceMutex);
    Client &client = state.clients[descriptor];
    client.waiting = state.history;
    client.waiting.Append("\n");
    client.closing = false;
}

void SetClosing(int descriptor)
{
    {
        const KeldLock lock(state.traceMutex);
        Client &client = state.clients[descriptor];
        client.closing = true;
        client.waiting.TrimTo(kClosingBytesMax);
    }
    state.linesAvailable.notify_all();
}

// What a client sends means nothing; only the end of it does.
void ReadUntilEnd(int descriptor)
{
    char ignored[256];
    ssize_t count;
    do
        count = read(descriptor, ignored, sizeof ignored);
    while (count > 0 || (count < 0 && errno == EINTR));
}

// A client that has only ended its own side still gets what waits for it, if it takes it at once.
void AwaitWriter(pthread_t writer, int descriptor)
{
    timespec limit{};
    (void)clock_gettime(CLOCK_REALTIME, &limit);
    limit.tv_sec += kDrainSecondsMax;
    if (pthread_timedjoin_np(writer, nullptr, &limit) == 0) return;
    shutdown(descriptor, SHUT_RDWR);
    pthread_join(writer, nullptr);
}

void *KeldTraceServeMain(void *argument)
{
    const int descriptor = FromArgument(argument);
    Admit(descriptor);
    pthread_t writer;
    const int error = pthread_create(&writer, nullptr, KeldTraceWriter, argument);
    if (error == 0)
        ReadUntilEnd(descriptor);
    else
        KeldLog("pthread_create failed: %s", std::strerror(error));
    SetClosing(descriptor);
    if (error == 0) AwaitWriter(writer, descriptor);
    close(descriptor);
    return nullptr;
}

int StartDetached(void *(*main)(void *), void *argument)
{
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, main, argument);
    if (error == 0) pthread_detach(thread);
    return error;
}

// ---- The listening socket -------------------------------------------------------------------------

UniqueFd OpenSpare() { return UniqueFd(open("/dev/null", O_RDONLY | O_CLOEXEC)); }

UniqueFd AcceptOne(int listener) { return UniqueFd(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)); }

// A connection that cannot be accepted stays in the queue and keeps the listener readable: the main
// loop would come back at once, for ever. The spare descriptor takes it off; failing that, a pause.
void TurnAwayOne(int listener)
{
    (void)spare.Close();
    if (AcceptOne(listener).Get() < 0) poll(nullptr, 0, kAcceptPauseMilliseconds);
    spare = OpenSpare();
}

} // namespace

int KeldTraceOpen(const char *path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const int error = path == nullptr
                          ? KltRunDir_Path("keld-trace.sock", address.sun_path, sizeof address.sun_path)
                          : Str_Strcpy(address.sun_path, path, sizeof address.sun_path);
    if (error != 0) {
        errno = error;
        return -1;
    }
    unlink(address.sun_path);
    UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (listener.Get() < 0 ||
        bind(listener.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener.Get(), kBacklog) != 0)
        return -1;
    spare = OpenSpare();
    return listener.Release();
}

void KeldTraceAccept(int listener)
{
    UniqueFd connection = AcceptOne(listener);
    if (connection.Get() < 0) {
        KeldLog("Trace accept() failed: %s", std::strerror(errno));
        TurnAwayOne(listener);
        return;
    }
    const int error = StartDetached(KeldTraceServeMain, ToArgument(connection.Get()));
    if (error == 0)
        (void)connection.Release();
    else
        KeldLog("pthread_create failed: %s", std::strerror(error));
}

void KeldTraceIn(const void *record)
{
    Trace({",IN,", KelRecord_Timestamp(record), KelRecord_ID(record), KelRecord_ArgumentCount(record),
           KelRecord_ArgumentArea(record), KelRecord_End(record)});
}

void KeldTraceOut(const void *plingRecord)
{
    Trace({",OUT,", PlingRecord_Timestamp(plingRecord), PlingRecord_TypeId(plingRecord),
           PlingRecord_ArgumentCount(plingRecord), PlingRecord_ArgumentArea(plingRecord),
           PlingRecord_End(plingRecord)});
}
