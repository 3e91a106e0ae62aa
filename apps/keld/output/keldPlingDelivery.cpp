// Delivering events.
//
// Each record has a connection of its own, and is through when it has been written. What cannot be sent
// waits on the retry list for the alarm thread, which tries the whole list again every 180 seconds. Only
// the list has a lock.

#include "keldPlingDelivery.h"

#include "keldAlarm.h"
#include "keldLog.h"
#include "keldMutex.h"
#include "keldOwn.h"
#include "keldSignal.h"
#include "keldStatus.h"

#include <kltlibs/plingrecord.h>
#include <kltlibs/rundir.h>

#include <cerrno>
#include <fcntl.h>
#include <list>
#include <malloc.h>
#include <new>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

namespace {

constexpr std::uint32_t kRetrySeconds = 180;
constexpr int kRetryFailuresMax = 5;

constexpr std::size_t kManyEvents = 1000; // when so many are through, their memory is given back

constexpr suseconds_t kSendWaitMicroseconds = 200'000; // how often a blocked send looks whether to leave

int gRetryAlarm = -1; // fixed after start

struct RetryEntry {
    std::uint64_t event = 0; // its number
    unsigned tries = 0;      // so far
    int failures = 0;        // of re-sends
    std::vector<std::byte> record;
};
struct Retries {
    KeldMutex retryListMutex;
    std::list<RetryEntry> list GUARDED_BY(retryListMutex);
    bool alarmArmed GUARDED_BY(retryListMutex) = false;
};
Retries &retries = *new Retries; // the alarm thread outlives main

void RetryAll();
bool AwaitReceiver(int fd, int error);

} // namespace

void KeldPlingDeliveryInit() { gRetryAlarm = KeldAlarmRegister(RetryAll); }

int KeldPlingSend(const void *record, std::size_t length)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof address == 110);
    if (KltRunDir_Path("carad-pling.sock", address.sun_path, sizeof address.sun_path) != 0) return -1;
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.Get() < 0) return -1;
    const KeldStatusScope waits(KeldStanding::Receiver);
    while (connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        if (!AwaitReceiver(fd.Get(), errno)) return -1;
    for (std::size_t sent = 0; sent < length;) {
        const ssize_t count =
            send(fd.Get(), static_cast<const std::byte *>(record) + sent, length - sent, MSG_NOSIGNAL);
        if (count >= 0)
            sent += static_cast<std::size_t>(count);
        else if (!AwaitReceiver(fd.Get(), errno))
            return -1;
    }
    return 0;
}

void KeldPlingQueue(std::uint64_t event, unsigned tries, const void *record, std::size_t length)
try {
    const auto *bytes = static_cast<const std::byte *>(record);
    std::list<RetryEntry> entry(1);
    entry.front().event = event;
    entry.front().tries = tries;
    entry.front().record.assign(bytes, bytes + length);
    // Told before it is on the list, where the alarm thread could deliver it.
    KeldPlingTellDelivery(event, JournalDelivery::Waiting, tries);
    KeldLock lock(retries.retryListMutex);
    retries.list.splice(retries.list.end(), entry);
    KeldStatusEventsWaiting(retries.list.size());
    if (retries.alarmArmed) return; // an armed alarm is not moved
    retries.alarmArmed = true;
    (void)KeldAlarmSet(gRetryAlarm, kKeldAlarmOneShot, kRetrySeconds);
} catch (const std::bad_alloc &) {
    KeldPlingTellDelivery(event, JournalDelivery::NoMemory, tries);
}

namespace {

// True when the call that failed is to be made again: the receiver has no room yet, or the daemon was
// stopped and continued while it waited. From now on the socket waits for the receiver, a moment at a time.
// An event of the daemon's last moments is offered once, and waits for nobody.
bool AwaitReceiver(int fd, int error)
{
    if ((error != EAGAIN && error != EINTR) || KeldStopping()) return false;
    const timeval wait{.tv_sec = 0, .tv_usec = kSendWaitMicroseconds};
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    (void)fcntl(fd, F_SETFL, 0);
    return true;
}

// One pass over the retry list. Alarm thread.
void RetryAll()
{
    const KeldStatusScope retrying(KeldStanding::Retries);
    KeldLock lock(retries.retryListMutex);
    const std::size_t waited = retries.list.size();
    for (auto entry = retries.list.begin(); entry != retries.list.end() && !KeldStopping();) {
        const char *id = PlingRecord_TypeId(entry->record.data());
        const bool sent = KeldPlingSend(entry->record.data(), entry->record.size()) == 0;
        if (!sent && KeldStopping()) break;
        if (!sent) ++entry->failures;
        ++entry->tries;
        const int attempts = entry->failures + 1; // the first one included
        bool keep = false;
        if (entry->failures >= kRetryFailuresMax) {
            KeldLog("Abandoned event (%s) after %d failures.\n", id, attempts);
            KeldPlingTellDelivery(entry->event, JournalDelivery::Abandoned, entry->tries);
        } else if (sent) {
            KeldLog("Successfully sent event (%s) after %d failure%s.\n", id, attempts,
                    entry->failures == 0 ? "" : "s");
            KeldPlingTellDelivery(entry->event, JournalDelivery::Delivered, entry->tries);
        } else {
            KeldLog("Failed to send event (%s); %d failures so far.\n", id, attempts);
            KeldPlingTellDelivery(entry->event, JournalDelivery::Waiting, entry->tries);
            keep = true;
        }
        entry = keep ? std::next(entry) : retries.list.erase(entry);
    }
    KeldStatusEventsWaiting(retries.list.size());
    retries.alarmArmed = !retries.list.empty();
    if (retries.alarmArmed) (void)KeldAlarmSet(gRetryAlarm, kKeldAlarmOneShot, kRetrySeconds);
    if (waited - retries.list.size() > kManyEvents) malloc_trim(0); // else the C library keeps it all
}

} // namespace

std::size_t KeldPlingWaiting()
{
    const KeldLock lock(retries.retryListMutex);
    return retries.list.size();
}

void KeldPlingTellLost()
{
    const KeldLock lock(retries.retryListMutex);
    for (const RetryEntry &entry : retries.list)
        KeldPlingTellDelivery(entry.event, JournalDelivery::LostAtExit, entry.tries);
}

void KeldPlingTellDelivery(std::uint64_t event, JournalDelivery state, unsigned tries)
{
    KeldStatusEvent(state);
    KeldJournalTell([=] { return JournalDeliveryEntry{event, state, tries}; });
}
