#include "laboratory.h"

#include <keldJournal.h>
#include <kltlibs/kthread.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr std::chrono::minutes kLimit{1}; // for threads that run and run
constexpr milliseconds kRoundLimit{10};   // for the alarm thread to go round
constexpr milliseconds kLookAgainAfter{1};

// How often each thread but the calling one has gone to sleep so far; nothing unless all of them sleep.
std::optional<std::map<std::string, std::string>> SleepsOfAll()
{
    std::map<std::string, std::string> sleeps;
    const std::string own = std::to_string(syscall(SYS_gettid));
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        if (task.path().filename() == own) continue;
        std::ifstream status(task.path() / "status");
        for (std::string field, word; status >> field; std::getline(status, word)) {
            if (field == "State:" && (!(status >> word) || word != "S")) return std::nullopt;
            if (field == "voluntary_ctxt_switches:") status >> sleeps[task.path()];
        }
    }
    return sleeps;
}

} // namespace

Laboratory::Laboratory(HandClock &clock) : mClock(clock) { mSeats[mMainThread]; }

// Two looks with no move in between: what the first has found idle may have been given something to do
// while another was looked at.
std::string Laboratory::Settle()
{
    const auto giveUpAt = steady_clock::now() + kLimit;
    for (;;) {
        const std::uint64_t moves = Moves();
        if (NothingToDo() && mClock.IsParked() && mClock.Settle(kRoundLimit) && NothingToDo() &&
            Moves() == moves && KeldJournalIsWritten())
            return "";

        if (MovesSince(moves) && steady_clock::now() < giveUpAt) continue;
        // A thread that sleeps in two looks, and has not gone to sleep in between, has slept all the time;
        // when all have, nobody is left who could wake another.
        const auto sleeps = SleepsOfAll();
        const std::string busy = Busy();
        const bool asleep = sleeps && SleepsOfAll() == sleeps;
        if (!busy.empty() && (asleep || steady_clock::now() >= giveUpAt)) return busy;
    }
}

std::string Laboratory::MoveTowards(std::uint64_t target)
{
    mClock.MoveTowards(target);
    return Settle();
}

std::string Laboratory::Set(std::uint64_t seconds)
{
    mClock.Set(seconds);
    return Settle();
}

// True when every thread waits, not one of them to write, and one poll over all that they wait for
// reports nothing: channels, connections, pipes and the wake pipe are empty at the same time.
bool Laboratory::NothingToDo()
{
    const std::lock_guard guard(mMutex);
    std::vector<pollfd> all;
    for (const auto &[thread, seat] : mSeats) {
        if (!seat.waits) return false;
        all.insert(all.end(), seat.fds.begin(), seat.fds.end());
    }
    return std::ranges::none_of(all, [](const pollfd &fd) { return (fd.events & POLLOUT) != 0; }) &&
           poll(all.data(), all.size(), 0) == 0;
}

// Who does not wait for what comes next.
std::string Laboratory::Busy()
{
    const std::lock_guard guard(mMutex);
    std::string busy = mClock.IsParked() ? "" : "KeldAlarm posts";
    for (const auto &[thread, seat] : mSeats) {
        const bool writes = seat.waits && (seat.fds.at(0).events & POLLOUT) != 0;
        if (seat.waits && !writes) continue;
        if (!busy.empty()) busy += ", ";
        busy += thread == mMainThread ? "the main thread waits for an agent" : seat.name + " posts";
    }
    return busy;
}

std::uint64_t Laboratory::Moves()
{
    const std::lock_guard guard(mMutex);
    return mMoves;
}

// True as soon as a thread has begun or ended to wait, false when a while has passed without.
bool Laboratory::MovesSince(std::uint64_t moves)
{
    std::unique_lock lock(mMutex);
    return mMoved.wait_for(lock, kLookAgainAfter, [&] { return mMoves != moves; });
}

void Laboratory::AgentBegins()
{
    const std::lock_guard guard(mMutex);
    OwnSeat();
    ++mMoves;
}

void Laboratory::AgentEnds()
{
    const std::lock_guard guard(mMutex);
    mSeats.erase(std::this_thread::get_id());
    ++mMoves;
}

void Laboratory::Waits(const pollfd *fds, nfds_t count)
{
    const std::lock_guard guard(mMutex);
    Seat &seat = OwnSeat();
    if (seat.name.empty()) seat.name = KThreadBase_CurName();
    seat.fds.assign(fds, fds + count);
    seat.waits = true;
    ++mMoves;
    mMoved.notify_all();
}

void Laboratory::Left()
{
    const std::lock_guard guard(mMutex);
    OwnSeat().waits = false;
    ++mMoves;
}
