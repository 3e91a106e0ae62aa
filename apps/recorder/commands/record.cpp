// The recorder: one thread, which reads the journal, and writes what it has heard twice a second.
//
// The daemon's journal never waits for it. What it is too slow for, and the time in which it does not run,
// is a gap of the recording; the daemon may come and go.

#include "commands.h"
#include "console.h"
#include "inventoryWatch.h"
#include "keeper.h"
#include "runDirectory.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;

constexpr auto kWriteAfter = 500ms;
constexpr size_t kWriteRows = 20'000;
constexpr auto kHeartbeat = 10s; // how often an idle recorder writes that it still listens
constexpr auto kConnectAgain = 1s;
constexpr int kTrimsAtOnce = 4;

struct RecordOptions {
    std::string file;
    std::string catalogue;
    std::string journal; // instead of the daemon's
    double megabytes = 2048;
    double days = 30;
};

class Recorder {
public:
    Recorder(const RecordOptions &options, const StopSignal &stop)
        : mStop(stop), mFile(RecordingFile(options.file)), mRecording(mFile),
          mKnowledge(FindCatalogue(options.catalogue)),
          mStore(&mRecording, mFile,
                 {static_cast<std::uint64_t>(options.megabytes * 1024 * 1024),
                  static_cast<std::uint64_t>(options.days * 24 * 3600 * 1'000'000)}),
          mKeeper(&mStore, &mKnowledge)
    {
        fmt::print(stderr, "keladm record: recording into {}\n", mFile);
    }

    void Listen();                         // until the stop
    void Play(const std::string &journal); // one that was saved

private:
    void Connect();
    void Disconnect(CoverageEnd why, const std::string &message);
    void Read();
    void HearAll();
    void LookAtInventory();
    // Whether there is something to write. A change of the inventory is told with the daemon's time, which
    // nobody knows before its first word.
    bool Waits() const { return mKeeper.Waiting() > 0 || (mInventoryStale && mKeeper.Now() != 0); }
    // Since the last entry, in microseconds.
    std::uint64_t Silent() const
    {
        return static_cast<std::uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - mHeard).count());
    }
    void Write();
    void FlushOnceThereIsRoom();

    const StopSignal &mStop;
    std::string mFile;
    Recording mRecording;
    Knowledge mKnowledge;
    Store mStore;
    Keeper mKeeper;
    InventoryWatch mInventory;
    bool mInventoryStale = true;
    bool mPlays = false; // a saved journal, which ends where it was cut
    UniqueFd mJournal;
    JournalStream mStream;
    Clock::time_point mHeard = Clock::now();   // the last entry
    Clock::time_point mWritten = Clock::now(); // the last batch
};

void Recorder::Listen()
{
    bool toldAbsence = false;
    for (;;) {
        if (!mJournal) Connect();
        if (!mJournal && !std::exchange(toldAbsence, true))
            fmt::print(stderr, "keladm record: {}; waiting for it\n", NoDaemonText());
        if (mJournal) toldAbsence = false;

        auto until = Waits()    ? mWritten + kWriteAfter
                     : mJournal ? mWritten + kHeartbeat
                                : Clock::now() + kConnectAgain;
        pollfd fds[] = {
            {mStop.Get(), POLLIN, 0}, {mInventory.Get(), POLLIN, 0}, {mJournal.Get(), POLLIN, 0}};
        PollUntil(fds, until);
        if (fds[1].revents != 0) mInventoryStale = true;
        if (fds[2].revents != 0) Read();
        bool stopping = fds[0].revents != 0;
        if (stopping) mKeeper.Ended(CoverageEnd::RecorderStopped);
        if (stopping || mKeeper.Waiting() >= kWriteRows ||
            Clock::now() >= mWritten + (Waits() ? Clock::duration(kWriteAfter) : kHeartbeat))
            Write();
        if (stopping) return;
    }
}

void Recorder::Play(const std::string &journal)
{
    mJournal = journal == "-" ? UniqueFd(dup(STDIN_FILENO))
                              : UniqueFd(open(journal.c_str(), O_RDONLY | O_CLOEXEC));
    if (!mJournal) throw Failure(kExitFailed, fmt::format("{}: {}", journal, std::strerror(errno)));
    mPlays = true;
    mInventoryStale = false; // of another time
    while (mJournal) {
        pollfd fds[] = {{mStop.Get(), POLLIN, 0}, {mJournal.Get(), POLLIN, 0}};
        PollUntil(fds, mWritten + kWriteAfter);
        if (fds[0].revents != 0) break;
        if (fds[1].revents != 0) Read();
        if (mKeeper.Waiting() >= kWriteRows || Clock::now() >= mWritten + kWriteAfter) Write();
    }
    mKeeper.Ended(CoverageEnd::RecorderStopped);
    Write();
}

void Recorder::Connect()
{
    sockaddr_un address = SocketAddress(RunDirectoryPath("keld-journal.sock"));
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) throw Failure(kExitFailed, fmt::format("cannot listen: {}", std::strerror(errno)));
    if (connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        if (errno != ENOENT && errno != ECONNREFUSED && errno != EAGAIN)
            throw Failure(kExitFailed, fmt::format("keld-journal.sock: {}", std::strerror(errno)));
        if (errno != EAGAIN) mKeeper.NoDaemon(Silent(), WallMicroseconds());
        return;
    }
    int bytes = 4 << 20; // as much as the system allows: time to write in
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    mJournal = std::move(fd);
    mStream = JournalStream();
}

void Recorder::Disconnect(CoverageEnd why, const std::string &message)
{
    fmt::print(stderr, "keladm record: {}\n", message);
    mJournal.Reset();
    mKeeper.Ended(why);
}

void Recorder::Read()
{
    static char buffer[1 << 20];
    ssize_t count = read(mJournal.Get(), buffer, sizeof buffer);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count > 0) {
        mStream.Add({buffer, static_cast<size_t>(count)});
        HearAll();
        if (!mStream.Error().empty())
            Disconnect(CoverageEnd::TooSlow,
                       fmt::format("the journal cannot be read: {}", mStream.Error()));
    } else {
        Disconnect(mPlays ? CoverageEnd::RecorderStopped : CoverageEnd::DaemonGone,
                   "the journal has ended");
    }
}

void Recorder::HearAll()
{
    while (auto entry = mStream.Take()) {
        auto hello = std::get_if<JournalHello>(&entry->body);
        if (hello != nullptr && hello->format != kJournalFormat)
            throw Failure(kExitFailed, fmt::format("the daemon writes its journal in format {}, and this "
                                                   "recorder reads format {}",
                                                   hello->format, std::uint32_t{kJournalFormat}));
        if (mKeeper.Waiting() == 0) mWritten = Clock::now();
        mKeeper.Hear(*entry);
        mHeard = Clock::now();
        if (hello != nullptr || mKeeper.Waiting() >= kWriteRows) Write();
        // Said once it is true: the gap has ended in the recording, and the inventory has been looked at,
        // so that what changes from now on is told as a change.
        if (hello != nullptr)
            fmt::print(stderr, "keladm record: listening to keld {}, process {}, running since {}\n",
                       hello->version, hello->process, LocalTime(hello->since).substr(0, 19));
    }
}

void Recorder::LookAtInventory()
{
    if (!mInventoryStale || mKeeper.Now() == 0) return;
    mInventoryStale = false;
    mInventory.Look([this](const std::string &path, const std::string &value, int change) {
        mKeeper.Inventory(path, value, change, Silent());
    });
}

// Where even what is oldest makes no room, as others fill the disk: the journal is not read until there is
// some, and the daemon names what it could not keep so long.
void Recorder::FlushOnceThereIsRoom()
{
    for (bool told = false;; told = true) {
        try {
            return mKeeper.Flush(Silent());
        } catch (const DatabaseError &error) {
            if (error.code != SQLITE_FULL || mPlays) throw;
        }
        if (!told)
            fmt::print(stderr,
                       "keladm record: the disk is full; nothing is recorded until there is room\n");
        pollfd fds[] = {{mStop.Get(), POLLIN, 0}};
        PollUntil(fds, Clock::now() + kConnectAgain);
        if (fds[0].revents != 0) throw Failure(kExitFailed, "the disk is full: the last batch is lost");
    }
}

void Recorder::Write()
{
    LookAtInventory();
    mWritten = Clock::now();
    FlushOnceThereIsRoom();
    for (int i = 0; i < kTrimsAtOnce && mStore.Trim(mKeeper.Now()); i++) {
    }
}

int Record(const RecordOptions &options)
{
    StopSignal stop;
    Recorder recorder(options, stop);
    if (options.journal.empty())
        recorder.Listen();
    else
        recorder.Play(options.journal);
    return kExitOk;
}

} // namespace

void AddRecordCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<RecordOptions>();
    AddFileOption(app, &options->file);
    app.add_option("--size", options->megabytes, "Keep no more than so many megabytes; 2048 when not named")
        ->type_name("MB")
        ->check(CLI::Range(8.0, 1e9));
    app.add_option("--age", options->days,
                   "Keep nothing that is older than so many days; 30 when not named")
        ->type_name("DAYS")
        ->check(CLI::Range(0.001, 36500.0));
    app.add_option("--journal", options->journal, "Record a journal that was saved, - being standard input")
        ->type_name("FILE");
    AddCatalogueOption(app, &options->catalogue);
    app.footer(R"(
Listens to the daemon's journal, for as long as it runs and whichever daemon comes, and
watches the host inventory. What is older or more than it may keep goes, the oldest
first, but never what belongs to a problem that is open; so it does when less than 32 MB
of the disk are left. Killed, it loses at most the last second, and the time until it
runs again is a gap that every answer names.

Exit status: 0 on SIGINT, SIGTERM and SIGHUP; 1 when the recording cannot be written,
is no recording or of a newer version, or has a recorder already.

Examples:
  keladm record
  keladm record --file /tmp/night.db --size 100)");
    app.callback([options, chosen] { *chosen = [options] { return Record(*options); }; });
}
