// Life of a line: rendered by the thread that has the record, without the lock; appended under it to the
// one store of lines, where the history and all that clients still want is kept once; copied out and
// written by each client's writer, again without the lock, so that a slow client delays nobody.
//
// Life of a client: its serve thread enters it at the beginning of the history, starts its writer and reads
// until the client ends its side. From then on the writer gives what waits until nothing does, or until the
// connection has ended, whoever ended it. Then nothing of the client is left.
//
// When more than 16 MiB of lines wait for clients, those that are furthest behind are disconnected: they
// cannot exhaust the host.

#include "keldTrace.h"

#include "keldLog.h"
#include "keldMutex.h"
#include "keldOwn.h"
#include "keldStatus.h"
#include "keldStore.h"
#include "keldTraceLine.h"

#include <kltlibs/kelrecord.h>
#include <kltlibs/plingrecord.h>
#include <kltlibs/rundir.h>
#include <kltlibs/str.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <new>
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
constexpr std::size_t kWaitingBytesMax = std::size_t{16} << 20; // of all clients, behind the history
constexpr std::size_t kWriteBytes = 64 << 10;                   // at a time
constexpr int kBacklog = 128;
constexpr int kAcceptPauseMilliseconds = 10;
static_assert(sizeof(sockaddr_un::sun_path) == KLT_RUN_PATH_BYTES);

struct Client {
    Client(KeldStore &store, int socket)
        : descriptor(socket), lines(store, KeldStore::Reader::From::Recent), blankBefore(store.End())
    {
    }

    const int descriptor; // open for as long as the client is there
    KeldStore::Reader lines;
    std::uint64_t blankBefore; // the line before which the blank one comes; kNoBlank behind it
    bool ending = false;       // it has ended its side: to be left when it has all lines
    bool cut = false;          // disconnected, for not reading

    static constexpr std::uint64_t kNoBlank = UINT64_MAX;
};

struct State {
    KeldMutex traceMutex;
    std::condition_variable linesAvailable;
    KeldStore lines GUARDED_BY(traceMutex){kHistoryBytesMax, kWaitingBytesMax};
    std::list<Client> clients GUARDED_BY(traceMutex);
};
State &state = *new State; // the clients' threads outlive main

// To be given up when there are no more descriptors; main thread only.
UniqueFd &spare = *new UniqueFd;

// ---- Lines ----------------------------------------------------------------------------------------

// Disconnects the clients that have missed something for the last line, as they did not read.
void DisconnectLaggards() REQUIRES(state.traceMutex)
{
    for (Client &client : state.clients) {
        if (client.cut || client.lines.Missed() == 0) continue;
        KeldLog("Trace client %d does not read; disconnecting it.\n", client.descriptor);
        client.cut = true;
        shutdown(client.descriptor, SHUT_RDWR);
    }
}

void Trace(const KeldTraced &record)
try {
    const KeldTraceLine line(record);
    if (line.Text().empty()) return;
    {
        const KeldLock lock(state.traceMutex);
        if (state.lines.Append(line.Text())) DisconnectLaggards();
    }
    state.linesAvailable.notify_all(); // no system call while nobody waits
} catch (const std::bad_alloc &) {
    // Costs this line of trace, and nothing else.
}

// ---- One client -----------------------------------------------------------------------------------

// Waits until the client has lines, and takes some of them; none when it is to be left.
void TakeLines(Client &client, std::string *text)
{
    text->clear();
    KeldLock lock(state.traceMutex);
    KeldStore::Reader &lines = client.lines;
    const auto waiting = [&]() REQUIRES(state.traceMutex) {
        return lines.Next() < state.lines.End() || client.blankBefore == lines.Next();
    };
    while (!waiting() && !client.ending && !client.cut)
        state.linesAvailable.wait(lock.Waitable());
    if (client.cut) return;
    if (client.blankBefore != Client::kNoBlank) lines.Read(text, kWriteBytes, client.blankBefore);
    if (client.blankBefore == lines.Next()) {
        *text += '\n';
        client.blankBefore = Client::kNoBlank;
    }
    lines.Read(text, kWriteBytes, std::min(client.blankBefore, state.lines.End()));
}

void *KeldTraceWriter(void *argument)
try {
    Client &client = *static_cast<Client *>(argument);
    for (std::string text;;) {
        TakeLines(client, &text);
        if (text.empty()) break;
        if (KeldSendAll(client.descriptor, text) == 0) continue;
        if (errno != EPIPE) KeldLog("Unexpected write error %s", std::strerror(errno));
        break;
    }
    // Its serve thread would wait for a peer that may never close.
    shutdown(client.descriptor, SHUT_RDWR);
    return nullptr;
} catch (const std::bad_alloc &) {
    // A gap that nobody is told of would be worse.
    shutdown(static_cast<Client *>(argument)->descriptor, SHUT_RDWR);
    return nullptr;
}

void SetEnding(Client &client)
{
    {
        const KeldLock lock(state.traceMutex);
        client.ending = true;
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

// The client, with its place in the list.
std::list<Client>::iterator Enter(int descriptor)
{
    const KeldLock lock(state.traceMutex);
    KeldStatusTraceClients(state.clients.size() + 1);
    return state.clients.emplace(state.clients.end(), state.lines,
                                 descriptor); // misses no line from here on
}

void Leave(std::list<Client>::iterator client)
{
    const KeldLock lock(state.traceMutex);
    state.clients.erase(client);
    KeldStatusTraceClients(state.clients.size());
}

void *KeldTraceServeMain(void *argument)
try {
    const UniqueFd connection(static_cast<int>(reinterpret_cast<std::intptr_t>(argument)));
    const auto client = Enter(connection.Get());
    pthread_t writer;
    const int error = pthread_create(&writer, nullptr, KeldTraceWriter, &*client);
    if (error == 0) {
        ReadUntilEnd(connection.Get());
        SetEnding(*client);
        pthread_join(writer, nullptr);
    } else {
        KeldLog("pthread_create failed: %s", std::strerror(error));
    }
    Leave(client);
    return nullptr;
} catch (const std::bad_alloc &) {
    return nullptr;
}

int StartDetached(void *(*main)(void *), int descriptor)
{
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, main,
                                     reinterpret_cast<void *>(static_cast<std::intptr_t>(descriptor)));
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
    const int error = StartDetached(KeldTraceServeMain, connection.Get());
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
