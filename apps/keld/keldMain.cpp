// The life of the process, and of one observation.
//
// Start: options, signals, alarm thread, kernel signature, event posting, channels, trace listener,
// agents. Then one poll loop, until a signal or a fatal failure. Exit: agents cancelled and joined,
// channels closed.
//
// An observation waits in a channel until poll reports it. The main thread reads it with all that waits
// there into one buffer (keldChannel), shows it to the trace clients (keldTrace) and writes it into the
// pipe of every agent that subscribed to it (keldDispatch). The agent's thread reads it whole, makes a
// Kel of it (keldAgent), finds its handler (keldCorrelator), and the handler reads its arguments and
// posts what has to be said (keldPling).

#include "keldMain.h"

#include "keldAgent.h"
#include "keldAlarm.h"
#include "keldChannel.h"
#include "keldDispatch.h"
#include "keldDomains.h"
#include "keldJournal.h"
#include "keldLog.h"
#include "keldPling.h"
#include "keldPlingDelivery.h"
#include "keldSignal.h"
#include "keldStarter.h"
#include "keldStatus.h"
#include "keldTrace.h"

#include <kltlibs/kif.h>
#include <kltlibs/ksyslog.h>
#include <kltlibs/notify.h>
#include <kltlibs/rundir.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <memory>
#include <new>

namespace {

// The poll table: the channels, the trace listener, the producers' connections.
constexpr std::size_t kUserSlot = KELLIB_USER_CONTEXT;
constexpr std::size_t kTraceSlot = kUserSlot + 1;
constexpr std::size_t kFixedSlots = kTraceSlot + 1;
constexpr std::size_t kSlotsMax = 32;
static_assert(kSlotsMax - kFixedSlots == 8, "eight producers at a time");
constexpr short kBroken = POLLERR | POLLHUP | POLLNVAL;

struct PollTable {
    std::unique_ptr<pollfd[]> slots;
    std::size_t capacity = 0;
    std::size_t used = 0;

    bool Grow(std::size_t to)
    {
        std::unique_ptr<pollfd[]> grown(new (std::nothrow) pollfd[to]);
        if (grown == nullptr) return false;
        std::copy_n(slots.get(), used, grown.get());
        std::fill(grown.get() + used, grown.get() + to, pollfd{.fd = -1, .events = POLLIN, .revents = 0});
        slots = std::move(grown);
        capacity = to;
        return true;
    }
    void Append(int fd) { slots[used++] = {.fd = fd, .events = POLLIN, .revents = 0}; }
};

class Daemon {
public:
    int Start(bool asyncEnable, bool optionalAgents); // 0, or the exit code
    int Loop();                                       // the exit code
    void Stop();

private:
    int HandleSlot(std::size_t *index);
    int ReadKernelChannel(KeldChannel *channel);
    void AcceptProducer();
    bool CloseProducer(std::size_t index);

    KeldChannelTable mChannels = KeldChannelTemplate();
    PollTable mPoll;
    KeldRecordBuffer mBuffer;
};

bool ParseOptions(int argc, char **argv);
int EnableAsyncObservations();
int Refuse(const char *what, int error);
int RefuseChannel(const KeldChannel &channel, int error);
void TellReady();
void TellEnd(int code);
void TellJournalEnd(int code);

} // namespace

int KeldMain(int argc, char **argv, bool optionalAgents)
{
    KeldOpenStandardDescriptors();
    KSyslog_Open();
    const bool asyncEnable = argc > 1 && ParseOptions(argc, argv);
    Daemon daemon;
    int code = daemon.Start(asyncEnable, optionalAgents);
    const bool started = code == 0;
    if (started) {
        KeldStatusPhase(KeldPhase::Serves);
        TellReady();
        code = daemon.Loop();
        KltNotify("STOPPING=1");
    }
    KeldStatusPhase(KeldPhase::Leaves);
    daemon.Stop();
    KeldLog("Exiting. rc:%d\n", code);
    KeldStatusPhase(KeldPhase::Ended, code);
    if (started) TellEnd(code);
    if (started) TellJournalEnd(code);
    return code;
}

namespace {

// True when observations of asynchronous contexts are to be switched on.
//
// KEPT: every other option, known or not, prints the usage and ends with status 0.
bool ParseOptions(int argc, char **argv)
{
    static constexpr option kOptions[] = {{"enablekels", no_argument, nullptr, 'e'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {"loglevel", required_argument, nullptr, 'l'},
                                          {"test", no_argument, nullptr, 't'},
                                          {nullptr, 0, nullptr, 0}};
    bool asyncEnable = false;
    int option = 0;
    while ((option = getopt_long(argc, argv, "ehl:t", kOptions, nullptr)) != -1) {
        if (option != 'e') {
            std::printf("Usage: %s [options]\n", argv[0]);
            std::printf("valid options are:\n\t--help|-h - display this help\n");
            std::exit(0);
        }
        asyncEnable = true;
    }
    return asyncEnable;
}

int Daemon::Start(bool asyncEnable, bool optionalAgents)
{
    int error = KeldSignalInit();
    if (error != 0) return Refuse("signals cannot be handled", error);
    KeldAlarmStart();
    char kernelBuildDate[KIF_BUILD_DATE_BYTES];
    char ownBuildDate[KIF_BUILD_DATE_BYTES];
    if (KIF_CheckSig(kernelBuildDate, ownBuildDate) != 0)
        Panic("md5 signature mismatch with running kernix built on %s (my build date: %s)\n",
              kernelBuildDate, ownBuildDate);
    KeldPlingInit();
    if (asyncEnable && (error = EnableAsyncObservations()) != 0)
        return Refuse("the kernel's option Misc/KelAsyncEnable cannot be set", error);

    if (!mPoll.Grow(kFixedSlots)) return Refuse("no memory", 1);
    for (KeldChannel &channel : mChannels) {
        int fd = -1;
        if ((error = KeldChannelOpen(&channel, &fd)) != 0) return RefuseChannel(channel, error);
        mPoll.Append(fd);
    }
    KeldStatusOpen(KELD_VERSION); // no other daemon has the run directory now
    KelLib_SetDropObserver(KeldChannelTellDropped);
    const int traceListener = KeldTraceOpen(nullptr);
    if (traceListener < 0) KeldLog("Trace socket cannot be opened: %s\n", std::strerror(errno));
    mPoll.Append(traceListener); // without one, the slot stays empty

    if ((error = KeldDispatchInit()) != 0) return Refuse("the dispatcher cannot be set up", error);
    for (const KeldCorrelatorEntry &correlator : keldCorrelators)
        KeldAgentStart(correlator.start);
    if (optionalAgents) {
        KeldAgentStart(KeldLogger_Start);
        KeldAgentStart(KeldCorrelator_StartTest);
    }
    if (!KeldRecordBufferInit(&mBuffer)) {
        KeldLog("Error allocating space for kel buffer. Out of memory\n");
        return Refuse("no memory for observations", ENOMEM);
    }
    (void)mPoll.Grow(kSlotsMax); // without memory for it, without producers
    KeldAgentAwaitAll();
    if ((error = KeldJournalOpen(KELD_VERSION)) != 0)
        KeldLog("Journal socket cannot be opened: %s\n", std::strerror(error));
    return 0;
}

// Says why the daemon does not start, and gives the exit status.
int Refuse(const char *what, int error)
{
    KeldTell("cannot start: %s: %s", what, std::strerror(error));
    return error;
}

int RefuseChannel(const KeldChannel &channel, int error)
{
    char path[KLT_RUN_PATH_BYTES] = "";
    const char *remedy;
    const bool isUser = channel.context == KELLIB_USER_CONTEXT;
    const std::string name = isUser ? "user" : "async-" + std::to_string(channel.context);
    if (KltRunDir_Path(("kel/" + name + ".sock").c_str(), path, sizeof path) != 0)
        return Refuse("KALTOR_RUN_DIR must be an absolute path of at most 80 bytes", error);
    if (error == EBUSY)
        remedy = "another keld serves this run directory; stop it, or set KALTOR_RUN_DIR to another one";
    else if (error == EACCES || error == EPERM || error == EROFS)
        remedy = "run it as root, or set KALTOR_RUN_DIR to a directory of your own";
    else
        remedy = "the system log has the step that failed";
    KeldTell("cannot start: %s: %s; %s", path, std::strerror(error), remedy);
    return error;
}

void TellReady()
{
    char directory[KLT_RUN_PATH_BYTES] = "";
    (void)KltRunDir_Path("", directory, sizeof directory);
    KeldTell("version %s is ready: process %d, run directory %s, %zu agents", KELD_VERSION,
             static_cast<int>(getpid()), directory, KeldDispatchStreamCount());
    KltNotify("READY=1");
}

void TellEnd(int code)
{
    KeldTellLossesLeft();
    KeldTell("ended with status %d; %zu events were waiting for a retry, %" PRIu64
             " observations were left in pipes",
             code, KeldPlingWaiting(), KeldDispatchWaiting());
}

void TellJournalEnd(int code)
{
    KeldDispatchTellLost();
    KeldPlingTellLost();
    KeldJournalEnd({code, KeldDispatchCount(), KeldJournalEvents()});
}

int EnableAsyncObservations()
{
    const KifParamListPtr name(KIF_ParamListCreate());
    const KifParamListPtr value(KIF_ParamListCreate());
    KnxReturnStatus status = name != nullptr && value != nullptr ? KNX_OK : KNX_NO_MEMORY;
    if (status == KNX_OK) status = KIF_ParamListAddString(name.get(), "Misc");
    if (status == KNX_OK) status = KIF_ParamListAddString(name.get(), "KelAsyncEnable");
    if (status == KNX_OK) status = KIF_ParamListAddInt(value.get(), 1);
    if (status == KNX_OK) status = KIF_Set(KIF_NODE_config_intOptions, name.get(), value.get());
    return KNX_ReturnStatusToErrno(status);
}

int Daemon::Loop()
{
    for (;;) {
        if (KeldExitRequested()) {
            KeldLog("Exiting due to signal.\n");
            return 0;
        }
        KeldStatusStands(KeldStanding::Idle);
        const int ready = KeldPoll(mPoll.slots.get(), mPoll.used);
        KeldStatusStands(KeldStanding::Works);
        if (ready < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        for (std::size_t index = 0; index < mPoll.used; ++index) {
            if (mPoll.slots[index].revents == 0) continue;
            const int code = HandleSlot(&index);
            if (code > 0) return code;
        }
        KeldTellLostLogLines();
    }
}

// Handles one slot with returned events; a positive result ends the loop. Closing a producer moves the
// last slot into its place: *index is then set back by one, so that the moved slot has its turn, too.
int Daemon::HandleSlot(std::size_t *index)
{
    const std::size_t at = *index;
    pollfd &slot = mPoll.slots[at];
    const short events = slot.revents;
    int code = 0;
    bool close = false;
    if (at < kUserSlot) {
        if ((events & POLLIN) != 0) code = ReadKernelChannel(&mChannels[at]);
    } else if (at == kUserSlot) {
        if ((events & POLLIN) != 0) AcceptProducer();
    } else if (at == kTraceSlot) {
        if ((events & POLLIN) != 0) KeldTraceAccept(slot.fd);
    } else {
        // What a producer's connection could not deliver is no reason to end.
        const bool unread =
            (events & POLLIN) == 0 || KeldReadChannel(slot.fd, KELLIB_USER_CONTEXT, &mBuffer) != 0;
        close = unread && (events & kBroken) != 0;
    }
    if (close && CloseProducer(at)) {
        --*index;
        return 0;
    }
    slot.events = POLLIN;
    slot.revents = 0;
    return code;
}

int Daemon::ReadKernelChannel(KeldChannel *channel)
{
    int fd = -1;
    (void)KelLib_HandleToFd(channel->handle, &fd);
    const int code = KeldReadChannel(fd, static_cast<std::int32_t>(channel->context), &mBuffer);
    if (code != KELLIB_STATUS_TOO_SMALL) return code;
    (void)KelLib_Reset(channel->handle); // what waits there can never be read: it is lost
    KeldChannelTellDropped(static_cast<std::int32_t>(channel->context), 0,
                           "it does not fit the largest buffer");
    return 0;
}

void Daemon::AcceptProducer()
{
    int fd = -1;
    if (KelLib_UserContextNewCnx(mChannels[kUserSlot].handle, &fd) != 0) return;
    if (mPoll.used < mPoll.capacity) {
        mPoll.Append(fd);
    } else {
        (void)KelLib_UserContextCloseCnx(fd);
        KeldTellLoss(KeldLoss::Producers, 1);
        KeldChannelTellDropped(KELLIB_USER_CONTEXT, 0, "a connection: the daemon serves eight at a time");
    }
}

bool Daemon::CloseProducer(std::size_t index)
{
    if (KelLib_UserContextCloseCnx(mPoll.slots[index].fd) < 0) return false;
    const std::size_t last = --mPoll.used;
    mPoll.slots[index] = mPoll.slots[last];
    mPoll.slots[last] = {.fd = -1, .events = POLLIN, .revents = 0};
    return true;
}

void Daemon::Stop()
{
    KeldAgentStopAll();
    mPoll = {};
    KeldChannelCloseAll(&mChannels);
}

} // namespace
