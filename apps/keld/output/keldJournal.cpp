// Life of an entry: rendered by the thread that has something to tell, without the lock; given its number
// and appended under it to the one store, alone or with others of that thread; copied out and written by
// each listener's writer, again without the lock.
//
// Life of a listener: the accepting thread enters it and starts its writer, which begins with the hello.
// The accepting thread watches for its end, whoever ends it, and takes it out again. It also turns away
// whoever is one too many.

#include "keldJournal.h"

#include "keldMutex.h"
#include "keldOwn.h"
#include "keldProcess.h"
#include "keldStore.h"

#include <kltlibs/ktime.h>
#include <kltlibs/rundir.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <iterator>
#include <list>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t kListenersMax = 2;
constexpr std::size_t kWaitingBytesMax = std::size_t{16} << 20; // of all listeners
constexpr std::size_t kWriteBytes = 64 << 10;                   // at a time
constexpr std::size_t kRoomBytesKept = 16 << 10;                // that a thread keeps for its entries
constexpr std::size_t kBusyBytes = 4 << 10;                     // in a write: more is soon to come
constexpr int kAcceptPauseMilliseconds = 1000;
constexpr std::chrono::milliseconds kEndWait{200};

struct Listener {
    Listener(KeldStore &store, UniqueFd socket)
        : connection(std::move(socket)), entries(store, KeldStore::Reader::From::Now), next(store.End())
    {
    }

    const UniqueFd connection;
    pthread_t writer{};
    // Under the journal's mutex.
    std::string hello; // not yet taken
    KeldStore::Reader entries;
    std::uint64_t next;  // the place of the entry that it expects next
    bool writing = true; // has taken something that may not be written yet
    bool cut = false;
};

struct Agent {
    std::uint16_t number;
    std::uint8_t ended;
    std::shared_ptr<const std::string> name;
};

struct State {
    KeldMutex journalMutex;
    std::condition_variable appended; // or cut, or ending
    std::condition_variable written;
    KeldStore entries GUARDED_BY(journalMutex){0, kWaitingBytesMax};
    std::list<Listener> listeners GUARDED_BY(journalMutex);
    std::vector<Agent> agents GUARDED_BY(journalMutex);
    bool ending GUARDED_BY(journalMutex) = false;
    std::atomic<bool> beginDue{false};
    std::atomic<std::uint64_t> events{0}; // so far
    UniqueFd socket;                      // fixed after start, as all below
    std::string version, boot;
    std::uint64_t startTicks = 0, since = 0;
};
State &state = *new State; // its threads outlive main

std::uint64_t Now() // wall-clock microseconds since the epoch
{
    timeval now{};
    (void)KTime_GetTimeOfDay(&now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(now.tv_usec);
}

// ---- One listener ---------------------------------------------------------------------------------------

std::string Hello() REQUIRES(state.journalMutex)
{
    JournalHello hello{.process = static_cast<std::uint32_t>(getpid()),
                       .startTicks = state.startTicks,
                       .since = state.since,
                       .boot = state.boot,
                       .version = state.version,
                       .agents = {}};
    for (const Agent &agent : state.agents)
        hello.agents.push_back(
            {agent.number, agent.ended, agent.name ? std::string_view(*agent.name) : ""});
    std::string entry;
    Journal_Append(&entry, state.entries.End() + 1, Now(), hello);
    return entry;
}

bool HasAll(const Listener &listener) REQUIRES(state.journalMutex)
{
    return listener.hello.empty() && listener.entries.Next() == state.entries.End();
}

bool IsWritten() REQUIRES(state.journalMutex)
{
    for (const Listener &listener : state.listeners)
        if (!listener.cut && (listener.writing || !HasAll(listener))) return false;
    return true;
}

// Waits until there is something for the listener: false when it has been cut off.
bool Await(Listener &listener)
{
    KeldLock lock(state.journalMutex);
    listener.writing = false;
    state.written.notify_all();
    while (HasAll(listener) && !listener.cut)
        state.appended.wait(lock.Waitable());
    listener.writing = true;
    return !listener.cut;
}

// Takes for the listener what is to be written next: the hello, a gap for what it has missed, and some of
// the entries that wait.
void Take(Listener &listener, std::string *bytes)
{
    const KeldLock lock(state.journalMutex);
    bytes->append(listener.hello);
    listener.hello.clear();
    if (const std::uint64_t next = listener.entries.Next(); next > listener.next) {
        Journal_Append(bytes, listener.next + 1, Now(), JournalGap{next});
        state.beginDue = true;
    }
    listener.entries.Read(bytes, kWriteBytes, state.entries.End());
    listener.next = listener.entries.Next();
}

bool Ending()
{
    const KeldLock lock(state.journalMutex);
    return state.ending;
}

// How long a writer gathers what comes together, behind a write of so many bytes. Each time that it wakes
// costs as much as many entries; but little is not to wait for long, and behind a full write more waits.
int GatherMilliseconds(std::size_t written)
{
    if (written >= kWriteBytes || Ending()) return 0;
    return written >= kBusyBytes ? 5 : 1;
}

void *KeldJournalWriter(void *argument)
{
    Listener &listener = *static_cast<Listener *>(argument);
    try {
        for (std::string bytes; Await(listener);) {
            poll(nullptr, 0, GatherMilliseconds(bytes.size()));
            bytes.clear();
            Take(listener, &bytes);
            if (KeldSendAll(listener.connection.Get(), bytes) != 0) break;
        }
    } catch (const std::bad_alloc &) {
    }
    shutdown(listener.connection.Get(), SHUT_RDWR); // the accepting thread sees it
    return nullptr;
}

// ---- The accepting thread ---------------------------------------------------------------------------

void Enter(UniqueFd connection)
try {
    KeldLock lock(state.journalMutex);
    if (state.listeners.size() == kListenersMax) return;
    Listener &listener = state.listeners.emplace_back(state.entries, std::move(connection));
    try {
        listener.hello = Hello();
    } catch (const std::bad_alloc &) {
    }
    if (listener.hello.empty() ||
        pthread_create(&listener.writer, nullptr, KeldJournalWriter, &listener) != 0) {
        state.listeners.pop_back();
        return;
    }
    state.beginDue = true;
    keldJournalHeard = true;
} catch (const std::bad_alloc &) {
}

// The listener has ended, or its writer has.
void Leave(Listener &listener)
{
    shutdown(listener.connection.Get(), SHUT_RDWR);
    {
        const KeldLock lock(state.journalMutex);
        listener.cut = true;
    }
    state.appended.notify_all();
    pthread_join(listener.writer, nullptr);
    const KeldLock lock(state.journalMutex);
    state.listeners.remove_if([&](const Listener &each) { return &each == &listener; });
    keldJournalHeard = !state.listeners.empty();
    state.written.notify_all();
}

void AcceptOne()
{
    UniqueFd connection(accept4(state.socket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (connection)
        Enter(std::move(connection));
    else if (errno != EAGAIN && errno != EINTR && errno != ECONNABORTED)
        poll(nullptr, 0, kAcceptPauseMilliseconds); // it stays readable
}

void *KeldJournalMain(void *)
{
    for (;;) {
        pollfd fds[1 + kListenersMax] = {{.fd = state.socket.Get(), .events = POLLIN, .revents = 0}};
        Listener *listeners[kListenersMax];
        nfds_t count = 1;
        {
            const KeldLock lock(state.journalMutex);
            for (Listener &listener : state.listeners) {
                listeners[count - 1] = &listener;
                fds[count++] = {.fd = listener.connection.Get(), .events = POLLRDHUP, .revents = 0};
            }
        }
        if (poll(fds, count, -1) < 0) continue;
        for (nfds_t i = 1; i < count; ++i)
            if (fds[i].revents != 0) Leave(*listeners[i - 1]);
        if (fds[0].revents != 0) AcceptOne();
    }
    return nullptr;
}

} // namespace

// ---- What is told -----------------------------------------------------------------------------------

std::string &KeldJournalRoom()
{
    thread_local std::string room;
    return room;
}

void KeldJournalHandOver()
try {
    std::string &room = KeldJournalRoom();
    if (room.empty()) return;
    const std::uint64_t now = Now();
    {
        const KeldLock lock(state.journalMutex);
        std::uint64_t count = 0;
        for (std::size_t at = 0; at < room.size(); ++count)
            at += Journal_Stamp(room.data() + at, state.entries.End() + count + 1, now);
        (void)state.entries.Append(room, count);
    }
    state.appended.notify_all(); // no system call while nobody waits
    room.clear();
    if (room.capacity() > kRoomBytesKept) room = {};
} catch (const std::bad_alloc &) {
    KeldJournalDisconnect();
}

void KeldJournalDisconnect()
{
    KeldJournalRoom() = {};
    const KeldLock lock(state.journalMutex);
    for (Listener &listener : state.listeners) {
        listener.cut = true;
        shutdown(listener.connection.Get(), SHUT_RDWR);
    }
    state.appended.notify_all();
}

bool KeldJournalBeginDue()
{
    return state.beginDue.load(std::memory_order_relaxed) && state.beginDue.exchange(false);
}

void KeldJournalTellBegin(JournalBegin begin)
try {
    {
        const KeldLock lock(state.journalMutex);
        // An event gets its number before it is told: those that were told are among these, as long as
        // nobody tells one meanwhile.
        begin.events = KeldJournalEvents();
        std::string entry;
        Journal_Append(&entry, state.entries.End() + 1, Now(), begin);
        (void)state.entries.Append(entry);
    }
    state.appended.notify_all();
} catch (const std::bad_alloc &) {
    KeldJournalDisconnect();
}

std::uint64_t KeldJournalNextEvent() { return state.events.fetch_add(1, std::memory_order_relaxed) + 1; }

std::uint64_t KeldJournalEvents() { return state.events.load(std::memory_order_relaxed); }

void KeldJournalAgentBegins(std::uint16_t number, std::shared_ptr<const std::string> name)
{
    const KeldLock lock(state.journalMutex);
    state.agents.push_back({number, 0, std::move(name)});
}

void KeldJournalAgentEnds(std::uint16_t number)
{
    const KeldLock lock(state.journalMutex);
    for (Agent &agent : state.agents)
        if (agent.number == number) agent.ended = 1;
}

// ---- Its life ---------------------------------------------------------------------------------------

int KeldJournalOpen(const char *version)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (const int error = KltRunDir_Path("keld-journal.sock", address.sun_path, sizeof address.sun_path);
        error != 0)
        return error;
    state.version = version;
    state.boot = KeldBootId();
    state.startTicks = KeldProcessStart();
    state.since = Now();
    unlink(address.sun_path);
    state.socket = UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // The file gets the socket's mode: it is nobody else's from its first moment on.
    if (!state.socket || fchmod(state.socket.Get(), 0600) != 0 ||
        bind(state.socket.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(state.socket.Get(), static_cast<int>(kListenersMax)) != 0)
        return errno;
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, KeldJournalMain, nullptr);
    if (error == 0) pthread_detach(thread);
    return error;
}

void KeldJournalEnd(JournalEnd end)
{
    KeldJournalTell([&] { return end; });
    const auto until = std::chrono::steady_clock::now() + kEndWait;
    KeldLock lock(state.journalMutex);
    state.ending = true;
    while (!IsWritten())
        if (state.written.wait_until(lock.Waitable(), until) == std::cv_status::timeout) return;
}

bool KeldJournalIsWritten()
{
    const KeldLock lock(state.journalMutex);
    return IsWritten();
}
